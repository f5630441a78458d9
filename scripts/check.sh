#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# make check: every stage CI runs, one after the other, each even when an
# earlier one failed, so that one run shows all that is wrong. A stage
# prints a few lines (one a step, with its time and its log); its whole
# output is kept in build/check-STAGE.log. The VM stage streams its test
# lines as the kernels print them. Ends with the time of every stage.
#
#   scripts/check.sh [STAGE...]     (default: host modules lint deb vm)
set -uo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
cd "$ROOT" || exit 1
mkdir -p build
stages=("$@")
[ ${#stages[@]} -gt 0 ] || stages=(host modules lint deb vm)

stage() {
	case $1 in
	host) tests/host/run.sh ;;
	modules)
		local t rc=0 t0
		for t in arm64-5.10 arm64-6.1 x86_64-6.1; do
			t0=$SECONDS
			if scripts/build-module.sh "$t" >"build/check-module-$t.log" 2>&1; then
				echo "modules: ok    $t $((SECONDS - t0)) s, W=1 silent"
			else
				echo "modules: FAIL  $t (build/check-module-$t.log)"
				tail -n 20 "build/check-module-$t.log"
				rc=1
			fi
		done
		return $rc
		;;
	lint) scripts/lint.sh ;;
	deb) scripts/deb-build.sh && scripts/test_deb_packages.sh ;;
	vm)
		local t rc=0
		for t in arm64-5.10 arm64-6.1 arm64-5.10-debug; do
			if [ "$t" = arm64-5.10-debug ] && [ -n "$debug_kernel" ]; then
				# Its lines so far, then as they come, until it is done.
				tail -n +1 -f --pid="$debug_kernel" build/check-debug-kernel.log
			fi
			tests/vm/run.sh "$t" || rc=1
		done
		return $rc
		;;
	*) echo "check: no stage $1" >&2; return 2 ;;
	esac
}

# The debug kernel is built from source when .cache/ has none: minutes of
# both cores. It starts now, at the lowest priority, so that it takes what
# the stages before the VM leave idle (downloads, the packages' throwaway
# root, the parts of the tests that keep one core busy); the vm stage shows
# its lines and waits for it before the debug kernel's boot. Built already,
# it is done at once. A failure shows again when that boot asks for it.
debug_kernel=
if [[ " ${stages[*]} " == *" vm "* ]]; then
	nice -n 19 scripts/fetch-kernel.sh arm64-5.10-debug image \
		>build/check-debug-kernel.log 2>&1 </dev/null &
	debug_kernel=$!
fi

# What a stage prints that is worth a person's eye: its own summary lines,
# test results and failures; everything goes to the log.
summary='^(host|modules|lint|deb-build|deb-check|vm\[|debug-kernel|fetch-kernel|setup)'
summary+='|^(\[[a-z]+\] )?(not )?ok |FAIL|rror'
failed=() report=()
total0=$SECONDS
for s in "${stages[@]}"; do
	echo "=== make check: $s"
	t0=$SECONDS
	stage "$s" 2>&1 | tee "build/check-$s.log" | grep --line-buffered -E "$summary"
	rc=${PIPESTATUS[0]}
	dt=$((SECONDS - t0))
	if [ "$rc" -eq 0 ]; then
		report+=("$(printf '  %-8s passed  %4d s' "$s" "$dt")")
	else
		failed+=("$s")
		report+=("$(printf '  %-8s FAILED  %4d s  (build/check-%s.log)' "$s" "$dt" "$s")")
	fi
done
echo "=== make check: stage times"
printf '%s\n' "${report[@]}"
echo "  total            $((SECONDS - total0)) s"
if [ ${#failed[@]} -gt 0 ]; then
	echo "make check: FAILED: ${failed[*]}" >&2
	exit 1
fi
echo "make check: all stages passed"
