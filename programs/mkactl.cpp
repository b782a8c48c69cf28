// mkactl: asks a running mkad what it does, and tells it to clear its counters or reload its
// configuration, through the daemon's control socket.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Version.h"

namespace {

using Json = nlohmann::json;

// The reply may take this long: the daemon answers from its loop, between other work.
constexpr int kReplyTimeoutMs = 5000;

[[noreturn]] void fail(const std::string& what) {
  std::cerr << "mkactl: " << what << "\n";
  std::exit(1);
}

// A connection to the socket at `path`, or -1 with errno saying why not.
int connectTo(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) fail("socket path too long: " + path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
  const int reason = errno;
  close(fd);
  errno = reason;
  return -1;
}

// Asks mkad on its control socket. A user who may not use it asks what only reads state on the
// monitoring socket beside it, if the daemon's monitoring group lets them.
Json ask(const std::string& path, const Json& request, bool readsOnly = false) {
  int fd = connectTo(path);
  if (fd < 0 && errno == EACCES && readsOnly) {
    const std::string monitor = path.substr(0, path.find_last_of('/') + 1) + "monitor.sock";
    fd = connectTo(monitor);
    if (fd < 0) fail("cannot reach mkad at " + path + " nor at " + monitor + ": " + std::strerror(errno));
  }
  if (fd < 0) fail("cannot reach mkad at " + path + ": " + std::strerror(errno));
  const std::string line = request.dump() + "\n";
  if (send(fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
    fail("cannot send to mkad: " + std::string(std::strerror(errno)));
  }
  std::string reply;
  char buffer[65536];
  pollfd waiting{fd, POLLIN, 0};
  while (poll(&waiting, 1, kReplyTimeoutMs) > 0) {
    const ssize_t length = read(fd, buffer, sizeof buffer);
    if (length <= 0) break;
    reply.append(buffer, static_cast<size_t>(length));
  }
  close(fd);
  const Json answer = Json::parse(reply, nullptr, false);
  if (answer.is_discarded() || !answer.is_object()) fail("no readable reply from mkad");
  if (answer.contains("error")) fail(answer["error"].get<std::string>());
  return answer;
}

std::string cell(const Json& value) {
  if (value.is_null()) return "-";
  if (value.is_string()) return value.get<std::string>();
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  return value.dump();
}

// Columns as wide as their widest cell, two blanks apart.
void printTable(const std::vector<std::string>& head, const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths;
  for (const std::string& title : head) widths.push_back(title.size());
  for (const auto& row : rows) {
    for (size_t c = 0; c < row.size(); ++c) widths[c] = std::max(widths[c], row[c].size());
  }
  auto print = [&](const std::vector<std::string>& row) {
    std::string line;
    for (size_t c = 0; c < row.size(); ++c) {
      line += row[c];
      if (c + 1 < row.size()) line += std::string(widths[c] - row[c].size() + 2, ' ');
    }
    std::cout << line << "\n";
  };
  print(head);
  for (const auto& row : rows) print(row);
}

// A key in words, its key server by the last eight digits of its member identifier, as the log
// names it: "key 2 (AN 1) of key server 8b1f03c2".
std::string keyWords(const Json& key) {
  const std::string mi = key["key-server-mi"].get<std::string>();
  return "key " + std::to_string(key["key-number"].get<uint32_t>()) + " (AN " + std::to_string(key["an"].get<int>()) +
         ") of key server " + mi.substr(mi.size() > 8 ? mi.size() - 8 : 0);
}

std::string keyCell(const Json& key) {
  if (key.is_null()) return "none";
  return std::to_string(key["key-number"].get<uint32_t>()) + " (AN " + std::to_string(key["an"].get<int>()) + ")";
}

// Counters that are not zero, "Name value" apart; "none" if all are.
std::string nonZero(const Json& counters) {
  std::string text;
  for (const auto& [name, value] : counters.items()) {
    if (value.get<uint64_t>() != 0) {
      text += (text.empty() ? "" : ", ") + name + " " + std::to_string(value.get<uint64_t>());
    }
  }
  return text.empty() ? "none" : text;
}

// A line of the details, broken after a separator (", " or "; ") to stay within 100 columns; what
// follows a break is indented under the line's start.
void printWrapped(const std::string& text, const std::string& separator) {
  constexpr size_t kColumns = 100;
  const size_t indent = text.find_first_not_of(' ') + 2;
  std::string line;
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = text.find(separator, start);
    const size_t next = end == std::string::npos ? text.size() : end + separator.size();
    const std::string part = text.substr(start, next - start);
    if (!line.empty() && line.size() + part.size() > kColumns) {
      while (!line.empty() && line.back() == ' ') line.pop_back();
      std::cout << line << "\n";
      line = std::string(indent, ' ');
    }
    line += part;
    start = next;
  }
  std::cout << line << "\n";
}

// The port's 802.1X authentication in words: its side and state, the peer it authenticated, and
// the last failure.
void showAuthentication(const Json& auth) {
  std::string line = "  802.1X " + cell(auth["role"]) + ": " + cell(auth["state"]);
  if (auth["reauthenticating"].get<bool>()) line += ", re-authenticating";
  if (!auth["peer-identity"].is_null()) line += ", peer identity " + cell(auth["peer-identity"]);
  if (!auth["authenticated-at"].is_null()) {
    // Passed through, the exchange's TLS was the RADIUS server's.
    line += auth["radius-server"].is_null()
                ? ", last by " + cell(auth["peer-subject"]) + " with " + cell(auth["tls-version"])
                : ", last through RADIUS server " + cell(auth["radius-server"]);
    line += " at " + cell(auth["authenticated-at"]);
  }
  if (!auth["next-reauthentication"].is_null()) line += ", next " + cell(auth["next-reauthentication"]);
  printWrapped(line, ", ");
  if (const Json& failure = auth["last-failure"]; !failure.is_null()) {
    printWrapped("  802.1X last failure: " + cell(failure["at"]) + ", " + cell(failure["reason"]), ", ");
  }
}

// The RADIUS servers, one row each, below the interfaces.
void showRadiusServers(const Json& servers) {
  std::vector<std::vector<std::string>> rows;
  for (const Json& server : servers) {
    const Json& counts = server["counters"];
    rows.push_back({cell(server["name"]), cell(server["address"]), cell(server["transport"]),
                    server["up"].get<bool>() ? "up" : "down",
                    server["round-trip-ms"].is_null() ? "-" : cell(server["round-trip-ms"]) + " ms",
                    cell(counts["requests"]), cell(counts["accepts"]), cell(counts["rejects"]),
                    cell(counts["timeouts"])});
  }
  std::cout << "\n";
  printTable(
      {"RADIUS server", "address", "transport", "state", "round trip", "requests", "accepts", "rejects", "timeouts"},
      rows);
}

// One interface in words, below the table.
void showDetails(const Json& intf) {
  std::cout << "\n" << intf["name"].get<std::string>() << ": " << cell(intf["status"]);
  if (intf.contains("profile")) std::cout << ", profile " << cell(intf["profile"]);
  std::cout << ", " << cell(intf["macsec-cipher-suite"])
            << (intf["confidentiality"].get<bool>() ? ", confidentiality offset " + cell(intf["confidentiality-offset"])
                                                    : std::string(", integrity only (not encrypted)"))
            << "\n";
  if (intf.contains("frames-warning")) std::cout << "  WARNING: " << cell(intf["frames-warning"]) << "\n";
  if (const auto chain = intf.find("key-chain"); chain != intf.end()) {
    std::cout << "  key chain " << cell((*chain)["name"]) << ": "
              << ((*chain)["key-in-use"].is_null() ? "no key in use"
                                                   : "key " + cell((*chain)["key-in-use"]) + " in use")
              << ", next rollover " << ((*chain)["next-rollover"].is_null() ? "none" : cell((*chain)["next-rollover"]))
              << "\n";
    for (const Json& warning : (*chain)["warnings"]) std::cout << "  key chain WARNING: " << cell(warning) << "\n";
  }
  if (const auto auth = intf.find("authentication"); auth != intf.end()) showAuthentication(*auth);
  std::cout << "  this port: SCI " << cell(intf["sci"]) << ", member " << cell(intf["member-identifier"]) << "\n";
  std::cout << "  CKN: " << cell(intf["ckn"]) << "\n";
  const Json& server = intf["key-server"];
  std::cout << "  key server: "
            << (server.is_null() ? "none"
                                 : (intf["is-key-server"].get<bool>() ? "this port, SCI " : "SCI ") +
                                       cell(server["sci"]) + ", priority " + cell(server["key-server-priority"]))
            << "\n";
  const Json& transmit = intf["transmit-key"];
  printWrapped(
      "  transmits on: " +
          (transmit.is_null()
               ? "no key"
               : keyWords(transmit) + (transmit.contains("since") ? ", since " + cell(transmit["since"]) : "") +
                     (transmit.contains("next-pn") ? ", next PN " + cell(transmit["next-pn"]) : "")),
      ", ");
  std::string receive;
  for (const Json& key : intf["receive-keys"]) receive += (receive.empty() ? "" : "; ") + keyWords(key);
  std::cout << "  receives on: " << (receive.empty() ? "no key" : receive) << "\n";
  std::cout << "  key on its way in: " << (intf["incoming-key"].is_null() ? "none" : keyWords(intf["incoming-key"]))
            << "\n";
  for (const Json& peer : intf["peers"]) {
    printWrapped("  peer " + cell(peer["sci"]) + ": " + cell(peer["state"]) + ", member " +
                     cell(peer["member-identifier"]) + ", priority " + cell(peer["key-server-priority"]) +
                     (peer["transmit-pn"].is_null() ? "" : ", transmits at PN " + cell(peer["transmit-pn"])),
                 ", ");
  }
  if (intf["peers"].empty()) std::cout << "  peers: none\n";
  if (const Json& change = intf["last-change"]; !change.is_null()) {
    printWrapped("  last change: " + cell(change["at"]) + ", " + cell(change["reason"]), "; ");
  }
  std::string link = cell(intf["data-plane"]) + " data plane";
  if (intf.contains("macsec-interface")) link += ", MACsec link " + cell(intf["macsec-interface"]);
  if (!intf["encrypted"].get<bool>()) link += " (encrypts nothing)";
  std::cout << "  " << link << "\n";
  if (!intf.contains("kernel-counters")) return;
  const Json& kernel = intf["kernel-counters"];
  printWrapped("    SecY: " + nonZero(kernel["secy"]), ", ");
  printWrapped("    tx SC: " + nonZero(kernel["tx-sc"]), ", ");
  for (const auto& [an, counters] : kernel["tx-sa"].items())
    printWrapped("    tx SA " + an + ": " + nonZero(counters), ", ");
  for (const Json& sc : kernel["rx-sc"]) {
    printWrapped("    rx SC " + cell(sc["sci"]) + ": " + nonZero(sc["counters"]), ", ");
    for (const auto& [an, counters] : sc["rx-sa"].items()) {
      printWrapped("    rx SA " + an + ": " + nonZero(counters), ", ");
    }
  }
}

void showSessions(const Json& reply) {
  std::cout << "data plane: " << reply["data-plane"].get<std::string>();
  if (reply.contains("warning")) std::cout << " -- " << reply["warning"].get<std::string>();
  std::cout << "\n";
  if (reply.contains("fips") && reply["fips"].value("requested", false)) {
    const Json& fips = reply["fips"];
    std::cout << "fips: crypto library " << fips["crypto-library"].get<std::string>() << "; kernel FIPS mode "
              << fips["kernel-fips-mode"].get<std::string>() << ", its gcm(aes) self test "
              << fips["kernel-gcm-aes-self-test"].get<std::string>() << "\n";
  }
  std::cout << "\n";
  std::vector<std::vector<std::string>> rows;
  for (const Json& intf : reply["interfaces"]) {
    const Json& server = intf["key-server"];
    const std::string serverCell = server.is_null()                    ? "-"
                                   : intf["is-key-server"].get<bool>() ? "self"
                                                                       : cell(server["sci"]);
    rows.push_back({cell(intf["name"]), cell(intf["status"]), serverCell,
                    std::to_string(intf["live-peers"].get<size_t>()) + " live", keyCell(intf["transmit-key"]),
                    cell(intf["controlled-port"])});
  }
  printTable({"interface", "status", "key server", "peers", "transmit key", "controlled port"}, rows);
  for (const Json& intf : reply["interfaces"]) showDetails(intf);
  if (const auto servers = reply.find("radius-servers"); servers != reply.end()) showRadiusServers(*servers);
}

// One row per field, in the daemon's order, and one column per interface: the fields of each
// interface's entry, or of its `part` if one is named.
void showFields(const Json& reply, const std::string& what, const char* part) {
  const Json& interfaces = reply["interfaces"];
  auto fieldsOf = [part](const Json& intf) { return part ? intf.value(part, Json::object()) : intf; };
  std::vector<std::string> head{what};
  for (const Json& intf : interfaces) head.push_back(intf["name"].get<std::string>());
  std::vector<std::vector<std::string>> rows;
  const Json first = interfaces.empty() ? Json::object() : fieldsOf(interfaces.front());
  for (const auto& [name, value] : first.items()) {
    if (name == "name") continue;
    std::vector<std::string> row{name};
    for (const Json& intf : interfaces) row.push_back(cell(fieldsOf(intf).value(name, Json())));
    rows.push_back(row);
  }
  printTable(head, rows);
}

}  // namespace

