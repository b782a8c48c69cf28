#include "agent/ConfigFile.h"

#include <fcntl.h>
#include <grp.h>
#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <toml++/toml.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "model/KeyBytes.h"
#include "model/StoredKey.h"
#include "platform/HashTable.h"

namespace Macsec {

const char* dataPlaneName(DataPlane plane) { return plane == DataPlane::kernel ? "kernel" : "emulated"; }

namespace {

constexpr size_t kLongestInterfaceName = 15;
constexpr size_t kLongestKeyFile = 4096;

void wipe(std::string& text) {
  if (!text.empty()) OPENSSL_cleanse(text.data(), text.size());
}

// Reads one file's tables into a ConfigFile, and stops at the first error.
// The keys of what a section proves itself with over TLS and accepts of its peer.
constexpr std::string_view kTlsKeys[] = {"ca-file",  "cert-file",  "key-file",        "passphrase-file",
                                         "crl-file", "peer-names", "tls-min-version", "tls-max-version"};

class Reader {
 public:
  Reader(const std::string& path, toml::table& root) : path_(path), root_(root) {}

  ConfigFile read() {
    ConfigFile file;
    file.path = path_;
    onlyKnown(root_, "", {"global", "keychain", "radius", "eap", "profile", "interface"});
    if (toml::node* global = root_.get("global")) readGlobal(file, table(*global, "global"));
    if (toml::node* chains = root_.get("keychain")) {
      for (auto&& [name, node] : table(*chains, "keychain")) {
        const std::string field = "keychain." + std::string(name.str());
        file.keyChains[std::string(name.str())] = readKeyChain(table(node, field), field);
      }
    }
    if (toml::node* servers = root_.get("radius")) {
      for (auto&& [name, node] : table(*servers, "radius")) {
        const std::string field = "radius." + std::string(name.str());
        file.radiusServers[std::string(name.str())] =
            readRadius(table(node, field), std::string(name.str()), field, file);
      }
    }
    if (toml::node* eaps = root_.get("eap")) {
      for (auto&& [name, node] : table(*eaps, "eap")) {
        const std::string field = "eap." + std::string(name.str());
        file.eaps[std::string(name.str())] = readEap(table(node, field), field, file);
      }
    }
    if (toml::node* profiles = root_.get("profile")) {
      for (auto&& [name, node] : table(*profiles, "profile")) {
        const std::string field = "profile." + std::string(name.str());
        file.profiles[std::string(name.str())] = readProfile(table(node, field), std::string(name.str()), field, file);
      }
    }
    if (toml::node* interfaces = root_.get("interface")) {
      for (auto&& [name, node] : table(*interfaces, "interface")) {
        const std::string field = "interface." + std::string(name.str());
        readInterface(file, std::string(name.str()), table(node, field), field);
      }
    }
    return file;
  }

 private:
  [[noreturn]] void fail(const toml::node& node, const std::string& field, const std::string& what) const {
    throw ConfigFileError(path_ + ":" + std::to_string(node.source().begin.line) + ": " + field + ": " + what);
  }

  static std::string join(const std::string& field, std::string_view key) {
    return field.empty() ? std::string(key) : field + "." + std::string(key);
  }

  toml::table& table(toml::node& node, const std::string& field) const {
    toml::table* t = node.as_table();
    if (t == nullptr) fail(node, field, "must be a table");
    return *t;
  }

  void onlyKnown(toml::table& t, const std::string& field, const std::vector<std::string_view>& known) const {
    for (auto&& [key, node] : t) {
      bool found = false;
      for (std::string_view k : known) found = found || key.str() == k;
      if (!found) fail(node, join(field, key.str()), "unknown field");
    }
  }

  bool boolean(toml::table& t, const std::string& field, std::string_view key, bool otherwise) const {
    toml::node* node = t.get(key);
    if (node == nullptr) return otherwise;
    if (!node->is_boolean()) fail(*node, join(field, key), "must be true or false");
    return node->as_boolean()->get();
  }

  // Text, or null if the key is absent. The string lives in the parsed tables, so that key text
  // can be wiped where it lies.
  std::string* text(toml::table& t, const std::string& field, std::string_view key) const {
    toml::node* node = t.get(key);
    if (node == nullptr) return nullptr;
    if (!node->is_string()) fail(*node, join(field, key), "must be text in quotes");
    return &node->as_string()->get();
  }

