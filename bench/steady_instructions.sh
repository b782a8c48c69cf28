#!/usr/bin/env bash
# Instructions per MKPDU of one engine in steady state, counted by valgrind rather than timed, so
# that the figure repeats exactly whatever else the machine does (where no hardware counters are at
# hand). It runs the scale benchmark for N links twice, with 10 and 30 virtual seconds of steady
# state, and divides the difference by the MKPDUs sent and received in those 20 seconds (two
# actors per port, one MKPDU each every 0.5 s). About half a minute at 512 links.
#
# Given a last-level cache size in MiB, it also simulates the caches (a 32 KiB first level) and
# gives the reads and writes that miss the last level per MKPDU: the trips to memory. The state of
# 2,048 links against an 8 MiB cache stands for that of 8,192 links against this machine's 32 MiB,
# in a quarter of the time (about ten minutes).
#
#   bench/steady_instructions.sh [BUILD] [LINKS] [LAST_LEVEL_MIB]
set -euo pipefail

build=${1:-build}
links=${2:-512}
last_level=${3:-}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

caches=(--cache-sim=no)
if [[ -n $last_level ]]; then
  caches=(--cache-sim=yes --LL=$((last_level * 1024 * 1024)),16,64 --D1=32768,8,64 --I1=32768,8,64)
fi
for seconds in 10 30; do
  MKA_SCALE_SECONDS=$seconds valgrind --tool=cachegrind "${caches[@]}" --cachegrind-out-file="$out/$seconds.out" \
    "$build/mka_bench" --benchmark_filter="BM_SteadyStatePerActor/$links/" > "$out/$seconds.log" 2>&1 &
done
wait
count() { grep -oP "$2:\s+\K[\d,]+" "$out/$1.log" | head -1 | tr -d ,; }
# Per engine and per MKPDU sent (each sent one is received once): 20 s x 2 MKPDUs/s x 2 actors x
# links, in each of the two engines.
mkpdus=$((20 * 2 * 2 * links * 2))
python3 -c "print(f'{($(count 30 'I\s+refs') - $(count 10 'I\s+refs')) / $mkpdus:.0f} instructions per MKPDU sent and received, one engine, $links links')"
if [[ -n $last_level ]]; then
  python3 -c "print(f'{($(count 30 'LL misses') - $(count 10 'LL misses')) / $mkpdus:.1f} last-level misses per MKPDU sent and received, one engine, $links links, $last_level MiB')"
fi
