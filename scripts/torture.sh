#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# The long reliability campaign, or just its figures.
#
#   scripts/torture.sh [SEED] [SECONDS]   host campaign, exhaustive sweeps,
#                                         random runs from SEED for about
#                                         half of SECONDS, then the in-VM
#                                         stress on the stock and the debug
#                                         5.10 kernels for a quarter each
#   scripts/torture.sh figures            the host campaign with fixed
#                                         seeds and exhaustive sweeps: the
#                                         table of docs/RELIABILITY.md
#
# SEED defaults to the current time (printed, so a failure can be
# replayed), SECONDS to 600. Exits non-zero on the first failure; the
# failing seed and the command that replays it are printed.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
JOBS=${JOBS:-2}

build_host() {
	cmake -S "$ROOT/tests/host" -B "$ROOT/build/host" >/dev/null
	cmake --build "$ROOT/build/host" -j"$JOBS" >/dev/null
}

campaign() {
	UCFG_SWEEP_STRIDE=1 "$ROOT/build/host/ucfg_host_tests" \
		--gtest_brief=1 --gtest_filter='Ops/Sweep.*:Random.*' "$@"
}

if [ "${1:-}" = figures ]; then
	build_host
	# The seeds of the tests themselves: the same table on every run.
	unset UCFG_SEED UCFG_STEPS UCFG_TORTURE_SECONDS
	campaign | sed -n '/^\[ campaign \]/,$p'
	exit "${PIPESTATUS[0]}"
fi

SEED=${1:-$(date +%s)}
SECONDS_TOTAL=${2:-600}
HOST_SECONDS=$((SECONDS_TOTAL / 2))
VM_SECONDS=$((SECONDS_TOTAL - HOST_SECONDS))
echo "torture: seed $SEED, $SECONDS_TOTAL s (host $HOST_SECONDS s, VM $VM_SECONDS s)"

build_host
t0=$(date +%s)
UCFG_SEED=$SEED UCFG_TORTURE_SECONDS=$HOST_SECONDS campaign
echo "torture: host campaign passed in $(($(date +%s) - t0)) s"

# The stock kernel serves about twenty times more requests per second; the
# debug kernel sees fewer but checks every one of them.
for target in arm64-5.10 arm64-5.10-debug; do
	t0=$(date +%s)
	"$ROOT/tests/vm/run.sh" "$target" stress "$SEED" $((VM_SECONDS / 2))
	echo "torture: VM stress on $target passed in $(($(date +%s) - t0)) s"
done
