#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# Builds the libFuzzer targets with clang and runs each for a bounded time
# (default 60 s in all: two thirds to the item command, one third to the
# image tool's inspect and verify): any crash, leak, sanitizer report or
# broken invariant fails the run and leaves the input in the build
# directory for replay (build/host-fuzz/fuzz_ioctl <crash-file>, or
# fuzz_image).
#
# usage: run-fuzz.sh [seconds]
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
build=${UCFG_FUZZ_BUILD:-$root/build/host-fuzz}
seconds=${1:-60}

CC=clang CXX=clang++ cmake -S "$root/tests/host" -B "$build" \
	-DCMAKE_BUILD_TYPE=Debug -DUCFG_SANITIZER=fuzzer \
	-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$build" -j"${JOBS:-2}" --target fuzz_ioctl --target fuzz_image

cd "$build"
fuzz() { # target seconds
	mkdir -p "corpus-$1"
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
		"./$1" -max_total_time="$2" -timeout=20 -rss_limit_mb=4096 -max_len=4096 \
		-print_final_stats=1 "corpus-$1"
}
# A seed for the image target: marker and check code on both heads, which
# hold one record (head_len 52; "a", block 2, offset 0, 4 bytes, valid).
seed=corpus-fuzz_image/seed-one-record
if [ ! -f "$seed" ]; then
	mkdir -p corpus-fuzz_image
	{
		printf '\x1f'
		for half in 1 2; do
			printf '\x34\0\0\0a'
			head -c 31 /dev/zero
			printf '\x02\0\0\0\0\0\0\0\x04\0\0\0\0\0\0\0\x01\0\0\0'
		done
	} >"$seed"
fi
image_seconds=$((seconds / 3))
fuzz fuzz_ioctl $((seconds - image_seconds))
fuzz fuzz_image "$image_seconds"
