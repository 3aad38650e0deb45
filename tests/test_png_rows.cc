// PNG scanlines through zlib between a plain image and a compressed object: the rows and their
// filter type bytes as zlib gives them back, the filter chosen per row, Boolean rows in the
// compressed object's bit order, Adam7 passes and the block picture of an early pass, planes as
// streams of their own, damaged streams, and the refusals of both directions. References are
// built here from the row layout and with zlib itself.
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <list>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "operator_fixture.h"
#include "test_support.h"

namespace {

using namespace zel::test;
using namespace zel::test::operators;

using Bytes = std::vector<uint8_t>;
using Rows = std::vector<Bytes>;

constexpr int32_t kMsb = ZelMostSignificantFirst;
constexpr int32_t kLsb = ZelLeastSignificantFirst;

// ---- Pictures held by the test -------------------------------------------------------------

// The samples of an image, one value a sample, in the order of the library's lines: x fastest,
// then y, then the plane (z within t), then the band.
struct Picture {
  int width = 1, height = 1, depth = 8, bands = 1, zPlanes = 1, tPlanes = 1;
  bool boolean = false;
  std::vector<uint16_t> samples;

  int planes() const { return zPlanes * tPlanes; }
  int pixelDepth() const { return depth * bands; }
  int bytesPerPixel() const { return (pixelDepth() + 7) / 8; }
  size_t index(int x, int y, int plane, int band) const {
    return ((static_cast<size_t>(band) * planes() + plane) * height + y) * width + x;
  }
  uint16_t at(int x, int y, int plane = 0, int band = 0) const {
    return samples[index(x, y, plane, band)];
  }
  uint16_t &at(int x, int y, int plane = 0, int band = 0) {
    return samples[index(x, y, plane, band)];
  }
};

Picture blank(int width, int height, int depth, int bands = 1, int zPlanes = 1, int tPlanes = 1) {
  Picture p;
  p.width = width;
  p.height = height;
  p.depth = depth;
  p.bands = bands;
  p.zPlanes = zPlanes;
  p.tPlanes = tPlanes;
  p.samples.assign(static_cast<size_t>(width) * height * zPlanes * tPlanes * bands, 0);
  return p;
}

Picture blankBits(int width, int height) {
  Picture p = blank(width, height, 1);
  p.boolean = true;
  return p;
}

// Dense pictures take any value; sparse ones are mostly 0, so that their streams stay smaller
// than the pixels, as a work-space object that holds the stream needs.
enum class Texture { Dense, Sparse };

Picture textured(Picture p, std::mt19937 &rng, Texture texture) {
  uint32_t levels = 1u << p.depth;
  for (uint16_t &sample : p.samples) {
    uint32_t r = static_cast<uint32_t>(rng());
    bool keep = texture == Texture::Dense || r % (p.boolean ? 24 : 8) == 0;
    sample = static_cast<uint16_t>(keep ? (r >> 8) % levels : 0u);
  }
  return p;
}

// The picture in another shape: the overlap kept, the rest 0.
Picture fitted(const Picture &p, int width, int height, int planes) {
  Picture out = p;
  out.width = width;
  out.height = height;
  out.zPlanes = planes;
  out.tPlanes = 1;
  out.samples.assign(static_cast<size_t>(width) * height * planes * p.bands, 0);
  for (int b = 0; b < p.bands; ++b)
    for (int z = 0; z < std::min(planes, p.planes()); ++z)
      for (int y = 0; y < std::min(height, p.height); ++y)
        for (int x = 0; x < std::min(width, p.width); ++x)
          out.at(x, y, z, b) = p.at(x, y, z, b);
  return out;
}

// The bytes the library keeps for the picture: Boolean pixels one bit each without padding in
// `bitOrder`, NonNegative samples one byte each, or two in the machine's order at 16 bits.
Bytes storedBytes(const Picture &p, int32_t bitOrder = kMsb) {
  if (p.boolean) {
    Bytes bytes((p.samples.size() + 7) / 8, 0);
    for (size_t i = 0; i < p.samples.size(); ++i)
      if (p.samples[i])
        bytes[i >> 3] |= static_cast<uint8_t>(bitOrder == kLsb ? 1u << (i & 7) : 0x80u >> (i & 7));
    return bytes;
  }
  if (p.depth == 16) {
    Bytes bytes(p.samples.size() * 2);
    std::memcpy(bytes.data(), p.samples.data(), bytes.size());
    return bytes;
  }
  return Bytes(p.samples.begin(), p.samples.end());
}

Picture fromStored(Picture shape, const Bytes &bytes, int32_t bitOrder = kMsb) {
  if (bytes.size() != storedBytes(shape).size()) {
    ADD_FAILURE() << "the object holds " << bytes.size() << " bytes";
    return shape;
  }
  for (size_t i = 0; i < shape.samples.size(); ++i) {
    if (shape.boolean)
      shape.samples[i] = (bytes[i >> 3] >> (bitOrder == kLsb ? (i & 7) : 7 - (i & 7))) & 1;
    else if (shape.depth == 16)
      std::memcpy(&shape.samples[i], bytes.data() + 2 * i, 2);
    else
      shape.samples[i] = bytes[i];
  }
  return shape;
}

void expectSamples(const Picture &expected, const Picture &actual) {
  ASSERT_EQ(expected.samples.size(), actual.samples.size());
  size_t differences = 0;
  std::string detail;
  for (size_t i = 0; i < expected.samples.size(); ++i) {
    if (expected.samples[i] == actual.samples[i]) continue;
    if (differences++ < 6) {
      size_t x = i % static_cast<size_t>(expected.width);
      size_t rest = i / static_cast<size_t>(expected.width);
      detail += " (" + std::to_string(x) + "," + std::to_string(rest % expected.height) +
                ", line group " + std::to_string(rest / expected.height) + ") expected " +
                std::to_string(expected.samples[i]) + " got " + std::to_string(actual.samples[i]) +
                ";";
    }
  }
  EXPECT_EQ(differences, 0u) << "of " << expected.samples.size() << " samples:" << detail;
}

// ---- Rows as the stream codes them ---------------------------------------------------------

std::vector<int> columnsFrom(int start, int step, int size) {
  std::vector<int> columns;
  for (int x = start; x < size; x += step)
    columns.push_back(x);
  return columns;
}

// Row y of a plane at the given columns: samples interleaved by band, packed from the most
// significant bit (a Boolean row in `bitOrder`), 16-bit samples high byte first.
Bytes codedRow(const Picture &p, const std::vector<int> &columns, int y, int plane,
               int32_t bitOrder = kMsb) {
  Bytes row((columns.size() * static_cast<size_t>(p.pixelDepth()) + 7) / 8, 0);
  for (size_t j = 0; j < columns.size(); ++j) {
    for (int band = 0; band < p.bands; ++band) {
      unsigned v = p.at(columns[j], y, plane, band);
      size_t sample = j * static_cast<size_t>(p.bands) + static_cast<size_t>(band);
      if (p.depth == 16) {
        row[2 * sample] = static_cast<uint8_t>(v >> 8);
        row[2 * sample + 1] = static_cast<uint8_t>(v & 0xFF);
      } else if (p.depth == 8) {
        row[sample] = static_cast<uint8_t>(v);
      } else {
        size_t bit = sample * static_cast<size_t>(p.depth);
        int shift = p.boolean && bitOrder == kLsb ? static_cast<int>(bit & 7)
                                                  : 8 - p.depth - static_cast<int>(bit & 7);
        row[bit >> 3] |= static_cast<uint8_t>(v << shift);
      }
    }
  }
  return row;
}

Rows planeRows(const Picture &p, int plane, int32_t bitOrder = kMsb) {
  Rows rows;
  for (int y = 0; y < p.height; ++y)
    rows.push_back(codedRow(p, columnsFrom(0, 1, p.width), y, plane, bitOrder));
  return rows;
}

// The seven passes of Adam7: column start and step, row start and step.
struct PassGeometry {
  int colStart, colStep, rowStart, rowStep;
};
constexpr PassGeometry kPasses[7] = {{0, 8, 0, 8}, {4, 8, 0, 8}, {0, 4, 4, 8}, {2, 4, 0, 4},
                                     {0, 2, 2, 4}, {1, 2, 0, 2}, {0, 1, 1, 2}};
// The block a pixel of each pass stands for while later passes are still to come.
constexpr int kBlockWidth[7] = {8, 4, 4, 2, 2, 1, 1};
constexpr int kBlockHeight[7] = {8, 8, 4, 4, 2, 2, 1};

// The rows of one pass; none when the pass has no columns or no rows.
Rows passRows(const Picture &p, int pass, int plane = 0) {
  const PassGeometry &g = kPasses[pass];
  std::vector<int> columns = columnsFrom(g.colStart, g.colStep, p.width);
  Rows rows;
  if (columns.empty()) return rows;
  for (int y = g.rowStart; y < p.height; y += g.rowStep)
    rows.push_back(codedRow(p, columns, y, plane));
  return rows;
}

// ---- Filters -------------------------------------------------------------------------------

enum FilterType { kNone, kSub, kUp, kAverage, kPaeth };
constexpr int kAdaptive = -1;  // the choice by score among all five
constexpr int kCycle = -2;     // row k takes type k modulo 5

int paethPredictor(int a, int b, int c) {
  int p = a + b - c;
  int pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
  if (pa <= pb && pa <= pc) return a;
  return pb <= pc ? b : c;
}

// The row behind its type byte, filtered against `prior`.
Bytes filtered(int type, const Bytes &v, const Bytes &prior, int bpp) {
  Bytes out(v.size() + 1);
  out[0] = static_cast<uint8_t>(type);
  for (size_t i = 0; i < v.size(); ++i) {
    int a = i >= static_cast<size_t>(bpp) ? v[i - bpp] : 0;
    int c = i >= static_cast<size_t>(bpp) ? prior[i - bpp] : 0;
    int b = prior[i];
    int predicted = 0;
    if (type == kSub) predicted = a;
    if (type == kUp) predicted = b;
    if (type == kAverage) predicted = (a + b) >> 1;
    if (type == kPaeth) predicted = paethPredictor(a, b, c);
    out[i + 1] = static_cast<uint8_t>((v[i] - predicted) & 0xFF);
  }
  return out;
}

uint64_t score(const Bytes &row) {
  uint64_t sum = 0;
  for (size_t i = 1; i < row.size(); ++i)
    sum += row[i] < 128 ? row[i] : 256 - row[i];
  return sum;
}

// The row of the lowest score; a later candidate wins only when strictly lower.
Bytes adaptiveRow(const Bytes &v, const Bytes &prior, int bpp) {
  Bytes best = filtered(kNone, v, prior, bpp);
  for (int type = kSub; type <= kPaeth; ++type) {
    Bytes candidate = filtered(type, v, prior, bpp);
    if (score(candidate) < score(best)) best = candidate;
  }
  return best;
}

// The rows of one pass or plane, filtered by `type`, kAdaptive or kCycle, from a prior row of
// zeros, appended to `out`.
void appendFiltered(const Rows &rows, int bpp, int type, Bytes &out) {
  Bytes prior(rows.empty() ? 0 : rows.front().size(), 0);
  for (size_t k = 0; k < rows.size(); ++k) {
    Bytes row = type == kAdaptive ? adaptiveRow(rows[k], prior, bpp)
                                  : filtered(type == kCycle ? static_cast<int>(k % 5) : type,
                                             rows[k], prior, bpp);
    out.insert(out.end(), row.begin(), row.end());
    prior = rows[k];
  }
}

// The inflated data of the whole image: plain rows, or the passes of Adam7.
Bytes scanlines(const Picture &p, int plane, int type, int32_t bitOrder = kMsb,
                bool interlaced = false) {
  Bytes out;
  if (!interlaced) {
    appendFiltered(planeRows(p, plane, bitOrder), p.bytesPerPixel(), type, out);
    return out;
  }
  for (int pass = 0; pass < 7; ++pass)
    appendFiltered(passRows(p, pass, plane), p.bytesPerPixel(), type, out);
  return out;
}

// ---- zlib ----------------------------------------------------------------------------------

Bytes deflated(const Bytes &data, int level, int strategy) {
  z_stream s{};
  EXPECT_EQ(deflateInit2(&s, level, Z_DEFLATED, 15, 8, strategy), Z_OK);
  Bytes out(deflateBound(&s, static_cast<uLong>(data.size())) + 64);
  s.next_in = const_cast<Bytef *>(data.data());
  s.avail_in = static_cast<uInt>(data.size());
  s.next_out = out.data();
  s.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&s, Z_FINISH), Z_STREAM_END);
  out.resize(s.total_out);
  deflateEnd(&s);
  return out;
}

