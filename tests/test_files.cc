#include "platform/files.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

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

// Sets $TMPDIR (null: unsets it) for the length of a scope.
class TemporaryDirectorySetting {
 public:
  explicit TemporaryDirectorySetting(const char *value) {
    if (const char *previous = std::getenv("TMPDIR")) previous_ = previous;
    if (value)
      setenv("TMPDIR", value, 1);
    else
      unsetenv("TMPDIR");
  }
  ~TemporaryDirectorySetting() {
    if (previous_)
      setenv("TMPDIR", previous_->c_str(), 1);
    else
      unsetenv("TMPDIR");
  }

 private:
  std::optional<std::string> previous_;
};

int openDescriptors() {
  int count = 0;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    (void)entry;
    ++count;
  }
  return count;
}

std::vector<std::filesystem::path> filesIn(const std::filesystem::path &directory) {
  std::vector<std::filesystem::path> found;
  for (const auto &entry : std::filesystem::directory_iterator(directory))
    found.push_back(entry.path());
  return found;
}

bool isTemporaryName(const std::filesystem::path &path, const std::filesystem::path &directory) {
  std::string name = path.filename().string();
  return path.parent_path() == directory && name.size() == 9 && name.rfind("zel", 0) == 0;
}

TEST(PlatformFiles, TemporaryFileIsANewEmptyFileWithTheZelPrefixInTmpdir) {
  ScratchDirectory scratch;
  TemporaryDirectorySetting tmpdir(scratch.path().c_str());
  int before = openDescriptors();
  char first[512];
  char second[512];
  ASSERT_TRUE(platform::createTemporaryFile(first, sizeof first));
  ASSERT_TRUE(platform::createTemporaryFile(second, sizeof second));
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_STRNE(first, second);
  for (const char *path : {first, second}) {
    EXPECT_TRUE(isTemporaryName(path, scratch.path())) << path;
    EXPECT_TRUE(std::filesystem::is_regular_file(path)) << path;
    EXPECT_EQ(std::filesystem::file_size(path), 0u) << path;
  }
  EXPECT_EQ(filesIn(scratch.path()).size(), 2u);
}

TEST(PlatformFiles, TemporaryFileGoesToTmpWhenTmpdirIsEmptyOrUnset) {
  const char *settings[] = {"", nullptr};
  for (const char *setting : settings) {
    SCOPED_TRACE(setting ? "empty" : "unset");
    TemporaryDirectorySetting tmpdir(setting);
    char path[512];
    ASSERT_TRUE(platform::createTemporaryFile(path, sizeof path));
    EXPECT_TRUE(isTemporaryName(path, "/tmp")) << path;
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_TRUE(platform::deleteFile(path));
  }
}

TEST(PlatformFiles, TemporaryFileInAMissingDirectoryFails) {
  TemporaryDirectorySetting tmpdir("/nonexistent-zel-directory/below");
  int before = openDescriptors();
  char path[512];
  EXPECT_FALSE(platform::createTemporaryFile(path, sizeof path));
  EXPECT_EQ(openDescriptors(), before);
}

TEST(PlatformFiles, TemporaryFileWhosePathDoesNotFitFailsAndLeavesNoFile) {
  ScratchDirectory scratch;
  TemporaryDirectorySetting tmpdir(scratch.path().c_str());
  int before = openDescriptors();
  std::string directory = scratch.path().string();
  std::vector<char> path(directory.size() + 4, '#');  // room for the directory, not the name
  EXPECT_FALSE(platform::createTemporaryFile(path.data(), path.size()));
  EXPECT_TRUE(filesIn(scratch.path()).empty());
  EXPECT_EQ(openDescriptors(), before);
}

TEST(PlatformFiles, ReadUpToGivesWhatTheFileHoldsAtThePosition) {
  ScratchDirectory scratch;
  std::ofstream("data") << "abcdef";
  int file = platform::openForReading("data");
  ASSERT_NE(file, platform::noFile);
  char buffer[16] = {};
  EXPECT_EQ(platform::readUpTo(file, buffer, 4, 2), 4);
  EXPECT_EQ(std::string(buffer, 4), "cdef");
  std::memset(buffer, 0, sizeof buffer);
  EXPECT_EQ(platform::readUpTo(file, buffer, 16, 0), 6);
  EXPECT_EQ(std::string(buffer), "abcdef");
  std::memset(buffer, 0, sizeof buffer);
  EXPECT_EQ(platform::readUpTo(file, buffer, 10, 3), 3);
  EXPECT_EQ(std::string(buffer), "def");
  EXPECT_EQ(platform::readUpTo(file, buffer, 10, 6), 0);
  EXPECT_EQ(platform::readUpTo(file, buffer, 10, 1000), 0);
  platform::closeFile(file);
}

TEST(PlatformFiles, ReadUpToGathersALargeCountWhole) {
  ScratchDirectory scratch;
  std::string data(300000, 'x');
  for (size_t i = 0; i < data.size(); ++i)
    data[i] = static_cast<char>('a' + i % 26);
  std::ofstream("large") << data;
  int file = platform::openForReading("large");
  ASSERT_NE(file, platform::noFile);
  std::string buffer(data.size() + 100, '\0');
  EXPECT_EQ(platform::readUpTo(file, buffer.data(), buffer.size(), 0),
            static_cast<int64_t>(data.size()));
  EXPECT_EQ(buffer.substr(0, data.size()), data);
  platform::closeFile(file);
}

TEST(PlatformFiles, ReadUpToOnAWriteOnlyFileFails) {
  ScratchDirectory scratch;
  int file = platform::createForWriting("data");
  ASSERT_NE(file, platform::noFile);
  ASSERT_TRUE(platform::writeAt(file, "abc", 3, 0));
  char buffer[4];
  errno = 0;
  EXPECT_EQ(platform::readUpTo(file, buffer, 3, 0), -1);
  EXPECT_EQ(errno, EBADF);
  platform::closeFile(file);
}

}  // namespace
