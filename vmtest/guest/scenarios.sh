# The scenarios: each a function that fails (exit 1) with a reason or returns. They run one after
# another in one VM; cleanup_all takes each one's namespaces and daemons away.
ALL_SCENARIOS="known_answer secure_128 peer_without_a_data_plane integrity_only secure_256 secure_xpn pn_exhaustion pn_exhaustion_xpn rekey_under_ping_flood flap_restart_and_reload restart_without_a_hit restart_during_rekeys corrupted_state teardown cak_mismatch closed_port allow_unprotected key_chain eap_tls12 eap_reauthentication scale_16"

# A secured session between A (10.66.0.1) and B (10.66.0.2) that a first ping has crossed.
session() {  # session CAK [PROFILE LINES...]
  pair
  config A "$@"
  config B "$@"
  secured_pair
}
# The same, once the pair and each side's file are there.
secured_pair() {
  start A
  start B
  wait_for 60 both_secured || fail "not secured"
  address A 10.66.0.1
  address B 10.66.0.2
  wait_for 10 ip netns exec A ping -c 1 -W 1 10.66.0.2 || fail "no first ping"
}

# Both ends secured; pings both ways; the MACsec counters grow; the wire holds nothing but EAPOL
# and MACsec.
secured_link() {  # secured_link CAK [PROFILE LINES...]
  pair
  capture A veth-a "/tmp/$scenario.pcap"
  config A "$@"
  config B "$@"
  started=$(now)
  start A
  start B
  wait_for 60 both_secured || fail "not secured: $(show A)"
  note "secured_after=$(since "$started")s"
  address A 10.66.0.1
  address B 10.66.0.2
  wait_for 10 ip netns exec A ping -c 1 -W 1 10.66.0.2 || fail "no first ping from A to B"
  note "first_ping_after=$(since "$started")s"
  ip netns exec A ping -c 5 -i 0.2 -W 2 10.66.0.2 > /tmp/ping-ab.txt || fail "no ping from A to B: $(cat /tmp/ping-ab.txt)"
  ip netns exec B ping -c 5 -i 0.2 -W 2 10.66.0.1 > /tmp/ping-ba.txt || fail "no ping from B to A"
  capture_stop
  encrypted=$(counter A OutPktsEncrypted)
  received=$(counter B InPktsOK)
  [ "${encrypted:-0}" -ge 5 ] || fail "OutPktsEncrypted at A is ${encrypted:-none}"
  [ "${received:-0}" -ge 5 ] || fail "InPktsOK at B is ${received:-none}"
  clear=$(frames "/tmp/$scenario.pcap" "not ether proto 0x888e and not ether proto 0x88e5")
  mka=$(frames "/tmp/$scenario.pcap" "ether proto 0x888e")
  macsec=$(frames "/tmp/$scenario.pcap" "ether proto 0x88e5")
  [ "$clear" = 0 ] || fail "$clear frames on the wire were neither EAPOL nor MACsec"
  [ "$macsec" -ge 20 ] || fail "only $macsec MACsec frames on the wire"
  ip -s -n A macsec show > "/tmp/$scenario-macsec.txt"
  show A > "/tmp/$scenario-show.json"
  export_file "/tmp/$scenario.pcap" "$scenario.pcap"
  export_file "/tmp/$scenario-macsec.txt" "$scenario-macsec.txt"
  export_file "/tmp/$scenario-show.json" "$scenario-show.json"
  note "encrypted=$encrypted received=$received mkpdus=$mka macsec_frames=$macsec"
}

# The kernel's MACsec against the known answers, in a network namespace of mkad's own: both key
# lengths, both directions; nothing of the test is left behind.
scenario_known_answer() {
  mkad --self-test > /tmp/known_answer.txt 2>&1 || fail "the self test failed: $(cat /tmp/known_answer.txt)"
  [ "$(grep -c ': passed$' /tmp/known_answer.txt)" = 4 ] || fail "not four answers: $(cat /tmp/known_answer.txt)"
  ip link show kat0 > /dev/null 2>&1 && fail "the test's veth pair is left in the VM's own namespace"
  note "known_answers=$(grep -c ': passed$' /tmp/known_answer.txt)"
}

scenario_secure_128() {
  secured_link "$CAK128"
  # The kernel's gcm(aes) is registered once a link uses it, and the FIPS view reads its self test.
  self_test=$(grep -o '"kernel-gcm-aes-self-test": "[^"]*"' /tmp/secure_128-show.json | cut -d'"' -f4)
  case "$self_test" in passed|"not run") note "kernel_gcm_aes_self_test=$self_test" ;; *) fail "gcm(aes) self test read as '$self_test'" ;; esac
  # Frames out of order are dropped unless the file widens the window.
  grep -q "replay on window 0" /tmp/secure_128-macsec.txt || fail "replay protection is not on: $(head -1 /tmp/secure_128-macsec.txt)"
  # The view says the key in use in words, and the kernel's counters of its SAs.
  mkactl --socket /tmp/A/mkad.sock show veth-a > /tmp/secure_128-show.txt
  export_file /tmp/secure_128-show.txt secure_128-show.txt
  grep -q "^  transmits on: key [0-9]* (AN [0-3]) of key server [0-9a-f]*, since " /tmp/secure_128-show.txt ||
    fail "no key in use in words: $(cat /tmp/secure_128-show.txt)"
  grep -q "^    rx SA [0-3]: InPktsOK [1-9]" /tmp/secure_128-show.txt || fail "no receive SA counters: $(cat /tmp/secure_128-show.txt)"
  grep -q "^    tx SA [0-3]: OutPktsEncrypted [1-9]" /tmp/secure_128-show.txt || fail "no transmit SA counters"
  # The transmit SA's next packet number, from the same dump of every link.
  show A | tr -d ' \n' | grep -q '"tx-next-pn":{"[0-3]":[1-9]' || fail "no packet number read: $(show A | grep -A2 tx-next-pn)"
}

