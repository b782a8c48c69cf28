#pragma once

// The daemon's files at run time: the directory of its control socket, which must be its own, and
// the lock that keeps a second daemon from taking the socket over.

#include <memory>
#include <optional>
#include <string>

namespace Macsec {

// Makes `directory` with `mode` if it does not exist (its parent must), or checks that the one
// there is the daemon's own: a real directory, owned by the daemon's user, and writable by nobody
// else. An existing directory keeps its mode. Returns what is wrong, if anything.
std::optional<std::string> ownDirectoryIs(const std::string& directory, unsigned mode);

// An exclusive lock on a file that holds the locking daemon's PID, for as long as the daemon runs.
// The file goes with the lock.
class InstanceLock {
 public:
  // Takes the lock, and writes this process's PID into the file; if another process holds it,
  // `error` names its PID.
  static std::unique_ptr<InstanceLock> take(const std::string& path, std::string& error);
  ~InstanceLock();
  InstanceLock(const InstanceLock&) = delete;
  InstanceLock& operator=(const InstanceLock&) = delete;

 private:
  InstanceLock(std::string path, int fd) : path_(std::move(path)), fd_(fd) {}

  std::string path_;
  int fd_;
};

}  // namespace Macsec
