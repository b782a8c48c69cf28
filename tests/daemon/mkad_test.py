#!/usr/bin/python3
"""mkad and mkactl as operators run them: daemons in network namespaces joined by veth pairs,
configured by files, watched through the control socket. Real time, with bounded waits that poll
for a condition.

usage: mkad_test.py MKAD MKACTL [unittest arguments]
"""

import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

from prometheus_client.parser import text_string_to_metric_families

from freeradius import FreeRadius
from support import make_pki, stop_process, wait_for

MKAD = MKACTL = None

CKN = "96437a93ccf10d9dfe347846cce52c7d"
CAK_128 = "135bd758b0ee5c11c55ff6ab19fdb199"
CAK_256 = "a29efdb63d6fba73c65daab2295340a837a8886e94a905b5c9c7ef1d9dbb297e"
OTHER_CAK_128 = "00112233445566778899aabbccddeeff"


def namespaces_available():
    if os.geteuid() != 0:
        return "needs root for network namespaces"
    if shutil.which("ip") is None:
        return "needs iproute2"
    probe = "mkadprobe%d" % os.getpid()
    if subprocess.run(["ip", "netns", "add", probe], capture_output=True).returncode != 0:
        return "cannot create network namespaces here"
    subprocess.run(["ip", "netns", "del", probe], capture_output=True)
    return None


def profile_text(cak=CAK_128, cipher=None, ckn=CKN):
    text = '[profile.lab]\nckn = "%s"\ncak = "%s"\n' % (ckn, cak)
    if cipher:
        text += 'cipher-suite = "%s"\n' % cipher
    return text


def eap_profile_text(role, name, peer, extra=""):
    """A profile whose keys come from EAP-TLS, on the side given, with the certificate of `name`."""
    text = ('[eap.lab]\nrole = "%s"\nca-file = "ca.pem"\ncert-file = "%s.pem"\nkey-file = "%s.key"\n'
            'peer-names = ["%s.example"]\n' % (role, name, name, peer))
    if role == "supplicant":
        text += 'identity = "%s.example"\n' % name
    return text + extra + '[profile.lab]\neap = "lab"\n'


def samples(text):
    """Metrics as a real parser reads them: each sample's value by its name and sorted labels."""
    return {(s.name, tuple(sorted(s.labels.items()))): s.value
            for family in text_string_to_metric_families(text) for s in family.samples}


class Daemon:
    """One mkad, in a network namespace or in the test's own, with its file, socket and log."""

    def __init__(self, workdir, name, interface, netns=None, profile=None):
        self.name, self.netns, self.interface = name, netns, interface
        self.config = os.path.join(workdir, name + ".toml")
        self.socket = os.path.join(workdir, name, "mkad.sock")
        self.log = os.path.join(workdir, name + ".log")
        self.write_config(profile or profile_text())
        self.process = None

    def write_config(self, profile, interface=None):
        with open(self.config, "w") as f:
            f.write('[global]\ndataplane = "emulated"\n\n' + profile +
                    '\n[interface.%s]\nprofile = "lab"\n' % (interface or self.interface))

    def command(self, *args):
        prefix = ["ip", "netns", "exec", self.netns] if self.netns else []
        return prefix + list(args)

    def start(self, env=None):
        self.logfile = open(self.log, "w")
        # From the root directory, as systemd starts it.
        self.process = subprocess.Popen(self.command(MKAD, "--config", self.config, "--socket", self.socket),
                                        stdout=self.logfile, stderr=subprocess.STDOUT, cwd="/",
                                        env=dict(os.environ, **(env or {})))
        wait_for(lambda: os.path.exists(self.socket) or self.process.poll() is not None, 10,
                 self.name + "'s control socket")
        if self.process.poll() is not None:
            raise AssertionError("%s ended at start: %s" % (self.name, self.log_text()))

    def stop(self):
        if self.process:
            stop_process(self.process)
            self.logfile.close()

    def log_text(self):
        with open(self.log) as f:
            return f.read()

    def ctl(self, *args):
        return subprocess.run([MKACTL, "--socket", self.socket] + list(args), capture_output=True, text=True,
                              timeout=10)

    def show(self):
        result = self.ctl("show", "--json")
        if result.returncode != 0:
            raise AssertionError("mkactl show failed: " + result.stderr)
        return json.loads(result.stdout)

    def session(self):
        return self.show()["interfaces"][0]

    def counters(self):
        return json.loads(self.ctl("show", "counters", "--json").stdout)["interfaces"][0]

    def secured(self):
        session = self.session()
        return session if session["status"] == "secured" else None


