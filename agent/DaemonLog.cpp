#include "agent/DaemonLog.h"

#include <syslog.h>

#include <cstdio>

namespace Macsec {

Zef::LogHandle MKAD_STARTED("MKAD_STARTED", 5, "mkad started with configuration %s and the %s data plane",
                            "The daemon has applied its configuration and runs MKA on the configured interfaces.",
                            Zef::NoActionRequired, 0, 1.0, 0);

Zef::LogHandle MKAD_EMULATED_DATA_PLANE(
    "MKAD_EMULATED_DATA_PLANE", 4,
    "The emulated data plane encrypts nothing: no traffic is protected on the configured interfaces (%s)",
    "The configuration chose the emulated data plane, which runs MKA sessions without programming any MACsec device.",
    "Choose the kernel data plane to protect traffic.", 0, 1.0, 0);

Zef::LogHandle MKAD_CONFIG_RELOADED("MKAD_CONFIG_RELOADED", 5, "Configuration %s reloaded",
                                    "The new configuration is in force; unchanged interfaces kept their sessions.",
                                    Zef::NoActionRequired, 0, 1.0, 0);

Zef::LogHandle MKAD_CONFIG_CHANGE("MKAD_CONFIG_CHANGE", 5, "Configuration %s: %s",
                                  "A reload changed this; interfaces and keys it does not name kept their sessions.",
                                  Zef::NoActionRequired, 0, 1.0, 0);

Zef::LogHandle MKAD_CONFIG_REFUSED("MKAD_CONFIG_REFUSED", 3, "Configuration refused, nothing changed: %s",
                                   "The configuration file has an error; the running configuration stays in force.",
                                   "Correct the file at the line and field named, then reload.", 0, 1.0, 0);

Zef::LogHandle MKAD_INTF_WAITING("MKAD_INTF_WAITING", 5,
                                 "Interface %s is configured but does not exist; waiting for it",
                                 "MKA starts on the interface as soon as the kernel reports it.", Zef::NoActionRequired,
                                 0, 1.0, 0);

Zef::LogHandle MKAD_INTF_FAILED("MKAD_INTF_FAILED", 3, "Cannot exchange MKPDUs on interface %s: %s",
                                "The daemon could not open the interface's EAPOL socket; MKA does not run there.",
                                "Check that the daemon has CAP_NET_RAW.", 60, 1.0, 0);

Zef::LogHandle MKAD_STOPPED("MKAD_STOPPED", 5, "mkad stopped; %s keys left in the engine and its data plane",
                            "The daemon has taken the engine down and removed its keys.", Zef::NoActionRequired, 0, 1.0,
                            0);

Zef::LogHandle MKAD_DATA_PLANE_ERROR(
    "MKAD_DATA_PLANE_ERROR", 3, "The kernel's MACsec on interface %s refused an operation: %s",
    "The kernel did not take a MACsec link or SA; the engine does not use a key the kernel refused.",
    "Check the kernel log and that the daemon has CAP_NET_ADMIN.", 10, 1.0, 0);

Zef::LogHandle MKAD_KERNEL_SELF_TEST_FAILED(
    "MKAD_KERNEL_SELF_TEST_FAILED", 3, "The kernel's MACsec failed its known-answer test: %s",
    "A throw-away MACsec link in a network namespace of mkad's own did not give the frame that OpenSSL computes "
    "for the test key, or could not be made. The power-on self test fails, and the ports stay closed.",
    "Run mkad --self-test; check that the kernel has MACsec and that mkad has CAP_SYS_ADMIN and CAP_NET_ADMIN.", 0, 1.0,
    0);

Zef::LogHandle MKAD_HANDED_OVER(
    "MKAD_HANDED_OVER", 5, "mkad stopped; %s MACsec links kept with their keys for the next run",
    "The kernel goes on protecting traffic with the SAs it holds; the next mkad takes the links over from the saved "
    "state. Links that no mkad takes over go when the unit's stop bound has passed, or with mkad --teardown.",
    Zef::NoActionRequired, 0, 1.0, 0);

Zef::LogHandle MKAD_STATE_UNUSABLE("MKAD_STATE_UNUSABLE", 4, "The saved state %s is not used: %s",
                                   "Every interface starts afresh; the MACsec links an earlier mkad made are removed.",
                                   Zef::NoActionRequired, 0, 1.0, 0);

Zef::LogHandle MKAD_STATE_WRITE_FAILED(
    "MKAD_STATE_WRITE_FAILED", 3, "Cannot save the state for the next run: %s",
    "A restart of mkad would start afresh, and the peers would see their sessions end.",
    "Check that the directory of the state file exists and is writable by mkad.", 60, 1.0, 0);

Zef::LogHandle MKAD_INTF_RESUMED("MKAD_INTF_RESUMED", 5, "Interface %s goes on from the saved state; link %s kept",
                                 "MKA goes on where the last run stopped, with the SAs the kernel kept.",
                                 Zef::NoActionRequired, 0, 1.0, 0);

Zef::LogHandle MKAD_INTF_AFRESH(
    "MKAD_INTF_AFRESH", 4, "Interface %s starts afresh: %s",
    "Its saved state does not fit; its MACsec link goes and MKA starts anew with its peers.", Zef::NoActionRequired, 0,
    1.0, 0);

Zef::LogHandle MKAD_NO_FRAME_DECRYPTS(
    "MKAD_NO_FRAME_DECRYPTS", 3, "Interface %s: the peer reports the key in use, but no frame from it decrypts",
    "The peer says in its MKPDUs that it transmits on a key this port holds, and frames arrive, but the kernel "
    "decrypts none of them: the peer's data plane may not have taken the key, or it sends without protection. The "
    "session protects no traffic from it.",
    "Check the peer's data plane (its cipher suite support, its MACsec counters) and the kernel counters in mkactl "
    "show.",
    0, 1.0, 0);

Zef::LogHandle MKAD_METRICS_WRITE_FAILED("MKAD_METRICS_WRITE_FAILED", 4, "Cannot write the metrics file: %s",
                                         "The textfile collector goes on reading the last metrics written.",
                                         "Check that the directory of metrics-file exists and is writable by mkad.", 60,
                                         1.0, 0);

Zef::LogHandle MKAD_KEY_CHAIN_ROLLOVER(
    "MKAD_KEY_CHAIN_ROLLOVER", 5, "Key chain %s: key %s in use on profile %s",
    "The chain's next key has started: its session comes up beside the running one and takes the port once it is "
    "secured, and the old one goes after, without a hit.",
    Zef::NoActionRequired, 0, 1.0, 0);

Zef::LogHandle MKAD_KEY_CHAIN_NO_KEY("MKAD_KEY_CHAIN_NO_KEY", 3, "Key chain %s has no key in use: profile %s has none",
                                     "The chain's keys have ended, or the next one has not started: the profile's "
                                     "sessions end, and its ports close.",
                                     "Add a key to the chain, and reload.", 0, 1.0, 0);

Zef::LogHandle MKAD_KEY_CHAIN_WARNING("MKAD_KEY_CHAIN_WARNING", 4, "Key chain %s: %s",
                                      "Said at the start and at each reload, before it happens.",
                                      "Correct the chain's times, and reload.", 0, 1.0, 0);

Zef::LogHandle MKAD_RADIUS_SOCKET_FAILED("MKAD_RADIUS_SOCKET_FAILED", 3, "Cannot reach RADIUS server %s at %s: %s",
                                         "The daemon could not open a socket to the server; its requests are lost, "
                                         "and ports move to the next server when they time out.",
                                         "Check the server's address and the host's routes.", 60, 1.0, 0);

void errorLine(const std::string& text) {
  std::fprintf(stderr, "<%d>mkad: %s\n", LOG_ERR, text.c_str());
  std::fflush(stderr);
}

void operatorLogIs(LogTarget target) {
  if (target == LogTarget::syslog) {
    openlog("mkad", LOG_PID, LOG_DAEMON);
    Zef::logSinkIs([](const Zef::LogRecord& r) {
      syslog(LOG_DAEMON | r.handle->severity(), "%s: %s", r.handle->name().stdString().c_str(), r.text.c_str());
    });
    return;
  }
  Zef::logSinkIs([](const Zef::LogRecord& r) {
    std::fprintf(stderr, "<%d>%s: %s\n", r.handle->severity(), r.handle->name().stdString().c_str(), r.text.c_str());
    std::fflush(stderr);
  });
}

}  // namespace Macsec