  void readGlobal(ConfigFile& file, toml::table& global) const {
    onlyKnown(global, "global",
              {"dataplane", "delay-protection", "fips", "monitor-group", "metrics-file", "metrics-interval"});
    if (std::string* plane = text(global, "global", "dataplane")) {
      if (*plane == "emulated") {
        file.dataPlane = DataPlane::emulated;
      } else if (*plane != "kernel") {
        fail(*global.get("dataplane"), "global.dataplane", "must be \"kernel\" or \"emulated\"");
      }
      file.dataPlaneNamed = true;
    }
    file.delayProtection = boolean(global, "global", "delay-protection", false);
    file.fips = boolean(global, "global", "fips", false);
    if (std::string* group = text(global, "global", "monitor-group")) {
      const struct group* entry = getgrnam(group->c_str());
      if (entry == nullptr) fail(*global.get("monitor-group"), "global.monitor-group", "no group named " + *group);
      file.monitorGroup = MonitorGroup{*group, entry->gr_gid};
    }
    if (std::string* metrics = text(global, "global", "metrics-file")) {
      if (metrics->empty() || metrics->front() != '/') {
        fail(*global.get("metrics-file"), "global.metrics-file", "must be an absolute path");
      }
      file.metricsFile = MetricsFile{*metrics};
    }
    if (toml::node* interval = global.get("metrics-interval")) {
      constexpr int64_t kLongest = 3600;
      if (!interval->is_integer() || interval->as_integer()->get() < 1 || interval->as_integer()->get() > kLongest) {
        fail(*interval, "global.metrics-interval", "must be a whole number of seconds from 1 to 3600");
      }
      if (!file.metricsFile) fail(*interval, "global.metrics-interval", "takes effect only with metrics-file");
      file.metricsFile->interval = static_cast<uint32_t>(interval->as_integer()->get());
    }
  }

  Zef::Ptr<Profile> readProfile(toml::table& t, const std::string& name, const std::string& field,
                                ConfigFile& file) const {
    const DataPlane plane = file.dataPlane;
    std::vector<std::string_view> known{
        "ckn", "cak", "cak-file", "fallback-ckn", "fallback-cak", "fallback-cak-file", "security-policy", "key-chain"};
    ProfileSettings::forEach([&]<class S>(S) { known.push_back(S::fileKey); });
    onlyKnown(t, field, known);
    const Zef::Ptr<Profile> profile = Profile::ProfileIs(Zef::Name(name));
    ProfileSettings::forEach([&]<class S>(S) { readSetting<S>(t, field, *profile); });
    readSecurityPolicy(t, field, *profile);
    if (std::string* chain = text(t, field, "key-chain")) {
      for (const char* own : {"ckn", "cak", "cak-file"}) {
        if (t.get(own))
          fail(*t.get(own), join(field, own), "the profile runs key chain " + *chain + ": no key of its own");
      }
      if (!file.keyChains.contains(*chain))
        fail(*t.get("key-chain"), field + ".key-chain", "no key chain named " + *chain);
      file.profileKeyChains[name] = *chain;
    }
    if (profile->dot1xEnabled()) {
      const std::string eap = profile->eap().stdString();
      for (const char* own : {"ckn", "cak", "cak-file", "key-chain"}) {
        if (t.get(own))
          fail(*t.get(own), join(field, own), "the profile's keys come from eap." + eap + ": no key of its own");
      }
      if (!file.eaps.contains(eap)) fail(*t.get("eap"), field + ".eap", "no eap section named " + eap);
    }
    profile->keyIs(key(t, field, "ckn", "cak", "cak-file"));
    profile->defaultKeyIs(key(t, field, "fallback-ckn", "fallback-cak", "fallback-cak-file"));
    // A key needs a few seconds to go into service: out to every member, installed, reported back
    // as received in their next MKPDUs, then transmitted on. A shorter period would make keys that
    // are replaced before anybody uses them.
    constexpr uint32_t kShortestRekeyPeriod = 5;
    if (profile->sessionReKeyPeriod() != 0 && profile->sessionReKeyPeriod() < kShortestRekeyPeriod) {
      fail(*t.get("rekey-period"), field + ".rekey-period",
           "a key needs a few seconds to go into service: 0 (no periodic rekey) or at least " +
               std::to_string(kShortestRekeyPeriod));
    }
    // A window without replay protection would be accepted and do nothing.
    if (profile->replayProtectionWindow() != 0 && !profile->replayProtection()) {
      fail(*t.get("replay-window"), field + ".replay-window", "takes effect only with replay-protection = true");
    }
    if (profile->confidentialityOffset() != 0 && !profile->confidentiality()) {
      fail(*t.get("confidentiality-offset"), field + ".confidentiality-offset",
           "takes effect only with confidentiality = true");
    }
    if (profile->confidentialityOffset() != 0 && plane == DataPlane::kernel) {
      fail(*t.get("confidentiality-offset"), field + ".confidentiality-offset",
           "the kernel data plane encrypts from the first octet: only 0");
    }
    if (!profile->includeSci() && plane == DataPlane::kernel) {
      fail(*t.get("include-sci"), field + ".include-sci", "the kernel data plane always sends the SCI: only true");
    }
    if (profile->bypassLldp() && plane == DataPlane::kernel) {
      fail(*t.get("bypass-lldp"), field + ".bypass-lldp",
           "the kernel data plane leaves LLDP to the device the LLDP agent sends on: run it on the port itself");
    }
    return profile;
  }

