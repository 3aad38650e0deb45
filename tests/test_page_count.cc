// Page counts of multi-page files, found by walking their structure without reading a pixel:
// the directory chain of TIFF files in both byte orders, and the page records of segmented
// documents. Files and blocks of memory are made here byte by byte. Damaged, truncated and
// looping input must end with a code (or, for a chain that turns back, with the pages found so
// far), never with a read outside the input.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "interchange/page_count.h"
#include "kernel/context.h"
#include "kernel/objects.h"
#include "operator_fixture.h"
#include "test_support.h"

namespace {

using namespace zel::test;
using zel::interchange::ByteSource;
using Bytes = std::vector<uint8_t>;

// ---- TIFF files made by hand -----------------------------------------------------------------

class TiffFile {
 public:
  // The header: byte order mark, 42, and the offset of the first directory.
  TiffFile(bool little, uint32_t first) : little_(little) {
    bytes_ = {static_cast<uint8_t>(little ? 'I' : 'M'), static_cast<uint8_t>(little ? 'I' : 'M')};
    put(2, 42, 2);
    put(4, first, 4);
  }

  // A directory of `entries` twelve-byte entries at `at`, ending with `next`.
  TiffFile &directory(uint32_t at, int entries, uint32_t next) {
    put(at, static_cast<uint32_t>(entries), 2);
    for (int i = 0; i < entries; ++i) {
      const uint32_t entry = at + 2 + 12 * static_cast<uint32_t>(i);
      put(entry, 256 + static_cast<uint32_t>(i), 2);  // tag
      put(entry + 2, 3, 2);                           // type SHORT
      put(entry + 4, 1, 4);                           // count
      put(entry + 8, static_cast<uint32_t>(i) * 7, 4);
    }
    put(at + 2 + 12 * static_cast<uint32_t>(entries), next, 4);
    return *this;
  }

  void put(size_t at, uint32_t value, int count) {
    if (bytes_.size() < at + static_cast<size_t>(count))
      bytes_.resize(at + static_cast<size_t>(count), 0xCC);  // image data between the parts
    for (int i = 0; i < count; ++i) {
      const int shift = 8 * (little_ ? i : count - 1 - i);
      bytes_[at + static_cast<size_t>(i)] = static_cast<uint8_t>(value >> shift);
    }
  }

  const Bytes &bytes() const { return bytes_; }

 private:
  bool little_;
  Bytes bytes_;
};

uint32_t directoryBytes(int entries) {
  return 2 + 12 * static_cast<uint32_t>(entries) + 4;
}

// Directories of the given entry counts at increasing offsets, each leading to the next; the
// file ends with the last next-offset word, so that any shorter file cuts into the chain.
std::vector<uint32_t> chainOffsets(const std::vector<int> &entries) {
  std::vector<uint32_t> offsets;
  uint32_t at = 8 + 13;  // some image data first
  for (int e : entries) {
    offsets.push_back(at);
    at += directoryBytes(e) + 9;
  }
  return offsets;
}

Bytes tiffChain(bool little, const std::vector<int> &entries) {
  const std::vector<uint32_t> offsets = chainOffsets(entries);
  TiffFile file(little, offsets.empty() ? 0 : offsets[0]);
  for (size_t i = 0; i < entries.size(); ++i)
    file.directory(offsets[i], entries[i], i + 1 < entries.size() ? offsets[i + 1] : 0);
  return file.bytes();
}

// ---- Segmented documents made by hand --------------------------------------------------------

struct PageShape {
  bool openContent = false;
  int skippedField = -1;        // bytes of an F5 00 field before the stream, or none
  bool inBlocks = false;        // F5 01 with F0 04 blocks, else one F4 01 block
  std::vector<int> blocks{40};  // the sizes of the stream's blocks
  bool lengthHighBit = false;   // the F4 01 length carries bit 15, which doesn't count
};

// Where the parts of the last page written begin.
struct PagePlaces {
  size_t marker, descriptor, content, stream, firstBlock, contentEnd, pageEnd;
};

class Document {
 public:
  // The number in EBCDIC digits places the document at number x 256.
  explicit Document(int number = 3) {
    bytes_ = {static_cast<uint8_t>(0xF0 + number / 10), static_cast<uint8_t>(0xF0 + number % 10),
              0x23, 0x00};
    bytes_.resize(static_cast<size_t>(number) * 256, 0x40);
    documentMarker_ = bytes_.size();
    word(0xF1118000);
  }

