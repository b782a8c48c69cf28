# Helpers of the scenarios (busybox sh). Every wait is bounded.

ip() { /sbin/ip "$@"; }
now() { cut -d' ' -f1 /proc/uptime; }
since() { awk -v t0="$1" '{printf "%.1f\n", $1 - t0}' /proc/uptime; }
fail() {
  for ns in A B; do [ -f "/tmp/$ns.log" ] && tail -n 12 "/tmp/$ns.log" | sed "s/^/mkad $ns: /"; done
  echo "FAIL: $*"
  exit 1
}
note() { echo "$*" >> "/tmp/$scenario.note"; }
export_file() { cp "$1" "/tmp/export-$2" && echo "/tmp/export-$2 $2" >> /tmp/exports; }

# wait_for SECONDS COMMAND...: runs the command every 0.2 s until it succeeds; fails on time out.
wait_for() {
  _seconds=$1; shift
  _end=$(awk -v s="$_seconds" '{printf "%d", $1 + s}' /proc/uptime)
  while ! "$@" > /dev/null 2>&1; do
    [ "$(cut -d. -f1 /proc/uptime)" -ge "$_end" ] && return 1
    sleep 0.2
  done
}

# Two namespaces A and B on a veth pair; IPv6 off on the veths, so that the wire carries only what
# the daemons send (MKPDUs and MACsec frames).
pair() {
  ip netns add A && ip netns add B
  ip link add veth-a netns A type veth peer name veth-b netns B
  ip netns exec A sh -c 'echo 1 > /proc/sys/net/ipv6/conf/veth-a/disable_ipv6'
  ip netns exec B sh -c 'echo 1 > /proc/sys/net/ipv6/conf/veth-b/disable_ipv6'
  ip -n A link set lo up && ip -n A link set veth-a up
  ip -n B link set lo up && ip -n B link set veth-b up
}

# config NS CAK [PROFILE LINES...]: the daemon's file in namespace NS.
CKN=96437a93ccf10d9dfe347846cce52c7d
CAK128=135bd758b0ee5c11c55ff6ab19fdb199
CAK256=a29efdb63d6fba73c65daab2295340a837a8886e94a905b5c9c7ef1d9dbb297e
config() {
  _ns=$1 _cak=$2; shift 2
  intf=veth-a; [ "$_ns" = B ] && intf=veth-b
  {
    printf '[global]\ndataplane = "kernel"\n\n[profile.lab]\nckn = "%s"\ncak = "%s"\n' "$CKN" "$_cak"
    for line in "$@"; do echo "$line"; done
    printf '\n[interface.%s]\nprofile = "lab"\n' "$intf"
  } > "/tmp/$_ns.toml"
}

# config_eap NS ROLE NAME PEER [SECTION LINES...]: the daemon's file in namespace NS, whose keys
# come from EAP-TLS on side ROLE with the certificate of NAME, accepting PEER's.
config_eap() {
  _ns=$1 _role=$2 _name=$3 _peer=$4; shift 4
  intf=veth-a; [ "$_ns" = B ] && intf=veth-b
  {
    printf '[global]\ndataplane = "kernel"\n\n[eap.lab]\nrole = "%s"\n' "$_role"
    printf 'ca-file = "/vmtest/pki/ca.pem"\ncert-file = "/vmtest/pki/%s.pem"\n' "$_name"
    printf 'key-file = "/vmtest/pki/%s.key"\npeer-names = ["%s.example"]\n' "$_name" "$_peer"
    [ "$_role" = supplicant ] && printf 'identity = "%s.example"\n' "$_name"
    for line in "$@"; do echo "$line"; done
    printf '\n[profile.lab]\neap = "lab"\n\n[interface.%s]\nprofile = "lab"\n' "$intf"
  } > "/tmp/$_ns.toml"
}

# start NS: mkad in namespace NS, its log in /tmp/NS.log; its pid in /tmp/NS.pid.
start() {
  # /sbin/ip itself, not the function: $! must name the daemon, not a shell around it.
  /sbin/ip netns exec "$1" mkad --foreground --config "/tmp/$1.toml" --socket "/tmp/$1/mkad.sock" \
    --state "/tmp/$1/state.json" >> "/tmp/$1.log" 2>&1 &
  echo $! > "/tmp/$1.pid"
  wait_for 10 test -S "/tmp/$1/mkad.sock" || fail "mkad in $1 did not start: $(cat "/tmp/$1.log")"
}
stop() { kill -"${2:-TERM}" "$(cat "/tmp/$1.pid")" 2>/dev/null; wait_for 5 eval "! kill -0 $(cat "/tmp/$1.pid")"; }
show() { mkactl --socket "/tmp/$1/mkad.sock" show --json; }
is_key_server() { show "$1" | grep -q '"is-key-server": true'; }
secured() { show "$1" | grep -q '"status": "secured"'; }
both_secured() { secured A && secured B; }
# The key in use at NS: "key number/key server's member identifier".
key_of() {
  show "$1" | tr -d ' \n' | sed -n 's/.*"old-key":{"an":[0-9]*,"key-number":\([0-9]*\),"key-server-mi":"\([0-9a-f]*\)".*/\1\/\2/p'
}

# address NS IP: an address on the MACsec link once the daemon has made it.
address() {
  link=msveth-a; [ "$1" = B ] && link=msveth-b
  wait_for 20 ip -n "$1" link show "$link" || fail "no MACsec link $link in $1"
  ip -n "$1" addr add "$2/24" dev "$link"
}

counter() {  # counter NS NAME [LINK]: a MACsec counter of the namespace's (first) link
  ip -s -n "$1" macsec show $3 | awk -v name="$2" '
    { for (i = 1; i <= NF; i++) if ($i == name) { column = i; header = NR } }
    header && NR == header + 1 && column { print $(column - 1); exit }'
}

# Each frame reaches the file as it is captured (immediate mode), not a buffer timeout later, so
# that stopping the capture right after a ping loses nothing.
capture() {  # capture NS INTF FILE
  /sbin/ip netns exec "$1" tcpdump -i "$2" --immediate-mode -U -s 0 -w "$3" > "/tmp/tcpdump.log" 2>&1 < /dev/null &
  CAPTURE=$!
  wait_for 15 grep -q 'listening on' /tmp/tcpdump.log || fail "the capture did not start"
}
capture_stop() { kill "$CAPTURE" 2>/dev/null; wait_for 10 eval "! kill -0 $CAPTURE"; }
frames() { tcpdump -r "$1" "$2" 2>/dev/null | wc -l; }  # frames FILE FILTER

cleanup_all() {
  for ns in A B; do [ -f "/tmp/$ns.pid" ] && kill -KILL "$(cat "/tmp/$ns.pid")" 2>/dev/null; done
  sleep 0.3
  ip netns del A 2>/dev/null
  ip netns del B 2>/dev/null
  rm -rf /tmp/A /tmp/B /tmp/A.pid /tmp/B.pid /tmp/A.log /tmp/B.log /tmp/*.note
}
