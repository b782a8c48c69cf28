#include "agent/Metrics.h"

#include <cstdint>
#include <map>
#include <sstream>
#include <utility>
#include <vector>

namespace Macsec {

namespace {

using Labels = std::vector<std::pair<std::string, std::string>>;

// A label value with backslashes, quotes and line ends escaped.
std::string escaped(const std::string& value) {
  std::string text;
  for (const char c : value) {
    if (c == '\\' || c == '"') text += '\\';
    text += c == '\n' ? std::string("\\n") : std::string(1, c);
  }
  return text;
}

// The samples of each metric, written together under one HELP and TYPE.
class Families {
 public:
  void add(const std::string& name, const char* type, const char* help, const Labels& labels, double value) {
    Family& family = families_[name];
    family.type = type;
    family.help = help;
    std::ostringstream sample;
    sample << name;
    if (!labels.empty()) {
      sample << "{";
      for (size_t i = 0; i < labels.size(); ++i) {
        sample << (i ? "," : "") << labels[i].first << "=\"" << escaped(labels[i].second) << "\"";
      }
      sample << "}";
    }
    sample.precision(15);
    sample << " " << value << "\n";
    family.samples += sample.str();
  }

  std::string text() const {
    std::string out;
    for (const auto& [name, family] : families_) {
      out += "# HELP " + name + " " + family.help + "\n# TYPE " + name + " " + family.type + "\n" + family.samples;
    }
    return out;
  }

