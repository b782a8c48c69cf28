# Two network namespaces for the scripts that run daemons side by side (sourced, not run): their
# names, a work directory, and a clean-up on exit that stops the daemons started in `pids` and
# removes both namespaces and the directory.
#
#   source scripts/netns.sh PREFIX    sets ns_a, ns_b and work; adds both namespaces

ns_a=$1-a-$$
ns_b=$1-b-$$
work=$(mktemp -d "/tmp/$1.XXXXXX")
pids=()
netns_cleanup() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  ip netns del "$ns_a" 2>/dev/null || true
  ip netns del "$ns_b" 2>/dev/null || true
  rm -rf "$work"
}
trap netns_cleanup EXIT
