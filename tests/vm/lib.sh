# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash disable=SC2034
#
# The VM harness, shared by run.sh and scripts/demo.sh: builds what the VM
# needs for one target and boots it. Source it, call vm_prepare TARGET
# [bench|demo], then vm_run (a test boot, streamed) or vm_boot.
#
# Products: build/vm/vmtest (the in-VM program, the same for every target);
# in build/vm/TARGET/: kmod/ (the test modules), rootfs/ and initrd.gz,
# ucfg-full.dtb and ucfg-partial.dtb (QEMU's own tree plus the module's node,
# complete or without "data_cpu_num"), logs and consoles.

VM_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
VM_OUT=
# RAM starts at 0x40000000 on QEMU's virt board: 1100 MiB reach past the
# register page (0x80000000-0x8000ffff) that the tree reserves in it.
VM_QEMU=(qemu-system-aarch64 -M virt -cpu cortex-a57 -m 1100M -smp 4 -nographic -nic none)
# The boot configuration register: bit 5 set amid other bits for the main
# boot, bit 5 alone clear for the partial one.
VM_BOOT_CFG_SET=0xfffffffe
VM_BOOT_CFG_CLEAR=0xffffffdf
# The named items of the image round trip, NAME TEXT: the one the VM writes
# into device 0, the one ucfg-image writes into device 1's image.
VM_IMAGE_ITEMS=("vmimage written-in-the-vm" "vmprovision made-by-ucfg-image")

vm_log() { echo "vm[$VM_TARGET]: $*"; }
vm_die() { echo "vm[$VM_TARGET]: FAILED: $*" >&2; exit 1; }
# vm_step LOG WHAT COMMAND...: COMMAND with its output in LOG, shown if it fails.
vm_step() {
	"${@:3}" >"$VM_OUT/$1" 2>&1 || { tail -n 30 "$VM_OUT/$1"; vm_die "$2"; }
}

# vm_prepare TARGET [bench|demo]: modules, programs, initramfs, trees.
vm_prepare() {
	VM_TARGET=$1
	VM_OUT=$VM_ROOT/build/vm/$VM_TARGET
	mkdir -p "$VM_OUT/kmod"
	vm_step setup.log setup "$VM_ROOT/scripts/setup.sh"
	local kdir
	VM_KERNEL=$("$VM_ROOT/scripts/fetch-kernel.sh" "$VM_TARGET" image | tail -n1)
	kdir=$("$VM_ROOT/scripts/fetch-kernel.sh" "$VM_TARGET" headers | tail -n1)
	# Our debug build is a bare Image; its release is what it says. KASAN
	# under TCG makes everything several times slower.
	VM_SLOW=1
	VM_KVER=$(basename "$VM_KERNEL" | sed 's/^vmlinuz-//')
	if [ "${VM_TARGET%-debug}" != "$VM_TARGET" ]; then
		VM_SLOW=8
		VM_KVER=$(cat "$kdir/include/config/kernel.release")
	fi
	vm_step build.log "module build" "$VM_ROOT/scripts/build-module.sh" "$VM_TARGET"
	# The test modules link against drv_user_cfg's exports; W=1, silent.
	local syms=$VM_ROOT/build/$VM_TARGET
	rsync -a "$VM_ROOT/tests/vm/kmod/" "$VM_OUT/kmod/"
	vm_step kmod.log "test module build" env -u MAKEFLAGS -u MFLAGS -u MAKELEVEL \
		-u MAKEOVERRIDES make -C "$kdir" M="$VM_OUT/kmod" ARCH=arm64 W=1 \
		CROSS_COMPILE=aarch64-linux-gnu- UCFG_ROOT="$VM_ROOT" \
		CC="${UCFG_CCACHE:+$UCFG_CCACHE }aarch64-linux-gnu-gcc" \
		KBUILD_EXTRA_SYMBOLS="$syms/Module.symvers $syms/sim/Module.symvers" modules
	! grep -iE '(^|[^a-z_])(warning|error):' "$VM_OUT/kmod.log" || vm_die "test module warnings"
	vm_program vmtest "$VM_ROOT/tests/vm/vmtest.cpp"
	[ "${2:-}" != bench ] || vm_program bench "$VM_ROOT/tools/bench/bench.cpp"
	VM_UCFG=
	if [ "${2:-}" = demo ]; then
		vm_step tools.log "the ucfg client build" make -C "$VM_ROOT" tools-arm64
		VM_UCFG=$VM_ROOT/build/tools-arm64/ucfg
	fi
	# ucfg-image (host build) makes device 1's image: ssh_status and a
	# named item, read back in the VM; vm_image_checks does the other way.
	vm_step image-tool.log "ucfg-image build" make -C "$VM_ROOT" ucfg-image
	VM_IMAGE_TOOL=$VM_ROOT/build/tools/ucfg-image
	local item img=$VM_OUT/provision.img
	read -ra item <<<"${VM_IMAGE_ITEMS[1]}"
	"$VM_IMAGE_TOOL" create --force "$img" >/dev/null &&
		"$VM_IMAGE_TOOL" set "$img" ssh_status on &&
		"$VM_IMAGE_TOOL" set "$img" "${item[0]}" "text:${item[1]}" ||
		vm_die "ucfg-image could not make the provisioning image"
	vm_rootfs
	vm_dtbs
}

