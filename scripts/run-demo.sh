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
source "$(dirname "${BASH_SOURCE[0]}")/netns.sh" mkad-demo
if ! ip netns add "$ns_a" 2>/dev/null; then
  netns_cleanup
  trap - EXIT
  simulate "this machine cannot create network namespaces"
fi

ip netns add "$ns_b"
ip link add eth0 netns "$ns_a" type veth peer name eth0 netns "$ns_b"
ip -n "$ns_a" link set eth0 up
ip -n "$ns_b" link set eth0 up

# The kernel's MACsec where the kernel has it; elsewhere the emulated data plane, which runs the
# sessions and encrypts nothing (and says so).
plane=emulated
if [[ -d /sys/module/macsec ]] || modprobe -q macsec 2>/dev/null; then plane=kernel; fi

for side in a b; do
  cat > "$work/$side.toml" <<CONFIG
[global]
dataplane = "$plane"

[profile.demo]
ckn = "96437a93ccf10d9dfe347846cce52c7d"
cak = "135bd758b0ee5c11c55ff6ab19fdb199"

[interface.eth0]
profile = "demo"
CONFIG
done

echo "Two namespaces on a veth pair, mkad in each, with the $plane data plane:"
for side in a b; do
  ns=$ns_a; [[ $side == b ]] && ns=$ns_b
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
