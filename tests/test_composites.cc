// Composite objects: lists of object handles read and written one entry at a time, in work space,
// in files and in application memory; indices out of range, objects whose data aren't handles,
// entries that outlive their objects.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "kernel/memory.h"
#include "kernel/objects.h"
#include "test_support.h"

namespace {

using zel::test::fileBytes;
using zel::test::openDescriptors;

namespace fs = std::filesystem;
using zel::test::readAttribute;
using zel::test::ScratchDirectory;

ZelObject *word(uintptr_t value) {
  return reinterpret_cast<ZelObject *>(value);
}

// The bytes of a list of handles as they lie in memory.
std::vector<uint8_t> handleBytes(const std::vector<ZelObject *> &handles) {
  std::vector<uint8_t> bytes(handles.size() * sizeof(ZelObject *));
  if (!handles.empty()) std::memcpy(bytes.data(), handles.data(), bytes.size());
  return bytes;
}

// A context in a scratch directory with a private temporary directory, which must be empty
// again, and every descriptor closed, once the context is gone.
class CompositeObjects : public ::testing::Test {
 protected:
  CompositeObjects() {
    temporary_ = scratch_.path() / "tmp";
    fs::create_directory(temporary_);
    if (const char *old = std::getenv("TMPDIR")) savedTmpdir_ = old;
    setenv("TMPDIR", temporary_.c_str(), 1);
    descriptors_ = openDescriptors();
    ctx_ = Zel004(nullptr);
  }
  ~CompositeObjects() override {
    if (savedTmpdir_)
      setenv("TMPDIR", savedTmpdir_->c_str(), 1);
    else
      unsetenv("TMPDIR");
  }
  void TearDown() override {
    if (ctx_) {
      EXPECT_EQ(Zel001(ctx_), 0);
    }
    ctx_ = nullptr;
    std::string left;
    for (const auto &entry : fs::directory_iterator(temporary_))
      left += entry.path().filename().string() + " ";
    EXPECT_TRUE(left.empty()) << "temporary files left: " << left;
    EXPECT_EQ(openDescriptors(), descriptors_);
  }

  ZelObject *composite(int entries, int repository = ZelWorkSpace) {
    const ZelAttribute list[] = {{"entries", entries}, {"repository", repository}};
    ZelObject *object = Zel000z(ctx_, nullptr, nullptr, list, 2);
    EXPECT_NE(object, nullptr);
    return object;
  }
  ZelObject *image(const char *name = nullptr) {
    ZelObject *object = Zel000b(ctx_, name, nullptr, nullptr, 0);
    EXPECT_NE(object, nullptr);
    return object;
  }
  std::vector<ZelObject *> entries(ZelObject *list, int count) {
    std::vector<ZelObject *> result;
    for (int i = 0; i < count; ++i)
      result.push_back(Zel010(ctx_, list, i));
    return result;
  }

  // The names of the files in the temporary directory, which are removed.
  std::string takeTemporaryFiles() {
    std::string names;
    for (const auto &entry : fs::directory_iterator(temporary_)) {
      names += entry.path().filename().string() + " ";
      fs::remove(entry.path());
    }
    return names;
  }

