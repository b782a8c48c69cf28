// The daemon's configuration file: every mistake is refused with the file, the line and the field,
// keys never show in a message, and a file applied again writes only what changed and says what.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "agent/ConfigChanges.h"
#include "agent/ConfigFile.h"
#include "tests/dot1x/TestPki.h"

namespace Macsec {
namespace {

const std::string kCkn = "96437a93ccf10d9dfe347846cce52c7d";
const std::string kCak = "135bd758b0ee5c11c55ff6ab19fdb199";
const std::string kCak256 = "a29efdb63d6fba73c65daab2295340a837a8886e94a905b5c9c7ef1d9dbb297e";

std::string office(const std::string& cakLine) {
  return "[profile.office]\nckn = \"" + kCkn + "\"\n" + cakLine + "\n\n[interface.eth0]\nprofile = \"office\"\n";
}

// The error that reading the text gives, empty if it reads.
std::string errorOf(const std::string& text) {
  try {
    parseConfigText(text, "mkad.conf");
  } catch (const ConfigFileError& e) {
    return e.what();
  }
  return "";
}

// A key file in the test's temporary directory, with the given permissions, named for this process:
// the suite runs twice side by side, and one run must not truncate the other's file.
std::string keyFile(const std::string& name, const std::string& content, mode_t mode) {
  const std::string path = ::testing::TempDir() + std::to_string(::getpid()) + "-" + name;
  std::ofstream(path) << content << "\n";
  ::chmod(path.c_str(), mode);
  return path;
}

TEST(ConfigFile, EveryMistakeIsRefusedWithFileLineAndField) {
  const std::string readable = keyFile("readable.cak", kCak, 0644);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"[global]\ndataplane = \"emulated\"\ncolour = 1\n", "mkad.conf:3: global.colour: unknown field"},
      {"[global]\ndataplane = \"hardware\"\n", "mkad.conf:2: global.dataplane: must be \"kernel\" or \"emulated\""},
      {"[global]\nfips = \"yes\"\n", "mkad.conf:2: global.fips: must be true or false"},
      {office("cak = \"135bd758b0ee5c11c55ff6ab19fd\""), "mkad.conf:3: profile.office.cak: the key must be 16 or 32"},
      {office("cak = \"135bd758b0ee5c11c55ff6ab19fdb1zz\""), "mkad.conf:3: profile.office.cak: the key must be hex"},
      {office("cak = \"" + std::string(32, '0') + "\""), "mkad.conf:3: profile.office.cak: the key is all zeros"},
      {"[profile.office]\nreplay-protection = false\nreplay-window = 64\n",
       "mkad.conf:3: profile.office.replay-window: takes effect only with replay-protection = true"},
      {"[profile.office]\nckn = \"\"\ncak = \"" + kCak + "\"\n", "mkad.conf:2: profile.office.ckn: must be 1 to 32"},
      {"[profile.office]\nckn = \"" + std::string(66, 'a') + "\"\ncak = \"" + kCak + "\"\n",
       "mkad.conf:2: profile.office.ckn: must be 1 to 32"},
      {"[profile.office]\nckn = \"" + kCkn + "\"\n", "mkad.conf:2: profile.office.cak: missing"},
      {"[profile.office]\nkey-server-priority = 300\n",
       "mkad.conf:2: profile.office.key-server-priority: must be from 0 to 255"},
      {"[profile.office]\ncipher-suite = \"des\"\n", "mkad.conf:2: profile.office.cipher-suite: must be"},
      {"[interface.eth0]\nprofile = \"office\"\n", "mkad.conf:2: interface.eth0.profile: no profile named office"},
      {"[profile.a]\n[profile.b]\n[interface.eth0]\nprofile = \"a\"\n[interface.eth0]\nprofile = \"b\"\n",
       "mkad.conf:5: "},
      {office("cak-file = \"" + readable + "\""),
       "mkad.conf:3: profile.office.cak-file: key file " + readable + " is open to group or others"},
      {office("cak-file = \"/nonexistent.cak\""), "mkad.conf:3: profile.office.cak-file: cannot read key file"},
      {"[profile.office\n", "mkad.conf:1: "},
      {"[profile.office]\nrekey-period = 1\n",
       "mkad.conf:2: profile.office.rekey-period: a key needs a few seconds to go into service: 0 (no periodic "
       "rekey) or at least 5"},
      {"[profile.office]\nconfidentiality-offset = 20\n",
       "mkad.conf:2: profile.office.confidentiality-offset: must be 0, 30 or 50"},
      {"[profile.office]\nsecurity-policy = \"may-secure\"\n",
       "mkad.conf:2: profile.office.security-policy: must be \"must-secure\" or \"should-secure\""},
      {"[profile.office]\nsecurity-policy = \"must-secure\"\nallow-unprotected = true\n",
       "mkad.conf:2: profile.office.security-policy: give it or allow-unprotected, not both"},
      {"[profile.office]\nconfidentiality = false\nconfidentiality-offset = 30\n",
       "mkad.conf:3: profile.office.confidentiality-offset: takes effect only with confidentiality = true"},
      {"[global]\ndataplane = \"kernel\"\n[profile.office]\nconfidentiality-offset = 30\n",
       "mkad.conf:4: profile.office.confidentiality-offset: the kernel data plane encrypts from the first octet"},
      {"[global]\ndataplane = \"kernel\"\n[profile.office]\ninclude-sci = false\n",
       "mkad.conf:4: profile.office.include-sci: the kernel data plane always sends the SCI"},
      {"[global]\ndataplane = \"kernel\"\n[profile.office]\nbypass-lldp = true\n",
       "mkad.conf:4: profile.office.bypass-lldp: the kernel data plane leaves LLDP to the device"},
      {office("cak = \"" + kCak + "\"") + "macsec-name = \"a/b\"\n",
       "mkad.conf:7: interface.eth0.macsec-name: not an interface name"},
  };
  for (const auto& [text, expected] : cases) {
    const std::string error = errorOf(text);
    EXPECT_EQ(error.rfind(expected, 0), 0u) << "got: " << error << "\nfor:\n" << text;
    EXPECT_EQ(error.find("135bd758"), std::string::npos) << error;
  }
  // The kernel data plane's MACsec link is named after its port unless the file names it.
  const ConfigFile named = parseConfigText(office("cak = \"" + kCak + "\"") +
                                               "[interface.enp3s0f1np1]\nprofile = "
                                               "\"office\"\nmacsec-name = \"macsec7\"\n",
                                           "mkad.conf");
  EXPECT_EQ(named.macsecNames.at("eth0"), "mseth0");
  EXPECT_EQ(named.macsecNames.at("enp3s0f1np1"), "macsec7");
  try {
    readConfigFile("/nonexistent/mkad.conf");
    ADD_FAILURE() << "a missing file reads";
  } catch (const ConfigFileError& e) {
    EXPECT_EQ(std::string(e.what()), "/nonexistent/mkad.conf: cannot read: No such file or directory");
  }
}

