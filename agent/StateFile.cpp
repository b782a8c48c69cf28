#include "agent/StateFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Macsec {

std::optional<std::string> readStateFile(const std::string& path, std::string& error) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT) error = path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  std::string text;
  char buffer[65536];
  for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) != 0;) {
    if (n < 0) {
      if (errno == EINTR) continue;
      error = path + ": " + std::strerror(errno);
      close(fd);
      return std::nullopt;
    }
    text.append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  return text;
}

std::optional<std::string> writeStateFile(const std::string& path, const std::string& text) {
  return writeFileWhole(path, text, S_IRUSR | S_IWUSR);
}

std::optional<std::string> writeFileWhole(const std::string& path, const std::string& text, mode_t mode) {
  const std::string next = path + ".next";
  const int fd = open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return next + ": " + std::strerror(errno);
  // The mode as asked, whatever the umask.
  fchmod(fd, mode);
  for (size_t written = 0; written < text.size();) {
    const ssize_t n = write(fd, text.data() + written, text.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      const std::string reason = next + ": " + std::strerror(errno);
      close(fd);
      unlink(next.c_str());
      return reason;
    }
    written += static_cast<size_t>(n);
  }
  close(fd);
  if (rename(next.c_str(), path.c_str()) < 0) {
    const std::string reason = path + ": " + std::strerror(errno);
    unlink(next.c_str());
    return reason;
  }
  return std::nullopt;
}

void removeStateFile(const std::string& path) { unlink(path.c_str()); }

}  // namespace Macsec
