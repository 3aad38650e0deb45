// PNG files: chunks built byte by byte and read back, what the reader takes and refuses, the
// attributes it sets on images and lookup tables, and what the writer puts in a file for each
// kind of image and option, with round trips through files and memory.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

#include "operator_fixture.h"
#include "test_support.h"

namespace {

using namespace zel::test;
using namespace zel::test::operators;

using Bytes = std::vector<uint8_t>;
using List = std::vector<ZelAttribute>;

void put32(Bytes &out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8)
    out.push_back(static_cast<uint8_t>(v >> shift & 0xFF));
}

uint32_t get32(const Bytes &in, size_t at) {
  return uint32_t{in[at]} << 24 | uint32_t{in[at + 1]} << 16 | uint32_t{in[at + 2]} << 8 |
         in[at + 3];
}

// One chunk: length, type, data and the CRC over type and data.
Bytes chunk(const std::string &type, const Bytes &data) {
  Bytes out;
  put32(out, static_cast<uint32_t>(data.size()));
  out.insert(out.end(), type.begin(), type.end());
  out.insert(out.end(), data.begin(), data.end());
  uLong crc = crc32(0, reinterpret_cast<const Bytef *>(type.data()), 4);
  if (!data.empty()) crc = crc32(crc, data.data(), static_cast<uInt>(data.size()));
  put32(out, static_cast<uint32_t>(crc));
  return out;
}

Bytes header(uint32_t width, uint32_t height, int depth, int type, int interlace = 0) {
  Bytes data;
  put32(data, width);
  put32(data, height);
  data.insert(data.end(), {static_cast<uint8_t>(depth), static_cast<uint8_t>(type), 0, 0,
                           static_cast<uint8_t>(interlace)});
  return chunk("IHDR", data);
}

// Rows of `rowBytes` each, behind the filter byte None, through one zlib stream.
Bytes deflated(const Bytes &rows, size_t rowBytes) {
  Bytes filtered;
  for (size_t at = 0; at < rows.size(); at += rowBytes) {
    filtered.push_back(0);
    filtered.insert(filtered.end(), rows.begin() + static_cast<long>(at),
                    rows.begin() + static_cast<long>(at + rowBytes));
  }
  uLongf size = compressBound(static_cast<uLong>(filtered.size()));
  Bytes out(size);
  EXPECT_EQ(compress(out.data(), &size, filtered.data(), static_cast<uLong>(filtered.size())),
            Z_OK);
  out.resize(size);
  return out;
}

// The signature and the chunks in order; IEND is the caller's.
Bytes png(std::initializer_list<Bytes> chunks) {
  Bytes out = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
  for (const Bytes &c : chunks)
    out.insert(out.end(), c.begin(), c.end());
  return out;
}

Bytes end() {
  return chunk("IEND", {});
}

// A 4x2 8-bit grey file.
constexpr int kGreyWidth = 4, kGreyHeight = 2;
const Bytes kGreyRows = {0, 40, 80, 120, 160, 200, 240, 255};
Bytes greyIdat() {
  return chunk("IDAT", deflated(kGreyRows, kGreyWidth));
}

// A 4x2 4-bit palette file with three colours.
const Bytes kPaletteRows = {0x01, 0x20, 0x12, 0x00};
const Bytes kPalette = {255, 0, 0, 0, 255, 0, 0, 0, 255};
Bytes paletteFile(const Bytes &plte) {
  return png({header(4, 2, 4, 3), plte, chunk("IDAT", deflated(kPaletteRows, 2)), end()});
}

// A chunk with one data byte changed after its CRC was made.
Bytes damaged(Bytes c) {
  c[8] ^= 0x01;
  return c;
}

// The chunks of a file by type, with the offset of each.
struct ChunkAt {
  std::string type;
  size_t at;
  uint32_t length;
};
std::vector<ChunkAt> chunksOf(const Bytes &file) {
  std::vector<ChunkAt> found;
  for (size_t at = 8; at + 12 <= file.size();) {
    uint32_t length = get32(file, at);
    found.push_back({std::string(file.begin() + static_cast<long>(at + 4),
                                 file.begin() + static_cast<long>(at + 8)),
                     at, length});
    at += 12 + size_t{length};
  }
  return found;
}

