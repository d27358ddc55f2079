#include "platform/linux/instance_lock.h"
#include "platform/linux/xdg_autostart.h"
#include "temp_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

namespace tarry::platform::os {
namespace {

using tarry::testing::TempDir;

TEST(InstanceLockTest, OneHolderPerDisplayAndTheLockDiesWithItsProcess) {
  TempDir dir;
  InstanceLock first(dir.path(), ":7");
  InstanceLock second(dir.path(), ":7");
  InstanceLock otherDisplay(dir.path(), "localhost:7.0");
  std::string error;
  ASSERT_TRUE(first.tryAcquire(error)) << error;
  EXPECT_FALSE(second.tryAcquire(error));
  EXPECT_TRUE(error.empty()) << "held elsewhere is not an error: " << error;
  EXPECT_TRUE(otherDisplay.tryAcquire(error));

  // A holder killed with SIGKILL leaves its files behind, but neither blocks the next copy.
  InstanceLock next(dir.path(), ":8");
  const pid_t child = fork();
  if (child == 0) {
    InstanceLock held(dir.path(), ":8");
    std::string e;
    if (!held.tryAcquire(e)) _exit(1);
    std::ofstream(held.socketPath()) << "stale";  // a socket file the child never removes
    pause();
    _exit(0);
  }
  for (int i = 0; i < 200 && !std::filesystem::exists(next.socketPath()); ++i) usleep(10'000);
  EXPECT_FALSE(next.tryAcquire(error));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  ASSERT_TRUE(next.tryAcquire(error)) << error;
  EXPECT_FALSE(std::filesystem::exists(next.socketPath())) << "the stale socket file stays";
}

TEST(InstanceLockTest, AnUpdateHandsTheLockOnAndTheNewCopyClaimsTheSocketOnlyOnceNobodyListens) {
  TempDir dir;
  std::optional<InstanceLock> old(std::in_place, dir.path(), ":5");
  std::string error;
  ASSERT_TRUE(old->tryAcquire(error)) << error;
  // A descriptor of another file is not taken for the lock.
  const int other = open((dir.path() + "/other").c_str(), O_RDWR | O_CREAT, 0600);
  setenv(kHandedOnLockVariable, std::to_string(other).c_str(), 1);
  InstanceLock refused(dir.path(), ":5");
  EXPECT_FALSE(refused.adoptHandedOn());
  EXPECT_EQ(getenv(kHandedOnLockVariable), nullptr);
  close(other);

  setenv(kHandedOnLockVariable, std::to_string(dup(old->descriptor())).c_str(), 1);
  InstanceLock next(dir.path(), ":5");
  ASSERT_TRUE(next.adoptHandedOn());
  EXPECT_NE(fcntl(next.descriptor(), F_GETFD) & FD_CLOEXEC, 0) << "passed on to every program it starts";

  // While the old copy listens, the socket stays its own.
  const int server = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, old->socketPath().c_str(), sizeof(address.sun_path) - 1);
  ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(listen(server, 1), 0);
  EXPECT_FALSE(next.claimSocket());
  // The old copy goes (its socket file stays behind): the lock is never free, and the socket is
  // the new copy's.
  close(server);
  old.reset();
  InstanceLock launch(dir.path(), ":5");
  EXPECT_FALSE(launch.tryAcquire(error));
  EXPECT_TRUE(next.claimSocket());
  EXPECT_FALSE(std::filesystem::exists(next.socketPath()));
}

TEST(InstanceLockTest, SendWaitsForTheAnswerAndFailsWithoutAListener) {
  TempDir dir;
  InstanceLock lock(dir.path(), ":9");
  std::string reply;
  std::string error;
  EXPECT_FALSE(lock.send("show-settings", reply, error, 0.1));
  EXPECT_FALSE(error.empty());

  // A listener that answers one request line.
  const int server = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, lock.socketPath().c_str(), sizeof(address.sun_path) - 1);
  ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(listen(server, 1), 0);
  const pid_t child = fork();
  if (child == 0) {
    const int c = accept(server, nullptr, nullptr);
    char buffer[64] = {};
    const ssize_t n = read(c, buffer, sizeof(buffer) - 1);
    const std::string answer = (n > 0 && std::string(buffer) == "pause 15\n") ? "ok\n" : "error: bad\n";
    (void)!write(c, answer.data(), answer.size());
    _exit(0);
  }
  EXPECT_TRUE(lock.send("pause 15", reply, error, 2.0)) << error;
  EXPECT_EQ(reply, "ok");
  waitpid(child, nullptr, 0);
  close(server);
}

TEST(XdgAutostartTest, RegisterWritesALoginLaunchEntryThatSessionsReadAsEnabled) {
  TempDir dir;
  XdgAutostart item(dir.path(), "org.tarry.Tarry", "/opt/My Apps/tarry");
  EXPECT_FALSE(item.enabled());
  std::string error;
  ASSERT_TRUE(item.registerItem(error)) << error;
  EXPECT_EQ(item.path(), dir.path() + "/autostart/org.tarry.Tarry.desktop");
  EXPECT_TRUE(item.enabled());
  std::ifstream in(item.path());
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(text.find("Exec=\"/opt/My Apps/tarry\" --autostart\n"), std::string::npos) << text;

  // The user switched it off in the desktop's own settings: not enabled, whatever the file says.
  std::ofstream(item.path(), std::ios::app) << "Hidden=true\n";
  EXPECT_FALSE(item.enabled());
  ASSERT_TRUE(item.registerItem(error));
  std::ofstream(item.path(), std::ios::app) << "X-GNOME-Autostart-enabled=false\n";
  EXPECT_FALSE(item.enabled());
  ASSERT_TRUE(item.unregisterItem(error)) << error;
  EXPECT_FALSE(std::filesystem::exists(item.path()));

  // A folder that cannot be made is an error, not a silent success.
  std::ofstream(dir.path() + "/file") << "x";
  XdgAutostart broken(dir.path() + "/file", "org.tarry.Tarry", "/usr/bin/tarry");
  EXPECT_FALSE(broken.registerItem(error));
  EXPECT_FALSE(error.empty());
}

}  // namespace
}  // namespace tarry::platform::os