 private:
  struct Family {
    const char* type;
    const char* help;
    std::string samples;
  };
  std::map<std::string, Family> families_;
};

// The kernel's counters, split by unit: packets and octets.
void addKernelCounters(Families& f, const std::string& base, const char* help, const Labels& labels,
                       const nlohmann::json& counters) {
  for (const auto& [name, value] : counters.items()) {
    const bool octets = name.find("Octets") != std::string::npos;
    Labels with = labels;
    with.emplace_back("counter", name);
    f.add(base + (octets ? "_octets_total" : "_packets_total"), "counter", help, with, value.get<double>());
  }
}

void addSession(Families& f, const nlohmann::json& intf) {
  const std::string name = intf["name"].get<std::string>();
  const Labels session{{"interface", name}, {"ckn", intf["ckn"].is_string() ? intf["ckn"].get<std::string>() : ""}};
  f.add("mkad_secured", "gauge", "Whether the interface's controlled port is secured by MKA (1) or not (0).", session,
        intf["controlled-port"] == "secured" ? 1 : 0);
  f.add("mkad_key_server", "gauge", "Whether this port is the session's key server.", session,
        intf["is-key-server"].get<bool>() ? 1 : 0);
  f.add("mkad_live_peers", "gauge", "Peers that are live in the session.", session, intf["live-peers"].get<double>());
  f.add("mkad_potential_peers", "gauge", "Peers heard but not yet live.", session,
        intf["potential-peers"].get<double>());
  f.add("mkad_secured_seconds", "gauge", "Seconds since the port was last secured; 0 while it is not.", session,
        intf["secured-seconds"].is_number() ? intf["secured-seconds"].get<double>() : 0);
  f.add("mkad_transmit_keys_total", "counter", "Keys the port has started to transmit on, the first one included.",
        session, intf["transmit-key-changes"].get<double>());
  if (intf["transmit-key"].is_object()) {
    f.add("mkad_transmit_key_number", "gauge", "The key number of the key the port transmits on.",
          {session[0], session[1], {"an", std::to_string(intf["transmit-key"]["an"].get<int>())}},
          intf["transmit-key"]["key-number"].get<double>());
  }
  f.add("mkad_frames_not_decrypting", "gauge",
        "Whether the peers report a key in use while no frame from them decrypts (1) or not (0).", {session[0]},
        intf.contains("frames-warning") ? 1 : 0);
  f.add("mkad_frames_not_decrypting_total", "counter",
        "Times the peers reported a key in use while no frame from them decrypted.", {session[0]},
        intf["frames-not-decrypting"].get<double>());
  if (!intf.contains("kernel-counters")) return;
  const nlohmann::json& kernel = intf["kernel-counters"];
  const Labels link{{"interface", name}};
  addKernelCounters(f, "mkad_macsec_secy", "The kernel's counters of the interface's MACsec SecY.", link,
                    kernel["secy"]);
  addKernelCounters(f, "mkad_macsec_tx_sc", "The kernel's counters of the transmit channel.", link, kernel["tx-sc"]);
  for (const auto& [an, counters] : kernel["tx-sa"].items()) {
    addKernelCounters(f, "mkad_macsec_tx_sa", "The kernel's counters of a transmit SA.",
                      {{"interface", name}, {"an", an}}, counters);
  }
  for (const nlohmann::json& sc : kernel["rx-sc"]) {
    const Labels channel{{"interface", name}, {"sci", sc["sci"].get<std::string>()}};
    addKernelCounters(f, "mkad_macsec_rx_sc", "The kernel's counters of a receive channel.", channel, sc["counters"]);
    for (const auto& [an, counters] : sc["rx-sa"].items()) {
      addKernelCounters(f, "mkad_macsec_rx_sa", "The kernel's counters of a receive SA.",
                        {channel[0], channel[1], {"an", an}}, counters);
    }
  }
}

// A port's 802.1X: whether it is authenticated, and through which RADIUS server, if any.
void addAuthentication(Families& f, const nlohmann::json& intf) {
  const nlohmann::json& auth = intf["authentication"];
  f.add("mkad_dot1x_authenticated", "gauge",
        "Whether the port's last 802.1X exchange succeeded (1) or not (0), by role and the RADIUS server that "
        "answered last.",
        {{"interface", intf["name"].get<std::string>()},
         {"role", auth["role"].get<std::string>()},
         {"radius_server", auth["radius-server"].is_string() ? auth["radius-server"].get<std::string>() : ""}},
        auth["state"] == "authenticated" ? 1 : 0);
}

void addRadiusServer(Families& f, const nlohmann::json& server) {
  const Labels labels{{"server", server["name"].get<std::string>()}};
  f.add("mkad_radius_server_up", "gauge", "Whether the RADIUS server is up (1), or down for its dead time (0).", labels,
        server["up"].get<bool>() ? 1 : 0);
  if (server["round-trip-ms"].is_number()) {
    f.add("mkad_radius_round_trip_seconds", "gauge",
          "The round trip of the server's last answer to a request sent once.", labels,
          server["round-trip-ms"].get<double>() / 1000);
  }
  const nlohmann::json& counts = server["counters"];
  for (const char* name : {"requests", "retransmissions", "accepts", "rejects", "challenges", "timeouts"}) {
    f.add(std::string("mkad_radius_") + name + "_total", "counter",
          "Of the RADIUS server: requests sent, requests sent again, answers by code, requests unanswered to the end.",
          labels, counts[name].get<double>());
  }
  for (const auto& [reason, count] : counts["discarded"].items()) {
    f.add("mkad_radius_discarded_total", "counter", "Answers of the RADIUS server refused, by reason.",
          {labels[0], {"reason", reason}}, count.get<double>());
  }
}

void addMkpduCounters(Families& f, const nlohmann::json& intf) {
  const Labels labels{{"interface", intf["name"].get<std::string>()}};
  for (const auto& [name, value] : intf.items()) {
    if (name == "name") continue;
    if (name == "in-mkpdu") {
      f.add("mkad_mkpdus_received_total", "counter", "MKPDUs received and taken.", labels, value.get<double>());
    } else if (name == "out-mkpdu") {
      f.add("mkad_mkpdus_sent_total", "counter", "MKPDUs sent.", labels, value.get<double>());
    } else {
      // Each refusal by its reason: the counter's name without its direction and kind.
      std::string reason = name == "out-mkpdu-errors" ? "not-sent" : name;
      for (const char* part : {"in-mkpdu-", "-errors"}) {
        if (const size_t at = reason.find(part); at != std::string::npos) reason.erase(at, std::string(part).size());
      }
      Labels with = labels;
      with.emplace_back("reason", reason);
      f.add("mkad_mkpdu_errors_total", "counter", "MKPDUs refused or not sent, by reason.", with, value.get<double>());
    }
  }
}

}  // namespace

std::string metricsText(const nlohmann::json& show, const nlohmann::json& counters, const std::string& version) {
  Families f;
  f.add("mkad_info", "gauge", "The daemon's version and data plane.",
        {{"version", version}, {"data_plane", show["data-plane"].get<std::string>()}}, 1);
  f.add("mkad_data_plane_encrypts", "gauge", "Whether the data plane protects traffic (0 for the emulated plane).", {},
        show["encrypted"].get<bool>() ? 1 : 0);
  for (const nlohmann::json& intf : show["interfaces"]) {
    addSession(f, intf);
    if (intf.contains("authentication")) addAuthentication(f, intf);
  }
  if (show.contains("radius-servers")) {
    for (const nlohmann::json& server : show["radius-servers"]) addRadiusServer(f, server);
  }
  for (const nlohmann::json& intf : counters["interfaces"]) addMkpduCounters(f, intf);
  f.add("mkad_longest_loop_turn_seconds", "gauge",
        "The longest the daemon's loop has taken over one round of frames, timers and kernel work.", {},
        counters["longest-loop-turn"].get<double>());
  if (counters.contains("netlink")) {
    for (const char* direction : {"sent", "received"}) {
      f.add("mkad_netlink_messages_total", "counter", "Netlink messages exchanged with the kernel's MACsec.",
            {{"direction", direction}}, counters["netlink"][direction].get<uint64_t>());
    }
  }
  return f.text();
}

}  // namespace Macsec