const ChunkAt *find(const std::vector<ChunkAt> &chunks, const char *type) {
  for (const ChunkAt &c : chunks)
    if (c.type == type) return &c;
  return nullptr;
}

class Png : public OperatorFixture {
 protected:
  ZelObject *generic(const List &list = {}) {
    ZelObject *object = Zel000b(ctx_, nullptr, nullptr, list.data(), static_cast<int>(list.size()));
    EXPECT_NE(object, nullptr);
    return object;
  }

  // An image of the shape with values from a fixed seed.
  ZelObject *filled(int x, int y, int bands, int type, int precision, uint32_t seed = 7) {
    List list = {{"xDimension", x},
                 {"yDimension", y},
                 {"bDimension", bands},
                 {"dataType", type},
                 {"dataPrecision", precision},
                 {"repository", ZelWorkSpace}};
    ZelObject *object = generic(list);
    if (!object) return nullptr;
    std::mt19937 rng(seed);
    size_t count = size_t(x) * size_t(y) * size_t(bands);
    size_t bytes = type == ZelBoolean ? (count + 7) / 8 : count;
    Bytes values(bytes);
    int top = type == ZelBoolean ? 255 : (1 << precision) - 1;
    for (uint8_t &v : values)
      v = static_cast<uint8_t>(rng() % unsigned(top + 1));
    EXPECT_EQ(Zel609(ctx_, values.data(), object, nullptr, 0), 0);
    return object;
  }

  Bytes pixels(ZelObject *object) {
    int64_t count = 1;
    for (const char *name : {"xDimension", "yDimension", "bDimension"})
      count *= readAttribute(ctx_, object, name);
    if (readAttribute(ctx_, object, "dataType") == ZelBoolean) count = (count + 7) / 8;
    Bytes out(static_cast<size_t>(count));
    EXPECT_EQ(Zel605(ctx_, object, out.data(), nullptr, 0), 0);
    return out;
  }

  // Zel703 of bytes put in a file first.
  int readBytes(const Bytes &file, ZelObject *object, int mode = 0) {
    writeFile("in.png", file);
    return Zel703(ctx_, "in.png", object, ZelPng, mode, nullptr, 0);
  }

  int readExpanded(const Bytes &file, ZelObject *object) {
    return Zel703w(ctx_, file.data(), object, ZelPng, static_cast<int>(file.size()), nullptr, 0);
  }

  int readWritten(ZelObject *object) {
    return Zel703x(ctx_, "out.png", object, ZelPng, nullptr, 0);
  }

  int write(ZelObject *object, const List &list = {}) {
    return Zel702x(ctx_, object, "out.png", ZelPng, list.data(), static_cast<int>(list.size()));
  }

  Bytes written() { return fileBytes("out.png"); }

  ZelObject *lut(int entries, int used = 0) {
    List list = {{"xDimension", entries},
                 {"bDimension", 3},
                 {"dataType", ZelNonNegative},
                 {"usedXDimension", used}};
    ZelObject *table = Zel000e(ctx_, nullptr, nullptr, list.data(), static_cast<int>(list.size()));
    EXPECT_NE(table, nullptr);
    return table;
  }

  // A table of `entries` with the given bytes (bands one after the other) on `object`.
  ZelObject *attachLut(ZelObject *object, int entries, int used, const Bytes &bands) {
    ZelObject *table = lut(entries, used);
    EXPECT_EQ(Zel609(ctx_, const_cast<uint8_t *>(bands.data()), table, nullptr, 0), 0);
    EXPECT_EQ(Zel006a(ctx_, object, "lut", word(table)), 0);
    return table;
  }

  ZelValue attr(ZelObject *object, const char *name) { return readAttribute(ctx_, object, name); }

  void expectRefused(int code, int expected, const std::string &what = "") {
    EXPECT_EQ(code, expected) << what;
    EXPECT_EQ(Zel003b(ctx_), expected) << what;
    clearLastError(ctx_);
  }
};

// ---- Reader ---------------------------------------------------------------------------------

