#pragma once

// mkad: one engine on the host's real interfaces. It reads the configuration file, follows the
// kernel's interfaces through rtnetlink, carries MKPDUs through an EAPOL socket on each configured
// interface, runs the engine's timers from the event loop and answers the control socket. Reload
// (SIGHUP or a request) reads the whole file first and applies it only if it has no error.

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "agent/ConfigFile.h"
#include "agent/ControlServer.h"
#include "agent/EapolSocket.h"
#include "agent/EventLoop.h"
#include "agent/KernelDataPlane.h"
#include "agent/KernelSelfTest.h"
#include "agent/LinkWatcher.h"
#include "agent/MacsecNetlink.h"
#include "agent/RadiusSockets.h"
#include "agent/RuntimeFiles.h"
#include "agent/SessionHistory.h"
#include "engine/Engine.h"
#include "engine/StateKeeper.h"

namespace Macsec {

struct DaemonOptions {
  std::string configPath = "/etc/mkad/mkad.toml";
  // The control socket, in a directory of the daemon's own, beside the monitoring socket
  // ("monitor.sock", for the configuration's monitoring group) and the lock that keeps a second
  // daemon out (the PID file, "mkad.pid" unless named).
  std::string socketPath = "/run/mkad/mkad.sock";
  std::string pidPath;
  // Where the state for the next run is kept (with the kernel data plane), kept current as keys
  // change, so that a restart, or a crash, takes the links over without a hit.
  std::string statePath = "/run/mkad/state.json";
  // The version the metrics give.
  std::string version;
  // Tells the service manager how the daemon is: "RELOADING=1", "READY=1", "STATUS=...".
  std::function<void(const std::string&)> notify = [](const std::string&) {};
};

// How the daemon stops: handing its MACsec links over to the next run, which takes them over from
// the saved state with the keys the kernel holds, or for good, removing every link and key.
enum class DaemonStop { handOver, teardown };

class Daemon {
 public:
  // Reads and applies the configuration, opens rtnetlink, the data plane and the control socket.
  // Throws ConfigFileError for a configuration that cannot run, std::runtime_error for a data
  // plane or a control socket that cannot be had.
  Daemon(EventLoop& loop, DaemonOptions options);
  // Stops as stop() was asked to, or else hands the links over to the next run.
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  const Engine& engine() const noexcept { return *engine_; }
  // Reads the file again and applies it; on any error nothing changes and the error is returned.
  std::optional<std::string> reload();
  // Handing over writes the saved state and leaves the kernel's links and SAs as they are. For good,
  // MACsec stops on every interface, every link mkad made goes, with the saved state; it logs how
  // many keys the engine and its data plane still hold: none, unless something is wrong.
  void stop(DaemonStop how);
  // What the control socket asked for, once it asked the daemon to stop.
  std::optional<DaemonStop> stopAsked() const noexcept { return stopAsked_; }
  // Answers one request of the control socket.
  nlohmann::json answer(const nlohmann::json& request);
  // Answers one request of the monitoring socket: what reads state, nothing that changes it.
  nlohmann::json answerMonitor(const nlohmann::json& request);

 private:
  // An interface MKA runs on, with the socket of its EAPOL frames.
  struct Running {
    std::unique_ptr<EapolSocket> eapol;
  };

