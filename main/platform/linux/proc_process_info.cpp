#include "platform/linux/proc_process_info.h"

#include <dirent.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <fstream>
#include <memory>
#include <string_view>
#include <thread>
#include <unordered_set>

namespace tarry::platform::os {
namespace {

/// The file's contents, at most `limit` bytes; nothing when it cannot be opened or read.
/// NOTE: procfs files report size 0, so they are read until end of file, not by their size.
std::optional<std::string> readFile(const std::string& path, std::size_t limit = 1U << 20) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string out;
  std::array<char, 4096> buffer{};
  bool failed = false;
  while (out.size() < limit) {
    const auto n = ::read(fd, buffer.data(), std::min(buffer.size(), limit - out.size()));
    if (n < 0) {
      if (errno == EINTR) continue;
      failed = true;
      break;
    }
    if (n == 0) break;
    out.append(buffer.data(), static_cast<std::size_t>(n));
  }
  ::close(fd);
  if (failed) return std::nullopt;
  return out;
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
  std::int64_t value = 0;
  const auto* end = text.data() + text.size();
  const auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end) return std::nullopt;
  return value;
}

/// The words of `text`, split at spaces and newlines.
std::vector<std::string_view> words(std::string_view text) {
  std::vector<std::string_view> out;
  while (!text.empty()) {
    const auto start = text.find_first_not_of(" \n");
    if (start == std::string_view::npos) break;
    text.remove_prefix(start);
    const auto end = text.find_first_of(" \n");
    out.push_back(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end);
  }
  return out;
}

/// The fields of `/proc/<pid>/stat` after the command name, split at spaces: index 0 is the
/// state, 1 the ppid, 11 utime, 12 stime.
/// NOTE: the command name is in parentheses and may itself hold spaces and parentheses
/// ("(a) (b)"), so the fields start after the last ')', never at a fixed space count.
std::vector<std::string_view> statFields(std::string_view stat) {
  const auto close = stat.rfind(')');
  if (close == std::string_view::npos) return {};
  return words(stat.substr(close + 1));
}

