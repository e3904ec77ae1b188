// Side-by-side timing: a subject and its reference run alternately inside
// one benchmark, so that both see the same machine state, and the order
// flips every iteration. The benchmark's time is the subject's; counters:
//  - "ratio": subject time / reference time over all iterations;
//  - "ratio_min": the fastest subject iteration / the fastest reference one,
//    which other work on a shared machine disturbs least;
//  - "ref_us": the reference's mean time per iteration.
// Run with repetitions (bench/run.sh) and read the medians.
#ifndef QNVUTIL_BENCH_RATIO_H
#define QNVUTIL_BENCH_RATIO_H

#include <benchmark/benchmark.h>

#include <chrono>

namespace bench {

// `setup` runs before each timed call of either side and is not timed (it
// restores in-place inputs); `subject` and `reference` are timed.
template <class Setup, class Subject, class Reference>
void sideBySide(benchmark::State& state, Setup setup, Subject subject, Reference reference) {
    using Clock = std::chrono::steady_clock;
    double subjectSeconds = 0, referenceSeconds = 0, subjectMin = 1e30, referenceMin = 1e30;
    bool subjectFirst = true;
    auto timed = [&](auto& fn) {
        setup();
        benchmark::ClobberMemory();
        const auto t0 = Clock::now();
        fn();
        benchmark::ClobberMemory();
        return std::chrono::duration<double>(Clock::now() - t0).count();
    };
    for (auto _ : state) {
        double s, r;
        if (subjectFirst) {
            s = timed(subject);
            r = timed(reference);
        } else {
            r = timed(reference);
            s = timed(subject);
        }
        subjectFirst = !subjectFirst;
        subjectSeconds += s;
        referenceSeconds += r;
        subjectMin = s < subjectMin ? s : subjectMin;
        referenceMin = r < referenceMin ? r : referenceMin;
        state.SetIterationTime(s);
    }
    state.counters["ratio"] = referenceSeconds > 0 ? subjectSeconds / referenceSeconds : 0;
    state.counters["ratio_min"] = referenceMin > 0 && referenceMin < 1e30 ? subjectMin / referenceMin : 0;
    state.counters["ref_us"] = benchmark::Counter(referenceSeconds * 1e6 / double(state.iterations()));
}

}  // namespace bench

#endif
