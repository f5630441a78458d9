#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# Boots a Debian kernel under QEMU (arm64 "virt", Cortex-A57) with the
# module, its stand-in siblings and the ucfg client, and runs smoke-init.sh
# there. The device tree is QEMU's own plus the module's node and a
# reserved page over the platform registers (0x80000000-0x8000ffff), whose
# board id and boot configuration are preset with QEMU's loader device.
#
#   tests/vm/run.sh [TARGET] [demo]   TARGET: arm64-5.10 (default) or arm64-6.1
#
# Without "demo" it runs the tests of smoke-init.sh (TAP) and passes only
# when they print their sentinel and the console shows no kernel warning,
# BUG, oops or call trace (panic_on_warn=1 too). With "demo" it runs
# demo-init.sh and shows its whole console.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/../.." && pwd)
TARGET=${1:-arm64-5.10}
MODE=${2:-test}
INIT=smoke-init.sh
SENTINEL=UCFG-VM-ALL-PASSED
if [ "$MODE" = demo ]; then
	INIT=demo-init.sh
	SENTINEL=UCFG-VM-DEMO-DONE
fi
OUT=$ROOT/build/vm/$TARGET
CACHE=$ROOT/.cache
mkdir -p "$OUT" "$CACHE/debs"

log() { echo "vm[$TARGET]: $*"; }

VMLINUZ=$("$ROOT/scripts/fetch-kernel.sh" "$TARGET" image | tail -n1)
KVER=$(basename "$VMLINUZ" | sed 's/^vmlinuz-//')
"$ROOT/scripts/build-module.sh" "$TARGET" >"$OUT/build.log" 2>&1 ||
	{ cat "$OUT/build.log"; exit 1; }
make -C "$ROOT" --no-print-directory tools-arm64 >"$OUT/tools.log" 2>&1 ||
	{ cat "$OUT/tools.log"; exit 1; }

# busybox for arm64, from Debian, unpacked once.
BB=$CACHE/busybox-arm64/bin/busybox
if [ ! -x "$BB" ]; then
	(cd "$CACHE/debs" && apt-get download busybox-static:arm64 >/dev/null 2>&1) ||
		{ apt-get update -qq && (cd "$CACHE/debs" &&
			apt-get download busybox-static:arm64); }
	rm -rf "$CACHE/busybox-arm64"
	dpkg -x "$(ls "$CACHE"/debs/busybox-static_*_arm64.deb | tail -n1)" \
		"$CACHE/busybox-arm64"
fi

# Root file system.
RFS=$OUT/rootfs
rm -rf "$RFS"
mkdir -p "$RFS"/{bin,sbin,proc,sys,dev,tmp,var} "$RFS/lib/modules/$KVER/extra"
cp "$BB" "$RFS/bin/busybox"
for a in $("$BB" --list 2>/dev/null || qemu-aarch64 "$BB" --list 2>/dev/null || echo sh); do
	ln -sf busybox "$RFS/bin/$a"
done
# The applets the init needs, in case the list could not be read here.
for a in sh mount modprobe rmmod grep stat cp chown printf tr sed \
	cat echo poweroff mkdir; do
	[ -e "$RFS/bin/$a" ] || ln -s busybox "$RFS/bin/$a"
done
cp "$ROOT/build/$TARGET/drv_user_cfg.ko" "$ROOT/build/$TARGET/sim/sec_flash.ko" \
	"$ROOT/build/$TARGET/sim/orvane_ctl.ko" "$RFS/lib/modules/$KVER/extra/"
depmod -b "$RFS" "$KVER"
cp "$ROOT/build/tools-arm64/ucfg" "$RFS/bin/ucfg"
aarch64-linux-gnu-g++ -std=c++17 -static -O2 -Wall -Wextra -Werror \
	"$ROOT/tests/vm/runas.cpp" -o "$RFS/bin/runas"
cp "$ROOT/tests/vm/$INIT" "$RFS/init"
chmod +x "$RFS/init"
(cd "$RFS" && find . | cpio -o -H newc --quiet | gzip -1) >"$OUT/initrd.gz"

# Device tree: QEMU's, plus the module's node and the register page.
QEMU=(qemu-system-aarch64 -M virt -cpu cortex-a57 -m 3G -smp 2 -nographic
	-nic none -no-reboot)
qemu-system-aarch64 -M virt,dumpdtb="$OUT/virt.dtb" -cpu cortex-a57 -m 3G \
	-smp 2 -nographic -nic none >/dev/null 2>&1
dtc -q -I dtb -O dts "$OUT/virt.dtb" -o "$OUT/virt.dts"
python3 - "$OUT/virt.dts" <<'PY'
import sys
p = sys.argv[1]
s = open(p).read().rstrip()
assert s.endswith("};")
s = s[:-2] + """
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
		data_cpu_num = <0x02>;
		aicpu_num = <0x04>;
	};
};
"""
open(p, "w").write(s)
PY
dtc -q -I dts -O dtb "$OUT/virt.dts" -o "$OUT/ucfg.dtb"

log "booting $KVER"
start=$(date +%s)
set +e
timeout 300 "${QEMU[@]}" -kernel "$VMLINUZ" -initrd "$OUT/initrd.gz" \
	-dtb "$OUT/ucfg.dtb" \
	-append "console=ttyAMA0 panic_on_warn=1 panic=-1 oops=panic rdinit=/init" \
	-device loader,addr=0x8000F07C,data=0x00001234,data-len=4 \
	-device loader,addr=0x8000E08C,data=0xfffffffe,data-len=4 \
	>"$OUT/console.log" 2>&1
set -e
if [ "$MODE" = demo ]; then
	sed -n '/^== /,$p' "$OUT/console.log" | grep -v 'reboot: Power down'
else
	grep -E '^(not )?ok |^# ' "$OUT/console.log" | grep -v '^# kernel' || true
fi
bad=$(grep -E 'WARNING:|BUG:|Oops|Call trace|blocked for more than' \
	"$OUT/console.log" || true)
if [ -n "$bad" ]; then
	log "FAILED: the kernel complained:"
	echo "$bad"
	exit 1
fi
if ! grep -q "^$SENTINEL" "$OUT/console.log"; then
	log "FAILED (console: $OUT/console.log)"
	tail -n 20 "$OUT/console.log"
	exit 1
fi
[ "$MODE" = demo ] && exit 0
log "$(grep -c '^ok ' "$OUT/console.log") passed in $(($(date +%s) - start)) s"
