#!/usr/bin/python3
"""Many ports authenticating at once through one mkad against FreeRADIUS: N veth pairs between two
network namespaces, one mkad on each side with an interface on every pair (the emulated data
plane), B the supplicant of every port and A their authenticator, which passes EAP-TLS through to
Debian's FreeRADIUS on A's loopback. B starts first and waits; A's start begins every exchange at
once. Reports the time from A's start until every port is authenticated and secured on both sides,
A's CPU time and resident memory over that stretch, FreeRADIUS's CPU time, and what A's RADIUS
client counted. Needs root.

usage: radius_scale.py MKAD MKACTL [N] [--transport udp|tls] [--deadline SECONDS]

Exits 0 when every port is secured before the deadline (600 s unless given), 1 when not, and 77
(skipped) where it cannot run: without root, network namespaces or FreeRADIUS.
"""

import argparse
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "daemon"))
from freeradius import FreeRadius  # noqa: E402
from support import make_pki, stop_process  # noqa: E402

SECRET = "a secret of the bench"


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def memory_kib(pid, field):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    return 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("mkad")
    parser.add_argument("mkactl")
    parser.add_argument("ports", type=int, nargs="?", default=256)
    parser.add_argument("--transport", choices=("udp", "tls"), default="udp")
    parser.add_argument("--deadline", type=float, default=600)
    args = parser.parse_args()
    if os.geteuid() != 0 or not shutil.which("ip") or not os.path.exists("/usr/sbin/freeradius"):
        print("skipped: needs root, iproute2 and FreeRADIUS")
        return 77
    mkad, mkactl, n = os.path.abspath(args.mkad), os.path.abspath(args.mkactl), args.ports

    work = tempfile.mkdtemp(prefix="radius-scale-")
    tag = str(os.getpid())
    ns = ["rsa" + tag, "rsb" + tag]
    processes = []
    try:
        for name in ns:
            subprocess.run(["ip", "netns", "add", name], check=True)
        subprocess.run(["ip", "-n", ns[0], "link", "set", "lo", "up"], check=True)
        for i in range(n):
            subprocess.run(["ip", "link", "add", "p%d" % i, "netns", ns[0], "type", "veth", "peer", "name",
                            "p%d" % i, "netns", ns[1]], check=True)
            for name in ns:
                subprocess.run(["ip", "-n", name, "link", "set", "p%d" % i, "up"], check=True)
        make_pki(work)
        with open(os.path.join(work, "radius.secret"), "w") as f:
            f.write(SECRET + "\n")
        os.chmod(os.path.join(work, "radius.secret"), 0o600)
        interfaces = "".join('[interface.p%d]\nprofile = "lab"\n' % i for i in range(n))
        if args.transport == "udp":
            server = '[radius.aaa]\naddress = "127.0.0.1"\nport = 18120\nsecret-file = "radius.secret"\n'
        else:
            server = ('[radius.aaa]\naddress = "127.0.0.1"\nport = 20830\ntransport = "tls"\nca-file = "ca.pem"\n'
                      'cert-file = "switch.pem"\nkey-file = "switch.key"\npeer-names = ["switch.example"]\n')
        configs = {
            "a": '[global]\ndataplane = "emulated"\n' + server +
                 '[eap.lab]\nrole = "authenticator"\nradius = ["aaa"]\n[profile.lab]\neap = "lab"\n' + interfaces,
            "b": '[global]\ndataplane = "emulated"\n[eap.lab]\nrole = "supplicant"\nidentity = "host.example"\n'
                 'ca-file = "ca.pem"\ncert-file = "host.pem"\nkey-file = "host.key"\n'
                 'peer-names = ["switch.example"]\n[profile.lab]\neap = "lab"\n' + interfaces,
        }
        for name, text in configs.items():
            with open(os.path.join(work, name + ".toml"), "w") as f:
                f.write(text)

        radius = FreeRadius(work, "freeradius", ns[0], 18120, SECRET, work, radsec_port=20830)
        radius.start()

        def start(name, netns):
            log = open(os.path.join(os.environ.get("RADIUS_SCALE_LOGS", work), name + ".log"), "w")
            process = subprocess.Popen(["ip", "netns", "exec", netns, mkad, "--config",
                                        os.path.join(work, name + ".toml"), "--socket",
                                        os.path.join(work, name, "mkad.sock")], stdout=log, stderr=subprocess.STDOUT)
            processes.append(process)
            return process

        def show(name):
            result = subprocess.run([mkactl, "--socket", os.path.join(work, name, "mkad.sock"), "show", "--json"],
                                    capture_output=True, text=True)
            return json.loads(result.stdout) if result.returncode == 0 else None

        def done(view):
            return view is not None and sum(
                1 for intf in view["interfaces"]
                if intf["status"] == "secured" and intf.get("authentication", {}).get("state") == "authenticated") == n

        start("b", ns[1])
        deadline = time.monotonic() + 30
        while show("b") is None and time.monotonic() < deadline:
            time.sleep(0.05)
        radius_cpu = cpu_seconds(radius.process.pid)
        began = time.monotonic()
        a = start("a", ns[0])
        # mkad runs under `ip netns exec`, which execs it: the process is mkad.
        deadline = began + args.deadline
        last = None
        while time.monotonic() < deadline:
            last = show("a")
            if done(last) and done(show("b")):
                break
            time.sleep(0.1)
        elapsed = time.monotonic() - began
        secured = sum(1 for intf in (last or {}).get("interfaces", []) if intf["status"] == "secured")
        print("%d ports, RADIUS over %s: %d secured on A after %.1f s" % (n, args.transport.upper(), secured, elapsed))
        print("mkad A: %.2f s of CPU over that stretch (%.0f %% of one core), %d KiB resident, %d KiB at the peak"
              % (cpu_seconds(a.pid), 100 * cpu_seconds(a.pid) / elapsed, memory_kib(a.pid, "VmRSS"),
                 memory_kib(a.pid, "VmHWM")))
        print("FreeRADIUS: %.2f s of CPU" % (cpu_seconds(radius.process.pid) - radius_cpu))
        if last and last.get("radius-servers"):
            counters = last["radius-servers"][0]["counters"]
            print("RADIUS client: " + ", ".join("%s %s" % (k, v) for k, v in counters.items()))
        failures = {}
        for intf in (last or {}).get("interfaces", []):
            for reason, count in intf.get("authentication", {}).get("counters", {}).get("failures", {}).items():
                failures[reason] = failures.get(reason, 0) + count
        print("failed exchanges: %s" % (failures or "none"))
        return 0 if secured == n else 1
    finally:
        for process in processes:
            stop_process(process)
        if "radius" in locals():
            radius.stop()
            if os.environ.get("RADIUS_SCALE_LOGS"):
                with open(os.path.join(os.environ["RADIUS_SCALE_LOGS"], "freeradius.log"), "w") as f:
                    f.write(radius.log_text())
        for name in ns:
            subprocess.run(["ip", "netns", "del", name], capture_output=True)
        shutil.rmtree(work, True)


if __name__ == "__main__":
    sys.exit(main())
