#!/usr/bin/env bash
# Installs the comparison packages (GStreamer's codecparsers, libavcodec),
# builds the benchmarks and runs the side-by-side ones pinned to one core,
# each repeated in random order, and prints their median ratios:
#   bench/run.sh [FILTER]   (default: every side-by-side benchmark)
# QNV_BENCH_CORE (1) picks the core, QNV_BENCH_REPETITIONS (11) the rounds.
# "ratio" is subject time / reference time over all iterations, "ratio_min"
# the fastest subject iteration over the fastest reference one.
set -euo pipefail
source "$(dirname "$0")/../scripts/lib.sh"

ensure_packages "${QNV_BUILD_PACKAGES[@]}" libgstreamer-plugins-bad1.0-dev libavcodec-dev
cmake -S "$QNV_ROOT" -B "$QNV_ROOT/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQNV_BUILD_BENCH=ON >/dev/null
cmake --build "$QNV_ROOT/build" -j "$QNV_JOBS" --target qnvbench >/dev/null

taskset -c "${QNV_BENCH_CORE:-1}" "$QNV_ROOT/build/bin/qnvbench" --benchmark_filter="${1:-Vs}" \
    --benchmark_repetitions="${QNV_BENCH_REPETITIONS:-11}" --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true --benchmark_min_time=0.05 2>/dev/null |
    sed -n 's/^\(BM_[^ ]*\)_median .*\(ratio=[^ ]*\) \(ratio_min=[^ ]*\).*/\1 \2 \3/p'
