// Rounds of a side-by-side comparison: every contender runs once per round,
// the starting contender rotating from round to round, after one untimed
// warm-up of each. Contender 0 is the project; each other one is a reference,
// and a row reports reference time / project time per round as its median
// and spread (min..max).
#pragma once

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "benchclock.h"

struct Contender {
    std::string name;
    std::function<double()> nsPerOp; // one timed run
    double target = 0;               // the ratio this reference must reach (0: none)
};

struct RowOutcome {
    bool held = true;
    std::string misses;
};

inline double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Prints one line per contender; returns whether every target held.
inline RowOutcome RunRow(const std::string& row, const std::vector<Contender>& contenders,
                         int rounds = 9) {
    const size_t n = contenders.size();
    for (const Contender& c : contenders)
        c.nsPerOp();
    std::vector<std::vector<double>> times(n);
    for (int round = 0; round < rounds; ++round)
        for (size_t k = 0; k < n; ++k) {
            const size_t which = (k + static_cast<size_t>(round)) % n;
            times[which].push_back(contenders[which].nsPerOp());
        }
    RowOutcome outcome;
    printf("%s\n", row.c_str());
    for (size_t i = 0; i < n; ++i) {
        printf("  %-26s %9.2f ns/op", contenders[i].name.c_str(), Median(times[i]));
        if (i == 0) {
            printf("\n");
            continue;
        }
        std::vector<double> ratios;
        for (int round = 0; round < rounds; ++round)
            ratios.push_back(times[i][round] / times[0][round]);
        const double median = Median(ratios);
        const auto [low, high] = std::minmax_element(ratios.begin(), ratios.end());
        printf("   ratio %6.2fx  [%6.2f .. %6.2f]", median, *low, *high);
        if (contenders[i].target > 0) {
            const bool held = median >= contenders[i].target;
            printf("   target %.1fx %s", contenders[i].target, held ? "held" : "MISSED");
            if (!held) {
                outcome.held = false;
                outcome.misses += row + " vs " + contenders[i].name + "\n";
            }
        }
        printf("\n");
    }
    fflush(stdout);
    return outcome;
}

// `piece` repeated to `bytes` of UTF-8, cut before a character that would not fit.
inline std::string RepeatText(const char* piece, size_t bytes) {
    std::string text;
    while (text.size() < bytes)
        text += piece;
    size_t cut = bytes;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80)
        --cut;
    return text.substr(0, cut);
}

// Nanoseconds per item of `calls` calls of `run`, each over `itemsPerCall`
// items; run returns a size that must not be 0 (it also keeps the work alive).
template <class Run> double NsPerItem(uint64_t calls, uint64_t itemsPerCall, Run run) {
    LARGE_INTEGER rate, start, end;
    QueryPerformanceFrequency(&rate);
    uint64_t sink = 0;
    QueryPerformanceCounter(&start);
    for (uint64_t i = 0; i < calls; ++i)
        sink += run();
    QueryPerformanceCounter(&end);
    if (sink == 0)
        printf("the run produced nothing\n");
    return Seconds(start, end, rate) * 1e9 / static_cast<double>(calls * itemsPerCall);
}
