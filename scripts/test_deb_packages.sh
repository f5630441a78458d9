#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# make deb-check: the amd64 packages installed, checked and purged in a
# throwaway Debian root (docs/DKMS.md); one line per step, its output in
# build/deb/check-STEP.log.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
OUT=$ROOT/build/deb
CACHE=$ROOT/.cache/deb-check
BASE=$CACHE/root
WORK=$OUT/check
CHROOT=$WORK/root
VERSION=$(tr -d ' \n' <"$ROOT/VERSION")
DEBS=("drv-user-cfg-dkms_${VERSION}_all.deb" "ucfg-tools_${VERSION}_amd64.deb")

fail() { echo "$*" >&2; exit 1; }

# A mount namespace of its own: the mounts go with the check however it ends.
[ "$(id -u)" -eq 0 ] || fail "deb-check: needs root (chroot, mounts)"
[ -n "${DEB_CHECK_NAMESPACE:-}" ] ||
	DEB_CHECK_NAMESPACE=1 exec unshare --mount --propagation private "$0" "$@"
mkdir -p "$OUT"
exec 9>"$OUT/.check.lock"
flock 9

# A step runs in the background, where errexit holds (a condition drops it).
step() {
	local name=$1 log=$OUT/check-$1.log start=$SECONDS result=ok
	shift
	"$@" >"$log" 2>&1 &
	wait $! || result=FAIL
	printf 'deb-check: %-4s  %-10s %4d s  %s\n' $result "$name" $((SECONDS - start)) "$log"
	[ $result = ok ] || fail "deb-check:   $(grep -v '^[[:space:]]*$' "$log" | tail -n1)"
}

in_root() {
	env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
		DEBIAN_FRONTEND=noninteractive chroot "${ROOTDIR:-$CHROOT}" "$@"
}

root_packages() {
	echo linux-headers-amd64
	for deb in "${DEBS[@]/#/$OUT/}"; do
		dpkg-deb -f "$deb" Depends | tr ',' '\n' | sed -E 's/[|(].*//; s/:any//; s/ //g'
	done | sort -u
}

# Bookworm from the machine's first Debian mirror, with all the packages need
# (installing them downloads nothing); made again when that list changes.
make_root() {
	local mirror recipe new=$BASE.new sources=/etc/apt/sources.list.d/debian.sources
	mirror=$(sed -n 's/^URIs:[[:space:]]*\([^[:space:]]*\).*/\1/p' "$sources" | head -n1)
	recipe="bookworm ${mirror:?no URIs in $sources} $(root_packages | tr '\n' ' ')"
	[ "$(cat "$CACHE/root.recipe" 2>/dev/null)" != "$recipe" ] || return 0
	rm -rf "$BASE" "$new" "$CACHE/root.recipe"
	mkdir -p "$CACHE/debootstrap" "$CACHE/archives/partial"
	debootstrap --variant=minbase --cache-dir="$CACHE/debootstrap" bookworm "$new" "$mirror"
	rm -f "$new/etc/apt/sources.list"
	cp "$sources" "$new/etc/apt/sources.list.d/"
	mount -t proc proc "$new/proc"
	mount --bind "$CACHE/archives" "$new/var/cache/apt/archives"
	mapfile -t pkgs < <(root_packages)
	ROOTDIR=$new in_root apt-get update -q
	ROOTDIR=$new in_root apt-get install -y -q --no-install-recommends "${pkgs[@]}"
	umount "$new/var/cache/apt/archives" "$new/proc"
	mv "$new" "$BASE"
	echo "$recipe" >"$CACHE/root.recipe"
}

# The root's paths but /tmp and what dpkg, apt, depmod and dkms keep.
root_files() {
	(cd "$CHROOT" && find . -xdev -path ./tmp -prune -o -print) | sort |
		grep -Ev '^\./var/(log|cache|lib/dpkg|lib/apt|lib/dkms/mok\.)' |
		grep -Ev '^\./(usr/)?lib/modules/[^/]+/modules\.'
}

# The stand-in secure-flash module of sim/ provides the symbol file.
build_symvers() {
	cp -r "$ROOT/sim" "$ROOT/include" "$ROOT/common" "${DEBS[@]/#/$OUT/}" "$CHROOT/tmp/"
	in_root make -C "/lib/modules/$REL/build" M=/tmp/sim modules
	cp "$CHROOT/tmp/sim/Module.symvers" "$CHROOT$SYMVERS"
	root_files >"$WORK/files.before"
}

