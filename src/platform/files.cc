#include "platform/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace zel::platform {
namespace {

int openRetrying(const char *path, int flags) noexcept {
  int file;
  do {
    file = ::open(path, flags | O_CLOEXEC, 0666);
  } while (file < 0 && errno == EINTR);
  return file;
}

// GNU and XSI strerror_r differ in their result; both are served.
[[maybe_unused]] const char *pickText(const char *gnuResult, char *) noexcept {
  return gnuResult;
}
[[maybe_unused]] const char *pickText(int xsiResult, char *buffer) noexcept {
  return xsiResult == 0 ? buffer : "Unknown error";
}

}  // namespace

int openForReading(const char *path) noexcept {
  return openRetrying(path, O_RDONLY);
}
int openForUpdate(const char *path) noexcept {
  return openRetrying(path, O_RDWR);
}
int createForWriting(const char *path) noexcept {
  return openRetrying(path, O_WRONLY | O_CREAT | O_TRUNC);
}

void closeFile(int file) noexcept {
  if (file >= 0) ::close(file);
}

// Moves the whole count with pread or pwrite, going on after interruptions and partial counts;
// a count that stops short is EIO.
template <class Buffer, class Transfer>
bool transferAll(int file, Buffer *buffer, size_t count, int64_t position, Transfer transfer) {
  auto *bytes =
      static_cast<std::conditional_t<std::is_const_v<Buffer>, const char, char> *>(buffer);
  while (count > 0) {
    ssize_t done = transfer(file, bytes, count, static_cast<off_t>(position));
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) {
      if (done == 0) errno = EIO;
      return false;
    }
    bytes += done;
    count -= static_cast<size_t>(done);
    position += done;
  }
  return true;
}

bool readAt(int file, void *buffer, size_t count, int64_t position) noexcept {
  return transferAll(file, buffer, count, position, ::pread);
}

bool writeAt(int file, const void *buffer, size_t count, int64_t position) noexcept {
  return transferAll(file, buffer, count, position, ::pwrite);
}

int64_t readUpTo(int file, void *buffer, size_t count, int64_t position) noexcept {
  auto *bytes = static_cast<char *>(buffer);
  size_t total = 0;
  while (total < count) {
    ssize_t done = ::pread(file, bytes + total, count - total, static_cast<off_t>(position));
    if (done < 0 && errno == EINTR) continue;
    if (done < 0) return -1;
    if (done == 0) break;
    total += static_cast<size_t>(done);
    position += done;
  }
  return static_cast<int64_t>(total);
}

int64_t fileSize(int file) noexcept {
  struct stat status;
  if (::fstat(file, &status) != 0) return -1;
  return static_cast<int64_t>(status.st_size);
}

bool deleteFile(const char *path) noexcept {
  return ::unlink(path) == 0;
}

bool createTemporaryFile(char *path, size_t size) noexcept {
  const char *directory = std::getenv("TMPDIR");
  if (!directory || directory[0] == '\0') directory = "/tmp";
  int length = std::snprintf(path, size, "%s/zelXXXXXX", directory);
  if (length < 0 || static_cast<size_t>(length) >= size) {
    errno = ENAMETOOLONG;
    return false;
  }
  int file = ::mkstemp(path);
  if (file < 0) return false;
  ::close(file);
  return true;
}

const char *errorText(int error, char *buffer, size_t size) noexcept {
  buffer[0] = '\0';
  return pickText(::strerror_r(error, buffer, size), buffer);
}

}  // namespace zel::platform
