"""What the daemon's tests and the daemon benchmarks share: bounded waits, a test PKI made with the
openssl command, and the stop of a process they started."""

import os
import signal
import subprocess
import time


def wait_for(condition, timeout, what):
    """Polls until condition() gives a true value, and returns it; fails after `timeout` seconds."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("timed out after %s s waiting for %s" % (timeout, what))
        time.sleep(0.05)


def make_pki(directory):
    """An authority and the certificates it signs for a switch and a host, made with the openssl
    command for this run alone; the keys readable by their owner alone, as mkad wants them."""
    def run(*args):
        subprocess.run(["openssl"] + list(args), cwd=directory, check=True, capture_output=True)
    run("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout", "ca.key",
        "-out", "ca.pem", "-subj", "/CN=Test CA", "-days", "2", "-addext", "basicConstraints=critical,CA:TRUE",
        "-addext", "keyUsage=critical,keyCertSign,cRLSign")
    for name in ("switch", "host"):
        run("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout", name + ".key",
            "-out", name + ".csr", "-subj", "/CN=%s.example" % name)
        with open(os.path.join(directory, name + ".ext"), "w") as f:
            f.write("subjectAltName=DNS:%s.example\n" % name)
        run("x509", "-req", "-in", name + ".csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial",
            "-out", name + ".pem", "-days", "2", "-extfile", name + ".ext")
        os.chmod(os.path.join(directory, name + ".key"), 0o600)


def stop_process(process):
    """Ends a process with SIGTERM, and kills it if it has not ended within 5 s."""
    if process.poll() is None:
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(5)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
