// The process work of one busy check, without the CPU sample's own sleep: the breadth-first walk
// of an app's process tree (400 processes, the cap) and the two CPU-time reads of every process.

#include "guard/careful_hold_policy.h"
#include "platform/linux/proc_process_info.h"

#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

namespace {

using tarry::guard::processTree;
using tarry::guard::sampleCpuPercent;
using tarry::platform::os::ProcProcessInfo;

pid_t treeRoot = -1;

[[noreturn]] void idle() {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (;;) ::pause();
}

/// 1 root, 19 children, 20 grandchildren each: 400 processes in a process group of their own.
pid_t spawnTree() {
  const pid_t root = ::fork();
  if (root != 0) return root;
  ::setpgid(0, 0);
  for (int i = 0; i < 19; ++i) {
    if (::fork() == 0) {
      for (int j = 0; j < 20; ++j) {
        if (::fork() == 0) idle();
      }
      idle();
    }
  }
  idle();
}

// Arg 0: children from the per-thread children files; 1: from one scan of every /proc/<n>/stat
// (kernels without CONFIG_PROC_CHILDREN).
void BM_TreeWalk(benchmark::State& state) {
  std::size_t size = 0;
  for (auto _ : state) {
    // A fresh reader per check: busy checks are seconds apart, so none reuses another's /proc scan.
    ProcProcessInfo proc("/proc", state.range(0) != 0);
    size = processTree(proc, treeRoot).size();
    benchmark::DoNotOptimize(size);
  }
  state.counters["processes"] = static_cast<double>(size);
}
BENCHMARK(BM_TreeWalk)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_TreeWalkAndCpuRead(benchmark::State& state) {
  for (auto _ : state) {
    ProcProcessInfo proc("/proc", state.range(0) != 0);
    const auto tree = processTree(proc, treeRoot);
    benchmark::DoNotOptimize(sampleCpuPercent(proc, tree, 0));  // 0 ms: no sleep between the reads
  }
}
BENCHMARK(BM_TreeWalkAndCpuRead)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  treeRoot = spawnTree();
  if (treeRoot < 0) {
    std::perror("fork");
    return 1;
  }
  ProcProcessInfo probe;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  std::size_t size = 0;
  while ((size = processTree(probe, treeRoot).size()) < 400 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(150));  // past the scan's reuse time
  }
  int status = 0;
  if (size < 400) {
    std::fprintf(stderr, "only %zu of 400 processes came up\n", size);
    ::kill(-treeRoot, SIGKILL);
    ::waitpid(treeRoot, &status, 0);
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  ::kill(-treeRoot, SIGKILL);
  ::waitpid(treeRoot, &status, 0);
  return 0;
}
