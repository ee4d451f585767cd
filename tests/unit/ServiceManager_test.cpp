#include "SysUtil/ServiceManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "tests/support/Descriptors.h"
#include "tests/support/NotifySocket.h"

namespace {

using Quellon::SysUtil::NotifyServiceManager;
using testing::ElementsAre;
using testing::IsEmpty;

class ServiceManager : public testing::Test {
 protected:
  ServiceManager() { unsetenv("NOTIFY_SOCKET"); }
  ~ServiceManager() override { unsetenv("NOTIFY_SOCKET"); }

  static void ExpectFailure(int error) {
    errno = 0;
    EXPECT_FALSE(NotifyServiceManager("READY=1"));
    EXPECT_EQ(errno, error);
  }
};

TEST_F(ServiceManager, IsToldByASocketWithAName) {
  NotifySocket manager;
  EXPECT_TRUE(NotifyServiceManager("READY=1"));
  EXPECT_TRUE(NotifyServiceManager("STATUS=no card\nWATCHDOG=1"));
  EXPECT_THAT(manager.Take(), ElementsAre("READY=1", "STATUS=no card\nWATCHDOG=1"));
}

TEST_F(ServiceManager, IsToldByASocketInAFolder) {
  std::string const path = testing::TempDir() + "/notify-" + std::to_string(getpid());
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::ranges::copy(path, std::begin(address.sun_path));
  Tarvik::UniqueFd const channel(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(channel.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  setenv("NOTIFY_SOCKET", path.c_str(), 1);
  EXPECT_TRUE(NotifyServiceManager("READY=1"));
  std::string text(64, '\0');
  EXPECT_EQ(recv(channel.Get(), text.data(), text.size(), MSG_DONTWAIT), 7);
  EXPECT_STREQ(text.c_str(), "READY=1");
  unlink(path.c_str());
}

TEST_F(ServiceManager, IsNotToldWhereThereIsNone) {
  ExpectFailure(ENOENT);
  setenv("NOTIFY_SOCKET", "", 1);
  ExpectFailure(ENOENT);
}

TEST_F(ServiceManager, IsNotToldByANameThatFitsInNoAddress) {
  setenv("NOTIFY_SOCKET", ("/" + std::string(107, 'x')).c_str(), 1);
  ExpectFailure(ENAMETOOLONG);
  setenv("NOTIFY_SOCKET", ("/" + std::string(106, 'x')).c_str(), 1);
  ExpectFailure(ENOENT);
}

TEST_F(ServiceManager, IsNotToldAfterItHasGone) {
  std::string const name = "@quellon-gone-" + std::to_string(getpid());
  { NotifySocket const gone(name); }
  setenv("NOTIFY_SOCKET", name.c_str(), 1);
  ExpectFailure(ECONNREFUSED);
}

TEST_F(ServiceManager, IsNotToldWhereNoDescriptorIsLeft) {
  NotifySocket const manager;
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  rlimit const none{0, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  bool const isTold = NotifyServiceManager("READY=1");
  int const error = errno;
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_FALSE(isTold);
  EXPECT_EQ(error, EMFILE);
}

TEST_F(ServiceManager, IsNotWaitedForWhileItTakesNothing) {
  NotifySocket const busy;
  bool isTold = true;
  for (int count = 0; isTold && count < 100000; ++count)
    isTold = NotifyServiceManager("WATCHDOG=1");
  EXPECT_FALSE(isTold);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(ServiceManager, KeepsNoDescriptor) {
  NotifySocket const manager;
  auto const before = Descriptors::Open();
  EXPECT_TRUE(NotifyServiceManager("READY=1"));
  EXPECT_EQ(Descriptors::Open(), before);
}

}  // namespace
