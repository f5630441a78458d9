#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# Assemble the DKMS package source tree of drv_user_cfg.
#
#   scripts/dkms-source.sh [DEST]     (default /usr/src/drv_user_cfg-VERSION)
#
# The tree holds what the module build needs and nothing else: Kbuild and
# VERSION (Kbuild reads the module's version from it), the package Makefile
# (Makefile.dkms), dkms.conf with the version of the file VERSION written
# in, and the .c/.h files of the module's directories (not sim/, tests/ or
# tools/). DEST is replaced if it exists. Prints DEST.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
VERSION=$(tr -d ' \n' <"$ROOT/VERSION")
[[ $VERSION =~ ^[0-9]+(\.[0-9]+)*$ ]] ||
	{ echo "dkms-source: bad VERSION '$VERSION'" >&2; exit 1; }
DEST=${1:-/usr/src/drv_user_cfg-$VERSION}

# The directories of drv_user_cfg.ko, as Kbuild's object list names them,
# and include/ for the headers.
mapfile -t MODULE_DIRS < <(sed -n 's#^[[:space:]]*\([a-z_]*\)/[a-z_0-9]*\.o.*#\1#p' \
	"$ROOT/Kbuild" | sort -u)
[ ${#MODULE_DIRS[@]} -gt 0 ] || { echo "dkms-source: no objects in Kbuild" >&2; exit 1; }
MODULE_DIRS+=(include)

rm -rf "$DEST"
mkdir -p "$DEST"
cp "$ROOT/Kbuild" "$ROOT/VERSION" "$DEST/"
cp "$ROOT/Makefile.dkms" "$DEST/Makefile"
sed "s/#MODULE_VERSION#/$VERSION/" "$ROOT/dkms.conf" >"$DEST/dkms.conf"
(cd "$ROOT" && find "${MODULE_DIRS[@]}" -type f \( -name '*.c' -o -name '*.h' \) \
	-print0 | cpio -0pdm --quiet "$DEST")
echo "$DEST"
