#include "operators/walk.h"

#include <algorithm>

#include "kernel/context.h"
#include "operators/pixels.h"

namespace zel {

int OperatorWalk::open(std::initializer_list<ZelObject *> sources, ZelObject *target,
                       const ZelAttribute *options, int optionCount) noexcept {
  sourceCount_ = 0;
  for (ZelObject *source : sources) {
    frames_[sourceCount_] = openAccessFrame(ctx_, source, "r", 1, options, optionCount);
    if (!frames_[sourceCount_]) return finish(Zel003b(ctx_));
    ++sourceCount_;
  }
  frames_[sourceCount_] = openAccessFrame(ctx_, target, "w", 1, options, optionCount);
  if (!frames_[sourceCount_]) return finish(Zel003b(ctx_));

  for (int i = 0; i < objectCount(); ++i)
    masked_ = masked_ || frames_[i]->roiOn;
  const AccessFrame &out = destination();
  for (int axis = 0; axis < axisCount; ++axis) {
    int64_t first = 0, last = int64_t{out.dimension[axis]} - 1;
    for (int s = 0; s < sourceCount_; ++s) {
      int64_t offset = int64_t{out.matchPoint[axis]} - frames_[s]->matchPoint[axis];
      first = std::max(first, offset);
      last = std::min(last, frames_[s]->dimension[axis] + offset - 1);
      shift_[s][axis] = -offset;
    }
    first_[axis] = first;
    last_[axis] = last;
  }
  return 0;
}

bool OperatorWalk::pixelsAtLeast(int bits) const noexcept {
  for (int i = 0; i < objectCount(); ++i)
    if (frames_[i]->stream->bitsPerPixel < bits) return false;
  return true;
}

bool OperatorWalk::elementsFitTypes() const noexcept {
  for (int i = 0; i < objectCount(); ++i)
    if (frames_[i]->stream->bitsPerPixel != elementBitsOf(frames_[i]->dataType)) return false;
  return true;
}

int OperatorWalk::refuse(int code) noexcept {
  close();
  reportError(ctx_, code);
  return code;
}

int OperatorWalk::finish(int code) noexcept {
  close();
  return code;
}

void OperatorWalk::close() noexcept {
  for (AccessFrame *&frame : frames_) {
    closeAccessFrame(ctx_, frame);
    frame = nullptr;
  }
}

int64_t OperatorWalk::rowOffset(int object, const int64_t (&index)[axisCount]) const noexcept {
  const int32_t *dim = frames_[object]->dimension;
  const int64_t *shift = shift_[object];
  int64_t offset = index[AxisB] + shift[AxisB];
  offset = offset * dim[AxisT] + index[AxisT] + shift[AxisT];
  offset = offset * dim[AxisZ] + index[AxisZ] + shift[AxisZ];
  offset = offset * dim[AxisY] + index[AxisY] + shift[AxisY];
  return offset * dim[AxisX];
}

bool OperatorWalk::loadRows(RowSet &set, const int64_t (&index)[axisCount]) noexcept {
  for (int i = 0; i < objectCount(); ++i) {
    RepositoryStream *stream = frames_[i]->stream;
    int64_t offset = rowOffset(i, index);
    bool isDestination = i == sourceCount_;
    set.rows[i].line =
        isDestination ? lineForUpdate(ctx_, stream, offset) : readLine(ctx_, stream, offset);
    if (!set.rows[i].line) return false;
    int bits = stream->bitsPerPixel;
    set.rowStartPixel[i] = bits < 8 ? offset * bits % 8 / bits : 0;
    set.masks[i] = nullptr;
    if (frames_[i]->roiOn) {
      set.masks[i] = readLine(ctx_, frames_[i]->roiStream, offset);
      if (!set.masks[i]) return false;
    }
  }
  return true;
}

bool OperatorWalk::admitted(const RowSet &set, int64_t x) const noexcept {
  for (int i = 0; i < objectCount(); ++i)
    if (set.masks[i] && set.masks[i][x + shift_[i][AxisX]] == 0) return false;
  return true;
}

}  // namespace zel