  Document &page(const PageShape &shape) {
    places_.marker = word(0xF1108000);
    places_.descriptor = bytes_.size();
    for (int i = 0; i < 24; ++i)
      bytes_.push_back(i == 12 ? 0xF1 : static_cast<uint8_t>(0x10 + i));
    bytes_[places_.descriptor] = 0xF0;
    bytes_[places_.descriptor + 1] = 0x04;
    bytes_[places_.descriptor + 2] = 0x00;
    bytes_[places_.descriptor + 3] = 0x14;
    places_.content = word(0xF1108000);
    const size_t body = bytes_.size();
    if (shape.skippedField >= 0) {
      word(0xF5000000 | static_cast<uint32_t>(shape.skippedField));
      data(shape.skippedField);
    }
    places_.firstBlock = 0;
    if (shape.inBlocks) {
      places_.stream = word(0xF5010000);
      for (int size : shape.blocks) {
        const size_t block = word(0xF0040000 | static_cast<uint32_t>(size));
        if (!places_.firstBlock) places_.firstBlock = block;
        data(size);
      }
      word(0xF0000000);
    } else {
      const uint32_t length = static_cast<uint32_t>(shape.blocks.at(0));
      places_.stream = word(0xF4010000 | length | (shape.lengthHighBit ? 0x8000 : 0));
      data(shape.blocks[0]);
    }
    if (shape.openContent) {
      places_.contentEnd = word(0xF0000000);
    } else {
      const size_t length = bytes_.size() - body;
      bytes_[places_.content + 2] = static_cast<uint8_t>(length >> 8);
      bytes_[places_.content + 3] = static_cast<uint8_t>(length);
      places_.contentEnd = 0;
    }
    places_.pageEnd = word(0xF0000000);
    return *this;
  }

  Bytes finish() {
    word(0xF0000000);
    return bytes_;
  }

  const PagePlaces &lastPage() const { return places_; }
  size_t documentMarker() const { return documentMarker_; }

 private:
  size_t word(uint32_t value) {
    const size_t at = bytes_.size();
    for (int shift = 24; shift >= 0; shift -= 8)
      bytes_.push_back(static_cast<uint8_t>(value >> shift));
    return at;
  }
  // Stream bytes that look like markers, to be passed over by their length only.
  void data(int count) {
    static const uint8_t pattern[] = {0xF0, 0x00, 0x00, 0x00, 0xF1, 0x10, 0x80, 0x00, 0x21};
    for (int i = 0; i < count; ++i)
      bytes_.push_back(pattern[i % sizeof pattern]);
  }

  Bytes bytes_;
  size_t documentMarker_ = 0;
  PagePlaces places_{};
};

Bytes documentOf(int number, const std::vector<PageShape> &pages) {
  Document document(number);
  for (const PageShape &shape : pages)
    document.page(shape);
  return document.finish();
}

// ---- The fixture -----------------------------------------------------------------------------

class PageCount : public zel::test::operators::OperatorFixture {
 protected:
  int inFile(const Bytes &bytes, int format) {
    writeFile("pages.img", bytes);
    return Zel704(ctx_, "pages.img", format);
  }
  int inMemory(const Bytes &bytes, int format) {
    return Zel704w(ctx_, bytes.data(), format, static_cast<int>(bytes.size()));
  }

  // The application made no objects here, so none may be alive after a count.
  void expectNoObjectAlive() {
    for (ZelObject *record = ctx_->rootObject; record; record = record->nextSibling) {
      EXPECT_EQ(record->inUse, 0);
      EXPECT_EQ(record->openStreams, 0);
      EXPECT_EQ(record->firstChild, nullptr);
    }
  }

