// The context: opening and closing, the last-error word, the message table and the log file.
#include "kernel/context.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "kernel/memory.h"
#include "kernel/objects.h"
#include "test_support.h"

namespace {

using zel::test::ContextGuard;
using zel::test::ScratchDirectory;

namespace fs = std::filesystem;

// The whole content of a file, byte for byte.
std::string fileContent(const fs::path &path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Something that is not an object of any context: a report of 9 "Invalid instance".
int failWithInvalidInstance(ZelContext *ctx) {
  int local = 0;
  return Zel002(ctx, reinterpret_cast<ZelObject *>(&local));
}

// A class descriptor that is none of the library's: a report of 6 "Incorrect object class".
ZelObject *failWithIncorrectClass(ZelContext *ctx) {
  static const ZelObjectClass impostor = {"GenericImage", nullptr};
  return Zel000(ctx, "impostor", &impostor, nullptr, nullptr, 0);
}

// An unknown setting: a report of 18 "Out of range".
int failWithOutOfRange(ZelContext *ctx) {
  return Zel008a(ctx, "noSuchSetting", 1);
}

ZelValue setting(ZelContext *ctx, const char *name) {
  ZelValue value = -12345;
  ZelAttribute entry{name, reinterpret_cast<ZelValue>(&value)};
  EXPECT_EQ(Zel007(ctx, &entry, 1), 0) << name;
  return value;
}

// The message table, in code order.
constexpr const char *kMessages[] = {
    "No error",
    "Closure failure",
    "Division by zero",
    "Exceed implementation",
    "Illegal data type conversion",
    "Incorrect data type",
    "Incorrect object class",
    "Initialization failure",
    "Insufficient size",
    "Invalid instance",
    "Mismatch data type",
    "Mismatch object class",
    "Non-permissible option",
    "Not integer multiples of the block",
    "Not a positive integer",
    "Not a positive even integer",
    "Not a positive odd integer",
    "Not a power of two",
    "Out of range",
    "Semantical error within data stream",
    "State is CLOSED when OPEN is expected",
    "State is OPEN when CLOSED is expected",
    "Syntactical error within data stream",
    "Upper bound is smaller than lower bound",
    "Invalid handle",
    "File Open Failure",
    "File Not Found",
};

TEST(Context, FreshContextHasNoErrorAndOpenState) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(Zel003b(ctx), 0);
  EXPECT_EQ(setting(ctx, "operationalState"), ZelOpen);
  EXPECT_EQ(zel::checkContext(ctx), 0);
}

TEST(Context, TwoOpensGiveTwoDistinctContexts) {
  ContextGuard first;
  ContextGuard second;
  ASSERT_NE(first.get(), nullptr);
  ASSERT_NE(second.get(), nullptr);
  EXPECT_NE(first.get(), second.get());
}

TEST(Context, NullFileNameGivesWorkingContextThatWritesNoLog) {
  ScratchDirectory scratch;
  ContextGuard ctx(nullptr);
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(setting(ctx, "errorReportingState"), 0);
  EXPECT_EQ(failWithInvalidInstance(ctx), 9);
  EXPECT_EQ(Zel003b(ctx), 9);
  EXPECT_EQ(failWithOutOfRange(ctx), 18);
  EXPECT_EQ(Zel003b(ctx), 18);
  // A working context: objects can be made and found.
  ZelObject *image = Zel000b(ctx, "picture", nullptr, nullptr, 0);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(Zel099(ctx, nullptr, "picture"), image);
  EXPECT_TRUE(fs::is_empty(scratch.path()));
}

TEST(Context, EmptyFileNameGivesWorkingContextThatWritesNoLog) {
  ScratchDirectory scratch;
  ContextGuard ctx("");
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(setting(ctx, "errorReportingState"), 0);
  EXPECT_EQ(failWithInvalidInstance(ctx), 9);
  EXPECT_EQ(Zel003b(ctx), 9);
  EXPECT_EQ(failWithIncorrectClass(ctx), nullptr);
  EXPECT_EQ(Zel003b(ctx), 6);
  EXPECT_NE(Zel000b(ctx, "picture", nullptr, nullptr, 0), nullptr);
  EXPECT_TRUE(fs::is_empty(scratch.path()));
}

TEST(Context, NamingALogFileTurnsReportingOnWithoutCreatingTheFile) {
  ScratchDirectory scratch;
  ContextGuard ctx("zel.log");
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(setting(ctx, "errorReportingState"), 1);
  EXPECT_EQ(Zel003b(ctx), 0);
  EXPECT_FALSE(fs::exists(scratch.path() / "zel.log"));
  EXPECT_TRUE(fs::is_empty(scratch.path()));
}

TEST(Context, FirstReportCreatesTheLogWithOneLine) {
  ScratchDirectory scratch;
  ContextGuard ctx("zel.log");
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(failWithInvalidInstance(ctx), 9);
  EXPECT_EQ(fileContent(scratch.path() / "zel.log"), "zel: Invalid instance\n");
  EXPECT_EQ(Zel003b(ctx), 9);
}

TEST(Context, LaterReportsOverwriteTheStartOfTheLog) {
  ScratchDirectory scratch;
  ContextGuard ctx("zel.log");
  ASSERT_NE(ctx.get(), nullptr);
  const fs::path log = scratch.path() / "zel.log";

  EXPECT_EQ(failWithIncorrectClass(ctx), nullptr);
  EXPECT_EQ(fileContent(log), "zel: Incorrect object class\n");

  // A shorter line goes over the start; the tail of the longer one stays.
  EXPECT_EQ(failWithOutOfRange(ctx), 18);
  EXPECT_EQ(fileContent(log), "zel: Out of range\nect class\n");

  // A line of the same length replaces it whole.
  EXPECT_EQ(failWithIncorrectClass(ctx), nullptr);
  EXPECT_EQ(fileContent(log), "zel: Incorrect object class\n");
}

TEST(Context, LongerReportOverwritesAndExtendsAShorterLog) {
  ScratchDirectory scratch;
  ContextGuard ctx("zel.log");
  ASSERT_NE(ctx.get(), nullptr);
  const fs::path log = scratch.path() / "zel.log";

  EXPECT_EQ(failWithOutOfRange(ctx), 18);
  EXPECT_EQ(fileContent(log), "zel: Out of range\n");
  EXPECT_EQ(failWithInvalidInstance(ctx), 9);
  EXPECT_EQ(fileContent(log), "zel: Invalid instance\n");
  EXPECT_EQ(failWithIncorrectClass(ctx), nullptr);
  EXPECT_EQ(fileContent(log), "zel: Incorrect object class\n");
}

TEST(Context, LogFileIsOpenedAfreshForEachReport) {
  ScratchDirectory scratch;
  ContextGuard ctx("zel.log");
  ASSERT_NE(ctx.get(), nullptr);
  const fs::path log = scratch.path() / "zel.log";

  EXPECT_EQ(failWithIncorrectClass(ctx), nullptr);
  // The application moves the log away between two calls; the next report starts a new file.
  fs::rename(log, scratch.path() / "old.log");
  EXPECT_EQ(failWithOutOfRange(ctx), 18);
  EXPECT_EQ(fileContent(log), "zel: Out of range\n");
  EXPECT_EQ(fileContent(scratch.path() / "old.log"), "zel: Incorrect object class\n");

  // And a file that the application put there is written over at its start.
  fs::remove(log);
  {
    std::ofstream out(log, std::ios::binary);
    out << "0123456789012345678901234567890123456789";
  }
  EXPECT_EQ(failWithInvalidInstance(ctx), 9);
  EXPECT_EQ(fileContent(log), "zel: Invalid instance\n234567890123456789");
}

TEST(Context, ReportingSwitchedOnWithoutFileNameLogsToAFileCalledStderr) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(failWithOutOfRange(ctx), 18);
  EXPECT_TRUE(fs::is_empty(scratch.path()));

