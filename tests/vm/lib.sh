# SPDX-License-Identifier: GPL-2.0
#
# Shared by run.sh and demo.sh: builds everything the VM needs for one
# target and boots it. Source it, then call vm_prepare TARGET and vm_boot.
#
# Products in build/vm/TARGET/: kmod/ (the test module), vmtest, stress, bench
# (the in-VM programs), rootfs/ and
# initrd.gz, virt.dts (QEMU's own tree), ucfg.dtb (plus the module's node)
# and ucfg-partial.dtb (the node without "data_cpu_num").

VM_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
VM_DIR=$VM_ROOT/tests/vm
VM_CACHE=$VM_ROOT/.cache
VM_SMP=4
VM_MEM=3G
# Board id register and boot configuration register: bit 5 set together
# with other bits for the main boot, bit 5 alone clear for the other.
VM_BOARD_ID=0x00001234
VM_BOOT_CFG_SET=0xfffffffe
VM_BOOT_CFG_CLEAR=0xffffffdf

vm_log() { echo "vm[$VM_TARGET]: $*"; }
vm_die() { echo "vm[$VM_TARGET]: FAILED: $*" >&2; exit 1; }

# vm_prepare TARGET: modules, test programs, initramfs and device trees.
vm_prepare() {
	VM_TARGET=$1
	VM_OUT=$VM_ROOT/build/vm/$VM_TARGET
	mkdir -p "$VM_OUT" "$VM_CACHE/debs"
	"$VM_DIR/setup.sh" >"$VM_OUT/setup.log" 2>&1 ||
		{ cat "$VM_OUT/setup.log"; vm_die "setup"; }

	VM_VMLINUZ=$("$VM_ROOT/scripts/fetch-kernel.sh" "$VM_TARGET" image | tail -n1)
	local kdir
	kdir=$("$VM_ROOT/scripts/fetch-kernel.sh" "$VM_TARGET" headers | tail -n1)
	VM_DEBUG=0
	VM_SLOW=1
	case $VM_TARGET in
	*-debug)
		# Our own build: the image is a bare "Image", the release is
		# whatever the build directory says. KASAN under TCG makes
		# everything several times slower.
		VM_KVER=$(cat "$kdir/include/config/kernel.release")
		VM_DEBUG=1
		VM_SLOW=8
		;;
	*)
		VM_KVER=$(basename "$VM_VMLINUZ" | sed 's/^vmlinuz-//')
		;;
	esac

	"$VM_ROOT/scripts/build-module.sh" "$VM_TARGET" >"$VM_OUT/build.log" 2>&1 ||
		{ tail -n 30 "$VM_OUT/build.log"; vm_die "module build"; }

	# The test module links against drv_user_cfg's exports.
	local kmod=$VM_OUT/kmod
	mkdir -p "$kmod"
	rsync -a "$VM_DIR/kmod/" "$kmod/"
	(unset MAKEFLAGS MFLAGS MAKELEVEL MAKEOVERRIDES
	 make -C "$kdir" M="$kmod" ARCH=arm64 CROSS_COMPILE=aarch64-linux-gnu- \
		CC=aarch64-linux-gnu-gcc W=1 UCFG_ROOT="$VM_ROOT" \
		KBUILD_EXTRA_SYMBOLS="$VM_ROOT/build/$VM_TARGET/Module.symvers $VM_ROOT/build/$VM_TARGET/sim/Module.symvers" \
		modules) >"$VM_OUT/kmod.log" 2>&1 ||
		{ cat "$VM_OUT/kmod.log"; vm_die "test module build"; }
	if grep -qiE '(^|[^a-z_])(warning|error):' "$VM_OUT/kmod.log"; then
		cat "$VM_OUT/kmod.log"
		vm_die "test module build warnings"
	fi

	# In-VM programs, static for arm64; rebuilt when a source changed.
	local prog bin
	for prog in vmtest stress bench; do
		bin=$VM_OUT/$prog
		if [ ! -x "$bin" ] || [ "$VM_DIR/$prog.cpp" -nt "$bin" ] ||
			[ "$VM_DIR/vmio.h" -nt "$bin" ] ||
			[ "$VM_ROOT/include/uapi/user_cfg.h" -nt "$bin" ]; then
			aarch64-linux-gnu-g++ -std=c++17 -static -O2 -Wall -Wextra \
				-Werror -I"$VM_ROOT/include" "$VM_DIR/$prog.cpp" \
				-o "$bin" || vm_die "$prog build"
		fi
	done
	VM_UCFG=
	if [ -f "$VM_ROOT/tools/CMakeLists.txt" ] &&
		make -C "$VM_ROOT" --no-print-directory tools-arm64 \
			>"$VM_OUT/tools.log" 2>&1; then
		VM_UCFG=$VM_ROOT/build/tools-arm64/ucfg
	fi

	vm_provision_image
	vm_busybox
	vm_rootfs
	vm_dtbs
}

