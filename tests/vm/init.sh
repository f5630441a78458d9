#!/bin/sh
# SPDX-License-Identifier: GPL-2.0
#
# Init of the test VM. Does what a board's early user space does (mounts,
# one modprobe per device alias found in sysfs, as udev's coldplug does),
# then what ucfgmode= on the kernel command line asks for. The sentinel line
# is printed only when all of it passed; the host looks for it.
export PATH=/bin:/sbin
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
mount -t debugfs none /sys/kernel/debug
mkdir -p /tmp /var
F=/sys/kernel/debug/sec_flash
uptime() { echo "init: $* ($(cut -d' ' -f1 /proc/uptime) s after boot)"; }

# The control module has no device: the platform loads it by name.
modprobe orvane_ctl
# Coldplug: drv_user_cfg must come up for its device-tree node by itself.
for a in /sys/bus/*/devices/*/modalias; do
	modprobe -q "$(cat "$a")" 2>/dev/null
done

# Kernel complaints (/etc/complaints, fixed strings): warnings go to the log
# below the console's level, so the log itself is searched.
kernel_clean() {
	dmesg | grep -q -F -f /etc/complaints || return 0
	echo "init: the kernel log has complaints:"
	dmesg | grep -F -A 40 -f /etc/complaints | head -n 200 | sed 's/^/init: klog: /'
	return 1
}

# The debug kernel (ucfgdebug=1) must really have its checkers, so that a
# stock kernel booted by mistake cannot pass. Once our modules are gone,
# kmemleak must find nothing they left behind; it reports an object only
# after two scans found it unreferenced, and only once it is 5 s old, which
# every object of theirs is by the second scan.
debug_unload() {
	local opt m config
	config=$(zcat /proc/config.gz)
	for opt in CONFIG_KASAN=y CONFIG_DEBUG_KMEMLEAK=y CONFIG_PROVE_LOCKING=y \
		CONFIG_DEBUG_ATOMIC_SLEEP=y CONFIG_DEBUG_OBJECTS=y CONFIG_USER_NS=y; do
		echo "$config" | grep -qx "$opt" ||
			{ echo "init: the kernel lacks $opt"; return 1; }
	done
	for m in ucfg_probe ucfg_squat drv_user_cfg sec_flash orvane_ctl; do
		grep -q "^$m " /proc/modules || continue
		rmmod "$m" || { echo "init: rmmod $m failed"; return 1; }
	done
}

debug_kmemleak() {
	echo scan >/sys/kernel/debug/kmemleak && echo scan >/sys/kernel/debug/kmemleak ||
		{ echo "init: kmemleak cannot scan"; return 1; }
	if [ -n "$(cat /sys/kernel/debug/kmemleak)" ]; then
		echo "init: kmemleak reports unreferenced objects:"
		sed 's/^/init: kmemleak: /' /sys/kernel/debug/kmemleak
		return 1
	fi
	echo "init: debug kernel: checkers built in, kmemleak clean after unloading"
}

# Every part runs and reports, whatever the others found.
uptime "ucfgmode=$ucfgmode"
ok=1
case $ucfgmode in
suite)
	# The image round trip: device 1 starts with the image ucfg-image made,
	# which the suite reads back; device 0's area, with what the suite
	# wrote, goes to the host (gzip and base64 between marker lines), which
	# checks it with ucfg-image.
	cat /etc/provision.img >$F/dev1/area || ok=0
	vmtest suite "$ucfgattempts" || ok=0
	echo UCFG-IMAGE-BEGIN
	gzip -c $F/dev0/area | base64
	echo UCFG-IMAGE-END
	vmtest stress "$ucfgseed" "$ucfgsecs" || ok=0
	;;
partial) vmtest partial || ok=0 ;;
stress) vmtest stress "$ucfgseed" "$ucfgsecs" || ok=0 ;;
bench) cp /bin/bench /var/devmgr_daemon && bench || ok=0 ;;
demo) demo && echo UCFG-VM-DEMO-DONE; poweroff -f ;;
*) echo "init: unknown ucfgmode '$ucfgmode'"; ok=0 ;;
esac
uptime "kernel log checks"
[ "$ucfgdebug" = 1 ] && { debug_unload || ok=0; }
kernel_clean || ok=0
[ "$ucfgdebug" = 1 ] && { debug_kmemleak || ok=0; }
uptime done
[ $ok = 1 ] && echo "UCFG-VM-ALL-PASSED $ucfgmode"
poweroff -f