  ZelAttribute on{"errorReportingState", 1};
  EXPECT_EQ(Zel008(ctx, &on, 1), 0);
  EXPECT_EQ(failWithInvalidInstance(ctx), 9);
  EXPECT_EQ(fileContent(scratch.path() / "stderr"), "zel: Invalid instance\n");
  EXPECT_EQ(Zel003b(ctx), 9);
}

TEST(Context, AnyNonzeroReportingStateLogs) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(Zel008a(ctx, "errorReportingState", 7), 0);
  EXPECT_EQ(failWithOutOfRange(ctx), 18);
  EXPECT_EQ(fileContent(scratch.path() / "stderr"), "zel: Out of range\n");
}

TEST(Context, ReportingSwitchedOffStopsTheNamedLog) {
  ScratchDirectory scratch;
  ContextGuard ctx("zel.log");
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(Zel008a(ctx, "errorReportingState", 0), 0);
  EXPECT_EQ(failWithInvalidInstance(ctx), 9);
  EXPECT_EQ(Zel003b(ctx), 9);
  EXPECT_TRUE(fs::is_empty(scratch.path()));

  // Switched on again, the reports go to the named file, not to "stderr".
  EXPECT_EQ(Zel008a(ctx, "errorReportingState", 1), 0);
  EXPECT_EQ(failWithOutOfRange(ctx), 18);
  EXPECT_EQ(fileContent(scratch.path() / "zel.log"), "zel: Out of range\n");
  EXPECT_FALSE(fs::exists(scratch.path() / "stderr"));
}

