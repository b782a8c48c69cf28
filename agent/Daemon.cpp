#include "agent/Daemon.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "agent/Capabilities.h"
#include "agent/ConfigChanges.h"
#include "agent/DaemonLog.h"
#include "agent/FipsReport.h"
#include "agent/Metrics.h"
#include "agent/StateFile.h"
#include "agent/StatusReport.h"
#include "engine/SavedState.h"
#include "platform/Clock.h"

namespace Macsec {

Daemon::Daemon(EventLoop& loop, DaemonOptions options)
    : loop_(loop), options_(std::move(options)), config_(readConfigFile(options_.configPath)) {
  const bool kernel = config_.dataPlane == DataPlane::kernel;
  if (const std::vector<std::string> missing = missingCapabilities(kernel, config_.fips); !missing.empty()) {
    std::string names;
    for (const std::string& capability : missing) names += (names.empty() ? "" : "; ") + capability;
    throw std::runtime_error("cannot run without " + names + ": run it as root, or grant it what it lacks");
  }
  openControl();
  if (kernel) {
    std::string error;
    netlink_ = MacsecNetlink::open(error);
    // Never fall back: a host that asked for encryption gets none rather than a pretence of it.
    if (!netlink_) {
      throw std::runtime_error("the kernel data plane cannot run: " + error + ": load it with modprobe macsec" +
                               (config_.dataPlaneNamed
                                    ? std::string()
                                    : "; " + config_.path +
                                          " names no data plane, and the kernel's is the default; dataplane = "
                                          "\"emulated\" in [global] runs MKA without protecting any traffic"));
    }
  }
  engine_ = std::make_unique<Engine>(
      EngineOptions{.name = "mkad", .frames = true, .randomSeed = randomSeed(), .emulatedHardware = !kernel});
  if (kernel) {
    engine_->as([&] {
      kernel_ = KernelDataPlane::KernelDataPlaneIs(engine_->status(), engine_->hardware(), netlink_.get());
      kernel_->lowerIfindexOfIs([this](const Lanx::IntfId& intf) {
        const auto running = running_.find(intf.stringValue());
        const auto link = links_.find(intf.stringValue());
        return running != running_.end() && link != links_.end() ? link->second.ifindex : 0;
      });
      kernel_->linkNameOfIs([this](const Lanx::IntfId& intf) { return macsecName(intf.stringValue()); });
    });
    readSavedState();
    // The first periodic write waits a period, for the interfaces to come and go on from the state
    // read now.
    nextStateWrite_ = Zef::System::currentTime() + engine_->status()->mkpduPeriod();
    engine_->as([&] {
      keeper_ = StateKeeper::StateKeeperIs(engine_->status());
      keeper_->writeIs([this](const std::string& document) { writeState(document); });
    });
    kernelSelfTest_ = std::make_unique<KernelSelfTest>(engine_->hwStatus());
    engine_->selfTestLoopIs(
        [this](const Lanx::IntfId& intf, const std::string& frame, std::function<void(const std::string&)> answer) {
          return kernelSelfTest_ && kernelSelfTest_->frameIs(intf, frame, answer);
        });
  }
  engine_->frameTransmitterIs([this](const Lanx::IntfId& intf, std::string_view frame) { transmit(intf, frame); });
  radius_ = std::make_unique<RadiusSockets>(
      loop_, [this](const std::string& server, uint32_t channel, std::string_view bytes) {
        engine_->radiusAnswerIs(server, channel, bytes);
      });
  radius_->serversAre(config_.radiusServers);
  engine_->radiusTransmitterIs([this](const std::string& server, uint32_t channel, std::string_view packet) {
    radius_->send(server, channel, packet);
  });
  chainKeysAre(config_, Zef::System::currentTimeUtc());
  warnOfKeyChains();
  engine_->as([&] { applyConfigFile(config_, *engine_->config()); });
  linkWatcher_ =
      std::make_unique<LinkWatcher>([this](const LinkState& link) { linkChanged(link); },
                                    [this](const std::string& name) { linkGone(name); }, [this] { linksKnown(); });
  loop_.fdIs(linkWatcher_->fd(), EPOLLIN, [this](uint32_t) { linkWatcher_->readable(); });
  loop_.afterEventsIs([this] { runDueTimers(); });
  loop_.backgroundIs([this] { return programKernel(); });

  Zef::log(MKAD_STARTED, config_.path, dataPlaneName(config_.dataPlane));
  if (config_.dataPlane == DataPlane::emulated) {
    std::string names;
    for (const auto& [name, profile] : config_.interfaces) names += (names.empty() ? "" : ", ") + name;
    Zef::log(MKAD_EMULATED_DATA_PLANE, names);
  }
}

Daemon::~Daemon() {
  stop(stopAsked_.value_or(DaemonStop::handOver));
  if (keeper_) keeper_->hasNotificationActiveIs(false);
  keeper_ = nullptr;
  if (kernel_) kernel_->hasNotificationActiveIs(false);
  kernel_ = nullptr;
  loop_.afterEventsIs(nullptr);
  loop_.backgroundIs(nullptr);
  monitor_.reset();
  control_.reset();
  loop_.fdDel(linkWatcher_->fd());
  linkWatcher_.reset();
  for (auto& [name, running] : running_) loop_.fdDel(running.eapol->fd());
  running_.clear();
  radius_.reset();
  engine_.reset();
}

void Daemon::openControl() {
  const std::filesystem::path directory = std::filesystem::path(options_.socketPath).parent_path();
  // Members of the monitoring group must reach their socket, though not list the directory.
  if (const std::optional<std::string> wrong = ownDirectoryIs(directory.string(), config_.monitorGroup ? 0711 : 0700)) {
    throw std::runtime_error("control socket " + options_.socketPath + ": " + *wrong);
  }
  std::string error;
  lock_ = InstanceLock::take(options_.pidPath.empty() ? (directory / "mkad.pid").string() : options_.pidPath, error);
  if (!lock_) throw std::runtime_error(error);
  control_ = std::make_unique<ControlServer>(loop_, options_.socketPath,
                                             [this](const nlohmann::json& request) { return answer(request); });
  if (config_.monitorGroup) {
    monitor_ = std::make_unique<ControlServer>(
        loop_, (directory / "monitor.sock").string(),
        [this](const nlohmann::json& request) { return answerMonitor(request); }, config_.monitorGroup->id);
  }
}

uint64_t Daemon::randomSeed() {
  // The actors' random start differs from one run to the next, as it does between hosts.
  return static_cast<uint64_t>(Zef::System::currentTimeUtc() * 1e6);
}

std::optional<std::string> Daemon::reload() {
  options_.notify("RELOADING=1");
  struct Ready {
    const DaemonOptions& options;
    ~Ready() { options.notify("READY=1"); }
  } ready{options_};
  ConfigFile file;
  try {
    file = readConfigFile(options_.configPath);
    // What the engine was built on at the start cannot change under running sessions.
    if (file.dataPlane != config_.dataPlane) {
      throw ConfigFileError(options_.configPath + ": global.dataplane: changes only with a restart of mkad");
    }
    if (file.fips != config_.fips) {
      throw ConfigFileError(options_.configPath + ": global.fips: fips cannot change while running; restart mkad");
    }
    auto groupName = [](const ConfigFile& f) { return f.monitorGroup ? f.monitorGroup->name : std::string(); };
    if (groupName(file) != groupName(config_)) {
      throw ConfigFileError(options_.configPath + ": global.monitor-group: changes only with a restart of mkad");
    }
  } catch (const ConfigFileError& error) {
    Zef::log(MKAD_CONFIG_REFUSED, error.what());
    return error.what();
  }
  chainKeysAre(file, Zef::System::currentTimeUtc());
  for (const std::string& change : configChanges(config_, file)) Zef::log(MKAD_CONFIG_CHANGE, file.path, change);
  config_ = std::move(file);
  radius_->serversAre(config_.radiusServers);
  engine_->as([&] { applyConfigFile(config_, *engine_->config()); });
  interfacesFollowConfig();
  warnOfKeyChains();
  Zef::log(MKAD_CONFIG_RELOADED, config_.path);
  return std::nullopt;
}

void Daemon::stop(DaemonStop how) {
  if (stopped_) return;
  stopped_ = true;
  if (how == DaemonStop::handOver && kernel_) {
    // The kernel keeps protecting traffic with the links and SAs it holds, once told all the
    // engine asked; from here on nothing the engine does reaches it, and the next run takes over
    // from the state written now.
    engine_->as([&] {
      while (kernel_->programNext()) {
      }
      keeper_->writeNow();
    });
    keeper_->hasNotificationActiveIs(false);
    kernel_->hasNotificationActiveIs(false);
    Zef::log(MKAD_HANDED_OVER, kernel_->links().size());
    return;
  }
  // Shutting MACsec down takes every session down and the data plane's SAs with it; the engine
  // holds no key afterwards, and no state is left for a next run.
  if (keeper_) keeper_->hasNotificationActiveIs(false);
  keeper_ = nullptr;
  engine_->as([&] { engine_->config()->shutdownIs(true); });
  runDueTimers();
  size_t left = keysHeld();
  if (kernel_) {
    left += kernel_->keysHeld();
    kernel_->removeAll();
    // Links an earlier run made, which this one did not take over, go too.
    removeLeftLinks({});
    removeStateFile(options_.statePath);
  }
  Zef::log(MKAD_STOPPED, left);
}

void Daemon::readSavedState() {
  std::string why;
  if (const std::optional<std::string> text = readStateFile(options_.statePath, why)) {
    if (std::optional<std::map<Lanx::IntfId, nlohmann::json>> interfaces = interfacesOf(*text, why)) {
      resumable_ = std::move(*interfaces);
    }
  }
  if (!why.empty()) Zef::log(MKAD_STATE_UNUSABLE, options_.statePath, why);
  // The links the saved state carries over wait for their interfaces; any other link an earlier
  // run made holds keys that nobody will take over, and goes now.
  std::set<std::string> carried;
  for (const auto& [intf, saved] : resumable_) {
    if (config_.interfaces.contains(intf.stringValue())) carried.insert(macsecName(intf.stringValue()));
  }
  removeLeftLinks(carried);
}

void Daemon::removeLeftLinks(const std::set<std::string>& kept) {
  std::vector<std::pair<std::string, std::string>> refused;
  removeMarkedLinks(*netlink_, kept, refused);
  for (const auto& [name, error] : refused) Zef::log(MKAD_DATA_PLANE_ERROR, name, error);
}

void Daemon::writeState(const std::string& document) {
  const std::optional<std::string> error = writeStateFile(options_.statePath, document);
  // Said once, and again only after a write has succeeded in between.
  if (error && !stateWriteFailed_) Zef::log(MKAD_STATE_WRITE_FAILED, *error);
  stateWriteFailed_ = error.has_value();
}

bool Daemon::resume(const Lanx::IntfId& intf, const LinkState& link) {
  const auto saved = resumable_.find(intf);
  if (!kernel_ || saved == resumable_.end()) return false;
  const nlohmann::json state = std::move(saved->second);
  resumable_.erase(saved);
  // The link must be the one the last run made on this interface, with the interface's address
  // and port number 1, as the daemon gives every port.
  const std::string name = macsecName(intf.stringValue());
  const std::optional<MacsecLinkView> view = netlink_->linkView(name);
  KernelSci sci;
  std::copy(link.addr.bytes().begin(), link.addr.bytes().end(), sci.octets);
  sci.octets[7] = 1;
  std::string why;
  if (!view || view->mark != kLinkMark) {
    why = "its MACsec link " + name + " is gone";
  } else if (view->lowerIfindex != link.ifindex || !std::equal(sci.octets, sci.octets + 8, view->sci.octets)) {
    why = "its MACsec link " + name + " is no longer on the interface, or has another SCI";
  } else {
    engine_->hardwareIs(intf);
    engine_->as([&] { kernel_->adopt(intf, *view); });
    if (const std::optional<std::string> refused = resumeInterface(*engine_, intf, state)) {
      why = *refused;
      engine_->as([&] { kernel_->abandon(intf); });
    }
  }
  if (!why.empty()) {
    Zef::log(MKAD_INTF_AFRESH, intf, why);
    return false;
  }
  Zef::log(MKAD_INTF_RESUMED, intf, name);
  return true;
}

size_t Daemon::keysHeld() const {
  // What the data plane was asked to hold (each SA's key) and what each participant holds (its
  // CAK and what derives from it).
  size_t count = 0;
  const Zef::Ptr<Status>& status = engine_->status();
  for (auto it = status->cpStatusIter(); it; ++it) {
    const Zef::Ptr<CpStatus> cp = status->cpStatus(it.key());
    count += cp->txSak().empty() ? 0 : 1;
    count += cp->rxSakSize();
  }
  for (auto it = status->portStatusIter(); it; ++it) count += status->portStatus(it.key())->actorStatusSize();
  return count;
}

std::string Daemon::macsecName(const std::string& intf) const {
  const auto it = config_.macsecNames.find(intf);
  return it != config_.macsecNames.end() ? it->second : "ms" + intf;
}

void Daemon::linksKnown() {
  for (const auto& [name, profile] : config_.interfaces) {
    if (!links_.contains(name)) Zef::log(MKAD_INTF_WAITING, name);
  }
}

void Daemon::linkChanged(const LinkState& link) {
  links_[link.name] = link;
  if (config_.interfaces.contains(link.name)) interfaceIs(link);
}

void Daemon::linkGone(const std::string& name) {
  links_.erase(name);
  interfaceDel(name);
  if (config_.interfaces.contains(name)) Zef::log(MKAD_INTF_WAITING, name);
}

void Daemon::interfaceIs(const LinkState& link) {
  Running& running = running_[link.name];
  bool resumed = false;
  if (!running.eapol || running.eapol->ifindex() != link.ifindex) {
    if (running.eapol) loop_.fdDel(running.eapol->fd());
    std::string error;
    running.eapol = EapolSocket::open(link.ifindex, error);
    if (!running.eapol) {
      running_.erase(link.name);
      Zef::log(MKAD_INTF_FAILED, link.name, error);
      return;
    }
    const Lanx::IntfId intf(link.name);
    EapolSocket* eapol = running.eapol.get();
    loop_.fdIs(eapol->fd(), EPOLLIN, [this, intf, eapol](uint32_t) {
      eapol->readable([&](const uint8_t* frame, size_t length) { engine_->frameIs(intf, frame, length); });
    });
    resumed = resume(intf, link);
  }
  engine_->linkedInterfaceIs(Lanx::IntfId(link.name), link.addr, 1, link.up ? Interface::linkUp : Interface::linkDown);
  portAuthenticationIs(link.name);
  if (resumed) engine_->as([&] { kernel_->adopted(Lanx::IntfId(link.name)); });
}

void Daemon::portAuthenticationIs(const std::string& name) {
  // A profile whose keys come from 802.1X runs a port access entity of its EAP settings; the
  // engine keeps one whose settings are the same as they were.
  const Lanx::IntfId intf(name);
  const Profile& profile = *config_.profiles.at(config_.interfaces.at(name));
  if (!profile.dot1xEnabled()) {
    engine_->paeDel(intf);
    return;
  }
  engine_->paeIs(intf, config_.eaps.at(profile.eap().stdString()));
}

void Daemon::interfaceDel(const std::string& name) {
  const auto it = running_.find(name);
  if (it == running_.end()) return;
  loop_.fdDel(it->second.eapol->fd());
  running_.erase(it);
  engine_->linkedInterfaceDel(Lanx::IntfId(name));
  history_.forget(Lanx::IntfId(name));
  if (kernel_) kernel_->lowerGone(Lanx::IntfId(name));
}

void Daemon::interfacesFollowConfig() {
  std::vector<std::string> unconfigured;
  for (const auto& [name, running] : running_) {
    if (!config_.interfaces.contains(name)) unconfigured.push_back(name);
  }
  for (const std::string& name : unconfigured) interfaceDel(name);
  for (const auto& [name, profile] : config_.interfaces) {
    if (running_.contains(name)) {
      portAuthenticationIs(name);
      continue;
    }
    if (const auto link = links_.find(name); link != links_.end()) {
      interfaceIs(link->second);
    } else {
      Zef::log(MKAD_INTF_WAITING, name);
    }
  }
}

void Daemon::transmit(const Lanx::IntfId& intf, std::string_view frame) {
  // The saved state covers the frame's numbers before the frame leaves.
  if (keeper_) keeper_->beforeTransmit(intf);
  const auto it = running_.find(intf.stringValue());
  if (it != running_.end()) it->second.eapol->send(frame);
}

bool Daemon::programKernel() {
  if (!kernel_ || !kernel_->hasPendingWork()) return false;
  const double until = Zef::System::currentTime() + kKernelSlice;
  bool more = true;
  engine_->as([&] {
    while (more && Zef::System::currentTime() < until) more = kernel_->programNext();
  });
  return more;
}

void Daemon::runDueTimers() {
  while (engine_->serviceOneTimer()) {
  }
  double deadline = engine_->nextDeadline();
  if (kernel_) {
    // The kernel announces no packet numbers: they are read back at a modest rate, for the
    // engine's view of how far each key has gone.
    const double now = Zef::System::currentTime();
    if (now >= nextPacketNumberRead_) {
      readKernel();
      nextPacketNumberRead_ = now + kPacketNumberReadPeriod;
    }
    deadline = std::min(deadline, nextPacketNumberRead_);
  }
  if (keeper_) {
    engine_->as([&] {
      const double now = Zef::System::currentTime();
      if (now >= nextStateWrite_) {
        keeper_->writeNow();
        nextStateWrite_ = now + engine_->status()->mkpduPeriod();
      } else {
        keeper_->refresh();
      }
    });
    deadline = std::min(deadline, nextStateWrite_);
  }
  lookEachSecond();
  writeMetricsFile();
  if (config_.metricsFile) deadline = std::min(deadline, nextMetricsWrite_);
  // Key chains roll over on time, whether or not frames come.
  if (!config_.keyChains.empty()) deadline = std::min(deadline, nextLook_);
  loop_.deadlineIs(deadline);
}

void Daemon::warnOfKeyChains() {
  const double utc = Zef::System::currentTimeUtc();
  for (const auto& [name, chain] : config_.keyChains) {
    for (const std::string& warning : chainWarnings(chain, utc)) Zef::log(MKAD_KEY_CHAIN_WARNING, name, warning);
  }
}

void Daemon::followKeyChains(double utc) {
  const std::vector<std::string> changed = chainKeysAre(config_, utc);
  if (changed.empty()) return;
  for (const std::string& profile : changed) {
    const std::string& chain = config_.profileKeyChains.at(profile);
    const Cak& key = config_.profiles.at(profile)->key();
    if (key.empty()) {
      Zef::log(MKAD_KEY_CHAIN_NO_KEY, chain, profile);
    } else {
      Zef::log(MKAD_KEY_CHAIN_ROLLOVER, chain, key.ckn, profile);
    }
  }
  // Only the profiles whose key changed change: the new key's actor comes up beside the running one.
  engine_->as([&] { applyConfigFile(config_, *engine_->config()); });
}

void Daemon::lookEachSecond() {
  const double now = Zef::System::currentTime();
  if (now < nextLook_) return;
  nextLook_ = now + 1;
  const double utc = Zef::System::currentTimeUtc();
  followKeyChains(utc);
  size_t secured = 0;
  for (const auto& [name, running] : running_) {
    const Lanx::IntfId intf(name);
    history_.look(*engine_, intf, utc);
    secured += controlledPortState(engine_->status()->cpStatus(intf)) == "secured" ? 1 : 0;
  }
  std::string line = "STATUS=" + std::to_string(secured) + " of " + std::to_string(config_.interfaces.size()) +
                     " interfaces secured, on the " + dataPlaneName(config_.dataPlane) + " data plane";
  if (line == statusLine_) return;
  statusLine_ = std::move(line);
  options_.notify(statusLine_);
}

std::map<Lanx::IntfId, MacsecLinkCounters> Daemon::kernelCounters(std::map<int, MacsecLinkCounters> byIfindex) const {
  std::map<Lanx::IntfId, MacsecLinkCounters> counters;
  if (!kernel_) return counters;
  for (const auto& [intf, link] : kernel_->links()) {
    if (const auto it = byIfindex.find(link.ifindex); link.ifindex != 0 && it != byIfindex.end()) {
      counters[intf] = std::move(it->second);
    }
  }
  return counters;
}

void Daemon::readKernel() {
  // One dump for every link: the kernel announces no packet numbers, and its counters say whether
  // frames decrypt.
  std::map<int, MacsecLinkCounters> byIfindex = netlink_->linkCounters();
  engine_->as([&] { kernel_->txPacketNumbersAre(byIfindex); });
  for (const auto& [intf, counters] : kernelCounters(std::move(byIfindex))) {
    if (history_.countersAre(*engine_, intf, counters)) Zef::log(MKAD_NO_FRAME_DECRYPTS, intf);
  }
}

nlohmann::json Daemon::answer(const nlohmann::json& request) {
  const auto command = request.find("command");
  if (command == request.end() || !command->is_string()) return {{"error", "the request names no command"}};
  if (*command == "show") return show();
  if (*command == "counters") return counters();
  if (*command == "metrics") return {{"text", metrics()}};
  if (*command == "clear-counters") {
    const auto only = request.find("interface");
    if (only == request.end()) {
      engine_->as([&] { engine_->config()->clearMkaCountersInc(1); });
      return {{"ok", true}};
    }
    if (!only->is_string() || !config_.interfaces.contains(only->get<std::string>())) {
      return {{"error", "no such interface is configured"}};
    }
    // The interface's counters run on; their present values become what a reader subtracts.
    const Lanx::IntfId intf(only->get<std::string>());
    Memtab::MessageCounterData row = engine_->counters()->row(intf);
    row.intfId = intf;
    engine_->counters()->msgCounterSnapshotIs(row);
    return {{"ok", true}};
  }
  if (*command == "reauthenticate") {
    const auto intf = request.find("interface");
    if (intf == request.end() || !intf->is_string() || !config_.interfaces.contains(intf->get<std::string>())) {
      return {{"error", "no such interface is configured"}};
    }
    if (!engine_->paeReauthenticate(Lanx::IntfId(intf->get<std::string>()))) {
      return {{"error", "the interface runs no 802.1X: its profile names no eap section, or it is not there yet"}};
    }
    return {{"ok", true}};
  }
  if (*command == "shutdown") {
    const auto teardown = request.find("teardown");
    stopAsked_ = teardown != request.end() && *teardown == true ? DaemonStop::teardown : DaemonStop::handOver;
    loop_.stop();
    // Only the kernel's links outlive the daemon; the emulated plane has nothing to hand over.
    return {{"ok", true}, {"links-kept", kernel_ && *stopAsked_ == DaemonStop::handOver}};
  }
  if (*command == "reload") {
    if (const std::optional<std::string> error = reload()) return {{"error", *error}};
    return {{"ok", true}};
  }
  return {{"error", "unknown command"}};
}

nlohmann::json Daemon::answerMonitor(const nlohmann::json& request) {
  const auto command = request.find("command");
  if (command != request.end() && (*command == "show" || *command == "counters" || *command == "metrics")) {
    return answer(request);
  }
  return {
      {"error", "the monitoring socket answers show, counters and metrics only; ask on the control socket as root"}};
}

nlohmann::json Daemon::show() {
  // What changed since the last look is noted first, so that the view and its history agree.
  for (const auto& [name, running] : running_)
    history_.look(*engine_, Lanx::IntfId(name), Zef::System::currentTimeUtc());
  nlohmann::json reply = dataPlaneReport(config_.dataPlane);
  reply["config"] = config_.path;
  reply["fips"] = fipsReport(config_.fips);
  if (kernelSelfTest_) reply["fips"]["kernel-macsec-known-answer"] = kernelSelfTest_->report();
  nlohmann::json& interfaces = reply["interfaces"] = nlohmann::json::array();
  const std::map<Lanx::IntfId, MacsecLinkCounters> kernelCounts =
      kernel_ ? kernelCounters(netlink_->linkCounters()) : std::map<Lanx::IntfId, MacsecLinkCounters>();
  for (const auto& [name, profile] : config_.interfaces) {
    const Lanx::IntfId intf(name);
    const auto counts = kernelCounts.find(intf);
    nlohmann::json report =
        interfaceReport(*engine_, intf, running_.contains(name), config_.dataPlane, history_.of(intf),
                        counts == kernelCounts.end() ? nullptr : &counts->second);
    if (const Zef::Ptr<Dot1x::PaePortStatus const> pae = engine_->paeStatus()->port(intf)) {
      report["authentication"] = authenticationReport(*pae);
    }
    if (const auto chain = config_.profileKeyChains.find(profile); chain != config_.profileKeyChains.end()) {
      report["key-chain"] =
          keyChainReport(chain->second, config_.keyChains.at(chain->second), Zef::System::currentTimeUtc());
    }
    if (kernel_) {
      report["macsec-interface"] = macsecName(name);
      const auto link = kernel_->links().find(Lanx::IntfId(name));
      report["data-plane-errors"] = link == kernel_->links().end() ? 0 : link->second.errors;
    }
    interfaces.push_back(report);
  }
  if (!config_.radiusServers.empty()) {
    reply["radius-servers"] = radiusServersReport(*engine_->paeStatus(), config_.radiusServers);
  }
  return reply;
}

nlohmann::json Daemon::counters(bool sinceCleared) const {
  nlohmann::json reply{{"interfaces", nlohmann::json::array()}};
  for (const auto& [name, profile] : config_.interfaces) {
    reply["interfaces"].push_back(countersReport(*engine_, Lanx::IntfId(name), sinceCleared));
  }
  // How long the daemon answered nothing at worst: a round of its loop, and what it did in it.
  reply["longest-loop-turn"] = loop_.longestTurn();
  // The cost of the kernel data plane, however many links it runs.
  if (netlink_) {
    const MacsecKernel::Traffic traffic = netlink_->traffic();
    reply["netlink"] = {{"sent", traffic.sent}, {"received", traffic.received}};
  }
  return reply;
}

std::string Daemon::metrics() { return metricsText(show(), counters(false), options_.version); }

void Daemon::writeMetricsFile() {
  const double now = Zef::System::currentTime();
  if (!config_.metricsFile || now < nextMetricsWrite_) return;
  nextMetricsWrite_ = now + config_.metricsFile->interval;
  // Readable by the collector, which need not run as root.
  const std::optional<std::string> error = writeFileWhole(config_.metricsFile->path, metrics(), 0644);
  // Said once, and again only after a write has succeeded in between.
  if (error && !metricsWriteFailed_) Zef::log(MKAD_METRICS_WRITE_FAILED, *error);
  metricsWriteFailed_ = error.has_value();
}

}  // namespace Macsec