  // One setting, as its declaration allows it: true or false, one of its names, or a whole number
  // in its range or among its only values. An absent setting keeps the profile's default.
  template <class S>
  void readSetting(toml::table& t, const std::string& field, Profile& profile) const {
    using Type = typename S::Type;
    toml::node* node = t.get(S::fileKey);
    if (node == nullptr) return;
    const std::string where = join(field, S::fileKey);
    if constexpr (std::is_same_v<Type, bool>) {
      if (!node->is_boolean()) fail(*node, where, "must be true or false");
      S::set(profile, node->as_boolean()->get());
    } else if constexpr (std::is_same_v<Type, Zef::String>) {
      if (!node->is_string() || node->as_string()->get().empty()) fail(*node, where, "must be a name in quotes");
      S::set(profile, Zef::String(node->as_string()->get()));
    } else if constexpr (requires { S::names; }) {
      std::vector<std::string> names;
      for (const auto& [name, value] : S::names) {
        if (node->is_string() && node->as_string()->get() == name) return S::set(profile, value);
        names.push_back("\"" + std::string(name) + "\"");
      }
      fail(*node, where, "must be " + oneOf(names));
    } else {
      if (!node->is_integer()) fail(*node, where, "must be a whole number");
      const int64_t value = node->as_integer()->get();
      if constexpr (requires { S::only; }) {
        std::vector<std::string> allowed;
        for (const uint64_t only : S::only) {
          if (value >= 0 && static_cast<uint64_t>(value) == only) return S::set(profile, static_cast<Type>(value));
          allowed.push_back(std::to_string(only));
        }
        fail(*node, where, "must be " + oneOf(allowed));
      } else {
        if (value < 0 || static_cast<uint64_t>(value) < S::lowest || static_cast<uint64_t>(value) > S::highest) {
          fail(*node, where, "must be from " + std::to_string(S::lowest) + " to " + std::to_string(S::highest));
        }
        S::set(profile, static_cast<Type>(value));
      }
    }
  }

  // An [eap.NAME] section: the side, what it proves itself with (loaded here, so that a certificate
  // that cannot serve is refused with the file), and the periods of its side.
  Dot1x::PaeSettings readEap(toml::table& t, const std::string& field, const ConfigFile& file) const {
    static constexpr std::string_view kSupplicantOnly[] = {"identity", "start-period", "max-start", "auth-period",
                                                           "held-period"};
    static constexpr std::string_view kAuthenticatorOnly[] = {
        "retransmit-period", "max-retransmissions", "quiet-period", "reauth-period", "radius", "nas-identifier"};
    std::vector<std::string_view> known{"role", "method"};
    known.reserve(32);
    known.insert(known.end(), std::begin(kTlsKeys), std::end(kTlsKeys));
    known.insert(known.end(), std::begin(kSupplicantOnly), std::end(kSupplicantOnly));
    known.insert(known.end(), std::begin(kAuthenticatorOnly), std::end(kAuthenticatorOnly));
    onlyKnown(t, field, known);

    Dot1x::PaeSettings settings;
    const std::string* role = text(t, field, "role");
    if (role == nullptr) fail(t, field + ".role", "missing: \"supplicant\" or \"authenticator\"");
    if (*role == "authenticator") {
      settings.role = Dot1x::PaeRole::authenticator;
    } else if (*role != "supplicant") {
      fail(*t.get("role"), field + ".role", "must be \"supplicant\" or \"authenticator\"");
    }
    const bool supplicant = settings.role == Dot1x::PaeRole::supplicant;
    for (std::string_view other : supplicant ? std::span<const std::string_view>(kAuthenticatorOnly)
                                             : std::span<const std::string_view>(kSupplicantOnly)) {
      if (t.get(other)) {
        fail(*t.get(other), join(field, other),
             supplicant ? "takes effect only for an authenticator" : "takes effect only for a supplicant");
      }
    }
    if (const std::string* method = text(t, field, "method"); method && *method != "tls") {
      fail(*t.get("method"), field + ".method", "must be \"tls\", the one method mkad has");
    }
    if (supplicant) {
      const std::string* identity = text(t, field, "identity");
      if (identity == nullptr || identity->empty())
        fail(t, field + ".identity", "missing: the identity the supplicant gives");
      settings.identity = *identity;
      settings.startPeriod = whole(t, field, "start-period", 1, 3600, settings.startPeriod);
      settings.maxStart = whole(t, field, "max-start", 1, 100, settings.maxStart);
      settings.authPeriod = whole(t, field, "auth-period", 1, 3600, settings.authPeriod);
      settings.heldPeriod = whole(t, field, "held-period", 1, 3600, settings.heldPeriod);
    } else {
      settings.retransmitPeriod = whole(t, field, "retransmit-period", 1, 3600, settings.retransmitPeriod);
      settings.maxRetransmissions = whole(t, field, "max-retransmissions", 0, 100, settings.maxRetransmissions);
      settings.quietPeriod = whole(t, field, "quiet-period", 1, 3600, settings.quietPeriod);
      settings.reauthPeriod = whole(t, field, "reauth-period", 0, 31536000, settings.reauthPeriod);
      // An exchange may take some retransmissions; one that never ends before the next begins
      // would never let a port keep its key.
      constexpr uint32_t kShortestReauthPeriod = 30;
      if (settings.reauthPeriod != 0 && settings.reauthPeriod < kShortestReauthPeriod) {
        fail(*t.get("reauth-period"), field + ".reauth-period",
             "0 (never) or at least " + std::to_string(kShortestReauthPeriod) + " seconds");
      }
      readRadiusServers(t, field, file, settings);
    }
    if (settings.passThrough()) {
      // What an EAP server proves itself with: passing EAP through, the servers do.
      for (std::string_view own : kTlsKeys) {
        if (t.get(own)) {
          fail(*t.get(own), join(field, own),
               "the authenticator passes EAP through to its RADIUS servers: no certificates of its own");
        }
      }
      return settings;
    }

    const Dot1x::TlsContext::Side side = supplicant ? Dot1x::TlsContext::Side::peer : Dot1x::TlsContext::Side::server;
    std::tie(settings.tls, settings.tlsSource) = readTls(t, field, side);
    return settings;
  }

