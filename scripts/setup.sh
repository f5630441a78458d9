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
set -euo pipefail

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
	# DKMS package test: Debian's dkms and the current amd64 headers
	dkms linux-headers-amd64
	# VM harness
	device-tree-compiler qemu-system-arm cpio
	# make bench: the environment tools users would otherwise reach for
	libubootenv-tool libubootenv-dev pkg-config
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

installed() {
	dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null |
		grep -qx installed
}

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
