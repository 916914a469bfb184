#include "brivet/platform/file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>

namespace brivet {
namespace {

Error fileError(int code, const std::string& what, const std::string& path, const char* cause) {
  return Error::withDescription(std::string(kFileErrorDomain), code, what + " " + path + ": " + cause);
}

Error errnoError(int code, const std::string& what, const std::string& path) {
  return fileError(code, what, path, std::strerror(code));
}

// Retries a system call interrupted by a signal.
template <class Call>
auto retrying(Call call) {
  for (;;) {
    auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

std::string directoryOf(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// Unique within the process (counter) and across processes (pid), so that
// parallel writers of one path never share a temporary file.
std::string temporaryPathFor(const std::string& path) {
  static std::atomic<std::uint64_t> counter{0};
  return path + "." + std::to_string(static_cast<long long>(::getpid())) + "-" +
         std::to_string(counter.fetch_add(1, std::memory_order_relaxed)) + ".tmp";
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = retrying([&] { return ::write(fd, bytes.data(), bytes.size()); });
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

Result<void> writeFileAtomically(const std::string& path, std::string_view bytes) {
  const std::string temporary = temporaryPathFor(path);
  const int fd = retrying([&] { return ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666); });
  if (fd < 0) return errnoError(errno, "cannot write", path);

  // Until the rename, failures remove the temporary file and leave `path` as it was.
  auto abandon = [&](int code) {
    ::close(fd);
    ::unlink(temporary.c_str());
    return errnoError(code, "cannot write", path);
  };
  if (!writeAll(fd, bytes)) return abandon(errno);
  // The data must be on the device before the rename makes it the file at `path`:
  // otherwise a power loss can leave the new name pointing at an empty file.
  if (retrying([&] { return ::fsync(fd); }) != 0) return abandon(errno);
  if (::close(fd) != 0 && errno != EINTR) {
    const int code = errno;
    ::unlink(temporary.c_str());
    return errnoError(code, "cannot write", path);
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    const int code = errno;
    ::unlink(temporary.c_str());
    return errnoError(code, "cannot write", path);
  }
  // Flush the directory so the rename itself survives a power loss. The file is
  // already whole at `path`; a directory that cannot be opened or flushed (some
  // file systems refuse) does not make the write a failure.
  const std::string directory = directoryOf(path);
  const int dirfd = retrying([&] { return ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
  if (dirfd >= 0) {
    (void)retrying([&] { return ::fsync(dirfd); });
    ::close(dirfd);
  }
  return {};
}

Result<std::string> readFile(const std::string& path, std::uint64_t maxBytes) {
  // A string cannot hold more than the address space: on a 32-bit target the bound is at most SIZE_MAX.
  maxBytes = std::min<std::uint64_t>(maxBytes, SIZE_MAX);
  const int fd = retrying([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); });
  if (fd < 0) return errnoError(errno, "cannot read", path);
  struct CloseOnExit {
    int fd;
    ~CloseOnExit() { ::close(fd); }
  } closer{fd};

  struct stat info {};
  if (::fstat(fd, &info) != 0) return errnoError(errno, "cannot read", path);
  if (S_ISDIR(info.st_mode)) return fileError(EISDIR, "cannot read", path, "it is a directory");
  if (!S_ISREG(info.st_mode)) return fileError(EINVAL, "cannot read", path, "it is not a regular file");
  const auto size = static_cast<std::uint64_t>(info.st_size);
  if (size > maxBytes) {
    return fileError(EFBIG, "cannot read", path,
                     ("it is larger than " + std::to_string(maxBytes) + " bytes").c_str());
  }

  // The size is a hint: the file may change while it is read. Reading stops at
  // end of file and never goes past the bound.
  std::string text;
  text.resize(static_cast<std::size_t>(size));
  std::size_t filled = 0;
  for (;;) {
    if (filled == text.size()) {
      if (text.size() >= maxBytes) {
        char probe;
        const ssize_t more = retrying([&] { return ::read(fd, &probe, 1); });
        if (more < 0) return errnoError(errno, "cannot read", path);
        if (more == 0) break;
        return fileError(EFBIG, "cannot read", path,
                         ("it is larger than " + std::to_string(maxBytes) + " bytes").c_str());
      }
      const std::uint64_t grown = std::min<std::uint64_t>(maxBytes, std::max<std::uint64_t>(4096, text.size() * 2));
      text.resize(static_cast<std::size_t>(grown));
    }
    const ssize_t got = retrying([&] { return ::read(fd, text.data() + filled, text.size() - filled); });
    if (got < 0) return errnoError(errno, "cannot read", path);
    if (got == 0) break;
    filled += static_cast<std::size_t>(got);
  }
  text.resize(filled);
  return text;
}

}  // namespace brivet