TEST_F(Png, GreyFileSetsShapeTypeAndCompressedSize) {
  Bytes idat = greyIdat();
  Bytes file = png({header(kGreyWidth, kGreyHeight, 8, 0), idat, end()});
  ZelObject *object = generic();
  ASSERT_EQ(readBytes(file, object, ZelReadAttributes), 0);
  EXPECT_EQ(attr(object, "xDimension"), kGreyWidth);
  EXPECT_EQ(attr(object, "yDimension"), kGreyHeight);
  EXPECT_EQ(attr(object, "zDimension"), 1);
  EXPECT_EQ(attr(object, "tDimension"), 1);
  EXPECT_EQ(attr(object, "bDimension"), 1);
  EXPECT_EQ(attr(object, "dataType"), ZelNonNegative);
  EXPECT_EQ(attr(object, "dataPrecision"), 8);
  EXPECT_EQ(attr(object, "compression"), ZelPngDeflate);
  EXPECT_EQ(attr(object, "size"), static_cast<ZelValue>(idat.size() - 12));
  EXPECT_EQ(attr(object, "colourType"), ZelPngGreyscale);
  EXPECT_EQ(attr(object, "interlacedImage"), 0);
  EXPECT_EQ(attr(object, "transparency"), 0);
  EXPECT_EQ(attr(object, "compressionDataSize"), static_cast<ZelValue>(idat.size() - 12));
  // The reader reshapes the object, which then holds no pixels of its own.
  EXPECT_FALSE(inited(object));
}

TEST_F(Png, OneBitFileIsBooleanAndColourFileIsRgb) {
  ZelObject *bits = generic();
  ASSERT_EQ(readBytes(png({header(8, 1, 1, 0), chunk("IDAT", deflated({0xA5}, 1)), end()}), bits),
            0);
  EXPECT_EQ(attr(bits, "dataType"), ZelBoolean);
  EXPECT_EQ(attr(bits, "dataPrecision"), 1);

  ZelObject *colour = generic();
  Bytes rgb = {1, 2, 3, 4, 5, 6};
  ASSERT_EQ(readBytes(png({header(2, 1, 8, 2), chunk("IDAT", deflated(rgb, 6)), end()}), colour),
            0);
  EXPECT_EQ(attr(colour, "bDimension"), 3);
  EXPECT_EQ(attr(colour, "colourSpace"), ZelRgb);
  EXPECT_EQ(attr(colour, "colourType"), ZelPngTrueColour);
  EXPECT_EQ(attr(colour, "dataType"), ZelNonNegative);
}

TEST_F(Png, TransparencyValuesOfEachColourType) {
  ZelObject *grey = generic();
  Bytes file =
      png({header(kGreyWidth, kGreyHeight, 8, 0), chunk("tRNS", {0x01, 0x02}), greyIdat(), end()});
  ASSERT_EQ(readBytes(file, grey, ZelReadAttributes), 0);
  EXPECT_EQ(attr(grey, "transparency"), 1);
  EXPECT_EQ(attr(grey, "transparencyGray"), 0x0102);

  ZelObject *colour = generic();
  Bytes rgb = {1, 2, 3, 4, 5, 6};
  file = png({header(2, 1, 8, 2), chunk("tRNS", {0, 1, 0, 2, 1, 3}),
              chunk("IDAT", deflated(rgb, 6)), end()});
  ASSERT_EQ(readBytes(file, colour, ZelReadAttributes), 0);
  EXPECT_EQ(attr(colour, "transparency"), 1);
  EXPECT_EQ(attr(colour, "transparencyRed"), 1);
  EXPECT_EQ(attr(colour, "transparencyGreen"), 2);
  EXPECT_EQ(attr(colour, "transparencyBlue"), 0x103);

  ZelObject *indexed = generic();
  file = png({header(4, 2, 4, 3), chunk("PLTE", kPalette), chunk("tRNS", {10, 20}),
              chunk("IDAT", deflated(kPaletteRows, 2)), end()});
  ASSERT_EQ(readBytes(file, indexed, ZelReadAttributes), 0);
  EXPECT_EQ(attr(indexed, "colourType"), ZelPalette);
  EXPECT_EQ(attr(indexed, "transparency"), 1);
  EXPECT_EQ(attr(indexed, "transparencyEntry"), 2);
  auto *alpha = reinterpret_cast<const uint8_t *>(attr(indexed, "transparencyPaletteIndex"));
  ASSERT_NE(alpha, nullptr);
  EXPECT_EQ(alpha[0], 10);
  EXPECT_EQ(alpha[1], 20);
}

