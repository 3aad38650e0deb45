#include "platform/files.h"

#include <gtest/gtest.h>

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "test_support.h"

namespace {

namespace platform = zel::platform;
using zel::test::ScratchDirectory;

std::string contents(const char *path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(PlatformFiles, CreatedFileIsWrittenAtTheGivenPositions) {
  ScratchDirectory scratch;
  int file = platform::createForWriting("data");
  ASSERT_NE(file, platform::noFile);
  EXPECT_TRUE(platform::writeAt(file, "world", 5, 6));
  EXPECT_TRUE(platform::writeAt(file, "hello ", 6, 0));
  EXPECT_EQ(platform::fileSize(file), 11);
  platform::closeFile(file);
  EXPECT_EQ(contents("data"), "hello world");
}

TEST(PlatformFiles, UpdateKeepsWhatIsNotOverwritten) {
  ScratchDirectory scratch;
  std::ofstream("data") << "abcdefgh";
  int file = platform::openForUpdate("data");
  ASSERT_NE(file, platform::noFile);
  EXPECT_TRUE(platform::writeAt(file, "XY", 2, 0));
  char buffer[4] = {};
  EXPECT_TRUE(platform::readAt(file, buffer, 3, 5));
  EXPECT_STREQ(buffer, "fgh");
  platform::closeFile(file);
  EXPECT_EQ(contents("data"), "XYcdefgh");
}

TEST(PlatformFiles, ShortReadIsAFailureWithEio) {
  ScratchDirectory scratch;
  std::ofstream("data") << "abc";
  int file = platform::openForReading("data");
  ASSERT_NE(file, platform::noFile);
  char buffer[8];
  errno = 0;
  EXPECT_FALSE(platform::readAt(file, buffer, 8, 0));
  EXPECT_EQ(errno, EIO);
  platform::closeFile(file);
}

TEST(PlatformFiles, MissingFileFailsToOpenWithEnoent) {
  ScratchDirectory scratch;
  errno = 0;
  EXPECT_EQ(platform::openForReading("absent"), platform::noFile);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(platform::openForUpdate("absent"), platform::noFile);
  EXPECT_FALSE(std::filesystem::exists("absent"));
}

TEST(PlatformFiles, DeleteRemovesTheFileAndFailsWhenAbsent) {
  ScratchDirectory scratch;
  std::ofstream("data") << "x";
  EXPECT_TRUE(platform::deleteFile("data"));
  EXPECT_FALSE(std::filesystem::exists("data"));
  errno = 0;
  EXPECT_FALSE(platform::deleteFile("data"));
  EXPECT_EQ(errno, ENOENT);
}

TEST(PlatformFiles, ErrorTextIsTheRuntimeLibrarysText) {
  char buffer[128];
  EXPECT_STREQ(platform::errorText(ENOENT, buffer, sizeof buffer), std::strerror(ENOENT));
}

TEST(PlatformFiles, FilesAreNotInheritedByChildProcesses) {
  ScratchDirectory scratch;
  int file = platform::createForWriting("data");
  ASSERT_NE(file, platform::noFile);
  EXPECT_TRUE(fcntl(file, F_GETFD) & FD_CLOEXEC);
  platform::closeFile(file);
}

}  // namespace