TEST(ConfigFile, AFileAppliedAgainWritesOnlyWhatChanged) {
  const std::string ownKey = keyFile("own.cak", kCak256, 0600);
  const std::string first =
      "[global]\ndelay-protection = true\n\n" + office("cak = \"" + kCak + "\"") +
      "\n[profile.lab]\nckn = \"01\"\ncak-file = \"" + ownKey +
      "\"\ncipher-suite = \"gcm-aes-256\"\nkey-server-priority = 3\nsecurity-policy = \"should-secure\"\n"
      "\n[profile.spare]\nkey-retire = true\n\n[interface.eth1]\nprofile = \"lab\"\n";
  const ConfigFile file = parseConfigText(first, "mkad.conf");
  // A file that names no data plane gets the kernel's, which protects traffic.
  EXPECT_EQ(file.dataPlane, DataPlane::kernel);
  EXPECT_FALSE(file.dataPlaneNamed);
  const Zef::Ptr<Config> source = Config::ConfigIs(Zef::Name("cli"));
  applyConfigFile(file, *source);
  EXPECT_TRUE(source->delayProtection());
  ASSERT_EQ(source->profileSize(), 3u);
  const Zef::Ptr<Profile> lab = source->profile(Zef::Name("lab"));
  EXPECT_TRUE(lab->key().sameKeyAs(Cak{"01"_ckn, StoredKey::ofHex(kCak256)}));
  EXPECT_EQ(lab->cipherSuite(), cipherSuiteGcmAes256);
  EXPECT_TRUE(lab->allowUnprotected());
  EXPECT_EQ(lab->keyServerPriority(), 3);
  EXPECT_TRUE(source->profile(Zef::Name("spare"))->keyRetire());
  EXPECT_EQ(source->intfConfig(Lanx::IntfId("eth1"))->profileName(), Zef::String("lab"));

  // Read again, the same file writes nothing: not even a new stored form of an unchanged key.
  const Zef::String labStored = lab->key().cak.storedText();
  const Zef::String officeStored = source->profile(Zef::Name("office"))->key().cak.storedText();
  applyConfigFile(parseConfigText(first, "mkad.conf"), *source);
  EXPECT_EQ(lab->key().cak.storedText(), labStored);
  EXPECT_EQ(source->profile(Zef::Name("office"))->key().cak.storedText(), officeStored);

  // One key and one setting changed, a profile and an interface gone: the rest stays as it was,
  // and the log is told what changed, each key by its name.
  const std::string second = office("cak = \"" + kCak256 + "\"") + "\n[profile.lab]\nckn = \"01\"\ncak-file = \"" +
                             ownKey +
                             "\"\ncipher-suite = \"gcm-aes-256\"\nkey-server-priority = 5\n"
                             "security-policy = \"should-secure\"\n";
  EXPECT_TRUE(configChanges(file, parseConfigText(first, "mkad.conf")).empty());
  EXPECT_EQ(configChanges(file, parseConfigText(second, "mkad.conf")),
            (std::vector<std::string>{"profile spare removed", "profile lab: key-server-priority 3 to 5",
                                      "profile office: key replaced, another CAK under CKN " + kCkn,
                                      "interface eth1 removed"}));
  applyConfigFile(parseConfigText(second, "mkad.conf"), *source);
  EXPECT_FALSE(source->delayProtection());
  EXPECT_EQ(source->profile(Zef::Name("lab")), lab);
  EXPECT_EQ(lab->key().cak.storedText(), labStored);
  EXPECT_TRUE(
      source->profile(Zef::Name("office"))->key().sameKeyAs(Cak{Ckn::fromHex(kCkn), StoredKey::ofHex(kCak256)}));
  EXPECT_FALSE(source->profileHas(Zef::Name("spare")));
  EXPECT_FALSE(source->intfConfigHas(Lanx::IntfId("eth1")));
  EXPECT_TRUE(source->intfConfigHas(Lanx::IntfId("eth0")));
}