TEST_F(Png, InterlacedFlagIsReported) {
  ZelObject *object = generic();
  Bytes file = png({header(kGreyWidth, kGreyHeight, 8, 0, 1), greyIdat(), end()});
  ASSERT_EQ(readBytes(file, object, ZelReadAttributes), 0);
  EXPECT_EQ(attr(object, "interlacedImage"), 1);
}

// The three bands of a 16-entry table.
Bytes tableBands(ZelContext *ctx, ZelObject *table) {
  Bytes bands(48);
  EXPECT_EQ(Zel605(ctx, table, bands.data(), nullptr, 0), 0);
  return bands;
}

TEST_F(Png, PaletteFillsTheLookupTable) {
  ZelObject *object = generic();
  ZelObject *table = lut(2, 5);
  ASSERT_EQ(Zel006a(ctx_, object, "lut", word(table)), 0);
  ASSERT_EQ(readBytes(paletteFile(chunk("PLTE", kPalette)), object, ZelReadAttributes), 0);
  EXPECT_EQ(attr(table, "xDimension"), 16);
  EXPECT_EQ(attr(table, "bDimension"), 3);
  EXPECT_EQ(attr(table, "dataType"), ZelNonNegative);
  // Three colours of sixteen entries; the caller had asked for a used count.
  EXPECT_EQ(attr(table, "usedXDimension"), 3);
  Bytes bands = tableBands(ctx_, table);
  for (int i = 0; i < 16; ++i) {
    for (int band = 0; band < 3; ++band) {
      uint8_t expected = i < 3 ? kPalette[size_t(3 * i + band)] : 0;
      EXPECT_EQ(bands[size_t(band * 16 + i)], expected) << "entry " << i << " band " << band;
    }
  }
}

TEST_F(Png, UsedCountIsZeroWhenTheCallerHadNone) {
  ZelObject *object = generic();
  ZelObject *table = lut(2, 0);
  ASSERT_EQ(Zel006a(ctx_, object, "lut", word(table)), 0);
  ASSERT_EQ(readBytes(paletteFile(chunk("PLTE", kPalette)), object, ZelReadAttributes), 0);
  EXPECT_EQ(attr(table, "usedXDimension"), 0);
}

TEST_F(Png, GreyFileWithoutPaletteGetsARamp) {
  ZelObject *object = generic();
  ZelObject *table = lut(2, 0);
  ASSERT_EQ(Zel006a(ctx_, object, "lut", word(table)), 0);
  Bytes file = png({header(4, 1, 4, 0), chunk("IDAT", deflated({0x01, 0x23}, 2)), end()});
  ASSERT_EQ(readBytes(file, object, ZelReadAttributes), 0);
  EXPECT_EQ(attr(table, "xDimension"), 16);
  Bytes bands = tableBands(ctx_, table);
  for (int i = 0; i < 16; ++i)
    for (int band = 0; band < 3; ++band)
      EXPECT_EQ(bands[size_t(band * 16 + i)], i * 255 / 15) << "entry " << i;
}

TEST_F(Png, AttributesThenDataIntoAHolder) {
  Bytes idat = greyIdat();
  Bytes file = png({header(kGreyWidth, kGreyHeight, 8, 0), idat, end()});
  ZelObject *holder = generic();
  ASSERT_EQ(readBytes(file, holder, ZelReadAttributes), 0);
  ASSERT_EQ(readBytes(file, holder, ZelReadData), 0);
  EXPECT_EQ(attr(holder, "size"), static_cast<ZelValue>(idat.size() - 12));
  ZelObject *image = generic({{"xDimension", kGreyWidth}, {"yDimension", kGreyHeight}});
  ASSERT_EQ(Zel701(ctx_, holder, image), 0);
  EXPECT_EQ(pixels(image), kGreyRows);
}

// The grey stream cut in two IDAT chunks with `between` in the middle.
Bytes splitGrey(std::initializer_list<Bytes> between) {
  Bytes stream = deflated(kGreyRows, kGreyWidth);
  long half = static_cast<long>(stream.size() / 2);
  Bytes file = png({header(kGreyWidth, kGreyHeight, 8, 0),
                    chunk("IDAT", Bytes(stream.begin(), stream.begin() + half))});
  for (const Bytes &c : between)
    file.insert(file.end(), c.begin(), c.end());
  Bytes rest = png({chunk("IDAT", Bytes(stream.begin() + half, stream.end())), end()});
  file.insert(file.end(), rest.begin() + 8, rest.end());
  return file;
}

