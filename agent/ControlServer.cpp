#include "agent/ControlServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace Macsec {

namespace {

std::runtime_error failure(const std::string& path, const char* what) {
  return std::runtime_error("control socket " + path + ": " + what + ": " + std::strerror(errno));
}

nlohmann::json errorReply(const std::string& what) { return nlohmann::json{{"error", what}}; }

}  // namespace

ControlServer::ControlServer(EventLoop& loop, std::string path, Answer answer, std::optional<gid_t> group)
    : loop_(loop), path_(std::move(path)), answer_(std::move(answer)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    throw failure(path_, "path");
  }
  std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
  listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listenFd_ < 0) throw failure(path_, "socket");
  // A socket left by an earlier run that did not end cleanly is replaced; anything else at the path,
  // or a socket a daemon still answers on, is not.
  if (struct stat existing{}; lstat(path_.c_str(), &existing) == 0) {
    std::string refusal;
    if (!S_ISSOCK(existing.st_mode)) {
      refusal = "something other than a socket is there; it is left as it is";
    } else if (connect(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 || errno == EAGAIN) {
      refusal = "a daemon answers on it";
    }
    if (!refusal.empty()) {
      close(listenFd_);
      throw std::runtime_error("control socket " + path_ + ": " + refusal);
    }
    close(listenFd_);
    listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (listenFd_ < 0) throw failure(path_, "socket");
    unlink(path_.c_str());
  }
  const mode_t oldMask = umask(0177);
  int bound = bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  umask(oldMask);
  if (bound == 0 && group)
    bound = chown(path_.c_str(), static_cast<uid_t>(-1), *group) == 0 ? chmod(path_.c_str(), 0660) : -1;
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
