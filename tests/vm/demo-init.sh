#!/bin/sh
# Init of the demo VM: the module at work, seen from user space.
export PATH=/bin:/sbin
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
mount -t debugfs none /sys/kernel/debug
mkdir -p /var /tmp
dmesg -n 1

say() { echo; echo "== $*"; }
run() { echo "\$ $*"; "$@"; echo "  (exit $?)"; }
klog() { dmesg | grep '\[orvane\]' | sed 's/^\[ *[0-9.]*\] /  kernel: /' | tail -n "$1"; dmesg -c >/dev/null; }

say "Linux $(uname -r) on $(uname -m); the device tree has a \"vexa-user-cfg\" node"
dmesg -c >/dev/null
modprobe orvane_ctl
for a in /sys/bus/platform/devices/*/modalias; do modprobe -q "$(cat "$a")" 2>/dev/null; done
say "drv_user_cfg was loaded automatically for that node (and sec_flash with it):"
grep -E '^(drv_user_cfg|sec_flash|orvane_ctl) ' /proc/modules | cut -d' ' -f1
run ls -l /dev/user_config
klog 6

say "Defaults on blank flash (cpu_num_cfg comes from the device tree):"
run ucfg get cpu_num_cfg
run ucfg get p2p_mem_cfg
run ucfg get ssh_status
say "Boot configuration bit and the device tree's CPU numbers:"
run ucfg boot-cfg
run ucfg dts-cpu

say "root is not a whitelisted daemon: setting ssh_status is refused"
run ucfg set ssh_status on
klog 3
say "The whitelisted daemon (/var/devmgr_daemon, uid 1101) sets it:"
cp /bin/ucfg /var/devmgr_daemon
chown 1101 /dev/user_config
run runas 1101 1101 /var/devmgr_daemon set ssh_status on
run ucfg get ssh_status
say "A dynamic item: stored, read back, cleared"
run runas 1101 1101 /var/devmgr_daemon set boot.banner text:hello-from-flash
run ucfg get --text boot.banner
run runas 1101 1101 /var/devmgr_daemon clear boot.banner
run ucfg get boot.banner
chown 0 /dev/user_config
klog 4

say "The store survives a module reload:"
run rmmod drv_user_cfg
run modprobe drv_user_cfg
run ucfg get ssh_status

say "Damage the main head copy (block 0) at rest, then read:"
dd if=/dev/urandom of=/sys/kernel/debug/sec_flash/dev0 bs=1 seek=100 count=16 conv=notrunc 2>/dev/null
dmesg -c >/dev/null
run ucfg get ssh_status
klog 8
dd if=/sys/kernel/debug/sec_flash/dev0 of=/tmp/b0 bs=65536 count=1 2>/dev/null
dd if=/sys/kernel/debug/sec_flash/dev0 of=/tmp/b32 bs=65536 skip=32 count=1 2>/dev/null
if cmp -s /tmp/b0 /tmp/b32; then
	echo "  block 0 was rewritten from the backup copy: both copies equal again"
else
	echo "  block 0 and block 32 still differ"
fi
echo
echo "UCFG-VM-DEMO-DONE"
poweroff -f