  // What a section proves itself with and accepts of its peer, loaded for its side, and what it was
  // loaded from. A certificate its peer would refuse is refused here.
  std::pair<std::shared_ptr<const Dot1x::TlsContext>, std::string> readTls(toml::table& t, const std::string& field,
                                                                           Dot1x::TlsContext::Side side) const {
    Dot1x::TlsCredentials credentials;
    credentials.caFile = givenFile(t, field, "ca-file", true);
    credentials.certFile = givenFile(t, field, "cert-file", true);
    credentials.keyFile = givenFile(t, field, "key-file", true);
    ::close(openOwnerOnly(credentials.keyFile, *t.get("key-file"), field + ".key-file"));
    if (const std::string* passphraseFile = text(t, field, "passphrase-file")) {
      std::string clear = readKeyFile(*passphraseFile, *t.get("passphrase-file"), field + ".passphrase-file");
      credentials.passphrase = KeyBytes(reinterpret_cast<const uint8_t*>(clear.data()), clear.size());
      wipe(clear);
    }
    credentials.crlFile = givenFile(t, field, "crl-file", false);
    if (toml::node* names = t.get("peer-names")) {
      toml::array* list = names->as_array();
      if (list == nullptr || list->empty()) fail(*names, field + ".peer-names", "must be a list of names in quotes");
      for (toml::node& name : *list) {
        if (!name.is_string() || name.as_string()->get().empty())
          fail(name, field + ".peer-names", "must be names in quotes");
        credentials.peerNames.push_back(name.as_string()->get());
      }
    }
    credentials.minVersion = tlsVersion(t, field, "tls-min-version", Dot1x::TlsVersion::tls12);
    credentials.maxVersion = tlsVersion(t, field, "tls-max-version", Dot1x::TlsVersion::tls13);
    if (credentials.minVersion > credentials.maxVersion) {
      fail(*t.get("tls-min-version"), field + ".tls-min-version", "must not be above tls-max-version");
    }

    std::string source = tlsSource(credentials, side);
    std::string error;
    std::shared_ptr<const Dot1x::TlsContext> tls = Dot1x::TlsContext::load(std::move(credentials), side, error);
    if (!tls) fail(*t.get("cert-file"), field, error);
    if (const std::string problem = tls->ownCertificateProblem(); !problem.empty()) {
      fail(*t.get("cert-file"), field + ".cert-file", problem);
    }
    return {std::move(tls), std::move(source)};
  }

