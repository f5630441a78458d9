#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# Fetch and unpack the Debian kernel packages of one build target into the
# repository's cache, never installing them system-wide, so that several
# targets coexist side by side.
#
#   scripts/fetch-kernel.sh TARGET [headers|image|source]
#
#   TARGET   arm64-5.10 | arm64-6.1 | x86_64-6.1 | arm64-5.10-debug
#   headers  (default) headers + kbuild host tools; prints the directory to
#            pass to "make -C" on the last line of stdout
#   image    the kernel image package for the VM; prints the vmlinuz path
#   source   arm64-5.10 only: Debian's linux-source-5.10 package (the whole
#            source as a tarball inside the .deb); prints the .deb's path.
#            Left packed: callers take what they need from it.
#
# arm64-5.10-debug is not a Debian package but our own build of the same
# 5.10 source with the kernel's checkers on (scripts/build-debug-kernel.sh,
# cached in .cache/debug-kernel/): headers is its build directory, image its
# uncompressed Image.
#
# Layout under .cache/:
#   debs/                       every downloaded .deb, kept for reuse
#   kernel/TARGET/root/         the target's packages unpacked with dpkg -x
#   kernel/TARGET/headers.done  the make -C directory, written last
#   kernel/TARGET/image.done    the vmlinuz path, written last
#   kernel/TARGET/source.done   the linux-source .deb's path
#
# arm64-5.10 comes from bullseye: for the length of the run the script adds
# an apt source for it (/etc/apt/sources.list.d/drv-user-cfg-bullseye.sources)
# and removes it again at the end, with the package lists fetched for it,
# saying so on stderr both times.
#
# A stamp is written only after everything it covers is in place, so an
# interrupted run is simply redone. With the stamp present the script neither
# queries apt nor downloads anything. The 6.1 ABI is whatever bookworm's
# kernel metapackage depends on at the time of the first fetch; delete
# .cache/kernel/TARGET to pick up a newer one.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
CACHE=$ROOT/.cache
DEBS=$CACHE/debs

TARGET=${1:?usage: fetch-kernel.sh TARGET [headers|image]}
WHAT=${2:-headers}

TDIR=$CACHE/kernel/$TARGET
STAMP=$TDIR/$WHAT.done

log() { echo "fetch-kernel[$TARGET]: $*" >&2; }
die() { log "error: $*"; exit 1; }

case $WHAT in
headers | image) ;;
source) [ "$TARGET" = arm64-5.10 ] || die "source is for arm64-5.10 only" ;;
*) die "unknown part '$WHAT' (headers, image or source)" ;;
esac

if [ "$TARGET" = arm64-5.10-debug ]; then
	[ "$WHAT" = headers ] && exec "$ROOT/scripts/build-debug-kernel.sh" tree
	exec "$ROOT/scripts/build-debug-kernel.sh" image
fi

done_already() { [ -s "$STAMP" ] && [ -e "$(cat "$STAMP")" ]; }

SUDO=()
APT_OPTS=()
if [ "$(id -u)" -eq 0 ]; then
	# apt's download sandbox user cannot write into the repository.
	APT_OPTS=(-o APT::Sandbox::User=root)
else
	SUDO=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive

