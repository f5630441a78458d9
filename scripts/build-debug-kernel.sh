#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# Build the arm64 debug kernel the VM tests run on: Debian bullseye's 5.10
# source (the release behind the stock 5.10 image) configured from
# "allnoconfig" plus scripts/debug-kernel.config, which adds KASAN,
# kmemleak, lockdep, atomic-sleep checks and debug objects. Everything the
# VM needs is built in, so the only loadable modules are ours.
#
#   scripts/build-debug-kernel.sh [image|tree]
#
#   image (default)  prints the path of arch/arm64/boot/Image
#   tree             prints the build directory to pass to "make -C" for
#                    external modules
#
# Cache (git-ignored): .cache/debs/linux-source-5.10_*.deb (downloaded once),
# .cache/debug-kernel/{src,build}/, and build-seconds, the wall time of the
# last cold build. The "done" stamp holds a hash of the configuration
# fragment and of this script: changing either rebuilds (incrementally).
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
CACHE=$ROOT/.cache
DIR=$CACHE/debug-kernel
SRC=$DIR/src
OUT=$DIR/build
FRAG=$ROOT/scripts/debug-kernel.config
WHAT=${1:-image}

log() { echo "debug-kernel: $*" >&2; }
die() { log "error: $*"; exit 1; }

# busy WHAT LOG CMD...: runs CMD with its output in LOG and says every 30 s
# that it is still at it (a cold build takes minutes). Fails as CMD fails.
busy() {
	local what=$1 out=$2 pid t=0
	shift 2
	"$@" >>"$out" 2>&1 &
	pid=$!
	while kill -0 "$pid" 2>/dev/null; do
		sleep 1
		t=$((t + 1))
		[ $((t % 30)) -eq 0 ] &&
			log "$what: $t s so far, $(grep -c '^  [A-Z]' "$out") steps (log $out)"
	done
	wait "$pid"
}

case $WHAT in
image | tree) ;;
*) die "unknown argument '$WHAT' (image or tree)" ;;
esac

print() {
	if [ "$WHAT" = image ]; then
		echo "$OUT/arch/arm64/boot/Image"
	else
		echo "$OUT"
	fi
}

want=$(cat "$FRAG" "$0" | sha256sum | cut -d' ' -f1)
if [ -s "$DIR/done" ] && [ "$(cat "$DIR/done")" = "$want" ] &&
	[ -f "$OUT/arch/arm64/boot/Image" ]; then
	print
	exit 0
fi

mkdir -p "$DIR" "$CACHE/debs"
exec 9>"$DIR.lock"
flock 9

# The source package: one download, kept in the shared .deb cache.
if [ ! -f "$SRC/Makefile" ]; then
	# Downloaded (once, into .cache/debs/) by the fetch that the lint's
	# kernel-doc shares, which adds bullseye's apt source for its length.
	deb=$("$ROOT/scripts/fetch-kernel.sh" arm64-5.10 source | tail -n1)
	[ -f "$deb" ] || die "cannot download linux-source-5.10"
	log "unpacking $(basename "$deb")"
	rm -rf "$SRC" "$DIR/unpack"
	mkdir -p "$DIR/unpack"
	dpkg-deb --fsys-tarfile "$deb" |
		tar -x -C "$DIR/unpack" ./usr/src/linux-source-5.10.tar.xz
	: >"$DIR/unpack.log"
	busy unpacking "$DIR/unpack.log" \
		tar -xJf "$DIR/unpack/usr/src/linux-source-5.10.tar.xz" -C "$DIR/unpack" ||
		die "cannot unpack the kernel source"
	mv "$DIR/unpack/linux-source-5.10" "$SRC"
	rm -rf "$DIR/unpack"
fi

KMAKE=(make -C "$SRC" O="$OUT" ARCH=arm64 CROSS_COMPILE=aarch64-linux-gnu-)
unset MAKEFLAGS MFLAGS MAKELEVEL MAKEOVERRIDES

cold=0
[ -f "$OUT/vmlinux" ] || cold=1
t0=$(date +%s)
mkdir -p "$OUT"
log "configuring (allnoconfig + $(basename "$FRAG"))"
KCONFIG_ALLCONFIG="$FRAG" "${KMAKE[@]}" allnoconfig >"$DIR/config.log" 2>&1 ||
	{ cat "$DIR/config.log"; die "allnoconfig"; }
"${KMAKE[@]}" olddefconfig >>"$DIR/config.log" 2>&1 ||
	{ cat "$DIR/config.log"; die "olddefconfig"; }

# Every option of the fragment must have survived: a dependency that
# silently dropped KASAN would make the whole exercise meaningless.
missing=0
while IFS= read -r line; do
	case $line in
	CONFIG_*=*) grep -qxF "$line" "$OUT/.config" || {
		log "option not in the final configuration: $line"
		missing=1
	} ;;
	"# CONFIG_"*" is not set")
		opt=${line#\# }
		opt=${opt%% *}
		if grep -q "^$opt=" "$OUT/.config"; then
			log "option should be unset: $opt"
			missing=1
		fi ;;
	esac
done <"$FRAG"
[ $missing -eq 0 ] || die "configuration fragment not honoured"

# "modules" has nothing to build (everything is built in) but writes
# Module.symvers, without which modpost warns about every external module.
log "building Image and modules support (log $DIR/build.log)"
: >"$DIR/build.log"
busy building "$DIR/build.log" "${KMAKE[@]}" -j"$(nproc)" Image modules modules_prepare ||
	{ tail -n 40 "$DIR/build.log"; die "kernel build failed"; }
t1=$(date +%s)
if [ $cold -eq 1 ]; then
	echo $((t1 - t0)) >"$DIR/build-seconds"
	log "cold build took $((t1 - t0)) s on $(nproc) cores at nice $(nice)"
fi
echo "$want" >"$DIR/done"
print