# A peer that says it transmits on the key but whose data plane never took it (here an emulated
# plane, which sends in the clear): both ends call the session secured, and only the kernel's
# counters tell. mkad says so, in the view, the log and the counters.
scenario_peer_without_a_data_plane() {
  pair
  config A "$CAK128"
  config B "$CAK128"
  sed -i 's/^dataplane = "kernel"/dataplane = "emulated"/' /tmp/B.toml
  start A
  start B
  wait_for 60 both_secured || fail "not secured"
  address A 10.66.0.1
  ip -n B addr add 10.66.0.2/24 dev veth-b
  started=$(now)
  ip netns exec B ping -q -i 0.2 -w 40 10.66.0.1 > /dev/null 2>&1 &
  pinger=$!
  wait_for 30 eval 'show A | grep -q "\"frames-warning\": \"the peer reports the key in use, but no frame from it decrypts\""' ||
    fail "A did not see that no frame decrypts: $(show A | grep -A3 kernel-counters)"
  kill "$pinger" 2>/dev/null
  grep -q "MKAD_NO_FRAME_DECRYPTS: Interface veth-a: the peer reports the key in use, but no frame from it decrypts" /tmp/A.log ||
    fail "the log does not say it"
  mkactl --socket /tmp/A/mkad.sock show | grep -q "WARNING: the peer reports the key in use" || fail "the text view does not say it"
  note "said_after=$(since "$started")s"
}

scenario_secure_256() {
  secured_link "$CAK256" 'cipher-suite = "gcm-aes-256"'
  grep -q "GCM-AES-256" /tmp/secure_256-macsec.txt || fail "the link does not run GCM-AES-256"
}

# An extended packet number suite: each SA carries its short SCI and salt.
scenario_secure_xpn() {
  secured_link "$CAK256" 'cipher-suite = "gcm-aes-xpn-256"'
  grep -q "GCM-AES-XPN-256" /tmp/secure_xpn-macsec.txt || fail "the link does not run GCM-AES-XPN-256"
}

# Integrity without confidentiality is the key server's choice: A (the key server) asks for it, B's
# profile would encrypt, and both links protect frames without encrypting them.
scenario_integrity_only() {
  pair
  config A "$CAK128" 'confidentiality = false' 'key-server-priority = 0'
  config B "$CAK128"
  secured_pair
  ip netns exec A ping -c 5 -i 0.2 -W 2 10.66.0.2 > /dev/null || fail "pings lost"
  for ns in A B; do
    ip -n "$ns" macsec show | grep -q "encrypt off" || fail "$ns's link encrypts: $(ip -n "$ns" macsec show | head -1)"
  done
  protected=$(counter A OutPktsProtected)
  [ "${protected:-0}" -ge 5 ] || fail "OutPktsProtected at A is ${protected:-none}"
  [ "$(counter A OutPktsEncrypted)" = 0 ] || fail "A encrypted frames"
  show B | grep -q '"confidentiality": false' || fail "B does not say integrity only"
  note "protected=$protected encrypted=0"
}