TEST(Context, LogThatCannotBeOpenedIsGivenUpSilently) {
  ScratchDirectory scratch;
  ContextGuard ctx("no/such/directory/zel.log");
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(setting(ctx, "errorReportingState"), 1);
  EXPECT_EQ(failWithInvalidInstance(ctx), 9);
  // The report stands; the failed log adds no error of its own.
  EXPECT_EQ(Zel003b(ctx), 9);
  EXPECT_TRUE(fs::is_empty(scratch.path()));
}

TEST(Context, LastErrorOfNullHandleIsInvalidHandle) {
  EXPECT_EQ(Zel003b(nullptr), 24);
}

TEST(Context, ClosingNullHandleIsInvalidHandle) {
  EXPECT_EQ(Zel001(nullptr), 24);
}

TEST(Context, ClosingTwiceGivesInvalidHandle) {
  ZelContext *ctx = Zel004(nullptr);
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(Zel001(ctx), 0);
  EXPECT_EQ(Zel001(ctx), 24);
}

TEST(Context, EveryCallOnAClosedContextGivesInvalidHandle) {
  ScratchDirectory scratch;
  ZelContext *ctx = Zel004("zel.log");
  ASSERT_NE(ctx, nullptr);
  ZelObject *image = Zel000b(ctx, "picture", nullptr, nullptr, 0);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(Zel001(ctx), 0);

  ZelValue place = 77;
  ZelAttribute read{"roiState", reinterpret_cast<ZelValue>(&place)};
  ZelAttribute write{"roiState", 1};
  EXPECT_EQ(Zel003b(ctx), 24);
  EXPECT_EQ(Zel007(ctx, &read, 1), 24);
  EXPECT_EQ(place, 77);
  EXPECT_EQ(Zel007a(ctx, "roiState"), reinterpret_cast<ZelValue>(ctx));
  EXPECT_EQ(Zel008(ctx, &write, 1), 24);
  EXPECT_EQ(Zel008a(ctx, "roiState", 1), 24);
  EXPECT_EQ(Zel000b(ctx, "again", nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(Zel002(ctx, image), 24);
  EXPECT_EQ(Zel097(ctx, image), nullptr);
  EXPECT_EQ(Zel098(ctx, image), nullptr);
  EXPECT_EQ(Zel099(ctx, nullptr, "picture"), nullptr);
  EXPECT_EQ(Zel005(ctx, image, &read, 1), 24);
  EXPECT_EQ(Zel006(ctx, image, &write, 1), 24);
  EXPECT_EQ(Zel001(ctx), 24);
  // None of it was logged.
  EXPECT_TRUE(fs::is_empty(scratch.path()));
}

TEST(Context, ForeignHandlesAreNotContexts) {
  ContextGuard real;
  ASSERT_NE(real.get(), nullptr);
  ZelObject *image = Zel000b(real, nullptr, nullptr, nullptr, 0);
  ASSERT_NE(image, nullptr);

  // An object handle, a block that looks like a context record, and a stack address.
  alignas(64) unsigned char lookalike[4096];
  std::memset(lookalike, 0, sizeof lookalike);
  const uint32_t tag = zel::contextTag;
  std::memcpy(lookalike, &tag, sizeof tag);
  int local = 0;
  ZelContext *handles[] = {
      reinterpret_cast<ZelContext *>(image),
      reinterpret_cast<ZelContext *>(lookalike),
      reinterpret_cast<ZelContext *>(&local),
  };
  for (ZelContext *handle : handles) {
    EXPECT_EQ(Zel003b(handle), 24);
    EXPECT_EQ(Zel008a(handle, "roiState", 1), 24);
    EXPECT_EQ(Zel000b(handle, nullptr, nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(Zel001(handle), 24);
  }
  EXPECT_EQ(local, 0);
  // The real context saw none of it.
  EXPECT_EQ(Zel003b(real), 0);
  EXPECT_EQ(Zel097(real, image), &ZelClassGenericImage);
}

TEST(Context, LastErrorIsStickyAcrossSuccesses) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(failWithInvalidInstance(ctx), 9);
  EXPECT_EQ(Zel003b(ctx), 9);

  ZelObject *image = Zel000b(ctx, "picture", nullptr, nullptr, 0);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(Zel006a(ctx, image, "xDimension", 64), 0);
  EXPECT_EQ(Zel005a(ctx, image, "xDimension"), 64);
  EXPECT_EQ(Zel008a(ctx, "roiState", 1), 0);
  EXPECT_EQ(Zel007a(ctx, "roiState"), 1);
  EXPECT_EQ(Zel099(ctx, nullptr, "picture"), image);
  EXPECT_EQ(Zel002(ctx, image), 0);
  EXPECT_EQ(Zel003b(ctx), 9);

  // The next failure replaces it.
  EXPECT_EQ(failWithOutOfRange(ctx), 18);
  EXPECT_EQ(Zel003b(ctx), 18);
  EXPECT_NE(Zel000b(ctx, nullptr, nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(Zel003b(ctx), 18);
}

TEST(Context, MessageTableHoldsTheTwentySevenTexts) {
  for (int code = 0; code < 27; ++code)
    EXPECT_STREQ(zel::messageText(code), kMessages[code]) << code;
  EXPECT_EQ(zel::messageText(27), nullptr);
  EXPECT_EQ(zel::messageText(-1), nullptr);
  EXPECT_EQ(zel::messageText(-2), nullptr);
}

TEST(Context, EveryMessageIsLoggedWordForWord) {
  ScratchDirectory scratch;
  ContextGuard ctx("zel.log");
  ASSERT_NE(ctx.get(), nullptr);
  const fs::path log = scratch.path() / "zel.log";
  for (int code = 0; code < 27; ++code) {
    fs::remove(log);
    zel::reportError(ctx, code);
    EXPECT_EQ(Zel003b(ctx), code);
    EXPECT_EQ(fileContent(log), std::string("zel: ") + kMessages[code] + "\n") << code;
  }
}

TEST(Context, SystemFailureIsLoggedWithTheTextOfErrno) {
  ScratchDirectory scratch;
  ContextGuard ctx("zel.log");
  ASSERT_NE(ctx.get(), nullptr);
  errno = EACCES;
  zel::reportError(ctx, -1);
  EXPECT_EQ(Zel003b(ctx), -1);
  EXPECT_EQ(fileContent(scratch.path() / "zel.log"),
            std::string("zel: ") + std::strerror(EACCES) + "\n");
}

TEST(Context, FailedFileOperationIsLoggedWithTheRuntimeLibraryText) {
  ScratchDirectory scratch;
  ContextGuard ctx("zel.log");
  ASSERT_NE(ctx.get(), nullptr);
  const fs::path missing = scratch.path() / "gone.tmp";
  const std::string missingName = missing.string();
  ZelObject *image = Zel000b(ctx, "temporary", nullptr, nullptr, 0);
  ASSERT_NE(image, nullptr);
  ASSERT_EQ(Zel006a(ctx, image, "fileName", reinterpret_cast<ZelValue>(missingName.c_str())), 0);
  ASSERT_EQ(Zel005a(ctx, image, "repository"), ZelFile);
  // A temporary file that the library believes it wrote, but that is not there any more.
  image->flags = zel::tmpnamFlag | zel::initedFlag;

  EXPECT_EQ(Zel002(ctx, image), -1);
  EXPECT_EQ(Zel003b(ctx), -1);
  EXPECT_EQ(fileContent(scratch.path() / "zel.log"), "zel: No such file or directory\n");
  EXPECT_EQ(fileContent(scratch.path() / "zel.log"),
            std::string("zel: ") + std::strerror(ENOENT) + "\n");
  // The object is gone all the same, name included.
  EXPECT_EQ(Zel099(ctx, nullptr, "temporary"), nullptr);
  EXPECT_EQ(Zel097(ctx, image), nullptr);
}

TEST(Context, OperationalStateOtherThanOpenAbandonsTheContext) {
  for (ZelValue state : {static_cast<ZelValue>(ZelClosed), ZelValue{0}, ZelValue{156}}) {
    ScratchDirectory scratch;
    ZelContext *ctx = Zel004("zel.log");
    ASSERT_NE(ctx, nullptr);
    ZelObject *image = Zel000b(ctx, "picture", nullptr, nullptr, 0);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(Zel008a(ctx, "operationalState", state), 0) << state;

    ZelValue place = 77;
    ZelAttribute read{"operationalState", reinterpret_cast<ZelValue>(&place)};
    ZelAttribute reopen{"operationalState", ZelOpen};
    EXPECT_EQ(Zel003b(ctx), 24);
    EXPECT_EQ(Zel007(ctx, &read, 1), 24);
    EXPECT_EQ(place, 77);
    EXPECT_EQ(Zel007a(ctx, "operationalState"), reinterpret_cast<ZelValue>(ctx));
    EXPECT_EQ(Zel008(ctx, &reopen, 1), 24);
    EXPECT_EQ(Zel008a(ctx, "operationalState", ZelOpen), 24);
    EXPECT_EQ(Zel000b(ctx, nullptr, nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(Zel097(ctx, image), nullptr);
    EXPECT_EQ(Zel099(ctx, nullptr, "picture"), nullptr);
    EXPECT_EQ(Zel002(ctx, image), 24);
    EXPECT_EQ(Zel001(ctx), 24);
    EXPECT_EQ(Zel001(ctx), 24);
    // Failures on an unusable context are never logged.
    EXPECT_EQ(failWithInvalidInstance(ctx), 24);
    EXPECT_TRUE(fs::is_empty(scratch.path()));

    // The application has abandoned the context; the test takes it back only to release it.
    ctx->operationalState = ZelOpen;
    EXPECT_EQ(Zel001(ctx), 0);
  }
}

// Left abandoned on purpose: the leak check at exit must find it still reachable.
TEST(Context, AbandonedContextStaysReachableToTheEnd) {
  ZelContext *ctx = Zel004(nullptr);
  ASSERT_NE(ctx, nullptr);
  ASSERT_NE(Zel000b(ctx, "kept", nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(Zel008a(ctx, "operationalState", ZelClosed), 0);
  EXPECT_EQ(Zel001(ctx), 24);
}

TEST(Context, WritingOpenIntoOperationalStateKeepsTheContext) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(Zel008a(ctx, "operationalState", ZelOpen), 0);
  EXPECT_EQ(Zel003b(ctx), 0);
  EXPECT_NE(Zel000b(ctx, nullptr, nullptr, nullptr, 0), nullptr);
}

TEST(Context, OpenFailsCleanlyWhenMemoryRunsOut) {
  ScratchDirectory scratch;
  ContextGuard other;  // the process already has a context when this one fails
  ASSERT_NE(other.get(), nullptr);
  int failures = 0;
  ZelContext *ctx = nullptr;
  for (long successes = 0; successes < 64 && !ctx; ++successes) {
    zel::testing::failAllocationAfter(successes);
    ctx = Zel004(nullptr);
    zel::testing::failAllocationAfter(-1);
    if (!ctx) ++failures;
  }
  ASSERT_NE(ctx, nullptr);
  EXPECT_GE(failures, 1);
  EXPECT_EQ(Zel003b(ctx), 0);
  EXPECT_EQ(Zel001(ctx), 0);
  EXPECT_EQ(Zel003b(other), 0);
  EXPECT_TRUE(fs::is_empty(scratch.path()));
}

TEST(Context, OpenWithLogNameFailsCleanlyWhenMemoryRunsOut) {
  ScratchDirectory scratch;
  ContextGuard other;
  ASSERT_NE(other.get(), nullptr);
  int failures = 0;
  ZelContext *ctx = nullptr;
  for (long successes = 0; successes < 64 && !ctx; ++successes) {
    zel::testing::failAllocationAfter(successes);
    ctx = Zel004("zel.log");
    zel::testing::failAllocationAfter(-1);
    if (!ctx) ++failures;
  }
  ASSERT_NE(ctx, nullptr);
  // The record and the copy of the name are two allocations, each of which can fail.
  EXPECT_GE(failures, 2);
  EXPECT_TRUE(fs::is_empty(scratch.path()));
  EXPECT_EQ(setting(ctx, "errorReportingState"), 1);
  EXPECT_EQ(failWithInvalidInstance(ctx), 9);
  EXPECT_EQ(fileContent(scratch.path() / "zel.log"), "zel: Invalid instance\n");
  EXPECT_EQ(Zel001(ctx), 0);
}

TEST(Context, TwoContextsAreIndependent) {
  ScratchDirectory scratch;
  ContextGuard first("first.log");
  ContextGuard second;
  ASSERT_NE(first.get(), nullptr);
  ASSERT_NE(second.get(), nullptr);

  EXPECT_EQ(failWithInvalidInstance(first), 9);
  EXPECT_EQ(Zel003b(first), 9);
  EXPECT_EQ(Zel003b(second), 0);

  EXPECT_EQ(failWithOutOfRange(second), 18);
  EXPECT_EQ(Zel003b(first), 9);
  EXPECT_EQ(Zel003b(second), 18);

  // Settings and logs belong to their context.
  EXPECT_EQ(Zel008a(first, "interpolation", ZelBilinear), 0);
  EXPECT_EQ(Zel007a(first, "interpolation"), ZelBilinear);
  EXPECT_EQ(Zel007a(second, "interpolation"), ZelNearestNeighbour);
  EXPECT_EQ(setting(second, "errorReportingState"), 0);
  EXPECT_EQ(fileContent(scratch.path() / "first.log"), "zel: Invalid instance\n");
  EXPECT_FALSE(fs::exists(scratch.path() / "stderr"));

  // Objects too: a handle of one context is no object of the other.
  ZelObject *image = Zel000b(first, "picture", nullptr, nullptr, 0);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(Zel099(second, nullptr, "picture"), nullptr);
  EXPECT_EQ(Zel097(second, image), nullptr);
  EXPECT_EQ(Zel003b(second), 9);
  EXPECT_EQ(Zel003b(first), 9);

  // Closing one leaves the other usable.
  EXPECT_EQ(Zel001(second.release()), 0);
  EXPECT_EQ(Zel097(first, image), &ZelClassGenericImage);
}

TEST(Context, TwoContextsWorkOnTwoThreadsAtOnce) {
  ScratchDirectory scratch;
  std::atomic<int> mismatches{0};
  auto work = [&mismatches](const char *logName, int32_t base) {
    ZelContext *ctx = Zel004(logName);
    if (!ctx) {
      ++mismatches;
      return;
    }
    for (int32_t i = 0; i < 2000; ++i) {
      ZelAttribute list[] = {{"xDimension", base + i}, {"yDimension", i + 1}};
      ZelObject *image = Zel000b(ctx, "picture", nullptr, list, 2);
      if (!image || Zel005a(ctx, image, "xDimension") != base + i ||
          Zel005a(ctx, image, "yDimension") != i + 1 || Zel099(ctx, nullptr, "picture") != image)
        ++mismatches;
      if (Zel008a(ctx, "thresholdRamp", base + i) != 0 || Zel007a(ctx, "thresholdRamp") != base + i)
        ++mismatches;
      // Each thread fails with its own code, and sees only its own.
      int expected = base == 0 ? 9 : 18;
      int code = base == 0 ? failWithInvalidInstance(ctx) : failWithOutOfRange(ctx);
      if (code != expected || Zel003b(ctx) != expected) ++mismatches;
      if (Zel002(ctx, image) != 0) ++mismatches;
    }
    if (Zel001(ctx) != 0) ++mismatches;
  };
  std::thread one(work, "one.log", 0);
  std::thread two(work, "two.log", 100000);
  one.join();
  two.join();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(fileContent(scratch.path() / "one.log"), "zel: Invalid instance\n");
  EXPECT_EQ(fileContent(scratch.path() / "two.log"), "zel: Out of range\n");
}

}  // namespace