# The bullseye apt source (arm64-5.10 only) exists for the length of a run:
# the packages are downloaded into .cache/ and never installed, so nothing
# needs it afterwards, and the machine's apt configuration is left as it
# was found. It is removed on every way out (an error, a signal, the
# restart of fetch_deb hands it on to the new process), together with the
# package lists apt fetched for it. An entry found at the start is a
# leftover of an earlier version of this script (the name is ours) and goes
# the same way.
BULLSEYE_LIST=/etc/apt/sources.list.d/drv-user-cfg-bullseye.sources
BULLSEYE_OURS=0
drop_bullseye() {
	[ "$BULLSEYE_OURS" -eq 1 ] && [ -e "$BULLSEYE_LIST" ] || return 0
	local uris uri prefix f n=0
	uris=$(sed -n 's/^URIs:[[:space:]]*//p' "$BULLSEYE_LIST")
	"${SUDO[@]}" rm -f "$BULLSEYE_LIST"
	# apt ignores the lists of a source it no longer has, but keeps the
	# files until its next update, and they would be read again, stale, if
	# the entry came back before that. Kept when another source of the
	# machine still names bullseye: those lists may be its.
	if ! grep -qsw bullseye /etc/apt/sources.list /etc/apt/sources.list.d/*.list \
		/etc/apt/sources.list.d/*.sources; then
		for uri in $uris; do
			prefix=${uri#*://}
			prefix=${prefix%/}
			for f in /var/lib/apt/lists/"${prefix//\//_}"_dists_bullseye_*; do
				[ -e "$f" ] || continue
				"${SUDO[@]}" rm -f "$f"
				n=$((n + 1))
			done
		done
	fi
	log "removed apt source $BULLSEYE_LIST and the $n package lists apt had for it"
}
trap drop_bullseye EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

if done_already && [ ! -e "$BULLSEYE_LIST" ]; then
	cat "$STAMP"
	exit 0
fi
# One fetch at a time, whatever the target: apt's lists and sources are
# shared (make -j modules). Whoever waited may find the work done.
mkdir -p "$TDIR"
exec 9>"$CACHE/apt.lock"
flock 9
if [ -e "$BULLSEYE_LIST" ]; then
	BULLSEYE_OURS=1
	[ -n "${FETCH_KERNEL_BULLSEYE:-}" ] ||
		log "found apt source $BULLSEYE_LIST left by an earlier run; removing it when done"
fi
if done_already; then
	cat "$STAMP"
	exit 0
fi

# The lists are refreshed at most once per run, and only when a package we
# need is unknown to apt or its download fails (stale lists).
UPDATED=0
apt_update() {
	[ $UPDATED -eq 1 ] && return 0
	log "apt-get update"
	"${SUDO[@]}" apt-get update -q >&2 </dev/null
	UPDATED=1
}

# Print the candidate version of package[:arch], refreshing the lists once if
# apt does not know it.
candidate() {
	local v
	v=$(apt-cache policy "$1" 2>/dev/null | awk '/Candidate:/ { print $2 }')
	if [ -z "$v" ] || [ "$v" = "(none)" ]; then
		apt_update
		v=$(apt-cache policy "$1" 2>/dev/null |
			awk '/Candidate:/ { print $2 }')
	fi
	[ -n "$v" ] && [ "$v" != "(none)" ] || die "apt knows no package $1"
	echo "$v"
}

# Print the first dependency of package[:arch] (candidate version) whose
# name matches the extended regular expression $2.
dep_matching() {
	apt-cache show --no-all-versions "$1" 2>/dev/null |
		awk -F': ' '/^Depends:/ { print $2; exit }' |
		tr ',|' '\n\n' | sed 's/^ *//; s/ .*//; s/:.*//' |
		grep -E -m1 "$2" || die "no dependency of $1 matches $2"
}

ensure_arch() {
	dpkg --print-architecture | grep -qx "$1" && return 0
	dpkg --print-foreign-architectures | grep -qx "$1" && return 0
	log "dpkg --add-architecture $1"
	"${SUDO[@]}" dpkg --add-architecture "$1"
	UPDATED=0
}