TEST_F(Png, SplitIdatChunksAreJoined) {
  ZelObject *image = generic();
  ASSERT_EQ(readExpanded(splitGrey({}), image), 0);
  EXPECT_EQ(pixels(image), kGreyRows);
}

TEST_F(Png, IdatChunksApartAreRefusedOnDataRead) {
  ZelObject *holder = generic();
  expectRefused(readBytes(splitGrey({chunk("abcd", {1, 2})}), holder, 0), 22);
}

TEST_F(Png, IdatCrcErrorIsFoundWhenDataAreRead) {
  Bytes file = png({header(kGreyWidth, kGreyHeight, 8, 0), damaged(greyIdat()), end()});
  ZelObject *holder = generic();
  EXPECT_EQ(readBytes(file, holder, ZelReadAttributes), 0);
  expectRefused(readBytes(file, holder, ZelReadData), 22);
}

TEST_F(Png, CopyrightTextIsTaken) {
  Bytes text = {'C', 'o', 'p', 'y', 'r', 'i', 'g', 'h', 't', 0, 'S', 'o', 'm', 'e', 'o', 'n', 'e'};
  Bytes file = png({header(kGreyWidth, kGreyHeight, 8, 0), chunk("tEXt", text), greyIdat(), end()});
  ZelObject *object = generic();
  ASSERT_EQ(readBytes(file, object, ZelReadAttributes), 0);
  auto *copyright = reinterpret_cast<const char *>(attr(object, "copyright"));
  ASSERT_NE(copyright, nullptr);
  EXPECT_STREQ(copyright, "Someone");
}

TEST_F(Png, UnknownLetterChunkIsSkipped) {
  Bytes file = png({header(kGreyWidth, kGreyHeight, 8, 0), chunk("zzZz", {9, 9, 9}),
                    chunk("gAMA", {0, 0, 0xB1, 0x8F}), greyIdat(), end()});
  ZelObject *image = generic();
  ASSERT_EQ(readExpanded(file, image), 0);
  EXPECT_EQ(pixels(image), kGreyRows);
}

TEST_F(Png, BadPaletteCrcLoadsWithoutALookupTable) {
  Bytes file = paletteFile(damaged(chunk("PLTE", kPalette)));
  ZelObject *plain = generic();
  EXPECT_EQ(readBytes(file, plain, ZelReadAttributes), 0);
  ZelObject *withTable = generic();
  ASSERT_EQ(Zel006a(ctx_, withTable, "lut", word(lut(2))), 0);
  expectRefused(readBytes(file, withTable, ZelReadAttributes), 22);
}

Bytes badSignature() {
  Bytes b = png({header(4, 2, 8, 0), greyIdat(), end()});
  b[1] = 'Q';
  return b;
}

Bytes chunkPastTheEnd() {
  Bytes c = chunk("zzzz", {1, 2, 3});
  c[3] = 200;
  return png({header(4, 2, 8, 0), c, greyIdat(), end()});
}

// Files the reader refuses with a syntax error.
struct BadFile {
  const char *what;
  Bytes file;
};

TEST_F(Png, MalformedFilesAreSyntaxErrors) {
  Bytes grey = greyIdat();
  Bytes idat16 = chunk("IDAT", deflated(Bytes(16, 1), 8));
  const BadFile cases[] = {
      {"signature", badSignature()},
      {"16-bit", png({header(4, 2, 16, 0), idat16, end()})},
      {"2-bit", png({header(4, 2, 2, 0), chunk("IDAT", deflated({1, 2}, 1)), end()})},
      {"grey with alpha", png({header(4, 2, 8, 4), idat16, end()})},
      {"IHDR second", png({chunk("abcd", {}), header(4, 2, 8, 0), grey, end()})},
      {"PLTE of 100 bytes", paletteFile(chunk("PLTE", Bytes(100, 1)))},
      {"tRNS longer than the palette",
       png({header(4, 2, 4, 3), chunk("PLTE", kPalette), chunk("tRNS", {1, 2, 3, 4}),
            chunk("IDAT", deflated(kPaletteRows, 2)), end()})},
      {"digit in chunk type", png({header(4, 2, 8, 0), chunk("ab1d", {}), grey, end()})},
      {"chunk beyond the file", chunkPastTheEnd()},
      {"header crc", png({damaged(header(4, 2, 8, 0)), grey, end()})},
      {"size the data can't fill", png({header(100000, 100000, 8, 0), grey, end()})},
      {"IEND crc", png({header(4, 2, 8, 0), grey, damaged(chunk("IEND", {0}))})},
  };
  for (const BadFile &c : cases) {
    ZelObject *object = generic();
    expectRefused(readBytes(c.file, object, 0), 22, c.what);
  }
}

