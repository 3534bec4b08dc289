// Throughput of WriteJsonString on a log-like ASCII text and on a CJK/emoji text.
// Run by hand: <builddir>/wine-run <builddir>/bench/json_bench.exe
#include <windows.h>

#include "benchclock.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "json.h"

namespace {

constexpr size_t kTextBytes = 1 << 20;
constexpr double kSecondsPerCase = 1.5;

std::string Repeat(const char* piece, size_t bytes) {
    std::string text;
    text.reserve(bytes + 256);
    while (text.size() < bytes)
        text += piece;
    // Never cut a character in half.
    size_t cut = bytes;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80)
        --cut;
    text.resize(cut);
    return text;
}

bool Measure(const char* name, const std::string& text) {
    LARGE_INTEGER rate, start, now;
    QueryPerformanceFrequency(&rate);
    Str writer;
    Str error;
    // One untimed pass, also to check that the text is accepted.
    if (!WriteJsonString(text.c_str(), writer, &error, false)) {
        printf("%s: refused: %s\n", name, error.Text());
        return false;
    }
    const uint32_t literalBytes = writer.Length();
    uint64_t passes = 0;
    const double cpuStart = CpuSeconds();
    QueryPerformanceCounter(&start);
    do {
        for (int i = 0; i < 8; ++i)
            WriteJsonString(text.c_str(), writer, &error, false);
        passes += 8;
        QueryPerformanceCounter(&now);
    } while (Seconds(start, now, rate) < kSecondsPerCase);
    const double seconds = Seconds(start, now, rate);
    const double cpu = CpuSeconds() - cpuStart;
    const double megabytes = static_cast<double>(text.size()) * static_cast<double>(passes) / 1e6;
    printf("%-10s %8zu bytes in, %8u bytes out, %5llu passes, %6.3f s: %8.1f MB/s "
           "(%8.1f MB/s of thread time)\n",
           name, text.size(), literalBytes, static_cast<unsigned long long>(passes), seconds,
           megabytes / seconds, cpu > 0 ? megabytes / cpu : 0.0);
    return true;
}

} // namespace

int main() {
    const std::string ascii = Repeat(
        "2024-07-01 12:00:03.417 [info] ExecuteServiceStep: package \"Update-24.7.0.57.msi\" "
        "moved to C:\\ProgramData\\Korvanta\\Cloud\\Updates, result code 0\r\n"
        "2024-07-01 12:00:03.512 [warning] The signer of the package was checked twice; the "
        "installer started with msiexec.exe /qn /i and AUTOUPDATE=1 as its arguments.\r\n",
        kTextBytes);
    const std::string cjk = Repeat(
        "\xe6\x9b\xb4\xe6\x96\xb0\xe3\x83\x91\xe3\x83\x83\xe3\x82\xb1\xe3\x83\xbc\xe3\x82\xb8 "
        "\xf0\x9f\x98\x80\xf0\x9f\x93\xa6 \xe7\xbd\xb2\xe5\x90\x8d\xe3\x82\x92\xe7\xa2\xba"
        "\xe8\xaa\x8d\xe3\x81\x97\xe3\x81\xbe\xe3\x81\x97\xe3\x81\x9f\xe3\x80\x82\xec\x84\x9c"
        "\xeb\xb9\x84\xec\x8a\xa4 \xf0\x9f\x9a\x80\xe2\x9c\x85 ",
        kTextBytes);
    const bool ok = Measure("ascii-log", ascii) && Measure("cjk-emoji", cjk);
    return ok ? 0 : 1;
}