class Pair:
    """Two namespaces joined by a veth pair, each with its daemon."""

    def __init__(self, test, profile_a=None, profile_b=None, before_start=None):
        """`before_start`, if given, is called with the pair once its namespaces are up, before its
        daemons start."""
        self.test = test
        tag = "%d%d" % (os.getpid() % 10000, id(self) % 1000)
        self.netns = ["mkta" + tag, "mktb" + tag]
        for ns in self.netns:
            subprocess.run(["ip", "netns", "add", ns], check=True)
        subprocess.run(["ip", "link", "add", "eth-a", "netns", self.netns[0], "type", "veth", "peer", "name",
                        "eth-b", "netns", self.netns[1]], check=True)
        for ns, intf in zip(self.netns, ["eth-a", "eth-b"]):
            subprocess.run(["ip", "-n", ns, "link", "set", intf, "up"], check=True)
            subprocess.run(["ip", "-n", ns, "link", "set", "lo", "up"], check=True)
        self.a = Daemon(test.workdir, "a", "eth-a", self.netns[0], profile_a)
        self.b = Daemon(test.workdir, "b", "eth-b", self.netns[1], profile_b)
        test.addCleanup(self.close)
        if before_start:
            before_start(self)
        self.a.start()
        self.b.start()

    def close(self):
        self.a.stop()
        self.b.stop()
        for ns in self.netns:
            subprocess.run(["ip", "netns", "del", ns], capture_output=True)

    def wait_secured(self, timeout=30):
        """Both ends secured on one key; returns that key."""
        def agreed():
            a, b = self.a.secured(), self.b.secured()
            if not a or not b:
                return None
            key_a = a["latest-key"] or a["old-key"]
            key_b = b["latest-key"] or b["old-key"]
            return key_a if key_a and key_a == key_b else None
        return wait_for(agreed, timeout, "both ends secured on one key")


class DaemonTest(unittest.TestCase):
    def setUp(self):
        self.workdir = tempfile.mkdtemp(prefix="mkad-test-")
        self.addCleanup(shutil.rmtree, self.workdir, True)


