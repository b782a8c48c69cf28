#!/usr/bin/env bash
# The main job, shown: two network namespaces joined by a veth pair, mkad in each with a small
# configuration, until both report the link secured; then mkactl show of both, and a clean-up.
# Without root (or without network namespaces) it says why and runs the simulator instead.
set -euo pipefail

build=${1:-build}
mkad=$build/mkad
mkactl=$build/mkactl

simulate() {
  echo "make run: $1; running the simulator instead."
  echo
  exec "$build/mkasim" --pcap "$build/mkasim.pcap"
}

[[ "$(id -u)" -eq 0 ]] || simulate "two daemons on a veth pair need root (network namespaces)"
tag=$$
ns_a=mkad-demo-a-$tag
ns_b=mkad-demo-b-$tag
ip netns add "$ns_a" 2>/dev/null || simulate "this machine cannot create network namespaces"

work=$(mktemp -d /tmp/mkad-demo.XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  ip netns del "$ns_a" 2>/dev/null || true
  ip netns del "$ns_b" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

ip netns add "$ns_b"
ip link add eth0 netns "$ns_a" type veth peer name eth0 netns "$ns_b"
ip -n "$ns_a" link set eth0 up
ip -n "$ns_b" link set eth0 up

for side in a b; do
  cat > "$work/$side.toml" <<CONFIG
[global]
dataplane = "emulated"   # this kernel has no MACsec: the sessions run, nothing is encrypted

[profile.demo]
ckn = "96437a93ccf10d9dfe347846cce52c7d"
cak = "135bd758b0ee5c11c55ff6ab19fdb199"

[interface.eth0]
profile = "demo"
CONFIG
done

echo "Two namespaces on a veth pair, mkad in each:"
for side in a b; do
  ns=mkad-demo-$side-$tag
  ip netns exec "$ns" "$mkad" --foreground --config "$work/$side.toml" --socket "$work/$side/mkad.sock" \
    2> "$work/$side.log" &
  pids+=($!)
done

secured() { "$mkactl" --socket "$work/$1/mkad.sock" show --json 2>/dev/null | grep -q '"status": "secured"'; }
for _ in $(seq 1 300); do
  secured a && secured b && break
  sleep 0.1
done

for side in a b; do
  echo
  echo "Namespace $side, the daemon's log:"
  sed 's/^/  /' "$work/$side.log"
  echo "mkactl show:"
  "$mkactl" --socket "$work/$side/mkad.sock" show
done
secured a && secured b || { echo "make run: the link was not secured within 30 s"; exit 1; }
