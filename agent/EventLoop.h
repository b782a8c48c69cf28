#pragma once

// The daemon's one loop: every file descriptor, the one timer and the signals it handles are
// registered here, and the thread sleeps in epoll until one of them has something. Signals are
// read from a signalfd, so no work is ever done in a signal handler.

#include <sys/epoll.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>

namespace Macsec {

class EventLoop {
 public:
  using Handler = std::function<void(uint32_t events)>;

  // Blocks `signals` for the thread and delivers them through the loop instead. Ends the process
  // with a message if the kernel gives none of epoll, timerfd or signalfd.
  explicit EventLoop(std::initializer_list<int> signals);
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Watches a descriptor for `events` (EPOLLIN, EPOLLOUT); a second call changes what is watched
  // and the handler. The caller owns the descriptor and removes it before it closes it.
  void fdIs(int fd, uint32_t events, Handler handler);
  void fdDel(int fd);

  // The one timer, at an absolute time of the monotonic clock in seconds; infinity disarms it.
  void deadlineIs(double monotonicTime);
  void timerHandlerIs(std::function<void()> handler) { timerHandler_ = std::move(handler); }
  void signalHandlerIs(std::function<void(int signal)> handler) { signalHandler_ = std::move(handler); }
  // Runs after every round of events, for work that follows whatever happened (arming the timer
  // for the engine's next deadline).
  void afterEventsIs(std::function<void()> work) { afterEvents_ = std::move(work); }
  // Runs `beat` every `periodSeconds` while the loop runs, whatever else it does: a supervisor's
  // watchdog hears that the loop still turns.
  void heartbeatIs(double periodSeconds, std::function<void()> beat);
  // Work done a slice at a time between rounds of events, so that it never holds them back: the
  // loop calls `slice` once per round, and does not sleep while it answers that more is left.
  void backgroundIs(std::function<bool()> slice) { background_ = std::move(slice); }

  // The longest a round of the loop has taken, from the end of one wait to the start of the next:
  // how long the loop answered nothing.
  double longestTurn() const { return longestTurn_; }

  // Waits and dispatches until stop().
  void run();
  void stop() { running_ = false; }

 private:
  void timerReadable();
  void signalReadable();

  int epollFd_ = -1;
  int timerFd_ = -1;
  int signalFd_ = -1;
  double deadline_ = -1;
  bool running_ = false;
  // A handler may remove descriptors, its own included, so each is held by a counted pointer that
  // a round of dispatch keeps alive.
  std::map<int, std::shared_ptr<Handler>> handlers_;
  std::function<void()> timerHandler_;
  std::function<void(int)> signalHandler_;
  std::function<void()> afterEvents_;
  double heartbeatPeriod_ = 0;
  double nextHeartbeat_ = 0;
  std::function<void()> heartbeat_;
  std::function<bool()> background_;
  double longestTurn_ = 0;
};

}  // namespace Macsec
