// mkad: the MKA daemon. Reads its configuration, secures the configured interfaces with MKA and
// answers mkactl on its control socket until SIGTERM or SIGINT; SIGHUP reloads the configuration.
// It runs in the foreground, as systemd and containers expect, unless --daemon detaches it.
// Stopped so, it leaves the kernel's MACsec links protecting traffic for the next run, which takes
// them over; `mkactl shutdown --teardown` or `mkad --teardown` stops for good.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "Version.h"
#include "agent/ConfigFile.h"
#include "agent/CoreDumps.h"
#include "agent/Daemon.h"
#include "agent/DaemonLog.h"
#include "agent/EventLoop.h"
#include "agent/KernelKnownAnswer.h"
#include "agent/KernelLink.h"
#include "agent/MacsecNetlink.h"
#include "agent/StateFile.h"
#include "platform/Clock.h"
#include "platform/Trace.h"

namespace {

struct Options {
  Macsec::DaemonOptions daemon;
  bool foreground = false;
  bool detach = false;
  bool syslog = false;
  bool check = false;
  bool selfTest = false;
  bool teardown = false;
  bool ifStopped = false;
  std::string trace;
};

// Leaves the terminal behind. The parent waits until the child is ready and exits with its
// verdict, so that a configuration error still fails the command that started the daemon.
class Detacher {
 public:
  void detach() {
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) < 0) throw std::runtime_error("cannot detach: no pipe");
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("cannot detach: cannot fork");
    if (child > 0) {
      close(pipeFds[1]);
      char ready = 0;
      // The child writes one byte once ready; if it fails first, the pipe closes empty.
      _exit(read(pipeFds[0], &ready, 1) == 1 ? 0 : 1);
    }
    close(pipeFds[0]);
    readyFd_ = pipeFds[1];
    setsid();
    // A daemon holds no directory busy; its paths were made absolute before.
    if (chdir("/") < 0) throw std::runtime_error("cannot detach: cannot change to /");
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
    if (null > STDERR_FILENO) close(null);
  }

  // Tells the parent, and lets standard error go: from now on the log goes to syslog only.
  void ready() {
    if (readyFd_ < 0) return;
    const char ready = 1;
    (void)!write(readyFd_, &ready, 1);
    close(readyFd_);
    readyFd_ = -1;
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDERR_FILENO);
    if (null > STDERR_FILENO) close(null);
  }

 private:
  int readyFd_ = -1;
};

int checkOnly(const std::string& path) {
  try {
    const Macsec::ConfigFile file = Macsec::readConfigFile(path);
    std::cout << file.path << ": valid: " << file.profiles.size() << " profiles, " << file.interfaces.size()
              << " interfaces, the " << Macsec::dataPlaneName(file.dataPlane) << " data plane\n";
    for (const auto& [name, chain] : file.keyChains) {
      for (const std::string& warning : Macsec::chainWarnings(chain, Zef::System::currentTimeUtc())) {
        std::cout << "key chain " << name << ": " << warning << "\n";
      }
    }
    return 0;
  } catch (const Macsec::ConfigFileError& error) {
    Macsec::errorLine(error.what());
    return 1;
  }
}

// The kernel's MACsec against the known answers, both key lengths, both directions.
int selfTestOnly() {
  bool passed = true;
  for (const int bits : {128, 256}) {
    for (const bool encrypt : {true, false}) {
      const Macsec::KnownAnswer answer = Macsec::kernelKnownAnswer(bits, encrypt);
      std::cout << "mkad: kernel MACsec " << answer.detail << "\n";
      passed = passed && answer.passed;
    }
  }
  return passed ? 0 : 1;
}

// Whether a daemon answers on the control socket.
bool daemonAnswers(const std::string& socketPath) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
  const bool answers = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return answers;
}