# vm_program NAME SOURCE: build/vm/NAME, static for arm64, when it is older.
vm_program() {
	local bin=$VM_ROOT/build/vm/$1
	[ "$bin" -nt "$2" ] && [ "$bin" -nt "$VM_ROOT/include/uapi/user_cfg.h" ] && return 0
	${UCFG_CCACHE:-} aarch64-linux-gnu-g++ -std=c++17 -static -O1 -Wall -Wextra -Werror \
		-I"$VM_ROOT/include" "$2" -o "$bin" || vm_die "$1 build"
}

# vm_image_checks CONSOLE: device 0's area, dumped by the main boot (gzip
# and base64 between two marker lines), verifies offline and holds the item
# the VM wrote.
vm_image_checks() {
	local img=$VM_OUT/vm-dev0.img item got want
	read -ra item <<<"${VM_IMAGE_ITEMS[0]}"
	sed -n '/^UCFG-IMAGE-BEGIN/,/^UCFG-IMAGE-END/{//!p}' "$1" | tr -d '\r' | base64 -d |
		gunzip >"$img" 2>/dev/null || true
	want=$(printf '%s' "${item[1]}" | od -An -tx1 | tr -d ' \n')
	got=$("$VM_IMAGE_TOOL" get --raw "$img" "${item[0]}" 2>&1) || true
	if "$VM_IMAGE_TOOL" verify "$img" >"$VM_OUT/vm-dev0.verify" 2>&1 &&
		[ "$got" = "$want" ]; then
		vm_log "ok - image: device 0's area verifies offline, ucfg-image reads ${item[0]}"
	else
		vm_log "not ok - image: device 0's area: verify, ${item[0]} '$got' (not '$want'):"
		sed 's/^/#   /' "$VM_OUT/vm-dev0.verify"
		return 1
	fi
}