int main(int argc, char** argv) {
  std::string socketPath = "/run/mkad/mkad.sock";
  bool json = false;
  std::string what;
  std::string only;
  CLI::App app{"mkactl: status and control of a running mkad"};
  app.set_version_flag("-V,--version", "mkactl " MKA_VERSION_TEXT);
  app.add_option("--socket", socketPath, "mkad's control socket")->capture_default_str();
  app.require_subcommand(1);
  CLI::App* show = app.add_subcommand("show", "the session of each interface, its MKPDU counters or its settings");
  show->add_option("what", what,
                   "'counters' for the MKPDU counters, 'settings' for the profiles' settings, or an interface's name");
  show->add_option("interface", only, "only this interface");
  show->add_flag("--json", json, "as JSON");
  CLI::App* clear = app.add_subcommand("clear", "clear the MKPDU counters");
  clear->add_option("what", what, "'counters'")->required()->check(CLI::IsMember({"counters"}));
  clear->add_option("interface", only, "only this interface's");
  CLI::App* metrics = app.add_subcommand("metrics", "the state and counters in the Prometheus text format");
  CLI::App* reauth = app.add_subcommand("reauth", "authenticate an interface's port with 802.1X anew, now");
  reauth->add_option("interface", only, "the interface")->required();
  CLI::App* reload = app.add_subcommand("reload", "read the configuration file again and apply it if it is valid");
  bool teardown = false;
  CLI::App* shutdown = app.add_subcommand(
      "shutdown", "stop mkad, leaving its MACsec links protecting traffic for the next run to take over");
  shutdown->add_flag("--teardown", teardown, "stop for good: remove every MACsec link and key that mkad made");
  CLI11_PARSE(app, argc, argv);

  if (*show) {
    // "show IFACE" names an interface where the view's name would go.
    if (!what.empty() && what != "counters" && what != "settings") {
      if (!only.empty()) fail("show takes one interface: " + what + " or " + only);
      only = what;
      what.clear();
    }
    Json reply = ask(socketPath, {{"command", what == "counters" ? "counters" : "show"}}, true);
    if (!only.empty()) {
      Json& interfaces = reply["interfaces"];
      interfaces.erase(
          std::remove_if(interfaces.begin(), interfaces.end(), [&](const Json& intf) { return intf["name"] != only; }),
          interfaces.end());
      if (interfaces.empty()) fail("no interface " + only + " is configured");
    }
    if (json) {
      std::cout << reply.dump(2) << "\n";
    } else if (what == "counters") {
      showFields(reply, "counter", nullptr);
      // A daemon of an earlier version, still running through an upgrade, does not report it.
      if (reply.contains("longest-loop-turn")) {
        std::cout << "longest turn of the daemon's loop: "
                  << std::lround(reply["longest-loop-turn"].get<double>() * 1000) << " ms\n";
      }
      if (reply.contains("netlink")) {
        std::cout << "netlink messages with the kernel: " << cell(reply["netlink"]["sent"]) << " sent, "
                  << cell(reply["netlink"]["received"]) << " received\n";
      }
    } else if (what == "settings") {
      showFields(reply, "setting", "settings");
    } else {
      showSessions(reply);
    }
  } else if (*clear) {
    Json request{{"command", "clear-counters"}};
    if (!only.empty()) request["interface"] = only;
    ask(socketPath, request);
    std::cout << (only.empty() ? "counters cleared\n" : only + "'s counters cleared\n");
  } else if (*metrics) {
    std::cout << ask(socketPath, {{"command", "metrics"}}, true)["text"].get<std::string>();
  } else if (*reauth) {
    ask(socketPath, {{"command", "reauthenticate"}, {"interface", only}});
    std::cout << only << ": authentication begins anew\n";
  } else if (*reload) {
    ask(socketPath, {{"command", "reload"}});
    std::cout << "configuration reloaded\n";
  } else if (*shutdown) {
    const Json reply = ask(socketPath, {{"command", "shutdown"}, {"teardown", teardown}});
    std::cout << (reply.value("links-kept", false) ? "mkad stops; its links stay for the next run\n"
                                                   : "mkad stops for good\n");
  }
  return 0;
}
