#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# Build the Debian packages with Debian's own tools (dpkg-buildpackage,
# debhelper, dh-dkms; the recipe is debian/) into build/deb/:
#
#   scripts/deb-build.sh [ARCH...]          (default: amd64 arm64)
#
#   drv-user-cfg-dkms_VERSION_all.deb       with the machine's own ARCH
#   ucfg-tools_VERSION_ARCH.deb             for each ARCH; a foreign one is
#                                           cross-built (-a ARCH -Pcross,nocheck)
#
# The build runs in a copy of the working tree (what git tracks or would
# track) under build/deb/src/, never in the checkout itself: others work in
# it at the same time, and dpkg-buildpackage writes into the tree and next
# to it. debian/changelog is written into that copy from the file VERSION,
# so the version exists in one place only and a changelog cannot disagree
# with it; its date is that of the last commit, so that the same commit
# gives the same packages.
#
# An ARCH whose packages were built from exactly the present tree (same
# files, same contents) is not built again. Logs: build/deb/build-ARCH.log.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
OUT=$ROOT/build/deb
VERSION=$(tr -d ' \n' <"$ROOT/VERSION")
[[ $VERSION =~ ^[0-9]+(\.[0-9]+)*$ ]] ||
	{ echo "deb-build: bad VERSION '$VERSION'" >&2; exit 1; }
STAGE=$OUT/src/drv-user-cfg-$VERSION
HOST_ARCH=$(dpkg --print-architecture)
ARCHES=("$@")
[ ${#ARCHES[@]} -gt 0 ] || ARCHES=(amd64 arm64)

log() { echo "deb-build: $*" >&2; }
die() { log "FAILED: $*"; exit 1; }

mkdir -p "$OUT"
exec 9>"$OUT/.lock"
flock 9

# The files of the working tree that make up the source: tracked or
# untracked but not ignored, and present (a deletion not yet committed is
# a deletion).
mapfile -d '' FILES < <(cd "$ROOT" && git ls-files -z -co --exclude-standard |
	while IFS= read -r -d '' f; do [ -f "$f" ] && printf '%s\0' "$f"; done |
	sort -z -u)
[ ${#FILES[@]} -gt 0 ] || die "no source files found (not a git checkout?)"
TREE_HASH=$( (cd "$ROOT" && printf '%s\0' "${FILES[@]}" | xargs -0 sha256sum) |
	sha256sum | cut -d' ' -f1)

debs_of() {
	local arch=$1
	[ "$arch" = "$HOST_ARCH" ] && echo "drv-user-cfg-dkms_${VERSION}_all.deb"
	echo "ucfg-tools_${VERSION}_${arch}.deb"
}

up_to_date() {
	local arch=$1 deb
	[ "$(cat "$OUT/.source-$arch" 2>/dev/null)" = "$TREE_HASH" ] || return 1
	for deb in $(debs_of "$arch"); do
		[ -s "$OUT/$deb" ] || return 1
	done
}

stage() {
	local maintainer date
	rm -rf "$OUT/src"
	mkdir -p "$STAGE"
	(cd "$ROOT" && printf '%s\0' "${FILES[@]}" |
		cpio -0pdm --quiet "$STAGE")
	maintainer=$(sed -n 's/^Maintainer: *//p' "$STAGE/debian/control")
	date=$(git -C "$ROOT" log -1 --format=%cD 2>/dev/null || date -R)
	cat >"$STAGE/debian/changelog" <<-CHANGELOG
		drv-user-cfg ($VERSION) unstable; urgency=medium

		  * Version $VERSION, from the file VERSION of the source tree.

		 -- $maintainer  $date
	CHANGELOG
}

# dpkg-buildpackage runs make on its own terms, not with a calling make's
# flags and jobserver.
unset MAKEFLAGS MFLAGS MAKELEVEL MAKEOVERRIDES

staged=0
for arch in "${ARCHES[@]}"; do
	if up_to_date "$arch"; then
		log "$arch: up to date: $(debs_of "$arch" | tr '\n' ' ')"
		continue
	fi
	[ $staged -eq 1 ] || stage
	staged=1
	rm -f "$OUT/.source-$arch"
	opts=(-us -uc)
	build_options="${DEB_BUILD_OPTIONS:+$DEB_BUILD_OPTIONS }parallel=$(nproc)"
	if [ "$arch" = "$HOST_ARCH" ]; then
		opts+=(-b)
	else
		opts+=(-B -a "$arch" "-Pcross,nocheck")
		build_options+=" nocheck"
	fi
	logfile=$OUT/build-$arch.log
	start=$(date +%s)
	if ! (cd "$STAGE" && DEB_BUILD_OPTIONS=$build_options \
		dpkg-buildpackage "${opts[@]}") >"$logfile" 2>&1; then
		tail -n 30 "$logfile" >&2
		die "$arch: dpkg-buildpackage ${opts[*]} (log $logfile)"
	fi
	for deb in $(debs_of "$arch"); do
		[ -s "$OUT/src/$deb" ] || die "$arch: $deb was not built (log $logfile)"
		mv "$OUT/src/$deb" "$OUT/"
	done
	echo "$TREE_HASH" >"$OUT/.source-$arch"
	log "$arch: $(debs_of "$arch" | tr '\n' ' ')($(($(date +%s) - start)) s," \
		"log $logfile)"
done
for arch in "${ARCHES[@]}"; do
	debs_of "$arch" | sed "s#^#$OUT/#"
done