std::string baseName(std::string_view path) {
  const auto slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

bool allDigits(const char* name) {
  if (*name == '\0') return false;
  for (const char* c = name; *c != '\0'; ++c) {
    if (*c < '0' || *c > '9') return false;
  }
  return true;
}

struct DirCloser {
  void operator()(DIR* d) const { ::closedir(d); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

/// The numeric entries of a directory; nothing when it cannot be opened.
std::optional<std::vector<std::int32_t>> numericEntries(const std::string& path) {
  const DirHandle dir(::opendir(path.c_str()));
  if (!dir) return std::nullopt;
  std::vector<std::int32_t> out;
  while (const dirent* entry = ::readdir(dir.get())) {
    if (!allDigits(entry->d_name)) continue;
    if (const auto n = parseInteger(entry->d_name); n && *n > 0 && *n <= INT32_MAX) {
      out.push_back(static_cast<std::int32_t>(*n));
    }
  }
  return out;
}

}  // namespace

ProcProcessInfo::ProcProcessInfo(std::string procRoot, bool scanOnly) : root_(std::move(procRoot)) {
  if (scanOnly) childSource_.store(ChildSource::statScan);
  const long ticks = ::sysconf(_SC_CLK_TCK);
  ticksPerSecond_ = ticks > 0 ? static_cast<std::uint64_t>(ticks) : 100;
}

std::string ProcProcessInfo::path(std::int32_t pid, const char* leaf) const {
  return root_ + "/" + std::to_string(pid) + "/" + leaf;
}

std::vector<std::int32_t> ProcProcessInfo::childrenOf(std::int32_t pid) {
  if (pid <= 0) return {};
  if (childSource_.load() != ChildSource::statScan) {
    bool exists = false;
    auto children = childrenFromTasks(pid, exists);
    if (children) {
      childSource_.store(ChildSource::childrenFile);
      return std::move(*children);
    }
    if (!exists) return {};
    if (childSource_.load() == ChildSource::childrenFile) return {};
    // Still there, yet none of its threads has a children file: this kernel has none (a process
    // that ended in between has lost its task directory too).
    // NOTE: decided once; a kernel does not grow the file later.
    if (!numericEntries(path(pid, "task"))) return {};
    childSource_.store(ChildSource::statScan);
  }
  return childrenFromScan(pid);
}

std::optional<std::vector<std::int32_t>> ProcProcessInfo::childrenFromTasks(std::int32_t pid,
                                                                            bool& processExists) const {
  const auto tasks = numericEntries(path(pid, "task"));
  processExists = tasks.has_value();
  if (!tasks) return std::nullopt;
  // A child forked by a thread other than the main one is listed under that thread only.
  std::vector<std::int32_t> children;
  std::unordered_set<std::int32_t> seen;
  bool anyFile = false;
  for (const auto tid : *tasks) {
    const auto text =
        readFile(root_ + "/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/children");
    if (!text) continue;
    anyFile = true;
    for (const auto word : words(*text)) {
      const auto child = parseInteger(word);
      if (child && *child > 0 && *child <= INT32_MAX &&
          seen.insert(static_cast<std::int32_t>(*child)).second) {
        children.push_back(static_cast<std::int32_t>(*child));
      }
    }
  }
  if (!anyFile) return std::nullopt;
  return children;
}

std::vector<std::int32_t> ProcProcessInfo::childrenFromScan(std::int32_t pid) {
  const std::lock_guard lock(scanMutex_);
  const auto now = std::chrono::steady_clock::now();
  if (!scanned_ || now - scannedAt_ >= kScanReuse) {
    scanChildren_.clear();
    if (const auto pids = numericEntries(root_)) {
      for (const auto n : *pids) {
        const auto stat = readFile(path(n, "stat"), 1024);
        if (!stat) continue;  // ended during the scan
        const auto fields = statFields(*stat);
        if (fields.size() < 2) continue;
        if (const auto ppid = parseInteger(fields[1]); ppid && *ppid > 0) {
          scanChildren_[static_cast<std::int32_t>(*ppid)].push_back(n);
        }
      }
    }
    // Stamped after the scan, so a slow scan is not immediately stale.
    scannedAt_ = std::chrono::steady_clock::now();
    scanned_ = true;
  }
  const auto it = scanChildren_.find(pid);
  return it == scanChildren_.end() ? std::vector<std::int32_t>{} : it->second;
}

std::optional<std::string> ProcProcessInfo::name(std::int32_t pid) {
  if (pid <= 0) return std::nullopt;
  auto comm = readFile(path(pid, "comm"), 256);
  if (!comm) return std::nullopt;
  if (!comm->empty() && comm->back() == '\n') comm->pop_back();
  return comm;
}

std::optional<std::string> ProcProcessInfo::executableName(std::int32_t pid) {
  if (pid <= 0) return std::nullopt;
  std::array<char, 4096> target{};
  const auto n = ::readlink(path(pid, "exe").c_str(), target.data(), target.size());
  if (n > 0 && static_cast<std::size_t>(n) < target.size()) {
    std::string_view link(target.data(), static_cast<std::size_t>(n));
    // The kernel appends this when the binary was replaced on disk since the process started
    // (a package upgrade).
    constexpr std::string_view kDeleted = " (deleted)";
    if (link.size() > kDeleted.size() && link.substr(link.size() - kDeleted.size()) == kDeleted) {
      link.remove_suffix(kDeleted.size());
    }
    auto name = baseName(link);
    if (!name.empty()) return name;
  }
  // The link is unreadable for other users' processes and absent for kernel threads; the command
  // line is world-readable. Some programs rewrite their arguments into one space-separated string
  // (Chromium's helpers), hence also the cut at the first space.
  const auto cmdline = readFile(path(pid, "cmdline"), 4096);
  if (!cmdline) return std::nullopt;
  std::string_view first(cmdline->c_str());
  first = first.substr(0, first.find(' '));
  auto name = baseName(first);
  if (name.empty()) return std::nullopt;
  return name;
}

std::optional<std::uint64_t> ProcProcessInfo::cpuTimeNs(std::int32_t pid) {
  if (pid <= 0) return std::nullopt;
  const auto stat = readFile(path(pid, "stat"), 1024);
  if (!stat) return std::nullopt;
  const auto fields = statFields(*stat);
  if (fields.size() < 13) return std::nullopt;
  const auto utime = parseInteger(fields[11]);
  const auto stime = parseInteger(fields[12]);
  if (!utime || !stime || *utime < 0 || *stime < 0) return std::nullopt;
  const auto ticks = static_cast<std::uint64_t>(*utime) + static_cast<std::uint64_t>(*stime);
  // Split to stay within 64 bits for any realistic tick count.
  constexpr std::uint64_t kNsPerSecond = 1'000'000'000;
  return ticks / ticksPerSecond_ * kNsPerSecond + ticks % ticksPerSecond_ * kNsPerSecond / ticksPerSecond_;
}

std::optional<std::uint64_t> ProcProcessInfo::footprintBytes(std::int32_t pid) {
  if (pid <= 0) return std::nullopt;
  const auto rollup = readFile(path(pid, "smaps_rollup"), 16384);
  if (!rollup) return std::nullopt;
  std::optional<std::uint64_t> pss;
  std::optional<std::uint64_t> swapPss;
  std::string_view rest(*rollup);
  while (!rest.empty()) {
    const auto eol = rest.find('\n');
    const auto line = rest.substr(0, eol);
    rest.remove_prefix(eol == std::string_view::npos ? rest.size() : eol + 1);
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    const auto key = line.substr(0, colon);
    std::optional<std::uint64_t>* slot = key == "Pss" ? &pss : key == "SwapPss" ? &swapPss : nullptr;
    if (slot == nullptr) continue;
    auto value = line.substr(colon + 1);
    value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
    value = value.substr(0, value.find(' '));  // the unit, always "kB"
    if (const auto kb = parseInteger(value); kb && *kb >= 0) *slot = static_cast<std::uint64_t>(*kb) * 1024;
  }
  if (!pss) return std::nullopt;
  return *pss + swapPss.value_or(0);
}

std::uint64_t ProcProcessInfo::monotonicNs() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000'000U + static_cast<std::uint64_t>(ts.tv_nsec);
}

void ProcProcessInfo::sleepFor(double milliseconds) {
  if (milliseconds <= 0) return;
  std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(milliseconds));
}

bool processEnded(std::int32_t pid) {
  if (pid <= 0) return true;
  if (kill(pid, 0) != 0 && errno == ESRCH) return true;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(stat, line)) return true;
  const std::size_t paren = line.rfind(')');
  return paren != std::string::npos && paren + 2 < line.size() && line[paren + 2] == 'Z';
}

}  // namespace tarry::platform::os