  // The servers an authenticator names, in order, and the name it gives itself in its requests.
  void readRadiusServers(toml::table& t, const std::string& field, const ConfigFile& file,
                         Dot1x::PaeSettings& settings) const {
    toml::node* names = t.get("radius");
    if (names == nullptr) {
      if (toml::node* nas = t.get("nas-identifier"))
        fail(*nas, field + ".nas-identifier", "takes effect only with radius");
      return;
    }
    toml::array* list = names->as_array();
    if (list == nullptr || list->empty()) fail(*names, field + ".radius", "must be a list of radius section names");
    for (toml::node& name : *list) {
      if (!name.is_string()) fail(name, field + ".radius", "must be names in quotes");
      const std::string& server = name.as_string()->get();
      const auto it = file.radiusServers.find(server);
      if (it == file.radiusServers.end()) fail(name, field + ".radius", "no radius section named " + server);
      for (const Dot1x::RadiusServerSettings& named : settings.radius) {
        if (named.name == server) fail(name, field + ".radius", "names " + server + " twice");
      }
      settings.radius.push_back(it->second.settings);
    }
    if (const std::string* nas = text(t, field, "nas-identifier")) {
      if (nas->empty()) fail(*t.get("nas-identifier"), field + ".nas-identifier", "must not be empty");
      settings.nasIdentifier = *nas;
    } else {
      char host[256] = {};
      ::gethostname(host, sizeof host - 1);
      settings.nasIdentifier = host;
    }
  }

  // A [radius.NAME] section: where the server is, how it is reached, and the secret it shares.
  RadiusServerConfig readRadius(toml::table& t, const std::string& name, const std::string& field,
                                const ConfigFile& file) const {
    std::vector<std::string_view> known{"address", "port",    "transport", "secret-file",
                                        "timeout", "retries", "dead-time"};
    known.reserve(32);
    known.insert(known.end(), std::begin(kTlsKeys), std::end(kTlsKeys));
    onlyKnown(t, field, known);
    RadiusServerConfig server;
    server.settings.name = name;
    if (const std::string* transport = text(t, field, "transport")) {
      if (*transport == "tls") {
        server.settings.transport = Dot1x::RadiusTransport::tls;
      } else if (*transport != "udp") {
        fail(*t.get("transport"), field + ".transport", "must be \"udp\" or \"tls\"");
      }
    }
    const bool udp = server.settings.transport == Dot1x::RadiusTransport::udp;
    if (udp && file.fips) {
      fail(t.get("transport") ? *t.get("transport") : static_cast<toml::node&>(t), field + ".transport",
           "RADIUS over UDP rests on MD5, which fips = true does not allow: use transport = \"tls\"");
    }
    if (udp) {
      for (std::string_view key : kTlsKeys) {
        if (t.get(key)) fail(*t.get(key), join(field, key), "takes effect only with transport = \"tls\"");
      }
    } else {
      // This host's certificate, and the authorities and names the server's must have.
      std::tie(server.tls, server.tlsSource) = readTls(t, field, Dot1x::TlsContext::Side::peer);
    }
    const std::string* address = text(t, field, "address");
    if (address == nullptr) fail(t, field + ".address", "missing: the server's IPv4 or IPv6 address");
    const uint32_t port = whole(t, field, "port", 1, 65535, udp ? 1812 : 2083);
    const std::optional<RadiusEndpoint> endpoint = RadiusEndpoint::of(*address, static_cast<uint16_t>(port));
    if (!endpoint) fail(*t.get("address"), field + ".address", "must be an IPv4 or IPv6 address");
    server.endpoint = *endpoint;
    // Over TLS the secret is "radsec" unless the server wants another.
    const std::string* secretFile = text(t, field, "secret-file");
    if (secretFile == nullptr && udp) {
      fail(t, field + ".secret-file", "missing: the file of the secret shared with the server");
    }
    std::string secret =
        secretFile ? readKeyFile(*secretFile, *t.get("secret-file"), field + ".secret-file") : std::string("radsec");
    if (secret.empty()) fail(*t.get("secret-file"), field + ".secret-file", "the secret is empty");
    server.settings.secret =
        Macsec::StoredKey::of(KeyBytes(reinterpret_cast<const uint8_t*>(secret.data()), secret.size()));
    wipe(secret);
    server.settings.timeout = whole(t, field, "timeout", 1, 60, server.settings.timeout);
    server.settings.retries = whole(t, field, "retries", 0, 10, server.settings.retries);
    server.settings.deadTime = whole(t, field, "dead-time", 0, 3600, server.settings.deadTime);
    return server;
  }

  // A whole number of the section in [lowest, highest], or `otherwise` if absent.
  uint32_t whole(toml::table& t, const std::string& field, std::string_view key, int64_t lowest, int64_t highest,
                 uint32_t otherwise) const {
    toml::node* node = t.get(key);
    if (node == nullptr) return otherwise;
    if (!node->is_integer() || node->as_integer()->get() < lowest || node->as_integer()->get() > highest) {
      fail(*node, join(field, key),
           "must be a whole number from " + std::to_string(lowest) + " to " + std::to_string(highest));
    }
    return static_cast<uint32_t>(node->as_integer()->get());
  }

  Dot1x::TlsVersion tlsVersion(toml::table& t, const std::string& field, std::string_view key,
                               Dot1x::TlsVersion otherwise) const {
    const std::string* version = text(t, field, key);
    if (version == nullptr) return otherwise;
    if (*version == "1.2") return Dot1x::TlsVersion::tls12;
    if (*version == "1.3") return Dot1x::TlsVersion::tls13;
    fail(*t.get(key), join(field, key), "must be \"1.2\" or \"1.3\"");
  }