  static uint64_t randomSeed();
  // The directory of the sockets, the lock in it, and the sockets, before anything else is touched.
  void openControl();
  // The MACsec link of an interface in the kernel data plane.
  std::string macsecName(const std::string& intf) const;
  void linksKnown();
  void linkChanged(const LinkState& link);
  void linkGone(const std::string& name);
  // Starts or follows MKA on a configured interface that the kernel has, and stops it.
  void interfaceIs(const LinkState& link);
  void interfaceDel(const std::string& name);
  // Runs 802.1X on a running interface if its profile's keys come from it, with its EAP settings;
  // stops it if not.
  void portAuthenticationIs(const std::string& name);
  // Brings the running interfaces in line with the configured ones, after the configuration
  // changed.
  void interfacesFollowConfig();
  // Takes over the MACsec link that the last run left on an interface, and puts the interface's
  // saved state back, before MKA starts on it; false if the interface starts afresh.
  bool resume(const Lanx::IntfId& intf, const LinkState& link);
  // The saved state of the last run: read at the start, and the links it names kept until their
  // interfaces come; links an earlier run made that it does not name go.
  void readSavedState();
  void writeState(const std::string& document);
  // Removes the links an earlier run made but those in `kept`; the kernel's refusals are logged.
  void removeLeftLinks(const std::set<std::string>& kept);
  void transmit(const Lanx::IntfId& intf, std::string_view frame);
  void runDueTimers();
  // Tells the kernel what the engine asked of it, for a few milliseconds between the loop's rounds
  // of events; true while more is left.
  bool programKernel();
  // Key chains: what the operators should hear of them (at the start and at a reload), and the
  // key in use of each, put in its profiles when it changes.
  void warnOfKeyChains();
  void followKeyChains(double utc);
  // Once a second: what changed in each session, and the service manager's status line.
  void lookEachSecond();
  // The kernel's counters of every MACsec link, in one dump; and what they say of the sessions.
  std::map<Lanx::IntfId, MacsecLinkCounters> kernelCounters(std::map<int, MacsecLinkCounters> byIfindex) const;
  // Once a period: the transmit SAs' packet numbers, and what the counters say of the sessions.
  void readKernel();
  nlohmann::json show();
  nlohmann::json counters(bool sinceCleared = true) const;
  std::string metrics();
  // The metrics file for node exporter's textfile collector, when the configuration names one.
  void writeMetricsFile();
  size_t keysHeld() const;

  EventLoop& loop_;
  DaemonOptions options_;
  ConfigFile config_;
  std::unique_ptr<Engine> engine_;
  // The sockets to the RADIUS servers of authenticators that pass EAP through.
  std::unique_ptr<RadiusSockets> radius_;
  // The kernel data plane, when the configuration chose it.
  std::unique_ptr<MacsecNetlink> netlink_;
  Zef::Ptr<KernelDataPlane> kernel_;
  // The kernel plane's side of the power-on self test, which runs in FIPS mode.
  std::unique_ptr<KernelSelfTest> kernelSelfTest_;
  double nextPacketNumberRead_ = 0;
  static constexpr double kPacketNumberReadPeriod = 5;
  // How long the kernel is told what the engine asked, at most, before the loop hears frames and
  // timers again. A netlink round trip that makes an SA is slow next to an MKPDU, and a switch
  // whose key servers all make a key at once asks for hundreds of them.
  static constexpr double kKernelSlice = 0.05;
  // The saved state, kept current with the kernel data plane, and what the last run left of it for
  // interfaces that have not come yet. It is also written every MKPDU period, so that a crash
  // leaves the peers' message numbers recent.
  Zef::Ptr<StateKeeper> keeper_;
  std::map<Lanx::IntfId, nlohmann::json> resumable_;
  double nextStateWrite_ = 0;
  bool stateWriteFailed_ = false;
  bool stopped_ = false;
  std::string statusLine_;
  double nextLook_ = 0;
  double nextMetricsWrite_ = 0;
  bool metricsWriteFailed_ = false;
  SessionHistory history_;
  std::optional<DaemonStop> stopAsked_;
  std::map<std::string, LinkState> links_;  // every interface of the kernel, by name
  std::map<std::string, Running> running_;  // configured interfaces that the kernel has
  std::unique_ptr<LinkWatcher> linkWatcher_;
  std::unique_ptr<InstanceLock> lock_;
  std::unique_ptr<ControlServer> control_;
  std::unique_ptr<ControlServer> monitor_;
};

}  // namespace Macsec
