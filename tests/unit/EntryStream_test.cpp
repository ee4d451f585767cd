// The stream of a catalogue's entry is what a plain one is: the same bytes by the same calls.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/uio.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "tests/support/CatalogueTest.h"
#include "tests/support/LogFile.h"
#include "tests/support/Scoped.h"

namespace {

/// How often what reads and writes was called while `counting`.
struct Calls {
  int read = 0;
  int write = 0;
  int writev = 0;
  bool operator==(Calls const&) const = default;
};
Calls calls;
bool counting = false;

std::ostream& operator<<(std::ostream& out, Calls const& made) {
  return out << made.read << " read, " << made.write << " write, " << made.writev << " writev";
}

constexpr std::size_t kBytes = 300'000;
constexpr char const* kNames[] = {"a.dat", "b.dat", "c.dat", "d.dat", "e.dat"};

/// What came of a piece of work: its calls, and what it left in a file.
struct Trace {
  Calls made;
  std::string content;
  bool operator==(Trace const&) const = default;
};

std::ostream& operator<<(std::ostream& out, Trace const& trace) {
  return out << trace.made << ", " << trace.content.size() << " bytes";
}

class EntryStream : public CatalogueTest {
 protected:
  EntryStream() {
    for (char const* name : kNames) MakeRecording(name, kBytes);
    Count(&Machine::Hooks::read, calls.read);
    Count(&Machine::Hooks::write, calls.write);
    Count(&Machine::Hooks::writev, calls.writev);
  }

  template <typename Hook>
  static void Count(Hook Machine::Hooks::*hook, int& count) {
    Machine::hooks().*hook = [&count](auto&&...) -> std::optional<ssize_t> {
      if (counting) ++count;
      return std::nullopt;
    };
  }

  /// The calls that `work` makes, and what `file` of the device holds then.
  static Trace Tracing(std::string const& file, std::function<void()> const& work) {
    calls = {};
    counting = true;
    work();
    counting = false;
    return {calls, Machine::ReadFile(file)};
  }

  static constexpr auto kAppend = std::ios::in | std::ios::out | std::ios::binary | std::ios::app;
  static constexpr char const* kCopy = "/mnt/sdcard/copy";

  /// What a program does that has a stream of its own, made anew.
  static Trace PlainCopy(std::string const& path) {
    return Tracing(kCopy, [&path] {
      std::fstream source;
      source.open(path, kAppend);
      std::ofstream copy(kCopy, std::ios::binary);
      copy << source.rdbuf();
      copy.close();
      source.close();
    });
  }

  static Trace EntryCopy(Ifile& entry) {
    return Tracing(kCopy, [&entry] {
      EXPECT_TRUE(entry.CopyTo(kCopy));
      entry.Close();
    });
  }

  /// Pieces as a recorder writes them.
  template <typename Write>
  static void WritePieces(Write write) {
    std::string piece(100, 'p');
    for (int number = 0; number < 1000; ++number) write(piece);
  }

  static Trace PlainWrites(std::string const& path) {
    return Tracing(path, [&path] {
      std::fstream file;
      file.open(path, kAppend);
      WritePieces([&file](std::string& piece) { file.write(piece.data(), 100); });
      file.close();
    });
  }

  static Trace EntryWrites(Ifile& entry) {
    return Tracing(entry.path, [&entry] {
      EXPECT_TRUE(entry.Open(true));
      WritePieces([&entry](std::string& piece) { EXPECT_TRUE(entry.Write(piece.data(), 100)); });
      entry.Close();
    });
  }

  /// Every entry, copied and written to, is as good as a plain stream on an equal file.
  static void ExpectPlainStreams(FilesManager& catalogue) {
    ASSERT_EQ(catalogue.GetList().size(), std::size(kNames));
    for (Ifile* entry : catalogue.GetList()) {
      std::string const equal = "/mnt/sdcard/equal";
      Machine::MakeFile(equal, Machine::ReadFile(entry->path));
      Trace const plain = PlainCopy(equal);
      EXPECT_EQ(plain.content.size(), kBytes);
      EXPECT_GT(plain.made.read, 1) << "the calls are not seen";
      EXPECT_EQ(EntryCopy(*entry), plain) << entry->name;
      Trace const written = PlainWrites(equal);
      EXPECT_GT(written.made.write + written.made.writev, 1) << "the calls are not seen";
      EXPECT_EQ(EntryWrites(*entry), written) << entry->name;
    }
  }

  Scoped::AtEnd const silence = LogFile::Silence();  // its lines are written, too
  std::unique_ptr<FilesManager> const catalogue = NewCatalogue();
};

TEST_F(EntryStream, OfEachLoadedFileReadsAndWritesAsAPlainOneDoes) {
  ASSERT_TRUE(catalogue->LoadAndSort());
  ExpectPlainStreams(*catalogue);
}

TEST_F(EntryStream, OfEachAddedFileReadsAndWritesAsAPlainOneDoes) {
  Add(*catalogue, {std::begin(kNames), std::end(kNames)});
  ExpectPlainStreams(*catalogue);
}

}  // namespace
