#pragma once

// The control socket: a Unix stream socket that only its owner (root) may reach. A client sends one
// request, a JSON object on one line, and gets one reply, a JSON object on one line, after which
// the daemon closes the connection. Reading and writing never block the loop: a slow client is
// served a piece at a time, and a request that is not one line of JSON gets an error reply.

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "agent/EventLoop.h"

namespace Macsec {

class ControlServer {
 public:
  // Answers one request; what it returns is the reply.
  using Answer = std::function<nlohmann::json(const nlohmann::json& request)>;

  static constexpr size_t kLongestRequest = 4096;
  static constexpr size_t kMostClients = 32;

  // Listens at `path`, in a directory made owner-only; throws std::runtime_error if it cannot.
  ControlServer(EventLoop& loop, std::string path, Answer answer);
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