  // The path of a file the section names, from the configuration file's directory unless it is
  // absolute; empty if an optional one is absent.
  std::string givenFile(toml::table& t, const std::string& field, std::string_view key, bool required) const {
    const std::string* given = text(t, field, key);
    if (given == nullptr) {
      if (required) fail(t, join(field, key), "missing: the section needs it");
      return std::string();
    }
    if (given->empty()) fail(*t.get(key), join(field, key), "must be a file name");
    return fromConfigDirectory(*given);
  }

  // What a TLS context is loaded from, as text: the side, the options, and each file with the time
  // it last changed, so that a reload that finds them all the same keeps the context it has.
  static std::string tlsSource(const Dot1x::TlsCredentials& c, Dot1x::TlsContext::Side side) {
    std::string source = std::string(side == Dot1x::TlsContext::Side::peer ? "peer" : "server") + " " +
                         Dot1x::tlsVersionText(c.minVersion) + "-" + Dot1x::tlsVersionText(c.maxVersion);
    for (const std::string& name : c.peerNames) source += " " + name;
    for (const std::string* file : {&c.caFile, &c.certFile, &c.keyFile, &c.crlFile}) {
      struct stat st {};
      const bool known = !file->empty() && ::stat(file->c_str(), &st) == 0;
      source += " " + *file + "@" +
                (known ? std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec) + ":" +
                             std::to_string(st.st_size)
                       : "-");
    }
    // The passphrase counts by whether there is one: its text is no part of any record.
    return source + (c.passphrase.size() > 0 ? " locked" : "");
  }

  // A chain's keys, each with its times, in the order of their starts.
  KeyChain readKeyChain(toml::table& t, const std::string& field) const {
    onlyKnown(t, field, {"key"});
    toml::node* list = t.get("key");
    if (list == nullptr || !list->is_array_of_tables() || list->as_array()->empty()) {
      fail(list ? *list : static_cast<toml::node&>(t), field + ".key",
           "missing: a key chain needs keys, as [[" + field + ".key]]");
    }
    KeyChain chain;
    size_t index = 0;
    for (toml::node& entry : *list->as_array()) {
      const std::string where = field + ".key[" + std::to_string(index++) + "]";
      toml::table& k = *entry.as_table();
      onlyKnown(k, where, {"ckn", "cak", "cak-file", "start", "end"});
      ChainKey chained;
      chained.key = key(k, where, "ckn", "cak", "cak-file");
      if (chained.key.empty()) fail(k, where + ".ckn", "missing: each key of a chain needs its name and key");
      if (!k.get("start")) fail(k, where + ".start", "missing: each key of a chain needs the time it starts");
      chained.start = moment(*k.get("start"), where + ".start");
      if (k.get("end")) {
        chained.end = moment(*k.get("end"), where + ".end");
        if (*chained.end <= chained.start) fail(*k.get("end"), where + ".end", "must be after the key's start");
      }
      for (const ChainKey& other : chain.keys) {
        if (other.key.ckn == chained.key.ckn)
          fail(*k.get("ckn"), where + ".ckn", "another key of the chain has this name");
      }
      chain.keys.push_back(std::move(chained));
    }
    std::stable_sort(chain.keys.begin(), chain.keys.end(),
                     [](const ChainKey& a, const ChainKey& b) { return a.start < b.start; });
    return chain;
  }

  // A TOML date and time as wall clock seconds: with an offset as given (RFC 3339), without one in
  // the host's local time.
  double moment(toml::node& node, const std::string& where) const {
    const toml::value<toml::date_time>* given = node.as_date_time();
    if (given == nullptr) fail(node, where, "must be a date and time, as 2026-11-26T10:00:00Z or 2026-11-26T11:00:00");
    const toml::date_time& at = given->get();
    std::tm parts{};
    parts.tm_year = at.date.year - 1900;
    parts.tm_mon = at.date.month - 1;
    parts.tm_mday = at.date.day;
    parts.tm_hour = at.time.hour;
    parts.tm_min = at.time.minute;
    parts.tm_sec = at.time.second;
    if (!at.offset) {
      parts.tm_isdst = -1;
      return static_cast<double>(std::mktime(&parts));
    }
    return static_cast<double>(timegm(&parts)) - at.offset->minutes * 60.0;
  }

