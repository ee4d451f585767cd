#include "FileUtils/Dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tests/machine/Machine.h"
#include "tests/support/Descriptors.h"
#include "tests/support/ErrorRecord.h"
#include "tests/support/Scoped.h"

namespace {

namespace fs = std::filesystem;
using Quellon::FileUtils::Idir;
using testing::IsEmpty;

constexpr char const* kPath = "/mnt/sdcard/cr";

class Dir : public testing::Test {
 protected:
  Dir() { fs::create_directories(Machine::Real("/mnt/sdcard")); }
  static void Make() { fs::create_directory(Machine::Real(kPath)); }
  static bool IsThere() { return fs::is_directory(Machine::Real(kPath)); }

  static void ExpectFailure(Idir const& directory) {
    EXPECT_EQ(ErrorOf(directory), "unable to create directory: " + directory.path + " in Create");
  }
};

TEST_F(Dir, KnowsItsPathItsNamesAndThatItDoesNotExist) {
  Idir const directory(kPath);
  EXPECT_EQ(directory.path, kPath);
  EXPECT_FALSE(directory.exists);
  EXPECT_EQ(directory.GetModuleName(), "Quellon::FileUtils");
  EXPECT_EQ(directory.GetClassName(), "Idir");
  EXPECT_FALSE(directory.HasError());
}

TEST_F(Dir, KnowsThatItExists) {
  Make();
  Idir directory(kPath);
  EXPECT_TRUE(directory.exists);
  EXPECT_TRUE(directory.CheckIfExists());
}

TEST_F(Dir, LooksAgainButKeepsWhatItKnewAndRecordsNothing) {
  Idir directory(kPath);
  Make();
  EXPECT_TRUE(directory.CheckIfExists());
  EXPECT_FALSE(directory.exists);
  fs::remove(Machine::Real(kPath));
  EXPECT_FALSE(directory.CheckIfExists());
  EXPECT_FALSE(directory.HasError());
}

TEST_F(Dir, ClosesWhatItOpenedToLook) {
  Make();
  Idir directory(kPath);
  std::size_t const before = Descriptors::Open().size();
  directory.CheckIfExists();
  EXPECT_EQ(Descriptors::Open().size(), before);
}

TEST_F(Dir, CreateTouchesNothingWhenItExistedAtFirst) {
  Make();
  Idir directory(kPath);
  fs::remove(Machine::Real(kPath));
  std::vector<std::string> calls;
  Machine::hooks().fault = [&calls](Machine::Call const& call) -> std::optional<int> {
    calls.push_back(call.function);
    return std::nullopt;
  };
  EXPECT_TRUE(directory.Create());
  EXPECT_THAT(calls, IsEmpty());
}

TEST_F(Dir, CreateMakesItWithAllRightsButWritingForOthersLessTheUmask) {
  for (mode_t const mask : {0000U, 0022U, 0077U}) {
    auto const scoped = Scoped::Umask(mask);
    EXPECT_TRUE(Idir(kPath).Create());
    EXPECT_EQ(static_cast<mode_t>(fs::status(Machine::Real(kPath)).permissions()), 0775 & ~mask);
    fs::remove(Machine::Real(kPath));
  }
}

TEST_F(Dir, CreateFailsTheSecondTimeSinceItWasMissingAtFirst) {
  Idir directory(kPath);
  EXPECT_TRUE(directory.Create());
  EXPECT_FALSE(directory.HasError());
  EXPECT_FALSE(directory.exists);
  EXPECT_FALSE(directory.Create());
  ExpectFailure(directory);
  EXPECT_TRUE(IsThere());
}

TEST_F(Dir, CreateForgetsTheLastError) {
  Idir directory(kPath);
  Make();
  EXPECT_FALSE(directory.Create());
  fs::remove(Machine::Real(kPath));
  EXPECT_TRUE(directory.Create());
  EXPECT_FALSE(directory.HasError());
  EXPECT_THAT(directory.GetError(), IsEmpty());
  EXPECT_THAT(directory.GetErrorPlace(), IsEmpty());
}

TEST_F(Dir, CreateMakesNoParents) {
  Idir directory(std::string(kPath) + "/2021/03");
  EXPECT_FALSE(directory.Create());
  ExpectFailure(directory);
  EXPECT_FALSE(IsThere());
}

TEST_F(Dir, CreateFailsOnAFileOfThatName) {
  Machine::MakeFile(kPath, "a file");
  Idir directory(kPath);
  EXPECT_FALSE(directory.exists);
  EXPECT_FALSE(directory.CheckIfExists());
  EXPECT_FALSE(directory.Create());
  ExpectFailure(directory);
}

TEST_F(Dir, ThatCannotBeOpenedCountsAsMissing) {
  Make();
  Machine::hooks().fault = [](Machine::Call const& call) {
    return call.function == "opendir" ? std::optional(EACCES) : std::nullopt;
  };
  Idir directory(kPath);
  EXPECT_FALSE(directory.exists);
  EXPECT_FALSE(directory.Create());
  ExpectFailure(directory);
}

TEST_F(Dir, WithoutAPathIsMissingAndCannotBeMade) {
  Idir directory("");
  EXPECT_FALSE(directory.exists);
  EXPECT_FALSE(directory.Create());
  ExpectFailure(directory);
}

}  // namespace
