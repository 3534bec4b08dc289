// Utf16ToUtf8 and Utf8ToUtf16 against the platform's WideCharToMultiByte and
// MultiByteToWideChar (CP_UTF8, refusing invalid input as ours do), on ASCII,
// Latin, Cyrillic and CJK text: 1 MiB texts and 50-byte paths, both directions.
// Run: <builddir>/wine-run <builddir>/bench/utf_bench.exe
#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "benchclock.h"
#include "benchrounds.h"
#include "str.h"

namespace {

struct Script {
    const char* name;
    const char* prose; // repeated into the 1 MiB text
    const char* path;  // about 50 bytes of UTF-8
};

const Script kScripts[] = {
    {"ASCII",
     "2024-07-01 12:00:03.417 ExecuteServiceStep: package \"Update-24.7.0.57.msi\" moved to "
     "C:\\ProgramData\\Korvanta\\Cloud\\Updates, result code 0. ",
     "C:\\Users\\jdoe\\AppData\\Local\\Korvanta\\Update.msi"},
    {"Latin",
     "Die \xc3\x9c"
     "berpr\xc3\xbc"
     "fung der Signatur ist abgeschlossen; le paquet a \xc3\xa9t\xc3\xa9 "
     "d\xc3\xa9plac\xc3\xa9 vers le r\xc3\xa9pertoire pr\xc3\xa9vu, \xc3\xa0 "
     "l'exception des fichiers d\xc3\xa9j\xc3\xa0 pr\xc3\xa9sents. ",
     "C:\\Users\\J\xc3\xbcrgen\\Donn\xc3\xa9"
     "es\\\xc3\x9c"
     "berpr\xc3\xbc"
     "fung.msi"},
    {"Cyrillic",
     "\xd0\x9e\xd0\xb1\xd0\xbd\xd0\xbe\xd0\xb2\xd0\xbb\xd0\xb5\xd0\xbd\xd0\xb8\xd0\xb5 "
     "\xd0\xbf\xd0\xb0\xd0\xba\xd0\xb5\xd1\x82\xd0\xb0 \xd1\x83\xd1\x81\xd1\x82\xd0\xb0\xd0\xbd"
     "\xd0\xbe\xd0\xb2\xd0\xbb\xd0\xb5\xd0\xbd\xd0\xbe \xd1\x83\xd1\x81\xd0\xbf\xd0\xb5\xd1\x88"
     "\xd0\xbd\xd0\xbe, \xd0\xbf\xd0\xb5\xd1\x80\xd0\xb5\xd0\xb7\xd0\xb0\xd0\xbf\xd1\x83\xd1\x81"
     "\xd0\xba \xd0\xbd\xd0\xb5 \xd1\x82\xd1\x80\xd0\xb5\xd0\xb1\xd1\x83\xd0\xb5\xd1\x82\xd1\x81"
     "\xd1\x8f. ",
     "C:\\\xd0\x94\xd0\xbe\xd0\xba\xd1\x83\xd0\xbc\xd0\xb5\xd0\xbd\xd1\x82\xd1\x8b\\\xd0\xbe\xd0"
     "\xb1\xd0\xbd\xd0\xbe\xd0\xb2\xd0\xbb\xd0\xb5\xd0\xbd\xd0\xb8\xd0\xb5.msi"},
    {"CJK",
     "\xe6\x9b\xb4\xe6\x96\xb0\xe3\x83\x91\xe3\x83\x83\xe3\x82\xb1\xe3\x83\xbc\xe3\x82\xb8\xe3"
     "\x81\xae\xe7\xbd\xb2\xe5\x90\x8d\xe3\x82\x92\xe7\xa2\xba\xe8\xaa\x8d\xe3\x81\x97\xe3\x81"
     "\xbe\xe3\x81\x97\xe3\x81\x9f\xe3\x80\x82\xe6\x9c\x8d\xe5\x8a\xa1\xe5\xb7\xb2\xe6\x88\x90"
     "\xe5\x8a\x9f\xe5\xae\x89\xe8\xa3\x85\xe6\x9b\xb4\xe6\x96\xb0\xe3\x80\x82",
     "C:\\\xe7\x94\xa8\xe6\x88\xb7\\\xe6\x96\x87\xe6\xa1\xa3\\\xe6\x9b\xb4\xe6\x96\xb0\xe3\x83"
     "\x91\xe3\x83\x83\xe3\x82\xb1\xe3\x83\xbc\xe3\x82\xb8.msi"},
};

std::wstring Wide(const std::string& text) {
    std::wstring wide(text.size(), L'\0');
    wide.resize(MultiByteToWideChar(CP_UTF8, 0, text.data(), int(text.size()), wide.data(),
                                    int(wide.size())));
    return wide;
}

} // namespace

int main() {
    std::string misses;
    for (const Script& script : kScripts)
        for (const bool path : {false, true}) {
            const std::string utf8 = path ? script.path : RepeatText(script.prose, 1 << 20);
            const std::wstring utf16 = Wide(utf8);
            const uint64_t calls = path ? 1 << 18 : 24;
            std::vector<char> bytes(utf8.size() + 64);
            std::vector<wchar_t> units(utf16.size() + 64);
            const auto n8 = static_cast<uint32_t>(utf8.size());
            const auto n16 = static_cast<uint32_t>(utf16.size());
            const std::string what = std::string(script.name) +
                                     (path ? ", " + std::to_string(n8) + "-byte path" : ", 1 MiB");
            misses += RunRow("UTF-16 -> UTF-8, " + what + " (ns per unit)",
                             {{"Utf16ToUtf8",
                               [&] {
                                   return NsPerItem(calls, n16, [&] {
                                       return Utf16ToUtf8(utf16.data(), n16, bytes.data(),
                                                          uint32_t(bytes.size()));
                                   });
                               }},
                              {"WideCharToMultiByte",
                               [&] {
                                   return NsPerItem(calls, n16, [&] {
                                       return WideCharToMultiByte(
                                           CP_UTF8, WC_ERR_INVALID_CHARS, utf16.data(), int(n16),
                                           bytes.data(), int(bytes.size()), nullptr, nullptr);
                                   });
                               },
                               1.5}})
                          .misses;
            misses += RunRow("UTF-8 -> UTF-16, " + what + " (ns per byte)",
                             {{"Utf8ToUtf16",
                               [&] {
                                   return NsPerItem(calls, n8, [&] {
                                       return Utf8ToUtf16(utf8.data(), n8, units.data(),
                                                          uint32_t(units.size()));
                                   });
                               }},
                              {"MultiByteToWideChar",
                               [&] {
                                   return NsPerItem(calls, n8, [&] {
                                       return MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS,
                                                                  utf8.data(), int(n8),
                                                                  units.data(), int(units.size()));
                                   });
                               },
                               1.5}})
                          .misses;
        }
    printf(misses.empty() ? "all targets held\n" : "targets missed:\n%s", misses.c_str());
    return 0;
}
