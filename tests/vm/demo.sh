#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# Boots the target kernel (arm64 5.10) under QEMU and shows the module at
# work from user space (demo-init.sh), with the kernel log lines that go
# with each step. Ends by itself; exit 0 when the demo ran to its end.
#
#   tests/vm/demo.sh [TARGET]       (make demo)
set -euo pipefail

# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"

echo "demo: building the module, its stand-in siblings and the VM image..."
vm_prepare "${1:-arm64-5.10}"
[ -n "$VM_UCFG" ] || vm_die "the ucfg client did not build (see $VM_OUT/tools.log)"
echo "demo: booting $VM_KVER under qemu-system-aarch64 -M virt -cpu cortex-a57"
CONSOLE=$VM_OUT/demo-console.log
vm_boot demo full "$VM_BOOT_CFG_SET" "$CONSOLE" 180 || true
# The demo's own lines start at its first heading.
sed -n '/^== /,$p' "$CONSOLE" | grep -v -E 'reboot: Power down|^UCFG-VM-DEMO-DONE'
if ! vm_kernel_clean "$CONSOLE" >/dev/null; then
	echo "demo: the kernel complained:"
	vm_kernel_clean "$CONSOLE"
	exit 1
fi
grep -q '^UCFG-VM-DEMO-DONE' "$CONSOLE" || vm_die "the demo did not finish (console: $CONSOLE)"
echo
echo "demo: done (console: $CONSOLE)"
