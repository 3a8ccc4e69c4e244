// Timing helpers for the benchmarks: each figure is printed next to a
// baseline measured in the same run, as a ratio, so that machines compare.
#pragma once

#include <windows.h>

#include <cstdio>
#include <functional>

namespace ky::bench {

// Seconds taken by `body`, best of `rounds` runs.
inline double Seconds(const std::function<void()>& body, int rounds = 3) {
    LARGE_INTEGER frequency;
    ::QueryPerformanceFrequency(&frequency);
    double best = 1e300;
    for (int i = 0; i < rounds; ++i) {
        LARGE_INTEGER start, end;
        ::QueryPerformanceCounter(&start);
        body();
        ::QueryPerformanceCounter(&end);
        double seconds = double(end.QuadPart - start.QuadPart) / double(frequency.QuadPart);
        if (seconds < best) best = seconds;
    }
    return best;
}

// One line: what was measured, its time, the baseline's time and the ratio.
inline void Report(const char* what, double seconds, const char* baseline, double baselineSeconds,
                   double operations = 1) {
    std::printf("%-44s %10.3f us/op   %-34s %10.3f us/op   ratio %6.2f\n", what, seconds * 1e6 / operations,
                baseline, baselineSeconds * 1e6 / operations, baselineSeconds > 0 ? seconds / baselineSeconds : 0.0);
}

}  // namespace ky::bench