// A chain's keys by their times: the key in use at each moment, the next rollover, and what is
// wrong with the schedule, said before it happens.
TEST(ConfigFile, AnEapSectionLoadsItsCertificatesAndRefusesOnesThatCannotServe) {
  const Dot1x::Testing::TestPki pki;
  // The PKI's key files are the owner's alone, as the daemon wants them.
  for (const char* key : {"client.key", "server.key", "expired.key", "misnamed.key", "locked.key"}) {
    ::chmod(pki.file(key).c_str(), 0600);
  }
  const std::string passphrase = keyFile("passphrase", "open sesame", 0600);
  const auto section = [&](const std::string& name, const std::string& role, const std::string& certificate,
                           const std::string& extra) {
    return "[eap." + name + "]\nrole = \"" + role + "\"\nca-file = \"" + pki.file("ca.pem") + "\"\ncert-file = \"" +
           pki.file(certificate + ".pem") + "\"\nkey-file = \"" + pki.file(certificate + ".key") + "\"\n" + extra;
  };
  const std::string supplicant = section("host", "supplicant", "client",
                                         "identity = \"host.example\"\npeer-names = [\"server.example\"]\n"
                                         "start-period = 5\nheld-period = 20\n");
  const std::string authenticator =
      section("switch", "authenticator", "server", "tls-min-version = \"1.3\"\nreauth-period = 600\n");
  const ConfigFile file = parseConfigText(supplicant + authenticator +
                                              "[profile.campus]\neap = \"host\"\n[interface.eth0]\nprofile = "
                                              "\"campus\"\n",
                                          "mkad.conf");
  const Dot1x::PaeSettings& host = file.eaps.at("host");
  EXPECT_EQ(host.role, Dot1x::PaeRole::supplicant);
  EXPECT_EQ(host.identity, "host.example");
  EXPECT_EQ(host.startPeriod, 5u);
  EXPECT_EQ(host.heldPeriod, 20u);
  EXPECT_TRUE(host.tls);
  EXPECT_EQ(file.eaps.at("switch").role, Dot1x::PaeRole::authenticator);
  EXPECT_EQ(file.eaps.at("switch").reauthPeriod, 600u);
  EXPECT_TRUE(file.profiles.at("campus")->dot1xEnabled());
  // Read again from the same files, the settings are the same: a reload keeps the exchange.
  EXPECT_EQ(parseConfigText(supplicant, "mkad.conf").eaps.at("host"), host);
  const std::string locked = "[eap.host]\nrole = \"supplicant\"\nidentity = \"h\"\nca-file = \"" + pki.file("ca.pem") +
                             "\"\ncert-file = \"" + pki.file("client.pem") + "\"\nkey-file = \"" +
                             pki.file("locked.key") + "\"\n";
  EXPECT_TRUE(parseConfigText(locked + "passphrase-file = \"" + passphrase + "\"\n", "mkad.conf").eaps.at("host").tls);

  ::chmod(pki.file("misnamed.key").c_str(), 0640);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"[eap.host]\nca-file = \"ca.pem\"\n", "mkad.conf:1: eap.host.role: missing"},
      {"[eap.host]\nrole = \"peer\"\n", "mkad.conf:2: eap.host.role: must be \"supplicant\" or \"authenticator\""},
      {section("host", "supplicant", "client", "identity = \"h\"\nquiet-period = 5\n"),
       "mkad.conf:7: eap.host.quiet-period: takes effect only for an authenticator"},
      {section("host", "authenticator", "server", "identity = \"h\"\n"),
       "mkad.conf:6: eap.host.identity: takes effect only for a supplicant"},
      {section("host", "supplicant", "client", ""), "mkad.conf:1: eap.host.identity: missing"},
      {section("host", "supplicant", "client", "identity = \"h\"\nmethod = \"md5\"\n"),
       "mkad.conf:7: eap.host.method: must be \"tls\""},
      {section("host", "authenticator", "server", "reauth-period = 10\n"),
       "mkad.conf:6: eap.host.reauth-period: 0 (never) or at least 30 seconds"},
      {section("host", "authenticator", "server", "tls-min-version = \"1.3\"\ntls-max-version = \"1.2\"\n"),
       "mkad.conf:6: eap.host.tls-min-version: must not be above tls-max-version"},
      {section("host", "authenticator", "misnamed", ""),
       "mkad.conf:5: eap.host.key-file: key file " + pki.file("misnamed.key") + " is open to group or others"},
      {section("host", "authenticator", "expired", ""), "mkad.conf:4: eap.host.cert-file: the certificate has expired"},
      {locked, "mkad.conf:5: eap.host: " + pki.file("locked.key") + ": cannot read the private key"},
      {"[eap.host]\nrole = \"supplicant\"\nidentity = \"h\"\nca-file = \"/nonexistent.pem\"\ncert-file = \"" +
           pki.file("client.pem") + "\"\nkey-file = \"" + pki.file("client.key") + "\"\n",
       "mkad.conf:5: eap.host: "},
      {"[profile.campus]\neap = true\n", "mkad.conf:2: profile.campus.eap: must be a name in quotes"},
      {"[profile.campus]\neap = \"host\"\n", "mkad.conf:2: profile.campus.eap: no eap section named host"},
      {supplicant + "[profile.campus]\neap = \"host\"\nckn = \"" + kCkn + "\"\ncak = \"" + kCak + "\"\n",
       "mkad.conf:12: profile.campus.ckn: the profile's keys come from eap.host: no key of its own"},
  };
  for (const auto& [text, expected] : cases) {
    const std::string error = errorOf(text);
    EXPECT_EQ(error.rfind(expected, 0), 0u) << "got: " << error << "\nfor:\n" << text;
  }
}

