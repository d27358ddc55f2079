#include "platform/linux/desktop_launcher.h"

#include "platform/linux/exec_args.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>

namespace tarry::platform::os {
namespace {

struct Word {
  std::string text;
  bool quoted = false;
};

/// Splits an `Exec` value into words; inside double quotes a backslash escapes `"`, `` ` ``, `$`
/// and `\`. Nothing for an unterminated quote or a bad escape.
std::optional<std::vector<Word>> splitWords(const std::string& exec) {
  std::vector<Word> words;
  Word word;
  bool inWord = false;
  bool inQuotes = false;
  for (std::size_t i = 0; i < exec.size(); ++i) {
    const char c = exec[i];
    if (inQuotes) {
      if (c == '"') {
        inQuotes = false;
      } else if (c == '\\') {
        if (i + 1 >= exec.size()) return std::nullopt;
        const char next = exec[++i];
        if (next != '"' && next != '`' && next != '$' && next != '\\') return std::nullopt;
        word.text.push_back(next);
      } else {
        word.text.push_back(c);
      }
      continue;
    }
    if (c == ' ' || c == '\t' || c == '\n') {
      if (inWord) words.push_back(std::move(word));
      word = Word{};
      inWord = false;
      continue;
    }
    inWord = true;
    if (c == '"') {
      inQuotes = true;
      word.quoted = true;
    } else {
      word.text.push_back(c);
    }
  }
  if (inQuotes) return std::nullopt;
  if (inWord) words.push_back(std::move(word));
  return words;
}

/// The full path of `program` on PATH; empty when it is not there.
std::string onPath(const std::string& program) {
  const char* path = std::getenv("PATH");
  std::string_view rest = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
  while (true) {
    const auto colon = rest.find(':');
    const std::string dir(rest.substr(0, colon));
    if (!dir.empty()) {
      const std::string candidate = dir + "/" + program;
      if (access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    if (colon == std::string_view::npos) return {};
    rest.remove_prefix(colon + 1);
  }
}

}  // namespace

bool runsInServiceUnit(const std::string& cgroupFile) {
  std::ifstream in(cgroupFile);
  std::string line;
  while (std::getline(in, line)) {
    // cgroup v2: "0::/user.slice/user-1000.slice/user@1000.service/app.slice/app-x@autostart.service"
    if (line.rfind("0::", 0) != 0) continue;
    const std::string leaf = line.substr(line.rfind('/') + 1);
    return leaf.ends_with(".service") && !leaf.starts_with("user@");
  }
  return false;
}

std::vector<std::string> inOwnScope(std::vector<std::string> argv) {
  static const bool wrap = runsInServiceUnit("/proc/self/cgroup");
  if (!wrap) return argv;
  static const std::string systemdRun = onPath("systemd-run");
  if (systemdRun.empty()) return argv;
  std::vector<std::string> out{systemdRun, "--user", "--scope", "--quiet", "--collect", "--"};
  out.insert(out.end(), argv.begin(), argv.end());
  return out;
}

std::optional<std::vector<std::string>> execArguments(const DesktopEntry& entry,
                                                      const std::vector<std::string>& documents) {
  const auto words = splitWords(entry.exec);
  if (!words || words->empty()) return std::nullopt;
  std::vector<std::string> out;
  for (const Word& word : *words) {
    if (word.quoted) {
      // Field codes have no place inside quotes; only the literal percent sign is undone.
      std::string text;
      for (std::size_t i = 0; i < word.text.size(); ++i) {
        text.push_back(word.text[i]);
        if (word.text[i] == '%' && i + 1 < word.text.size() && word.text[i + 1] == '%') ++i;
      }
      out.push_back(std::move(text));
      continue;
    }
    // A code that stands alone may become several arguments, or none.
    if (word.text == "%F" || word.text == "%U") {
      out.insert(out.end(), documents.begin(), documents.end());
      continue;
    }
    if (word.text == "%i") {
      if (!entry.icon.empty()) {
        out.emplace_back("--icon");
        out.push_back(entry.icon);
      }
      continue;
    }
    std::string text;
    bool literal = false;  // the word has text of its own besides field codes
    for (std::size_t i = 0; i < word.text.size(); ++i) {
      if (word.text[i] != '%') {
        text.push_back(word.text[i]);
        literal = true;
        continue;
      }
      if (i + 1 >= word.text.size()) return std::nullopt;
      switch (word.text[++i]) {
        case '%':
          text.push_back('%');
          literal = true;
          break;
        case 'f':
        case 'u':
        case 'F':
        case 'U':
          if (!documents.empty()) text += documents.front();
          break;
        case 'c':
          text += entry.name;
          break;
        case 'k':
          text += entry.path;
          break;
        case 'i':
          break;
        case 'd':
        case 'D':
        case 'n':
        case 'N':
        case 'v':
        case 'm':
          break;
        default:
          return std::nullopt;
      }
    }
    // A word of field codes that expand to nothing ("%f" with no document) leaves no argument.
    if (!literal && text.empty()) continue;
    out.push_back(std::move(text));
  }
  if (out.empty()) return std::nullopt;
  return out;
}

bool spawnDetached(const std::vector<std::string>& argv, const std::string& directory) {
  if (argv.empty()) return false;
  // NOTE: everything the child needs is prepared before fork: after it, in a process with threads,
  // only async-signal-safe calls are allowed.
  std::vector<char*> args = execArgs(argv);
  const char* dir = directory.empty() ? nullptr : directory.c_str();

  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) return false;
  const pid_t child = fork();
  if (child < 0) {
    close(report[0]);
    close(report[1]);
    return false;
  }
  if (child == 0) {
    // The middle process only starts the app and ends, so the app is reparented to init and its
    // end is nothing this program has to collect; the app leads a session of its own.
    const pid_t app = fork();
    if (app != 0) _exit(app < 0 ? 1 : 0);
    setsid();
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    struct sigaction byDefault {};
    byDefault.sa_handler = SIG_DFL;
    for (const int s : {SIGINT, SIGTERM, SIGPIPE, SIGCHLD, SIGHUP}) sigaction(s, &byDefault, nullptr);
    if (dir != nullptr) (void)!chdir(dir);
    const int null = open("/dev/null", O_RDONLY);
    if (null >= 0) {
      dup2(null, 0);
      if (null > 0) close(null);
    }
    close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
    execvp(args[0], args.data());
    const int error = errno;
    (void)!write(report[1], &error, sizeof error);
    _exit(127);
  }
  close(report[1]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  int error = 0;
  ssize_t n = 0;
  do {
    n = read(report[0], &error, sizeof error);
  } while (n < 0 && errno == EINTR);
  close(report[0]);
  // The pipe closes unread when exec succeeded.
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 && n == 0;
}

bool DesktopLauncher::launch(const std::string& path, const std::vector<std::string>& documents) {
  std::error_code ec;
  if (path.empty() || !std::filesystem::exists(path, ec)) return false;
  if (!path.ends_with(".desktop")) {
    if (access(path.c_str(), X_OK) != 0 || std::filesystem::is_directory(path, ec)) return false;
    std::vector<std::string> argv{path};
    argv.insert(argv.end(), documents.begin(), documents.end());
    return spawnDetached(inOwnScope(std::move(argv)), {});
  }
  const std::optional<DesktopEntry> entry = entries_.readFile(path);
  if (!entry) return false;
  // NOTE: activation only starts the app; documents would need the Open method, and no desktop
  // hands them over here, so an entry with documents goes through Exec when it has one.
  if (entry->dbusActivatable && activate_ && (documents.empty() || entry->exec.empty()) &&
      activate_(entry->id)) {
    return true;
  }
  const auto argv = execArguments(*entry, documents);
  if (!argv) return false;
  return spawnDetached(inOwnScope(*argv), entry->workingDirectory);
}

}  // namespace tarry::platform::os
