#!/bin/sh
# Init of the smoke VM: loads the modules the way a board does and drives
# /dev/user_config from user space with the ucfg client, printing TAP. The
# host looks for the final sentinel line and for kernel warnings.
export PATH=/bin:/sbin
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
mount -t debugfs none /sys/kernel/debug
mkdir -p /var /tmp

n=0
failed=0
ok() {
	n=$((n + 1))
	if [ "$1" = 0 ]; then
		echo "ok $n - $2"
	else
		echo "not ok $n - $2"
		failed=$((failed + 1))
	fi
}
# expect NAME EXPECTED-OUTPUT COMMAND...: output and exit status 0
expect() {
	name=$1 want=$2
	shift 2
	got=$("$@" 2>&1)
	rc=$?
	[ $rc = 0 ] && [ "$got" = "$want" ]
	r=$?
	[ $r = 0 ] || echo "# $name: rc=$rc got '$got' want '$want'"
	ok $r "$name"
}
# refuse NAME EXIT-CODE COMMAND...: the command fails with that exit code
refuse() {
	name=$1 want=$2
	shift 2
	"$@" >/tmp/out 2>&1
	rc=$?
	[ $rc = "$want" ]
	r=$?
	[ $r = 0 ] || { echo "# $name: rc=$rc want $want"; sed 's/^/# /' /tmp/out; }
	ok $r "$name"
}
daemon() {
	runas 1101 1101 /var/devmgr_daemon "$@"
}

echo "TAP version 13"
echo "# kernel $(uname -r)"

# What a board's coldplug does: one modprobe per device alias. The module
# must come up for the device-tree node on its own.
modprobe orvane_ctl
for a in /sys/bus/platform/devices/*/modalias; do
	modprobe -q "$(cat "$a")" 2>/dev/null
done
grep -q '^drv_user_cfg ' /proc/modules
ok $? "loaded automatically for the device-tree node"
grep -q '^sec_flash ' /proc/modules
ok $? "secure-flash sibling loaded as a dependency"
expect "node /dev/user_config mode 0600" "600" stat -c %a /dev/user_config

expect "boot configuration bit" "set (32)" ucfg boot-cfg
expect "device-tree CPU numbers" "control 1, data 2, AI 4" ucfg dts-cpu
expect "default ssh_status" "00" ucfg get --raw ssh_status
expect "default p2p_mem_cfg" "04000000" ucfg get --raw p2p_mem_cfg
expect "default cpu_num_cfg from the device tree" \
	"01020400000000000000000000000000" ucfg get --raw cpu_num_cfg

shadow=$(printf '%04096d' 0 | tr 0 5)
expect "root with CAP_SYS_ADMIN sets usershadow" "" ucfg set usershadow "hex:$shadow"
expect "usershadow reads back" "$shadow" ucfg get --raw usershadow
refuse "root outside the whitelist may not set ssh_status" 3 ucfg set ssh_status on
refuse "root outside the whitelist may not store a dynamic item" 3 ucfg set cfg.a text:x

cp /bin/ucfg /var/devmgr_daemon
cp /bin/ucfg /tmp/devmgr_daemon
chown 1101 /dev/user_config
expect "daemon sets ssh_status" "" daemon set ssh_status on
expect "ssh_status reads back" "on (1)" ucfg get ssh_status
expect "daemon stores a dynamic item" "" daemon set cfg.a text:hello-flash
expect "dynamic item reads back" "hello-flash" ucfg get --text cfg.a
expect "daemon clears the dynamic item" "" daemon clear cfg.a
refuse "cleared dynamic item is gone" 4 ucfg get cfg.a
refuse "daemon without CAP_SYS_ADMIN may not read usershadow" 3 daemon get usershadow
refuse "a copy of the daemon elsewhere is refused" 3 \
	runas 1101 1101 /tmp/devmgr_daemon set ssh_status off
chown 1000 /dev/user_config
refuse "the daemon under another uid is refused" 3 \
	runas 1000 1000 /var/devmgr_daemon set ssh_status off
chown 0 /dev/user_config

rmmod drv_user_cfg
modprobe drv_user_cfg
expect "store intact after a module reload" "on (1)" ucfg get ssh_status
expect "usershadow intact after a module reload" "$shadow" ucfg get --raw usershadow

# Damage the main head copy at rest: reads go on from the backup copy,
# which rewrites the main one.
area=/sys/kernel/debug/sec_flash/dev0
dd if=/dev/urandom of=$area bs=1 seek=100 count=16 conv=notrunc 2>/dev/null
expect "damaged main head: the value is read from the backup" "on (1)" \
	ucfg get ssh_status
dd if=$area of=/tmp/b0 bs=65536 count=1 2>/dev/null
dd if=$area of=/tmp/b32 bs=65536 skip=32 count=1 2>/dev/null
cmp -s /tmp/b0 /tmp/b32
ok $? "damaged main head rewritten from the backup"

echo 1 >/sys/module/orvane_ctl/parameters/dev_num
refuse "device 1 refused with one device" 3 ucfg get -d 1 ssh_status
echo 3 >/sys/module/orvane_ctl/parameters/dev_num
refuse "every request refused while three devices are reported" 3 ucfg get ssh_status
echo 2 >/sys/module/orvane_ctl/parameters/dev_num
rmmod orvane_ctl
refuse "every request refused without the control module" 3 ucfg get ssh_status
modprobe orvane_ctl
expect "requests work again with the control module back" "on (1)" ucfg get ssh_status

rmmod drv_user_cfg
grep -q '^drv_user_cfg ' /proc/modules
[ $? != 0 ]
ok $? "module unloads"

echo "1..$n"
if [ $failed = 0 ]; then
	echo "UCFG-VM-ALL-PASSED"
else
	echo "# $failed of $n failed"
fi
poweroff -f