# The offline image tool (host build, uninstrumented) and the image the main
# boot loads into device 1: a static and a named item set by the tool, which
# the VM reads back through /dev/user_config (vm_image_checks below checks
# the other direction).
VM_PROVISION_NAME=vmprovision
VM_PROVISION_TEXT=made-by-ucfg-image
VM_IMAGE_NAME=vmimage
VM_IMAGE_TEXT=written-in-the-vm
vm_provision_image() {
	make -C "$VM_ROOT" --no-print-directory ucfg-image >"$VM_OUT/image-tool.log" 2>&1 ||
		{ tail -n 30 "$VM_OUT/image-tool.log"; vm_die "ucfg-image build"; }
	VM_IMAGE_TOOL=$VM_ROOT/build/image/ucfg-image
	local img=$VM_OUT/provision.img
	"$VM_IMAGE_TOOL" create --force "$img" >/dev/null &&
		"$VM_IMAGE_TOOL" set "$img" ssh_status on &&
		"$VM_IMAGE_TOOL" set "$img" "$VM_PROVISION_NAME" "text:$VM_PROVISION_TEXT" &&
		"$VM_IMAGE_TOOL" verify "$img" >/dev/null ||
		vm_die "ucfg-image could not make the provisioning image"
}

# vm_image_checks CONSOLE: the area of device 0 that the main boot dumped
# (gzip and base64 between two marker lines) must verify with ucfg-image
# and hold what the VM wrote. Prints TAP-like lines; fails on any mismatch.
vm_image_checks() {
	local img=$VM_OUT/vm-dev0.img got want
	sed -n '/^UCFG-IMAGE-BEGIN/,/^UCFG-IMAGE-END/p' "$1" | sed '1d;$d' |
		tr -d '\r' | base64 -d 2>/dev/null | gunzip >"$img" 2>/dev/null
	if [ "$(stat -c %s "$img" 2>/dev/null)" != 4194304 ]; then
		echo "not ok - image: no 4 MiB area of device 0 on the console"
		return 1
	fi
	local ok=0
	if "$VM_IMAGE_TOOL" verify "$img" >"$VM_OUT/vm-dev0.verify" 2>&1; then
		echo "ok - image: the area the module wrote verifies offline"
	else
		echo "not ok - image: the area the module wrote does not verify"
		sed 's/^/#   /' "$VM_OUT/vm-dev0.verify"
		ok=1
	fi
	want=$(printf '%s' "$VM_IMAGE_TEXT" | od -An -tx1 | tr -d ' \n')
	got=$("$VM_IMAGE_TOOL" get --raw "$img" "$VM_IMAGE_NAME" 2>&1)
	if [ "$got" = "$want" ]; then
		echo "ok - image: ucfg-image reads the item the VM wrote"
	else
		echo "not ok - image: $VM_IMAGE_NAME reads '$got', not '$want'"
		ok=1
	fi
	return $ok
}

