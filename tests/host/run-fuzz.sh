#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# Builds the libFuzzer target of the item command with clang and runs it
# for a bounded time (default 60 s): any crash, leak, sanitizer report or
# broken invariant fails the run and leaves the input in the build
# directory for replay (build/host-fuzz/fuzz_ioctl <crash-file>).
#
# usage: run-fuzz.sh [seconds]
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
build=${UCFG_FUZZ_BUILD:-$root/build/host-fuzz}
seconds=${1:-60}

CC=clang CXX=clang++ cmake -S "$root/tests/host" -B "$build" \
	-DCMAKE_BUILD_TYPE=Debug -DUCFG_SANITIZER=fuzzer \
	-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$build" -j"${JOBS:-2}" --target fuzz_ioctl

corpus="$build/corpus"
mkdir -p "$corpus"
cd "$build"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	./fuzz_ioctl -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 \
	-print_final_stats=1 "$corpus"
