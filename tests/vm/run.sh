#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# The module in a real kernel: boots an arm64 kernel under QEMU with the
# module, the stand-in siblings, the test modules and the in-VM program,
# shows the TAP lines as the VM prints them and one summary line per boot,
# and passes only when every in-VM test passed and the console shows no
# kernel complaint (tests/vm/README.md).
#
#   tests/vm/run.sh [TARGET]                        the boots of make vm
#   tests/vm/run.sh TARGET stress [SEED] [SECONDS]  only the stress run
#   tests/vm/run.sh TARGET bench                    make bench-vm
#
#   TARGET: arm64-5.10 (default), arm64-6.1, arm64-5.10-debug
set -euo pipefail

TARGET=${1:-arm64-5.10}
if ! [[ $TARGET =~ ^arm64-(5\.10|6\.1|5\.10-debug)$ && ${3:-1}${4:-0} =~ ^[0-9]+$ &&
	${2:-}:$# =~ ^(:[01]|bench:2|stress:[234])$ ]]; then
	echo "usage: run.sh [TARGET] | TARGET stress [SEED] [SECONDS] | TARGET bench" >&2
	exit 2
fi
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"

t0=$SECONDS
vm_prepare "$TARGET" "${2:-}"
vm_log "built in $((SECONDS - t0)) s; booting $VM_KVER"
status=0
case ${2:-} in
stress)
	secs=${4:-24}
	vm_run stress full "$VM_BOOT_CFG_SET" $((secs + 120)) "ucfgseed=${3:-1} ucfgsecs=$secs" ||
		status=1
	;;
bench)
	vm_run bench full "$VM_BOOT_CFG_SET" 120 || status=1
	sed -n 's/\r$//; s/^# bench: //p' "$VM_OUT/console-bench.log" >"$VM_OUT/bench.txt"
	;;
*)
	# The debug kernel is about 8 times slower: fewer failed starts, a
	# shorter stress run.
	args="ucfgseed=1 ucfgsecs=8 ucfgattempts=15"
	[ "$VM_SLOW" = 1 ] || args="ucfgseed=1 ucfgsecs=6 ucfgattempts=6"
	vm_run suite full "$VM_BOOT_CFG_SET" 300 "$args" || status=1
	vm_image_checks "$VM_OUT/console-suite.log" || status=1
	if [ "$TARGET" = arm64-5.10 ]; then
		vm_run partial partial "$VM_BOOT_CFG_CLEAR" 120 || status=1
	fi
	;;
esac
if [ $status -eq 0 ]; then
	vm_log "PASSED on $VM_KVER in $((SECONDS - t0)) s"
else
	vm_log "FAILED on $VM_KVER (consoles: ${VM_OUT#"$VM_ROOT"/}/console-*.log)"
fi
exit $status