class Sessions(DaemonTest):
    @classmethod
    def setUpClass(cls):
        reason = namespaces_available()
        if reason:
            raise unittest.SkipTest(reason)

    def test_two_daemons_secure_a_veth_pair_with_128_and_256_bit_keys(self):
        for cak, cipher in [(CAK_128, None), (CAK_256, "gcm-aes-256")]:
            with self.subTest(cipher=cipher or "gcm-aes-128"):
                pair = Pair(self, profile_text(cak, cipher), profile_text(cak, cipher))
                key = pair.wait_secured()
                for daemon in (pair.a, pair.b):
                    session = daemon.session()
                    self.assertEqual(session["live-peers"], 1)
                    self.assertEqual(session["ckn"], CKN)
                    self.assertEqual((session["tx-sa"], session["rx-sa"]), ("in use", "in use"))
                    # The profile's settings, as the file names them and their defaults where it is silent.
                    self.assertEqual((session["settings"]["cipher-suite"], session["settings"]["key-server-priority"]),
                                     (cipher or "gcm-aes-128", 16))
                    self.assertRegex(daemon.ctl("show", "settings").stdout, r"cipher-suite +%s" % session["settings"]["cipher-suite"])
                    # The emulated data plane says in every view that it encrypts nothing.
                    self.assertEqual((session["data-plane"], session["encrypted"]), ("emulated", False))
                    # The view says what backs FIPS mode, and that nobody asked for it here.
                    self.assertEqual(daemon.show()["fips"]["requested"], False)
                    self.assertIn("encrypts nothing", daemon.ctl("show").stdout)
                    # No view and no log line holds the key.
                    for output in (daemon.ctl("show", "--json").stdout, daemon.ctl("show").stdout,
                                   daemon.ctl("show", "counters").stdout, daemon.log_text()):
                        self.assertNotIn(cak, output.lower())
                    # Keys held ready in memory never reach a core file.
                    with open("/proc/%d/limits" % daemon.process.pid) as limits:
                        core = [line.split()[4:6] for line in limits if line.startswith("Max core file size")]
                    self.assertEqual(core, [["0", "0"]])
                    counters = daemon.counters()
                    self.assertGreater(counters["in-mkpdu"], 0)
                    self.assertGreater(counters["out-mkpdu"], 0)
                self.assertEqual(pair.a.session()["is-key-server"], not pair.b.session()["is-key-server"])
                self.assertIsNotNone(key["key-server-mi"])
                self.check_the_view_in_words(pair, key)
                self.check_the_metrics(pair, cak)
                pair.close()

    def check_the_metrics(self, pair, cak):
        """The metrics, as a real parser reads them, from mkactl and from the textfile the daemon writes."""
        result = pair.a.ctl("metrics")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertNotIn(cak, result.stdout.lower())
        read = samples(result.stdout)
        self.assertGreaterEqual(len(read), 10)
        session = (("ckn", CKN), ("interface", "eth-a"))
        self.assertEqual(read[("mkad_secured", session)], 1)
        self.assertEqual(read[("mkad_live_peers", session)], 1)
        self.assertGreaterEqual(read[("mkad_transmit_keys_total", session)], 1)
        self.assertGreater(read[("mkad_mkpdus_received_total", (("interface", "eth-a"),))], 0)
        self.assertEqual(read[("mkad_data_plane_encrypts", ())], 0)
        # The same text, written whole for node exporter's textfile collector, readable by it.
        metrics_file = os.path.join(self.workdir, "mkad.prom")
        with open(pair.a.config) as f:
            text = f.read()
        with open(pair.a.config, "w") as f:
            f.write(text.replace("[global]\n", '[global]\nmetrics-file = "%s"\nmetrics-interval = 1\n' % metrics_file))
        self.assertEqual(pair.a.ctl("reload").returncode, 0)
        wait_for(lambda: os.path.exists(metrics_file), 5, "the metrics file")
        self.assertEqual(os.stat(metrics_file).st_mode & 0o777, 0o644)
        with open(metrics_file) as f:
            self.assertEqual(samples(f.read())[("mkad_secured", session)], 1)

    def check_the_view_in_words(self, pair, key):
        """Who is who and which key is in use, in words, and an interface at a time."""
        a, b = pair.a.session(), pair.b.session()
        server, follower = (pair.a, pair.b) if a["is-key-server"] else (pair.b, pair.a)
        for session, other in ((a, b), (b, a)):
            self.assertRegex(session["sci"], r"^[0-9a-f]{16}$")
            self.assertEqual([(p["sci"], p["member-identifier"], p["state"]) for p in session["peers"]],
                             [(other["sci"], other["member-identifier"], "live")])
            self.assertEqual(session["key-server"]["sci"], server.session()["sci"])
            self.assertEqual(session["transmit-key"]["key-number"], key["key-number"])
            self.assertEqual(session["receive-keys"], [{k: v for k, v in key.items()}])
            self.assertRegex(session["last-change"]["reason"], "transmits on key|port secured|peer")
        text = follower.ctl("show", follower.interface).stdout
        self.assertIn("  transmits on: key %d (AN %d) of key server %s, since " %
                      (key["key-number"], key["an"], key["key-server-mi"][-8:]), text)
        self.assertIn("  key server: SCI %s, priority 16" % server.session()["sci"], text)
        self.assertTrue(all(len(line) <= 100 for line in text.splitlines()), text)
        self.assertIn("no interface eth-x is configured", follower.ctl("show", "eth-x").stderr)
        self.assertEqual(follower.ctl("clear", "counters", follower.interface).returncode, 0)
        self.assertLess(follower.counters()["in-mkpdu"], 3)

    def test_a_reload_moves_to_a_new_key_without_closing_the_port_and_a_broken_file_changes_nothing(self):
        pair = Pair(self)
        first = pair.wait_secured()
        # Both ends get the new key; one through mkactl, the other through SIGHUP.
        for daemon in (pair.a, pair.b):
            daemon.write_config(profile_text(OTHER_CAK_128))
        self.assertEqual(pair.a.ctl("reload").returncode, 0)
        pair.b.process.send_signal(signal.SIGHUP)

        def moved():
            for daemon in (pair.a, pair.b):
                self.assertEqual(daemon.session()["controlled-port"], "secured", daemon.name + "'s port closed")
            key = pair.wait_secured()
            return key if key["key-server-mi"] != first["key-server-mi"] else None
        second = wait_for(moved, 30, "both ends on a key of the new CAK")
        self.assertIn("MKAD_CONFIG_RELOADED", pair.b.log_text())
        self.assertIn("MKAD_CONFIG_CHANGE: Configuration %s: profile lab: key replaced, another CAK under CKN %s"
                      % (pair.b.config, CKN), pair.b.log_text())

        with open(pair.a.config, "a") as f:
            f.write("\n[profile.extra]\nckn = \"01\"\ncak = \"not hex\"\n")
        result = pair.a.ctl("reload")
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stderr, r"a\.toml:\d+: profile\.extra\.cak: ")
        self.assertEqual(pair.wait_secured(), second)
        self.assertIn("MKAD_CONFIG_REFUSED", pair.a.log_text())

    def test_a_reload_that_adds_a_key_to_a_chain_leaves_the_session_as_it_is(self):
        def chain(*keys):
            text = "[keychain.lab]\n"
            for ckn, cak, start in keys:
                text += '[[keychain.lab.key]]\nckn = "%s"\ncak = "%s"\nstart = %s\n' % (ckn, cak, start)
            return text + '[profile.lab]\nkey-chain = "lab"\n'
        now = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(time.time() - 60))
        later = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(time.time() + 3600))
        pair = Pair(self, chain(("01", CAK_128, now)), chain(("01", CAK_128, now)))
        key = pair.wait_secured()
        before = pair.a.session()
        self.assertEqual(before["key-chain"], {"name": "lab", "key-in-use": "01", "next-rollover": None,
                                               "warnings": []})
        pair.a.write_config(chain(("01", CAK_128, now), ("02", OTHER_CAK_128, later)))
        self.assertEqual(pair.a.ctl("reload").returncode, 0)
        after = pair.a.session()
        self.assertEqual(after["key-chain"]["next-rollover"], later)
        self.assertEqual(after["key-chain"]["warnings"], ["key 01 overlaps key 02, which takes over at " + later])
        self.assertEqual((after["member-identifier"], after["transmit-key"]["key-number"], after["status"]),
                         (before["member-identifier"], key["key-number"], "secured"))
        self.assertNotIn("MKAD_CONFIG_CHANGE", pair.a.log_text())
        self.assertIn("MKAD_KEY_CHAIN_WARNING: Key chain lab: key 01 overlaps key 02, which takes over at " + later,
                      pair.a.log_text())

    def test_a_supplicant_and_an_authenticator_secure_the_link_with_keys_from_eap_tls(self):
        make_pki(self.workdir)
        for version in ("1.2", "1.3"):
            with self.subTest(tls=version):
                extra = 'tls-max-version = "%s"\n' % version
                pair = Pair(self, eap_profile_text("authenticator", "switch", "host", extra),
                            eap_profile_text("supplicant", "host", "switch", extra))
                pair.wait_secured()
                for daemon in (pair.a, pair.b):
                    session = daemon.session()
                    # The CKN is the exchange's, not one of the file.
                    self.assertRegex(session["ckn"], r"^[0-9a-f]{32}$")
                    self.assertEqual(session["settings"]["eap"], "lab")
                self.assertEqual(pair.a.session()["ckn"], pair.b.session()["ckn"])
                # The authenticator stands first for key server; the supplicant never does.
                self.assertTrue(pair.a.session()["is-key-server"])
                for daemon, role, peer in ((pair.a, "authenticator", "host"), (pair.b, "supplicant", "switch")):
                    auth = daemon.session()["authentication"]
                    self.assertEqual((auth["role"], auth["state"], auth["tls-version"]),
                                     (role, "authenticated", "TLS " + version))
                    self.assertIn("%s.example" % peer, auth["peer-subject"])
                    self.assertGreater(auth["counters"]["eap-received"]["request" if role == "supplicant" else "response"], 2)
                    self.assertIn("802.1X %s: authenticated" % role, daemon.ctl("show").stdout)
                self.assertEqual(pair.a.session()["authentication"]["peer-identity"], "host.example")
                # A re-authentication asked by the operator brings keys of a new exchange to both ends.
                first = pair.a.session()["ckn"]
                self.assertEqual(pair.b.ctl("reauth", "eth-b").returncode, 0)
                wait_for(lambda: pair.a.session()["authentication"]["counters"]["successes"] == 2, 15,
                         "a second exchange")
                wait_for(lambda: pair.a.secured() and pair.b.secured() and
                         pair.a.session()["ckn"] == pair.b.session()["ckn"] != first, 30,
                         "both ends secured on the new exchange's key")
                self.assertIn("no such interface", pair.a.ctl("reauth", "eth-x").stderr)
                pair.close()

    def test_an_authenticator_passes_eap_through_to_freeradius_and_fails_over_to_the_second_server(self):
        make_pki(self.workdir)
        secret = "a secret of the test"
        with open(os.path.join(self.workdir, "radius.secret"), "w") as f:
            f.write(secret + "\n")
        os.chmod(os.path.join(self.workdir, "radius.secret"), 0o600)
        servers = []

        def start_servers(pair):
            for name, port in (("aaa1", 18121), ("aaa2", 18122)):
                server = FreeRadius(self.workdir, name, pair.netns[0], port, secret, self.workdir,
                                    radsec_port=20830 if name == "aaa2" else None)
                self.addCleanup(server.stop)
                server.start()
                servers.append(server)

        radius = "".join('[radius.%s]\naddress = "127.0.0.1"\nport = %d\nsecret-file = "radius.secret"\n'
                         'timeout = 1\nretries = 1\n' % (name, port) for name, port in (("aaa1", 18121), ("aaa2", 18122)))
        authenticator = (radius + '[eap.lab]\nrole = "authenticator"\nradius = ["aaa1", "aaa2"]\n'
                         'nas-identifier = "switch-7"\n[profile.lab]\neap = "lab"\n')
        pair = Pair(self, authenticator, eap_profile_text("supplicant", "host", "switch", 'tls-max-version = "1.2"\n'),
                    start_servers)
        for version in ("1.2", "1.3"):
            # The supplicant's TLS is the server's: both versions run through the same authenticator.
            pair.b.write_config(eap_profile_text("supplicant", "host", "switch", 'tls-max-version = "%s"\n' % version))
            reloaded = pair.b.ctl("reload")
            self.assertEqual(reloaded.returncode, 0, reloaded.stderr)
            wait_for(lambda: (pair.b.session().get("authentication") or {}).get("tls-version") == "TLS " + version and
                     pair.a.session()["ckn"] == pair.b.session()["ckn"], 30, "secured over TLS " + version)
            pair.wait_secured()
        auth = pair.a.session()["authentication"]
        self.assertEqual((auth["state"], auth["radius-server"], auth["peer-identity"], auth["peer-subject"]),
                         ("authenticated", "aaa1", "host.example", None))
        self.assertIn("Login OK: [host.example]", servers[0].log_text())
        first = pair.a.show()["radius-servers"][0]
        self.assertEqual((first["name"], first["up"], first["counters"]["accepts"]), ("aaa1", True, 2))
        self.assertGreater(first["counters"]["challenges"], 4)
        # The first server gone, a new exchange moves to the second and the link keeps its keys.
        servers[0].stop()
        ckn = pair.a.session()["ckn"]
        self.assertEqual(pair.a.ctl("reauth", "eth-a").returncode, 0)
        wait_for(lambda: pair.a.session()["authentication"]["radius-server"] == "aaa2" and
                 pair.a.session()["ckn"] == pair.b.session()["ckn"] != ckn, 30, "the second server's key in use")
        pair.wait_secured()
        down = pair.a.show()["radius-servers"][0]
        self.assertEqual((down["up"], down["counters"]["timeouts"]), (False, 1))
        self.assertIn("DOT1X_RADIUS_SERVER_DOWN: RADIUS server aaa1 did not answer", pair.a.log_text())
        read = samples(pair.a.ctl("metrics").stdout)
        self.assertEqual(read[("mkad_radius_server_up", (("server", "aaa1"),))], 0)
        self.assertEqual(read[("mkad_radius_accepts_total", (("server", "aaa2"),))], 1)
        self.assertEqual(read[("mkad_dot1x_authenticated", (("interface", "eth-a"), ("radius_server", "aaa2"),
                                                             ("role", "authenticator")))], 1)
        shown = pair.a.ctl("show").stdout
        self.assertIn("last through RADIUS server aaa2", shown)
        self.assertRegex(shown, r"aaa1 +127\.0\.0\.1:18121 +udp +down")
        # A supplicant whose certificate no authority of the server signed is rejected: its port
        # gets no key from the exchange, and says why.
        os.makedirs(os.path.join(self.workdir, "other"))
        make_pki(os.path.join(self.workdir, "other"))
        with open(os.path.join(self.workdir, "both.pem"), "w") as both:
            for name in ("ca.pem", "other/ca.pem"):
                with open(os.path.join(self.workdir, name)) as authority:
                    both.write(authority.read())
        pair.b.write_config('[eap.lab]\nrole = "supplicant"\nidentity = "host.example"\nca-file = "both.pem"\n'
                            'cert-file = "other/host.pem"\nkey-file = "other/host.key"\n'
                            'peer-names = ["switch.example"]\n[profile.lab]\neap = "lab"\n')
        reloaded = pair.b.ctl("reload")
        self.assertEqual(reloaded.returncode, 0, reloaded.stderr)
        wait_for(lambda: (pair.a.session()["authentication"]["last-failure"] or {}).get("reason") ==
                 "the RADIUS server rejected the supplicant", 30, "the reject, with its reason")
        self.assertIn("DOT1X_AUTH_FAILED: 802.1X authentication failed on interface eth-a: the RADIUS server "
                      "rejected the supplicant", pair.a.log_text())
        self.assertEqual(pair.a.show()["radius-servers"][1]["counters"]["rejects"], 1)
        # RADIUS over TLS, with the switch's certificate, to the second server's TLS port.
        pair.b.write_config(eap_profile_text("supplicant", "host", "switch"))
        pair.a.write_config(radius + '[radius.radsec]\naddress = "127.0.0.1"\nport = 20830\ntransport = "tls"\n'
                            'ca-file = "ca.pem"\ncert-file = "switch.pem"\nkey-file = "switch.key"\n'
                            'peer-names = ["switch.example"]\n[eap.lab]\nrole = "authenticator"\n'
                            'radius = ["radsec"]\n[profile.lab]\neap = "lab"\n')
        ckn = pair.a.session()["ckn"]
        # The supplicant first: the authenticator's new entity begins at once, and must find it ready.
        for daemon in (pair.b, pair.a):
            reloaded = daemon.ctl("reload")
            self.assertEqual(reloaded.returncode, 0, reloaded.stderr)
        wait_for(lambda: (lambda auth: auth["state"] == "authenticated" and auth["radius-server"] == "radsec")(
            pair.a.session()["authentication"]) and pair.a.session()["ckn"] == pair.b.session()["ckn"] != ckn, 30,
                 "secured through RADIUS over TLS")
        pair.wait_secured()
        over_tls = [server for server in pair.a.show()["radius-servers"] if server["name"] == "radsec"][0]
        self.assertEqual((over_tls["transport"], over_tls["up"], over_tls["counters"]["accepts"]), ("tls", True, 1))

    def test_a_peer_with_a_wrong_cak_never_becomes_live_and_its_mkpdus_are_counted(self):
        pair = Pair(self, profile_b=profile_text(OTHER_CAK_128))
        wait_for(lambda: pair.a.counters()["in-mkpdu-icv-verification-errors"] >= 2, 15, "refused MKPDUs at a")
        for daemon in (pair.a, pair.b):
            session = daemon.session()
            self.assertEqual(session["live-peers"], 0)
            self.assertEqual(session["controlled-port"], "closed")
        self.assertEqual(pair.a.counters()["in-mkpdu"], 0)
        # Said once in the log, not only counted: the peer, the CKN and what to check.
        mismatches = [line for line in pair.a.log_text().splitlines() if "MKA_CAK_MISMATCH" in line]
        self.assertEqual(len(mismatches), 1, pair.a.log_text())
        self.assertIn("with CKN " + CKN + " failed its integrity check", mismatches[0])
        self.assertEqual(pair.a.ctl("clear", "counters").returncode, 0)
        self.assertLess(pair.a.counters()["in-mkpdu-icv-verification-errors"], 2)

    def test_a_port_whose_peer_falls_silent_says_so_and_keeps_its_keys_only_for_its_bound(self):
        pair = Pair(self)
        pair.wait_secured()
        pair.b.process.send_signal(signal.SIGSTOP)
        self.addCleanup(pair.b.process.send_signal, signal.SIGCONT)
        alone = wait_for(lambda: (lambda s: s if s["status"].startswith("no live peer since ") else None)(
            pair.a.session()), 20, "a to say that its peer is gone")
        self.assertRegex(alone["status"], r"^no live peer since \d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ, keys kept$")
        self.assertEqual((alone["controlled-port"], alone["tx-sa"]), ("secured", "in use"))
        closed = wait_for(lambda: (lambda s: s if s["controlled-port"] == "closed" else None)(pair.a.session()), 20,
                          "a's port to close once keys-without-peer has passed")
        self.assertEqual((closed["status"], closed["tx-sa"], closed["no-live-peer-since"]), ("no peer", "none", None))
        self.assertIn("MKA_KEYS_WITHOUT_PEER_REMOVED: Keys removed and port closed on interface eth-a: no live peer "
                      "for 6 s", pair.a.log_text())
        pair.b.process.send_signal(signal.SIGCONT)
        pair.wait_secured()

    def test_sigterm_or_a_shutdown_ends_the_daemon_within_a_second_with_no_key_left(self):
        pair = Pair(self)
        pair.wait_secured()
        # A teardown is for a stopped daemon: with one running it is refused, and names the way.
        teardown = subprocess.run(pair.a.command(MKAD, "--teardown", "--socket", pair.a.socket), capture_output=True,
                                  text=True, timeout=10)
        self.assertEqual(teardown.returncode, 1)
        self.assertIn("stop it with mkactl shutdown --teardown", teardown.stderr)
        # The emulated data plane has nothing to hand over to a next run: a stop takes every key.
        started = time.monotonic()
        pair.a.process.send_signal(signal.SIGTERM)
        self.assertEqual(pair.a.process.wait(5), 0)
        self.assertLess(time.monotonic() - started, 1.0)
        self.assertIn("MKAD_STOPPED: mkad stopped; 0 keys left", pair.a.log_text())
        self.assertFalse(os.path.exists(pair.a.socket))
        self.assertEqual(pair.b.ctl("shutdown").returncode, 0)
        self.assertEqual(pair.b.process.wait(5), 0)
        self.assertIn("MKAD_STOPPED: mkad stopped; 0 keys left", pair.b.log_text())


