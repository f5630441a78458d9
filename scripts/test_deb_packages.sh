#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# make deb-check: the amd64 Debian packages installed and purged in a
# throwaway Debian root, one summary line per step, the step's full output
# in build/deb/check-STEP.log.
#
# The root is bookworm, debootstrap'd once into .cache/deb-check/root from
# the mirror of the machine's own Debian entry, with the kernel headers of
# linux-headers-amd64 and everything the packages depend on (so installing
# them downloads nothing); it is made again when that list changes. Each
# run works on a fresh overlay of it in build/deb/check/, mounted in a mount
# namespace of the script's own, so the mounts go with the script however it
# ends. The machine itself gets nothing installed: the last step compares
# its apt sources, /usr/src, /var/lib/dkms, /lib/modules and installed
# packages with how they were at the start.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
OUT=$ROOT/build/deb
CACHE=$ROOT/.cache/deb-check
BASE=$CACHE/root
WORK=$OUT/check
CHROOT=$WORK/root
VERSION=$(tr -d ' \n' <"$ROOT/VERSION")
MODULE=drv_user_cfg
PACKAGES=(drv-user-cfg-dkms ucfg-tools)
DEBS=("$OUT/drv-user-cfg-dkms_${VERSION}_all.deb" "$OUT/ucfg-tools_${VERSION}_amd64.deb")
SOURCES=/etc/apt/sources.list.d/debian.sources

if [ -z "${DEB_CHECK_NAMESPACE:-}" ]; then
	[ "$(id -u)" -eq 0 ] || { echo "deb-check: needs root (chroot, mounts)" >&2; exit 1; }
	DEB_CHECK_NAMESPACE=1 exec unshare --mount --propagation private "$0" "$@"
fi
mkdir -p "$OUT" "$CACHE"
exec 9>"$OUT/.check.lock"
flock 9

fail() { echo "FAILED: $*" >&2; exit 1; }
NOTE=$OUT/.check-note
note() { echo "$*" >"$NOTE"; }

# A step runs in a subshell with errexit in force (bash switches it off in
# a condition); a failed one ends the check, naming its last log line.
step() {
	local name=$1 log=$OUT/check-$1.log start=$SECONDS rc
	shift
	rm -f "$NOTE"
	set +e
	(set -e; "$@") >"$log" 2>&1
	rc=$?
	set -e
	printf 'deb-check: %-4s  %-10s %4d s  %s%s\n' "$([ $rc -eq 0 ] && echo ok || echo FAIL)" \
		"$name" $((SECONDS - start)) "$log" "$([ -s "$NOTE" ] && echo " ($(cat "$NOTE"))")"
	[ $rc -eq 0 ] && return 0
	echo "deb-check:   $(grep -v '^[[:space:]]*$' "$log" | tail -n1)"
	exit 1
}

in_root() {
	env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
		DEBIAN_FRONTEND=noninteractive chroot "${ROOTDIR:-$CHROOT}" "$@"
}

root_packages() {
	echo linux-headers-amd64
	for deb in "${DEBS[@]}"; do
		dpkg-deb -f "$deb" Depends | tr ',' '\n' | sed -E 's/[|(].*//; s/:any//; s/ //g'
	done | sort -u
}