  // Both forms count `pages` without reporting anything.
  void expectPages(const Bytes &bytes, int format, int pages) {
    const int descriptors = openDescriptors();
    clearLastError(ctx_);
    EXPECT_EQ(inMemory(bytes, format), pages) << "memory";
    EXPECT_EQ(Zel003b(ctx_), 0) << "memory";
    EXPECT_EQ(inFile(bytes, format), pages) << "file";
    EXPECT_EQ(Zel003b(ctx_), 0) << "file";
    EXPECT_EQ(openDescriptors(), descriptors);
    expectNoObjectAlive();
  }

  // Both forms give no pages and the code.
  void expectFailure(const Bytes &bytes, int format, int memoryCode, int fileCode) {
    const int descriptors = openDescriptors();
    clearLastError(ctx_);
    EXPECT_EQ(inMemory(bytes, format), 0) << "memory";
    EXPECT_EQ(Zel003b(ctx_), memoryCode) << "memory";
    clearLastError(ctx_);
    EXPECT_EQ(inFile(bytes, format), 0) << "file";
    EXPECT_EQ(Zel003b(ctx_), fileCode) << "file";
    EXPECT_EQ(openDescriptors(), descriptors);
    expectNoObjectAlive();
  }
  void expectSyntaxError(const Bytes &bytes, int format) { expectFailure(bytes, format, 22, 22); }

  // Every shorter piece of `bytes` fails: in memory as too small, in a file by a failed read.
  void expectEveryTruncationFails(const Bytes &bytes, int format) {
    const int descriptors = openDescriptors();
    for (size_t size = 0; size < bytes.size(); ++size) {
      SCOPED_TRACE("size " + std::to_string(size));
      clearLastError(ctx_);
      ASSERT_EQ(Zel704w(ctx_, bytes.data(), format, static_cast<int>(size)), 0);
      ASSERT_EQ(Zel003b(ctx_), 8);
      clearLastError(ctx_);
      ASSERT_EQ(
          inFile(Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size)), format),
          0);
      ASSERT_EQ(Zel003b(ctx_), -1);
    }
    EXPECT_EQ(openDescriptors(), descriptors);
    expectNoObjectAlive();
  }

  // ---- Byte sources over memory and files, for the counting functions themselves ----

  void overMemory(const Bytes &bytes, int64_t size, const std::function<void(ByteSource)> &use) {
    const ZelAttribute list[] = {{"repository", ZelApplicationAddressSpace},
                                 {"applicationAddressSpace", word(bytes.data())},
                                 {"size", static_cast<ZelValue>(size)}};
    ZelObject *object = Zel000b(ctx_, nullptr, nullptr, list, 3);
    ASSERT_NE(object, nullptr);
    {
      Stream stream = openStream(ctx_, object, "r");
      ASSERT_NE(stream, nullptr);
      use(ByteSource{ctx_, stream.get(), size});
    }
    ASSERT_EQ(Zel002(ctx_, object), 0);
  }

  void overFile(const Bytes &bytes, const std::function<void(ByteSource)> &use) {
    writeFile("source.img", bytes);
    const ZelAttribute list[] = {{"repository", ZelFile}, {"fileName", word("source.img")}};
    ZelObject *object = Zel000b(ctx_, nullptr, nullptr, list, 2);
    ASSERT_NE(object, nullptr);
    {
      Stream stream = openStream(ctx_, object, "r");
      ASSERT_NE(stream, nullptr);
      use(ByteSource{ctx_, stream.get(), -1});
    }
    ASSERT_EQ(Zel002(ctx_, object), 0);
  }
};

// ---- TIFF ------------------------------------------------------------------------------------

class TiffPageCount : public PageCount, public ::testing::WithParamInterface<bool> {};

TEST_P(TiffPageCount, EveryDirectoryOfTheChainIsAPage) {
  const bool little = GetParam();
  const std::vector<std::vector<int>> chains = {
      {0}, {3}, {1, 0}, {2, 17}, {0, 1, 2, 3, 4}, {12, 0, 7, 1, 30}, {5, 5, 5}};
  for (const std::vector<int> &entries : chains) {
    SCOPED_TRACE(std::to_string(entries.size()) + " directories, first with " +
                 std::to_string(entries[0]) + " entries");
    expectPages(tiffChain(little, entries), ZelTiff, static_cast<int>(entries.size()));
  }
}

