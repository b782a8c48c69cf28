#include "agent/EventLoop.h"

#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "platform/Fatal.h"

namespace Macsec {

namespace {

[[noreturn]] void environmentFailed(const char* what) {
  Zef::fatal(std::string("mkad: ") + what + ": " + std::strerror(errno));
}

double monotonicNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void watch(int epollFd, int op, int fd, uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  if (epoll_ctl(epollFd, op, fd, &event) < 0) environmentFailed("epoll_ctl");
}

}  // namespace

EventLoop::EventLoop(std::initializer_list<int> signals) {
  epollFd_ = epoll_create1(EPOLL_CLOEXEC);
  if (epollFd_ < 0) environmentFailed("epoll_create1");
  timerFd_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  if (timerFd_ < 0) environmentFailed("timerfd_create");
  sigset_t set;
  sigemptyset(&set);
  for (int signal : signals) {
    // A signal the parent ignored would never reach the descriptor: it is ours to handle.
    std::signal(signal, SIG_DFL);
    sigaddset(&set, signal);
  }
  if (sigprocmask(SIG_BLOCK, &set, nullptr) < 0) environmentFailed("sigprocmask");
  signalFd_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signalFd_ < 0) environmentFailed("signalfd");
  fdIs(timerFd_, EPOLLIN, [this](uint32_t) { timerReadable(); });
  fdIs(signalFd_, EPOLLIN, [this](uint32_t) { signalReadable(); });
}

EventLoop::~EventLoop() {
  close(signalFd_);
  close(timerFd_);
  close(epollFd_);
}

void EventLoop::fdIs(int fd, uint32_t events, Handler handler) {
  const bool known = handlers_.contains(fd);
  handlers_[fd] = std::make_shared<Handler>(std::move(handler));
  watch(epollFd_, known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, events);
}

void EventLoop::fdDel(int fd) {
  if (handlers_.erase(fd) == 0) return;
  epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
}

void EventLoop::deadlineIs(double monotonicTime) {
  if (monotonicTime == deadline_) return;
  deadline_ = monotonicTime;
  itimerspec spec{};
  if (std::isfinite(monotonicTime)) {
    // A time already past still arms the timer: zero would disarm it.
    const double at = std::max(monotonicTime, 1e-9);
    spec.it_value.tv_sec = static_cast<time_t>(at);
    spec.it_value.tv_nsec = static_cast<long>((at - std::floor(at)) * 1e9);
    if (spec.it_value.tv_sec == 0 && spec.it_value.tv_nsec == 0) spec.it_value.tv_nsec = 1;
  }
  if (timerfd_settime(timerFd_, TFD_TIMER_ABSTIME, &spec, nullptr) < 0) environmentFailed("timerfd_settime");
}

void EventLoop::timerReadable() {
  uint64_t expirations = 0;
  if (read(timerFd_, &expirations, sizeof expirations) < 0) return;
  deadline_ = -1;  // spent: the next deadlineIs() arms it again, even for the same time
  if (timerHandler_) timerHandler_();
}

void EventLoop::signalReadable() {
  signalfd_siginfo info{};
  while (read(signalFd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    if (signalHandler_) signalHandler_(static_cast<int>(info.ssi_signo));
  }
}

void EventLoop::heartbeatIs(double periodSeconds, std::function<void()> beat) {
  heartbeatPeriod_ = periodSeconds;
  heartbeat_ = std::move(beat);
  nextHeartbeat_ = monotonicNow();
}

void EventLoop::run() {
  running_ = true;
  // Room for every descriptor: each one ready is served in the same round, however many
  // interfaces there are, rather than waiting for a round of its own.
  std::vector<epoll_event> events;
  double turnStart = monotonicNow();
  while (running_) {
    if (afterEvents_) afterEvents_();
    if (!running_) break;
    const bool busy = background_ && background_();
    // The wait ends at the next heartbeat at the latest, and at once while background work is left.
    int timeoutMs = busy ? 0 : -1;
    const double now = monotonicNow();
    longestTurn_ = std::max(longestTurn_, now - turnStart);
    if (heartbeat_) {
      if (now >= nextHeartbeat_) {
        heartbeat_();
        nextHeartbeat_ = now + heartbeatPeriod_;
      }
      if (!busy) timeoutMs = static_cast<int>((nextHeartbeat_ - now) * 1000) + 1;
    }
    events.resize(handlers_.size());
    const int ready = epoll_wait(epollFd_, events.data(), static_cast<int>(events.size()), timeoutMs);
    turnStart = monotonicNow();
    if (ready < 0) {
      if (errno == EINTR) continue;
      environmentFailed("epoll_wait");
    }
    for (int i = 0; i < ready && running_; ++i) {
      const auto it = handlers_.find(events[i].data.fd);
      if (it == handlers_.end()) continue;  // removed by an earlier handler of this round
      const std::shared_ptr<Handler> handler = it->second;
      (*handler)(events[i].events);
    }
  }
}

}  // namespace Macsec
