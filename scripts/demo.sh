#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# Boots the target kernel (arm64 5.10) under QEMU and shows the module at
# work from user space (scripts/demo-init.sh), each step with the kernel's
# log lines that go with it, as the VM prints them. Built and booted by the
# VM harness of tests/vm/lib.sh. Ends by itself; exit 0 when the demo ran to
# its end.
#
#   scripts/demo.sh [TARGET]       (make demo)
set -euo pipefail

# shellcheck source=../tests/vm/lib.sh
. "$(dirname "$0")/../tests/vm/lib.sh"

echo "demo: building the module, its stand-in siblings, the ucfg client and the VM image..."
vm_prepare "${1:-arm64-5.10}" demo
echo "demo: booting $VM_KVER under qemu-system-aarch64 -M virt -cpu cortex-a57"
CONSOLE=$VM_OUT/console-demo.log
: >"$CONSOLE"
vm_boot demo full "$VM_BOOT_CFG_SET" "$CONSOLE" 180 &
pid=$!
# The demo's own lines start at its first heading.
tail -n +1 -s 0.2 --pid="$pid" -f "$CONSOLE" |
	sed -u -n -E 's/\r$//; /^UCFG-VM-DEMO-DONE|reboot: Power down/d; /^== /,$p'
wait "$pid" || true
if ! vm_kernel_clean "$CONSOLE" >/dev/null; then
	echo "demo: the kernel complained:"
	vm_kernel_clean "$CONSOLE"
	exit 1
fi
grep -aq '^UCFG-VM-DEMO-DONE' "$CONSOLE" || vm_die "the demo did not finish (console: $CONSOLE)"
echo
echo "demo: done (console: ${CONSOLE#"$VM_ROOT"/})"
