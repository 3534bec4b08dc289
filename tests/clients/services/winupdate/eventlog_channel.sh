#!/usr/bin/env bash
# A console start of the service executable fails in StartServiceCtrlDispatcher
# (no service manager is waiting for it) and reports that as an error event.
# Wine's event log keeps nothing, but prints each ReportEventW string on its
# "eventlog" debug channel on the process's Unix stderr: that is what we check,
# together with the exit code and, for an unknown LOGTYPE, the interactive
# report that reaches the debugger output.
#
# Usage: eventlog_channel.sh <wine-run> <KorvantaCloudUS.exe>
set -u
wine_run=$1
exe=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# No display: the report box of the unknown LOGTYPE must come back at once.
unset DISPLAY WAYLAND_DISPLAY
export WINEDEBUG=err+eventlog,warn+eventlog,trace+eventlog,warn+debugstr

# The dispatcher takes about ten seconds to give up: run both cases at once.
(env -u LOGTYPE "$wine_run" "$exe" >"$work/plain.out" 2>"$work/plain.err"; echo $? >"$work/plain.rc") &
(LOGTYPE=bogus "$wine_run" "$exe" >"$work/bogus.out" 2>"$work/bogus.err"; echo $? >"$work/bogus.rc") &
wait

event='err:eventlog:ReportEventW L"Function [StartServiceCtrlDispatcher] failed with code [00000427]: '
unknown='GetLogType: Unknown type [bogus]'
failures=0

fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

for case in plain bogus; do
    rc=$(cat "$work/$case.rc")
    [ "$rc" = 1 ] || fail "$case: exit code $rc, expected 1"
    count=$(grep -cF "$event" "$work/$case.err")
    [ "$count" = 1 ] || fail "$case: $count event lines, expected 1"
    # The event's text ends with the system's text and a full stop, in one string.
    grep -F "$event" "$work/$case.err" | grep -qE '\.\."$|[^.]\."$' ||
        fail "$case: the event string does not end as expected"
    # Nothing of it reaches the Windows standard streams without LOGTYPE.
    [ ! -s "$work/$case.out" ] || fail "$case: unexpected standard output"
done

grep -F 'debugstr:OutputDebugStringA "' "$work/bogus.err" | grep -qF "$unknown" ||
    fail "bogus: no debug string with \"$unknown\""
grep -F 'debugstr:OutputDebugStringA "' "$work/bogus.err" | grep -F "$unknown" |
    grep -qE '"EM\|0x[0-9a-f]+\|0x[0-9a-f]+\|KorvantaCloudUS: ' ||
    fail "bogus: the report is not an error (EM) line with the default columns"
if grep -qF "$unknown" "$work/plain.err"; then
    fail "plain: reports an unknown LOGTYPE"
fi

if [ "$failures" -ne 0 ]; then
    for case in plain bogus; do
        echo "---- $case: stderr"
        grep -E 'eventlog|debugstr' "$work/$case.err" | cut -c1-400
    done
    exit 1
fi
echo "eventlog_channel: both cases passed"
