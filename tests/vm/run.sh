#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# The module in a real kernel: boots Debian's arm64 kernel under QEMU with
# the module, the stand-in siblings, the test module and the in-VM test
# programs, and passes only when every in-VM test passed (the init prints a
# sentinel) and the console shows no kernel complaint.
#
#   tests/vm/run.sh [TARGET] [demo]
#   tests/vm/run.sh TARGET stress [SEED] [SECONDS]
#   tests/vm/run.sh TARGET bench
#
#   TARGET: arm64-5.10 (default), arm64-6.1, arm64-5.10-debug
#
# Three boots: the main suite with the complete device-tree node and the
# boot configuration bit set; a short one whose node lacks "data_cpu_num"
# and whose boot configuration bit is clear; and the stress run (random
# requests of several processes under injected flash faults, a reload half
# way; seed 1, 24 s of requests by default). "stress" boots only the
# latter, with the seed and duration given. All consoles end up in
# build/vm/TARGET/console.log. "demo" runs demo.sh instead. "bench" boots
# once to measure ioctl round trips (figures in build/vm/TARGET/bench.txt).
set -euo pipefail

TARGET=${1:-arm64-5.10}
if [ "${2:-}" = demo ]; then
	exec "$(dirname "$0")/demo.sh" "$TARGET"
fi
case $TARGET in
arm64-5.10 | arm64-6.1 | arm64-5.10-debug) ;;
*) echo "run.sh: TARGET is arm64-5.10, arm64-6.1 or arm64-5.10-debug" >&2; exit 2 ;;
esac
SEED=1
SECONDS_OF_STRESS=24
ONLY_STRESS=0
ONLY_BENCH=0
if [ "${2:-}" = bench ]; then
	ONLY_BENCH=1
elif [ "${2:-}" = stress ]; then
	ONLY_STRESS=1
	SEED=${3:-$SEED}
	SECONDS_OF_STRESS=${4:-$SECONDS_OF_STRESS}
	case $SEED$SECONDS_OF_STRESS in
	*[!0-9]*) echo "run.sh: SEED and SECONDS are whole numbers" >&2; exit 2 ;;
	esac
elif [ -n "${2:-}" ]; then
	echo "run.sh: unknown mode '$2' (demo, stress or bench)" >&2
	exit 2
fi

# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"

t0=$(date +%s)
vm_prepare "$TARGET"
t1=$(date +%s)
vm_log "built in $((t1 - t0)) s; booting $VM_KVER"

CONSOLE=$VM_OUT/console.log
status=0
: >"$CONSOLE"
boots=("suite full $VM_BOOT_CFG_SET 300" "partial partial $VM_BOOT_CFG_CLEAR 120")
stress="stress full $VM_BOOT_CFG_SET $((SECONDS_OF_STRESS + 120))"
if [ $ONLY_BENCH = 1 ]; then
	boots=("bench full $VM_BOOT_CFG_SET 120")
elif [ $ONLY_STRESS = 1 ]; then
	boots=("$stress")
else
	boots+=("$stress")
fi
for boot in "${boots[@]}"; do
	set -- $boot
	part=$VM_OUT/console-$1.log
	b0=$(date +%s)
	args=
	[ "$1" = stress ] && args="ucfgseed=$SEED ucfgsecs=$SECONDS_OF_STRESS"
	vm_boot "$1" "$2" "$3" "$part" "$4" "$args" || true
	{ echo "===== boot: $1 ====="; cat "$part"; } >>"$CONSOLE"
	grep -a -E '^(not )?ok |^#   |^# ---|^# [^-]' "$part" | sed "s/^/[$1] /" || true
	passed=$(grep -c '^ok ' "$part" || true)
	failed=$(grep -c '^not ok ' "$part" || true)
	vm_log "boot $1: $passed passed, $failed failed, $(($(date +%s) - b0)) s"
	if ! grep -q "^UCFG-VM-ALL-PASSED $1" "$part"; then
		vm_log "boot $1: no success sentinel; console tail:"
		tail -n 25 "$part" | sed 's/^/    /'
		status=1
	fi
	if [ "$1" = suite ] && ! vm_image_checks "$part"; then
		status=1
	fi
	if ! vm_kernel_clean "$part" >/dev/null; then
		vm_log "boot $1: the kernel complained:"
		vm_kernel_clean "$part" | head -n 20 | sed 's/^/    /'
		status=1
	fi
done

if [ $ONLY_BENCH = 1 ]; then
	grep -a '^# bench: ' "$CONSOLE" | sed 's/^# bench: //' >"$VM_OUT/bench.txt" || true
fi
total_ok=$(grep -c '^ok ' "$CONSOLE" || true)
total_bad=$(grep -c '^not ok ' "$CONSOLE" || true)
if [ $status -eq 0 ]; then
	vm_log "PASSED: $total_ok tests on $VM_KVER in $(($(date +%s) - t0)) s (console: $CONSOLE)"
else
	vm_log "FAILED: $total_ok passed, $total_bad failed on $VM_KVER (console: $CONSOLE)"
fi
exit $status