# bullseye is reached through the same mirror as the machine's own bookworm
# entry: copy its URIs, components and keyring, changing only the suite.
ensure_bullseye() {
	[ -e "$BULLSEYE_LIST" ] && return 0
	local src=/etc/apt/sources.list.d/debian.sources stanza
	[ -r "$src" ] || die "$src not found: cannot derive a bullseye entry"
	stanza=$(awk 'BEGIN { RS = ""; FS = "\n" }
		{
			suite = 0; out = ""
			for (i = 1; i <= NF; i++) {
				if ($i ~ /^#/) continue
				if ($i ~ /^Suites:/ &&
				    $i ~ /[ \t]bookworm([ \t]|$)/) suite = 1
				if ($i ~ /^(URIs|Components|Signed-By|Types):/)
					out = out $i "\n"
			}
			if (suite) { printf "%s", out; exit }
		}' "$src")
	grep -q '^URIs:' <<<"$stanza" || die "no bookworm entry in $src"
	BULLSEYE_OURS=1
	printf '%s\nSuites: bullseye\n' "$stanza" |
		"${SUDO[@]}" tee "$BULLSEYE_LIST" >/dev/null
	log "added apt source $BULLSEYE_LIST (bullseye, URIs of the bookworm entry)" \
		"for this run"
	UPDATED=0
}

# Download package[:arch]=version into the .deb cache unless present; the
# path is left in DEB. A failed download usually means the lists are older
# than the mirror (the version is gone): refresh them and start over, once,
# so that versions are resolved again.
fetch_deb() {
	local pkg=$1 arch=$2 ver=$3
	DEB=$DEBS/${pkg}_${ver/*:/}_${arch}.deb
	[ -s "$DEB" ] && return 0
	mkdir -p "$DEBS"
	log "downloading $pkg:$arch=$ver"
	if (cd "$DEBS" && apt-get download -q "${APT_OPTS[@]}" \
		"$pkg:$arch=$ver" >&2 </dev/null) && [ -s "$DEB" ]; then
		return 0
	fi
	[ -z "${FETCH_KERNEL_RETRIED:-}" ] || die "cannot download $pkg:$arch=$ver"
	apt_update
	# The new process takes over the bullseye entry, and removes it.
	FETCH_KERNEL_BULLSEYE=1 FETCH_KERNEL_RETRIED=1 exec "$0" "$TARGET" "$WHAT"
}

case $TARGET in
arm64-5.10)
	ARCH=arm64
	ensure_arch arm64
	ensure_bullseye
	ABI=5.10.0-32
	FLAVOUR=arm64
	KBUILD_PKG=linux-kbuild-5.10
	;;
arm64-6.1 | x86_64-6.1)
	if [ "$TARGET" = arm64-6.1 ]; then
		ARCH=arm64 FLAVOUR=arm64
		ensure_arch arm64
	else
		ARCH=amd64 FLAVOUR=amd64
	fi
	candidate "linux-headers-$FLAVOUR:$ARCH" >/dev/null
	hdr=$(dep_matching "linux-headers-$FLAVOUR:$ARCH" \
		"^linux-headers-6\.1\.[0-9]+-[0-9]+-$FLAVOUR\$")
	ABI=${hdr#linux-headers-}
	ABI=${ABI%-"$FLAVOUR"}
	KBUILD_PKG=linux-kbuild-6.1
	;;
*)
	die "unknown target (arm64-5.10, arm64-6.1, x86_64-6.1, arm64-5.10-debug)"
	;;
esac

ROOTFS=$TDIR/root
mkdir -p "$ROOTFS"

if [ "$WHAT" = source ]; then
	ver=$(candidate linux-source-5.10)
	fetch_deb linux-source-5.10 all "$ver"
	echo "$DEB" >"$STAMP"
	log "source linux-source-5.10 $ver"
	cat "$STAMP"
	exit 0
fi

if [ "$WHAT" = image ]; then
	pkg=linux-image-$ABI-$FLAVOUR
	ver=$(candidate "$pkg:$ARCH")
	fetch_deb "$pkg" "$ARCH" "$ver"
	deb=$DEB
	# Only /boot is unpacked: the VM loads our modules, not Debian's.
	rm -rf "$TDIR/image"
	mkdir -p "$TDIR/image"
	dpkg-deb --fsys-tarfile "$deb" | tar -x -C "$TDIR/image" ./boot
	vmlinuz=$TDIR/image/boot/vmlinuz-$ABI-$FLAVOUR
	[ -e "$vmlinuz" ] || die "no $vmlinuz in $deb"
	echo "$pkg $ver" >"$TDIR/image.version"
	echo "$vmlinuz" >"$STAMP"
	log "image $pkg $ver"
	cat "$STAMP"
	exit 0
fi

HDR_ARCH=linux-headers-$ABI-$FLAVOUR
HDR_COMMON=linux-headers-$ABI-common
hver=$(candidate "$HDR_ARCH:$ARCH")

# The kbuild host tools run on this machine, so they are always amd64; their
# version must be the headers' own.
debs=()
fetch_deb "$HDR_ARCH" "$ARCH" "$hver" && debs+=("$DEB")
fetch_deb "$HDR_COMMON" all "$hver" && debs+=("$DEB")
fetch_deb "$KBUILD_PKG" amd64 "$hver" && debs+=("$DEB")

rm -rf "$ROOTFS"
mkdir -p "$ROOTFS"
for d in "${debs[@]}"; do
	dpkg -x "$d" "$ROOTFS"
done

KDIR=$ROOTFS/usr/src/$HDR_ARCH
[ -f "$KDIR/Makefile" ] || die "no Makefile in $KDIR"

# The packages refer to each other by absolute paths under /usr/src and
# /usr/lib: point those at the unpacked copies. Relative links already
# resolve inside $ROOTFS.
find "$ROOTFS" -type l | while read -r link; do
	dest=$(readlink "$link")
	case $dest in
	/usr/src/* | /usr/lib/* | /lib/*)
		ln -sfn "$ROOTFS$dest" "$link"
		;;
	esac
done
grep -rlE --include=Makefile '/usr/(src|lib)/linux-' "$KDIR" |
	while read -r mk; do
		sed -i -E "s#([ =])/usr/(src|lib)/linux-#\\1$ROOTFS/usr/\\2/linux-#g" "$mk"
	done
# Anything still pointing outside the cache would silently use (or miss)
# files of the host, so refuse to go on.
if grep -rqE --include=Makefile '(^|[ =])/usr/(src|lib)/' "$KDIR"; then
	die "unrewritten absolute path left in $KDIR"
fi

echo "$HDR_ARCH $hver" >"$TDIR/headers.version"
echo "$KDIR" >"$STAMP"
log "headers $HDR_ARCH $hver"
cat "$STAMP"
