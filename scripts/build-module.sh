#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# Build drv_user_cfg.ko for one target against the cached Debian headers.
#
#   scripts/build-module.sh TARGET [make arguments...]
#
# Kbuild puts an external module's objects beside its sources, so the module
# sources are mirrored into build/TARGET/ and built there: the source tree
# stays clean and each target keeps its own objects, so the targets can be
# built one after the other (and rebuilt incrementally) without "make clean".
# The mirror keeps modification times, so Kbuild's dependency tracking works
# across runs.
#
# The build fails if the compiler, modpost or a checker given through the
# extra arguments (e.g. C=2) prints any warning: W=1 must stay silent.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
TARGET=${1:?usage: build-module.sh TARGET [make arguments...]}
shift

# What is mirrored into the build tree: Kbuild and VERSION (the module's
# version, read by Kbuild), the directories of drv_user_cfg.ko and sim/,
# the stand-in sibling modules, built first into build/TARGET/sim/.
MODULE_SOURCES=(Kbuild VERSION include common driver store catalogue dynamic access sim)

case $TARGET in
arm64-5.10 | arm64-6.1 | arm64-5.10-debug)
	KARGS=(ARCH=arm64 CROSS_COMPILE=aarch64-linux-gnu-
		CC="${UCFG_CCACHE:+$UCFG_CCACHE }aarch64-linux-gnu-gcc")
	;;
x86_64-6.1)
	# Debian builds its kernels with "gcc-12": naming the same driver
	# keeps Kbuild's compiler-identity check quiet.
	KARGS=(ARCH=x86_64 CC="${UCFG_CCACHE:+$UCFG_CCACHE }gcc-12")
	;;
*)
	echo "build-module: unknown target $TARGET" >&2
	exit 1
	;;
esac

# Run the kernel's make on its own terms: flags of a calling make (a
# jobserver it would not get, variables of ours) must not leak into it.
unset MAKEFLAGS MFLAGS MAKELEVEL MAKEOVERRIDES

KDIR=$("$ROOT/scripts/fetch-kernel.sh" "$TARGET" headers | tail -n1)
OUT=$ROOT/build/$TARGET
mkdir -p "$OUT"
# Builds of one target share a directory: one at a time.
exec 9>"$OUT.lock"
flock 9

# Build products are excluded, which also protects them from --delete; so
# is everything outside the mirrored directories (logs, symbol lists).
# Files are compared by content and a changed one gets a fresh time stamp:
# a source restored to an older time (an editor, a checkout) must still be
# newer than the object built from its other content, or Kbuild would keep
# the stale object.
filters=()
for s in "${MODULE_SOURCES[@]}"; do
	filters+=(--include="/$s" --include="/$s/***")
done
rsync -a --no-times --checksum --delete \
	--exclude='*.o' --exclude='*.ko' --exclude='*.mod' --exclude='*.mod.c' \
	--exclude='.*.cmd' --exclude='*.order' --exclude='*.symvers' \
	--exclude='.*.d' --exclude='*.o.d' --exclude='.tmp_versions' \
	"${filters[@]}" --exclude='/*' "$ROOT/" "$OUT/"

LOG=$OUT/build.log
: >"$LOG"
kbuild() {
	local dir=$1 rc
	shift
	echo "build-module[$TARGET]: make -C $KDIR M=$dir ${KARGS[*]} W=1 $*" |
		tee -a "$LOG"
	set +e
	make -C "$KDIR" M="$dir" "${KARGS[@]}" W=1 "$@" -j"$(nproc)" modules \
		2>&1 | tee -a "$LOG"
	rc=${PIPESTATUS[0]}
	set -e
	return "$rc"
}

# drv_user_cfg.ko calls the secure-flash sibling directly, so modpost needs
# that module's exports and their symbol versions: the stand-in siblings of
# sim/ are built first and their Module.symvers is handed on. A .ko linked
# against made-up versions would be refused by a kernel with symbol
# versioning, so there is no way around it.
if [ ! -f "$OUT/sim/Kbuild" ]; then
	echo "build-module[$TARGET]: sim/Kbuild missing: the sibling modules" \
		"provide symbols drv_user_cfg.ko links against" >&2
	exit 1
fi
rc=0
kbuild "$OUT/sim" "$@" || rc=$?
if [ $rc -ne 0 ]; then
	echo "build-module[$TARGET]: FAILED in sim/ (log $LOG)" >&2
	exit $rc
fi
SYMVERS=$OUT/sim/Module.symvers

rc=0
kbuild "$OUT" KBUILD_EXTRA_SYMBOLS="$SYMVERS" "$@" || rc=$?

if [ $rc -ne 0 ]; then
	echo "build-module[$TARGET]: FAILED (make exit $rc; log $LOG)" >&2
	exit $rc
fi
if grep -qiE '(^|[^a-z_])(warning|error):' "$LOG"; then
	echo "build-module[$TARGET]: FAILED: warnings (log $LOG):" >&2
	grep -iE '(^|[^a-z_])(warning|error):' "$LOG" >&2
	# The objects were produced all the same; without them the next run
	# compiles (and warns) again instead of passing on stale objects.
	find "$OUT" \( -name '*.o' -o -name '*.ko' \) -delete
	exit 1
fi
[ -f "$OUT/drv_user_cfg.ko" ] || {
	echo "build-module[$TARGET]: no drv_user_cfg.ko produced" >&2
	exit 1
}
echo "build-module[$TARGET]: $OUT/drv_user_cfg.ko"
