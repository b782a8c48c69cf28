"""Debian's FreeRADIUS as the RADIUS server of the daemon's tests: a configuration made for the
test in its own directory (EAP-TLS with the test's certificates, one client entry, the EAP
session's identifier sent as EAP-Key-Name), started on a port of its own in a namespace's
loopback, with nothing of the system's configuration touched."""

import os
import shutil
import subprocess
import time

from support import stop_process

FREERADIUS = shutil.which("freeradius") or "/usr/sbin/freeradius"

CONFIG = """\
prefix = /usr
exec_prefix = /usr
sysconfdir = /etc
localstatedir = /var
sbindir = /usr/sbin
confdir = {confdir}
logdir = {confdir}
raddbdir = {confdir}
radacctdir = {confdir}
run_dir = {confdir}
db_dir = {confdir}
libdir = /usr/lib/freeradius
pidfile = {confdir}/radiusd.pid
name = freeradius
max_request_time = 30
cleanup_delay = 5
max_requests = 65536
hostname_lookups = no
log {{
  auth = yes
}}
security {{
  max_attributes = 200
  reject_delay = 0
  status_server = no
}}
thread pool {{
  start_servers = 4
  max_servers = 8
  min_spare_servers = 2
  max_spare_servers = 8
}}
client mkad {{
  ipaddr = {client}
  secret = "{secret}"
  require_message_authenticator = yes
}}
clients radsec {{
  client mkad-tls {{
    ipaddr = {client}
    proto = tls
    secret = radsec
  }}
}}
modules {{
  eap {{
    default_eap_type = tls
    timer_expire = 60
    max_sessions = 65536
    tls-config tls-common {{
      private_key_file = {certdir}/{server}.key
      certificate_file = {certdir}/{server}.pem
      ca_file = {certdir}/ca.pem
      fragment_size = 1024
      tls_min_version = "1.2"
      tls_max_version = "{tls_max}"
      cache {{
        enable = no
      }}
    }}
    tls {{
      tls = tls-common
    }}
  }}
}}
server default {{
  listen {{
    type = auth
    ipaddr = {address}
    port = {port}
  }}
{radsec}
  authorize {{
    eap {{
      ok = return
    }}
  }}
  authenticate {{
    eap
  }}
  post-auth {{
    update reply {{
      &EAP-Key-Name := &reply:EAP-Session-Id
      &Session-Timeout := {session_timeout}
      &Termination-Action := RADIUS-Request
    }}
  }}
}}
"""


RADSEC = """\
  listen {{
    type = auth
    ipaddr = {address}
    port = {port}
    proto = tcp
    clients = radsec
    tls {{
      private_key_file = {certdir}/{server}.key
      certificate_file = {certdir}/{server}.pem
      ca_file = {certdir}/ca.pem
      require_client_cert = yes
    }}
  }}
"""


class FreeRadius:
    """One server; `netns` is the namespace whose loopback it listens on: RADIUS over UDP on `port`,
    and over TLS (RFC 6614, the secret "radsec", a client certificate of the test's authority) on
    `radsec_port` if given."""

    def __init__(self, workdir, name, netns, port, secret, certdir, server="switch", tls_max="1.3",
                 session_timeout=3600, radsec_port=None):
        self.confdir = os.path.join(workdir, name)
        os.makedirs(self.confdir, exist_ok=True)
        self.netns, self.port = netns, port
        with open(os.path.join(self.confdir, "radiusd.conf"), "w") as f:
            f.write(CONFIG.format(confdir=self.confdir, certdir=certdir, server=server, tls_max=tls_max,
                                  client="127.0.0.1", secret=secret, address="127.0.0.1", port=port,
                                  session_timeout=session_timeout,
                                  radsec=RADSEC.format(address="127.0.0.1", port=radsec_port, certdir=certdir,
                                                       server=server) if radsec_port else ""))
        self.process = None

    def log_text(self):
        try:
            with open(os.path.join(self.confdir, "output.log")) as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def start(self):
        prefix = ["ip", "netns", "exec", self.netns] if self.netns else []
        self.output = open(os.path.join(self.confdir, "output.log"), "w")
        self.process = subprocess.Popen(prefix + [FREERADIUS, "-f", "-l", "stdout", "-d", self.confdir], stdout=self.output,
                                        stderr=subprocess.STDOUT)
        deadline = time.monotonic() + 20
        while "Ready to process requests" not in self.log_text():
            if self.process.poll() is not None or time.monotonic() > deadline:
                raise AssertionError("FreeRADIUS did not start: " + self.log_text())
            time.sleep(0.05)

    def stop(self):
        if self.process:
            stop_process(self.process)
            self.output.close()