TEST_F(Png, ColourFileIntoMonochromeImageIsAClassMismatch) {
  Bytes rgb = {1, 2, 3, 4, 5, 6};
  Bytes file = png({header(2, 1, 8, 2), chunk("IDAT", deflated(rgb, 6)), end()});
  ZelObject *mono = Zel000c(ctx_, nullptr, nullptr, nullptr, 0);
  ASSERT_NE(mono, nullptr);
  expectRefused(readBytes(file, mono, ZelReadAttributes), 11);
  ZelObject *colour = Zel000a(ctx_, nullptr, nullptr, nullptr, 0);
  ASSERT_NE(colour, nullptr);
  EXPECT_EQ(readBytes(file, colour, ZelReadAttributes), 0);
  ZelObject *any = generic();
  EXPECT_EQ(readExpanded(file, any), 0);
  // Bands one after the other.
  EXPECT_EQ(pixels(any), (Bytes{1, 4, 2, 5, 3, 6}));
}

// ---- Writer ---------------------------------------------------------------------------------

TEST_F(Png, WrittenFileHasSignatureHeaderAndEnd) {
  ZelObject *object = filled(5, 3, 1, ZelNonNegative, 8);
  ASSERT_EQ(write(object), 0);
  Bytes file = written();
  ASSERT_GE(file.size(), 8u);
  EXPECT_EQ(Bytes(file.begin(), file.begin() + 8),
            (Bytes{0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A}));
  auto chunks = chunksOf(file);
  ASSERT_GE(chunks.size(), 3u);
  EXPECT_EQ(chunks.front().type, "IHDR");
  EXPECT_EQ(chunks.back().type, "IEND");
  EXPECT_EQ(chunks.back().length, 0u);
  EXPECT_EQ(chunks.back().at + 12, file.size());
  EXPECT_EQ(get32(file, 16), 5u);
  EXPECT_EQ(get32(file, 20), 3u);
  for (const ChunkAt &c : chunks) {
    uLong crc = crc32(0, file.data() + c.at + 4, 4 + c.length);
    EXPECT_EQ(get32(file, c.at + 8 + c.length), crc) << c.type;
  }
}

struct Choice {
  int bands;
  bool withLut;
  int colourType;
};

TEST_F(Png, ColourTypeIsChosenByBands) {
  const Choice cases[] = {{1, false, 0}, {1, true, 3}, {2, false, 4}, {3, false, 2}, {4, false, 6}};
  for (const Choice &c : cases) {
    ZelObject *object = filled(4, 2, c.bands, ZelNonNegative, 8);
    if (c.withLut) attachLut(object, 256, 0, Bytes(3 * 256, 0));
    ASSERT_EQ(write(object), 0) << c.bands;
    Bytes file = written();
    EXPECT_EQ(file[25], c.colourType) << c.bands << " bands";
    EXPECT_EQ(file[24], 8);
  }
}

TEST_F(Png, ExplicitColourTypesAreWritten) {
  struct {
    int name, bands, code;
  } const cases[] = {{ZelPngGreyscale, 1, 0},
                     {ZelPngTrueColour, 3, 2},
                     {ZelPngGreyscaleAlpha, 2, 4},
                     {ZelPngTrueColourAlpha, 4, 6}};
  for (const auto &c : cases) {
    ZelObject *object = filled(3, 2, c.bands, ZelNonNegative, 8);
    ASSERT_EQ(write(object, {{"colourType", c.name}}), 0) << c.name;
    EXPECT_EQ(written()[25], c.code);
  }
}

