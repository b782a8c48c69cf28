#include "agent/Daemon.h"

#include <algorithm>

#include "agent/Capabilities.h"
#include "agent/ConfigChanges.h"
#include "agent/DaemonLog.h"
#include "agent/FipsReport.h"
#include "agent/StatusReport.h"
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
  if (kernel) {
    std::string error;
    netlink_ = MacsecNetlink::open(error);
    // Never fall back: a host that asked for encryption gets none rather than a pretence of it.
    if (!netlink_) throw std::runtime_error("the kernel data plane cannot run: " + error);
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
    kernelSelfTest_ = std::make_unique<KernelSelfTest>(engine_->hwStatus());
    engine_->selfTestLoopIs(
        [this](const Lanx::IntfId& intf, const std::string& frame, std::function<void(const std::string&)> answer) {
          return kernelSelfTest_ && kernelSelfTest_->frameIs(intf, frame, answer);
        });
  }
  engine_->frameTransmitterIs([this](const Lanx::IntfId& intf, std::string_view frame) { transmit(intf, frame); });
  engine_->as([&] { applyConfigFile(config_, *engine_->config()); });
  linkWatcher_ =
      std::make_unique<LinkWatcher>([this](const LinkState& link) { linkChanged(link); },
                                    [this](const std::string& name) { linkGone(name); }, [this] { linksKnown(); });
  loop_.fdIs(linkWatcher_->fd(), EPOLLIN, [this](uint32_t) { linkWatcher_->readable(); });
  control_ = std::make_unique<ControlServer>(loop_, options_.socketPath,
                                             [this](const nlohmann::json& request) { return answer(request); });
  loop_.afterEventsIs([this] { runDueTimers(); });

  Zef::log(MKAD_STARTED, config_.path, dataPlaneName(config_.dataPlane));
  if (config_.dataPlane == DataPlane::emulated) {
    std::string names;
    for (const auto& [name, profile] : config_.interfaces) names += (names.empty() ? "" : ", ") + name;
    Zef::log(MKAD_EMULATED_DATA_PLANE, names);
  }
}

Daemon::~Daemon() {
  stop();
  if (kernel_) kernel_->hasNotificationActiveIs(false);
  kernel_ = nullptr;
  loop_.afterEventsIs(nullptr);
  control_.reset();
  loop_.fdDel(linkWatcher_->fd());
  linkWatcher_.reset();
  for (auto& [name, running] : running_) loop_.fdDel(running.eapol->fd());
  running_.clear();
  engine_.reset();
}

uint64_t Daemon::randomSeed() {
  // The actors' random start differs from one run to the next, as it does between hosts.
  return static_cast<uint64_t>(Zef::System::currentTimeUtc() * 1e6);
}

std::optional<std::string> Daemon::reload() {
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
  } catch (const ConfigFileError& error) {
    Zef::log(MKAD_CONFIG_REFUSED, error.what());
    return error.what();
  }
  for (const std::string& change : configChanges(config_, file)) Zef::log(MKAD_CONFIG_CHANGE, file.path, change);
  config_ = std::move(file);
  engine_->as([&] { applyConfigFile(config_, *engine_->config()); });
  interfacesFollowConfig();
  Zef::log(MKAD_CONFIG_RELOADED, config_.path);
  return std::nullopt;
}

size_t Daemon::stop() {
  // Shutting MACsec down takes every session down and the data plane's SAs with it; the engine
  // holds no key afterwards.
  engine_->as([&] { engine_->config()->shutdownIs(true); });
  runDueTimers();
  size_t left = keysHeld();
  if (kernel_) {
    left += kernel_->keysHeld();
    kernel_->removeAll();
  }
  Zef::log(MKAD_STOPPED, left);
  return left;
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
  }
  engine_->linkedInterfaceIs(Lanx::IntfId(link.name), link.addr, 1, link.up ? Interface::linkUp : Interface::linkDown);
}

void Daemon::interfaceDel(const std::string& name) {
  const auto it = running_.find(name);
  if (it == running_.end()) return;
  loop_.fdDel(it->second.eapol->fd());
  running_.erase(it);
  engine_->linkedInterfaceDel(Lanx::IntfId(name));
  if (kernel_) kernel_->lowerGone(Lanx::IntfId(name));
}

void Daemon::interfacesFollowConfig() {
  std::vector<std::string> unconfigured;
  for (const auto& [name, running] : running_) {
    if (!config_.interfaces.contains(name)) unconfigured.push_back(name);
  }
  for (const std::string& name : unconfigured) interfaceDel(name);
  for (const auto& [name, profile] : config_.interfaces) {
    if (running_.contains(name)) continue;
    if (const auto link = links_.find(name); link != links_.end()) {
      interfaceIs(link->second);
    } else {
      Zef::log(MKAD_INTF_WAITING, name);
    }
  }
}

void Daemon::transmit(const Lanx::IntfId& intf, std::string_view frame) {
  const auto it = running_.find(intf.stringValue());
  if (it != running_.end()) it->second.eapol->send(frame);
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
      engine_->as([&] { kernel_->readTxPacketNumbers(); });
      nextPacketNumberRead_ = now + kPacketNumberReadPeriod;
    }
    deadline = std::min(deadline, nextPacketNumberRead_);
  }
  loop_.deadlineIs(deadline);
}

nlohmann::json Daemon::answer(const nlohmann::json& request) {
  const auto command = request.find("command");
  if (command == request.end() || !command->is_string()) return {{"error", "the request names no command"}};
  if (*command == "show") return show();
  if (*command == "counters") return counters();
  if (*command == "clear-counters") {
    engine_->as([&] { engine_->config()->clearMkaCountersInc(1); });
    return {{"ok", true}};
  }
  if (*command == "reload") {
    if (const std::optional<std::string> error = reload()) return {{"error", *error}};
    return {{"ok", true}};
  }
  return {{"error", "unknown command"}};
}

nlohmann::json Daemon::show() const {
  nlohmann::json reply = dataPlaneReport(config_.dataPlane);
  reply["config"] = config_.path;
  reply["fips"] = fipsReport(config_.fips);
  if (kernelSelfTest_) reply["fips"]["kernel-macsec-known-answer"] = kernelSelfTest_->report();
  nlohmann::json& interfaces = reply["interfaces"] = nlohmann::json::array();
  for (const auto& [name, profile] : config_.interfaces) {
    nlohmann::json report = interfaceReport(*engine_, Lanx::IntfId(name), running_.contains(name), config_.dataPlane);
    if (kernel_) {
      report["macsec-interface"] = macsecName(name);
      const auto link = kernel_->links().find(Lanx::IntfId(name));
      report["data-plane-errors"] = link == kernel_->links().end() ? 0 : link->second.errors;
    }
    interfaces.push_back(report);
  }
  return reply;
}

nlohmann::json Daemon::counters() const {
  nlohmann::json reply{{"interfaces", nlohmann::json::array()}};
  for (const auto& [name, profile] : config_.interfaces) {
    reply["interfaces"].push_back(countersReport(*engine_, Lanx::IntfId(name)));
  }
  return reply;
}

}  // namespace Macsec
