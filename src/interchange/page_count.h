// Counting the pages of multi-page files by walking their structure, without reading pixels.
#pragma once

#include <cstdint>

#include "access/repository.h"
#include "zel.h"

namespace zel::interchange {

// Bytes of a file object's stream. `size` bounds memory input (reads past it give 8); a file is
// bounded by its own length (reads past it fail with -1).
struct ByteSource {
  ZelContext *ctx;
  RepositoryStream *stream;
  int64_t size;  // -1 for a file

  // 0, or the code after reporting.
  int read(int64_t offset, void *buffer, int64_t count) const noexcept;
};

// Both give 0 and the count, or the code after reporting.
int countTiffPages(const ByteSource &source, int32_t &pages) noexcept;
int countDocumentPages(const ByteSource &source, int32_t &pages) noexcept;

}  // namespace zel::interchange