  // The policies as switches name them: must-secure passes nothing unprotected, before a session
  // or after it is lost; should-secure passes traffic unprotected while no key is in use. They are
  // the two values of allow-unprotected, under the names operators know.
  void readSecurityPolicy(toml::table& t, const std::string& field, Profile& profile) const {
    std::string* policy = text(t, field, "security-policy");
    if (policy == nullptr) return;
    const std::string where = field + ".security-policy";
    if (t.get("allow-unprotected")) fail(*t.get("security-policy"), where, "give it or allow-unprotected, not both");
    if (*policy != "must-secure" && *policy != "should-secure") {
      fail(*t.get("security-policy"), where, "must be \"must-secure\" or \"should-secure\"");
    }
    profile.allowUnprotectedIs(*policy == "should-secure");
  }

  // "a", "a or b", "a, b or c".
  static std::string oneOf(const std::vector<std::string>& choices) {
    std::string text;
    for (size_t i = 0; i < choices.size(); ++i) {
      if (i > 0) text += i + 1 == choices.size() ? " or " : ", ";
      text += choices[i];
    }
    return text;
  }

  // A CKN with its CAK, given in the file or in a key file; none if the profile gives neither.
  Cak key(toml::table& t, const std::string& field, std::string_view cknKey, std::string_view cakKey,
          std::string_view cakFileKey) const {
    std::string* ckn = text(t, field, cknKey);
    std::string* cak = text(t, field, cakKey);
    std::string* cakFile = text(t, field, cakFileKey);
    if (cak && cakFile) fail(*t.get(cakFileKey), join(field, cakFileKey), "give the key or its file, not both");
    if (!ckn && !cak && !cakFile) return Cak();
    if (!ckn) fail(*t.get(cak ? cakKey : cakFileKey), join(field, cknKey), "missing: a key needs its name");
    if (!cak && !cakFile) fail(*t.get(cknKey), join(field, cakKey), "missing: a key name needs its key");

    const Ckn name = Ckn::fromHex(*ckn);
    if (name.empty()) fail(*t.get(cknKey), join(field, cknKey), "must be 1 to 32 octets in hexadecimal");
    const std::string where = join(field, cak ? cakKey : cakFileKey);
    const toml::node& node = *t.get(cak ? cakKey : cakFileKey);
    std::string clear = cak ? *cak : readKeyFile(*cakFile, node, where);
    if (cak) wipe(*cak);
    KeyBytes octets;
    const bool hex = hexToBytes(clear, octets);
    wipe(clear);
    if (!hex) fail(node, where, "the key must be hexadecimal");
    if (octets.size() != 16 && octets.size() != 32)
      fail(node, where, "the key must be 16 or 32 octets (128 or 256 bits)");
    if (std::all_of(octets.data(), octets.data() + octets.size(), [](uint8_t octet) { return octet == 0; })) {
      fail(node, where, "the key is all zeros: give a secret one");
    }
    return Cak{name, StoredKey::of(octets)};
  }

  std::string fromConfigDirectory(const std::string& given) const {
    return std::filesystem::path(path_).parent_path().append(given).string();
  }

  // A key file opened for reading, refused unless it is a regular file that only its owner may
  // read; the caller closes it.
  int openOwnerOnly(const std::string& file, const toml::node& node, const std::string& field) const {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) fail(node, field, "cannot read key file " + file + ": " + std::strerror(errno));
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
      ::close(fd);
      fail(node, field, "key file " + file + " is not a regular file");
    }
    if ((st.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
      ::close(fd);
      fail(node, field, "key file " + file + " is open to group or others; make it readable by its owner alone");
    }
    return fd;
  }

  // The text of a key file, without surrounding white space. Refused, as an SSH server refuses its
  // keys, unless it is a regular file that only its owner may read.
  // A relative path is taken from the configuration file's directory, wherever mkad runs.
  std::string readKeyFile(const std::string& given, const toml::node& node, const std::string& field) const {
    const std::string file = fromConfigDirectory(given);
    const int fd = openOwnerOnly(file, node, field);
    std::string content(kLongestKeyFile + 1, '\0');
    const ssize_t got = ::read(fd, content.data(), content.size());
    ::close(fd);
    if (got < 0 || static_cast<size_t>(got) > kLongestKeyFile) {
      wipe(content);
      fail(node, field, "cannot read key file " + file);
    }
    const std::string_view whole(content.data(), static_cast<size_t>(got));
    const size_t first = whole.find_first_not_of(" \t\r\n");
    const size_t last = whole.find_last_not_of(" \t\r\n");
    std::string key =
        first == std::string_view::npos ? std::string() : std::string(whole.substr(first, last - first + 1));
    wipe(content);
    return key;
  }

