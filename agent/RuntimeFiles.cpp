#include "agent/RuntimeFiles.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Macsec {

std::optional<std::string> ownDirectoryIs(const std::string& directory, unsigned mode) {
  if (mkdir(directory.c_str(), mode) == 0) return std::nullopt;
  if (errno != EEXIST) return directory + ": cannot be made: " + std::strerror(errno);
  struct stat info {};
  if (lstat(directory.c_str(), &info) < 0) return directory + ": " + std::strerror(errno);
  if (!S_ISDIR(info.st_mode)) return directory + ": not a directory";
  if (info.st_uid != geteuid()) return directory + ": owned by another user; mkad uses only a directory of its own";
  if (info.st_mode & (S_IWGRP | S_IWOTH)) {
    return directory + ": writable by others; mkad uses only a directory of its own";
  }
  return std::nullopt;
}

std::unique_ptr<InstanceLock> InstanceLock::take(const std::string& path, std::string& error) {
  while (true) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH);
    if (fd < 0) {
      error = path + ": " + std::strerror(errno);
      return nullptr;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) < 0) {
      const int reason = errno;
      char text[32] = {};
      const ssize_t length = pread(fd, text, sizeof text - 1, 0);
      close(fd);
      std::string pid(text, length > 0 ? static_cast<size_t>(length) : 0);
      while (!pid.empty() && (pid.back() == '\n' || pid.back() == ' ')) pid.pop_back();
      error = reason == EWOULDBLOCK ? "another mkad runs (PID " + (pid.empty() ? "unknown" : pid) + "), holding " + path
                                    : path + ": " + std::strerror(reason);
      return nullptr;
    }
    // The daemon that held the lock may have removed the file between the opening and the locking:
    // a lock on a file no longer at the path keeps nobody out, so it is taken again.
    struct stat held {
    }, named{};
    if (fstat(fd, &held) < 0 || stat(path.c_str(), &named) < 0 || held.st_ino != named.st_ino ||
        held.st_dev != named.st_dev) {
      close(fd);
      continue;
    }
    const std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(fd, 0) < 0 || pwrite(fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
      error = path + ": " + std::strerror(errno);
      close(fd);
      return nullptr;
    }
    return std::unique_ptr<InstanceLock>(new InstanceLock(path, fd));
  }
}

InstanceLock::~InstanceLock() {
  unlink(path_.c_str());
  close(fd_);
}

}  // namespace Macsec
