#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>

#include "SysUtil/Util.h"
#include "tests/machine/Machine.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Descriptors.h"
#include "tests/support/DirectoryOrder.h"

namespace {

using Machine::hooks;
using Quellon::SysUtil::GetProcIdByName;
using testing::IsEmpty;
using namespace std::string_literals;

/// A process with that command line, its arguments ended by NULs.
void Process(std::string const& id, std::string const& commandLine) {
  Machine::MakeFile("/proc/" + id + "/cmdline", commandLine);
}

class ProcessByName : public testing::Test {
 protected:
  // The folder alone makes "/proc" the test's own.
  ProcessByName() { Machine::MakeFile("/proc/version", "Linux"); }

  Descriptors::Watch descriptors;
};

TEST_F(ProcessByName, IsFoundByAnyPartOfItsProgramsName) {
  Process("12", "/usr/bin/recorder\0--verbose\0"s);
  for (char const* const name : {"recorder", "record", "order", "r", ""}) {
    EXPECT_EQ(GetProcIdByName(name), 12) << name;
  }
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(ProcessByName, IsNotFoundByItsPathOrItsArguments) {
  Process("12", "/usr/bin/recorder\0--verbose\0/x/watcher\0"s);
  for (char const* const name : {"usr", "bin", "/recorder", "verbose", "watcher", "recorder2"}) {
    EXPECT_EQ(GetProcIdByName(name), -1) << name;
  }
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

TEST_F(ProcessByName, IsFoundByANameWithoutAPath) {
  Process("1", "init\0"s);
  EXPECT_EQ(GetProcIdByName("init"), 1);
}

TEST_F(ProcessByName, TellsUpperFromLowerCase) {
  Process("7", "Recorder\0"s);
  EXPECT_EQ(GetProcIdByName("recorder"), -1);
}

TEST_F(ProcessByName, SkipsProcessesWithoutACommandLine) {
  Process("2", "");
  Machine::MakeFile("/proc/3/status", "vanishing");
  EXPECT_EQ(GetProcIdByName(""), -1);
  Process("5", "worker");
  EXPECT_EQ(GetProcIdByName(""), 5);
}

TEST_F(ProcessByName, SkipsEntriesThatAreNoProcesses) {
  for (char const* const entry : {"self", "0", "-5", "thread-self", "net"}) {
    Process(entry, "recorder\0"s);
  }
  EXPECT_EQ(GetProcIdByName("recorder"), -1);
}

TEST_F(ProcessByName, TakesTheNumberThatAnEntryBeginsWith) {
  Process("12abc", "recorder\0"s);
  EXPECT_EQ(GetProcIdByName("recorder"), 12);
}

TEST_F(ProcessByName, ReadsTheFirstLineOnly) {
  Process("12", "/usr/bin/rec\norder\0"s);
  EXPECT_EQ(GetProcIdByName("rec"), 12);
  EXPECT_EQ(GetProcIdByName("order"), -1);
  Process("12", "\nrecorder\0"s);
  EXPECT_EQ(GetProcIdByName("recorder"), -1);
}

TEST_F(ProcessByName, CutsAtTheFirstNulBeforeTheLastSlash) {
  Process("12", "recorder\0/etc/recorder.conf\0"s);
  EXPECT_EQ(GetProcIdByName("conf"), -1);
  EXPECT_EQ(GetProcIdByName("recorder"), 12);
}

TEST_F(ProcessByName, MatchesAnEmptyProgramNameByTheEmptyNameOnly) {
  Process("12", "/usr/bin/\0"s);
  EXPECT_EQ(GetProcIdByName(""), 12);
  EXPECT_EQ(GetProcIdByName("bin"), -1);
}

TEST_F(ProcessByName, IsTheFirstInDirectoryOrder) {
  for (char const* const id : {"31", "4", "159"}) Process(id, "recorder\0"s);
  auto entries = DirectoryOrder("/proc");
  std::erase_if(entries, [](auto const& name) { return name.find_first_of("0123456789") != 0; });
  EXPECT_EQ(std::to_string(GetProcIdByName("recorder")), entries.front());
}

TEST_F(ProcessByName, IsMinusOneWhenProcCannotBeOpened) {
  Process("12", "recorder\0"s);
  hooks().fault = [](Machine::Call const& call) -> std::optional<int> {
    return call.function == "opendir" ? std::optional(EMFILE) : std::nullopt;
  };
  EXPECT_EQ(GetProcIdByName("recorder"), -1);
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

/// A real process of that program name, which ends with this object, or with this process. It
/// echoes a byte first: only then the kernel surely shows its command line.
class RealProcess {
 public:
  explicit RealProcess(std::string name) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return;
    here = ends[0];
    Spawn(name.data(), ends[1]);
    close(ends[1]);
    char byte = 'x';
    running = id > 0 && write(here, &byte, 1) == 1 && read(here, &byte, 1) == 1;
  }
  RealProcess(RealProcess const&) = delete;
  RealProcess& operator=(RealProcess const&) = delete;
  ~RealProcess() {
    if (here >= 0) close(here);
    if (id > 0) ChildProcess::Wait(id);
  }

  pid_t id = -1;
  bool running = false;

 private:
  void Spawn(char* name, int itsEnd) {
    char* const arguments[] = {name, nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, itsEnd, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, itsEnd, STDOUT_FILENO);
    if (posix_spawn(&id, "/bin/cat", &actions, nullptr, arguments, environ) != 0) id = -1;
    posix_spawn_file_actions_destroy(&actions);
  }

  int here = -1;
};

TEST(ProcessByNameOfARealOne, IsFound) {
  std::string const name = "quellon-" + std::to_string(getpid()) + "-echo";
  EXPECT_EQ(GetProcIdByName(name), -1);
  {
    RealProcess const process("/no/such/" + name);
    ASSERT_TRUE(process.running);
    EXPECT_EQ(GetProcIdByName(name), process.id);
  }
  EXPECT_EQ(GetProcIdByName(name), -1);
}

TEST(ProcessByNameOfARealOne, MayBeTheCallingOne) {
  EXPECT_GT(GetProcIdByName(program_invocation_short_name), 0);
}

}  // namespace