Bytes zlibStream(const Bytes &data) {
  return deflated(data, 6, Z_DEFAULT_STRATEGY);
}

// The zlib streams that follow each other in `stream`, inflated one by one; every stream must
// end and together they must take all bytes.
std::vector<Bytes> inflatedStreams(const Bytes &stream) {
  std::vector<Bytes> planes;
  size_t offset = 0;
  while (offset < stream.size()) {
    z_stream s{};
    EXPECT_EQ(inflateInit(&s), Z_OK);
    s.next_in = const_cast<Bytef *>(stream.data() + offset);
    s.avail_in = static_cast<uInt>(stream.size() - offset);
    Bytes data;
    int result = Z_OK;
    while (result == Z_OK) {
      uint8_t chunk[4096];
      s.next_out = chunk;
      s.avail_out = sizeof chunk;
      result = inflate(&s, Z_NO_FLUSH);
      data.insert(data.end(), chunk, chunk + (sizeof chunk - s.avail_out));
    }
    EXPECT_EQ(result, Z_STREAM_END) << "stream " << planes.size() << " at byte " << offset;
    offset += s.total_in;
    inflateEnd(&s);
    planes.push_back(std::move(data));
    if (result != Z_STREAM_END) break;
  }
  return planes;
}

// The type bytes of rows of `rowBytes` bytes each, behind their type byte.
std::vector<int> filterTypes(const Bytes &data, size_t rowBytes) {
  std::vector<int> types;
  for (size_t at = 0; at < data.size(); at += rowBytes + 1)
    types.push_back(data[at]);
  return types;
}

// ---- The fixture ---------------------------------------------------------------------------

std::vector<ZelAttribute> shapeOf(const Picture &p) {
  std::vector<ZelAttribute> list = {{"dataType", p.boolean ? ZelBoolean : ZelNonNegative},
                                    {"xDimension", p.width},
                                    {"yDimension", p.height},
                                    {"zDimension", p.zPlanes},
                                    {"tDimension", p.tPlanes},
                                    {"bDimension", p.bands}};
  if (!p.boolean) list.push_back({"dataPrecision", p.depth});
  return list;
}