  void readInterface(ConfigFile& file, const std::string& name, toml::table& t, const std::string& field) const {
    onlyKnown(t, field, {"profile", "macsec-name"});
    if (name.empty() || name.size() > kLongestInterfaceName || name.find_first_of("/ \t:") != std::string::npos) {
      fail(t, field, "not an interface name");
    }
    std::string* profile = text(t, field, "profile");
    if (profile == nullptr) fail(t, field + ".profile", "missing: the interface needs a profile");
    if (!file.profiles.contains(*profile)) fail(*t.get("profile"), field + ".profile", "no profile named " + *profile);
    file.interfaces[name] = *profile;
    std::string macsecName = "ms" + name.substr(0, kLongestInterfaceName - 2);
    if (std::string* given = text(t, field, "macsec-name")) {
      if (given->empty() || given->size() > kLongestInterfaceName ||
          given->find_first_of("/ \t:") != std::string::npos) {
        fail(*t.get("macsec-name"), field + ".macsec-name", "not an interface name");
      }
      macsecName = *given;
    }
    for (const auto& [other, taken] : file.macsecNames) {
      if (taken == macsecName) {
        fail(t.get("macsec-name") ? *t.get("macsec-name") : static_cast<toml::node&>(t), field + ".macsec-name",
             "MACsec link " + macsecName + " is interface." + other +
                 "'s already: give each interface a link of its own");
      }
    }
    file.macsecNames[name] = macsecName;
  }

  const std::string& path_;
  toml::table& root_;
};

}  // namespace

namespace {

// Every text of parsed tables: key text may be among them.
void wipeTexts(toml::node& node) {
  if (toml::table* table = node.as_table()) {
    for (auto&& [key, value] : *table) wipeTexts(value);
  } else if (toml::array* array = node.as_array()) {
    for (toml::node& value : *array) wipeTexts(value);
  } else if (toml::value<std::string>* text = node.as_string()) {
    wipe(text->get());
  }
}

}  // namespace

ConfigFile parseConfigText(std::string text, const std::string& path) {
  toml::table root;
  try {
    root = toml::parse(text, path);
  } catch (const toml::parse_error& e) {
    wipe(text);
    throw ConfigFileError(path + ":" + std::to_string(e.source().begin.line) + ": " + std::string(e.description()));
  }
  wipe(text);
  // The tables' texts are wiped whether the reading ends in a file or in an error.
  struct Wiper {
    toml::table& root;
    ~Wiper() { wipeTexts(root); }
  } wiper{root};
  return Reader(path, root).read();
}

ConfigFile readConfigFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw ConfigFileError(path + ": cannot read: " + std::strerror(errno));
  std::string text;
  char buffer[4096];
  ssize_t got = 0;
  while ((got = ::read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(got));
  const int error = errno;
  OPENSSL_cleanse(buffer, sizeof buffer);
  ::close(fd);
  if (got < 0) {
    wipe(text);
    throw ConfigFileError(path + ": cannot read: " + std::strerror(error));
  }
  return parseConfigText(std::move(text), path);
}

namespace {

// Writes a key only if it is another key: a new stored form of the same key changes nothing.
void keyIs(Profile& profile, const Cak& key, bool fallback) {
  const Cak& current = fallback ? profile.defaultKey() : profile.key();
  if (current.sameKeyAs(key)) return;
  fallback ? profile.defaultKeyIs(key) : profile.keyIs(key);
}

}  // namespace

std::vector<std::string> chainKeysAre(ConfigFile& file, double now) {
  std::vector<std::string> changed;
  for (const auto& [profile, chainName] : file.profileKeyChains) {
    const ChainKey* key = chainKeyAt(file.keyChains.at(chainName), now);
    const Cak inUse = key ? key->key : Cak();
    Profile& given = *file.profiles.at(profile);
    if (given.key().sameKeyAs(inUse) || (given.key().empty() && inUse.empty())) continue;
    given.keyIs(inUse);
    changed.push_back(profile);
  }
  return changed;
}

void applyConfigFile(const ConfigFile& file, Config& source) {
  source.delayProtectionIs(file.delayProtection);
  source.fipsRestrictionsIs(file.fips);
  for (const auto& [name, given] : file.profiles) {
    const Zef::Ptr<Profile> profile = source.profileIs(Zef::Name(name));
    const Profile& from = *given;
    keyIs(*profile, from.key(), false);
    keyIs(*profile, from.defaultKey(), true);
    ProfileSettings::forEach([&]<class S>(S) { S::set(*profile, S::of(from)); });
  }
  for (const auto& [intf, profile] : file.interfaces) {
    source.intfConfigIs(Lanx::IntfId(intf))->profileNameIs(Zef::String(profile));
  }
  // What the file no longer has goes: interfaces before the profiles they may name.
  for (const Lanx::IntfId& intf : Zef::keysOf<Lanx::IntfId>(source.intfConfigIter())) {
    if (!file.interfaces.contains(intf.stringValue())) source.intfConfigDel(intf);
  }
  for (const Zef::Name& name : Zef::keysOf<Zef::Name>(source.profileIter())) {
    if (!file.profiles.contains(name.stdString())) source.profileDel(name);
  }
}

}  // namespace Macsec
