#include "spawned.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;

namespace tarry::testing {

Spawned::Spawned(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                 const std::string& output) {
  std::vector<std::string> envStrings;
  for (char** e = environ; *e != nullptr; ++e) envStrings.emplace_back(*e);
  envStrings.insert(envStrings.end(), env.begin(), env.end());
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::vector<char*> envp;
  for (auto& e : envStrings) envp.push_back(e.data());
  envp.push_back(nullptr);

  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&files, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&files, 1, 2);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attr, 0);
  pid_t pid = -1;
  if (posix_spawnp(&pid, args[0], &files, &attr, args.data(), envp.data()) == 0) pid_ = pid;
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&files);
}

Spawned::~Spawned() { stop(); }

void Spawned::stop() {
  if (pid_ <= 0) return;
  ::kill(-pid_, SIGKILL);
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
}

}  // namespace tarry::testing
