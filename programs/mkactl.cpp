// mkactl: asks a running mkad what it does, and tells it to clear its counters or reload its
// configuration, through the daemon's control socket.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

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

std::string keyCell(const Json& key) {
  if (key.is_null()) return "-";
  return std::to_string(key["key-number"].get<uint32_t>()) + " (AN " + std::to_string(key["an"].get<int>()) + ")";
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
    std::string server = cell(intf["key-server"]);
    if (intf["is-key-server"].get<bool>()) server += " (self)";
    std::string plane = intf["data-plane"].get<std::string>();
    if (!intf["encrypted"].get<bool>()) plane += " (not encrypted)";
    if (intf.contains("macsec-interface")) plane += " on " + intf["macsec-interface"].get<std::string>();
    rows.push_back({cell(intf["name"]), cell(intf.value("profile", Json())), cell(intf["status"]), cell(intf["ckn"]),
                    server, cell(intf["live-peers"]), keyCell(intf["latest-key"]), keyCell(intf["old-key"]),
                    cell(intf["tx-sa"]), cell(intf["rx-sa"]), cell(intf["controlled-port"]), plane});
  }
  printTable({"interface", "profile", "status", "ckn", "key server", "peers", "latest key", "old key", "tx SA", "rx SA",
              "controlled port", "data plane"},
             rows);
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
  CLI::App app{"mkactl: status and control of a running mkad"};
  app.add_option("--socket", socketPath, "mkad's control socket")->capture_default_str();
  app.require_subcommand(1);
  CLI::App* show = app.add_subcommand("show", "the session of each interface, its MKPDU counters or its settings");
  show->add_option("what", what, "'counters' for the MKPDU counters, 'settings' for the profiles' settings")
      ->check(CLI::IsMember({"counters", "settings"}));
  show->add_flag("--json", json, "as JSON");
  CLI::App* clear = app.add_subcommand("clear", "clear the MKPDU counters");
  clear->add_option("what", what, "'counters'")->required()->check(CLI::IsMember({"counters"}));
  CLI::App* reload = app.add_subcommand("reload", "read the configuration file again and apply it if it is valid");
  bool teardown = false;
  CLI::App* shutdown = app.add_subcommand(
      "shutdown", "stop mkad, leaving its MACsec links protecting traffic for the next run to take over");
  shutdown->add_flag("--teardown", teardown, "stop for good: remove every MACsec link and key that mkad made");
  CLI11_PARSE(app, argc, argv);

  if (*show) {
    const Json reply = ask(socketPath, {{"command", what == "counters" ? "counters" : "show"}}, true);
    if (json) {
      std::cout << reply.dump(2) << "\n";
    } else if (what == "counters") {
      showFields(reply, "counter", nullptr);
    } else if (what == "settings") {
      showFields(reply, "setting", "settings");
    } else {
      showSessions(reply);
    }
  } else if (*clear) {
    ask(socketPath, {{"command", "clear-counters"}});
    std::cout << "counters cleared\n";
  } else if (*reload) {
    ask(socketPath, {{"command", "reload"}});
    std::cout << "configuration reloaded\n";
  } else if (*shutdown) {
    ask(socketPath, {{"command", "shutdown"}, {"teardown", teardown}});
    std::cout << (teardown ? "mkad stops for good\n" : "mkad stops; its links stay for the next run\n");
  }
  return 0;
}