TEST_P(TiffPageCount, NoFirstDirectoryIsNoPage) {
  const Bytes bytes = TiffFile(GetParam(), 0).bytes();
  Bytes padded = bytes;
  padded.resize(16, 0);
  expectPages(padded, ZelTiff, 0);
  // Eight bytes hold the whole file, but memory must give more than a header.
  clearLastError(ctx_);
  EXPECT_EQ(inFile(bytes, ZelTiff), 0);
  EXPECT_EQ(Zel003b(ctx_), 0);
  EXPECT_EQ(inMemory(bytes, ZelTiff), 0);
  EXPECT_EQ(Zel003b(ctx_), 8);
}

TEST_P(TiffPageCount, EveryTruncationFailsWithACode) {
  expectEveryTruncationFails(tiffChain(GetParam(), {2, 0, 4}), ZelTiff);
}

TEST_P(TiffPageCount, MemorySizeBoundsTheWalkEvenInsideALargerBlock) {
  const Bytes chain = tiffChain(GetParam(), {1, 3});
  Bytes block = chain;
  block.resize(chain.size() + 100, 0);
  for (size_t size = 9; size < chain.size(); ++size) {
    clearLastError(ctx_);
    ASSERT_EQ(Zel704w(ctx_, block.data(), ZelTiff, static_cast<int>(size)), 0) << size;
    ASSERT_EQ(Zel003b(ctx_), 8) << size;
  }
  clearLastError(ctx_);
  EXPECT_EQ(Zel704w(ctx_, block.data(), ZelTiff, static_cast<int>(chain.size())), 2);
  EXPECT_EQ(Zel704w(ctx_, block.data(), ZelTiff, static_cast<int>(block.size())), 2);
  EXPECT_EQ(Zel003b(ctx_), 0);
}

TEST_P(TiffPageCount, DirectoryWordsBeyondTheEndFail) {
  const bool little = GetParam();
  // The count word of the first directory is the last byte of the file.
  Bytes countCut = TiffFile(little, 20).bytes();
  countCut.resize(21, 0);
  expectFailure(countCut, ZelTiff, 8, -1);
  // A count of entries that runs far beyond the end.
  TiffFile many(little, 16);
  many.put(16, 0xFFFF, 2);
  many.put(18, 0, 4);
  expectFailure(many.bytes(), ZelTiff, 8, -1);
  // First and later offsets far out.
  expectFailure(TiffFile(little, 0xFFFFFFF0).directory(8, 0, 0).bytes(), ZelTiff, 8, -1);
  expectFailure(TiffFile(little, 8).directory(8, 1, 0x7FFFFFFF).bytes(), ZelTiff, 8, -1);
}

TEST_P(TiffPageCount, ChainThatReturnsToADirectoryCountsEachDirectoryOnce) {
  const bool little = GetParam();
  const std::vector<int> entries = {1, 2, 3};
  const std::vector<uint32_t> at = chainOffsets(entries);
  const auto chain = [&](uint32_t first, uint32_t second, uint32_t third) {
    return TiffFile(little, at[0])
        .directory(at[0], entries[0], first)
        .directory(at[1], entries[1], second)
        .directory(at[2], entries[2], third)
        .bytes();
  };
  const std::vector<std::pair<std::string, Bytes>> cases = {
      {"first directory to itself", chain(at[0], 0, 0)},
      {"second directory to itself", chain(at[1], at[1], 0)},
      {"last directory back to the first", chain(at[1], at[2], at[0])},
      {"last directory back to the second", chain(at[1], at[2], at[1])},
      {"second directory back to the first", chain(at[1], at[0], 0)},
  };
  const int pages[] = {1, 2, 3, 3, 2};
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(cases[i].first);
    expectPages(cases[i].second, ZelTiff, pages[i]);
  }
  // Directories may lie in any order in the file.
  expectPages(TiffFile(little, at[2]).directory(at[0], 0, 0).directory(at[2], 1, at[0]).bytes(),
              ZelTiff, 2);
  expectPages(TiffFile(little, at[2])
                  .directory(at[0], 0, at[1])
                  .directory(at[1], 0, 0)
                  .directory(at[2], 1, at[0])
                  .bytes(),
              ZelTiff, 3);
}