TEST_F(Png, TwoBitImageIsWrittenButNotRead) {
  ZelObject *back = generic();
  ZelObject *two = filled(4, 2, 1, ZelNonNegative, 2);
  ASSERT_EQ(write(two, {{"dataPrecision", 2}}), 0);
  EXPECT_EQ(written()[24], 2);
  EXPECT_EQ(written()[25], 0);
  expectRefused(readWritten(back), 22);
}

TEST_F(Png, SixteenBitImageIsWrittenButNotRead) {
  std::vector<uint16_t> samples = {0, 1, 255, 256, 4095, 40000, 65534, 65535};
  ZelObject *deep = generic({{"xDimension", 4},
                             {"yDimension", 2},
                             {"dataType", ZelNonNegative},
                             {"dataPrecision", 16},
                             {"repository", ZelApplicationAddressSpace},
                             {"applicationAddressSpace", word(samples.data())}});
  ASSERT_EQ(write(deep), 0);
  EXPECT_EQ(written()[24], 16);
  EXPECT_EQ(written()[25], 0);
  ZelObject *back = generic();
  expectRefused(readWritten(back), 22);
}

TEST_F(Png, UncodablePixelsAreRefusedBeforeTheFileIsMade) {
  ZelObject *real = generic({{"xDimension", 4},
                             {"yDimension", 2},
                             {"dataType", ZelReal},
                             {"dataPrecision", 8},
                             {"repository", ZelWorkSpace}});
  expectRefused(write(real), 10);
  EXPECT_FALSE(std::filesystem::exists("out.png"));
}

TEST_F(Png, GreyWithAlphaIsWrittenButNotRead) {
  ZelObject *object = filled(3, 2, 2, ZelNonNegative, 8);
  ASSERT_EQ(write(object), 0);
  EXPECT_EQ(written()[25], 4);
  ZelObject *back = generic();
  expectRefused(readWritten(back), 22);
}

TEST_F(Png, WriterRefusesOptionsThatDontFit) {
  ZelObject *grey = filled(4, 2, 1, ZelNonNegative, 8);
  expectRefused(write(grey, {{"interlacedImage", 2}}), 12, "interlace 2");
  expectRefused(write(grey, {{"colourType", ZelRgb}}), 12, "colour type");
  ZelObject *small = filled(4, 2, 3, ZelNonNegative, 4);
  expectRefused(write(small, {{"colourType", ZelPngTrueColour}}), 12, "4-bit colour");
  ZelObject *indexed = filled(4, 2, 1, ZelNonNegative, 1);
  attachLut(indexed, 16, 2, Bytes(48, 0));
  uint8_t alpha[3] = {1, 2, 3};
  expectRefused(write(indexed, {{"transparency", 1},
                                {"transparencyEntry", 3},
                                {"transparencyPaletteIndex", word(alpha)}}),
                12, "entries beyond the palette");
  expectRefused(write(indexed, {{"transparency", 1}, {"transparencyEntry", 0}}), 12, "no entries");
  ZelObject *rgba = filled(4, 2, 4, ZelNonNegative, 8);
  expectRefused(write(rgba, {{"transparency", 1}}), 12, "alpha type");
}

TEST_F(Png, TransparencyChunksAreWritten) {
  ZelObject *grey = filled(4, 2, 1, ZelNonNegative, 8);
  ASSERT_EQ(write(grey, {{"transparency", 1}, {"transparencyGray", 0x1234}}), 0);
  Bytes file = written();
  auto chunks = chunksOf(file);
  const ChunkAt *t = find(chunks, "tRNS");
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->length, 2u);
  EXPECT_EQ(file[t->at + 8], 0x12);
  EXPECT_EQ(file[t->at + 9], 0x34);

  ZelObject *rgb = filled(4, 2, 3, ZelNonNegative, 8);
  ASSERT_EQ(write(rgb, {{"transparency", 1},
                        {"transparencyRed", 1},
                        {"transparencyGreen", 0x203},
                        {"transparencyBlue", 4}}),
            0);
  file = written();
  chunks = chunksOf(file);
  t = find(chunks, "tRNS");
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->length, 6u);
  EXPECT_EQ(Bytes(file.begin() + long(t->at + 8), file.begin() + long(t->at + 14)),
            (Bytes{0, 1, 2, 3, 0, 4}));

  ZelObject *indexed = filled(4, 2, 1, ZelNonNegative, 1);
  attachLut(indexed, 16, 3, Bytes(48, 5));
  uint8_t alpha[2] = {7, 9};
  ASSERT_EQ(write(indexed, {{"transparency", 1},
                            {"transparencyEntry", 2},
                            {"transparencyPaletteIndex", word(alpha)}}),
            0);
  file = written();
  chunks = chunksOf(file);
  t = find(chunks, "tRNS");
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->length, 2u);
  EXPECT_EQ(file[t->at + 8], 7);
  EXPECT_EQ(file[t->at + 9], 9);
}

