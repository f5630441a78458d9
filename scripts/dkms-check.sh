#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# The DKMS package, end to end, with Debian's dkms against the installed
# amd64 kernel headers (linux-headers-amd64): assemble the package tree,
# dkms add, build, install, check the installed module, dkms remove.
#
#   scripts/dkms-check.sh
#
# Everything happens in throwaway trees under build/dkms/ (dkms's
# --sourcetree, --dkmstree and --installtree; no depmod), so the machine's
# /usr/src, /var/lib/dkms and /lib/modules are left as they were and a
# second run starts from the same state. Nothing is loaded.
#
# The build is for the installed headers' release, named explicitly: the
# running kernel (a container's) usually has no headers at all. The
# secure-flash symbols come from the stand-in sibling modules of sim/, built
# first against the same headers, through SEC_FLASH_SYMVERS exactly as on a
# board. Fails on any warning in the module's build log.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
WORK=$ROOT/build/dkms
VERSION=$(tr -d ' \n' <"$ROOT/VERSION")
PKG=drv_user_cfg

log() { echo "dkms-check: $*" >&2; }
die() { log "FAILED: $*"; exit 1; }

"$ROOT/scripts/setup.sh" >/dev/null

# The release the metapackage points at, e.g. 6.1.0-56-amd64.
KVER=$(dpkg-query -W -f='${Depends}' linux-headers-amd64 |
	tr ',' '\n' | sed -n 's/^ *linux-headers-\([^ ]*\).*/\1/p' | head -n1)
[ -n "$KVER" ] || die "cannot tell the release of linux-headers-amd64"
KDIR=/lib/modules/$KVER/build
[ -f "$KDIR/Makefile" ] || die "no headers for $KVER at $KDIR"
log "kernel $KVER, package $PKG $VERSION"

rm -rf "$WORK"
mkdir -p "$WORK/src" "$WORK/dkms" "$WORK/modules/$KVER"
# dkms signs what it builds, with a key it generates on first use under
# /var/lib/dkms unless told otherwise: a throwaway key here.
export mok_signing_key=$WORK/mok.key mok_certificate=$WORK/mok.pub
DKMS=(dkms --sourcetree "$WORK/src" --dkmstree "$WORK/dkms"
	--installtree "$WORK/modules" --kernelsourcedir "$KDIR" --no-depmod)

# Run the kernel's make on its own terms, not with a calling make's flags.
unset MAKEFLAGS MFLAGS MAKELEVEL MAKEOVERRIDES

# Stand-in siblings: their Module.symvers is what a board's secure-flash
# module provides.
cp -r "$ROOT/sim" "$ROOT/include" "$ROOT/common" "$WORK/"
make -s -C "$KDIR" M="$WORK/sim" -j"$(nproc)" modules >"$WORK/sim.log" 2>&1 ||
	{ cat "$WORK/sim.log" >&2; die "stand-in siblings did not build"; }
export SEC_FLASH_SYMVERS=$WORK/sim/Module.symvers

TREE=$("$ROOT/scripts/dkms-source.sh" "$WORK/src/$PKG-$VERSION")

# The package Makefile must refuse to build without the sibling's symbols
# (modpost's check of the imports is never switched off).
if SEC_FLASH_SYMVERS=$WORK/none make -s -C "$TREE" KERNELRELEASE="$KVER" \
	>"$WORK/nosymvers.log" 2>&1; then
	die "the package built without the secure-flash Module.symvers"
fi
grep -q 'SEC_FLASH_SYMVERS' "$WORK/nosymvers.log" ||
	die "no hint at SEC_FLASH_SYMVERS when the symbols are missing"

"${DKMS[@]}" add "$PKG/$VERSION" >/dev/null
if ! "${DKMS[@]}" build "$PKG/$VERSION" -k "$KVER" >"$WORK/build.out" 2>&1; then
	cat "$WORK/build.out" "$WORK/dkms/$PKG/$VERSION/build/make.log" >&2 || true
	die "dkms build"
fi
MAKELOG=$WORK/dkms/$PKG/$VERSION/$KVER/$(uname -m)/log/make.log
[ -s "$MAKELOG" ] || die "dkms kept no build log at $MAKELOG"
grep -q 'CC .*drv_user_cfg\.mod\.o\|LD .*drv_user_cfg\.ko' "$MAKELOG" ||
	die "$MAKELOG does not show the module being built"
if grep -iE '(^|[^a-z_])(warning|error):' "$MAKELOG" >&2; then
	die "warnings in $MAKELOG"
fi
"${DKMS[@]}" install "$PKG/$VERSION" -k "$KVER" >"$WORK/install.out" 2>&1 ||
	{ cat "$WORK/install.out" >&2; die "dkms install"; }

KO=$(find "$WORK/modules/$KVER" -name "$PKG.ko*" | head -n1)
[ -n "$KO" ] || die "dkms install left no $PKG.ko under $WORK/modules/$KVER"
vermagic=$(modinfo -F vermagic "$KO")
[ "${vermagic%% *}" = "$KVER" ] ||
	die "vermagic '$vermagic' of $KO is not for $KVER"
# The imports were resolved against the sibling, not left dangling.
modinfo -F depends "$KO" | tr ',' '\n' | grep -qx sec_flash ||
	die "$KO does not depend on sec_flash"
"${DKMS[@]}" status -k "$KVER" | grep -q "$PKG/$VERSION.*installed" ||
	die "dkms does not report $PKG/$VERSION installed"

"${DKMS[@]}" remove "$PKG/$VERSION" --all >/dev/null
[ -z "$(find "$WORK/modules" -name "$PKG.ko*")" ] ||
	die "dkms remove left the module installed"
log "ok: $KO (vermagic $vermagic)"