vm_busybox() {
	VM_BB=$VM_CACHE/busybox-arm64/bin/busybox
	[ -x "$VM_BB" ] && return 0
	local deb
	# Not there yet on a fresh clone: ls fails, which pipefail must not
	# turn into an exit.
	deb=$(ls "$VM_CACHE"/debs/busybox-static_*_arm64.deb 2>/dev/null |
		tail -n1 || true)
	if [ -z "$deb" ]; then
		(cd "$VM_CACHE/debs" && apt-get download -q busybox-static:arm64) ||
			{ apt-get update -q && (cd "$VM_CACHE/debs" &&
				apt-get download -q busybox-static:arm64); } ||
			vm_die "cannot download busybox-static:arm64"
		deb=$(ls "$VM_CACHE"/debs/busybox-static_*_arm64.deb | tail -n1)
	fi
	rm -rf "$VM_CACHE/busybox-arm64"
	dpkg -x "$deb" "$VM_CACHE/busybox-arm64"
}

vm_rootfs() {
	local rfs=$VM_OUT/rootfs a
	local extra=$rfs/lib/modules/$VM_KVER/extra
	rm -rf "$rfs"
	mkdir -p "$rfs"/{bin,sbin,proc,sys,dev,tmp,var,etc} "$extra"
	cp "$VM_BB" "$rfs/bin/busybox"
	# The applets the init scripts and the tests call.
	for a in sh mount umount modprobe rmmod insmod lsmod modinfo grep stat cp \
		chown chmod printf tr sed cat echo poweroff mkdir ls dd cmp dmesg \
		head tail cut od hexdump sleep wc ln rm id uname test [ true false \
		env sync find xargs zcat gzip base64; do
		ln -sf busybox "$rfs/bin/$a"
	done
	cp "$VM_ROOT/build/$VM_TARGET/drv_user_cfg.ko" \
		"$VM_ROOT/build/$VM_TARGET/sim/sec_flash.ko" \
		"$VM_ROOT/build/$VM_TARGET/sim/orvane_ctl.ko" \
		"$VM_OUT/kmod/ucfg_probe.ko" "$extra/"
	depmod -b "$rfs" "$VM_KVER" 2>/dev/null
	grep -q 'of:N\*T\*Cvexa-user-cfg' "$rfs/lib/modules/$VM_KVER/modules.alias" ||
		vm_die "depmod wrote no device-tree alias for drv_user_cfg"
	cp "$VM_OUT/vmtest" "$rfs/bin/vmtest"
	cp "$VM_OUT/stress" "$rfs/bin/stress"
	cp "$VM_OUT/bench" "$rfs/bin/bench"
	[ -n "$VM_UCFG" ] && cp "$VM_UCFG" "$rfs/bin/ucfg"
	cp "$VM_OUT/provision.img" "$rfs/etc/provision.img"
	printf '%s=%s\n' "$VM_PROVISION_NAME" "$VM_PROVISION_TEXT" \
		"$VM_IMAGE_NAME" "$VM_IMAGE_TEXT" >"$rfs/etc/image-items"
	printf '%s\n' "${VM_COMPLAINTS[@]}" >"$rfs/etc/complaints"
	cp "$VM_DIR/init.sh" "$rfs/init"
	cp "$VM_DIR/demo-init.sh" "$rfs/bin/demo"
	chmod +x "$rfs/init" "$rfs/bin/demo"
	(cd "$rfs" && find . | cpio -o -H newc --quiet | gzip -1) >"$VM_OUT/initrd.gz"
}

# QEMU's own tree for this machine shape, plus the register page reserved
# away from the kernel and the module's node (complete, or without
# "data_cpu_num").
vm_dtbs() {
	qemu-system-aarch64 -M virt,dumpdtb="$VM_OUT/virt.dtb" -cpu cortex-a57 \
		-m "$VM_MEM" -smp "$VM_SMP" -nographic -nic none >/dev/null 2>&1 ||
		vm_die "qemu could not dump its device tree"
	dtc -q -I dtb -O dts "$VM_OUT/virt.dtb" -o "$VM_OUT/virt.dts"
	[ "$(tail -n1 "$VM_OUT/virt.dts")" = "};" ] || vm_die "unexpected dts shape"
	local variant data
	for variant in full partial; do
		data="data_cpu_num = <0x02>;"
		[ $variant = partial ] && data=""
		{
			head -n -1 "$VM_OUT/virt.dts"
			cat <<-DTS
			reserved-memory {
				#address-cells = <0x02>;
				#size-cells = <0x02>;
				ranges;
				ucfg_regs@80000000 {
					reg = <0x00 0x80000000 0x00 0x10000>;
					no-map;
				};
			};
			user_cfg {
				compatible = "vexa-user-cfg";
				ctrl_cpu_num = <0x01>;
				$data
				aicpu_num = <0x04>;
			};
			};
			DTS
		} >"$VM_OUT/ucfg-$variant.dts"
		dtc -q -I dts -O dtb "$VM_OUT/ucfg-$variant.dts" \
			-o "$VM_OUT/ucfg-$variant.dtb" || vm_die "dtc $variant"
	done
}

