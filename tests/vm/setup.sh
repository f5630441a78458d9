#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# Host packages of the VM harness, installed only when missing (idempotent;
# no network when everything is present). busybox for arm64 is not
# installed: lib.sh downloads its .deb into .cache/ and unpacks it.
set -euo pipefail

PACKAGES=(qemu-system-arm device-tree-compiler g++-aarch64-linux-gnu
	gcc-aarch64-linux-gnu kmod cpio rsync)

missing=()
for p in "${PACKAGES[@]}"; do
	dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null | grep -qx installed ||
		missing+=("$p")
done
SUDO=()
[ "$(id -u)" -eq 0 ] || SUDO=(sudo)
export DEBIAN_FRONTEND=noninteractive
# busybox-static:arm64 is fetched with apt-get download.
dpkg --print-foreign-architectures | grep -qx arm64 || {
	"${SUDO[@]}" dpkg --add-architecture arm64
	"${SUDO[@]}" apt-get update -q
}
[ ${#missing[@]} -eq 0 ] && exit 0
"${SUDO[@]}" apt-get update -q
"${SUDO[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
