#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# Install the Debian packages the build, the tests and the VM harness need.
#
# Idempotent: a package is installed only when dpkg does not report it as
# installed, and the package lists are refreshed only when something has to be
# installed (stale lists are the usual cause of "404 Not Found" on install).
# A second run on a complete machine touches neither the network nor apt.
#
# Works unattended (CI=true, no stdin) as root; as another user it goes
# through sudo.
#
# Runs once per CI run: .ci/run runs it first and then exports
# DRV_USER_CFG_SETUP_DONE=1 ("make check" does the same for its stages), and
# with that set, later calls (make's setup prerequisite, scripts that call
# it) return at once.
set -euo pipefail

if [ -n "${DRV_USER_CFG_SETUP_DONE:-}" ]; then
	echo "setup: done earlier in this run"
	exit 0
fi

PACKAGES=(
	# host test bed
	build-essential cmake g++ libgtest-dev libgmock-dev googletest
	libssl-dev clang libclang-rt-14-dev
	# image tool tests parse its JSON
	nlohmann-json3-dev
	# kernel module builds against unpacked Debian headers
	gcc-aarch64-linux-gnu g++-aarch64-linux-gnu bc flex bison libelf-dev
	kmod rsync xz-utils
	# lint (man pages: groff)
	sparse groff-base
	# Debian packages (make deb): debhelper with the dkms add-on; the arm64
	# tools package is cross-built against arm64 libcrypto, and
	# dpkg-shlibdeps looks up the arm64 libraries it links (libstdc++ of
	# the cross compiler is not registered as such). Their check
	# (make deb-check) installs them into a debootstrap'd throwaway root.
	debhelper dh-dkms libssl-dev:arm64 libstdc++6:arm64 debootstrap
	# compiler cache of repeated runs (.cache/ccache)
	ccache
	# VM harness
	device-tree-compiler qemu-system-arm cpio
	# make bench: the environment tools users would otherwise reach for
	libubootenv-tool
)

SUDO=()
if [ "$(id -u)" -ne 0 ]; then
	command -v sudo >/dev/null || {
		echo "setup: not root and no sudo; cannot install packages" >&2
		exit 1
	}
	SUDO=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive

# NAME is the package of the machine's own architecture (or "all"),
# NAME:ARCH the one of ARCH: with both architectures installed, dpkg
# reports NAME once for each.
installed() {
	local name=${1%%:*} arch=${1#*:}
	[ "$name" != "$1" ] || arch=$(dpkg --print-architecture)
	dpkg-query -W -f='${Architecture} ${db:Status-Status}\n' "$name" 2>/dev/null |
		grep -qxE "($arch|all) installed"
}

# Packages of a foreign architecture (name:arm64) need it known to dpkg
# before apt can even look them up.
for p in "${PACKAGES[@]}"; do
	[[ $p == *:* ]] || continue
	arch=${p#*:}
	[ "$arch" = "$(dpkg --print-architecture)" ] && continue
	dpkg --print-foreign-architectures | grep -qx "$arch" && continue
	echo "setup: dpkg --add-architecture $arch"
	"${SUDO[@]}" dpkg --add-architecture "$arch"
done

missing=()
for p in "${PACKAGES[@]}"; do
	installed "$p" || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
	echo "setup: all ${#PACKAGES[@]} packages present"
	exit 0
fi

echo "setup: installing ${missing[*]}"
"${SUDO[@]}" apt-get update -q
"${SUDO[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}" \
	</dev/null
echo "setup: done"
