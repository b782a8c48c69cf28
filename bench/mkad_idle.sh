#!/usr/bin/env bash
# The daemon's idle cost: CPU time and resident memory of mkad over a stretch of wall time, with
# N configured interfaces whose links are up but have no peer, and with N links secured between two daemons (one veth
# pair per link, between two network namespaces). Needs root.
#
#   bench/mkad_idle.sh [BUILD] [N] [SECONDS]
set -euo pipefail

build=${1:-build}
links=${2:-64}
seconds=${3:-60}
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/netns.sh" mkad-idle

ip netns add "$ns_a"
ip netns add "$ns_b"
for i in $(seq 1 "$links"); do
  ip link add "m$i" netns "$ns_a" type veth peer name "m$i" netns "$ns_b"
  ip -n "$ns_a" link set "m$i" up
  ip -n "$ns_b" link set "m$i" up
done

config() {
  printf '[profile.p]\nckn = "96437a93ccf10d9dfe347846cce52c7d"\ncak = "135bd758b0ee5c11c55ff6ab19fdb199"\n'
  for i in $(seq 1 "$links"); do printf '[interface.m%d]\nprofile = "p"\n' "$i"; done
}
config > "$work/a.toml"
config > "$work/b.toml"

start() {
  ip netns exec "$1" "$build/mkad" --foreground --config "$work/$2.toml" --socket "$work/$2/mkad.sock" \
    2> "$work/$2.log" &
  pids+=($!)
  sleep 1
}

# Prints CPU seconds and resident memory of a process over the measured stretch.
measure() {
  local pid=$1 what=$2 hz before after rss
  hz=$(getconf CLK_TCK)
  before=$(awk '{print $14 + $15}' "/proc/$pid/stat")
  sleep "$seconds"
  after=$(awk '{print $14 + $15}' "/proc/$pid/stat")
  rss=$(awk '/VmRSS/ {print $2}' "/proc/$pid/status")
  awk -v t=$((after - before)) -v hz="$hz" -v s="$seconds" -v rss="$rss" -v what="$what" \
    'BEGIN { printf "%s: %.2f s of CPU in %d s of wall time (%.3f%%), %d KiB resident\n", what, t / hz, s, 100 * t / hz / s, rss }'
}

start "$ns_a" a
measure "${pids[0]}" "$links interfaces, no peers"

start "$ns_b" b
secured() { "$build/mkactl" --socket "$work/$1/mkad.sock" show --json | grep -c '"status": "secured"' || true; }
for _ in $(seq 1 600); do
  [[ $(secured a) -eq $links && $(secured b) -eq $links ]] && break
  sleep 0.1
done
echo "secured: $(secured a) of $links at a, $(secured b) of $links at b"
measure "${pids[0]}" "$links secured links"
