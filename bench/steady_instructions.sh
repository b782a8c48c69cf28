#!/usr/bin/env bash
# Instructions per MKPDU of one engine in steady state, counted by valgrind rather than timed, so
# that the figure repeats exactly whatever else the machine does (where no hardware counters are at
# hand). It runs the scale benchmark for N links twice, with 10 and 30 virtual seconds of steady
# state, and divides the difference by the MKPDUs sent and received in those 20 seconds (two
# actors per port, one MKPDU each every 0.5 s). About half a minute at 512 links.
#
#   bench/steady_instructions.sh [BUILD] [LINKS]
set -euo pipefail

build=${1:-build}
links=${2:-512}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

for seconds in 10 30; do
  MKA_SCALE_SECONDS=$seconds valgrind --tool=cachegrind --cache-sim=no --cachegrind-out-file="$out/$seconds.out" \
    "$build/mka_bench" --benchmark_filter="BM_SteadyStatePerActor/$links/" > "$out/$seconds.log" 2>&1 &
done
wait
refs() { grep -oP 'I\s+refs:\s+\K[\d,]+' "$out/$1.log" | tr -d ,; }
# Per engine and per MKPDU sent (each sent one is received once): 20 s x 2 MKPDUs/s x 2 actors x
# links, in each of the two engines.
python3 -c "print(f'{($(refs 30) - $(refs 10)) / (20 * 2 * 2 * $links * 2):.0f} instructions per MKPDU sent and received, one engine, $links links')"
