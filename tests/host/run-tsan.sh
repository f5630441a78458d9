#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# The concurrency tests under ThreadSanitizer: configure and build the host
# tests with -fsanitize=thread in their own build directory, then run the
# tests that put several tasks into the module at once. Any race report
# fails the run.
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
build=${UCFG_TSAN_BUILD:-$root/build/host-tsan}

cmake -S "$root/tests/host" -B "$build" -DCMAKE_BUILD_TYPE=Debug \
	-DUCFG_SANITIZER=thread >/dev/null
cmake --build "$build" -j"${JOBS:-2}"
cd "$build"
ctest -j"${JOBS:-2}" --output-on-failure -R '^(Concurrency|KernelApi\.PauseIsOutsideTheLock)'