kos() { (cd "$CHROOT" && find "usr/lib/modules/$REL" -name 'drv_user_cfg.ko*'); }
dpkg_in_order() { [ -z "$(in_root dpkg --audit)" ] || fail "$(in_root dpkg --audit)"; }

install_debs() {
	in_root apt-get install -y --no-install-recommends "${@/#//tmp/}"
	dpkg_in_order
	[ "$(in_root dpkg-query -W -f="\${Status}\n" "${@%%_*}" | grep -c ' installed$')" = $# ] ||
		fail "not all of ${*%%_*} are installed"
}

# dkms built it for the root's kernel without a warning, importing sec_flash;
# the tools run.
check_installed() {
	local log=$CHROOT/var/lib/dkms/drv_user_cfg/$VERSION/$REL/x86_64/log/make.log
	in_root dkms status -m drv_user_cfg | grep "^drv_user_cfg/$VERSION, $REL, .*: installed"
	[ "$(kos | wc -l)" -eq 1 ] || fail "not one drv_user_cfg.ko for $REL: $(kos)"
	[ "$(grep -ciE '(^|[^a-z_])(warning|error):' "$log")" = 0 ] || fail "not clean: $log"
	[ "$(in_root modinfo "/$(kos)" | grep -cxE \
		"version: +$VERSION|vermagic: +$REL .*|depends: +(.*,)?sec_flash(,.*)?")" = 3 ] ||
		fail "modinfo shows not version $VERSION, vermagic $REL and depends sec_flash"
	in_root ucfg --version | grep -x "ucfg $VERSION" || fail "ucfg --version: not $VERSION"
	in_root ucfg-image --help | grep '^Usage: ucfg-image ' || fail "ucfg-image --help: no usage"
	ls "$CHROOT"/usr/share/man/man1/{ucfg,ucfg-image}.1.gz
}

# dpkg has forgotten them, and the root holds the paths it held before.
purge() {
	in_root apt-get purge -y "$@"
	dpkg_in_order
	[ -z "$(in_root dpkg-query -W "$@" 2>/dev/null)" ] || fail "dpkg still knows $*"
	root_files | diff "$WORK/files.before" - || fail "the root changed (the diff is above)"
}

# Without the symbol file the installation succeeds, builds nothing and says
# once which file is missing; its command builds the module once it is back.
check_no_symvers() {
	local cmd out=$WORK/no-symvers.out
	mv "$CHROOT$SYMVERS" "$WORK/"
	install_debs "${DEBS[0]}" 2>&1 | tee "$out"
	[ -z "$(kos)" ] || fail "a module was installed without $SYMVERS"
	[ "$(grep -cF "$SYMVERS is missing" "$out")" = 1 ] || fail "not one message"
	cmd=$(sed -n 's/.*then run "\(dkms install [^"]*\)".*/\1/p' "$out")
	mv "$WORK/${SYMVERS##*/}" "$CHROOT$SYMVERS"
	# shellcheck disable=SC2086 # the command as the message words it
	in_root ${cmd:?no command in the message}
	[ -n "$(kos)" ] || fail "'$cmd' installed no module"
	purge "${DEBS[0]%%_*}"
}

host_state() {
	{ find /etc/apt /usr/src /var/lib/dkms /lib/modules -xdev -printf '%p %y %s %T@\n' \
		2>/dev/null || true; } | sort
	dpkg-query -W -f='${Package}:${Architecture} ${Version} ${db:Status-Abbrev}\n'
}
host_unchanged() { host_state | diff "$OUT/.host-before" - || fail "the machine changed"; }

host_state >"$OUT/.host-before"
step packages "$ROOT/scripts/deb-build.sh" amd64
step root make_root
rm -rf "$WORK"
mkdir -p "$WORK/upper" "$WORK/work" "$CHROOT"
mount -t overlay overlay -o "lowerdir=$BASE,upperdir=$WORK/upper,workdir=$WORK/work" "$CHROOT"
mount -t proc proc "$CHROOT/proc"
mount --rbind /dev "$CHROOT/dev"
REL=$(cd "$CHROOT/usr/lib/modules" && find . -maxdepth 2 -name build -printf '%h\n' | cut -c3-)
[ "$(wc -w <<<"$REL")" -eq 1 ] || fail "deb-check: not one kernel in the root: $REL"
SYMVERS=/lib/modules/$REL/sec_flash.symvers
step symvers build_symvers
step install install_debs "${DEBS[@]}"
step installed check_installed
step purge purge "${DEBS[@]%%_*}"
step no-symvers check_no_symvers
step host host_unchanged
echo "deb-check: all passed"
