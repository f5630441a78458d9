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

# Lines of the kernel log that mean a kernel checker found something
# (/etc/complaints, fixed strings, written by lib.sh). Warnings go to the
# log below the console's level, so the log itself is searched as well.
kernel_clean() {
	if dmesg | grep -q -F -f /etc/complaints; then
		echo "init: the kernel log has complaints:"
		dmesg | grep -F -A 40 -f /etc/complaints | head -n 200 |
			sed 's/^/init: klog: /'
		return 1
	fi
}

# kmemleak_report WHEN: two scans (kmemleak asks for two, so that pointers
# in transit are not taken for leaks; it reports only objects older than
# 5 s), then anything it lists fails the boot.
kmemleak_report() {
	local leaks
	echo scan >/sys/kernel/debug/kmemleak &&
		echo scan >/sys/kernel/debug/kmemleak ||
		{ echo "init: kmemleak cannot scan"; return 1; }
	leaks=$(cat /sys/kernel/debug/kmemleak)
	[ -z "$leaks" ] && return 0
	echo "init: kmemleak reports unreferenced objects ($1):"
	echo "$leaks" | sed 's/^/init: kmemleak: /'
	return 1
}

# On the debug kernel (ucfgdebug=1): the checkers must really be built in,
# so that a stock kernel booted by mistake cannot pass, and kmemleak must
# find nothing: once with our modules loaded (a leak is then reported with
# its symbols) and once they are gone (memory only their data pointed to).
debug_checks() {
	[ "$ucfgdebug" = 1 ] || return 0
	local opt m ok=1
	for opt in CONFIG_KASAN=y CONFIG_DEBUG_KMEMLEAK=y CONFIG_PROVE_LOCKING=y \
		CONFIG_DEBUG_ATOMIC_SLEEP=y CONFIG_DEBUG_OBJECTS=y CONFIG_FAILSLAB=y; do
		if ! zcat /proc/config.gz | grep -qx "$opt"; then
			echo "init: the kernel lacks $opt"
			return 1
		fi
	done
	kmemleak_report "modules loaded" || ok=0
	for m in ucfg_probe drv_user_cfg sec_flash orvane_ctl; do
		grep -q "^$m " /proc/modules || continue
		rmmod "$m" || { echo "init: rmmod $m failed"; ok=0; }
	done
	sleep 5
	kmemleak_report "modules unloaded" || ok=0
	[ $ok = 1 ] || return 1
	echo "init: debug kernel checks passed (configuration, kmemleak)"
}

# Objects the kernel left unreferenced during its own boot are not ours.
if [ "$ucfgdebug" = 1 ]; then
	echo scan >/sys/kernel/debug/kmemleak
	echo clear >/sys/kernel/debug/kmemleak
fi

# Images, after the suite: the area of device 0 goes to the host (gzip and
# base64 between marker lines on the console) after the VM wrote a named
# item through ucfg, and the image the host made with
# ucfg-image is loaded into device 1 and read back through ucfg. The host
# checks its half in tests/vm/lib.sh (vm_image_checks).
image_round_trip() {
	local area=/sys/kernel/debug/sec_flash got want ok=0
	. /etc/image-items 2>/dev/null
	if [ ! -x /bin/ucfg ] || [ ! -f /etc/provision.img ]; then
		echo "not ok - image: no ucfg or no provisioning image in the VM"
		return 1
	fi
	# Writes need the whitelisted daemon: its path and uid, and (as it has
	# no fd passed in) a node it may open, for this one request.
	cp /bin/ucfg /var/devmgr_daemon
	chmod 0666 /dev/user_config
	vmtest as 1101 /var/devmgr_daemon set vmimage text:"$vmimage" >/dev/null ||
		{ echo "not ok - image: ucfg could not write device 0"; ok=1; }
	chmod 0600 /dev/user_config
	echo UCFG-IMAGE-BEGIN
	gzip -c "$area/dev0/area" | base64
	echo UCFG-IMAGE-END

	cat /etc/provision.img >"$area/dev1/area" ||
		{ echo "not ok - image: cannot load device 1's area"; return 1; }
	want=$(printf '%s' "$vmprovision" | od -An -tx1 | tr -d ' \n')
	got=$(ucfg -d 1 get --raw vmprovision 2>&1)
	if [ "$got" = "$want" ]; then
		echo "ok - image: the VM reads the named item ucfg-image wrote"
	else
		echo "not ok - image: vmprovision reads '$got', not '$want'"
		ok=1
	fi
	got=$(ucfg -d 1 get --raw ssh_status 2>&1)
	if [ "$got" = 01 ]; then
		echo "ok - image: the VM reads the static item ucfg-image set"
	else
		echo "not ok - image: ssh_status reads '$got', not '01'"
		ok=1
	fi
	return $ok
}

case $ucfgmode in
suite | partial)
	# Every check runs and reports, whatever the others found.
	ok=1
	/bin/vmtest "$ucfgmode" || ok=0
	if [ "$ucfgmode" = suite ]; then
		image_round_trip || ok=0
	fi
	kernel_clean || ok=0
	debug_checks || ok=0
	[ $ok = 1 ] && echo "UCFG-VM-ALL-PASSED $ucfgmode"
	;;
stress)
	# The stress workers are the daemon: the daemon's path gets the
	# stress program instead of the test program.
	cp /bin/stress /var/devmgr_daemon
	ok=1
	/bin/stress "${ucfgseed:-1}" "${ucfgsecs:-24}" || ok=0
	kernel_clean || ok=0
	debug_checks || ok=0
	[ $ok = 1 ] && echo "UCFG-VM-ALL-PASSED stress"
	;;
bench)
	cp /bin/bench /var/devmgr_daemon
	/bin/bench && kernel_clean && echo "UCFG-VM-ALL-PASSED bench"
	;;
demo)
	/bin/demo && echo "UCFG-VM-DEMO-DONE"
	;;
*)
	echo "init: unknown ucfgmode '$ucfgmode'"
	;;
esac
poweroff -f
