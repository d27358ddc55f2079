#include "platform/linux/linux_crash_reports.h"

#include "platform/linux/exec_args.h"

#include <nlohmann/json.hpp>

#include <cxxabi.h>
#include <elf.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <typeinfo>

namespace tarry::platform::os {
namespace {

// ---- The handlers: process-wide state, written once at install and only read afterwards ----

int crashFd = -1;
constexpr std::array kFatalSignals = {SIGSEGV, SIGABRT, SIGILL, SIGBUS, SIGFPE, SIGTRAP};
constexpr int kMaxFrames = 64;
/// Set by the terminate handler, which has written its own trace before abort() raises SIGABRT.
volatile sig_atomic_t traceWritten = 0;
alignas(16) char alternateStack[64 * 1024];

void writeText(const char* text) {
  if (crashFd < 0) return;
  std::size_t left = std::strlen(text);
  while (left > 0) {
    const ssize_t n = ::write(crashFd, text, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    text += n;
    left -= static_cast<std::size_t>(n);
  }
}

void writeBacktrace() {
  void* frames[kMaxFrames];
  const int count = ::backtrace(frames, kMaxFrames);
  ::backtrace_symbols_fd(frames, count, crashFd);
}

const char* signalName(int signal) {
  switch (signal) {
    case SIGSEGV:
      return "SIGSEGV";
    case SIGABRT:
      return "SIGABRT";
    case SIGILL:
      return "SIGILL";
    case SIGBUS:
      return "SIGBUS";
    case SIGFPE:
      return "SIGFPE";
    case SIGTRAP:
      return "SIGTRAP";
    default:
      return "signal";
  }
}

void onFatalSignal(int signal) {
  // NOTE: async-signal-safe calls only. backtrace() was called once at install, so libgcc is
  // loaded already and it does not allocate here.
  if (crashFd >= 0 && traceWritten == 0) {
    traceWritten = 1;
    writeText("fatal signal, backtrace:\n");
    writeText(signalName(signal));
    writeText("\n");
    writeBacktrace();
  }
  struct sigaction fallback {};
  fallback.sa_handler = SIG_DFL;
  sigemptyset(&fallback.sa_mask);
  sigaction(signal, &fallback, nullptr);
  // Delivered with the default action once this handler returns (the signal is blocked in it),
  // so the process dies of the same signal and the system writes its own report.
  raise(signal);
}

[[noreturn]] void onTerminate() {
  if (crashFd >= 0 && traceWritten == 0) {
    std::string type = "unknown";
    std::string reason;
    if (const std::type_info* info = abi::__cxa_current_exception_type()) {
      int status = 0;
      std::unique_ptr<char, void (*)(void*)> name(
          abi::__cxa_demangle(info->name(), nullptr, nullptr, &status), std::free);
      type = status == 0 && name ? name.get() : info->name();
      try {
        if (auto current = std::current_exception()) std::rethrow_exception(current);
      } catch (const std::exception& e) {
        reason = e.what();
      } catch (...) {
      }
    } else {
      type = "none (std::terminate called)";
    }
    traceWritten = 1;
    const std::string head = "uncaught exception " + type + ": " + reason + "\n";
    writeText(head.c_str());
    writeBacktrace();
  }
  std::abort();
}

// ---- Facts ----

std::string osRelease() {
  std::ifstream in("/etc/os-release");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("PRETTY_NAME=", 0) != 0) continue;
    std::string value = line.substr(12);
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\''))
      value = value.substr(1, value.size() - 2);
    return value;
  }
  return "Linux";
}

int findBuildId(struct dl_phdr_info* info, std::size_t /*size*/, void* data) {
  // The first object is the program itself.
  auto* out = static_cast<std::string*>(data);
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& header = info->dlpi_phdr[i];
    if (header.p_type != PT_NOTE) continue;
    const auto* at = reinterpret_cast<const unsigned char*>(info->dlpi_addr + header.p_vaddr);
    const unsigned char* end = at + header.p_memsz;
    while (at + sizeof(ElfW(Nhdr)) <= end) {
      const auto* note = reinterpret_cast<const ElfW(Nhdr)*>(at);
      const unsigned char* name = at + sizeof(ElfW(Nhdr));
      const unsigned char* desc = name + ((note->n_namesz + 3) & ~3U);
      if (note->n_type == NT_GNU_BUILD_ID && note->n_namesz == 4 && std::memcmp(name, "GNU", 4) == 0 &&
          desc + note->n_descsz <= end) {
        static constexpr char kHex[] = "0123456789abcdef";
        for (unsigned j = 0; j < note->n_descsz; ++j) {
          out->push_back(kHex[desc[j] >> 4]);
          out->push_back(kHex[desc[j] & 15]);
        }
        return 1;
      }
      at = desc + ((note->n_descsz + 3) & ~3U);
    }
  }
  return 1;
}