TEST(ConfigFile, RadiusServersAreNamedByAnAuthenticatorThatPassesEapThroughAndUdpIsRefusedUnderFips) {
  const std::string secret = keyFile("radius.secret", "a shared secret\n", 0600);
  const std::string open = keyFile("open.secret", "a shared secret\n", 0644);
  const auto server = [&](const std::string& name, const std::string& extra, const std::string& address = "192.0.2.10",
                          const std::string& file = "") {
    return "[radius." + name + "]\naddress = \"" + address + "\"\nsecret-file = \"" + (file.empty() ? secret : file) +
           "\"\n" + extra;
  };
  const std::string servers =
      server("aaa1", "timeout = 2\nretries = 0\ndead-time = 30\n") + server("aaa2", "port = 11812\n", "2001:db8::10");
  const ConfigFile file =
      parseConfigText(servers + "[eap.ports]\nrole = \"authenticator\"\nradius = [\"aaa2\", \"aaa1\"]\n", "mkad.conf");
  const Dot1x::PaeSettings& ports = file.eaps.at("ports");
  ASSERT_EQ(ports.radius.size(), 2u);
  EXPECT_TRUE(ports.passThrough());
  EXPECT_FALSE(ports.tls);
  EXPECT_EQ(ports.radius[0].name, "aaa2");
  EXPECT_EQ(file.radiusServers.at("aaa2").endpoint.text, "[2001:db8::10]:11812");
  EXPECT_EQ(file.radiusServers.at("aaa1").endpoint.text, "192.0.2.10:1812");
  EXPECT_EQ(std::tie(ports.radius[1].timeout, ports.radius[1].retries, ports.radius[1].deadTime),
            std::make_tuple(2u, 0u, 30u));
  EXPECT_TRUE(ports.radius[1].secret.sameKeyAs(
      Macsec::StoredKey::of(Macsec::KeyBytes(reinterpret_cast<const uint8_t*>("a shared secret"), 15))));
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  EXPECT_EQ(ports.nasIdentifier, host);

  // Over TLS, with FIPS mode: this host's certificate, and the secret "radsec" unless one is given.
  const Dot1x::Testing::TestPki pki;
  ::chmod(pki.file("client.key").c_str(), 0600);
  const std::string overTls = "[radius.tls]\naddress = \"192.0.2.11\"\ntransport = \"tls\"\nca-file = \"" +
                              pki.file("ca.pem") + "\"\ncert-file = \"" + pki.file("client.pem") + "\"\nkey-file = \"" +
                              pki.file("client.key") + "\"\n";
  const ConfigFile tls = parseConfigText("[global]\nfips = true\n" + overTls, "mkad.conf");
  const RadiusServerConfig& radsec = tls.radiusServers.at("tls");
  EXPECT_EQ(radsec.settings.transport, Dot1x::RadiusTransport::tls);
  EXPECT_EQ(radsec.endpoint.text, "192.0.2.11:2083");
  EXPECT_TRUE(radsec.tls);
  EXPECT_TRUE(radsec.settings.secret.sameKeyAs(
      Macsec::StoredKey::of(Macsec::KeyBytes(reinterpret_cast<const uint8_t*>("radsec"), 6))));
  // Read again from the same files, it is the same server: a reload keeps its connections. A
  // reload that changes one says so.
  EXPECT_EQ(parseConfigText(overTls, "mkad.conf").radiusServers.at("tls"), radsec);
  EXPECT_EQ(configChanges(file, parseConfigText(servers + overTls, "mkad.conf")),
            (std::vector<std::string>{"radius tls added", "eap ports removed"}));
  EXPECT_EQ(
      configChanges(file, parseConfigText(server("aaa1", "timeout = 3\n") + server("aaa2", "", "2001:db8::10") +
                                              "[eap.ports]\nrole = \"authenticator\"\nradius = [\"aaa2\", \"aaa1\"]\n",
                                          "mkad.conf")),
      (std::vector<std::string>{"radius aaa1 changed", "radius aaa2 changed", "eap ports changed"}));

  const std::string authenticator = "[eap.ports]\nrole = \"authenticator\"\n";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"[global]\nfips = true\n" + server("aaa1", ""),
       "mkad.conf:3: radius.aaa1.transport: RADIUS over UDP rests on MD5, which fips = true does not allow"},
      {server("aaa1", "transport = \"tcp\"\n"), "mkad.conf:4: radius.aaa1.transport: must be \"udp\" or \"tls\""},
      {server("aaa1", "", "radius.example"), "mkad.conf:2: radius.aaa1.address: must be an IPv4 or IPv6 address"},
      {"[radius.aaa1]\naddress = \"192.0.2.10\"\n", "mkad.conf:1: radius.aaa1.secret-file: missing"},
      {server("aaa1", "", "192.0.2.10", open),
       "mkad.conf:3: radius.aaa1.secret-file: key file " + open + " is open to group or others"},
      {server("aaa1", "ca-file = \"ca.pem\"\n"),
       "mkad.conf:4: radius.aaa1.ca-file: takes effect only with transport = \"tls\""},
      {"[radius.tls]\naddress = \"192.0.2.11\"\ntransport = \"tls\"\n", "mkad.conf:1: radius.tls.ca-file: missing"},
      {server("aaa1", "timeout = 0\n"), "mkad.conf:4: radius.aaa1.timeout: must be a whole number from 1 to 60"},
      {authenticator + "radius = [\"aaa9\"]\n", "mkad.conf:3: eap.ports.radius: no radius section named aaa9"},
      {server("aaa1", "") + authenticator + "radius = [\"aaa1\", \"aaa1\"]\n",
       "mkad.conf:6: eap.ports.radius: names aaa1 twice"},
      {server("aaa1", "") + authenticator + "radius = [\"aaa1\"]\nca-file = \"ca.pem\"\n",
       "mkad.conf:7: eap.ports.ca-file: the authenticator passes EAP through to its RADIUS servers: no certificates "
       "of its own"},
      {authenticator + "nas-identifier = \"sw\"\n",
       "mkad.conf:3: eap.ports.nas-identifier: takes effect only with radius"},
      {"[eap.host]\nrole = \"supplicant\"\nradius = [\"aaa1\"]\n",
       "mkad.conf:3: eap.host.radius: takes effect only for an authenticator"},
  };
  for (const auto& [text, expected] : cases) {
    const std::string error = errorOf(text);
    EXPECT_EQ(error.rfind(expected, 0), 0u) << "got: " << error << "\nfor:\n" << text;
  }
}

