#pragma once

// The daemon's configuration file, in TOML. A file is read and checked whole before anything of it
// is applied: the first error stops the reading, and names the file, the line and the field.
//
//   [global]
//   dataplane = "kernel"              # the default; or "emulated", which encrypts nothing
//   delay-protection = false
//   fips = false
//   monitor-group = "adm"             # may ask for status and metrics on the monitoring socket
//   metrics-file = "/var/lib/prometheus/node-exporter/mkad.prom"
//   metrics-interval = 15             # seconds between writes of the metrics file
//
//   [profile.office]
//   ckn = "96437a93ccf10d9dfe347846cce52c7d"
//   cak = "135bd758b0ee5c11c55ff6ab19fdb199"   # or cak-file = "office.cak", from this file's
//                                              # directory unless the path is absolute
//   fallback-ckn = "..."                       # with fallback-cak or fallback-cak-file
//   ...                                        # every setting of a profile, by the key that
//                                              # model/ProfileSettings.zef gives it
//
//   [keychain.lab]                             # keys by schedule: each in use from its start
//   key = [ { ckn = "01", cak-file = "k1.cak", start = 2026-11-26T10:00:00Z,
//             end = 2026-12-26T10:00:00Z }, ... ]   # local times are the host's
//   [profile.lab]
//   key-chain = "lab"                          # instead of ckn and cak
//
//   [eap.campus]                               # 802.1X with EAP-TLS: keys from the exchange
//   role = "supplicant"                        # or "authenticator", its own EAP server
//   method = "tls"                             # the one method
//   identity = "host.example"                  # the supplicant's EAP identity
//   ca-file = "ca.pem"                         # the authorities that sign the peer's certificate
//   cert-file = "host.pem"                     # this side's certificate (and intermediate ones)
//   key-file = "host.key"                      # its key, readable by its owner alone
//   passphrase-file = "host.pass"              # the key's passphrase, if it has one; owner alone
//   crl-file = "crl.pem"                       # revoked certificates, if any
//   peer-names = ["switch.example"]            # names one of which the peer's certificate carries
//   tls-min-version = "1.2"                    # and tls-max-version, "1.2" or "1.3"
//   ...                                        # the periods of the side (see mkad.toml(5))
//   [profile.campus]
//   eap = "campus"                             # instead of ckn and cak
//
//   [radius.aaa1]                              # a RADIUS server
//   address = "192.0.2.10"                     # IPv4 or IPv6
//   port = 1812                                # the default
//   transport = "udp"                          # or "tls", with ca-file, cert-file, key-file and
//                                              # peer-names; fips = true refuses "udp"
//   secret-file = "aaa1.secret"                # the shared secret, readable by its owner alone
//                                              # ("radsec" over TLS unless given)
//   timeout = 3                                # seconds per try, retries = 2 more, then down
//   dead-time = 60                             # seconds it is passed over once down
//   [eap.ports]
//   role = "authenticator"
//   radius = ["aaa1", "aaa2"]                  # EAP passes through to them, in order
//   nas-identifier = "switch-7"                # the host's name unless given
//
//   [interface.eth0]
//   profile = "office"
//   macsec-name = "mseth0"                     # the kernel data plane's MACsec link
//
// Keys are hexadecimal text, in the file or in a key file of their own, which nobody but its owner
// may read. They are held in stored form from the moment they are read, and their text is wiped.

#include <sys/types.h>

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/KeyChain.h"
#include "agent/RadiusSockets.h"
#include "dot1x/PaeSettings.h"
#include "model/Config.h"
#include "model/Values.h"

namespace Macsec {

// Where the engine's keys go: the emulated hardware (nothing is encrypted) or the kernel's MACsec.
enum class DataPlane { emulated, kernel };
const char* dataPlaneName(DataPlane plane);

// The group whose members may read the daemon's status and metrics on the monitoring socket.
struct MonitorGroup {
  std::string name;
  gid_t id;
};

// The metrics written for node exporter's textfile collector.
struct MetricsFile {
  std::string path;
  uint32_t interval = 15;  // seconds
  bool operator==(const MetricsFile&) const = default;
};

struct ConfigFile {
  std::string path;
  // The kernel's MACsec unless the file names the emulated plane, which protects nothing.
  DataPlane dataPlane = DataPlane::kernel;
  bool dataPlaneNamed = false;
  bool delayProtection = false;
  bool fips = false;
  std::optional<MonitorGroup> monitorGroup;
  std::optional<MetricsFile> metricsFile;
  // Each profile as the file gives it: a Profile of no configuration source, with its keys
  // (`key`, and the fallback key as `defaultKey`) and its settings.
  std::map<std::string, Zef::Ptr<Profile>> profiles;
  // Key chains by name, and the profiles that run one instead of a key of their own: such a
  // profile's key is the chain's key in use, which chainKeysAre() puts in.
  std::map<std::string, KeyChain> keyChains;
  std::map<std::string, std::string> profileKeyChains;
  // The RADIUS servers of each [radius.NAME] section, which authenticators name in order.
  std::map<std::string, RadiusServerConfig> radiusServers;
  // The 802.1X settings of each [eap.NAME] section, their TLS context loaded; a profile names the
  // one its keys come from (Profile::eap).
  std::map<std::string, Dot1x::PaeSettings> eaps;
  // Each configured interface and the profile it runs.
  std::map<std::string, std::string> interfaces;
  // Each configured interface's MACsec link in the kernel data plane: "ms" and the interface's
  // name unless the file names it.
  std::map<std::string, std::string> macsecNames;
};

// "file:line: field: what is wrong", or "file: what is wrong" where no line applies.
class ConfigFileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Reads and checks a file; throws ConfigFileError.
ConfigFile readConfigFile(const std::string& path);
// The same for text that stands for the file at `path`; the text is wiped once read.
ConfigFile parseConfigText(std::string text, const std::string& path);

// Puts each chain's key in use at `now` (wall clock, UTC seconds) into the profiles that run the
// chain; returns the profiles whose key changed.
std::vector<std::string> chainKeysAre(ConfigFile& file, double now);

// Makes a configuration source say what the file says. Only what differs is written, so that
// unchanged profiles and interfaces keep their sessions and keys; what the file no longer has goes.
void applyConfigFile(const ConfigFile& file, Config& source);

}  // namespace Macsec
