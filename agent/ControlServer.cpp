#include "agent/ControlServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace Macsec {

namespace {

std::runtime_error failure(const std::string& path, const char* what) {
  return std::runtime_error("control socket " + path + ": " + what + ": " + std::strerror(errno));
}

nlohmann::json errorReply(const std::string& what) { return nlohmann::json{{"error", what}}; }

}  // namespace

ControlServer::ControlServer(EventLoop& loop, std::string path, Answer answer)
    : loop_(loop), path_(std::move(path)), answer_(std::move(answer)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    throw failure(path_, "path");
  }
  std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
  // The directory is the daemon's own: nobody else may even look up the socket in it.
  const std::filesystem::path directory = std::filesystem::path(path_).parent_path();
  if (!directory.empty()) {
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (chmod(directory.c_str(), 0700) < 0) throw failure(path_, "directory");
  }
  listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listenFd_ < 0) throw failure(path_, "socket");
  // A socket left by an earlier run that did not end cleanly is replaced.
  unlink(path_.c_str());
  const mode_t oldMask = umask(0177);
  const int bound = bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  umask(oldMask);
  if (bound < 0 || listen(listenFd_, 16) < 0) {
    const int saved = errno;
    close(listenFd_);
    errno = saved;
    throw failure(path_, "bind");
  }
  loop_.fdIs(listenFd_, EPOLLIN, [this](uint32_t) { accept(); });
}

ControlServer::~ControlServer() {
  while (!clients_.empty()) drop(clients_.begin()->first);
  loop_.fdDel(listenFd_);
  close(listenFd_);
  unlink(path_.c_str());
}

void ControlServer::accept() {
  while (true) {
    const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    // A client that holds a connection open without asking must not shut others out for ever:
    // the oldest gives way.
    if (clients_.size() >= kMostClients) drop(clients_.begin()->first);
    clients_[fd] = Client{};
    loop_.fdIs(fd, EPOLLIN, [this, fd](uint32_t events) {
      if (events & EPOLLOUT) {
        writable(fd);
      } else {
        readable(fd);
      }
    });
  }
}

void ControlServer::readable(int fd) {
  Client& client = clients_.at(fd);
  char buffer[1024];
  const ssize_t length = read(fd, buffer, sizeof buffer);
  if (length == 0 || (length < 0 && errno != EAGAIN && errno != EINTR)) {
    drop(fd);
    return;
  }
  if (length < 0) return;
  client.in.append(buffer, static_cast<size_t>(length));
  const size_t end = client.in.find('\n');
  if (end == std::string::npos && client.in.size() <= kLongestRequest) return;
  const std::string line = end == std::string::npos ? std::string() : client.in.substr(0, end);
  client.out = end == std::string::npos || end > kLongestRequest
                   ? errorReply("request too long: at most " + std::to_string(kLongestRequest) + " bytes").dump()
                   : reply(line);
  client.out += '\n';
  client.in.clear();
  loop_.fdIs(fd, EPOLLOUT, [this, fd](uint32_t) { writable(fd); });
  writable(fd);
}

std::string ControlServer::reply(const std::string& line) {
  const nlohmann::json request = nlohmann::json::parse(line, nullptr, false);
  if (request.is_discarded() || !request.is_object()) return errorReply("the request is not a JSON object").dump();
  try {
    // Replies are ASCII: anything else a request carried back is escaped, never passed through.
    return answer_(request).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
  } catch (const nlohmann::json::exception& e) {
    return errorReply(std::string("bad request: ") + e.what())
        .dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
  }
}

void ControlServer::writable(int fd) {
  const auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  Client& client = it->second;
  while (client.sent < client.out.size()) {
    const ssize_t length =
        ::send(fd, client.out.data() + client.sent, client.out.size() - client.sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (length < 0 && errno == EAGAIN) return;
    if (length <= 0) break;
    client.sent += static_cast<size_t>(length);
  }
  drop(fd);
}

void ControlServer::drop(int fd) {
  loop_.fdDel(fd);
  close(fd);
  clients_.erase(fd);
}

}  // namespace Macsec
