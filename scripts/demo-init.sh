#!/bin/sh
# The module at work in the target kernel, seen from user space, with the
# ucfg client. Started by the VM's init (ucfgmode=demo, tests/vm/init.sh)
# after the coldplug pass.
export PATH=/bin:/sbin
F=/sys/kernel/debug/sec_flash/dev0

say() { echo; echo "== $*"; }
run() { echo "\$ $*"; "$@"; echo "  (exit $?)"; }
klog() {
	dmesg | grep '\[orvane\]' | sed 's/^\[ *[0-9.]*\] /  kernel: /' | tail -n "$1"
	dmesg -c >/dev/null
}
as_daemon() { vmtest as 1101 /var/devmgr_daemon "$@"; }

# ucfg must be present; the demo shows the client a user would run.
dmesg -n 1
command -v ucfg >/dev/null || { echo "demo: no ucfg client in the image"; exit 1; }
say "Linux $(uname -r) on $(uname -m); the device tree has a \"vexa-user-cfg\" node"
say "drv_user_cfg was loaded for that node by the coldplug pass (sec_flash came with it):"
grep -E '^(drv_user_cfg|sec_flash|orvane_ctl) ' /proc/modules | cut -d' ' -f1,3,4
run ls -l /dev/user_config
klog 6

say "Defaults on blank flash (cpu_num_cfg comes from the device tree numbers):"
run ucfg get cpu_num_cfg
run ucfg get p2p_mem_cfg
run ucfg get ssh_status
say "Boot configuration bit (register 0x8000E08C, preset to 0xfffffffe), the tree's CPU numbers:"
run ucfg boot-cfg
run ucfg dts-cpu

say "root is not a whitelisted daemon: setting ssh_status is refused (-EACCES)"
run ucfg set ssh_status on
klog 3
say "The whitelisted daemon (/var/devmgr_daemon, uid 1101) sets it:"
cp /bin/ucfg /var/devmgr_daemon
chown 1101 /dev/user_config
run as_daemon set ssh_status on
run ucfg get ssh_status
say "A dynamic item: stored, read back, cleared (then -ENOENT)"
run as_daemon set boot.banner text:hello-from-flash
run ucfg get --text boot.banner
run as_daemon clear boot.banner
run ucfg get boot.banner
chown 0 /dev/user_config
klog 4

say "The store survives a module reload:"
run rmmod drv_user_cfg
run modprobe drv_user_cfg
run ls -l /dev/user_config
run ucfg get ssh_status
klog 3

say "What device 0 holds, and the state of its store (the driver's read-only view):"
chown 1101 /dev/user_config
run as_daemon set boot.banner text:hello-again
chown 0 /dev/user_config
run ucfg list
run ucfg status

say "Damage the main head copy (block 0) at rest through the flash stand-in:"
dd if=/dev/urandom of=$F/area bs=1 seek=100 count=16 conv=notrunc 2>/dev/null
dd if=$F/area of=/tmp/b0 bs=65536 count=1 2>/dev/null
dd if=$F/area of=/tmp/b32 bs=65536 skip=32 count=1 2>/dev/null
cmp -s /tmp/b0 /tmp/b32 || echo "  block 0 and its backup, block 32, now differ"
echo 0 >$F/writes
run ucfg status
echo "  the view shows the damage as found and repairs nothing: $(cat $F/writes) block writes"
say "The next request repairs it:"
echo 0 >$F/reads
echo 0 >$F/writes
run ucfg get ssh_status
echo "  flash transfers of that request: $(cat $F/reads) block reads, $(cat $F/writes) block write"
klog 6
dd if=$F/area of=/tmp/b0 bs=65536 count=1 2>/dev/null
if cmp -s /tmp/b0 /tmp/b32; then
	echo "  block 0 was rewritten from the backup copy: both copies equal again"
else
	echo "  block 0 and block 32 still differ"
	exit 1
fi
