#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
#
# The long reliability campaign, or its figures.
#
#   scripts/torture.sh [SEED] [SECONDS]   the host campaign, seed after seed,
#                                         on every core for two thirds of
#                                         SECONDS, every fault kind at every
#                                         write of every swept operation;
#                                         then the in-VM stress on the
#                                         stock and the debug 5.10 kernels
#   scripts/torture.sh figures            the campaign's fixed seeds with
#                                         every fault kind: the table of
#                                         docs/RELIABILITY.md
#
# SEED defaults to the current time (printed, so that a failure can be
# replayed), SECONDS to 600. Exits non-zero on the first failure, printing
# the seed that replays it.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
BIN=$ROOT/build/host-o2/ucfg_tests
CORES=$(nproc)

CC=clang CXX=clang++ cmake -S "$ROOT/tests/host" -B "$ROOT/build/host-o2" \
	-DUCFG_SANITIZER=none >/dev/null
cmake --build "$ROOT/build/host-o2" -j"$CORES" --target ucfg_tests >/dev/null

# Adds up the figure tables of several runs ("| figure | count |" rows).
sum_tables() {
	awk -F'|' '/^\| / && $2 != " figure " && $3 ~ /[0-9]/ {
			k = $2; if (!(k in n)) order[++m] = k; n[k] += $3 }
		END { print "| figure | count |\n|---|---:|";
			for (i = 1; i <= m; i++) printf "|%s| %d |\n", order[i], n[order[i]] }'
}

# passed LOG...: every log ends in a passed run; prints the failures.
passed() {
	local log rc=0
	for log in "$@"; do
		grep -q '\[  PASSED  \]' "$log" && continue
		echo "torture: FAILED ($log):"
		grep -E -A8 'Failure' "$log" | head -n 30
		rc=1
	done
	return $rc
}

if [ "${1:-}" = figures ]; then
	# The fixed seeds side by side, one process each.
	logs=()
	for s in 1 2 3 4; do
		logs+=("$ROOT/build/figures-$s.log")
		UCFG_ALL_KINDS=1 "$BIN" --gtest_filter="*Seeds*/seed$s" >"${logs[-1]}" 2>&1 &
	done
	wait
	rc=0
	passed "${logs[@]}" || rc=1
	cat "${logs[@]}" | sum_tables
	exit $rc
fi

SEED=${1:-$(date +%s)}
TOTAL=${2:-600}
HOST=$((TOTAL * 2 / 3))
echo "torture: seed $SEED, $TOTAL s ($HOST s host campaign on $CORES cores, then VM stress)"
logs=()
for i in $(seq 0 $((CORES - 1))); do
	logs+=("$ROOT/build/torture-$i.log")
	UCFG_SEED=$((SEED + i * 1000003)) UCFG_SECONDS=$HOST \
		"$BIN" --gtest_filter=Campaign.Torture >"${logs[$i]}" 2>&1 &
done
wait
rc=0
passed "${logs[@]}" || rc=1
cat "${logs[@]}" | sum_tables
[ $rc -eq 0 ] || exit 1
VM=$(((TOTAL - HOST) / 2))
for target in arm64-5.10 arm64-5.10-debug; do
	"$ROOT/tests/vm/run.sh" "$target" stress "$SEED" "$VM"
done
