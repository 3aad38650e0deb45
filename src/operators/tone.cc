// Counting grey levels into a histogram, and tone curves applied as 256-entry lookup tables:
// histogram modification to a chosen distribution, gamma with a linear toe, and an S-curve of
// brightness and contrast.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "access/frame.h"
#include "kernel/context.h"
#include "kernel/objects.h"
#include "operators/scalar.h"

namespace zel {
namespace {

constexpr int levels = 256;
using Counts = uint64_t[levels];
using ToneTable = uint8_t[levels];

// Adds every pixel of the source frame's rows, under its mask when one applies, to `counts`.
// Four tables take turns so that runs of one value don't wait on their own increments.
bool countLevels(ZelContext *ctx, const AccessFrame &frame, Counts &counts) {
  uint32_t partial[4][levels] = {};
  RepositoryStream *stream = frame.stream;
  int64_t width = stream->linePixels, rows = 1;
  for (int axis = AxisY; axis < axisCount; ++axis)
    rows *= frame.dimension[axis];
  for (int64_t row = 0; row < rows; ++row) {
    const uint8_t *line = readLine(ctx, stream, row * width);
    if (!line) return false;
    const uint8_t *mask = nullptr;
    if (frame.roiOn && !(mask = readLine(ctx, frame.roiStream, row * width))) return false;
    int64_t x = 0;
    if (!mask) {
      for (; x + 4 <= width; x += 4) {
        ++partial[0][line[x]];
        ++partial[1][line[x + 1]];
        ++partial[2][line[x + 2]];
        ++partial[3][line[x + 3]];
      }
    }
    for (; x < width; ++x)
      if (!mask || mask[x]) ++partial[0][line[x]];
    // A row adds at most 2^31 - 1 to a table: fold them into the wide counts before they wrap.
    if ((row & 63) == 63 || row + 1 == rows || width > (int64_t{1} << 25)) {
      for (int v = 0; v < levels; ++v) {
        counts[v] += uint64_t{partial[0][v]} + partial[1][v] + partial[2][v] + partial[3][v];
        partial[0][v] = partial[1][v] = partial[2][v] = partial[3][v] = 0;
      }
    }
  }
  return true;
}

// Clears every line of the histogram and puts `bins` counters into its first.
bool writeCounters(ZelContext *ctx, RepositoryStream *stream, const uint32_t *bins, int entries) {
  int64_t lines = stream->totalBytes / stream->lineBytes;
  for (int64_t line = 0; line < lines; ++line) {
    int64_t offset = line * stream->linePixels;
    uint8_t *data = lineForUpdate(ctx, stream, offset);
    if (!data) return false;
    std::memset(data, 0, static_cast<size_t>(stream->lineBytes));
    if (line == 0) std::memcpy(data, bins, static_cast<size_t>(entries) * sizeof *bins);
    if (!writeLine(ctx, stream, offset)) return false;
  }
  return true;
}

// Applies `table` to the source through a temporary lookup table.
int applyTable(ZelContext *ctx, ZelObject *source, ZelObject *destination, const ToneTable &table) {
  const ZelAttribute list[] = {{"entries", levels}, {"dataType", ZelNonNegative}};
  OwnedObject lookup(ctx, Zel000e(ctx, nullptr, nullptr, list, 2));
  if (!lookup.get()) return Zel003b(ctx);
  if (int code = Zel609(ctx, const_cast<uint8_t *>(table), lookup.get(), nullptr, 0)) return code;
  return Zel120(ctx, source, destination, lookup.get());
}

// The value of a tone curve stored in a byte: truncated toward zero, low eight bits kept.
uint8_t byteOf(double value) {
  return static_cast<uint8_t>(truncatedToInt32(value));
}

// The counts of 256 levels of the source, under its region of interest.
int histogramOf(ZelContext *ctx, ZelObject *source, uint32_t (&counters)[levels]) {
  OwnedObject histogram(ctx, Zel000d(ctx, nullptr, nullptr, nullptr, 0));
  if (!histogram.get()) return Zel003b(ctx);
  if (int code = Zel126(ctx, source, histogram.get())) return code;
  return Zel605(ctx, histogram.get(), counters, nullptr, 0);
}

constexpr double oneThird = 0.3333333333333333;

// The table entry of `shape` at cumulative share P; false where the shape has no value.
bool shapeValue(int shape, double P, double low, double high, double alpha, double &value) {
  switch (shape) {
    case ZelCubeRoot: {
      double lowRoot = std::pow(low, oneThird);
      value = std::pow((std::pow(high, oneThird) - lowRoot) * P + lowRoot, 3.0) + 0.5;
      return true;
    }
    case ZelExponential:
      value = low - std::log(1 - P) / alpha;
      return P != 1;
    case ZelLogarithmic:
      value = low * std::pow(high / low, P) + 0.5;
      return true;
    case ZelUniform:
      value = (high - low) * P + low + 0.5;
      return true;
    default:  // Rayleigh
      value = low + std::sqrt(2 * alpha * alpha * std::log(1 / (1 - P)));
      return P != 1;
  }
}

// Entries the shape skips repeat the one before; an image without counted pixels keeps its
// levels.
void modificationTable(const uint32_t (&counters)[levels], int shape, double low, double high,
                       double alpha, ToneTable &table) {
  double total = 0;
  for (uint32_t count : counters)
    total += count;
  double running = 0;
  for (int i = 0; i < levels; ++i) {
    running += counters[i];
    double value = 0;
    if (total == 0)
      table[i] = static_cast<uint8_t>(i);
    else if (shapeValue(shape, running / total, low, high, alpha, value))
      table[i] = byteOf(value);
    else
      table[i] = i > 0 ? table[i - 1] : byteOf(low);
  }
}

constexpr double oneOver255 = 0.00392156862745098;

void gammaTable(int direction, double a, double gamma, double c, double slope, double breakpoint,
                ToneTable &table) {
  for (int i = 0; i < levels; ++i) {
    double x = i * oneOver255, value;
    if (direction == ZelEncode)
      value = x >= breakpoint ? a * std::pow(x, gamma) + c : slope * x;
    else
      value = x >= slope * breakpoint ? std::pow((x - c) / a, 1 / gamma) : x / slope;
    double entry = value * 255 + 0.5;
    table[i] = entry >= 255 ? 255 : entry > 0 ? static_cast<uint8_t>(entry) : 0;
  }
}

void sCurveTable(double brightness, double contrast, ToneTable &table) {
  constexpr int top = levels - 1;
  double p = brightness * 0.2;
  double c = 0.5 - p, d = 0.5 + p, g = contrast + 1;
  double e1 = g * c / d, e2 = g * (1 - c) / (1 - d);
  double k1 = d * std::pow(c, -e1), k2 = -(1 - d) * std::pow(1 - c, -e2);
  for (int i = 1; i < top; ++i) {
    double t = static_cast<double>(i) / top;
    if (t < c)
      table[i] = byteOf(std::pow(t, e1) * k1 * top);
    else
      table[i] = byteOf((std::pow(1 - t, e2) * k2 + 1) * top);
  }
  table[0] = table[1];
  table[top] = table[top - 1];
}

bool bothNonNegative(const ZelObject *source, const ZelObject *destination) {
  return source->dataType == ZelNonNegative && destination->dataType == ZelNonNegative;
}

}  // namespace
}  // namespace zel