std::vector<ZelAttribute> operator+(std::vector<ZelAttribute> a,
                                    const std::vector<ZelAttribute> &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

class PngRows : public OperatorFixture {
 protected:
  // A file name in the scratch directory, kept alive as long as the fixture.
  const char *freshName(const char *stem) {
    names_.push_back(std::string(stem) + std::to_string(names_.size()) + ".bin");
    return names_.back().c_str();
  }

  ZelObject *create(const std::vector<ZelAttribute> &list) {
    ZelObject *object = makeImage(ctx_, list);
    EXPECT_NE(object, nullptr);
    return object;
  }

  // A plain image in `repository`, holding the picture's samples or, without data, nothing yet.
  ZelObject *imageObject(const Picture &p, int repository, int32_t bitOrder = kMsb,
                         bool withData = true) {
    std::vector<ZelAttribute> list =
        shapeOf(p) + std::vector<ZelAttribute>{{"repository", repository}, {"bitOrder", bitOrder}};
    if (repository == ZelFile) {
      const char *name = freshName("image");
      if (withData) writeFile(name, storedBytes(p, bitOrder));
      list.push_back({"fileName", word(name)});
      if (withData) list.push_back({"inited", 1});
    }
    ZelObject *object = create(list);
    if (object && repository == ZelWorkSpace && withData) {
      Stream stream = openStream(ctx_, object, "w");
      EXPECT_NE(stream, nullptr);
      stream.reset();
      auto *block = reinterpret_cast<uint8_t *>(readAttribute(ctx_, object, "workSpace"));
      Bytes bytes = storedBytes(p, bitOrder);
      if (block) std::memcpy(block, bytes.data(), bytes.size());
    }
    return object;
  }

  // An empty compressed object of the picture's shape, to compress into.
  ZelObject *compressedObject(const Picture &shape, int repository,
                              const std::vector<ZelAttribute> &extra = {}) {
    std::vector<ZelAttribute> list =
        shapeOf(shape) +
        std::vector<ZelAttribute>{{"repository", repository}, {"compression", ZelPngDeflate}};
    if (repository == ZelFile) list.push_back({"fileName", word(freshName("stream"))});
    return create(list + extra);
  }

  // A compressed object of the picture's shape holding `bytes` of stream, in memory of the
  // test's own or in a file.
  ZelObject *streamObject(const Picture &shape, const Bytes &bytes, int repository = ZelFile,
                          const std::vector<ZelAttribute> &extra = {}) {
    std::vector<ZelAttribute> list =
        shapeOf(shape) +
        std::vector<ZelAttribute>{{"repository", repository}, {"compression", ZelPngDeflate}} +
        extra;
    if (repository == ZelFile) {
      const char *name = freshName("given");
      writeFile(name, bytes);
      list.push_back({"fileName", word(name)});
    } else {
      held_.push_back(bytes);
      held_.back().push_back(0);  // never an empty block
      list.push_back({"applicationAddressSpace", word(held_.back().data())});
    }
    list.push_back({"size", static_cast<ZelValue>(bytes.size())});
    list.push_back({"inited", 1});
    return create(list);
  }

  Bytes streamOf(ZelObject *compressed) {
    auto size = static_cast<size_t>(readAttribute(ctx_, compressed, "size"));
    return objects_->bytes(compressed, size);
  }

  Picture pictureOf(ZelObject *image, const Picture &shape, int32_t bitOrder = kMsb) {
    return fromStored(shape, objects_->bytes(image, storedBytes(shape).size()), bitOrder);
  }

  // Compresses the picture into a new compressed object of its shape; the object, or null
  // after a failed check.
  ZelObject *compressed(const Picture &p, int repository, const std::vector<ZelAttribute> &extra,
                        int32_t bitOrder = kMsb, int compressedRepository = ZelFile) {
    ZelObject *image = imageObject(p, repository, bitOrder);
    ZelObject *stream = compressedObject(p, compressedRepository, extra);
    if (!image || !stream) return nullptr;
    int code = Zel700(ctx_, image, stream);
    EXPECT_EQ(code, 0) << "last error " << Zel003b(ctx_);
    expectNoStreamOpen({image, stream});
    return code == 0 ? stream : nullptr;
  }

  // Expands `stream` into a new work-space image of `shape`; the code of Zel701.
  int expand(ZelObject *stream, const Picture &shape, Picture &out, int32_t bitOrder = kMsb) {
    ZelObject *image = imageObject(shape, ZelWorkSpace, bitOrder, false);
    if (!image) return -100;
    int code = Zel701(ctx_, stream, image);
    expectNoStreamOpen({image, stream});
    if (code == 0) out = pictureOf(image, shape, bitOrder);
    return code;
  }

  // Zel701 of these stream bytes in the picture's shape, in memory and in a file: the code.
  void expectExpansionRefused(const Picture &shape, const Bytes &bytes, int code,
                              const std::vector<ZelAttribute> &extra = {}) {
    for (int repository : {ZelApplicationAddressSpace, ZelFile}) {
      SCOPED_TRACE(repository);
      ZelObject *stream = streamObject(shape, bytes, repository, extra);
      ASSERT_NE(stream, nullptr);
      Picture out;
      clearLastError(ctx_);
      EXPECT_EQ(expand(stream, shape, out), code);
      EXPECT_EQ(Zel003b(ctx_), code);
    }
  }

  std::mt19937 rng_{264};
  std::list<std::string> names_;
  std::list<Bytes> held_;
};

// Sets "progressive" and "interlacePass" for one scope and puts back what was there.
class ProgressiveDisplay {
 public:
  ProgressiveDisplay(ZelContext *ctx, int pass) : ctx_(ctx) {
    ZelAttribute read[] = {{"progressive", word(&progressive_)},
                           {"interlacePass", word(&interlacePass_)}};
    EXPECT_EQ(Zel007(ctx_, read, 2), 0);
    const ZelAttribute write[] = {{"progressive", 1}, {"interlacePass", pass}};
    EXPECT_EQ(Zel008(ctx_, write, 2), 0);
  }
  ~ProgressiveDisplay() {
    const ZelAttribute restore[] = {{"progressive", progressive_},
                                    {"interlacePass", interlacePass_}};
    EXPECT_EQ(Zel008(ctx_, restore, 2), 0);
  }
  ProgressiveDisplay(const ProgressiveDisplay &) = delete;
  ProgressiveDisplay &operator=(const ProgressiveDisplay &) = delete;

 private:
  ZelContext *ctx_;
  ZelValue progressive_ = 0;
  ZelValue interlacePass_ = 0;
};

const std::vector<ZelAttribute> kInterlacedPng = {{"fileFormat", ZelPng}, {"interlacedImage", 1}};

// ---- Round trips ---------------------------------------------------------------------------

struct Kind {
  const char *name;
  Picture shape;
  int32_t bitOrder;
};

std::vector<Kind> kinds() {
  return {{"Bits8Msb", blankBits(8, 160), kMsb},
          {"Bits8Lsb", blankBits(8, 160), kLsb},
          {"Bits9Msb", blankBits(9, 120), kMsb},
          {"Bits9Lsb", blankBits(9, 120), kLsb},
          {"Grey8", blank(23, 17, 8), kMsb},
          {"Colour8", blank(13, 11, 8, 3), kMsb},
          {"Grey4", blank(9, 14, 4), kMsb},
          {"Grey16", blank(11, 12, 16), kMsb},
          {"Grey2", blank(13, 9, 2), kMsb},
          {"Colour16", blank(6, 7, 16, 3), kMsb},
          {"Grey8TwoPlanes", blank(10, 9, 8, 1, 2), kMsb}};
}

struct RoundTrip {
  Kind kind;
  int filter;
  int level;
  int repository;
};

std::string roundTripName(const testing::TestParamInfo<RoundTrip> &info) {
  const RoundTrip &r = info.param;
  return std::string(r.kind.name) + (r.filter ? "Adaptive" : "NoFilter") + "Level" +
         std::to_string(r.level) + (r.repository == ZelFile ? "File" : "WorkSpace");
}

std::vector<RoundTrip> roundTrips() {
  std::vector<RoundTrip> all;
  for (const Kind &kind : kinds())
    for (int filter : {0, static_cast<int>(ZelAdaptiveFilter)})
      for (int level : {1, 9})
        for (int repository : {ZelWorkSpace, ZelFile})
          all.push_back({kind, filter, level, repository});
  return all;
}

void PrintTo(const RoundTrip &r, std::ostream *out) {
  *out << r.kind.name << " filter " << r.filter << " level " << r.level << " repository "
       << r.repository;
}

class PngRowsRoundTrip : public PngRows, public testing::WithParamInterface<RoundTrip> {};

TEST_P(PngRowsRoundTrip, ExpandingTheCompressedImageGivesItsPixelsBack) {
  const RoundTrip &r = GetParam();
  // A work-space object holds no more stream than it has pixels, so its pictures are sparse.
  Picture p =
      textured(r.kind.shape, rng_, r.repository == ZelWorkSpace ? Texture::Sparse : Texture::Dense);
  const std::vector<ZelAttribute> options = {
      {"filter", r.filter}, {"compressionLevel", r.level}, {"bitOrder", r.kind.bitOrder}};
  ZelObject *stream = compressed(p, r.repository, options, r.kind.bitOrder, r.repository);
  ASSERT_NE(stream, nullptr);
  EXPECT_GT(readAttribute(ctx_, stream, "size"), 0);
  Picture out;
  ASSERT_EQ(expand(stream, p, out, r.kind.bitOrder), 0) << "last error " << Zel003b(ctx_);
  expectSamples(p, out);
}

INSTANTIATE_TEST_SUITE_P(Kinds, PngRowsRoundTrip, testing::ValuesIn(roundTrips()), roundTripName);

// ---- The stream ----------------------------------------------------------------------------

// The stream of each kind is zlib's own stream of the expected rows: the none filter with the
// default strategy, or the choice by score with the filtered strategy.
TEST_F(PngRows, StreamIsZlibOfTheRowsWithTheirFilterBytes) {
  for (const Kind &kind : kinds()) {
    for (int filter : {0, static_cast<int>(ZelAdaptiveFilter)}) {
      for (int level : {1, 6, 9}) {
        SCOPED_TRACE(testing::Message() << kind.name << " filter " << filter << " level " << level);
        Picture p = textured(kind.shape, rng_, Texture::Dense);
        ZelObject *stream = compressed(
            p, ZelWorkSpace,
            {{"filter", filter}, {"compressionLevel", level}, {"bitOrder", kind.bitOrder}},
            kind.bitOrder);
        ASSERT_NE(stream, nullptr);
        Bytes bytes = streamOf(stream);
        std::vector<Bytes> planes = inflatedStreams(bytes);
        ASSERT_EQ(planes.size(), static_cast<size_t>(p.planes()));
        Bytes expected;
        for (int plane = 0; plane < p.planes(); ++plane) {
          Bytes rows = scanlines(p, plane, filter ? kAdaptive : kNone, kind.bitOrder);
          EXPECT_EQ(planes[static_cast<size_t>(plane)], rows) << "plane " << plane;
          Bytes zlib = deflated(rows, level, filter ? Z_FILTERED : Z_DEFAULT_STRATEGY);
          expected.insert(expected.end(), zlib.begin(), zlib.end());
        }
        EXPECT_EQ(bytes, expected);
        EXPECT_EQ(readAttribute(ctx_, stream, "size"), static_cast<ZelValue>(bytes.size()));
      }
    }
  }
}

TEST_F(PngRows, NoFilterPutsTypeZeroBeforeEveryRow) {
  for (int level : {1, 9}) {
    Picture p = textured(blank(40, 30, 8, 3), rng_, Texture::Dense);
    ZelObject *stream = compressed(p, ZelFile, {{"filter", 0}, {"compressionLevel", level}});
    ASSERT_NE(stream, nullptr);
    std::vector<Bytes> planes = inflatedStreams(streamOf(stream));
    ASSERT_EQ(planes.size(), 1u);
    ASSERT_EQ(planes[0].size(), 30u * (40 * 3 + 1));
    std::vector<int> types = filterTypes(planes[0], 40 * 3);
    EXPECT_EQ(types, std::vector<int>(30, kNone));
  }
}

TEST_F(PngRows, StreamLongerThanTheStagingBufferComesOutWhole) {
  // About 48 KiB of noise: the stream passes through zlib's output buffer several times.
  Picture p = textured(blank(128, 128, 8, 3), rng_, Texture::Dense);
  for (int filter : {0, static_cast<int>(ZelAdaptiveFilter)}) {
    ZelObject *stream = compressed(p, ZelFile, {{"filter", filter}, {"compressionLevel", 1}});
    ASSERT_NE(stream, nullptr);
    Bytes bytes = streamOf(stream);
    EXPECT_GT(bytes.size(), 3u * 8192);
    EXPECT_EQ(bytes, deflated(scanlines(p, 0, filter ? kAdaptive : kNone), 1,
                              filter ? Z_FILTERED : Z_DEFAULT_STRATEGY));
    EXPECT_EQ(
        bytes.size(),
        fs::file_size(reinterpret_cast<const char *>(readAttribute(ctx_, stream, "fileName"))));
    Picture out;
    ASSERT_EQ(expand(stream, p, out), 0);
    expectSamples(p, out);
  }
}

// ---- The filter choice ---------------------------------------------------------------------

std::vector<int> adaptiveTypes(const Picture &p) {
  return filterTypes(scanlines(p, 0, kAdaptive),
                     codedRow(p, columnsFrom(0, 1, p.width), 0, 0).size());
}

TEST_F(PngRows, AdaptiveFilterKeepsNoneOnAZeroImageWhereEveryScoreTies) {
  for (const Picture &p : {blank(16, 5, 8), blank(7, 4, 8, 3), blank(5, 3, 16), blankBits(20, 4)}) {
    ZelObject *stream = compressed(p, ZelFile, {{"filter", ZelAdaptiveFilter}});
    ASSERT_NE(stream, nullptr);
    std::vector<Bytes> planes = inflatedStreams(streamOf(stream));
    ASSERT_EQ(planes.size(), 1u);
    size_t rowBytes = codedRow(p, columnsFrom(0, 1, p.width), 0, 0).size();
    EXPECT_EQ(filterTypes(planes[0], rowBytes), std::vector<int>(p.height, kNone));
    EXPECT_EQ(planes[0], Bytes(p.height * (rowBytes + 1), 0));
  }
}

TEST_F(PngRows, AdaptiveFilterOnAConstantImagePrefersTheEarlierOfEqualScores) {
  // Row 0: sub and Paeth both keep only the first pixel; sub comes first. Later rows: up and
  // Paeth give zeros; up comes first.
  Picture p = blank(12, 4, 8);
  std::fill(p.samples.begin(), p.samples.end(), 7);
  ZelObject *stream = compressed(p, ZelFile, {{"filter", ZelAdaptiveFilter}});
  ASSERT_NE(stream, nullptr);
  std::vector<Bytes> planes = inflatedStreams(streamOf(stream));
  ASSERT_EQ(planes.size(), 1u);
  std::vector<int> expected = {kSub, kUp, kUp, kUp};
  EXPECT_EQ(adaptiveTypes(p), expected);
  EXPECT_EQ(filterTypes(planes[0], 12), expected);
}

// Rows made to favour each filter in turn: noise, a ramp, a copy of the row above, the mean of
// left and above, and a gradient in both directions.
Picture shapedRows(Picture p, std::mt19937 &rng) {
  uint32_t levels = 1u << p.depth;
  for (int b = 0; b < p.bands; ++b) {
    for (int y = 0; y < p.height; ++y) {
      for (int x = 0; x < p.width; ++x) {
        uint32_t noise = static_cast<uint32_t>(rng());
        uint32_t v = 0;
        switch (y % 5) {
          case 0:
            v = noise >> 4;
            break;
          case 1:
            v = 3 * x + 40 * b + (noise % 2);
            break;
          case 2:
            v = p.at(x, y - 1, 0, b) + (noise % 2);
            break;
          case 3:
            v = x == 0 ? p.at(x, y - 1, 0, b) : (p.at(x - 1, y, 0, b) + p.at(x, y - 1, 0, b)) / 2;
            break;
          default:
            v = x == 0 ? p.at(x, y - 1, 0, b) + 9
                       : p.at(x - 1, y, 0, b) + p.at(x, y - 1, 0, b) - p.at(x - 1, y - 1, 0, b);
            break;
        }
        p.at(x, y, 0, b) = static_cast<uint16_t>(v % levels);
      }
    }
  }
  return p;
}

TEST_F(PngRows, AdaptiveFilterTakesTheRowOfTheLowestScore) {
  std::vector<int> seen(5, 0);
  for (const Picture &shape : {blank(24, 25, 8), blank(10, 15, 8, 3), blank(9, 10, 16),
                               blank(31, 10, 4), blank(21, 10, 2), blank(14, 10, 16, 3)}) {
    SCOPED_TRACE(testing::Message() << shape.width << "x" << shape.height << " depth "
                                    << shape.depth << " bands " << shape.bands);
    Picture p = shapedRows(shape, rng_);
    ZelObject *stream = compressed(p, ZelFile, {{"filter", ZelAdaptiveFilter}});
    ASSERT_NE(stream, nullptr);
    std::vector<Bytes> planes = inflatedStreams(streamOf(stream));
    ASSERT_EQ(planes.size(), 1u);
    std::vector<int> expected = adaptiveTypes(p);
    EXPECT_EQ(filterTypes(planes[0], codedRow(p, columnsFrom(0, 1, p.width), 0, 0).size()),
              expected);
    EXPECT_EQ(planes[0], scanlines(p, 0, kAdaptive));
    for (int type : expected)
      seen[static_cast<size_t>(type)] += 1;
  }
  // The pictures are made so that every filter wins somewhere.
  for (int type = kNone; type <= kPaeth; ++type)
    EXPECT_GT(seen[static_cast<size_t>(type)], 0) << "filter " << type << " never chosen";
}

// ---- Boolean rows --------------------------------------------------------------------------

TEST_F(PngRows, BooleanRowsComeOutInTheCompressedObjectsBitOrderWhereverTheLineStarts) {
  // Widths 8 and 16 with the same bit order copy bytes; the others go bit by bit. Image lines
  // of 9, 12 and 17 pixels start inside a byte.
  for (int imageWidth : {8, 9, 12, 16, 17}) {
    for (int streamWidth : {8, 9, 16}) {
      for (int32_t imageOrder : {kMsb, kLsb}) {
        for (int32_t streamOrder : {kMsb, kLsb}) {
          SCOPED_TRACE(testing::Message()
                       << "image " << imageWidth << " order " << imageOrder << ", stream "
                       << streamWidth << " order " << streamOrder);
          Picture p = textured(blankBits(imageWidth, 5), rng_, Texture::Dense);
          Picture target = blankBits(streamWidth, 5);
          ZelObject *image = imageObject(p, ZelWorkSpace, imageOrder);
          ZelObject *stream = compressedObject(target, ZelFile, {{"bitOrder", streamOrder}});
          ASSERT_TRUE(image && stream);
          ASSERT_EQ(Zel700(ctx_, image, stream), 0);
          std::vector<Bytes> planes = inflatedStreams(streamOf(stream));
          ASSERT_EQ(planes.size(), 1u);
          EXPECT_EQ(planes[0], scanlines(fitted(p, streamWidth, 5, 1), 0, kNone, streamOrder));
        }
      }
    }
  }
}

TEST_F(PngRows, LeastSignificantFirstStreamOfAMostSignificantFirstImageReversesEachByte) {
  Picture p = textured(blankBits(16, 6), rng_, Texture::Dense);
  Bytes image = storedBytes(p, kMsb);
  ZelObject *stream = compressed(p, ZelWorkSpace, {{"bitOrder", kLsb}});
  ASSERT_NE(stream, nullptr);
  std::vector<Bytes> planes = inflatedStreams(streamOf(stream));
  ASSERT_EQ(planes.size(), 1u);
  ASSERT_EQ(planes[0].size(), 6u * 3);
  for (size_t y = 0; y < 6; ++y) {
    EXPECT_EQ(planes[0][3 * y], 0);
    for (size_t i = 0; i < 2; ++i) {
      uint8_t reversed = 0;
      for (int bit = 0; bit < 8; ++bit)
        if (image[2 * y + i] & (1 << bit)) reversed |= static_cast<uint8_t>(0x80 >> bit);
      EXPECT_EQ(planes[0][3 * y + 1 + i], reversed) << "row " << y << " byte " << i;
    }
  }
}

TEST_F(PngRows, BooleanStreamMergesIntoLinesThatStartInsideAByte) {
  // A 9 x 6 stream into narrower and wider images: only the overlap changes.
  Picture p = textured(blankBits(9, 6), rng_, Texture::Dense);
  ZelObject *stream = compressed(p, ZelWorkSpace, {});
  ASSERT_NE(stream, nullptr);
  for (int width : {5, 7, 11, 13}) {
    SCOPED_TRACE(width);
    Picture before = textured(blankBits(width, 8), rng_, Texture::Dense);
    ZelObject *image = imageObject(before, ZelWorkSpace);
    ASSERT_NE(image, nullptr);
    ASSERT_EQ(Zel701(ctx_, stream, image), 0);
    Picture expected = before;
    for (int y = 0; y < 6; ++y)
      for (int x = 0; x < std::min(width, 9); ++x)
        expected.at(x, y) = p.at(x, y);
    expectSamples(expected, pictureOf(image, before));
  }
}

// ---- Adam7 ---------------------------------------------------------------------------------

struct InterlacedCase {
  const char *name;
  Picture shape;
};

std::vector<InterlacedCase> interlacedCases() {
  return {{"Grey8", blank(13, 11, 8)},        {"Colour8", blank(10, 9, 8, 3)},
          {"Bits", blankBits(11, 10)},        {"Grey2", blank(9, 9, 2)},
          {"Grey4", blank(17, 3, 4)},         {"Grey16", blank(6, 7, 16)},
          {"OneColumn", blank(1, 9, 8)},      {"OneRow", blank(12, 1, 8)},
          {"TwoByTwo", blank(2, 2, 8, 3)},    {"Large", blank(37, 29, 8)},
          {"TwoPlanes", blank(9, 8, 8, 1, 2)}};
}

TEST_F(PngRows, InterlacedStreamExpandsToTheImage) {
  for (const InterlacedCase &c : interlacedCases()) {
    for (int type : {static_cast<int>(kNone), kCycle, kAdaptive}) {
      SCOPED_TRACE(testing::Message() << c.name << " filter " << type);
      Picture p = textured(c.shape, rng_, Texture::Dense);
      Bytes bytes;
      for (int plane = 0; plane < p.planes(); ++plane) {
        Bytes zlib = zlibStream(scanlines(p, plane, type, kMsb, true));
        bytes.insert(bytes.end(), zlib.begin(), zlib.end());
      }
      ZelObject *stream = streamObject(p, bytes, ZelApplicationAddressSpace, kInterlacedPng);
      ASSERT_NE(stream, nullptr);
      Picture out;
      ASSERT_EQ(expand(stream, p, out), 0) << "last error " << Zel003b(ctx_);
      expectSamples(p, out);
    }
  }
}

TEST_F(PngRows, OnePixelWideInterlacedImageHasNoRowsInTheSecondFourthAndSixthPass) {
  Picture p = textured(blank(1, 10, 8), rng_, Texture::Dense);
  // Without the passes that start right of column 0 the stream holds 10 rows of 2 bytes.
  Bytes rows = scanlines(p, 0, kNone, kMsb, true);
  ASSERT_EQ(rows.size(), 20u);
  ZelObject *stream = streamObject(p, zlibStream(rows), ZelFile, kInterlacedPng);
  Picture out;
  ASSERT_EQ(expand(stream, p, out), 0);
  expectSamples(p, out);

  // The same stream with rows for those passes, as if they had a pixel each, is too long.
  Bytes padded;
  for (int pass = 0; pass < 7; ++pass) {
    Rows passData = passRows(p, pass);
    if (passData.empty())
      passData.assign(
          static_cast<size_t>((10 - kPasses[pass].rowStart + kPasses[pass].rowStep - 1) /
                              kPasses[pass].rowStep),
          Bytes{0x55});
    appendFiltered(passData, 1, kNone, padded);
  }
  EXPECT_EQ(padded.size(), 20u + 2 * (2 + 3 + 5));
  expectExpansionRefused(p, zlibStream(padded), 22, kInterlacedPng);
}

TEST_F(PngRows, InterlaceFlagCountsOnPngObjectsOnly) {
  // Plain rows under a PNG record without the flag, and under a GIF record with its own flag.
  Picture p = textured(blank(10, 10, 8), rng_, Texture::Dense);
  Bytes bytes = zlibStream(scanlines(p, 0, kCycle));
  for (const std::vector<ZelAttribute> &extra :
       {std::vector<ZelAttribute>{{"fileFormat", ZelPng}, {"interlacedImage", 0}},
        std::vector<ZelAttribute>{{"fileFormat", ZelGif}, {"interlacedImage", 1}}}) {
    ZelObject *stream = streamObject(p, bytes, ZelFile, extra);
    ASSERT_NE(stream, nullptr);
    ASSERT_EQ(readAttribute(ctx_, stream, "interlacedImage"), extra[1].value);
    Picture out;
    ASSERT_EQ(expand(stream, p, out), 0);
    expectSamples(p, out);
  }
  // The same rows read as passes are too many.
  ASSERT_NE(scanlines(p, 0, kNone, kMsb, true).size(), scanlines(p, 0, kNone).size());
  expectExpansionRefused(p, zlibStream(scanlines(p, 0, kNone)), 22, kInterlacedPng);
}

// The picture shown after `passes` passes: each pixel of a pass fills its block.
Picture blockPicture(const Picture &p, int passes) {
  Picture out = p;
  std::fill(out.samples.begin(), out.samples.end(), 0);
  for (int pass = 0; pass < passes; ++pass) {
    const PassGeometry &g = kPasses[pass];
    for (int y = g.rowStart; y < p.height; y += g.rowStep)
      for (int x = g.colStart; x < p.width; x += g.colStep)
        for (int by = y; by < std::min(y + kBlockHeight[pass], p.height); ++by)
          for (int bx = x; bx < std::min(x + kBlockWidth[pass], p.width); ++bx)
            for (int b = 0; b < p.bands; ++b)
              out.at(bx, by, 0, b) = p.at(x, y, 0, b);
  }
  return out;
}

TEST_F(PngRows, ProgressiveDisplayOfTheFirstPassFillsEachBlockWithItsTopLeftPixel) {
  for (const Picture &shape : {blank(21, 19, 8), blank(16, 16, 8, 3), blankBits(19, 10)}) {
    Picture p = textured(shape, rng_, Texture::Dense);
    ZelObject *stream =
        streamObject(p, zlibStream(scanlines(p, 0, kCycle, kMsb, true)), ZelFile, kInterlacedPng);
    ProgressiveDisplay display(ctx_, 1);
    Picture out;
    ASSERT_EQ(expand(stream, p, out), 0) << "last error " << Zel003b(ctx_);
    Picture expected = p;
    for (int b = 0; b < p.bands; ++b)
      for (int y = 0; y < p.height; ++y)
        for (int x = 0; x < p.width; ++x)
          expected.at(x, y, 0, b) = p.at(x / 8 * 8, y / 8 * 8, 0, b);
    expectSamples(expected, out);
    expectSamples(blockPicture(p, 1), out);
  }
  EXPECT_EQ(Zel007a(ctx_, "progressive"), 0);
  EXPECT_EQ(Zel007a(ctx_, "interlacePass"), 1);
}

TEST_F(PngRows, ProgressiveDisplayBuildsThePicturePassByPass) {
  Picture p = textured(blank(19, 21, 8), rng_, Texture::Dense);
  Bytes bytes = zlibStream(scanlines(p, 0, kAdaptive, kMsb, true));
  for (int passes = 1; passes <= 7; ++passes) {
    SCOPED_TRACE(passes);
    ZelObject *stream = streamObject(p, bytes, ZelApplicationAddressSpace, kInterlacedPng);
    ProgressiveDisplay display(ctx_, passes);
    Picture out;
    ASSERT_EQ(expand(stream, p, out), 0) << "last error " << Zel003b(ctx_);
    expectSamples(blockPicture(p, passes), out);
  }
  Picture all = blockPicture(p, 7);
  expectSamples(p, all);
}

TEST_F(PngRows, ProgressiveDisplayWithoutAPassBetweenOneAndSevenIsOutOfRange) {
  Picture p = textured(blank(9, 9, 8), rng_, Texture::Dense);
  Bytes bytes = zlibStream(scanlines(p, 0, kNone, kMsb, true));
  for (int pass : {0, 8, -1}) {
    SCOPED_TRACE(pass);
    ProgressiveDisplay display(ctx_, pass);
    expectExpansionRefused(p, bytes, 18, kInterlacedPng);
  }
  // The pass is checked for rows without interlacing too, and the rows are read as they are.
  Bytes rows = zlibStream(scanlines(p, 0, kNone));
  {
    ProgressiveDisplay display(ctx_, 0);
    expectExpansionRefused(p, rows, 18);
  }
  {
    ProgressiveDisplay display(ctx_, 1);
    ZelObject *stream = streamObject(p, rows);
    Picture out;
    ASSERT_EQ(expand(stream, p, out), 0);
    expectSamples(p, out);
  }
  EXPECT_EQ(Zel007a(ctx_, "progressive"), 0);
  EXPECT_EQ(Zel007a(ctx_, "interlacePass"), 1);
}

// ---- Damaged streams -----------------------------------------------------------------------

TEST_F(PngRows, StreamWithAByteAfterItsEndIsASyntaxError) {
  Picture p = textured(blank(12, 7, 8), rng_, Texture::Dense);
  Bytes bytes = zlibStream(scanlines(p, 0, kNone));
  ZelObject *good = streamObject(p, bytes);
  Picture out;
  ASSERT_EQ(expand(good, p, out), 0);
  expectSamples(p, out);
  for (uint8_t extra : {uint8_t{0x00}, uint8_t{0x78}}) {
    Bytes longer = bytes;
    longer.push_back(extra);
    expectExpansionRefused(p, longer, 22);
  }
}

TEST_F(PngRows, TruncatedStreamIsASyntaxError) {
  Picture p = textured(blank(12, 7, 8), rng_, Texture::Dense);
  Bytes bytes = zlibStream(scanlines(p, 0, kNone));
  for (size_t cut : {size_t{1}, size_t{4}, size_t{5}, bytes.size() / 2, bytes.size() - 2}) {
    SCOPED_TRACE(cut);
    expectExpansionRefused(p, Bytes(bytes.begin(), bytes.end() - static_cast<long>(cut)), 22);
  }
  expectExpansionRefused(p, Bytes{}, 22);
}

TEST_F(PngRows, StreamWithTooFewOrTooManyRowsIsASyntaxError) {
  Picture p = textured(blank(12, 7, 8), rng_, Texture::Dense);
  Bytes rows = scanlines(p, 0, kNone);
  Bytes shorter(rows.begin(), rows.end() - 13);
  expectExpansionRefused(p, zlibStream(shorter), 22);
  Bytes oneByteShort(rows.begin(), rows.end() - 1);
  expectExpansionRefused(p, zlibStream(oneByteShort), 22);
  Bytes longer = rows;
  longer.push_back(0);
  expectExpansionRefused(p, zlibStream(longer), 22);
}

TEST_F(PngRows, FilterTypeAboveFourIsASyntaxError) {
  Picture p = textured(blank(12, 7, 8), rng_, Texture::Dense);
  for (int row : {0, 3, 6}) {
    for (int type : {5, 255}) {
      SCOPED_TRACE(testing::Message() << "row " << row << " type " << type);
      Bytes rows = scanlines(p, 0, kNone);
      rows[static_cast<size_t>(row) * 13] = static_cast<uint8_t>(type);
      expectExpansionRefused(p, zlibStream(rows), 22);
    }
  }
}

TEST_F(PngRows, CorruptZlibDataIsASyntaxError) {
  Picture p = textured(blank(12, 7, 8), rng_, Texture::Dense);
  Bytes bytes = zlibStream(scanlines(p, 0, kNone));
  Bytes header = bytes;
  header[1] ^= 0x01;  // the header check fails
  expectExpansionRefused(p, header, 22);
  Bytes method = bytes;
  method[0] = 0x79;  // no such method
  expectExpansionRefused(p, method, 22);
  Bytes checksum = bytes;
  checksum.back() ^= 0x40;
  expectExpansionRefused(p, checksum, 22);
  Bytes noise(40);
  for (uint8_t &b : noise)
    b = static_cast<uint8_t>(rng_());
  noise[0] = 0x78;
  noise[1] = 0x9C;
  noise[2] = 0xFF;  // a block of the reserved type
  expectExpansionRefused(p, noise, 22);
  // Raw deflate data without the zlib header.
  z_stream s{};
  ASSERT_EQ(deflateInit2(&s, 6, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY), Z_OK);
  Bytes rows = scanlines(p, 0, kNone), raw(rows.size() + 64);
  s.next_in = rows.data();
  s.avail_in = static_cast<uInt>(rows.size());
  s.next_out = raw.data();
  s.avail_out = static_cast<uInt>(raw.size());
  ASSERT_EQ(deflate(&s, Z_FINISH), Z_STREAM_END);
  raw.resize(s.total_out);
  deflateEnd(&s);
  expectExpansionRefused(p, raw, 22);
}

TEST_F(PngRows, StreamFarTooShortForItsRowsIsRefusedAtOnce) {
  // 30000 x 30000 rows can't come out of a dozen bytes; an interlaced picture would otherwise
  // collect them in a work object of that size.
  Picture shape;  // its shape only: the samples of the test stay empty
  shape.width = shape.height = 30000;
  Bytes bytes = zlibStream(Bytes(100, 0));
  for (const std::vector<ZelAttribute> &extra : {std::vector<ZelAttribute>{}, kInterlacedPng}) {
    ZelObject *stream = streamObject(shape, bytes, ZelApplicationAddressSpace, extra);
    ASSERT_NE(stream, nullptr);
    ZelObject *image = imageObject(blank(4, 4, 8), ZelWorkSpace);
    clearLastError(ctx_);
    EXPECT_EQ(Zel701(ctx_, stream, image), 22);
    EXPECT_EQ(Zel003b(ctx_), 22);
  }
}

TEST_F(PngRows, BlankImagesAtDeflatesHighestRatioStillExpand) {
  // Rows of one byte of zeros behind their type byte compress by more than a thousand to one;
  // the stream is short, but sound.
  for (const Picture &shape : {blankBits(8, 40000), blank(1, 40000, 8)}) {
    SCOPED_TRACE(testing::Message() << shape.width << " x " << shape.height);
    ZelObject *stream =
        compressed(shape, ZelWorkSpace, {{"compressionLevel", 9}}, kMsb, ZelWorkSpace);
    ASSERT_NE(stream, nullptr);
    std::vector<Bytes> planes = inflatedStreams(streamOf(stream));
    ASSERT_EQ(planes.size(), 1u);
    EXPECT_EQ(planes[0], Bytes(80000, 0));
    Picture out;
    EXPECT_EQ(expand(stream, shape, out), 0)
        << "stream of " << streamOf(stream).size() << " bytes, last error " << Zel003b(ctx_);
  }
}

// ---- Refusals of Zel700 ----------------------------------------------------------------------

TEST_F(PngRows, CompressingIntoTwoOrFourBandsIsNotPermitted) {
  for (int bands : {2, 4}) {
    Picture p = textured(blank(6, 5, 8, bands), rng_, Texture::Dense);
    ZelObject *image = imageObject(p, ZelWorkSpace);
    ZelObject *stream = compressedObject(p, ZelFile);
    ASSERT_TRUE(image && stream);
    clearLastError(ctx_);
    EXPECT_EQ(Zel700(ctx_, image, stream), 12);
    EXPECT_EQ(Zel003b(ctx_), 12);
    EXPECT_EQ(readAttribute(ctx_, stream, "size"), 0);
    expectNoStreamOpen({image, stream});
  }
}

TEST_F(PngRows, CompressingWithAnUnknownFilterOrLevelIsNotPermitted) {
  Picture p = textured(blank(6, 5, 8), rng_, Texture::Dense);
  ZelObject *image = imageObject(p, ZelWorkSpace);
  ASSERT_NE(image, nullptr);
  const std::vector<std::vector<ZelAttribute>> refused = {
      {{"filter", 1}},
      {{"filter", 4}},
      {{"filter", 269}},
      {{"filter", 271}},
      {{"filter", -1}},
      {{"compressionLevel", 0}},
      {{"compressionLevel", 10}},
      {{"compressionLevel", -1}},
      {{"filter", ZelAdaptiveFilter}, {"compressionLevel", 0}}};
  for (const std::vector<ZelAttribute> &options : refused) {
    SCOPED_TRACE(testing::Message() << options.back().name << " " << options.back().value);
    ZelObject *stream = compressedObject(p, ZelFile, options);
    ASSERT_NE(stream, nullptr);
    clearLastError(ctx_);
    EXPECT_EQ(Zel700(ctx_, image, stream), 12);
    EXPECT_EQ(Zel003b(ctx_), 12);
    EXPECT_EQ(readAttribute(ctx_, stream, "size"), 0);
    expectNoStreamOpen({image, stream});
  }
  // The default level is one of those permitted.
  ZelObject *stream = compressedObject(p, ZelFile);
  ASSERT_NE(stream, nullptr);
  ASSERT_EQ(readAttribute(ctx_, stream, "compressionLevel"), 6);
  EXPECT_EQ(Zel700(ctx_, image, stream), 0);
  EXPECT_EQ(streamOf(stream), deflated(scanlines(p, 0, kNone), 6, Z_DEFAULT_STRATEGY));
}

TEST_F(PngRows, PixelsTheCodeDoesNotTakeMismatchTheDataType) {
  // Real and Signed images, Boolean pixels for byte rows, bytes for 16-bit rows.
  Picture bytes = blank(6, 5, 8);
  for (int32_t type : {ZelReal, ZelSigned}) {
    ZelObject *image = create({{"dataType", type}, {"xDimension", 6}, {"yDimension", 5}});
    ZelObject *stream = compressedObject(bytes, ZelFile);
    ASSERT_TRUE(image && stream);
    clearLastError(ctx_);
    EXPECT_EQ(Zel700(ctx_, image, stream), 10) << type;
    EXPECT_EQ(Zel003b(ctx_), 10);
    ZelObject *given = streamObject(bytes, zlibStream(scanlines(bytes, 0, kNone)));
    EXPECT_EQ(Zel701(ctx_, given, image), 10) << type;
    expectNoStreamOpen({image, stream, given});
  }
  ZelObject *bits = imageObject(blankBits(6, 5), ZelWorkSpace);
  ZelObject *stream = compressedObject(bytes, ZelFile);
  EXPECT_EQ(Zel700(ctx_, bits, stream), 10);
  ZelObject *grey = imageObject(bytes, ZelWorkSpace);
  ZelObject *wide = compressedObject(blank(6, 5, 16), ZelFile);
  EXPECT_EQ(Zel700(ctx_, grey, wide), 10);
  // A depth that rows don't have.
  Picture three = blank(6, 5, 3);
  EXPECT_EQ(Zel700(ctx_, grey, compressedObject(three, ZelFile)), 10);
}

TEST_F(PngRows, SizeHoldsTheLengthOfTheStream) {
  for (int repository : {ZelWorkSpace, ZelFile}) {
    // A work-space object has room for no more stream than it has pixels.
    Picture p = textured(blank(33, 21, 8, 3), rng_,
                         repository == ZelWorkSpace ? Texture::Sparse : Texture::Dense);
    ZelObject *image = imageObject(p, ZelWorkSpace);
    ZelObject *stream = compressedObject(p, repository);
    ASSERT_TRUE(image && stream);
    ASSERT_EQ(Zel700(ctx_, image, stream), 0);
    auto size = static_cast<size_t>(readAttribute(ctx_, stream, "size"));
    EXPECT_EQ(size, deflated(scanlines(p, 0, kNone), 6, Z_DEFAULT_STRATEGY).size());
    std::vector<Bytes> planes = inflatedStreams(objects_->bytes(stream, size));
    ASSERT_EQ(planes.size(), 1u);
    if (repository == ZelFile) {
      auto *name = reinterpret_cast<const char *>(readAttribute(ctx_, stream, "fileName"));
      EXPECT_EQ(fs::file_size(name), size);
    }
  }
}

TEST_F(PngRows, StreamBeyondTheRoomOfAWorkSpaceObjectIsInsufficientSize) {
  // Noise doesn't compress: its stream is longer than the pixels the object has room for.
  Picture p = textured(blank(40, 40, 8), rng_, Texture::Dense);
  ZelObject *image = imageObject(p, ZelWorkSpace);
  ZelObject *stream = compressedObject(p, ZelWorkSpace);
  ASSERT_TRUE(image && stream);
  clearLastError(ctx_);
  EXPECT_EQ(Zel700(ctx_, image, stream), 8);
  EXPECT_EQ(Zel003b(ctx_), 8);
  expectNoStreamOpen({image, stream});
}

// ---- Shapes that differ ----------------------------------------------------------------------

TEST_F(PngRows, RowsAndPlanesTheImageLacksAreCodedAsZeros) {
  Picture p = textured(blank(5, 3, 8, 3), rng_, Texture::Dense);
  Picture target = blank(8, 6, 8, 3, 2);
  ZelObject *image = imageObject(p, ZelWorkSpace);
  ZelObject *stream = compressedObject(target, ZelFile);
  ASSERT_TRUE(image && stream);
  ASSERT_EQ(Zel700(ctx_, image, stream), 0);
  std::vector<Bytes> planes = inflatedStreams(streamOf(stream));
  ASSERT_EQ(planes.size(), 2u);
  Picture expected = fitted(p, 8, 6, 2);
  EXPECT_EQ(planes[0], scanlines(expected, 0, kNone));
  EXPECT_EQ(planes[1], Bytes(6 * (8 * 3 + 1), 0));
}

TEST_F(PngRows, PlanesMeetAtTheirZAndTCoordinates) {
  // An image of two t planes into a stream of two z planes: they share the plane z = 0, t = 0
  // only; the stream's plane z = 1 is not in the image.
  Picture p = textured(blank(6, 4, 8, 1, 1, 2), rng_, Texture::Dense);
  Picture target = blank(6, 4, 8, 1, 2, 1);
  ZelObject *image = imageObject(p, ZelWorkSpace);
  ZelObject *stream = compressedObject(target, ZelFile);
  ASSERT_TRUE(image && stream);
  ASSERT_EQ(Zel700(ctx_, image, stream), 0);
  std::vector<Bytes> planes = inflatedStreams(streamOf(stream));
  ASSERT_EQ(planes.size(), 2u);
  EXPECT_EQ(planes[0], scanlines(p, 0, kNone));
  EXPECT_EQ(planes[1], Bytes(4 * 7, 0));
}

TEST_F(PngRows, NarrowerImageCompressesItsOverlapOnly) {
  Picture p = textured(blank(12, 9, 16), rng_, Texture::Dense);
  Picture target = blank(7, 4, 16);
  ZelObject *image = imageObject(p, ZelFile);
  ZelObject *stream = compressedObject(target, ZelFile, {{"filter", ZelAdaptiveFilter}});
  ASSERT_TRUE(image && stream);
  ASSERT_EQ(Zel700(ctx_, image, stream), 0);
  std::vector<Bytes> planes = inflatedStreams(streamOf(stream));
  ASSERT_EQ(planes.size(), 1u);
  EXPECT_EQ(planes[0], scanlines(fitted(p, 7, 4, 1), 0, kAdaptive));
}

TEST_F(PngRows, SmallerImageReceivesTheOverlapAndLargerKeepsItsOtherPixels) {
  for (const Picture &shape : {blank(10, 8, 8), blank(10, 8, 8, 3), blank(10, 8, 16)}) {
    SCOPED_TRACE(testing::Message() << "depth " << shape.depth << " bands " << shape.bands);
    Picture p = textured(shape, rng_, Texture::Dense);
    ZelObject *stream = streamObject(p, zlibStream(scanlines(p, 0, kCycle)));
    for (int repository : {ZelWorkSpace, ZelFile}) {
      Picture small = blank(6, 5, p.depth, p.bands);
      ZelObject *smaller = imageObject(small, repository, kMsb, false);
      ASSERT_EQ(Zel701(ctx_, stream, smaller), 0);
      expectSamples(fitted(p, 6, 5, 1), pictureOf(smaller, small));

      Picture before = textured(blank(14, 11, p.depth, p.bands, 2), rng_, Texture::Dense);
      ZelObject *larger = imageObject(before, repository);
      ASSERT_EQ(Zel701(ctx_, stream, larger), 0);
      Picture expected = before;
      for (int b = 0; b < p.bands; ++b)
        for (int y = 0; y < p.height; ++y)
          for (int x = 0; x < p.width; ++x)
            expected.at(x, y, 0, b) = p.at(x, y, 0, b);
      expectSamples(expected, pictureOf(larger, before));
      expectNoStreamOpen({stream, smaller, larger});
    }
  }
}

TEST_F(PngRows, EveryPlaneIsAStreamOfItsOwn) {
  for (const Picture &shape : {blank(9, 7, 8, 1, 2), blank(6, 5, 8, 3, 2, 2)}) {
    SCOPED_TRACE(shape.planes());
    Picture p = textured(shape, rng_, Texture::Dense);
    ZelObject *stream = compressed(p, ZelFile, {{"filter", ZelAdaptiveFilter}});
    ASSERT_NE(stream, nullptr);
    Bytes bytes = streamOf(stream);
    std::vector<Bytes> planes = inflatedStreams(bytes);
    ASSERT_EQ(planes.size(), static_cast<size_t>(p.planes()));
    for (int plane = 0; plane < p.planes(); ++plane)
      EXPECT_EQ(planes[static_cast<size_t>(plane)], scanlines(p, plane, kAdaptive));
    Picture out;
    ASSERT_EQ(expand(stream, p, out), 0);
    expectSamples(p, out);

    // One stream for all planes runs short of the second plane's stream.
    Bytes joined;
    for (int plane = 0; plane < p.planes(); ++plane) {
      Bytes rows = scanlines(p, plane, kNone);
      joined.insert(joined.end(), rows.begin(), rows.end());
    }
    expectExpansionRefused(p, zlibStream(joined), 22);
  }
}

TEST_F(PngRows, DeviceIndependentLayoutTakesRowsBottomUp) {
  Picture p = textured(blank(7, 5, 8), rng_, Texture::Dense);
  ZelObject *stream = streamObject(p, zlibStream(scanlines(p, 0, kAdaptive)));
  ZelObject *image = imageObject(p, ZelWorkSpace, kMsb, false);
  ASSERT_EQ(Zel006a(ctx_, image, "pixelInterpretation", ZelBmp), 0);
  ASSERT_EQ(Zel701(ctx_, stream, image), 0);
  Picture expected = p;
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 7; ++x)
      expected.at(x, 4 - y) = p.at(x, y);
  expectSamples(expected, pictureOf(image, p));

  // Three bands go blue, green, red into one line.
  Picture colour = textured(blank(4, 3, 8, 3), rng_, Texture::Dense);
  ZelObject *colourStream = streamObject(colour, zlibStream(scanlines(colour, 0, kNone)));
  Picture line = blank(12, 3, 8);
  ZelObject *bgr = imageObject(line, ZelWorkSpace, kMsb, false);
  ASSERT_EQ(Zel006a(ctx_, bgr, "pixelInterpretation", ZelBmp), 0);
  ASSERT_EQ(Zel701(ctx_, colourStream, bgr), 0);
  Picture expectedLine = line;
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 4; ++x)
      for (int b = 0; b < 3; ++b)
        expectedLine.at(3 * x + b, 2 - y) = colour.at(x, y, 0, 2 - b);
  expectSamples(expectedLine, pictureOf(bgr, line));
}

}  // namespace