INSTANTIATE_TEST_SUITE_P(ByteOrders, TiffPageCount, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool> &param) {
                           return std::string(param.param ? "LittleEndian" : "BigEndian");
                         });

// ---- Refusals common to both formats -----------------------------------------------------------

TEST_F(PageCount, OtherFormatsAreNotPermissible) {
  const Bytes tiff = tiffChain(true, {1, 1});
  for (int format :
       {0, static_cast<int>(ZelGif), static_cast<int>(ZelPng), static_cast<int>(ZelBmp),
        static_cast<int>(ZelJpegInterchange), static_cast<int>(ZelKolLong), -1, 9999}) {
    SCOPED_TRACE("format " + std::to_string(format));
    expectFailure(tiff, format, 12, 12);
  }
}

TEST_F(PageCount, BadContextGivesNoPages) {
  const Bytes tiff = tiffChain(false, {1, 1});
  writeFile("pages.img", tiff);
  ZelContext *closed = Zel004(nullptr);
  ASSERT_NE(closed, nullptr);
  ASSERT_EQ(Zel001(closed), 0);
  for (ZelContext *bad : {static_cast<ZelContext *>(nullptr), closed}) {
    EXPECT_EQ(Zel704(bad, "pages.img", ZelTiff), 0);
    EXPECT_EQ(Zel704w(bad, tiff.data(), ZelTiff, static_cast<int>(tiff.size())), 0);
    EXPECT_EQ(Zel704w(bad, tiff.data(), ZelSegmentedDocument, static_cast<int>(tiff.size())), 0);
  }
  EXPECT_EQ(Zel003b(ctx_), 0);
}

TEST_F(PageCount, MissingFileOrAddressGivesNoPages) {
  for (int format : {static_cast<int>(ZelTiff), static_cast<int>(ZelSegmentedDocument)}) {
    clearLastError(ctx_);
    EXPECT_EQ(Zel704(ctx_, "absent.img", format), 0);
    EXPECT_EQ(Zel003b(ctx_), 25);
    clearLastError(ctx_);
    EXPECT_EQ(Zel704(ctx_, nullptr, format), 0);
    EXPECT_NE(Zel003b(ctx_), 0);
    clearLastError(ctx_);
    EXPECT_EQ(Zel704w(ctx_, nullptr, format, 100), 0);
    EXPECT_NE(Zel003b(ctx_), 0);
  }
  expectNoObjectAlive();
}

TEST_F(PageCount, EachFormatRejectsTheOther) {
  expectSyntaxError(tiffChain(true, {1, 2}), ZelSegmentedDocument);
  expectSyntaxError(documentOf(3, {PageShape{}}), ZelTiff);
}

// ---- Segmented documents ---------------------------------------------------------------------

PageShape openPage() {
  PageShape shape;
  shape.openContent = true;
  return shape;
}
PageShape blockPage(std::vector<int> blocks, int skipped = -1, bool open = false) {
  PageShape shape;
  shape.inBlocks = true;
  shape.blocks = std::move(blocks);
  shape.skippedField = skipped;
  shape.openContent = open;
  return shape;
}
PageShape singleBlockPage(int size, int skipped = -1, bool highBit = false) {
  PageShape shape;
  shape.blocks = {size};
  shape.skippedField = skipped;
  shape.lengthHighBit = highBit;
  return shape;
}