TEST_F(Png, UsedPartOfAPaletteIsWritten) {
  ZelObject *object = filled(4, 2, 1, ZelNonNegative, 8);
  Bytes entries(3 * 256);
  for (size_t i = 0; i < entries.size(); ++i)
    entries[i] = static_cast<uint8_t>(i);
  // Only levels the palette covers.
  Bytes values = {0, 1, 2, 3, 15, 14, 13, 12};
  ASSERT_EQ(Zel609(ctx_, values.data(), object, nullptr, 0), 0);
  attachLut(object, 256, 16, entries);
  ASSERT_EQ(write(object), 0);
  Bytes file = written();
  auto chunks = chunksOf(file);
  const ChunkAt *p = find(chunks, "PLTE");
  ASSERT_NE(p, nullptr);
  ASSERT_EQ(p->length, 48u);
  for (int i = 0; i < 16; ++i)
    for (int band = 0; band < 3; ++band)
      EXPECT_EQ(file[p->at + 8 + size_t(3 * i + band)], entries[size_t(band * 256 + i)]);
}

TEST_F(Png, WrittenCopyrightIsNotReadBack) {
  ZelObject *object = filled(4, 2, 1, ZelNonNegative, 8);
  const char text[] = "text";
  ASSERT_EQ(write(object, {{"copyright", word(text)}}), 0);
  Bytes file = written();
  auto chunks = chunksOf(file);
  const ChunkAt *t = find(chunks, "tEXt");
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->length, 15u);
  EXPECT_EQ(std::string(file.begin() + long(t->at + 8), file.begin() + long(t->at + 23)),
            std::string("Copyright text", 15));
  ZelObject *back = generic();
  ASSERT_EQ(readWritten(back), 0);
  EXPECT_EQ(attr(back, "copyright"), 0);
}

// Round trips of every kind of image the reader takes, plain and interlaced.
struct Trip {
  const char *what;
  int bands, type, precision;
  bool palette;
};

TEST_F(Png, RoundTripsArePixelIdentical) {
  const Trip trips[] = {{"1-bit", 1, ZelBoolean, 1, false},
                        {"8-bit", 1, ZelNonNegative, 8, false},
                        {"rgb", 3, ZelNonNegative, 8, false},
                        {"rgba", 4, ZelNonNegative, 8, false},
                        {"palette", 1, ZelNonNegative, 8, true}};
  uint32_t seed = 1;
  for (const Trip &t : trips) {
    for (int interlaced : {0, 1}) {
      SCOPED_TRACE(std::string(t.what) + (interlaced ? " interlaced" : ""));
      ZelObject *object = filled(13, 11, t.bands, t.type, t.precision, seed++);
      ASSERT_NE(object, nullptr);
      if (t.palette) {
        Bytes entries(3 * 256);
        for (size_t i = 0; i < entries.size(); ++i)
          entries[i] = static_cast<uint8_t>(i * 7);
        attachLut(object, 256, 0, entries);
      }
      ASSERT_EQ(write(object, {{"interlacedImage", interlaced}}), 0);
      Bytes file = written();
      EXPECT_EQ(file[24], t.precision);
      EXPECT_EQ(file[28], interlaced);
      ZelObject *back = generic();
      ASSERT_EQ(readWritten(back), 0);
      EXPECT_EQ(attr(back, "bDimension"), t.bands);
      EXPECT_EQ(attr(back, "dataType"), t.type);
      EXPECT_EQ(pixels(back), pixels(object));
      ZelObject *fromMemory = generic();
      ASSERT_EQ(readExpanded(file, fromMemory), 0);
      EXPECT_EQ(pixels(fromMemory), pixels(object));
    }
  }
}

}  // namespace