// Stops for good what a stopped mkad left: every MACsec link that mkad made, with its SAs, and the
// saved state. A running daemon is stopped for good through its control socket instead.
int teardownOnly(const Macsec::DaemonOptions& options, bool ifStopped) {
  if (daemonAnswers(options.socketPath)) {
    if (ifStopped) return 0;
    Macsec::errorLine("a daemon answers on " + options.socketPath + ": stop it with mkactl shutdown --teardown");
    return 1;
  }
  std::string error;
  const std::unique_ptr<Macsec::MacsecNetlink> netlink = Macsec::MacsecNetlink::open(error);
  if (!netlink) {
    Macsec::errorLine(error);
    return 1;
  }
  std::vector<std::pair<std::string, std::string>> refused;
  const size_t removed = Macsec::removeMarkedLinks(*netlink, {}, refused);
  for (const auto& [name, reason] : refused) Macsec::errorLine(name + ": " + reason);
  Macsec::removeStateFile(options.statePath);
  std::cout << "mkad: " << removed << " MACsec links removed\n";
  return refused.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app{"mkad: the MACsec Key Agreement daemon"};
  app.set_version_flag("-V,--version", "mkad " MKA_VERSION_TEXT);
  app.add_option("-c,--config", options.daemon.configPath, "configuration file")->capture_default_str();
  app.add_option("--socket", options.daemon.socketPath, "control socket")->capture_default_str();
  app.add_option("--state", options.daemon.statePath, "the state kept for the next run")->capture_default_str();
  app.add_flag("--teardown", options.teardown,
               "remove every MACsec link that a stopped mkad left, and its saved state, and exit");
  app.add_flag("--if-stopped", options.ifStopped, "with --teardown: do nothing, and succeed, if a daemon runs");
  app.add_flag("-f,--foreground", options.foreground, "stay in the foreground (the default)");
  app.add_flag("-d,--daemon", options.detach, "detach from the terminal, and log to syslog")->excludes("--foreground");
  app.add_option("--pid-file", options.daemon.pidPath,
                 "the PID file, locked while mkad runs (default: mkad.pid beside the control socket)");
  app.add_flag("--syslog", options.syslog, "log to syslog instead of standard error");
  app.add_flag("--check", options.check, "check the configuration file and exit");
  app.add_flag("--self-test", options.selfTest,
               "test the kernel's MACsec against known answers in a network namespace of its own, and exit");
  app.add_option("--trace", options.trace, "debug trace rules, as MKA_TRACE takes them: 'Macsec*=3'");
  CLI11_PARSE(app, argc, argv);

  if (!options.trace.empty() && !Zef::traceSettingsIs(options.trace)) {
    Macsec::errorLine("--trace: not a list of facility=level rules: " + options.trace);
    return 2;
  }
  // Before any key is read: keys in memory must not end up in a core file.
  if (!Macsec::keepMemoryOutOfCoreDumps()) {
    Macsec::errorLine(std::string("cannot keep keys out of core dumps: ") + std::strerror(errno));
    return 1;
  }
  if (options.check) return checkOnly(options.daemon.configPath);
  if (options.selfTest) return selfTestOnly();
  if (options.teardown) return teardownOnly(options.daemon, options.ifStopped);
  // Reloads read the same file wherever the daemon's working directory is.
  options.daemon.configPath = std::filesystem::absolute(options.daemon.configPath).string();
  options.daemon.socketPath = std::filesystem::absolute(options.daemon.socketPath).string();
  options.daemon.statePath = std::filesystem::absolute(options.daemon.statePath).string();
  if (!options.daemon.pidPath.empty())
    options.daemon.pidPath = std::filesystem::absolute(options.daemon.pidPath).string();

  Detacher detacher;
  try {
    if (options.detach) detacher.detach();
    Macsec::operatorLogIs(options.syslog || options.detach ? Macsec::LogTarget::syslog
                                                           : Macsec::LogTarget::standardError);
    Macsec::EventLoop loop({SIGTERM, SIGINT, SIGHUP});
    signal(SIGPIPE, SIG_IGN);
    options.daemon.notify = [](const std::string& state) { sd_notify(0, state.c_str()); };
    options.daemon.version = MKA_VERSION_TEXT;
    Macsec::Daemon daemon(loop, options.daemon);
    loop.signalHandlerIs([&](int signal) {
      if (signal == SIGHUP) {
        daemon.reload();
        return;
      }
      sd_notify(0, "STOPPING=1");
      loop.stop();
    });
    // Under a watchdog (WatchdogSec= in the unit) the loop says it still turns twice a period.
    if (uint64_t watchdogUsec = 0; sd_watchdog_enabled(0, &watchdogUsec) > 0) {
      loop.heartbeatIs(static_cast<double>(watchdogUsec) / 2e6, [] { sd_notify(0, "WATCHDOG=1"); });
    }
    sd_notify(0, "READY=1");
    detacher.ready();
    loop.run();
  } catch (const std::exception& error) {
    Macsec::errorLine(error.what());
    return 1;
  }
  return 0;
}
