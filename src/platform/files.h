// The only place that calls the operating system's file functions. Every function reports
// failure by its result and leaves errno set.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zel::platform {

inline constexpr int noFile = -1;

int openForReading(const char *path) noexcept;    // existing file, read only
int openForUpdate(const char *path) noexcept;     // existing file, read and write
int createForWriting(const char *path) noexcept;  // created or truncated, write only
void closeFile(int file) noexcept;

// The whole count at `position`, or false (errno EIO on a short count without another cause).
bool readAt(int file, void *buffer, size_t count, int64_t position) noexcept;
bool writeAt(int file, const void *buffer, size_t count, int64_t position) noexcept;

// Up to `count` bytes at `position`: the number read (0 at the end of the file), or -1.
int64_t readUpTo(int file, void *buffer, size_t count, int64_t position) noexcept;

// The file's size in bytes, or -1.
int64_t fileSize(int file) noexcept;

bool deleteFile(const char *path) noexcept;

// Creates a new, empty file "zel" + six characters in the temporary directory ($TMPDIR when set
// and not empty, else /tmp) and writes its path into `path`. False when it can't.
bool createTemporaryFile(char *path, size_t size) noexcept;

// The runtime library's text for `error`, written into `buffer`.
const char *errorText(int error, char *buffer, size_t size) noexcept;

}  // namespace zel::platform
