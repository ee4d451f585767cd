// What brings a recording to the card, in which order, and what it says when that fails.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FileUtils/File.h"
#include "base/UniqueFd.h"
#include "tests/machine/Machine.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FileAt.h"
#include "tests/support/LogFile.h"

namespace {

namespace fs = std::filesystem;
using Quellon::FileUtils::Ifile;
using testing::ElementsAre;
using testing::IsEmpty;

/// What happened, a text each.
std::vector<std::string> trace;
/// The `errno` of the next fsync(2) of a path, if it is to fail.
std::function<int(std::string const&)> failure;

std::string PathOf(int fd) {
  return fs::read_symlink("/proc/self/fd/" + std::to_string(fd));
}

class FileSync : public testing::Test {
 protected:
  FileSync() {
    trace.clear();
    failure = nullptr;
    Machine::Reset();
    Machine::MakeFile(kPath, "");
    Machine::hooks().fsync = [](int fd) {
      std::string const path = PathOf(fd);
      trace.push_back("fsync " + path);
      int const error = failure ? failure(path) : 0;
      return error == 0 ? Machine::Answer::Success() : Machine::Answer::Failure(error);
    };
    Machine::hooks().write = [](int fd, void const*, std::size_t) -> std::optional<ssize_t> {
      trace.push_back("write " + PathOf(fd));
      return std::nullopt;
    };
  }
  ~FileSync() override { Machine::Reset(); }

  /// One whose stream holds five bytes that were written.
  static std::unique_ptr<Ifile> Written() {
    auto recording = FileAt(kPath, true);
    char text[] = "12345";
    recording->Write(text, 5);
    return recording;
  }

  static std::string Real(std::string const& path) { return Machine::Real(path); }

  static constexpr char const* kPath = "/mnt/sdcard/cr/a.dat";
  std::string const written = "write " + Real(kPath);
  std::string const file = "fsync " + Real(kPath);
  std::string const directory = "fsync " + Real("/mnt/sdcard/cr");
};

TEST_F(FileSync, FlushesTheStreamThenTheFileThenItsDirectory) {
  auto const recording = Written();
  Descriptors::Watch const descriptors;
  EXPECT_TRUE(recording->Sync());
  EXPECT_THAT(trace, ElementsAre(written, file, directory));
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
  EXPECT_TRUE(recording->stream->is_open()) << "it may be written to further on";
  EXPECT_EQ(Machine::ReadFile(kPath), "12345");
}

TEST_F(FileSync, NeedsNoOpenStream) {
  auto const closed = FileAt(kPath, true);
  closed->Close();
  Ifile bare;
  bare.path = kPath;
  auto const without = FileAt(kPath);
  for (Ifile* recording : {closed.get(), &bare, without.get()}) {
    trace.clear();
    EXPECT_TRUE(recording->Sync());
    EXPECT_THAT(trace, ElementsAre(file, directory));
  }
  EXPECT_EQ(without->stream, nullptr);
}

TEST_F(FileSync, FailsWhenTheStreamCannotBeFlushed) {
  auto const recording = Written();
  Machine::hooks().write = [](int, void const*, std::size_t) {
    errno = EIO;
    return -1;
  };
  EXPECT_FALSE(recording->Sync());
  EXPECT_THAT(trace, IsEmpty());
  EXPECT_FALSE(recording->Sync()) << "what was lost stays lost";
}

TEST_F(FileSync, FailsWhenClosingTheStreamFailed) {
  auto const recording = Written();
  Machine::hooks().write = [](int, void const*, std::size_t) {
    errno = ENOSPC;
    return -1;
  };
  recording->Close();
  EXPECT_FALSE(recording->Sync());
}

TEST_F(FileSync, FailsWhenTheCardDoesNotTakeTheFile) {
  failure = [](std::string const& path) { return path == Real(kPath) ? EIO : 0; };
  EXPECT_FALSE(FileAt(kPath)->Sync());
  EXPECT_THAT(trace, ElementsAre(file));
}

TEST_F(FileSync, FailsWhenTheCardDoesNotTakeTheDirectory) {
  failure = [](std::string const& path) { return path == Real(kPath) ? 0 : EIO; };
  EXPECT_FALSE(FileAt(kPath)->Sync());
  EXPECT_THAT(trace, ElementsAre(file, directory));
}

TEST_F(FileSync, GoesOnAfterSignals) {
  failure = [count = 0](std::string const&) mutable { return ++count % 3 != 0 ? EINTR : 0; };
  int opens = 0;
  Machine::hooks().fault = [&](Machine::Call const& call) {
    bool const fails = call.function == "open" && ++opens % 3 != 0;
    return fails ? std::optional(EINTR) : std::nullopt;
  };
  EXPECT_TRUE(FileAt(kPath)->Sync());
  EXPECT_THAT(trace, ElementsAre(file, file, file, directory, directory, directory));
  EXPECT_EQ(opens, 6);
}

TEST_F(FileSync, FailsForAFileThatIsNotThere) {
  EXPECT_FALSE(FileAt("/mnt/sdcard/cr/missing.dat")->Sync());
  EXPECT_FALSE(FileAt("")->Sync());
  EXPECT_THAT(trace, IsEmpty());
}

TEST_F(FileSync, TakesTheWorkingDirectoryForThatOfABareName) {
  Tarvik::UniqueFd const before(open(".", O_RDONLY | O_CLOEXEC));
  Tarvik::UniqueFd const there(open(Real("/mnt/sdcard/cr").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(fchdir(there.Get()), 0);  // chdir(2) is not the real one here
  EXPECT_TRUE(FileAt("a.dat")->Sync());
  ASSERT_EQ(fchdir(before.Get()), 0);
  EXPECT_THAT(trace, ElementsAre(file, directory));
}

TEST_F(FileSync, NeverHasAStandardDescriptor) {
  std::vector<int> opened;
  std::optional<Descriptors::Watch> watch;
  failure = [&](std::string const&) {
    std::ranges::copy(watch->Opened(), std::back_inserter(opened));
    return 0;
  };
  bool synced = false;
  {
    Descriptors::NoStandardOnes const none;
    watch.emplace();
    synced = FileAt(kPath)->Sync();
  }
  EXPECT_TRUE(synced);
  EXPECT_THAT(opened, ElementsAre(testing::Gt(2), testing::Gt(2)));
}

TEST_F(FileSync, IsNotStoppedByAPipe) {
  std::string const pipe = Real("/mnt/sdcard/cr/pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  failure = [](std::string const&) { return EINVAL; };  // as the kernel says of pipes
  EXPECT_TRUE(LogFile::AnotherThreadGetsThrough(
      [] { EXPECT_FALSE(FileAt("/mnt/sdcard/cr/pipe")->Sync()); }));
  EXPECT_THAT(trace, ElementsAre("fsync " + pipe));
}

}  // namespace