class BadInput(DaemonTest):
    """A bad file fails the start with its file, line and field, and changes nothing at reload (each
    mistake's message is the configuration file's unit test)."""

    def bad_files(self):
        key_file = os.path.join(self.workdir, "lab.cak")
        with open(key_file, "w") as f:
            f.write(CAK_128 + "\n")
        os.chmod(key_file, 0o644)
        good_interface = '\n[interface.lo]\nprofile = "lab"\n'
        return [
            ("unknown field", profile_text() + "colour = \"blue\"\n" + good_interface, r"profile\.lab\.colour"),
            ("two profiles", profile_text() + '\n[interface.lo]\nprofile = ["lab", "lab"]\n',
             r"interface\.lo\.profile"),
            ("readable key file", '[profile.lab]\nckn = "%s"\ncak-file = "%s"\n' % (CKN, key_file) + good_interface,
             r"profile\.lab\.cak-file: .*group or others"),
            ("one MACsec link for two interfaces", profile_text() + good_interface +
             '[interface.lo2]\nprofile = "lab"\nmacsec-name = "mslo"\n',
             r"interface\.lo2\.macsec-name: MACsec link mslo is interface\.lo's already"),
        ]

    def test_bad_files_fail_the_start_and_change_nothing_at_reload(self):
        daemon = Daemon(self.workdir, "d", "lo")
        missing = subprocess.run([MKAD, "--config", os.path.join(self.workdir, "none.toml"),
                                  "--socket", daemon.socket], capture_output=True, text=True, timeout=10)
        self.assertNotEqual(missing.returncode, 0)
        self.assertIn("none.toml", missing.stderr)

        for what, text, field in self.bad_files():
            with self.subTest(what):
                path = os.path.join(self.workdir, "bad.toml")
                with open(path, "w") as f:
                    f.write('[global]\ndataplane = "emulated"\n' + text)
                result = subprocess.run([MKAD, "--foreground", "--config", path, "--socket", daemon.socket],
                                        capture_output=True, text=True, timeout=10)
                self.assertNotEqual(result.returncode, 0)
                # Led by the error priority, for the journal.
                self.assertRegex(result.stderr, r"^<3>mkad: .*bad\.toml:\d+: " + field)

        daemon.start()
        self.addCleanup(daemon.stop)
        before = daemon.show()
        for what, text, field in self.bad_files():
            with self.subTest("reload: " + what):
                with open(daemon.config, "w") as f:
                    f.write('[global]\ndataplane = "emulated"\n' + text)
                result = daemon.ctl("reload")
                self.assertEqual(result.returncode, 1)
                self.assertRegex(result.stderr, r"d\.toml:\d+: " + field)
                self.assertEqual(daemon.show()["interfaces"], before["interfaces"])
        # FIPS mode is read once; a reload that would switch it is refused with the reason.
        with open(daemon.config, "w") as f:
            f.write('[global]\ndataplane = "emulated"\nfips = true\n' + profile_text() +
                    '\n[interface.lo]\nprofile = "lab"\n')
        result = daemon.ctl("reload")
        self.assertEqual(result.returncode, 1)
        self.assertIn("d.toml: global.fips: fips cannot change while running; restart mkad", result.stderr)
        self.assertEqual(daemon.show()["interfaces"], before["interfaces"])

    def test_without_the_capabilities_it_needs_the_daemon_refuses_to_start_and_names_them(self):
        daemon = Daemon(self.workdir, "d", "lo")
        result = subprocess.run(["setpriv", "--bounding-set", "-net_raw,-net_admin", MKAD, "--foreground", "--config",
                                 daemon.config, "--socket", daemon.socket], capture_output=True, text=True, timeout=10)
        self.assertEqual(result.returncode, 1)
        self.assertIn("cannot run without CAP_NET_RAW", result.stderr)
        self.assertFalse(os.path.exists(daemon.socket))

    def test_the_kernel_data_plane_without_macsec_in_the_kernel_is_a_clear_error(self):
        # Without modprobe (no kmod on the machine), the kernel cannot load the module either.
        modprobe = shutil.which("modprobe")
        if os.path.exists("/sys/module/macsec") or (
                modprobe and subprocess.run([modprobe, "-n", "macsec"], capture_output=True).returncode == 0):
            self.skipTest("this kernel has MACsec: the VM test covers the kernel data plane")
        daemon = Daemon(self.workdir, "d", "lo")
        # The kernel's is the default: a file that names no data plane is refused, with the way out.
        for named in ('[global]\ndataplane = "kernel"\n', ""):
            with open(daemon.config, "w") as f:
                f.write(named + profile_text() + '\n[interface.lo]\nprofile = "lab"\n')
            result = subprocess.run([MKAD, "--config", daemon.config, "--socket", daemon.socket],
                                    capture_output=True, text=True, timeout=10)
            self.assertEqual(result.returncode, 1)
            self.assertIn("this kernel has no MACsec: the macsec module could not be loaded: load it with modprobe "
                          "macsec", result.stderr)
            self.assertEqual("names no data plane" in result.stderr, not named)
            self.assertEqual('dataplane = "emulated" in [global] runs MKA without protecting any traffic' in
                             result.stderr, not named)
            self.assertFalse(os.path.exists(daemon.socket))

    def test_under_a_watchdog_the_daemon_says_twice_a_period_that_its_loop_still_turns(self):
        notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(notify.close)
        notify.bind(os.path.join(self.workdir, "notify"))
        notify.settimeout(5)
        daemon = Daemon(self.workdir, "d", "lo")
        daemon.start({"NOTIFY_SOCKET": os.path.join(self.workdir, "notify"), "WATCHDOG_USEC": "400000"})
        self.addCleanup(daemon.stop)
        heard = []
        while heard.count(b"WATCHDOG=1") < 4:
            heard.append(notify.recv(256))
        self.assertIn(b"READY=1", heard)
        self.assertIn(b"STATUS=0 of 1 interfaces secured, on the emulated data plane", heard)
        # A reload, however asked for, says so to the service manager, and that it is over.
        self.assertEqual(daemon.ctl("reload").returncode, 0)
        heard = [notify.recv(256)]
        while heard[-1] != b"READY=1":
            heard.append(notify.recv(256))
        self.assertIn(b"RELOADING=1", heard)

    def test_the_control_socket_answers_garbage_with_an_error_and_goes_on(self):
        daemon = Daemon(self.workdir, "d", "lo")
        daemon.start()
        self.addCleanup(daemon.stop)
        requests = [b"garbage\n", b"[1, 2]\n", b'{"command": 7}\n', b'{"command": "format disk"}\n',
                    b"\xff\xfe\x00\x01\n", b"x" * 100000]
        for request in requests:
            with self.subTest(request=request[:20]):
                client = socket.socket(socket.AF_UNIX)
                client.settimeout(5)
                client.connect(daemon.socket)
                try:
                    client.sendall(request)
                except BrokenPipeError:
                    pass  # the daemon answered and closed before the whole flood was sent
                reply = json.loads(client.makefile().readline())
                client.close()
                self.assertIn("error", reply)
        # A client that goes away without a word, and one that holds its connection open, stop nobody.
        with socket.socket(socket.AF_UNIX) as gone:
            gone.connect(daemon.socket)
        idle = socket.socket(socket.AF_UNIX)
        idle.connect(daemon.socket)
        self.addCleanup(idle.close)
        self.assertEqual(daemon.show()["interfaces"][0]["name"], "lo")
        self.assertIsNone(daemon.process.poll())
        # The socket is the daemon's owner's alone.
        self.assertEqual(os.stat(daemon.socket).st_mode & 0o777, 0o600)
        self.assertEqual(os.stat(os.path.dirname(daemon.socket)).st_mode & 0o777, 0o700)