  ScratchDirectory scratch_;
  fs::path temporary_;
  std::optional<std::string> savedTmpdir_;
  int descriptors_ = 0;
  ZelContext *ctx_ = nullptr;
};

TEST_F(CompositeObjects, EntriesAreObjectHandlesAsWideAsAPointer) {
  ZelObject *list = Zel000z(ctx_, nullptr, nullptr, nullptr, 0);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(readAttribute(ctx_, list, "dataType"), ZelObjectHandle);
  EXPECT_EQ(readAttribute(ctx_, list, "dataPrecision"), static_cast<ZelValue>(8 * sizeof(void *)));
  EXPECT_EQ(readAttribute(ctx_, list, "repository"), ZelWorkSpace);
  EXPECT_EQ(readAttribute(ctx_, list, "xDimension"), 1);
}

TEST_F(CompositeObjects, StoredHandlesAreReadBackAtEveryIndex) {
  ZelObject *list = composite(6);
  ZelObject *objects[] = {image("page 0"), image("page 1"), image("page 2"), image("page 3")};
  ASSERT_EQ(Zel011(ctx_, objects[0], list, 5), 0);
  ASSERT_EQ(Zel011(ctx_, objects[1], list, 0), 0);
  ASSERT_EQ(Zel011(ctx_, objects[2], list, 3), 0);
  EXPECT_EQ(entries(list, 6), (std::vector<ZelObject *>{objects[1], nullptr, nullptr, objects[2],
                                                        nullptr, objects[0]}));

  // Overwriting one entry and clearing another leaves the rest.
  ASSERT_EQ(Zel011(ctx_, objects[3], list, 3), 0);
  ASSERT_EQ(Zel011(ctx_, nullptr, list, 0), 0);
  EXPECT_EQ(entries(list, 6),
            (std::vector<ZelObject *>{nullptr, nullptr, nullptr, objects[3], nullptr, objects[0]}));
  EXPECT_EQ(Zel003b(ctx_), 0);

  // The entries lie in the object's work space, one pointer each.
  const auto *block = reinterpret_cast<const uint8_t *>(readAttribute(ctx_, list, "workSpace"));
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(std::vector<uint8_t>(block, block + 6 * sizeof(ZelObject *)),
            handleBytes({nullptr, nullptr, nullptr, objects[3], nullptr, objects[0]}));
}

TEST_F(CompositeObjects, FirstReadBeforeAnyStoreReturnsNullAndCreatesTheData) {
  ZelObject *list = composite(4);
  ASSERT_EQ(readAttribute(ctx_, list, "inited"), 0);
  ASSERT_EQ(readAttribute(ctx_, list, "workSpace"), 0);
  EXPECT_EQ(Zel010(ctx_, list, 2), nullptr);
  EXPECT_EQ(Zel003b(ctx_), 0);
  EXPECT_EQ(readAttribute(ctx_, list, "inited"), 1);
  const ZelValue block = readAttribute(ctx_, list, "workSpace");
  EXPECT_NE(block, 0);

  // The data stays in place for the next calls.
  ZelObject *object = image();
  ASSERT_EQ(Zel011(ctx_, object, list, 1), 0);
  EXPECT_EQ(readAttribute(ctx_, list, "workSpace"), block);
  EXPECT_EQ(entries(list, 4), (std::vector<ZelObject *>{nullptr, object, nullptr, nullptr}));
}

TEST_F(CompositeObjects, IndexEqualToTheNumberOfEntriesGivesNullAnd18) {
  ZelObject *list = composite(4);
  ZelObject *object = image();
  ASSERT_EQ(Zel011(ctx_, object, list, 3), 0);
  EXPECT_EQ(Zel010(ctx_, list, 4), nullptr);
  EXPECT_EQ(Zel003b(ctx_), 18);
  EXPECT_EQ(Zel011(ctx_, object, list, 4), 18);
  EXPECT_EQ(entries(list, 4), (std::vector<ZelObject *>{nullptr, nullptr, nullptr, object}));
}

TEST_F(CompositeObjects, IndexAboveTheNumberOfEntriesGives18) {
  ZelObject *list = composite(3);
  ZelObject *object = image();
  for (int index : {5, 1000, INT_MAX}) {
    SCOPED_TRACE(index);
    EXPECT_EQ(Zel010(ctx_, list, index), nullptr);
    EXPECT_EQ(Zel003b(ctx_), 18);
    EXPECT_EQ(Zel011(ctx_, object, list, index), 18);
  }
  EXPECT_EQ(entries(list, 3), (std::vector<ZelObject *>{nullptr, nullptr, nullptr}));
}

TEST_F(CompositeObjects, NegativeIndexGives18) {
  ZelObject *list = composite(3);
  ZelObject *object = image();
  ASSERT_EQ(Zel011(ctx_, object, list, 0), 0);
  for (int index : {-1, -2, INT_MIN}) {
    SCOPED_TRACE(index);
    EXPECT_EQ(Zel010(ctx_, list, index), nullptr);
    EXPECT_EQ(Zel003b(ctx_), 18);
    EXPECT_EQ(Zel011(ctx_, image(), list, index), 18);
    EXPECT_EQ(Zel003b(ctx_), 18);
  }
  EXPECT_EQ(entries(list, 3), (std::vector<ZelObject *>{object, nullptr, nullptr}));
}

TEST_F(CompositeObjects, CompositeWithoutEntriesRefusesEveryIndex) {
  ZelObject *list = composite(0);
  EXPECT_EQ(Zel010(ctx_, list, 0), nullptr);
  EXPECT_EQ(Zel003b(ctx_), 18);
  EXPECT_EQ(Zel011(ctx_, image(), list, 0), 18);
}

TEST_F(CompositeObjects, HistogramGivesNullAnd10) {
  ZelObject *histogram = Zel000d(ctx_, nullptr, nullptr, nullptr, 0);
  ASSERT_NE(histogram, nullptr);
  EXPECT_EQ(Zel010(ctx_, histogram, 0), nullptr);
  EXPECT_EQ(Zel003b(ctx_), 10);
  EXPECT_EQ(Zel011(ctx_, image(), histogram, 1), 10);
  EXPECT_EQ(Zel003b(ctx_), 10);
  EXPECT_EQ(histogram->openStreams, 0);
}

TEST_F(CompositeObjects, CompositeWhoseDataAreNotPointerWideHandlesGives10) {
  const ZelAttribute narrow[] = {{"entries", 4}, {"dataPrecision", 32}};
  const ZelAttribute bytes[] = {{"entries", 4}, {"dataType", ZelNonNegative}};
  for (const ZelAttribute *list : {narrow, bytes}) {
    ZelObject *composite = Zel000z(ctx_, nullptr, nullptr, list, 2);
    ASSERT_NE(composite, nullptr);
    EXPECT_EQ(Zel010(ctx_, composite, 0), nullptr);
    EXPECT_EQ(Zel003b(ctx_), 10);
    EXPECT_EQ(Zel011(ctx_, image(), composite, 1), 10);
    EXPECT_EQ(composite->openStreams, 0);
  }
}

TEST_F(CompositeObjects, AnyWordCanBeStored) {
  int local = 0;
  const std::vector<ZelObject *> words = {
      reinterpret_cast<ZelObject *>(&local),
      word(0x1234),
      word(static_cast<uintptr_t>(0xFEDCBA9876543210ull)),
      reinterpret_cast<ZelObject *>(ctx_),
      word(UINTPTR_MAX),
  };
  ZelObject *list = composite(static_cast<int>(words.size()) + 1);
  for (size_t i = 0; i < words.size(); ++i)
    ASSERT_EQ(Zel011(ctx_, words[i], list, static_cast<int>(i)), 0) << i;
  ASSERT_EQ(Zel011(ctx_, list, list, static_cast<int>(words.size())), 0);
  std::vector<ZelObject *> expected = words;
  expected.push_back(list);
  EXPECT_EQ(entries(list, static_cast<int>(expected.size())), expected);
  EXPECT_EQ(Zel003b(ctx_), 0);
  EXPECT_EQ(local, 0);
}

TEST_F(CompositeObjects, DestroyedEntryIsStillReturnedAndRefusedAtItsNextUse) {
  ZelObject *list = composite(2);
  ZelObject *object = image("gone");
  ZelObject *other = image("kept");
  ASSERT_EQ(Zel011(ctx_, object, list, 0), 0);
  ASSERT_EQ(Zel011(ctx_, other, list, 1), 0);
  ASSERT_EQ(Zel002(ctx_, object), 0);
  EXPECT_EQ(Zel010(ctx_, list, 0), object);
  EXPECT_EQ(Zel003b(ctx_), 0);
  EXPECT_EQ(Zel097(ctx_, Zel010(ctx_, list, 0)), nullptr);
  EXPECT_EQ(Zel003b(ctx_), 9);
  EXPECT_EQ(Zel097(ctx_, Zel010(ctx_, list, 1)), &ZelClassGenericImage);
}

TEST_F(CompositeObjects, DestroyingTheCompositeLeavesItsEntriesAlive) {
  ZelObject *list = composite(2);
  ZelObject *object = image("entry");
  ASSERT_EQ(Zel011(ctx_, object, list, 1), 0);
  ASSERT_EQ(Zel002(ctx_, list), 0);
  EXPECT_EQ(Zel097(ctx_, object), &ZelClassGenericImage);
  EXPECT_EQ(Zel099(ctx_, nullptr, "entry"), object);
}

TEST_F(CompositeObjects, DeadCompositeIsRefusedBeforeTheIndexIsLookedAt) {
  ZelObject *list = composite(2);
  ZelObject *object = image();
  ASSERT_EQ(Zel011(ctx_, object, list, 0), 0);
  ASSERT_EQ(Zel002(ctx_, list), 0);
  for (int index : {0, 2, 7, -1}) {
    SCOPED_TRACE(index);
    EXPECT_EQ(Zel010(ctx_, list, index), nullptr);
    EXPECT_EQ(Zel003b(ctx_), 9);
    EXPECT_EQ(Zel011(ctx_, object, list, index), 9);
  }
  int notAnObject = 0;
  EXPECT_EQ(Zel010(ctx_, reinterpret_cast<ZelObject *>(&notAnObject), 0), nullptr);
  EXPECT_EQ(Zel003b(ctx_), 9);
  EXPECT_EQ(Zel011(ctx_, object, reinterpret_cast<ZelObject *>(&notAnObject), 0), 9);
  EXPECT_EQ(Zel010(ctx_, nullptr, 0), nullptr);
  EXPECT_EQ(notAnObject, 0);
}

TEST_F(CompositeObjects, BadContextIsRefusedAndNothingIsRecorded) {
  ZelObject *list = composite(2);
  ZelObject *object = image();
  ASSERT_EQ(Zel011(ctx_, object, list, 0), 0);
  EXPECT_EQ(Zel010(nullptr, list, 0), nullptr);
  EXPECT_EQ(Zel011(nullptr, nullptr, list, 0), 24);
  int notAContext = 0;
  EXPECT_EQ(Zel010(reinterpret_cast<ZelContext *>(&notAContext), list, 0), nullptr);
  EXPECT_EQ(Zel011(reinterpret_cast<ZelContext *>(&notAContext), nullptr, list, 0), 24);
  EXPECT_EQ(Zel003b(ctx_), 0);
  EXPECT_EQ(entries(list, 2), (std::vector<ZelObject *>{object, nullptr}));
}

TEST_F(CompositeObjects, CompositeInATemporaryFile) {
  ZelObject *list = composite(5, ZelFile);
  ZelObject *first = image(), *second = image();
  ASSERT_EQ(Zel011(ctx_, first, list, 4), 0);
  ASSERT_EQ(Zel011(ctx_, second, list, 1), 0);
  ASSERT_EQ(Zel011(ctx_, word(0x1234), list, 2), 0);
  EXPECT_EQ(entries(list, 5),
            (std::vector<ZelObject *>{nullptr, second, word(0x1234), nullptr, first}));
  EXPECT_EQ(Zel003b(ctx_), 0);

  const auto *name = reinterpret_cast<const char *>(readAttribute(ctx_, list, "fileName"));
  ASSERT_NE(name, nullptr);
  EXPECT_EQ(fs::path(name).parent_path(), temporary_);
  EXPECT_EQ(fileBytes(name), handleBytes({nullptr, second, word(0x1234), nullptr, first}));
  EXPECT_EQ(list->fileUseCount, 0);
  const std::string kept = name;
  ASSERT_EQ(Zel002(ctx_, list), 0);
  EXPECT_FALSE(fs::exists(kept));
}

TEST_F(CompositeObjects, CompositeInANamedFile) {
  ZelObject *list = composite(3, ZelFile);
  ASSERT_EQ(Zel006a(ctx_, list, "fileName", reinterpret_cast<ZelValue>("list.bin")), 0);
  ZelObject *object = image();
  ASSERT_EQ(Zel011(ctx_, object, list, 2), 0);
  ASSERT_EQ(Zel011(ctx_, list, list, 0), 0);
  EXPECT_EQ(fileBytes("list.bin"), handleBytes({list, nullptr, object}));
  EXPECT_EQ(entries(list, 3), (std::vector<ZelObject *>{list, nullptr, object}));
  ASSERT_EQ(Zel002(ctx_, list), 0);
  EXPECT_TRUE(fs::exists("list.bin"));
}

TEST_F(CompositeObjects, CompositeInApplicationMemory) {
  std::vector<ZelObject *> memory(4, nullptr);
  ZelObject *object = image(), *other = image();
  memory[3] = other;
  const ZelAttribute list[] = {
      {"entries", 4},
      {"repository", ZelApplicationAddressSpace},
      {"applicationAddressSpace", reinterpret_cast<ZelValue>(memory.data())}};
  ZelObject *composite = Zel000z(ctx_, nullptr, nullptr, list, 3);
  ASSERT_NE(composite, nullptr);
  EXPECT_EQ(Zel010(ctx_, composite, 3), other);
  ASSERT_EQ(Zel011(ctx_, object, composite, 1), 0);
  EXPECT_EQ(memory, (std::vector<ZelObject *>{nullptr, object, nullptr, other}));
  EXPECT_EQ(entries(composite, 4), memory);
}

TEST_F(CompositeObjects, ApplicationMemorySmallerThanTheEntriesIsRefused) {
  std::vector<ZelObject *> memory(4, nullptr);
  const ZelAttribute list[] = {
      {"entries", 4},
      {"repository", ZelApplicationAddressSpace},
      {"applicationAddressSpace", reinterpret_cast<ZelValue>(memory.data())},
      {"size", static_cast<ZelValue>(sizeof(ZelObject *))}};
  ZelObject *composite = Zel000z(ctx_, nullptr, nullptr, list, 4);
  ASSERT_NE(composite, nullptr);
  EXPECT_EQ(Zel011(ctx_, image(), composite, 0), 8);
  EXPECT_EQ(Zel010(ctx_, composite, 0), nullptr);
  EXPECT_EQ(Zel003b(ctx_), 8);
  EXPECT_EQ(memory, std::vector<ZelObject *>(4, nullptr));
}

TEST_F(CompositeObjects, ResizingTheCompositeStartsItsEntriesAnew) {
  ZelObject *list = composite(2);
  ZelObject *object = image();
  ASSERT_EQ(Zel011(ctx_, object, list, 1), 0);
  ASSERT_EQ(Zel006a(ctx_, list, "entries", 5), 0);
  EXPECT_EQ(readAttribute(ctx_, list, "inited"), 0);
  EXPECT_EQ(entries(list, 5), std::vector<ZelObject *>(5, nullptr));
  ASSERT_EQ(Zel011(ctx_, object, list, 4), 0);
  EXPECT_EQ(Zel010(ctx_, list, 4), object);
}

TEST_F(CompositeObjects, FailedAllocationIsReportedAndReleasesEverything) {
  ZelObject *object = image();
  for (int repository : {ZelWorkSpace, ZelFile}) {
    SCOPED_TRACE(repository);
    int result = -1;
    int failures = 0;
    for (long successes = 0; successes < 100 && result != 0; ++successes) {
      ZelObject *list = composite(3, repository);
      zel::testing::failAllocationAfter(successes);
      result = Zel011(ctx_, object, list, 2);
      zel::testing::failAllocationAfter(-1);
      EXPECT_EQ(list->openStreams, 0);
      EXPECT_EQ(list->fileUseCount, 0);
      if (result == 0) {
        EXPECT_EQ(Zel010(ctx_, list, 2), object);
      } else {
        ++failures;
        EXPECT_EQ(result, -1);
        EXPECT_EQ(Zel003b(ctx_), -1);
      }
      EXPECT_EQ(Zel002(ctx_, list), 0);
      EXPECT_EQ(takeTemporaryFiles(), "") << "after failing allocation " << successes;
    }
    EXPECT_EQ(result, 0);
    EXPECT_GT(failures, 0);
  }
}

}  // namespace
