#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# Kernel-side static checks; any finding fails.
#
#   scripts/lint.sh [checkpatch|sparse|kerneldoc|kconfig|man]...  (default: all)
#
# checkpatch: --strict --no-tree -f over every .c/.h of the module and of the
#   stand-in sibling modules. checkpatch.pl and the data files it reads are
#   taken from Debian's linux-source-6.1 tarball once and kept in
#   .cache/checkpatch/; the 140 MB package itself is not kept.
# sparse: the module builds again with C=2 (check every file, whether or not
#   it is rebuilt) against the x86_64-6.1 and arm64-5.10 headers; any sparse
#   warning fails the build (see build-module.sh).
# kerneldoc: scripts/kernel-doc of Debian's linux-source-5.10 (the target's
#   kernel; only that one script is taken from the tarball and kept in
#   .cache/kernel-doc/) runs with -v over the module's sources: any warning
#   fails, and so does a function exported with EXPORT_SYMBOL* whose
#   definition has no kernel-doc comment with "Context:" and "Return:"
#   sections. The rendered reStructuredText of the exported API is left in
#   build/lint/kernel-api.rst.
# kconfig: the in-tree Kconfig entry, read by the kernel's own kconfig
#   (scripts/kconfig/conf of the installed linux-kbuild) in a tiny tree that
#   places it at drivers/misc/user_cfg/ beside stand-ins for the symbols it
#   depends on: it must parse without a diagnostic, "=m" must select the
#   SHA-256 code, and removing any one dependency must switch it off.
# man: every tools/*.1 through groff (-man -ww -z) and man-db's
#   "man --warnings" at 80 columns; any diagnostic fails.
#
# Ignored checkpatch message types, each for the files named only, with the
# reason it does not apply (keep this list short; everything else counts):
#   common/compat.h  LINUX_VERSION_CODE, CONSTANT_COMPARISON
#       The module is built out of tree for kernels 5.10 and 6.x, so it needs
#       version guards, which in-tree code never does; they are confined to
#       this one header (anywhere else they are still reported).
#       "LINUX_VERSION_CODE >= KERNEL_VERSION(...)" compares two constants,
#       which the constant-on-the-left rule mistakes for a reversed test.
#   catalogue/defaults.c, catalogue/lookup.c  TYPO_SPELLING
#       "Faild in excute ..." and "Board ID matchs ..." are log lines of the
#       platform, which log collectors match word for word.
#   driver/cpu_partition.c  CONSIDER_KSTRTO
#       A cpuset element is read the way simple_strtol() reads it (base 0,
#       stopping at the first non-digit); kstrtol() refuses such text.
# And for every file:
#   LONG_LINE_STRING
#       Log messages are never split across lines, so that they can be
#       found with grep (the kernel's coding style asks for exactly that);
#       a long message therefore runs past column 100.
#   EMBEDDED_FUNCTION_NAME
#       A few of the platform's fixed log texts name the step that prints
#       them ("devdrv_config_write_flash_head_content main_head_wr_flag.").
#       They are written out in full, not assembled with __func__, so that
#       a search for the text as log collectors know it finds its line.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
CACHE=$ROOT/.cache
CP_DIR=$CACHE/checkpatch
CP_STAMP=$CP_DIR/done

CHECK_DIRS=(common driver store catalogue dynamic access include sim)
SPARSE_TARGETS=(x86_64-6.1 arm64-5.10)
GLOBAL_IGNORE=LONG_LINE_STRING,EMBEDDED_FUNCTION_NAME
declare -A IGNORE=(
	[common/compat.h]=LINUX_VERSION_CODE,CONSTANT_COMPARISON
	[catalogue/defaults.c]=TYPO_SPELLING
	[catalogue/lookup.c]=TYPO_SPELLING
	[driver/cpu_partition.c]=CONSIDER_KSTRTO
)

log() { echo "lint: $*" >&2; }