# A new key every 5 s under a ping every 10 ms: no ping lost across five rekeys and more.
scenario_rekey_under_ping_flood() {
  session "$CAK128" 'rekey-period = 5'
  first=$(key_of A)
  pings A 10.66.0.2 32
  pings_over
  last=$(key_of A)
  rekeys=$(( ${last%%/*} - ${first%%/*} ))
  [ "$rekeys" -ge 5 ] || fail "only $rekeys rekeys (key $first to $last)"
  [ "$SENT" -gt 1000 ] || fail "the flood sent $SENT: $(tail -n 3 /tmp/pings.txt)"
  [ "$LOST" = 0 ] || fail "$LOST of $SENT pings lost across $rekeys rekeys: $GAPS"
  note "rekeys=$rekeys pings=$SENT lost=$LOST late=$LATE"
}

# The association number NS transmits on, as the kernel says.
tx_an() { ip -n "$1" macsec show | sed -n 's/.*TXSC: [0-9a-f]* on SA \([0-3]\).*/\1/p' | head -n 1; }
# at_least A B: whether the whole number A is at least B, for numbers beyond the shell's 63 bits.
at_least() { [ ${#1} -gt ${#2} ] || { [ ${#1} -eq ${#2} ] && ! [ "$1" \< "$2" ]; }; }
# What A's view says of packet numbers: its own transmit key's next one, and the one its peer
# last reported for the key it transmits on.
own_pn() { show A | tr -d ' \n' | sed -n 's/.*"transmit-key":{[^}]*"next-pn":\([0-9]*\).*/\1/p'; }
peer_pn() { show A | tr -d ' \n' | sed -n 's/.*"transmit-pn":\([0-9]*\).*/\1/p'; }

# move_pn NS PN pn|xpn: NS transmits on from PN, and its peer's receive SA of that key expects it
# (an XPN receiver recovers a number's high half from what it expects). While no traffic flows.
move_pn() {
  peer=$(peer_of "$1") an=$(tx_an "$1")
  peer_link=msveth-$(echo "$peer" | tr AB ab)
  sci=$(ip -n "$peer" macsec show | sed -n 's/.*RXSC: \([0-9a-f]*\),.*/\1/p' | head -n 1)
  ip -n "$peer" macsec set "$peer_link" rx sci "$sci" sa "$an" "$3" "$2" on &&
    ip -n "$1" macsec set "msveth-$(echo "$1" | tr AB ab)" tx sa "$an" "$3" "$2" on || fail "the PN of $1 could not be set"
}
# sa_summary NS: NS's SAs in one line, for a failure to show where frames went: the association
# number it sends with, each SA's next packet number (its low 32 bits), and the counters of frames
# refused that are not 0.
sa_summary() {
  ip -s -n "$1" macsec show 2>/dev/null | awk '
    /TXSC:/ { printf "sends on %s;", $NF; side = "tx"; next }
    /RXSC:/ { sci = $2; sub(",", "", sci); printf " from %s:", sci; side = "rx"; next }
    /^ +[0-3]: PN / { an = $1; sub(":", "", an); pn = $3; sub(",.*", "", pn); printf " %s%s@%s", side, an, pn; next }
    /stats:/ { count = split($0, names) - 1; for (i = 1; i <= count; i++) name[i] = names[i + 1]; values = 1; next }
    values {
      for (i = 1; i <= NF && i <= count; i++)
        if ($i != 0 && name[i] ~ /Late|Invalid|NotValid|NotUsingSA|UnusedSA|NoSCI|UnknownSCI|BadTag|Overrun/) printf " %s=%s", name[i], $i
      values = 0
    }'
}
# pings_added PHASE: pings_over, with the figures added up in ALL_SENT and ALL_LOST; none may be
# lost. A loss names the phase, each side's key, and its SAs.
pings_added() {
  pings_over
  ALL_SENT=$((ALL_SENT + SENT)) ALL_LOST=$((ALL_LOST + LOST)) ALL_LATE=$((ALL_LATE + LATE))
  [ "$LOST" = 0 ] || fail "$LOST of $SENT pings lost as keys wore out, $1: $GAPS;" \
    "A (key $(key_of A)): $(sa_summary A); B (key $(key_of B)): $(sa_summary B)"
}

# exhaust_packet_numbers SUITE NEAR WORN pn|xpn: a session of SUITE without a rekey period. The
# follower's transmit SA is moved on to NEAR, then to WORN (100 before three quarters of the
# suite's packet numbers), then the key server's the same. NEAR shows in the key server's view as
# it is (64 bits end to end, over the wire for the follower's) and changes no key, though with
# XPN its low 32 bits are past the 32-bit mark; WORN makes the key server make a new key at once,
# whose SA goes into service with its numbers from the start, some thousand million frames before
# the old one would have run out. Under pings from B every 10 ms after each move, not one is lost.
exhaust_packet_numbers() {
  near=$2 worn_pn=$3 pn_kind=$4
  pair
  config A "$CAK256" "cipher-suite = \"$1\"" 'key-server-priority = 1'
  config B "$CAK256" "cipher-suite = \"$1\""
  secured_pair
  is_key_server A || fail "A is not the key server"
  ALL_SENT=0 ALL_LOST=0 ALL_LATE=0 worn=0
  for ns in B A; do
    key=$(key_of A)
    shown=own_pn; [ "$ns" = B ] && shown=peer_pn
    move_pn "$ns" "$near" "$pn_kind"
    pings B 10.66.0.1 10
    wait_for 15 eval 'at_least "$($shown)" "$near"' || fail "A's view shows $ns at PN $($shown), not $near"
    pings_added "$ns near the mark"
    [ "$(key_of A)" = "$key" ] || fail "a new key at PN $near of $ns"
    move_pn "$ns" "$worn_pn" "$pn_kind"
    pings B 10.66.0.1 15
    wait_for 15 eval '[ "$(key_of A)" != "$key" ] && [ "$(key_of B)" = "$(key_of A)" ]' ||
      fail "no new key after $ns reached PN $worn_pn (key $key)"
    pings_added "$ns past the mark"
    worn=$((worn + 1))
    [ "$(show A | tr -d ' \n' | sed -n 's/.*"pn-exhaustions":\([0-9]*\).*/\1/p')" = "$worn" ] ||
      fail "A does not count $worn worn keys: $(show A | grep pn-exhaustions)"
    pn=$(ip -n "$ns" macsec show | sed -n "s/^ *$(tx_an "$ns"): PN \([0-9]*\),.*/\1/p" | head -n 1)
    [ -n "$pn" ] && [ "$pn" -lt 100000 ] || fail "$ns transmits on a new SA at PN ${pn:-none}"
  done
  note "worn_keys=$worn pings=$ALL_SENT lost=$ALL_LOST late=$ALL_LATE"
}
# The CKN NS runs, and the exchanges its port access entity has won.
ckn_of() { show "$1" | tr -d ' \n' | sed -n 's/.*"ckn":"\([0-9a-f]*\)".*/\1/p'; }
exchanges_of() { show "$1" | tr -d ' \n' | sed -n 's/.*"successes":\([0-9]*\).*/\1/p'; }

# eap_pair VERSION [AUTHENTICATOR'S LINES...]: A the authenticator and B the supplicant, secured
# from an exchange of TLS VERSION.
eap_pair() {
  version=$1; shift
  pair
  config_eap A authenticator switch host "$@"
  config_eap B supplicant host switch
  secured_pair
  show B | grep -q "\"tls-version\": \"TLS $version\"" ||
    fail "B did not authenticate with TLS $version: $(show B | grep tls-version)"
}

# A supplicant and an authenticator that authenticate each other with EAP-TLS 1.2 secure the link
# from the keys of the exchange: pings cross it, encrypted.
scenario_eap_tls12() {
  eap_pair 1.2 'tls-max-version = "1.2"'
  ckn=$(ckn_of A)
  [ -n "$ckn" ] && [ "$ckn" = "$(ckn_of B)" ] || fail "the ends run CKNs ${ckn:-none} and $(ckn_of B)"
  ip netns exec B ping -c 5 -i 0.2 -W 1 10.66.0.1 > /dev/null || fail "no pings across the link"
  [ "$(counter A OutPktsEncrypted)" -gt 0 ] || fail "A encrypted nothing"
  note "ckn=$ckn"
}

# The same with TLS 1.3, the authenticator authenticating the port anew every 30 s under pings every
# 10 ms: each exchange brings new keys, which take over from the old without losing a ping.
scenario_eap_reauthentication() {
  eap_pair 1.3 'reauth-period = 30'
  first=$(ckn_of A)
  pings B 10.66.0.1 70
  pings_over
  exchanges=$(exchanges_of A)
  [ "${exchanges:-0}" -ge 3 ] || fail "${exchanges:-no} exchanges in 70 s: $(show A | grep -A 3 last-failure)"
  [ "$(ckn_of A)" != "$first" ] && [ "$(ckn_of A)" = "$(ckn_of B)" ] ||
    fail "the ends run CKNs $(ckn_of A) and $(ckn_of B), from $first"
  [ "$LOST" = 0 ] || fail "$LOST of $SENT pings lost across $((exchanges - 1)) re-authentications: $GAPS"
  note "reauthentications=$((exchanges - 1)) pings=$SENT lost=$LOST late=$LATE"
}

scenario_pn_exhaustion() { exhaust_packet_numbers gcm-aes-128 3220225372 3221225372 pn; }
scenario_pn_exhaustion_xpn() { exhaust_packet_numbers gcm-aes-xpn-256 13835058054282163612 13835058055282163612 xpn; }

# cpu_ticks PID: the process's CPU time so far, in clock ticks (1/100 s); rss_kib PID.
cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
rss_kib() { awk '/^VmRSS:/ { print $2 }' "/proc/$1/status"; }
netlink_messages() {  # netlink_messages NS: sent and received since the start, added up
  mkactl --socket "/tmp/$1/mkad.sock" show counters --json | tr -d ' \n' |
    sed -n 's/.*"netlink":{"received":\([0-9]*\),"sent":\([0-9]*\)}.*/\1 \2/p' | awk '{ print $1 + $2 }'
}
secured_count() { show "$1" | grep -c '"status": "secured"'; }
longest_turn() {  # longest_turn NS: the longest round of the daemon's loop so far, in ms
  mkactl --socket "/tmp/$1/mkad.sock" show counters --json | tr -d ' \n' |
    sed -n 's/.*"longest-loop-turn":\([0-9.e+-]*\).*/\1/p' | awk '{ printf "%d", $1 * 1000 }'
}
per_second() { awk -v n="$1" -v s="$2" 'BEGIN { printf "%.1f", n / s }'; }

# scale N: N veth pairs between A and B, and one mkad on each side with an interface on each, on
# the kernel data plane. Figures: the time until every link is secured; in steady state each
# daemon's CPU, RSS and netlink messages per second; then a rekey of every link at once (a rekey
# period that a reload gives every key server at the same moment) under pings every 10 ms on 16
# links, until every link has its new key: not one ping lost.
scale() {
  n=$1 pinged=$(( $1 < 16 ? $1 : 16 ))
  ip netns add A && ip netns add B
  for ns in A B; do ip netns exec "$ns" sh -c 'echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6'; done
  : > /tmp/veths; : > /tmp/A.up; : > /tmp/B.up
  i=0
  while [ "$i" -lt "$n" ]; do
    echo "link add a$i netns A type veth peer name b$i netns B" >> /tmp/veths
    echo "link set a$i up" >> /tmp/A.up
    echo "link set b$i up" >> /tmp/B.up
    i=$((i + 1))
  done
  ip -batch /tmp/veths && ip -n A -batch /tmp/A.up && ip -n B -batch /tmp/B.up || fail "the veth pairs"
  for ns in A B; do
    prefix=$(echo "$ns" | tr AB ab)
    {
      printf '[global]\ndataplane = "kernel"\n\n[profile.lab]\nckn = "%s"\ncak = "%s"\n' "$CKN" "$CAK128"
      i=0
      while [ "$i" -lt "$n" ]; do printf '\n[interface.%s%d]\nprofile = "lab"\n' "$prefix" "$i"; i=$((i + 1)); done
    } > "/tmp/$ns.toml"
  done
  t0=$(now)
  start A
  start B
  wait_for $((60 + n)) eval '[ "$(secured_count A)" = "$n" ] && [ "$(secured_count B)" = "$n" ]' ||
    fail "secured: $(secured_count A) at A, $(secured_count B) at B, of $n"
  note "links=$n all_secured_after=$(since "$t0")s longest_loop_turn=$(longest_turn A)ms,$(longest_turn B)ms"

  # Steady state: a window of each daemon's work with no view asked for meanwhile.
  for ns in A B; do eval "ticks_$ns=$(cpu_ticks "$(cat "/tmp/$ns.pid")") messages_$ns=$(netlink_messages "$ns")"; done
  t1=$(now)
  sleep 20
  seconds=$(since "$t1")
  for ns in A B; do
    pid=$(cat "/tmp/$ns.pid")
    eval "ticks=\$ticks_$ns messages=\$messages_$ns"
    netlink=$(per_second "$(( $(netlink_messages "$ns") - messages ))" "$seconds")
    note "$ns: cpu=$(per_second "$(( $(cpu_ticks "$pid") - ticks ))" "$seconds")%" "rss=$(rss_kib "$pid")KiB netlink=$netlink/s"
    # One dump of every link each 5 s: a request, a part per link and the end, whatever N is.
    awk -v m="$netlink" -v n="$n" 'BEGIN { exit !(m > 0 && m <= 2 * (n + 2) / 5) }' ||
      fail "$ns exchanges $netlink netlink messages a second with $n links"
  done

  i=0
  while [ "$i" -lt "$pinged" ]; do
    ip -n A addr add "10.77.$i.1/24" dev "msa$i" && ip -n B addr add "10.77.$i.2/24" dev "msb$i" || fail "addresses"
    i=$((i + 1))
  done
  wait_for 10 ip netns exec A ping -c 1 -W 1 10.77.0.2 || fail "no first ping"
  for ns in A B; do echo "--- vmtest at $(now): pings on $pinged links, then a reload" >> "/tmp/$ns.log"; done
  activated=$(grep -c MKA_SAK_ACTIVATED /tmp/A.log)
  # Past the rekey at 30 s and the time every link takes to go on to its new key.
  deadline=$((40 + n / 4))
  i=0 pingers=
  while [ "$i" -lt "$pinged" ]; do
    eval "late_$i=$(late_frames "msa$i" "msb$i")"
    ip netns exec A ping -D -i 0.01 -w "$deadline" "10.77.$i.2" > "/tmp/pings-$i.txt" 2>&1 &
    pingers="$pingers $!" i=$((i + 1))
  done
  # The key servers of every link make their next key at the same moment, 30 s after the reload.
  for ns in A B; do sed -i 's/^cak = .*/&\nrekey-period = 30/' "/tmp/$ns.toml"; done
  for ns in A B; do
    mkactl --socket "/tmp/$ns/mkad.sock" reload > "/tmp/reload-$ns.txt" 2>&1 || fail "reload at $ns: $(cat "/tmp/reload-$ns.txt")"
  done
  t2=$(now)
  for ns in A B; do echo "--- vmtest at $t2: reloaded" >> "/tmp/$ns.log"; done
  rekeyed() { rekeys=$(( $(grep -c MKA_SAK_ACTIVATED /tmp/A.log) - activated )); [ "$rekeys" -ge "$n" ]; }
  wait_for "$deadline" rekeyed || fail "only $rekeys keys went into service on $n links"
  note "all_rekeyed_after=$(since "$t2")s (the rekey at 30 s)"
  wait $pingers
  sent=0 late=0 i=0
  while [ "$i" -lt "$pinged" ]; do
    eval "$(ping_figures "/tmp/pings-$i.txt")"
    [ -n "$SENT" ] || fail "no ping figures on link $i"
    eval "explain_by_late \$late_$i $(late_frames "msa$i" "msb$i")"
    [ "$LOST" = 0 ] || fail "$LOST of $SENT pings lost on link $i across the rekeys: $GAPS"
    sent=$((sent + SENT)) late=$((late + LATE)) i=$((i + 1))
  done
  note "rekeys=$rekeys pinged_links=$pinged pings=$sent lost=0 late=$late" \
    "longest_loop_turn=$(longest_turn A)ms,$(longest_turn B)ms"
}
scenario_scale_16() { scale 16; }
scenario_scale_64() { scale 64; }
scenario_scale_256() { scale 256; }

no_link() { ! ip -n "$1" link show "$2"; }
# The lines that say "state on": the receive channel and each SA in service; 3 for one key.
sa_lines() { ip -n "$1" macsec show 2>/dev/null | grep -c 'state on' || true; }

# A link flap, a clean restart (SAs gone), a restart after SIGKILL (stale SAs replaced), and a key
# change by reload: each time the link comes back secured and pings pass.
scenario_flap_restart_and_reload() {
  session "$CAK128"

  ip -n B link set veth-b down
  wait_for 15 eval '! secured A' || fail "A stayed secured with the link down"
  ip -n B link set veth-b up
  wait_for 60 both_secured || fail "not secured after the flap"
  ip -n B addr add 10.66.0.2/24 dev msveth-b 2>/dev/null || true
  wait_for 15 ip netns exec A ping -c 1 -W 1 10.66.0.2 || fail "no ping after the flap"

  # A restart after SIGKILL with its saved state gone starts afresh: the link an earlier run made
  # goes, with its SAs, and a new one is secured.
  stop A KILL
  rm -f /tmp/A/state.json
  start A
  wait_for 60 both_secured || fail "not secured after SIGKILL and a restart without the saved state"
  address A 10.66.0.1
  wait_for 15 ip netns exec A ping -c 1 -W 1 10.66.0.2 || fail "no ping after a restart that started afresh"
  # The key server makes a key for the restarted member's new identity, so that for a few seconds
  # the new key and the old one both receive; a stale SA is one that stays.
  wait_for 15 eval '[ "$(sa_lines A)" -le 3 ]' || fail "stale SAs at A: $(ip -n A macsec show)"

  # FIPS mode is read once: a reload that would switch it is refused, and the link stays secured.
  sed -i '/^dataplane/a fips = true' /tmp/A.toml
  refused=$(mkactl --socket /tmp/A/mkad.sock reload 2>&1) && fail "a reload switched FIPS mode"
  echo "$refused" | grep -q "fips cannot change while running; restart mkad" || fail "refused without the reason: $refused"
  secured A || fail "the refused reload took the link down"

  before=$(key_of A)
  config A 00112233445566778899aabbccddeeff
  config B 00112233445566778899aabbccddeeff
  mkactl --socket /tmp/A/mkad.sock reload > /dev/null || fail "reload at A failed"
  mkactl --socket /tmp/B/mkad.sock reload > /dev/null || fail "reload at B failed"
  wait_for 60 eval '[ "$(key_of A)" != "$before" ] && both_secured' || fail "no new key after the reload"
  wait_for 15 ip netns exec A ping -c 1 -W 1 10.66.0.2 || fail "no ping after the key change"
}

# pings NS TO SECONDS: a ping every 10 ms from NS for SECONDS, in the background, each reply with
# its time into /tmp/pings.txt.
pings() {
  LATE_BEFORE=$(late_frames msveth-a msveth-b)
  ip netns exec "$1" ping -D -i 0.01 -w "$3" "$2" > /tmp/pings.txt 2>&1 &
  PINGS=$!
}
# late_frames LINK-A LINK-B: the frames that A's and B's links dropped as late (InPktsLate): frames
# the kernel itself reordered on their way, whose packet number came after a later one's. With a
# replay window of 0 each costs a frame that no key change has anything to do with.
late_frames() { echo $(( $(counter A InPktsLate "$1") + $(counter B InPktsLate "$2") + 0 )); }
# explain_by_late BEFORE AFTER: LOST without the pings that frames dropped as late explain, which
# LATE counts.
explain_by_late() {
  LATE=$(( $2 - $1 )); [ "$LATE" -gt 0 ] || LATE=0
  [ "$LATE" -le "$LOST" ] || LATE=$LOST
  LOST=$((LOST - LATE))
}
# pings_over: once the pings are over, SENT and LOST say how many were sent and lost, and GAPS
# where the first runs of lost ones were: "icmp_seq N-M after a reply at UNIX-TIME". Ping stops at
# its deadline without waiting for the replies still on their way, so the unanswered pings after
# the last answered one count as lost only beyond those sent in ping's last 100 ms. Pings that
# frames dropped as late explain count in LATE, not in LOST.
pings_over() {
  wait "$PINGS"
  eval "$(ping_figures /tmp/pings.txt)"
  [ -n "$SENT" ] || fail "no ping figures: $(tail -n 3 /tmp/pings.txt)"
  explain_by_late "$LATE_BEFORE" "$(late_frames msveth-a msveth-b)"
}
# ping_figures FILE: SENT, LOST and GAPS of the pings in FILE, as assignments.
ping_figures() {
  awk '
  /bytes from .* icmp_seq=/ {
    match($0, /icmp_seq=[0-9]+/); seq = substr($0, RSTART + 9, RLENGTH - 9) + 0
    if (!(seq in at)) got++
    at[seq] = substr($1, 2, length($1) - 2)
    if (seq > last) last = seq
  }
  / packets transmitted/ { sent = $1; match($0, /time [0-9]+ms/); ms = substr($0, RSTART + 5, RLENGTH - 7) + 0 }
  END {
    if (sent == "") { print "SENT= LOST= GAPS="; exit }
    tail = sent - last
    in_flight = ms > 0 ? int(100 * sent / ms) + 1 : 1
    lost = last - got + (tail > in_flight ? tail : 0)
    gaps = ""; runs = 0; before = "none"; end = tail > in_flight ? sent : last
    for (seq = 1; seq <= end && runs < 3; seq++) {
      if (seq in at) { before = at[seq]; continue }
      first = seq
      while (seq < end && !((seq + 1) in at)) seq++
      gaps = gaps (runs++ ? ", " : "") "icmp_seq " first (seq > first ? "-" seq : "") " after a reply at " before
    }
    printf "SENT=%d LOST=%d GAPS=\"%s\"\n", sent, lost, gaps
  }' "$1"
}
# restart NS SIGNAL: mkad in NS stops (TERM hands the links over, KILL is a crash, HANG a hung loop
# that the unit's watchdog kills after its 2 s) and starts again at once, as its service manager
# would; SECURED_AFTER is the seconds until it shows the link secured again.
restart() {
  t0=$(now)
  if [ "$2" = HANG ]; then
    kill -STOP "$(cat "/tmp/$1.pid")"
    sleep 2  # the hang, as long as the watchdog lets it last
    stop "$1" KILL
  else
    stop "$1" "$2"
  fi
  start "$1"
  wait_for 15 secured "$1" || fail "not secured after a restart by SIG$2 of $1: $(show "$1" | grep "\"status\"")"
  SECURED_AFTER=$(since "$t0")
}
peer_of() { [ "$1" = A ] && echo B || echo A; }
address_of() { [ "$1" = A ] && echo 10.66.0.1 || echo 10.66.0.2; }

# Restarts of the key server (A) and of the follower (B), by SIGTERM, by SIGKILL and by the watchdog
# after a hang, each under pings from the other every 10 ms: not one ping is lost, the peer's session never ends, the
# restarted daemon takes its link over (its member identifier kept), and the keys move on under
# the usual rules with no stale SA left.
scenario_restart_without_a_hit() {
  pair
  config A "$CAK128" 'key-server-priority = 1'
  config B "$CAK128"
  start A
  start B
  wait_for 60 both_secured || fail "not secured"
  is_key_server A || fail "A is not the key server"
  address A 10.66.0.1
  address B 10.66.0.2
  wait_for 10 ip netns exec B ping -c 1 -W 1 10.66.0.1 || fail "no first ping"
  for case in "A TERM" "A KILL" "A HANG" "B TERM" "B KILL" "B HANG"; do
    set -- $case
    ns=$1 signal=$2 peer=$(peer_of "$1")
    link=ms$(echo "veth-$ns" | tr AB ab)
    ifindex=$(ip -n "$ns" -o link show "$link" | cut -d: -f1)
    sessions=$(grep -c MKA_SESSION_ESTABLISHED "/tmp/$peer.log")
    > "/tmp/$ns.log"
    pings "$peer" "$(address_of "$ns")" 8
    before=$(counter "$ns" InPktsOK)
    wait_for 5 eval '[ "$(counter "$ns" InPktsOK)" -gt "$((before + 20))" ]' || fail "the pings do not pass"
    restart "$ns" "$signal"
    pings_over
    [ "$LOST" = 0 ] || fail "$LOST of $SENT pings lost across a restart by SIG$signal of $ns: $GAPS"
    ip -n "$ns" -o link show "$link" | grep -q "^$ifindex:" || fail "the link of $ns was made anew"
    grep -q "MKAD_INTF_RESUMED" "/tmp/$ns.log" || fail "$ns did not take its link over"
    [ "$(grep -c MKA_SESSION_ESTABLISHED "/tmp/$peer.log")" = "$sessions" ] || fail "the session at $peer began anew"
    role=follower; [ "$ns" = A ] && role=key_server
    note "${role}_sig$(echo "$signal" | tr A-Z a-z): pings_lost=$LOST of $SENT (late $LATE), secured_after=${SECURED_AFTER}s"
  done
  # The restarted key server replaced the key it took over within a life time, and each side
  # holds the key in service and no other.
  wait_for 20 eval '[ "$(sa_lines A)" = 3 ] && [ "$(sa_lines B)" = 3 ]' || fail "stale SAs: $(ip -n A macsec show)"
}

# A key every 5 s, and a restart of the key server, by SIGTERM and SIGKILL in turn, as each new key
# starts on its way, under pings every 10 ms: not one lost.
scenario_restart_during_rekeys() {
  pair
  config A "$CAK128" 'key-server-priority = 1' 'rekey-period = 5'
  config B "$CAK128"
  secured_pair
  pings B 10.66.0.1 40
  restarts=0
  for signal in TERM KILL TERM KILL; do
    key=$(key_of B)
    wait_for 10 eval '[ "$(show B | grep -c "\"latest-key\": {")" -gt 0 ] || [ "$(key_of B)" != "$key" ]' ||
      fail "no new key on its way"
    restart A "$signal"
    restarts=$((restarts + 1))
  done
  pings_over
  [ "$LOST" = 0 ] || fail "$LOST of $SENT pings lost across $restarts restarts during rekeys: $GAPS"
  note "restarts=$restarts pings_lost=$LOST of $SENT late=$LATE"
}

# A saved state that cannot be read: the daemon says why, starts afresh, removes the link an
# earlier run made with its SAs, and is secured again with no stale SA.
scenario_corrupted_state() {
  session "$CAK128"
  stop A TERM
  ip -n A link show msveth-a > /dev/null || fail "SIGTERM did not leave the link for the next run"
  ifindex=$(ip -n A -o link show msveth-a | cut -d: -f1)
  echo '{"version": 1, "interfaces": {"veth-a": {"sci": ' > /tmp/A/state.json
  t0=$(now)
  start A
  # The socket is there before the saved state is read: the report may come a moment later.
  wait_for 10 grep -q "MKAD_STATE_UNUSABLE" /tmp/A.log || fail "the unusable state was not reported"
  wait_for 60 both_secured || fail "not secured after starting afresh"
  ip -n A -o link show msveth-a | grep -q "^$ifindex:" && fail "the link of the earlier run stayed"
  address A 10.66.0.1
  wait_for 15 ip netns exec A ping -c 1 -W 1 10.66.0.2 || fail "no ping after starting afresh"
  wait_for 20 eval '[ "$(sa_lines A)" = 3 ]' || fail "stale SAs at A: $(ip -n A macsec show)"
  grep -q '"dist-sak"' /tmp/A/state.json || fail "no saved state written afresh"
  note "secured_after=$(since "$t0")s"
}

# Stopping for good: mkactl shutdown --teardown removes the link and the saved state; mkad
# --teardown does the same for a daemon that was stopped. The saved state never holds a key.
scenario_teardown() {
  session "$CAK128"
  for ns in A B; do
    grep -q '"dist-sak"' "/tmp/$ns/state.json" || fail "no saved state at $ns"
    grep -qi "$CAK128" "/tmp/$ns/state.json" && fail "the CAK in the saved state of $ns"
  done
  mkactl --socket /tmp/A/mkad.sock shutdown --teardown > /dev/null || fail "shutdown --teardown refused"
  wait_for 5 eval "! kill -0 $(cat /tmp/A.pid)" || fail "mkad did not stop"
  no_link A msveth-a || fail "the link stayed after a teardown"
  [ -e /tmp/A/state.json ] && fail "the saved state stayed after a teardown"
  grep -q "0 keys left" /tmp/A.log || fail "the daemon did not report an empty data plane"
  stop B TERM
  ip -n B link show msveth-b > /dev/null || fail "SIGTERM did not leave the link for the next run"
  ip netns exec B mkad --teardown --socket /tmp/B/mkad.sock --state /tmp/B/state.json > /tmp/teardown.txt 2>&1 ||
    fail "mkad --teardown failed: $(cat /tmp/teardown.txt)"
  no_link B msveth-b || fail "mkad --teardown left the link"
  [ -e /tmp/B/state.json ] && fail "mkad --teardown left the saved state"
  note "$(cat /tmp/teardown.txt)"
}

# Different CAKs with one CKN: no peer becomes live, no SA is ever installed, nothing passes.
scenario_cak_mismatch() {
  pair
  config A "$CAK128"
  config B 00112233445566778899aabbccddeeff
  start A
  start B
  sleep 10
  secured A && fail "A secured with a peer of another CAK"
  [ "$(sa_lines A)" = 0 ] || fail "an SA was installed at A: $(ip -n A macsec show)"
  errors=$(mkactl --socket /tmp/A/mkad.sock show counters --json | tr -d ' \n' |
           sed -n 's/.*"in-mkpdu-icv-verification-errors":\([0-9]*\).*/\1/p')
  [ "${errors:-0}" -ge 2 ] || fail "the refused MKPDUs were not counted (${errors:-none})"
  if ip -n A link show msveth-a > /dev/null 2>&1; then
    ip -n A addr add 10.66.0.1/24 dev msveth-a
    ip -n B link show msveth-b > /dev/null 2>&1 && ip -n B addr add 10.66.0.2/24 dev msveth-b
    ip netns exec A ping -c 3 -W 1 10.66.0.2 > /dev/null 2>&1 && fail "a ping passed without keys"
  fi
  note "icv_errors=$errors"
}

# Before a peer secures the link the controlled port is closed: the MACsec link is down and
# nothing passes, neither through it nor in the clear on the wire.
scenario_closed_port() {
  pair
  capture A veth-a "/tmp/$scenario.pcap"
  config A "$CAK128"
  start A
  ip -n B addr add 10.66.0.2/24 dev veth-b
  address A 10.66.0.1
  sleep 5
  secured A && fail "A secured without a peer"
  ip -n A link show msveth-a | grep -q ',UP[,>]' && fail "the MACsec link is up with the port closed"
  ip netns exec A ping -c 3 -W 1 10.66.0.2 > /dev/null 2>&1 && fail "a ping passed with the port closed"
  capture_stop
  clear=$(frames "/tmp/$scenario.pcap" "not ether proto 0x888e and not ether proto 0x88e5")
  [ "$clear" = 0 ] || fail "$clear frames left A in the clear"
  note "mkpdus=$(frames "/tmp/$scenario.pcap" "ether proto 0x888e") clear_frames=$clear"
}

# What allow-unprotected says: with no peer, the port opens without protection, and traffic
# passes the MACsec link in the clear (and says so in the log and the status).
scenario_allow_unprotected() {
  pair
  capture A veth-a "/tmp/$scenario.pcap"
  config A "$CAK128" 'allow-unprotected = true'
  start A
  ip -n B addr add 10.66.0.2/24 dev veth-b
  address A 10.66.0.1
  wait_for 20 eval 'show A | grep -q "\"controlled-port\": \"open, unprotected\""' || fail "the port did not open unprotected"
  wait_for 10 ip netns exec A ping -c 1 -W 1 10.66.0.2 || fail "no ping in the clear with allow-unprotected"
  ip netns exec A ping -c 3 -i 0.2 -W 1 10.66.0.2 > /dev/null || fail "pings lost in the clear"
  capture_stop
  clear=$(frames "/tmp/$scenario.pcap" "icmp")
  [ "$clear" -ge 8 ] || fail "only $clear ICMP frames in the clear on the wire"
  grep -q MKA_UNPROTECTED_TRAFFIC /tmp/A.log || fail "the log does not say that traffic is unprotected"
  note "icmp_in_the_clear=$clear"
}

# A key chain of three keys, 30 s apart, under a ping every 10 ms: the session rolls over twice
# without losing a ping. B's chain starts each key 20 s later than A's, as if B's clock were 20 s
# behind: A's new key waits for B's, and the old key's session carries the traffic meanwhile.
scenario_key_chain() {
  t0=$(date -u +%s)
  at() { date -u -d "@$(( t0 + $1 ))" +%Y-%m-%dT%H:%M:%SZ; }
  chain() {  # chain NS SKEW: the profile runs a chain whose keys start SKEW seconds late
    intf=veth-a; [ "$1" = B ] && intf=veth-b
    {
      printf '[global]\ndataplane = "kernel"\n\n[keychain.lab]\n'
      printf '[[keychain.lab.key]]\nckn = "01"\ncak = "%s"\nstart = %s\nend = %s\n' "$CAK128" "$(at -3600)" "$(at $((30 + $2)))"
      printf '[[keychain.lab.key]]\nckn = "02"\ncak = "%s"\nstart = %s\nend = %s\n' "$CAK256" "$(at $((30 + $2)))" "$(at $((60 + $2)))"
      printf '[[keychain.lab.key]]\nckn = "03"\ncak = "00112233445566778899aabbccddeeff"\nstart = %s\n' "$(at $((60 + $2)))"
      printf '\n[profile.lab]\nkey-chain = "lab"\n\n[interface.%s]\nprofile = "lab"\n' "$intf"
    } > "/tmp/$1.toml"
  }
  pair
  chain A 0
  chain B 20
  mkad --check --config /tmp/A.toml > /tmp/key_chain-check.txt || fail "the chain is refused: $(cat /tmp/key_chain-check.txt)"
  start A
  start B
  wait_for 30 both_secured || fail "not secured"
  address A 10.66.0.1
  address B 10.66.0.2
  wait_for 10 ip netns exec A ping -c 1 -W 1 10.66.0.2 || fail "no first ping"
  mkactl --socket /tmp/A/mkad.sock show veth-a | grep -q "key chain lab: key 01 in use, next rollover $(at 30)" ||
    fail "the view does not show the chain: $(mkactl --socket /tmp/A/mkad.sock show veth-a)"
  # Until every key has rolled over on both ends, and the last one is secured.
  pings A 10.66.0.2 $(( t0 + 100 - $(date -u +%s) ))
  wait_for 110 eval 'show A | tr -d " \n" | grep -q "\"ckn\":\"03\".*\"status\":\"secured\""' || fail "A did not reach key 03"
  pings_over
  for ns in A B; do
    rollovers=$(grep -c "MKAD_KEY_CHAIN_ROLLOVER" "/tmp/$ns.log")
    [ "$rollovers" = 2 ] || fail "$ns rolled over $rollovers times: $(grep KEY_CHAIN "/tmp/$ns.log")"
  done
  both_secured || fail "not secured on the last key"
  [ "$LOST" = 0 ] || fail "$LOST of $SENT pings lost across two rollovers: $GAPS"
  note "rollovers=2 pings=$SENT lost=$LOST late=$LATE"
}