TEST_F(PageCount, DocumentsCountTheirPageRecords) {
  struct Case {
    const char *name;
    int number;
    std::vector<PageShape> pages;
  };
  const std::vector<Case> cases = {
      {"no pages", 3, {}},
      {"one plain page", 3, {PageShape{}}},
      {"one open page", 4, {openPage()}},
      {"three pages of every kind",
       3,
       {openPage(), blockPage({30, 0, 200}, 12), singleBlockPage(7, 0, true)}},
      {"blocks without blocks", 4, {blockPage({}), blockPage({1}, -1, true)}},
      {"empty single block and skipped field", 3, {singleBlockPage(0, 0), singleBlockPage(1, 5)}},
      {"open pages with blocks", 3, {blockPage({5, 6}, 3, true), blockPage({9}, -1, true)}},
      {"long blocks", 4, {blockPage({0x7FFF}, -1, true), singleBlockPage(0x7000, 0x100)}},
      {"document at 256", 1, {PageShape{}, openPage()}},
      {"document at 3072", 12, {PageShape{}, PageShape{}, PageShape{}}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    expectPages(documentOf(c.number, c.pages), ZelSegmentedDocument,
                static_cast<int>(c.pages.size()));
  }
}

TEST_F(PageCount, DocumentsAfterAHeaderOfDigitsZeroFail) {
  // The document would begin at offset 0, where the header lies.
  Bytes bytes = documentOf(1, {PageShape{}});
  bytes[1] = 0xF0;
  expectSyntaxError(bytes, ZelSegmentedDocument);
}

// A two-page document with one part damaged.
struct Damage {
  const char *name;
  std::function<void(Bytes &, const Document &)> apply;
};

void putWord(Bytes &bytes, size_t at, uint32_t value) {
  for (int i = 0; i < 4; ++i)
    bytes[at + static_cast<size_t>(i)] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

TEST_F(PageCount, DamagedDocumentsAreSyntaxErrors) {
  const std::vector<Damage> damages = {
      {"first digit not EBCDIC", [](Bytes &b, const Document &) { b[0] = 0xFA; }},
      {"second digit ASCII", [](Bytes &b, const Document &) { b[1] = '3'; }},
      {"first digit below F0", [](Bytes &b, const Document &) { b[0] = 0xEF; }},
      {"no hash after the digits", [](Bytes &b, const Document &) { b[2] = 0x24; }},
      {"document tag", [](Bytes &b, const Document &d) { b[d.documentMarker() + 1] = 0x12; }},
      {"document of definite length",
       [](Bytes &b, const Document &d) { putWord(b, d.documentMarker(), 0xF1110100); }},
      {"page marker of definite length",
       [](Bytes &b, const Document &d) { b[d.lastPage().marker + 2] = 0x00; }},
      {"page marker tag", [](Bytes &b, const Document &d) { b[d.lastPage().marker + 1] = 0x11; }},
      {"descriptor start", [](Bytes &b, const Document &d) { b[d.lastPage().descriptor] = 0xF1; }},
      {"descriptor length",
       [](Bytes &b, const Document &d) { b[d.lastPage().descriptor + 3] = 0x18; }},
      {"descriptor byte 12",
       [](Bytes &b, const Document &d) { b[d.lastPage().descriptor + 12] = 0xF2; }},
      {"content tag", [](Bytes &b, const Document &d) { b[d.lastPage().content + 1] = 0x11; }},
      {"stream tag", [](Bytes &b, const Document &d) { b[d.lastPage().stream + 1] = 0x02; }},
      {"stream class", [](Bytes &b, const Document &d) { b[d.lastPage().stream] = 0xF6; }},
      {"block tag", [](Bytes &b, const Document &d) { b[d.lastPage().firstBlock + 1] = 0x05; }},
      {"block of open length",
       [](Bytes &b, const Document &d) { b[d.lastPage().firstBlock + 2] = 0x80; }},
      {"content not closed",
       [](Bytes &b, const Document &d) { putWord(b, d.lastPage().contentEnd, 0xF0000001); }},
      {"page not closed",
       [](Bytes &b, const Document &d) { putWord(b, d.lastPage().pageEnd, 0xF1108000); }},
      {"page closed with a length",
       [](Bytes &b, const Document &d) { putWord(b, d.lastPage().pageEnd, 0xF0000004); }},
      {"end of the document replaced",
       [](Bytes &b, const Document &) { putWord(b, b.size() - 4, 0xF1118000); }},
  };
  for (bool onFirstPage : {true, false}) {
    for (const Damage &damage : damages) {
      SCOPED_TRACE(std::string(damage.name) + (onFirstPage ? " on page 1" : " on page 2"));
      // `damaged` stops after the page to damage, whose places it keeps; a sound page follows
      // when that is the first one.
      Document damaged(3);
      damaged.page(blockPage({20, 4}, 6, true));
      if (!onFirstPage) damaged.page(blockPage({8}, -1, true));
      Document whole = damaged;
      if (onFirstPage) whole.page(PageShape{});
      Bytes bytes = whole.finish();
      damage.apply(bytes, damaged);
      expectSyntaxError(bytes, ZelSegmentedDocument);
    }
  }
}

TEST_F(PageCount, SkippedFieldOfOpenLengthIsASyntaxError) {
  Document document(3);
  document.page(singleBlockPage(10, 4));
  Bytes bytes = document.finish();
  bytes[document.lastPage().content + 4 + 2] = 0x80;
  expectSyntaxError(bytes, ZelSegmentedDocument);
}

TEST_F(PageCount, OpenContentWithoutItsEndMarkerFails) {
  // The page's end marker is taken for the content's, and what follows for the page's: the next
  // page's marker is a syntax error, the end of a one-page document makes the walk run out.
  for (bool second : {true, false}) {
    SCOPED_TRACE(second ? "two pages" : "one page");
    Document document(3);
    document.page(openPage());
    const PagePlaces first = document.lastPage();
    if (second) document.page(PageShape{});
    const Bytes whole = document.finish();
    Bytes missing(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(first.contentEnd));
    missing.insert(missing.end(), whole.begin() + static_cast<std::ptrdiff_t>(first.pageEnd),
                   whole.end());
    expectPages(whole, ZelSegmentedDocument, second ? 2 : 1);
    if (second)
      expectSyntaxError(missing, ZelSegmentedDocument);
    else
      expectFailure(missing, ZelSegmentedDocument, 8, -1);
  }
}

TEST_F(PageCount, DocumentMemoryBelowFourBytesIsTooShort) {
  const Bytes bytes = documentOf(3, {PageShape{}});
  for (int size : {-5, 0, 1, 2, 3}) {
    clearLastError(ctx_);
    EXPECT_EQ(Zel704w(ctx_, bytes.data(), ZelSegmentedDocument, size), 0) << size;
    EXPECT_EQ(Zel003b(ctx_), 8) << size;
  }
}

TEST_F(PageCount, EveryTruncationOfATwoPageDocumentFails) {
  expectEveryTruncationFails(documentOf(3, {blockPage({12, 3}, 5, true), singleBlockPage(9, 2)}),
                             ZelSegmentedDocument);
}

// ---- Public files ----------------------------------------------------------------------------

TEST_F(PageCount, PublicTiffFilesHaveAsManyPagesAsLibtiffFindsDirectories) {
  // The directory counts that libtiff's tiffinfo gives for these files.
  const std::vector<std::pair<const char *, int>> files = {
      {"fax/bmpsuite/pal1huff.tif", 1},
      {"tiff/libtiff/test_two_ifds.tif", 2},
      {"tiff/pillow/compression.tif", 2},
      {"tiff/pillow/multipage.tiff", 3},
      {"tiff/pillow/g4-multi.tiff", 3},
      {"tiff/pillow/total-pages-zero.tif", 3},
      {"tiff/image-tiff-seq/seq-1c-8b-multipage-adeefdcc.tiff", 3},
      {"tiff/edge/libtiff/test_ifd_loop_to_first.tif", 2},
      {"tiff/edge/pillow/multipage_out_of_order.tiff", 3},
      {"tiff/edge/pillow/multipage_single_frame_loop.tiff", 1},
      {"tiff/edge/pillow/multipage_multiple_frame_loop.tiff", 2},
  };
  for (const auto &[path, pages] : files) {
    SCOPED_TRACE(path);
    const fs::path file = fs::path(ZEL_CORPUS_DIR) / path;
    ASSERT_TRUE(fs::exists(file));
    const Bytes bytes = fileBytes(file);
    clearLastError(ctx_);
    EXPECT_EQ(Zel704(ctx_, file.c_str(), ZelTiff), pages);
    EXPECT_EQ(inMemory(bytes, ZelTiff), pages);
    EXPECT_EQ(Zel003b(ctx_), 0);
  }
  expectNoObjectAlive();
}

// ---- The counting functions through byte sources ---------------------------------------------

TEST_F(PageCount, MemorySourceReadsInsideItsSizeOnly) {
  Bytes block(32);
  for (size_t i = 0; i < block.size(); ++i)
    block[i] = static_cast<uint8_t>(i);
  overMemory(block, 20, [&](ByteSource source) {
    uint8_t got[4] = {};
    EXPECT_EQ(source.read(0, got, 4), 0);
    EXPECT_EQ(Bytes(got, got + 4), Bytes({0, 1, 2, 3}));
    EXPECT_EQ(source.read(16, got, 4), 0);
    EXPECT_EQ(Bytes(got, got + 4), Bytes({16, 17, 18, 19}));
    EXPECT_EQ(source.read(20, got, 0), 0);
    clearLastError(ctx_);
    for (int64_t offset : std::initializer_list<int64_t>{17, 20, 21, -1, INT64_MIN / 2}) {
      EXPECT_EQ(source.read(offset, got, 4), 8) << offset;
      EXPECT_EQ(Zel003b(ctx_), 8);
    }
    EXPECT_EQ(Bytes(got, got + 4), Bytes({16, 17, 18, 19}));
  });
}

TEST_F(PageCount, FileSourceFailsPastTheEndOfTheFile) {
  overFile(Bytes(10, 0x5A), [&](ByteSource source) {
    uint8_t got[4] = {};
    EXPECT_EQ(source.read(6, got, 4), 0);
    EXPECT_EQ(Bytes(got, got + 4), Bytes(4, 0x5A));
    clearLastError(ctx_);
    EXPECT_EQ(source.read(7, got, 4), -1);
    EXPECT_EQ(Zel003b(ctx_), -1);
    EXPECT_EQ(source.read(1000, got, 4), -1);
  });
}

TEST_F(PageCount, CountingFunctionsGiveTheCodeAndTheCount) {
  const Bytes tiff = tiffChain(false, {4, 0, 2, 9});
  const Bytes document = documentOf(4, {openPage(), blockPage({3, 3}), PageShape{}});
  using Counter = int (*)(const ByteSource &, int32_t &) noexcept;
  const std::vector<std::tuple<const Bytes *, Counter, int>> counts = {
      {&tiff, zel::interchange::countTiffPages, 4},
      {&document, zel::interchange::countDocumentPages, 3}};
  for (const auto &[bytes, count, pages] : counts) {
    const auto check = [&, count = count, pages = pages](ByteSource source) {
      int32_t found = 99;
      EXPECT_EQ(count(source, found), 0);
      EXPECT_EQ(found, pages);
    };
    overMemory(*bytes, static_cast<int64_t>(bytes->size()), check);
    overFile(*bytes, check);
    // One byte short: the last word is missing.
    overMemory(*bytes, static_cast<int64_t>(bytes->size()) - 1, [&, count = count](ByteSource s) {
      int32_t found = 0;
      EXPECT_EQ(count(s, found), 8);
    });
    overFile(Bytes(bytes->begin(), bytes->end() - 1), [&, count = count](ByteSource s) {
      int32_t found = 0;
      EXPECT_EQ(count(s, found), -1);
    });
  }
  // Each counter finds a syntax error in the other's input.
  overMemory(document, static_cast<int64_t>(document.size()), [&](ByteSource s) {
    int32_t found = 7;
    EXPECT_EQ(zel::interchange::countTiffPages(s, found), 22);
    EXPECT_EQ(found, 0);
  });
  overMemory(tiff, static_cast<int64_t>(tiff.size()), [&](ByteSource s) {
    int32_t found = 7;
    EXPECT_EQ(zel::interchange::countDocumentPages(s, found), 22);
    EXPECT_EQ(found, 0);
  });
}

}  // namespace