fetch_checkpatch() {
	[ -f "$CP_STAMP" ] && return 0
	mkdir -p "$CACHE"
	# Shared with fetch-kernel.sh: one apt user at a time. Released when
	# the fetch is over (fd 9 closed): this script later runs
	# fetch-kernel.sh, which takes the same lock.
	exec 9>"$CACHE/apt.lock"
	flock 9
	[ -f "$CP_STAMP" ] && { exec 9>&-; return 0; }

	local sudo=() apt_opts=() ver="" deb="" tarball try
	if [ "$(id -u)" -eq 0 ]; then
		apt_opts=(-o APT::Sandbox::User=root)
	else
		sudo=(sudo)
	fi
	mkdir -p "$CACHE/debs"
	# A second try, after refreshing the package lists, covers a package
	# unknown to apt or a version already gone from the mirror.
	for try in 1 2; do
		if [ $try -eq 2 ]; then
			"${sudo[@]}" apt-get update -q >&2 </dev/null
		fi
		ver=$(apt-cache policy linux-source-6.1 2>/dev/null |
			awk '/Candidate:/ { print $2 }')
		[ -n "$ver" ] && [ "$ver" != "(none)" ] || continue
		deb=$CACHE/debs/linux-source-6.1_${ver/*:/}_all.deb
		[ -s "$deb" ] && break
		log "downloading linux-source-6.1=$ver (for checkpatch.pl)"
		(cd "$CACHE/debs" && apt-get download -q "${apt_opts[@]}" \
			"linux-source-6.1=$ver" >&2 </dev/null) && [ -s "$deb" ] &&
			break
		deb=""
	done
	[ -n "$deb" ] || { log "cannot download linux-source-6.1"; exit 1; }

	# checkpatch.pl reads its word lists from its own directory.
	log "extracting checkpatch.pl from $deb"
	rm -rf "$CP_DIR"
	mkdir -p "$CP_DIR"
	tarball=./usr/src/linux-source-6.1.tar.xz
	dpkg-deb --fsys-tarfile "$deb" | tar -xO "$tarball" | xz -dc |
		tar -x -C "$CP_DIR" --strip-components=2 \
			linux-source-6.1/scripts/checkpatch.pl \
			linux-source-6.1/scripts/spelling.txt \
			linux-source-6.1/scripts/const_structs.checkpatch
	[ -x "$CP_DIR/checkpatch.pl" ] ||
		{ log "no checkpatch.pl in $deb"; exit 1; }
	echo "linux-source-6.1 $ver" >"$CP_STAMP"
	rm -f "$deb"
	exec 9>&-
}

run_checkpatch() {
	fetch_checkpatch
	local dirs=() files=() d out="" status=0
	for d in "${CHECK_DIRS[@]}"; do
		[ -d "$ROOT/$d" ] && dirs+=("$d")
	done
	if [ ${#dirs[@]} -gt 0 ]; then
		mapfile -t files < <(cd "$ROOT" &&
			find "${dirs[@]}" -type f \( -name '*.c' -o -name '*.h' \) |
			sort)
	fi
	if [ ${#files[@]} -eq 0 ]; then
		log "checkpatch: no sources to check"
		return 0
	fi
	log "checkpatch ($(cut -d' ' -f2 "$CP_STAMP")) on ${#files[@]} files"
	# Files with ignored types are checked on their own; the rest at once.
	# checkpatch's exit status covers errors and warnings; CHECKs are
	# failures here too, so its report is read as well.
	local plain=() f cmd=("$CP_DIR/checkpatch.pl" --strict --no-tree
		--quiet --show-types --no-summary --ignore "$GLOBAL_IGNORE")
	for f in "${files[@]}"; do
		if [ -n "${IGNORE[$f]:-}" ]; then
			out+=$(cd "$ROOT" && "${cmd[@]}" --ignore "$GLOBAL_IGNORE,${IGNORE[$f]}" \
				-f "$f" 2>&1)$'\n' || status=1
		else
			plain+=("$f")
		fi
	done
	if [ ${#plain[@]} -gt 0 ]; then
		out+=$(cd "$ROOT" && "${cmd[@]}" -f "${plain[@]}" 2>&1)$'\n' ||
			status=1
	fi
	# In a git work tree checkpatch caches the CamelCase names of
	# include/ in the current directory; it is no part of the tree.
	rm -f "$ROOT"/.checkpatch-camelcase.*
	if [ -n "$out" ]; then
		echo "$out"
	fi
	if [ $status -ne 0 ] || grep -qE '^(ERROR|WARNING|CHECK):' <<<"$out"; then
		log "checkpatch: FAILED"
		return 1
	fi
	log "checkpatch: clean"
}

run_sparse() {
	local t
	command -v sparse >/dev/null ||
		{ log "sparse not installed (run scripts/setup.sh)"; exit 1; }
	for t in "${SPARSE_TARGETS[@]}"; do
		log "sparse against $t"
		"$ROOT/scripts/build-module.sh" "$t" C=2
	done
	log "sparse: clean"
}

KD_DIR=$CACHE/kernel-doc
KD=$KD_DIR/kernel-doc
# The module's own sources; sim/ holds test stand-ins, not API.
KD_DIRS=()
for d in "${CHECK_DIRS[@]}"; do
	[ "$d" = sim ] || KD_DIRS+=("$d")
done

fetch_kernel_doc() {
	[ -x "$KD" ] && return 0
	mkdir -p "$KD_DIR"
	exec 8>"$KD_DIR.lock"
	flock 8
	[ -x "$KD" ] && return 0
	local deb
	deb=$("$ROOT/scripts/fetch-kernel.sh" arm64-5.10 source | tail -n1)
	log "extracting scripts/kernel-doc from $deb"
	dpkg-deb --fsys-tarfile "$deb" |
		tar -xO ./usr/src/linux-source-5.10.tar.xz | xz -dc |
		tar -xO linux-source-5.10/scripts/kernel-doc >"$KD.tmp"
	[ -s "$KD.tmp" ] || { log "no scripts/kernel-doc in $deb"; exit 1; }
	chmod +x "$KD.tmp"
	mv "$KD.tmp" "$KD"
}

run_kerneldoc() {
	fetch_kernel_doc
	local files=() out rst=$ROOT/build/lint/kernel-api.rst missing
	mapfile -t files < <(cd "$ROOT" && find "${KD_DIRS[@]}" -type f \
		\( -name '*.c' -o -name '*.h' \) | sort)
	log "kernel-doc on ${#files[@]} files"
	# -v adds the checks of parameters and return values; its progress
	# lines ("Scanning doc for ...", "info:") are not findings.
	out=$(cd "$ROOT" && "$KD" -v -none "${files[@]}" 2>&1 |
		grep -E 'warning|error' || true)
	mkdir -p "$(dirname "$rst")"
	(cd "$ROOT" && "$KD" -rst -export "${files[@]}" 2>/dev/null) >"$rst"
	# Every export, with the Context and Return sections in its rendering.
	missing=$(cd "$ROOT" && grep -ho 'EXPORT_SYMBOL\(_GPL\)\?([a-z_0-9]*)' \
		"${files[@]}" | sed 's/.*(\(.*\))/\1/' | sort -u |
		while read -r sym; do
			awk -v sym="$sym" '
				/^\.\. c:function::/ {
					inblk = ($0 ~ ("[ *]" sym " ?\\("))
				}
				inblk && /^\*\*Context\*\*/ { ctx = 1 }
				inblk && /^\*\*Return\*\*/ { ret = 1 }
				END { exit !(ctx && ret) }' "$rst" ||
				echo "$sym"
		done)
	if [ -n "$missing" ]; then
		out+=$'\n'"exported without kernel-doc (Context: and Return:): "
		out+=$(echo $missing)
	fi
	if [ -n "${out//[$'\n ']/}" ]; then
		echo "$out"
		log "kernel-doc: FAILED"
		return 1
	fi
	log "kernel-doc: clean, every export documented ($rst)"
}

