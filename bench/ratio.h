// Side-by-side timing: a subject and its reference run alternately inside
// one benchmark, so that both see the same machine state, and the order
// flips every iteration. The benchmark's time is the subject's; the counter
// "ratio" is subject time / reference time and "ref_us" the reference's time
// per iteration. Run with repetitions (bench/run.sh) and read the medians.
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
    double subjectSeconds = 0, referenceSeconds = 0;
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
        state.SetIterationTime(s);
    }
    state.counters["ratio"] = referenceSeconds > 0 ? subjectSeconds / referenceSeconds : 0;
    state.counters["ref_us"] = benchmark::Counter(referenceSeconds * 1e6 / double(state.iterations()));
}

}  // namespace bench

#endif