bool isNumber(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

SystemFacts readSystemFacts() {
  SystemFacts facts;
  facts.processName = program_invocation_short_name != nullptr ? program_invocation_short_name : "tarry";
  struct utsname names {};
  if (::uname(&names) == 0) {
    facts.osVersion = osRelease() + "; Linux " + names.release;
    facts.arch = names.machine;
  }
  dl_iterate_phdr(findBuildId, &facts.buildId);
  if (const struct passwd* pw = ::getpwuid(::getuid())) {
    facts.userName = pw->pw_name != nullptr ? pw->pw_name : "";
    facts.homeDirectory = pw->pw_dir != nullptr ? pw->pw_dir : "";
  }
  if (facts.userName.empty()) {
    if (const char* user = std::getenv("USER")) facts.userName = user;
  }
  if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') facts.homeDirectory = home;
  char host[256] = {};
  if (::gethostname(host, sizeof host - 1) == 0) facts.hostName = host;
  return facts;
}

bool LinuxCrashReports::install(const std::string& crashLogPath) {
  // Installed once per process; a second call only keeps the first file.
  if (crashFd < 0) {
    crashFd = ::open(crashLogPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (crashFd >= 0) ::fchmod(crashFd, 0600);
  }
  // Loads the unwinder now: the first backtrace() may allocate, which a signal handler must not.
  void* warm[2];
  (void)::backtrace(warm, 2);

  stack_t stack{};
  stack.ss_sp = alternateStack;
  stack.ss_size = sizeof alternateStack;
  sigaltstack(&stack, nullptr);
  struct sigaction action {};
  action.sa_handler = onFatalSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_ONSTACK;
  for (const int signal : kFatalSignals) sigaction(signal, &action, nullptr);
  std::set_terminate(onTerminate);
  return crashFd >= 0;
}

std::vector<std::string> LinuxCrashReports::apportReports() const {
  std::vector<std::string> names;
  std::error_code ec;
  std::filesystem::directory_iterator it(crashDir_, ec);
  if (ec) return names;
  for (; it != std::filesystem::directory_iterator(); it.increment(ec)) {
    if (ec) break;
    const std::string name = it->path().filename().string();
    // apport names a report after the executable's path: _usr_bin_tarry.1000.crash
    const auto dot = name.find('.');
    const std::string exe = name.substr(0, dot);
    const bool ours = exe == processName_ || (exe.size() > processName_.size() &&
                                              exe.compare(exe.size() - processName_.size() - 1,
                                                          std::string::npos, "_" + processName_) == 0);
    if (ours && name.size() > 6 && name.compare(name.size() - 6, 6, ".crash") == 0) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> LinuxCrashReports::systemReports() {
  std::vector<std::string> names = apportReports();
  if (!names.empty() || coredumpctl_.empty()) return names;
  // systemd-coredump: one JSON array of dumps of processes by this name.
  const auto listing = runAndCapture(
      {coredumpctl_, "--no-pager", "--no-legend", "--json=short", "list", processName_}, 1 << 20);
  if (!listing) return names;
  const nlohmann::json dumps = nlohmann::json::parse(*listing, nullptr, false);
  if (!dumps.is_array()) return names;
  for (const auto& dump : dumps) {
    if (!dump.is_object() || !dump.contains("pid") || !dump.contains("time")) continue;
    if (!dump["pid"].is_number_unsigned() || !dump["time"].is_number_unsigned()) continue;
    names.push_back(processName_ + "." + std::to_string(dump["time"].get<std::uint64_t>()) + "." +
                    std::to_string(dump["pid"].get<std::uint64_t>()) + ".coredump.txt");
  }
  return names;
}

std::optional<std::string> LinuxCrashReports::readSystemReport(const std::string& name) {
  if (name.find('/') != std::string::npos) return std::nullopt;
  const std::string suffix = ".coredump.txt";
  if (name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
    // <process>.<time>.<pid>.coredump.txt: the stack trace text that coredumpctl gives for the dump.
    const std::string stem = name.substr(0, name.size() - suffix.size());
    const std::string pid = stem.substr(stem.rfind('.') + 1);
    if (!isNumber(pid) || coredumpctl_.empty()) return std::nullopt;
    return runAndCapture({coredumpctl_, "--no-pager", "info", pid}, 4 << 20);
  }
  std::ifstream in(crashDir_ + "/" + name, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::optional<std::string> runAndCapture(const std::vector<std::string>& argv, std::size_t maxBytes) {
  if (argv.empty()) return std::nullopt;
  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) return std::nullopt;
  std::vector<char*> args = execArgs(argv);
  const pid_t child = ::fork();
  if (child < 0) {
    ::close(out[0]);
    ::close(out[1]);
    return std::nullopt;
  }
  if (child == 0) {
    ::dup2(out[1], STDOUT_FILENO);
    const int devnull = ::open("/dev/null", O_RDWR);
    if (devnull >= 0) {
      ::dup2(devnull, STDIN_FILENO);
      ::dup2(devnull, STDERR_FILENO);
    }
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  ::close(out[1]);
  std::string text;
  char buffer[8192];
  while (true) {
    const ssize_t n = ::read(out[0], buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (text.size() < maxBytes)
      text.append(buffer, std::min<std::size_t>(static_cast<std::size_t>(n), maxBytes - text.size()));
  }
  ::close(out[0]);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  return text;
}

}  // namespace tarry::platform::os
