#pragma once

// The control socket: a Unix stream socket that only its owner (root) may reach, or its owner and one
// group (the monitoring socket, whose answers change nothing). A client sends one
// request, a JSON object on one line, and gets one reply, a JSON object on one line, after which
// the daemon closes the connection. Reading and writing never block the loop: a slow client is
// served a piece at a time, and a request that is not one line of JSON gets an error reply.

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <sys/types.h>

#include <nlohmann/json.hpp>

#include "agent/EventLoop.h"

namespace Macsec {

class ControlServer {
 public:
  // Answers one request; what it returns is the reply.
  using Answer = std::function<nlohmann::json(const nlohmann::json& request)>;

  static constexpr size_t kLongestRequest = 4096;
  static constexpr size_t kMostClients = 32;

  // Listens at `path`, in a directory that must be the daemon's own, reachable by its owner and by
  // `group` if one is given. Only a socket is replaced there, and only when no daemon answers on
  // it. Throws std::runtime_error if it cannot listen.
  ControlServer(EventLoop& loop, std::string path, Answer answer, std::optional<gid_t> group = std::nullopt);
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  const std::string& path() const noexcept { return path_; }

 private:
  struct Client {
    std::string in;
    std::string out;
    size_t sent = 0;
  };

  void accept();
  void readable(int fd);
  void writable(int fd);
  void drop(int fd);
  std::string reply(const std::string& line);

  EventLoop& loop_;
  std::string path_;
  Answer answer_;
  int listenFd_ = -1;
  std::map<int, Client> clients_;
};

}  // namespace Macsec