class Service(DaemonTest):
    """The daemon as a system service: its files, one instance, its monitoring socket."""

    def test_the_daemon_keeps_to_a_directory_of_its_own_and_runs_once(self):
        # Neither a directory others may write to, nor one of another user, nor anything but a socket.
        shared = os.path.join(self.workdir, "tmp")
        os.mkdir(shared)
        os.chmod(shared, 0o1777)
        foreign = os.path.join(self.workdir, "foreign")
        os.mkdir(foreign, 0o700)
        os.chown(foreign, 65534, 65534)
        own = os.path.join(self.workdir, "own")
        os.mkdir(own, 0o700)
        precious = os.path.join(own, "notes")
        with open(precious, "w") as f:
            f.write("kept")
        daemon = Daemon(self.workdir, "d", "lo")
        for socket_path, refusal in [(os.path.join(shared, "mkad.sock"), "writable by others"),
                                     (os.path.join(foreign, "mkad.sock"), "owned by another user"),
                                     (precious, "something other than a socket is there; it is left as it is")]:
            with self.subTest(socket_path):
                result = subprocess.run([MKAD, "--config", daemon.config, "--socket", socket_path],
                                        capture_output=True, text=True, timeout=10)
                self.assertEqual(result.returncode, 1)
                self.assertIn(refusal, result.stderr)
        self.assertEqual(os.stat(shared).st_mode & 0o7777, 0o1777)
        with open(precious) as f:
            self.assertEqual(f.read(), "kept")
        self.assertEqual(os.listdir(shared), [])

        # A key file named relative to the configuration file is found from any directory.
        with open(os.path.join(self.workdir, "lab.cak"), "w", opener=lambda p, f: os.open(p, f, 0o600)) as f:
            f.write(CAK_128 + "\n")
        daemon.write_config('[profile.lab]\nckn = "%s"\ncak-file = "lab.cak"\n' % CKN)
        daemon.start()
        self.addCleanup(daemon.stop)
        self.assertEqual(daemon.session()["ckn"], CKN)
        # A second daemon on the same socket is refused, and names the first; the first is still there.
        second = subprocess.run([MKAD, "--config", daemon.config, "--socket", daemon.socket], capture_output=True,
                                text=True, timeout=10)
        self.assertEqual(second.returncode, 1)
        self.assertIn("another mkad runs (PID %d)" % daemon.process.pid, second.stderr)
        self.assertEqual(daemon.session()["ckn"], CKN)
        # With its lock gone, the second still takes no socket a daemon answers on.
        os.unlink(os.path.join(os.path.dirname(daemon.socket), "mkad.pid"))
        second = subprocess.run([MKAD, "--config", daemon.config, "--socket", daemon.socket], capture_output=True,
                                text=True, timeout=10)
        self.assertIn("a daemon answers on it", second.stderr)
        self.assertEqual(daemon.session()["ckn"], CKN)
        daemon.stop()
        # Detached, the command ends once the daemon is ready, and the PID file names the daemon.
        self.assertEqual(subprocess.run([MKAD, "--daemon", "--config", daemon.config, "--socket", daemon.socket],
                                        timeout=10).returncode, 0)
        with open(os.path.join(os.path.dirname(daemon.socket), "mkad.pid")) as f:
            pid = int(f.read())
        with open("/proc/%d/cmdline" % pid) as f:
            self.assertIn("--daemon", f.read())
        self.assertEqual(daemon.ctl("shutdown").stdout, "mkad stops for good\n")
        def gone():  # ended, whether or not whoever adopted it has reaped it yet
            try:
                with open("/proc/%d/stat" % pid) as f:
                    return f.read().split(") ")[1].startswith("Z")
            except FileNotFoundError:
                return True
        wait_for(gone, 5, "the detached daemon to stop")

    def test_the_monitoring_group_reads_status_and_changes_nothing(self):
        os.chmod(self.workdir, 0o711)
        daemon = Daemon(self.workdir, "d", "lo")
        with open(daemon.config) as f:
            text = f.read()
        with open(daemon.config, "w") as f:
            f.write(text.replace("[global]\n", '[global]\nmonitor-group = "nogroup"\n'))
        daemon.start()
        self.addCleanup(daemon.stop)

        def as_nobody(*args):
            return subprocess.run(["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", MKACTL,
                                   "--socket", daemon.socket] + list(args), capture_output=True, text=True, timeout=10)
        shown = as_nobody("show", "--json")
        self.assertEqual(shown.returncode, 0, shown.stderr)
        self.assertEqual(json.loads(shown.stdout)["interfaces"][0]["name"], "lo")
        self.assertEqual(as_nobody("show", "counters").returncode, 0)
        self.assertIn("mkad_secured{", as_nobody("metrics").stdout)
        for command in (["reload"], ["clear", "counters"], ["shutdown"]):
            refused = as_nobody(*command)
            self.assertEqual(refused.returncode, 1)
            self.assertIn("Permission denied", refused.stderr)
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(os.path.join(os.path.dirname(daemon.socket), "monitor.sock"))
            client.sendall(b'{"command": "shutdown"}\n')
            self.assertIn("show, counters and metrics only", json.loads(client.makefile().readline())["error"])
        self.assertIsNone(daemon.process.poll())
        self.assertEqual(os.stat(daemon.socket).st_mode & 0o777, 0o600)


if __name__ == "__main__":
    MKAD, MKACTL = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:], verbosity=2)
