// The walk every operator shares: frames opened sources first and destination last, the region
// of work where the objects overlap after their match points are laid over each other, rows
// visited over b, t, z, y, regions of interest honoured pixel by pixel, and every frame closed
// once on every path. An operator supplies a row kernel that computes runs of pixels.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>

#include "access/frame.h"
#include "zel.h"

namespace zel {

// The options of an operator that honours both the match point and the region of interest.
inline constexpr ZelAttribute honourMatchPointsAndRoi[] = {{"matchPointState", 1}, {"roiState", 1}};

// Where a run of pixels starts in one object's row: the line that the stream gave and the
// number of the run's first pixel counted from that line's first byte (for pixels narrower than
// a byte this includes the row's own start inside its first byte).
struct RowPosition {
  uint8_t *line;
  int64_t pixel;
};

class OperatorWalk {
 public:
  static constexpr int maxSources = 2;

  explicit OperatorWalk(ZelContext *ctx) : ctx_(ctx) {}
  OperatorWalk(const OperatorWalk &) = delete;
  OperatorWalk &operator=(const OperatorWalk &) = delete;
  ~OperatorWalk() { close(); }

  // Opens the frames and derives the region. 0, or the code after closing what was opened.
  int open(std::initializer_list<ZelObject *> sources, ZelObject *target,
           const ZelAttribute *options, int optionCount) noexcept;

  const AccessFrame &source(int i) const { return *frames_[i]; }
  const AccessFrame &destination() const { return *frames_[sourceCount_]; }

  // True when a region of interest applies to some frame: runs then stop at masked pixels.
  bool masked() const { return masked_; }

  // True when every object's stream has pixels of at least `bits` bits.
  bool pixelsAtLeast(int bits) const noexcept;

  // True when every object's pixels are as wide as row kernels read its type: 1 bit Boolean,
  // 8 NonNegative, 16 Signed, 32 Real.
  bool elementsFitTypes() const noexcept;

  // Closes the frames and reports `code`, which it returns.
  int refuse(int code) noexcept;

  // Closes the frames and returns `code`, reported already.
  int stop(int code) noexcept { return finish(code); }

  // Runs `kernel(rows, count)` over every run of pixels of the region; `rows` holds one position
  // per source and the destination's last. Closes the frames; 0 or the code that ended it.
  template <class Kernel>
  int run(Kernel &&kernel) noexcept;

 private:
  struct RowSet;
  int objectCount() const { return sourceCount_ + 1; }
  int64_t rowOffset(int object, const int64_t (&index)[axisCount]) const noexcept;
  bool loadRows(RowSet &rows, const int64_t (&index)[axisCount]) noexcept;
  bool admitted(const RowSet &rows, int64_t x) const noexcept;
  int finish(int code) noexcept;
  void close() noexcept;

  ZelContext *ctx_;
  int sourceCount_ = 0;
  AccessFrame *frames_[maxSources + 1] = {};
  int64_t first_[axisCount] = {};
  int64_t last_[axisCount] = {};
  int64_t shift_[maxSources + 1][axisCount] = {};  // object index = destination index + shift
  bool masked_ = false;                            // some frame honours a region of interest
};

struct OperatorWalk::RowSet {
  RowPosition rows[maxSources + 1];
  int64_t rowStartPixel[maxSources + 1];  // pixel of the row's start inside its first byte
  const uint8_t *masks[maxSources + 1];
};

template <class Kernel>
int OperatorWalk::run(Kernel &&kernel) noexcept {
  for (int axis = 0; axis < axisCount; ++axis)
    if (first_[axis] > last_[axis]) return finish(0);
  RowSet set{};
  int64_t index[axisCount] = {};
  for (index[AxisB] = first_[AxisB]; index[AxisB] <= last_[AxisB]; ++index[AxisB])
    for (index[AxisT] = first_[AxisT]; index[AxisT] <= last_[AxisT]; ++index[AxisT])
      for (index[AxisZ] = first_[AxisZ]; index[AxisZ] <= last_[AxisZ]; ++index[AxisZ])
        for (index[AxisY] = first_[AxisY]; index[AxisY] <= last_[AxisY]; ++index[AxisY]) {
          if (!loadRows(set, index)) return finish(Zel003b(ctx_));
          int64_t x = first_[AxisX];
          while (x <= last_[AxisX]) {
            int64_t end = x;
            if (!masked_) {
              end = last_[AxisX] + 1;
            } else {
              while (x <= last_[AxisX] && !admitted(set, x))
                ++x;
              end = x;
              while (end <= last_[AxisX] && admitted(set, end))
                ++end;
            }
            if (end > x) {
              RowPosition runs[maxSources + 1] = {};
              for (int i = 0; i < objectCount(); ++i)
                runs[i] = {set.rows[i].line, set.rowStartPixel[i] + x + shift_[i][AxisX]};
              kernel(static_cast<const RowPosition *>(runs), end - x);
            }
            x = end;
          }
          int d = sourceCount_;
          if (!writeLine(ctx_, frames_[d]->stream, rowOffset(d, index)))
            return finish(Zel003b(ctx_));
        }
  return finish(0);
}

}  // namespace zel
