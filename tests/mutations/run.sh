#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# Deliberate faults in the module, one a patch, and the stage of make check
# that kills each: the host stage, then the VM suite on the stock 5.10
# kernel, then on the debug kernel, stopping at the first that fails.
#
#   tests/mutations/run.sh [PATCH...]     (default: every tests/mutations/*.patch)
#   MUT_STAGES="host" tests/mutations/run.sh ...   only the stages named
#
# Each patch is applied to a copy of the tree in build/mutant (kept between
# runs, so builds are incremental) and the verdicts go to build/mutations.md.
# The copy is refreshed from the tree before every mutant without keeping
# file times, so a file the last mutant touched is newer than its objects and
# is rebuilt; patch(1) rather than git apply, which would patch the
# repository the copy lives in.
# A mutant no stage kills makes the script exit 1.
set -uo pipefail

ROOT=$(cd "$(dirname "$0")/../.." && pwd)
COPY=$ROOT/build/mutant
TABLE=$ROOT/build/mutations.md
patches=("$@")
[ ${#patches[@]} -gt 0 ] || patches=("$ROOT"/tests/mutations/*.patch)

# What failed, in a few words: the host step and up to three of the tests
# it lists as failed, or the first failing VM test.
why() {
	local step tests
	step=$(sed -n -E 's/^host: FAIL +([a-z0-9-]+).*/\1/p' "$1" | head -n1)
	if [ -n "$step" ]; then
		tests=$(sed -n '/tests FAILED:/,$p' "$COPY/build/host-$step.log" |
			sed -n -E 's/^[[:space:]]*[0-9]+ - ([^ ]+).*/\1/p' |
			sed -E 's/^[A-Za-z]+\/([A-Za-z]+)\.[A-Za-z]+\//\1 /' | head -n3 | paste -sd, -)
		echo "$step${tests:+ ($tests)}"
	else
		grep -a -m1 -E 'not ok|FAILED' "$1" | cut -c1-100
	fi
}

mkdir -p "$COPY"
ln -sfn "$ROOT/.cache" "$COPY/.cache"
echo "| mutation | what it breaks | killed by |" >"$TABLE"
echo "|---|---|---|" >>"$TABLE"
survivors=0
for p in "${patches[@]}"; do
	name=$(basename "$p" .patch)
	(cd "$ROOT" && git ls-files -z | grep -zv '^tests/mutations/' |
		rsync -rlp --checksum --from0 --files-from=- ./ "$COPY/")
	if ! patch -d "$COPY" -p1 --forward --batch -s <"$p"; then
		echo "$name: does not apply"
		continue
	fi
	verdict=survived
	t0=$SECONDS
	for stage in ${MUT_STAGES:-host vm:arm64-5.10 vm:arm64-5.10-debug}; do
		log=$COPY/build/mutant-${stage/:/-}.log
		mkdir -p "$COPY/build"
		case $stage in
		host) (cd "$COPY" && HOST_STOP=1 tests/host/run.sh 2) >"$log" 2>&1 ;;
		vm:*) (cd "$COPY" && tests/vm/run.sh "${stage#vm:}") >"$log" 2>&1 ;;
		esac
		if [ $? -ne 0 ]; then
			verdict="$stage: $(why "$log")"
			break
		fi
	done
	echo "$name: $verdict ($((SECONDS - t0)) s)"
	echo "| $name | $(head -n1 "$p") | $verdict |" >>"$TABLE"
	[ "$verdict" = survived ] && survivors=$((survivors + 1))
done
echo "$survivors of ${#patches[@]} survived; table in $TABLE"
[ $survivors -eq 0 ]