make_root() {
	local mirror recipe new=$BASE.new
	# The mirror of the machine's main Debian entry (its first).
	mirror=$(sed -n 's/^URIs:[[:space:]]*\([^[:space:]]*\).*/\1/p' "$SOURCES" | head -n1)
	[ -n "$mirror" ] || fail "no URIs in $SOURCES"
	recipe="bookworm $mirror $(root_packages | tr '\n' ' ')"
	if [ "$(cat "$CACHE/root.recipe" 2>/dev/null)" = "$recipe" ]; then
		note "cached: $BASE"
		return 0
	fi
	rm -rf "$BASE" "$new" "$CACHE/root.recipe"
	mkdir -p "$CACHE/debootstrap" "$CACHE/archives/partial"
	debootstrap --variant=minbase --cache-dir="$CACHE/debootstrap" bookworm "$new" "$mirror"
	rm -f "$new/etc/apt/sources.list"
	cp "$SOURCES" "$new/etc/apt/sources.list.d/"
	mount -t proc proc "$new/proc"
	mount --bind "$CACHE/archives" "$new/var/cache/apt/archives"
	mapfile -t pkgs < <(root_packages)
	ROOTDIR=$new in_root apt-get update -q
	ROOTDIR=$new in_root apt-get install -y -q --no-install-recommends "${pkgs[@]}"
	umount "$new/var/cache/apt/archives" "$new/proc"
	mv "$new" "$BASE"
	echo "$recipe" >"$CACHE/root.recipe"
	note "created: $BASE"
}

# Every path of the root but the temporary directory and what dpkg, apt,
# depmod and dkms keep for themselves (database, logs, caches, indexes,
# signing key).
root_files() {
	(cd "$CHROOT" && find . -xdev -path ./tmp -prune -o -print) | sort |
		grep -Ev '^\./var/(log|cache|lib/dpkg|lib/apt|lib/dkms/mok\.)' |
		grep -Ev '^\./(usr/)?lib/modules/[^/]+/modules\.'
}

# The stand-in secure-flash module of sim/, built in the root against its
# headers, provides the symbol file as the real one does on a board.
build_symvers() {
	mkdir -p "$CHROOT/tmp/sim" "$CHROOT/tmp/debs"
	cp -r "$ROOT/sim" "$ROOT/include" "$ROOT/common" "$CHROOT/tmp/sim/"
	cp "${DEBS[@]}" "$CHROOT/tmp/debs/"
	in_root make -C "/lib/modules/$REL/build" M=/tmp/sim/sim modules
	cp "$CHROOT/tmp/sim/sim/Module.symvers" "$CHROOT$SYMVERS"
	root_files >"$WORK/files.before"
	note "kernel $REL"
}

installed() { [ "$(in_root dpkg-query -W -f='${db:Status-Abbrev}' "$1")" = "ii " ]; }
dpkg_healthy() { [ -z "$(in_root dpkg --audit)" ] || fail "dpkg --audit: $(in_root dpkg --audit)"; }
kos() { (cd "$CHROOT" && find "usr/lib/modules/$REL" -name "$MODULE.ko*"); }

# Installs the given packages of DEBS (the first N, as PACKAGES names them).
install_packages() {
	local deb debs=()
	for deb; do
		debs+=("/tmp/debs/${deb##*/}")
	done
	in_root apt-get install -y --no-install-recommends "${debs[@]}"
	dpkg_healthy
	for p in "${PACKAGES[@]:0:$#}"; do
		installed "$p" || fail "$p is not installed"
	done
}

# dkms built it for the root's kernel without a warning, and modinfo shows
# the version of VERSION, that kernel's vermagic and the dependency on
# sec_flash (the imports were resolved against the symbol file).
check_module() {
	local ko info log=$CHROOT/var/lib/dkms/$MODULE/$VERSION/$REL/x86_64/log/make.log
	in_root dkms status -m "$MODULE" -k "$REL" | grep "^$MODULE/$VERSION, $REL, .*: installed"
	[ "$(kos | wc -l)" -eq 1 ] || fail "not one $MODULE.ko for $REL: $(kos)"
	ko=/$(kos)
	[ -s "$log" ] && ! grep -iE '(^|[^a-z_])(warning|error):' "$log" ||
		fail "no build log, or warnings in it: $log"
	info=$(in_root modinfo "$ko")
	echo "$info"
	grep -qx "version: *$VERSION" <<<"$info" || fail "modinfo shows no version $VERSION"
	grep -qx "vermagic: *$REL .*" <<<"$info" || fail "vermagic is not for $REL"
	grep -qxE "depends: *(.*,)?sec_flash(,.*)?" <<<"$info" || fail "no dependency on sec_flash"
	note "$ko, version $VERSION"
}