run_man() {
	local f out="" status=0 pages=()
	mapfile -t pages < <(cd "$ROOT" && ls tools/*.1 2>/dev/null)
	[ ${#pages[@]} -gt 0 ] || { log "man: no pages"; return 1; }
	command -v groff >/dev/null ||
		{ log "groff not installed (run scripts/setup.sh)"; exit 1; }
	for f in "${pages[@]}"; do
		out+=$(cd "$ROOT" && groff -man -ww -z "$f" 2>&1 | sed "s/$/\n/")
		out+=$(cd "$ROOT" && LC_ALL=C.UTF-8 MANWIDTH=80 \
			man --warnings -E UTF-8 -l "$f" 2>&1 >/dev/null)
	done
	if [ -n "$out" ]; then
		echo "$out"
		status=1
		log "man: FAILED"
	else
		log "man: ${pages[*]} clean"
	fi
	return $status
}

run_kconfig() {
	local conf tree=$ROOT/build/lint/kconfig dep off cfg out
	conf=$(ls /usr/lib/linux-kbuild-*/scripts/kconfig/conf 2>/dev/null |
		tail -n1)
	[ -x "$conf" ] ||
		{ log "no kconfig tool (linux-kbuild; run scripts/setup.sh)"; exit 1; }
	# kconfig_tree DEP: the tiny tree with DEP (if any) switched off.
	kconfig_tree() {
		rm -rf "$tree"
		mkdir -p "$tree/drivers/misc/user_cfg"
		cp "$ROOT/Kconfig" "$tree/drivers/misc/user_cfg/Kconfig"
		{
			echo 'mainmenu "drv_user_cfg in a kernel tree"'
			printf 'config MODULES\n\tbool "m"\n\tdefault %s\n\tmodules\n' \
				"$([ "$1" = MODULES ] && echo n || echo y)"
			for d in OF HAS_IOMEM; do
				printf 'config %s\n\tdef_bool %s\n' "$d" \
					"$([ "$1" = "$d" ] && echo n || echo y)"
			done
			for d in CRYPTO CRYPTO_HASH CRYPTO_SHA256; do
				printf 'config %s\n\ttristate\n' "$d"
			done
			echo 'source "drivers/misc/user_cfg/Kconfig"'
		} >"$tree/Kconfig"
		echo CONFIG_DRV_USER_CFG=m >"$tree/frag"
		(cd "$tree" && srctree=$tree KCONFIG_CONFIG=$tree/.config \
			"$conf" -s --defconfig=frag Kconfig 2>&1)
	}
	out=$(kconfig_tree "")
	cfg=$(cat "$tree/.config")
	if [ -n "$out" ] || ! grep -qx CONFIG_DRV_USER_CFG=m <<<"$cfg" ||
		! grep -qx 'CONFIG_CRYPTO_SHA256=[my]' <<<"$cfg"; then
		echo "$out"
		log "kconfig: FAILED: DRV_USER_CFG=m not taken, or SHA-256 not selected"
		return 1
	fi
	for dep in OF HAS_IOMEM MODULES; do
		out=$(kconfig_tree "$dep")
		if grep -q '^CONFIG_DRV_USER_CFG=' "$tree/.config"; then
			log "kconfig: FAILED: DRV_USER_CFG is offered without $dep"
			return 1
		fi
	done
	log "kconfig: clean ($conf)"
}

steps=("$@")
[ ${#steps[@]} -gt 0 ] || steps=(checkpatch sparse kerneldoc kconfig man)
rc=0
for s in "${steps[@]}"; do
	case $s in
	checkpatch) run_checkpatch || rc=1 ;;
	sparse) run_sparse || rc=1 ;;
	kerneldoc) run_kerneldoc || rc=1 ;;
	kconfig) run_kconfig || rc=1 ;;
	man) run_man || rc=1 ;;
	*) log "unknown step $s"; exit 2 ;;
	esac
done
exit $rc
