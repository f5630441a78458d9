#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# The host stage of make check: the module's sources in user space, in
# three builds, each step one line of output with its time and its log.
#
#   asan    clang, AddressSanitizer and UBSan: every test (the campaign's
#           seeds cut short), the tools' tests, then both fuzz targets
#   o2      optimised: the campaign's fixed seeds at full length
#   tsan    ThreadSanitizer: the concurrency test
#
#   tests/host/run.sh [FUZZ_SECONDS]     (default 10 each, run side by side)
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/../.." && pwd)
OUT=$ROOT/build
FUZZ_SECONDS=${1:-10}
JOBS=${JOBS:-2}
failed=0

step() {
	local name=$1 log=$OUT/host-$1.log t0=$SECONDS
	shift
	if "$@" >"$log" 2>&1; then
		printf 'host: ok    %-14s %4d s  %s\n' "$name" $((SECONDS - t0)) "$log"
	else
		printf 'host: FAIL  %-14s %4d s  %s\n' "$name" $((SECONDS - t0)) "$log"
		grep -E -A12 'Failure|FAILED|ERROR|error:' "$log" | head -n 40 | sed 's/^/      /'
		failed=1
		# The mutation runner wants the first failing step only.
		[ -z "${HOST_STOP:-}" ] || exit 1
	fi
}

# build DIR SANITIZER [TARGET...]
build() {
	CC=clang CXX=clang++ cmake -S "$ROOT/tests/host" -B "$OUT/$1" -DUCFG_SANITIZER="$2" &&
		cmake --build "$OUT/$1" -j"$JOBS" ${3:+--target "${@:3}"}
}

# tests DIR STEPS [CTEST ARGS]: STEPS is the length of the campaign's runs.
tests() {
	(cd "$OUT/$1" && UCFG_STEPS=$2 ctest -j"$JOBS" --output-on-failure "${@:3}")
}

fuzz() {
	local corpus=$OUT/host-asan/corpus
	mkdir -p "$corpus/ioctl" "$corpus/image"
	"$OUT/host-asan/fuzz_ioctl" -max_total_time="$FUZZ_SECONDS" "$corpus/ioctl" &
	"$OUT/host-asan/fuzz_image" -max_total_time="$FUZZ_SECONDS" "$corpus/image"
	wait $!
}

step asan-build build host-asan address
step asan-tests tests host-asan 60
step fuzz fuzz
step o2-build build host-o2 none ucfg_tests
step o2-campaign tests host-o2 300 -R Seeds
step tsan-build build host-tsan thread ucfg_tsan
step tsan-tests tests host-tsan 0 -R Concurrency
exit $failed
