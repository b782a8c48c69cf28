#!/bin/bash
# mkactl's completion offers its commands, their words, and interface names, as bash calls it.
# usage: check_completion.sh COMPLETION_FILE
set -u
source "$1"
# No daemon answers here: the interfaces come from the host.
mkactl() { return 1; }
failures=0

# complete WORDS... EXPECTED: the completion of the last word, sorted, on one line.
expect() {
  local expected=${*: -1}
  COMP_WORDS=("${@:1:$#-1}")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _mkactl
  local got
  got=$(printf '%s\n' "${COMPREPLY[@]}" | sort | tr '\n' ' ' | sed 's/ $//')
  if [[ "$got" != "$expected" ]]; then
    echo "FAIL: mkactl ${COMP_WORDS[*]:1}<TAB> gave '$got', not '$expected'"
    failures=$((failures + 1))
  fi
}

expect mkactl "" "--help --socket --version clear metrics reauth reload show shutdown"
expect mkactl s "show shutdown"
expect mkactl --socket /run/mkad/mkad.sock rel "reload"
expect mkactl show co "counters"
expect mkactl show lo "lo"
expect mkactl show counters --j "--json"
expect mkactl clear "" "counters"
expect mkactl clear counters lo "lo"
expect mkactl shutdown "" "--teardown"
[[ $failures -eq 0 ]] && echo "completion: every case completes as expected"
exit $((failures > 0))