TEST(ConfigFile, AKeyChainRunsTheKeyInUseAndSaysWhatIsWrongBeforeItHappens) {
  const std::string chain =
      "[keychain.lab]\n"
      "[[keychain.lab.key]]\nckn = \"02\"\ncak = \"" +
      kCak256 +
      "\"\nstart = 2026-11-26T11:00:00+01:00\n"
      "end = 2026-11-26T10:40:00Z\n"
      "[[keychain.lab.key]]\nckn = \"01\"\ncak = \"" +
      kCak +
      "\"\nstart = 2026-11-26T09:00:00Z\n"
      "end = 2026-11-26T10:10:00Z\n"
      "[[keychain.lab.key]]\nckn = \"03\"\ncak = \"" +
      kCak +
      "\"\nstart = 2026-11-26T11:00:00Z\n"
      "end = 2026-11-26T12:00:00Z\n"
      "[profile.lab]\nkey-chain = \"lab\"\n";
  ConfigFile file = parseConfigText(chain, "mkad.conf");
  const KeyChain& lab = file.keyChains.at("lab");
  ASSERT_EQ(lab.keys.size(), 3u);
  const double nine = 1795683600;  // 2026-11-26T09:00:00Z
  auto keyAt = [&](double at) { return chainKeyAt(lab, at) ? chainKeyAt(lab, at)->key.ckn.hex().stdString() : ""; };
  EXPECT_EQ(keyAt(nine - 1), "");
  EXPECT_EQ(keyAt(nine), "01");
  // Where keys overlap, the one started last is in use.
  EXPECT_EQ(keyAt(nine + 3600), "02");
  EXPECT_EQ(keyAt(nine + 6000), "");
  EXPECT_EQ(nextRollover(lab, nine + 60), nine + 3600);
  EXPECT_EQ(nextRollover(lab, nine + 3600), nine + 6000);
  EXPECT_EQ(nextRollover(lab, nine + 3 * 3600), std::nullopt);
  EXPECT_EQ(chainWarnings(lab, nine + 3000),
            (std::vector<std::string>{"key 01 overlaps key 02, which takes over at 2026-11-26T10:00:00Z",
                                      "no key from 2026-11-26T10:40:00Z to 2026-11-26T11:00:00Z"}));
  EXPECT_EQ(
      chainWarnings(lab, nine + 7200 + 60),
      (std::vector<std::string>{"key 01 expired at 2026-11-26T10:10:00Z", "key 02 expired at 2026-11-26T10:40:00Z",
                                "no key from 2026-11-26T12:00:00Z on: the last key ends there"}));
  // The profile runs the key in use, and nothing in a gap.
  EXPECT_EQ(chainKeysAre(file, nine + 10), std::vector<std::string>{"lab"});
  EXPECT_EQ(file.profiles.at("lab")->key().ckn, "01"_ckn);
  EXPECT_TRUE(chainKeysAre(file, nine + 20).empty());
  EXPECT_EQ(chainKeysAre(file, nine + 6000), std::vector<std::string>{"lab"});
  EXPECT_TRUE(file.profiles.at("lab")->key().empty());

  const std::string key = "[[keychain.lab.key]]\nckn = \"01\"\ncak = \"" + kCak + "\"\n";
  for (const auto& [text, expected] : std::vector<std::pair<std::string, std::string>>{
           {"[keychain.lab]\n", "mkad.conf:1: keychain.lab.key: missing: a key chain needs keys"},
           {key, "mkad.conf:1: keychain.lab.key[0].start: missing"},
           {key + "start = \"tomorrow\"\n", "mkad.conf:4: keychain.lab.key[0].start: must be a date and time"},
           {key + "start = 2026-11-26T10:00:00Z\nend = 2026-11-26T09:00:00Z\n",
            "mkad.conf:5: keychain.lab.key[0].end: must be after the key's start"},
           {key + "start = 2026-11-26T10:00:00Z\n" + key + "start = 2026-11-27T10:00:00Z\n",
            "mkad.conf:6: keychain.lab.key[1].ckn: another key of the chain has this name"},
           {"[profile.lab]\nkey-chain = \"none\"\n", "mkad.conf:2: profile.lab.key-chain: no key chain named none"},
           {key + "start = 2026-11-26T10:00:00Z\n[profile.lab]\nkey-chain = \"lab\"\nckn = \"01\"\n",
            "mkad.conf:7: profile.lab.ckn: the profile runs key chain lab: no key of its own"},
       }) {
    const std::string error = errorOf(text);
    EXPECT_EQ(error.rfind(expected, 0), 0u) << "got: " << error << "\nfor:\n" << text;
  }
}

}  // namespace
}  // namespace Macsec
