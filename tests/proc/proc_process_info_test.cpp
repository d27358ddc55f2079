#include "platform/linux/proc_process_info.h"

#include "guard/careful_hold_policy.h"
#include "platform/linux/desktop_identifiers.h"
#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/sim_audio.h"
#include "platform/sim/sim_main_loop.h"
#include "platform/sim/sim_workspace.h"
#include "settings/preferences.h"
#include "settings/tunables.h"
#include "spawned.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <vector>

namespace tarry::platform::os {
namespace {

using testing::eventually;
using testing::Spawned;
namespace fs = std::filesystem;

std::uint64_t ownCpuNs() {
  timespec ts{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000'000U + static_cast<std::uint64_t>(ts.tv_nsec);
}

TEST(ProcProcessInfo, ReadsChildrenNamesAndExecutablesOfRealProcesses) {
  Spawned shell({"bash", "-c", "sleep 30 & sleep 31 & wait"});
  ASSERT_TRUE(shell.started());
  ProcProcessInfo proc;
  std::vector<std::int32_t> children;
  // Until both children have gone from the forked shell to `sleep`.
  ASSERT_TRUE(eventually([&] {
    children = proc.childrenOf(shell.pid());
    return children.size() == 2 && proc.name(children[0]) == "sleep" && proc.name(children[1]) == "sleep";
  }));
  for (const auto child : children) {
    EXPECT_EQ(proc.name(child), "sleep");
    EXPECT_EQ(proc.executableName(child), "sleep");
    EXPECT_TRUE(proc.childrenOf(child).empty());
  }
  // The scan of every process's parent finds the same children as the kernel's children files.
  ProcProcessInfo scanning("/proc", true);
  auto scanned = scanning.childrenOf(shell.pid());
  std::sort(scanned.begin(), scanned.end());
  std::sort(children.begin(), children.end());
  EXPECT_EQ(scanned, children);
  EXPECT_EQ(proc.name(shell.pid()), "bash");
  EXPECT_EQ(proc.executableName(shell.pid()), "bash");
  const auto tree = guard::processTree(proc, shell.pid());
  EXPECT_EQ(tree.size(), 3U);
}

TEST(ProcProcessInfo, CpuTimeAndFootprintMatchWhatTheProcessUsed) {
  ProcProcessInfo proc;
  const auto self = static_cast<std::int32_t>(::getpid());
  const auto before = proc.cpuTimeNs(self);
  ASSERT_TRUE(before.has_value());
  const auto start = ownCpuNs();
  while (ownCpuNs() - start < 300'000'000U) {
  }
  const auto after = proc.cpuTimeNs(self);
  ASSERT_TRUE(after.has_value());
  // The kernel accounts in clock ticks (10 ms at the usual 100 Hz): allow a few of them.
  EXPECT_NEAR(static_cast<double>(*after), static_cast<double>(ownCpuNs()), 50e6);
  EXPECT_GE(*after - *before, 250'000'000U);

  const auto small = proc.footprintBytes(self);
  ASSERT_TRUE(small.has_value());
  std::vector<char> block(64U << 20);
  for (std::size_t i = 0; i < block.size(); i += 4096) block[i] = static_cast<char>(i);
  const auto large = proc.footprintBytes(self);
  ASSERT_TRUE(large.has_value());
  EXPECT_GE(*large, *small + (60U << 20));
  EXPECT_LT(*large, *small + (80U << 20));
}

TEST(ProcProcessInfo, AVanishedProcessYieldsNothing) {
  pid_t gone = -1;
  {
    Spawned quick({"true"});
    gone = quick.pid();
    int status = 0;
    ASSERT_EQ(::waitpid(gone, &status, 0), gone);
  }
  ProcProcessInfo proc;
  for (const std::int32_t pid : {static_cast<std::int32_t>(gone), 0, -5}) {
    EXPECT_TRUE(proc.childrenOf(pid).empty());
    EXPECT_FALSE(proc.name(pid));
    EXPECT_FALSE(proc.executableName(pid));
    EXPECT_FALSE(proc.cpuTimeNs(pid));
    EXPECT_FALSE(proc.footprintBytes(pid));
  }
}

/// A procfs look-alike, for what this kernel cannot show: the children files, and command names
/// built to trip a naive parser.
class FakeProc : public ::testing::Test {
 protected:
  void write(const std::string& relative, const std::string& text) {
    const auto path = root / relative;
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }
  void stat(std::int32_t pid, const std::string& comm, std::int32_t ppid, int utime, int stime) {
    write(std::to_string(pid) + "/stat", std::to_string(pid) + " (" + comm + ") S " + std::to_string(ppid) +
                                             " 1 1 0 -1 4194560 10 0 0 0 " + std::to_string(utime) + " " +
                                             std::to_string(stime) + " 0 0 20 0 1 0 12345 1000 100\n");
    fs::create_directories(root / std::to_string(pid) / "task" / std::to_string(pid));
  }
  testing::TempDir dir;
  fs::path root = dir.path();
};

TEST_F(FakeProc, ParsesCommandNamesWithParenthesesAndEveryThreadsChildren) {
  stat(100, "a) (b", 1, 250, 50);
  write("100/task/100/children", "101 102 ");
  write("100/task/103/children", "104 101\n");  // a child forked by a second thread
  write("100/comm", "x) y\n");
  fs::create_symlink("/opt/App/bin/my-app (deleted)", root / "100/exe");
  const char cmdline[] = "/usr/lib/chromium/chromium --type=renderer\0--lang=en";  // arguments end in NUL
  write("102/cmdline", std::string(cmdline, sizeof cmdline));
  write("100/smaps_rollup",
        "55b92ddae000-7ffe24766000 ---p 00000000 00:00 0  [rollup]\nRss:  4000 kB\n"
        "Pss:  1000 kB\nPss_Anon:  500 kB\nSwap:  90 kB\nSwapPss:  24 kB\n");
  ProcProcessInfo proc(root.string());
  EXPECT_EQ(proc.childrenOf(100), (std::vector<std::int32_t>{101, 102, 104}));
  EXPECT_EQ(proc.name(100), "x) y");
  EXPECT_EQ(proc.executableName(100), "my-app");
  EXPECT_EQ(proc.executableName(102), "chromium");
  const auto tick = 1'000'000'000U / static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
  EXPECT_EQ(proc.cpuTimeNs(100), 300 * tick);
  EXPECT_EQ(proc.footprintBytes(100), 1024U * 1024U);
}

TEST_F(FakeProc, WithoutChildrenFilesTheParentFieldIsScanned) {
  stat(200, "parent", 1, 0, 0);
  stat(201, "odd) S 200 (name", 200, 0, 0);
  stat(202, "ok", 200, 0, 0);
  stat(203, "grandchild", 201, 0, 0);
  stat(204, "elsewhere", 1, 0, 0);
  ProcProcessInfo proc(root.string());
  auto children = proc.childrenOf(200);
  std::sort(children.begin(), children.end());
  EXPECT_EQ(children, (std::vector<std::int32_t>{201, 202}));
  EXPECT_EQ(proc.childrenOf(201), (std::vector<std::int32_t>{203}));
}

/// The busy check against real processes, with simulated preferences and sound.
class BusyProcesses : public ::testing::Test {
 protected:
  sim::SimMainLoop loop;
  sim::MemoryDefaultsStore store;
  settings::Preferences prefs{store};
  settings::Tunables tunables;
  sim::SimWorkspace workspace;
  sim::SimAudio audio;
  ProcProcessInfo proc;
  struct NoWindows final : WindowList {
    std::vector<WindowInfo> windowsOf(std::int32_t) override { return {}; }
    bool setFrame(std::uint32_t, double, double, double, double, bool) override { return false; }
  } windows;
  guard::CarefulHoldPolicy policy{{prefs, tunables, loop, workspace, proc, audio, windows}, {}};

  void SetUp() override {
    audio.perProcess = false;
    workspace.setEquivalents(IdentifierSet::terminals, linuxIdentifierEquivalents(IdentifierSet::terminals));
  }
  static RunningApp app(pid_t pid, std::string bundleID) {
    RunningApp a;
    a.pid = static_cast<std::int32_t>(pid);
    a.bundleID = std::move(bundleID);
    return a;
  }
};

TEST_F(BusyProcesses, ASpinningTreeIsWorkingHard) {
  // Four spinning processes under one shell. The machine running the tests may be loaded by other
  // work, so the threshold is the lowest allowed: this is about reading the tree's CPU time, the
  // threshold itself is the logic's business.
  Spawned spinner({"sh", "-c",
                   "while :; do :; done & while :; do :; done & while :; do :; done & "
                   "while :; do :; done"});
  ASSERT_TRUE(eventually([&] { return proc.childrenOf(spinner.pid()).size() == 3; }));
  tunables.setNumber(settings::T::busyCpuPercent, 10);
  EXPECT_EQ(policy.busyReasons(app(spinner.pid(), "org.example.Compute")),
            (std::vector<std::string>{"Working hard"}));
  // No more than every core of the machine, give or take a clock tick per process.
  const auto percent = guard::sampleCpuPercent(proc, guard::processTree(proc, spinner.pid()), 300);
  EXPECT_GT(percent, 10);
  EXPECT_LE(percent, 100.0 * static_cast<double>(::sysconf(_SC_NPROCESSORS_ONLN)) + 20);
}

TEST_F(BusyProcesses, ACommandUnderATerminalsShellIsNamed) {
  Spawned terminal({"bash", "-c", "sleep 30 & wait"});
  ASSERT_TRUE(eventually([&] {
    const auto children = proc.childrenOf(terminal.pid());
    return children.size() == 1 && proc.name(children[0]) == "sleep";
  }));
  EXPECT_EQ(policy.busyReasons(app(terminal.pid(), "org.gnome.Terminal")),
            (std::vector<std::string>{"`sleep` is running"}));
  // Not a terminal: the same idle tree is not busy at all.
  EXPECT_EQ(policy.busyReasons(app(terminal.pid(), "org.gnome.TextEditor")), std::vector<std::string>{});
}

}  // namespace
}  // namespace tarry::platform::os