using namespace zel;

extern "C" ZEL_API int Zel126(ZelContext *ctx, ZelObject *source, ZelObject *histogram) noexcept {
  const ZelAttribute roiOnly[] = {{"roiState", 1}};
  Frame in = openFrame(ctx, source, "r", 1, roiOnly, 1);
  if (!in) return Zel003b(ctx);
  Frame out = openFrame(ctx, histogram, "w", 1);
  if (!out) return Zel003b(ctx);
  int entries = out->dimension[AxisX];
  if (entries < 2) return refuse(ctx, 18);
  // More bins than levels would make every bin zero levels wide.
  if (entries > levels) return refuse(ctx, 2);
  if (out->stream->bitsPerPixel != 32) return refuse(ctx, 10);
  if (in->dataType != ZelNonNegative || in->stream->bitsPerPixel != 8) return refuse(ctx, 10);
  Counts counts = {};
  if (!countLevels(ctx, *in, counts)) return Zel003b(ctx);
  // Levels past the last whole bin go into the last bin.
  int width = levels / entries;
  uint32_t bins[levels] = {};
  for (int v = 0; v < levels; ++v)
    bins[std::min(v / width, entries - 1)] += static_cast<uint32_t>(counts[v]);
  if (!writeCounters(ctx, out->stream, bins, entries)) return Zel003b(ctx);
  return 0;
}

extern "C" ZEL_API int Zel129(ZelContext *ctx, ZelObject *source, ZelObject *destination, int shape,
                              ZelScalar low, ZelScalar high, double alpha) noexcept {
  if (int code = checkContext(ctx)) return code;
  bool known = shape == ZelCubeRoot || shape == ZelExponential || shape == ZelLogarithmic ||
               shape == ZelUniform || shape == ZelRayleigh;
  double lowValue = realOf(low), highValue = realOf(high);
  if (!known || (shape == ZelLogarithmic && !(lowValue > 0))) return refuse(ctx, 18);
  // Checked before the temporaries exist: one of them could take the record of a dead handle.
  if (!checkObject(ctx, source) || !checkObject(ctx, destination)) return 9;
  uint32_t counters[levels] = {};
  if (int code = histogramOf(ctx, source, counters)) return code;
  ToneTable table;
  modificationTable(counters, shape, lowValue, highValue, alpha, table);
  return applyTable(ctx, source, destination, table);
}

extern "C" ZEL_API int Zel133(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                              int direction, double a, double gamma, double c, double slope,
                              double breakpoint) noexcept {
  if (int code = checkContext(ctx)) return code;
  if (!checkObject(ctx, source) || !checkObject(ctx, destination)) return 9;
  if (!bothNonNegative(source, destination)) return 0;
  // A direction without a curve leaves the table as a fresh one reads: all zero.
  ToneTable table = {};
  if (direction == ZelEncode || direction == ZelDecode)
    gammaTable(direction, a, gamma, c, slope, breakpoint, table);
  return applyTable(ctx, source, destination, table);
}

extern "C" ZEL_API int Zel134(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                              double brightness, double contrast) noexcept {
  if (int code = checkContext(ctx)) return code;
  if (!checkObject(ctx, source) || !checkObject(ctx, destination)) return 9;
  if (!bothNonNegative(source, destination)) return refuse(ctx, 10);
  ToneTable table;
  sCurveTable(brightness, contrast, table);
  return applyTable(ctx, source, destination, table);
}