# vm_boot MODE DTB-VARIANT BOOT-CFG CONSOLE-FILE TIMEOUT [KERNEL-ARGS]
# MODE (suite, partial, stress, demo) reaches the init as $ucfgmode, the
# extra arguments as further variables of the init. TIMEOUT is in seconds
# on the stock kernels and scaled by VM_SLOW on the debug kernel, whose
# init is told (ucfgdebug=1) to verify its checkers and run kmemleak.
vm_boot() {
	local mode=$1 variant=$2 bootcfg=$3 console=$4
	local limit=$(($5 * VM_SLOW)) extra=${6:+ $6}
	[ "$VM_DEBUG" = 1 ] && extra="$extra ucfgdebug=1"
	timeout "$limit" qemu-system-aarch64 -M virt -cpu cortex-a57 \
		-m "$VM_MEM" -smp "$VM_SMP" -nographic -nic none -no-reboot \
		-kernel "$VM_VMLINUZ" -initrd "$VM_OUT/initrd.gz" \
		-dtb "$VM_OUT/ucfg-$variant.dtb" \
		-append "console=ttyAMA0 panic_on_warn=1 panic=-1 oops=panic hung_task_panic=1 softlockup_panic=1 loglevel=4 log_buf_len=4M rdinit=/init ucfgmode=$mode$extra" \
		-device loader,addr=0x8000F07C,data=$VM_BOARD_ID,data-len=4 \
		-device loader,addr=0x8000E08C,data="$bootcfg",data-len=4 \
		>"$console" 2>&1 </dev/null
}

# Kernel complaints, as fixed strings: the console must show none, and the
# init and the stress program search the kernel log for them too (some
# checkers report below the console's log level). Most checker reports open
# with "BUG:" (KASAN, sleeping in atomic context, bad page state) or
# "WARNING:" (WARN(), debug-objects included; lockdep's circular and
# recursive locking, bad unlock balance, held lock freed); the rest are
# named: debug-objects' own lines, lockdep switching itself off (it then
# checks nothing more), kmemleak losing its tracking, an arm64 oops header,
# a stack dump without a header of its own.
VM_COMPLAINTS=('WARNING:' 'BUG:' 'Oops' 'Call trace' 'blocked for more than'
	'Kernel panic' 'ODEBUG:' 'turning off the locking correctness validator'
	'Kernel memory leak detector disabled' 'Cannot allocate a kmemleak_object'
	'Internal error:' 'Unable to handle kernel')

# vm_kernel_clean FILE: no kernel complaint in a console log.
vm_kernel_clean() {
	! grep -a -F -f <(printf '%s\n' "${VM_COMPLAINTS[@]}") "$1"
}