check_tools() {
	in_root ucfg --version | grep '^ucfg '
	in_root ucfg-image --help | grep -c ucfg-image
	ls "$CHROOT"/usr/share/man/man1/ucfg.1.gz "$CHROOT"/usr/share/man/man1/ucfg-image.1.gz
}

# Purged without a trace: dpkg has forgotten them and the root holds the
# same paths as before the installation (their files, the source tree in
# /usr/src, the dkms tree, the module: anything left shows up here).
purge() {
	local p diff
	in_root apt-get purge -y "$@"
	dpkg_healthy
	for p in "$@"; do
		[ -z "$(in_root dpkg-query -W -f='${db:Status-Abbrev}' "$p" 2>/dev/null)" ] ||
			fail "dpkg still knows $p"
	done
	diff=$(root_files | diff "$WORK/files.before" -) ||
		{ echo "$diff"; fail "the root changed: $(grep -m1 '^[<>]' <<<"$diff")"; }
}

# Without the symbol file the installation succeeds, builds nothing and
# says once which file is missing; the command it gives then builds the
# module once the file is back.
check_no_symvers() {
	local message cmd
	mv "$CHROOT$SYMVERS" "$WORK/"
	install_packages "${DEBS[0]}" 2>&1 | tee "$WORK/no-symvers.out"
	[ -z "$(kos)" ] || fail "a module was installed without $SYMVERS"
	message=$(grep -F "$SYMVERS is missing" "$WORK/no-symvers.out") || fail "no message"
	[ "$(wc -l <<<"$message")" -eq 1 ] || fail "the message came more than once"
	cmd=$(sed -n 's/.*then run "\(dkms install [^"]*\)".*/\1/p' <<<"$message")
	mv "$WORK/${SYMVERS##*/}" "$CHROOT$SYMVERS"
	# shellcheck disable=SC2086 # the command as the message words it
	in_root ${cmd:?no command in the message}
	[ -n "$(kos)" ] || fail "'$cmd' installed no module"
	purge "${PACKAGES[0]}"
	echo "$message" >"$OUT/no-symvers-message.txt"
	note "message in $OUT/no-symvers-message.txt"
}

host_state() {
	{ find /etc/apt /usr/src /var/lib/dkms /lib/modules -xdev -printf '%p %y %s %T@\n' \
		2>/dev/null || true; } | sort
	dpkg-query -W -f='${Package}:${Architecture} ${Version} ${db:Status-Abbrev}\n'
}

host_unchanged() {
	local diff
	diff=$(host_state | diff "$OUT/.host-before" -) ||
		{ echo "$diff"; fail "the machine changed: $(grep -m1 '^[<>]' <<<"$diff")"; }
}

host_state >"$OUT/.host-before"
start=$SECONDS
step packages "$ROOT/scripts/deb-build.sh" amd64
step root make_root
rm -rf "$WORK"
mkdir -p "$WORK/upper" "$WORK/work" "$CHROOT"
mount -t overlay overlay -o "lowerdir=$BASE,upperdir=$WORK/upper,workdir=$WORK/work" "$CHROOT"
mount -t proc proc "$CHROOT/proc"
mount --rbind /dev "$CHROOT/dev"
REL=$(cd "$CHROOT/usr/lib/modules" && ls -d -- */build | sed 's#/build$##')
[ "$(wc -w <<<"$REL")" -eq 1 ] ||
	{ echo "deb-check: not one kernel in the root: $REL" >&2; exit 1; }
SYMVERS=/lib/modules/$REL/sec_flash.symvers
step symvers build_symvers
step install install_packages "${DEBS[@]}"
step module check_module
step tools check_tools
step purge purge "${PACKAGES[@]}"
step no-symvers check_no_symvers
step host host_unchanged
echo "deb-check: all passed in $((SECONDS - start)) s"