# busybox (Debian's busybox-static:arm64, downloaded once into .cache/), our
# modules with a host-side depmod, the programs, the init.
vm_rootfs() {
	local rfs=$VM_OUT/rootfs a bb=$VM_ROOT/.cache/busybox-arm64 deb
	local extra=$rfs/lib/modules/$VM_KVER/extra
	if [ ! -x "$bb/bin/busybox" ]; then
		mkdir -p "$VM_ROOT/.cache/debs"
		(cd "$VM_ROOT/.cache/debs" && ls busybox-static_*_arm64.deb >/dev/null 2>&1 ||
			apt-get download -q busybox-static:arm64) ||
			vm_die "no busybox-static:arm64"
		deb=$(ls "$VM_ROOT"/.cache/debs/busybox-static_*_arm64.deb | tail -n1)
		dpkg -x "$deb" "$bb"
	fi
	rm -rf "$rfs"
	mkdir -p "$rfs"/{bin,sbin,proc,sys,dev,tmp,var,etc} "$extra"
	cp "$bb/bin/busybox" "$rfs/bin/busybox"
	for a in sh mount modprobe rmmod grep cp chown cat echo poweroff mkdir ls dd cmp dmesg \
		head tail cut sleep sed gzip base64 zcat uname tr true test [ id rm; do
		ln -sf busybox "$rfs/bin/$a"
	done
	cp "$VM_ROOT/build/$VM_TARGET/"{drv_user_cfg.ko,sim/sec_flash.ko,sim/orvane_ctl.ko} \
		"$VM_OUT/kmod/"{ucfg_probe.ko,ucfg_squat.ko} "$extra/"
	depmod -b "$rfs" "$VM_KVER" 2>/dev/null
	grep -q 'of:N\*T\*Cvexa-user-cfg' "$rfs/lib/modules/$VM_KVER/modules.alias" ||
		vm_die "depmod wrote no device-tree alias for drv_user_cfg"
	cp "$VM_ROOT/build/vm/vmtest" "$rfs/bin/"
	[ ! -x "$VM_ROOT/build/vm/bench" ] || cp "$VM_ROOT/build/vm/bench" "$rfs/bin/"
	[ -z "$VM_UCFG" ] || cp "$VM_UCFG" "$rfs/bin/"
	cp "$VM_OUT/provision.img" "$rfs/etc/"
	cp "$VM_ROOT/VERSION" "$rfs/etc/ucfg-version"
	printf '%s\n' "${VM_IMAGE_ITEMS[@]}" >"$rfs/etc/image-items"
	printf '%s\n' "${VM_COMPLAINTS[@]}" >"$rfs/etc/complaints"
	install -m 0755 "$VM_ROOT/tests/vm/init.sh" "$rfs/init"
	install -m 0755 "$VM_ROOT/scripts/demo-init.sh" "$rfs/bin/demo"
	(cd "$rfs" && find . | cpio -o -H newc --quiet | gzip -1) >"$VM_OUT/initrd.gz"
}

# QEMU's own tree for this machine, plus the register page reserved away
# from the kernel and the module's node, complete or without data_cpu_num.
vm_dtbs() {
	"${VM_QEMU[@]}" -M virt,dumpdtb="$VM_OUT/virt.dtb" >/dev/null 2>&1 || vm_die "no QEMU tree"
	local variant data="data_cpu_num = <2>;"
	for variant in full partial; do
		{
			dtc -q -I dtb -O dts "$VM_OUT/virt.dtb" | sed '$d'
			echo "reserved-memory { #address-cells = <2>; #size-cells = <2>; ranges;"
			echo "  ucfg_regs@80000000 { reg = <0 0x80000000 0 0x10000>; no-map; }; };"
			echo "user_cfg { compatible = \"vexa-user-cfg\"; ctrl_cpu_num = <1>; $data"
			echo "  aicpu_num = <4>; }; };"
		} | dtc -q -I dts -O dtb -o "$VM_OUT/ucfg-$variant.dtb" || vm_die "dtc $variant"
		data=
	done
}

# vm_boot MODE VARIANT BOOT-CFG CONSOLE LIMIT [KERNEL-ARGS]: MODE (suite,
# partial, stress, bench, demo) reaches the init as $ucfgmode, the extra
# arguments as further variables. LIMIT is in seconds on the stock kernels,
# scaled by VM_SLOW on the debug kernel, whose init is told (ucfgdebug=1) to
# verify its checkers and run kmemleak. The board id register (0x8000F07C)
# and the boot configuration register (0x8000E08C) are preset.
vm_boot() {
	local extra=${6:+ $6}
	[ "$VM_SLOW" = 1 ] || extra+=" ucfgdebug=1"
	timeout "$(($5 * VM_SLOW))" "${VM_QEMU[@]}" -no-reboot -kernel "$VM_KERNEL" \
		-initrd "$VM_OUT/initrd.gz" -dtb "$VM_OUT/ucfg-$2.dtb" \
		-append "console=ttyAMA0 panic_on_warn=1 panic=-1 oops=panic hung_task_panic=1 \
softlockup_panic=1 loglevel=4 log_buf_len=4M rdinit=/init ucfgmode=$1$extra" \
		-device loader,addr=0x8000F07C,data=0x00001234,data-len=4 \
		-device loader,addr=0x8000E08C,data="$3",data-len=4 >"$4" 2>&1 </dev/null
}

# vm_run MODE VARIANT BOOT-CFG LIMIT [KERNEL-ARGS]: one test boot. Its TAP
# lines are shown as the VM prints them, then one summary line; the whole
# console is in build/vm/TARGET/console-MODE.log. Fails without the success
# sentinel or with a kernel complaint on the console.
vm_run() {
	local console=$VM_OUT/console-$1.log t0=$SECONDS pid status=0
	: >"$console"
	vm_boot "$1" "$2" "$3" "$console" "$4" "${5:-}" &
	pid=$!
	tail -n +1 -s 0.2 --pid="$pid" -f "$console" |
		sed -u -n -E "s/\r$//; /^(not )?ok |^# /s/^/[$1] /p"
	wait "$pid" || true
	if ! grep -aq "^UCFG-VM-ALL-PASSED $1" "$console"; then
		vm_log "boot $1: no success sentinel; the console's end:"
		tail -n 25 "$console" | sed 's/^/    /'
		status=1
	fi
	if ! vm_kernel_clean "$console" >/dev/null; then
		vm_log "boot $1: the kernel complained:"
		vm_kernel_clean "$console" | head -n 20 | sed 's/^/    /'
		status=1
	fi
	vm_log "boot $1: $(grep -ac '^ok ' "$console") passed," \
		"$(grep -ac '^not ok ' "$console") failed, $((SECONDS - t0)) s," \
		"console ${console#"$VM_ROOT"/}"
	return $status
}

# Kernel complaints, as fixed strings: the console must show none, and the
# init and the stress run search the kernel log for them too (some checkers
# report below the console's level). Most reports open with "BUG:" (KASAN,
# sleeping in atomic context) or "WARNING:" (WARN(), debug-objects, lockdep);
# the rest are named: lockdep switching itself off (it then checks nothing
# more), kmemleak losing track, an arm64 oops, a stack dump.
VM_COMPLAINTS=('WARNING:' 'BUG:' 'Oops' 'Call trace' 'blocked for more than'
	'Kernel panic' 'ODEBUG:' 'turning off the locking correctness validator'
	'Kernel memory leak detector disabled' 'Cannot allocate a kmemleak_object'
	'Internal error:' 'Unable to handle kernel')

# vm_kernel_clean FILE: no kernel complaint in a console log.
vm_kernel_clean() { ! grep -a -F -f <(printf '%s\n' "${VM_COMPLAINTS[@]}") "$1"; }
