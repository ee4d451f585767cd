#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FileUtils/File.h"
#include "base/Logger.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FileAt.h"
#include "tests/support/LogFile.h"
#include "tests/support/Refusal.h"
#include "tests/support/Scoped.h"

namespace {

namespace fs = std::filesystem;
using LogFile::kHeader;
using Quellon::FileUtils::Ifile;
using testing::EndsWith;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr char const* kPath = "/mnt/sdcard/cr/a.gps";
constexpr char const* kCopy = "/mnt/sdcard/cr/b.gps";
constexpr char const* kNowhere = "/mnt/sdcard/missing/a.gps";

/// As a catalogue makes it: an unopened stream, and a path that came later.
std::unique_ptr<Ifile> BareAt(std::string const& path) {
  auto file = std::make_unique<Ifile>();
  file->path = path;
  return file;
}

void Put(Ifile& file, std::string text) {
  EXPECT_TRUE(file.Write(text.data(), static_cast<unsigned int>(text.size())));
}

bool Exists(std::string const& path) {
  return fs::exists(Machine::Real(path));
}

class FileStream : public testing::Test {
 protected:
  FileStream() { fs::create_directories(Machine::Real(kPath).parent_path()); }
  static void Holds(std::string const& text) { Machine::MakeFile(kPath, text); }
};

TEST_F(FileStream, OpensAnExistingFileInPlaceWhenMadeOpen) {
  Holds("12345");
  auto const file = FileAt(kPath, true);
  ASSERT_TRUE(file->stream->is_open());
  Put(*file, "ab");
  file->Close();
  EXPECT_EQ(Machine::ReadFile(kPath), "ab345");
}

TEST_F(FileStream, MadeOpenOnAMissingFileKeepsAFailedStreamAndMakesNothing) {
  std::string const output = Capture::Output([] {
    auto const file = FileAt(kPath, true);
    EXPECT_TRUE(file->stream->fail());
    EXPECT_FALSE(file->stream->is_open());
  });
  EXPECT_THAT(output, IsEmpty());
  EXPECT_FALSE(Exists(kPath));
}

TEST_F(FileStream, OpenThrowsForAnEmptyPath) {
  auto const file = FileAt("");
  EXPECT_EQ(Refusal([&] { file->Open(true); }), "Empty file path");
  EXPECT_EQ(file->stream, nullptr);
}

TEST_F(FileStream, OpenWithoutAStreamOpensAnExistingFileInPlaceWhateverAppendSays) {
  for (bool const append : {false, true}) {
    Holds("12345");
    auto const file = FileAt(kPath);
    EXPECT_TRUE(file->Open(append));
    Put(*file, "ab");
    file->Close();
    EXPECT_EQ(Machine::ReadFile(kPath), "ab345");
  }
}

TEST_F(FileStream, OpenOnAnUnopenedStreamEmptiesTheFileUnlessAppending) {
  Holds("12345");
  auto const appending = BareAt(kPath);
  EXPECT_TRUE(appending->Open(true));
  Put(*appending, "ab");
  appending->stream->seekp(0);
  Put(*appending, "cd");
  appending->Close();
  EXPECT_EQ(Machine::ReadFile(kPath), "12345abcd");
  auto const emptying = BareAt(kPath);
  EXPECT_TRUE(emptying->Open(false));
  EXPECT_EQ(Machine::ReadFile(kPath), "");
}

TEST_F(FileStream, OpenMakesAMissingFileAndTheStreamIsGood) {
  for (bool const append : {false, true}) {
    fs::remove(Machine::Real(kPath));
    auto const file = FileAt(kPath);
    EXPECT_TRUE(file->Open(append));
    EXPECT_TRUE(file->stream->is_open());
    EXPECT_TRUE(file->stream->good());
    EXPECT_TRUE(Exists(kPath));
  }
}

TEST_F(FileStream, OpenWithoutAppendingLetsWhatWasWrittenBeRead) {
  auto const file = BareAt(kPath);
  EXPECT_TRUE(file->Open(false));
  Put(*file, "ab");
  file->stream->seekg(0);
  EXPECT_EQ(file->stream->get(), 'a');
}

TEST_F(FileStream, OpenSucceedsEvenWhereNoFileCanBe) {
  auto const file = FileAt(kNowhere);
  EXPECT_TRUE(file->Open(false));
  EXPECT_FALSE(file->stream->is_open());
  EXPECT_TRUE(file->stream->fail());
  EXPECT_TRUE(file->Open(true));
}

TEST_F(FileStream, OpenOnAnOpenStreamChangesNothing) {
  Holds("12345");
  auto const file = FileAt(kPath, true);
  auto const* const stream = file->stream.get();
  EXPECT_TRUE(file->Open(false));
  EXPECT_EQ(file->stream.get(), stream);
  EXPECT_EQ(Machine::ReadFile(kPath), "12345");
}

TEST_F(FileStream, CanBeOpenedWrittenAndClosedAgainAndAgain) {
  auto const file = FileAt(kPath);
  for (int round = 0; round < 3; ++round) {
    EXPECT_TRUE(file->Open(true));
    Put(*file, "xy");
    file->Close();
    file->Close();
    EXPECT_FALSE(file->stream->is_open());
    EXPECT_TRUE(file->stream->good());
  }
  EXPECT_EQ(Machine::ReadFile(kPath), "xyxyxy");
}

TEST_F(FileStream, CloseWithoutAStreamDoesNothing) {
  auto const file = FileAt(kPath);
  file->Close();
  EXPECT_EQ(file->stream, nullptr);
}

TEST_F(FileStream, CloseThatCannotFlushSetsTheFlagsOfThat) {
  auto const file = FileAt("/dev/full", true);
  Put(*file, "lost");
  file->Close();
  EXPECT_TRUE(file->stream->fail());
  EXPECT_TRUE(file->stream->bad()) << "as after a flush that fails";
  EXPECT_FALSE(file->stream->is_open());
}

TEST_F(FileStream, WritesNothingWithoutBytesOrAStream) {
  char byte = 'x';
  EXPECT_FALSE(FileAt(kPath)->Write(&byte, 1));
  Holds("");
  auto const file = FileAt(kPath, true);
  EXPECT_FALSE(file->Write(nullptr, 1));
  EXPECT_FALSE(file->Write(&byte, 0));
  file->Close();
  EXPECT_EQ(Machine::ReadFile(kPath), "");
}

TEST_F(FileStream, WriteSucceedsWhateverTheStateOfTheStream) {
  auto const file = FileAt(kPath, true);
  ASSERT_TRUE(file->stream->fail());
  Put(*file, "lost");
  EXPECT_FALSE(Exists(kPath));
}

TEST_F(FileStream, WritesTheValidBytesOfABuffer) {
  Holds("");
  auto const file = FileAt(kPath, true);
  char text[] = {'a', '\0', 'c', 'd'};
  Ibuffer characters{text, 0, 3};
  EXPECT_TRUE(file->Write(characters));
  unsigned char bytes[] = {0xff, 0x80, 0x01};
  Iubuffer octets{bytes, 3, 2};
  EXPECT_TRUE(file->Write(octets));
  Ibuffer none{text, 4, 0};
  EXPECT_FALSE(file->Write(none));
  Iubuffer null{nullptr, 3, 3};
  EXPECT_FALSE(file->Write(null));
  file->Close();
  EXPECT_EQ(Machine::ReadFile(kPath), std::string("a\0c\xff\x80", 5));
}

TEST_F(FileStream, GoesWithItsObjectAndWhatWasWrittenStays) {
  {
    auto const file = FileAt(kPath);
    file->Open(false);
    Put(*file, "kept");
  }
  EXPECT_EQ(Machine::ReadFile(kPath), "kept");
}

TEST_F(FileStream, ThatThrowsNeverLeavesTheDestructor) {
  auto file = FileAt("/dev/full", true);
  file->stream->exceptions(std::ios::badbit | std::ios::failbit);
  file->stream->write("lost", 4);
  EXPECT_NO_THROW(file.reset());
}

TEST_F(FileStream, PrintStatLogsFiveLinesEachWithItsHeader) {
  auto const zone = Scoped::TimeZone("UTC");
  std::string const output = Capture::Output([] {
    auto const file = FileAt("/mnt/sdcard/cr/a.b.gps");
    file->size = -1;
    file->time = 1614877509;
    file->PrintStat();
  });
  EXPECT_THAT(output, MatchesRegex(kHeader + "Path: /mnt/sdcard/cr/a\\.b\\.gps\n" +  //
                                   kHeader + "File: a\\.b\\.gps\n" +                 //
                                   kHeader + "Ext: gps\n" +                          //
                                   kHeader + "Size: 18446744073709551615\n" +        //
                                   kHeader + "Time: 2021-03-04 17:05:09\n$"));
}

TEST_F(FileStream, PrintStatShowsATimeOfZeroAsADate) {
  auto const zone = Scoped::TimeZone("UTC");
  EXPECT_THAT(Capture::Output([] { FileAt(kPath)->PrintStat(); }),
              EndsWith("]Time: 1970-01-01 00:00:00\n"));
}

TEST_F(FileStream, TheSizeOfAFileIsLoggedAsANumber) {
  Holds("12345");
  auto const file = FileAt(kPath);
  ASSERT_TRUE(file->Stat());
  EXPECT_THAT(Capture::Output([&] { Tarvik::Ilog::LogLine(Tarvik::Ilog::Info) << file->size; }),
              EndsWith("]5\n"));
}

/// Each way in which a file of that path is opened and then kept open.
std::map<std::string, std::function<std::unique_ptr<Ifile>()>> const kOpenings = {
    {"made open", [] { return FileAt(kPath, true); }},
    {"opened in place",
     [] {
       auto file = FileAt(kPath);
       file->Open(true);
       return file;
     }},
    {"opened anew",
     [] {
       auto file = BareAt(kPath);
       file->Open(true);
       return file;
     }},
    {"opened to be copied",
     [] {
       auto file = FileAt(kPath);
       EXPECT_TRUE(file->CopyTo(kCopy));
       return file;
     }},
};

// A child process, since the framework needs its own.
TEST_F(FileStream, NeverBecomesAStandardDescriptorThatWasClosed) {
  for (auto const& [how, open] : kOpenings) {
    for (int number = STDIN_FILENO; number <= STDERR_FILENO; ++number) {
      SCOPED_TRACE(how + ", without descriptor " + std::to_string(number));
      Holds("12345");
      ChildProcess::Run([open = open, number] {
        LogFile::Enable(false, true);  // that of the file opens one, too
        close(number);
        auto const file = open();
        EXPECT_TRUE(file->stream->is_open());
        static_cast<void>(write(number, "printed", 7));
      });
      EXPECT_EQ(Machine::ReadFile(kPath), "12345");
    }
  }
}

TEST_F(FileStream, ACopyIsNotWhatIsPrintedMeanwhileByAProcessWithoutStandardOutput) {
  Holds("12345");
  ChildProcess::Run([] {
    LogFile::Enable(false, true);
    auto const file = FileAt(kPath, true);
    close(STDOUT_FILENO);  // now the destination would get its number, and the line for the console
    EXPECT_TRUE(file->CopyTo(kCopy));
  });
  EXPECT_EQ(Machine::ReadFile(kCopy), "12345");
}

TEST_F(FileStream, OpensNothingElseWhereTheStandardDescriptorsAreOpen) {
  Holds("12345");
  std::vector<std::string> others;
  Machine::hooks().fault = [&](Machine::Call const& call) {
    if (call.function.find("open") != std::string::npos && call.subject != kPath)
      others.push_back(call.subject);
    return std::nullopt;
  };
  FileAt(kPath, true);
  EXPECT_THAT(others, IsEmpty());
}

TEST_F(FileStream, CopyToCopiesTheWholeFileAndLogsIt) {
  std::string const content = std::string(100000, 'z') + std::string("\0\n\xff", 3);
  Holds(content);
  Machine::MakeFile(kCopy, "older and to be replaced");
  auto const file = FileAt(kPath);
  std::string const output = Capture::Output([&] { EXPECT_TRUE(file->CopyTo(kCopy)); });
  EXPECT_EQ(Machine::ReadFile(kCopy), content);
  EXPECT_EQ(Machine::ReadFile(kPath), content);
  EXPECT_TRUE(file->stream->is_open());
  EXPECT_THAT(output, MatchesRegex(kHeader +
                                   "Copy file /mnt/sdcard/cr/a\\.gps to /mnt/sdcard/cr/b\\.gps\n"));
}

TEST_F(FileStream, CopyToNeverEmptiesTheSource) {
  Holds("12345");
  auto const file = BareAt(kPath);
  Capture::Output([&] { EXPECT_TRUE(file->CopyTo(kCopy)); });
  EXPECT_EQ(Machine::ReadFile(kPath), "12345");
  EXPECT_EQ(Machine::ReadFile(kCopy), "12345");
}

TEST_F(FileStream, CopyToBeginsWhereTheSourceWasRead) {
  Holds("12345");
  auto const file = FileAt(kPath, true);
  EXPECT_EQ(file->stream->get(), '1');
  EXPECT_EQ(file->stream->get(), '2');
  Capture::Output([&] {
    EXPECT_TRUE(file->CopyTo(kCopy));
    EXPECT_EQ(Machine::ReadFile(kCopy), "345");
    EXPECT_TRUE(file->CopyTo(kCopy));  // nothing is left to copy, and that is not noticed
  });
  EXPECT_EQ(Machine::ReadFile(kCopy), "");
}

TEST_F(FileStream, CopyToMakesAMissingSourceAndAnEmptyCopy) {
  Capture::Output([] { EXPECT_TRUE(FileAt(kPath)->CopyTo(kCopy)); });
  EXPECT_TRUE(Exists(kPath));
  EXPECT_TRUE(Exists(kCopy));
}

TEST_F(FileStream, CopyToTakesASourceThatCannotBeOpenedForAnEmptyOne) {
  std::string const output = Capture::Output([] { EXPECT_TRUE(FileAt(kNowhere)->CopyTo(kCopy)); });
  EXPECT_THAT(output, MatchesRegex(kHeader + "Copy file /mnt/sdcard/missing/a\\.gps to "
                                             "/mnt/sdcard/cr/b\\.gps\n"));
  ASSERT_TRUE(Exists(kCopy));
  EXPECT_EQ(Machine::ReadFile(kCopy), "");
}

/// What a failing copy logs, apart from the header.
std::string LogOfFailedCopy(Ifile& file, std::string const& destination) {
  std::string const output = Capture::Output([&] { EXPECT_FALSE(file.CopyTo(destination)); });
  EXPECT_THAT(output, MatchesRegex(kHeader + "\\[ERROR\\].*\n$"));
  EXPECT_EQ(output.find('\n'), output.size() - 1) << "more than one line";
  return output.substr(output.find("[ERROR]"));
}

TEST_F(FileStream, CopyToFailsWithOneErrorLineWhenItCannotBegin) {
  Holds("12345");
  auto const file = FileAt(kPath);
  EXPECT_EQ(LogOfFailedCopy(*file, ""), "[ERROR]Ifile: Empty destination path\n");
  EXPECT_EQ(file->stream, nullptr) << "the source was opened all the same";
  EXPECT_EQ(LogOfFailedCopy(*FileAt(""), kCopy), "[ERROR]Ifile: Empty file path\n");
  EXPECT_EQ(LogOfFailedCopy(*file, kNowhere), "[ERROR]Ifile: destination file not open\n");
}

TEST_F(FileStream, CopyToLeavesAFileAloneThatIsItsOwnDestination) {
  Holds("12345");
  std::string const path = Machine::Real(kPath);
  std::string const directory = Machine::Real(kPath).parent_path();
  fs::create_hard_link(path, directory + "/hard link");
  fs::create_symlink(path, directory + "/symbolic link");
  for (std::string const name : {"a.gps", "./a.gps", "hard link", "symbolic link"}) {
    auto const file = FileAt(path);
    EXPECT_EQ(LogOfFailedCopy(*file, directory + "/" + name),
              "[ERROR]Ifile: destination file not open\n");
    EXPECT_EQ(Machine::ReadFile(kPath), "12345") << name;
  }
}

TEST_F(FileStream, CopyToReportsWhatTheStandardLibraryThrows) {
  auto const file = BareAt(kNowhere);
  file->stream->exceptions(std::ios::failbit);
  EXPECT_THAT(LogOfFailedCopy(*file, kCopy), testing::StartsWith("[ERROR]Ifile: basic_ios"));
  EXPECT_FALSE(Exists(kCopy));
}

TEST_F(FileStream, CopyToDoesNotNoticeAFullDestination) {
  Holds("12345");
  Capture::Output([] { EXPECT_TRUE(FileAt(kPath)->CopyTo("/dev/full")); });
}

/// What `write` leaves in a C stream.
template <typename Write>
std::string Written(Write write) {
  char* bytes = nullptr;
  std::size_t length = 0;
  std::FILE* const file = open_memstream(&bytes, &length);
  write(file);
  std::fclose(file);
  std::string text(bytes, length);
  std::free(bytes);
  return text;
}

TEST(FileStreamOfTheCLibrary, WritesAnIntegerAsItLiesInMemory) {
  EXPECT_EQ(Written([](FILE* file) { EXPECT_TRUE(Ifile::WriteInt(1, file)); }),
            std::string("\x01\0\0\0", 4));
  EXPECT_EQ(Written([](FILE* file) { EXPECT_TRUE(Ifile::WriteInt(-2, file)); }),
            "\xfe\xff\xff\xff");
}

TEST(FileStreamOfTheCLibrary, WritesBytes) {
  char bytes[] = {'a', '\0', 'b', 'c'};
  EXPECT_EQ(Written([&](FILE* file) { EXPECT_TRUE(Ifile::Write(bytes, 3, file)); }),
            std::string("a\0b", 3));
  EXPECT_EQ(Written([&](FILE* file) { EXPECT_TRUE(Ifile::Write(bytes, 1, file)); }), "a");
  EXPECT_EQ(Written([&](FILE* file) { EXPECT_TRUE(Ifile::Write(bytes, 0, file)); }), "");
}

TEST(FileStreamOfTheCLibrary, WritesATextWithoutLengthOrTerminator) {
  std::string const text("a\0bc", 4);
  EXPECT_EQ(Written([&](FILE* file) { EXPECT_TRUE(Ifile::WriteString(text, file)); }), text);
  EXPECT_EQ(Written([&](FILE* file) { EXPECT_TRUE(Ifile::WriteString(text, 2, file)); }),
            std::string("a\0", 2));
}

TEST(FileStreamOfTheCLibrary, TrustsALengthThatTakesInTheTerminator) {
  EXPECT_EQ(Written([](FILE* file) { EXPECT_TRUE(Ifile::WriteString("abc", 4, file)); }),
            std::string("abc\0", 4));
}

TEST(FileStreamOfTheCLibrary, WritesNothingOfAnEmptyText) {
  EXPECT_EQ(Written([](FILE* file) { EXPECT_FALSE(Ifile::WriteString("", 5, file)); }), "");
  EXPECT_EQ(Written([](FILE* file) { EXPECT_FALSE(Ifile::WriteString("", file)); }), "");
}

TEST(FileStreamOfTheCLibrary, FailsWithoutAStream) {
  char byte = 'x';
  EXPECT_FALSE(Ifile::WriteInt(1, nullptr));
  EXPECT_EQ(Written([](FILE* file) {
              EXPECT_TRUE(Ifile::Write(nullptr, 0, file)) << "nothing was written without error";
              EXPECT_FALSE(Ifile::Write(nullptr, 1, file));
            }),
            "");
  EXPECT_FALSE(Ifile::Write(&byte, 1, nullptr));
  EXPECT_FALSE(Ifile::WriteString("x", 1, nullptr));
  EXPECT_FALSE(Ifile::WriteString("x", nullptr));
}

TEST(FileStreamOfTheCLibrary, FailsWhenTheStreamIsInErrorAfterwards) {
  std::FILE* const full = std::fopen("/dev/full", "w");
  std::setvbuf(full, nullptr, _IONBF, 0);
  char byte = 'x';
  EXPECT_FALSE(Ifile::WriteInt(1, full));
  EXPECT_FALSE(Ifile::Write(&byte, 1, full));
  EXPECT_FALSE(Ifile::WriteString("x", full));
  EXPECT_FALSE(Ifile::Write(&byte, 0, full)) << "an earlier error counts too";
  std::clearerr(full);
  EXPECT_TRUE(Ifile::Write(&byte, 0, full)) << "nothing was to be written";
  std::fclose(full);
}

}  // namespace
