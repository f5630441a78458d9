#!/bin/sh
# Init of the test VM. Does what a board's early user space does (mounts,
# one modprobe per device alias found in sysfs, as udev's coldplug does) and
# then runs what the kernel command line's ucfgmode asks for. The sentinel
# line is printed only when that run succeeded; the host looks for it.
export PATH=/bin:/sbin
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
mount -t debugfs none /sys/kernel/debug
mkdir -p /tmp /var

# The control module has no device: the platform loads it by name.
modprobe orvane_ctl
# Coldplug: drv_user_cfg must come up for its device-tree node by itself.
for a in /sys/bus/*/devices/*/modalias; do
	modprobe -q "$(cat "$a")" 2>/dev/null
done

# The trusted daemons and their impostors are copies of the test program.
for d in /var/devmgr_daemon /var/sched_daemon /tmp/devmgr_daemon \
	/var/devmgr_daemon2; do
	cp /bin/vmtest "$d"
	chmod 0755 "$d"
done

case $ucfgmode in
suite | partial)
	/bin/vmtest "$ucfgmode" && echo "UCFG-VM-ALL-PASSED $ucfgmode"
	;;
demo)
	/bin/demo && echo "UCFG-VM-DEMO-DONE"
	;;
*)
	echo "init: unknown ucfgmode '$ucfgmode'"
	;;
esac
poweroff -f
