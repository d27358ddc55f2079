#include "platform/linux/linux_crash_reports.h"

#include "temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <string>

namespace tarry::platform::os {
namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

/// Runs the probe and returns its wait status.
int runProbe(const std::string& crashLog, const char* how) {
  const pid_t child = fork();
  if (child == 0) {
    execl(TARRY_CRASH_PROBE, TARRY_CRASH_PROBE, crashLog.c_str(), how, static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return status;
}

TEST(CrashRecorder, ASegfaultLeavesABacktraceAndStillDiesOfSigsegv) {
  testing::TempDir dir;
  const std::string log = dir / "crash.log";
  const int status = runProbe(log, "segv");
  ASSERT_TRUE(WIFSIGNALED(status)) << status;
  EXPECT_EQ(WTERMSIG(status), SIGSEGV);

  const std::string text = readFile(log);
  EXPECT_EQ(text.rfind("fatal signal, backtrace:\nSIGSEGV\n", 0), 0U) << text;
  // The frames name the program (tarry-crash-probe(+0x…) in a position-independent build).
  EXPECT_NE(text.find("tarry-crash-probe("), std::string::npos) << text;
  struct stat info {};
  ASSERT_EQ(stat(log.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600U);

  // A second crash appends; it never truncates the first record.
  EXPECT_EQ(WTERMSIG(runProbe(log, "segv")), SIGSEGV);
  const std::string twice = readFile(log);
  EXPECT_EQ(twice.rfind(text, 0), 0U);
  EXPECT_NE(twice.find("fatal signal, backtrace:\n", text.size()), std::string::npos);
}

TEST(CrashRecorder, AnUncaughtExceptionIsNamedWithItsReasonAndTheProcessAborts) {
  testing::TempDir dir;
  const std::string log = dir / "crash.log";
  const int status = runProbe(log, "throw");
  ASSERT_TRUE(WIFSIGNALED(status)) << status;
  EXPECT_EQ(WTERMSIG(status), SIGABRT);
  const std::string text = readFile(log);
  EXPECT_EQ(text.rfind("uncaught exception std::runtime_error: the probe gave up\n", 0), 0U) << text;
  EXPECT_NE(text.find("tarry-crash-probe("), std::string::npos) << text;
  // One record: the abort that follows does not add a second trace.
  EXPECT_EQ(text.find("fatal signal"), std::string::npos) << text;
}

TEST(CrashRecorder, AnUnwritableCrashLogStillLetsTheSignalThrough) {
  const int status = runProbe("/nonexistent-dir/crash.log", "segv");
  ASSERT_TRUE(WIFSIGNALED(status)) << status;
  EXPECT_EQ(WTERMSIG(status), SIGSEGV);
}

TEST(SystemFacts, NameTheMachineAndTheBuild) {
  testing::TempDir dir;
  const std::string out = dir / "facts";
  const std::string command = std::string(TARRY_CRASH_PROBE) + " - facts > " + out;
  ASSERT_EQ(std::system(command.c_str()), 0);
  std::istringstream lines(readFile(out));
  std::string name, os, arch, buildId;
  std::getline(lines, name);
  std::getline(lines, os);
  std::getline(lines, arch);
  std::getline(lines, buildId);
  EXPECT_EQ(name, "tarry-crash-probe");
  EXPECT_NE(os.find("; Linux "), std::string::npos) << os;
  utsname names{};
  uname(&names);
  EXPECT_EQ(arch, names.machine);
  // The same id the linker wrote into the program's note.
  ASSERT_FALSE(buildId.empty());
  const std::string notes = dir / "notes";
  ASSERT_EQ(std::system(("readelf -n " + std::string(TARRY_CRASH_PROBE) + " > " + notes).c_str()), 0);
  EXPECT_NE(readFile(notes).find("Build ID: " + buildId), std::string::npos) << buildId;
}

TEST(SystemReports, OnlyThisProgramsApportReportsElseCoredumpctlDumps) {
  testing::TempDir dir;
  const std::string crashDir = dir / "crash";
  ASSERT_EQ(mkdir(crashDir.c_str(), 0700), 0);
  std::ofstream(crashDir + "/_usr_bin_tarry.1000.crash") << "ProblemType: Crash\n";
  std::ofstream(crashDir + "/_usr_bin_tarryx.1000.crash") << "other";
  std::ofstream(crashDir + "/_usr_bin_firefox.1000.crash") << "other";
  std::ofstream(crashDir + "/_usr_bin_tarry.1000.upload") << "";
  // A stand-in for coredumpctl that answers like systemd 252 does.
  const std::string fake = dir / "coredumpctl";
  std::ofstream(fake) << "#!/bin/sh\n"
                         "case \"$*\" in\n"
                         "  *list*) echo '[{\"time\":1794691122000000,\"pid\":4242,\"uid\":1000,\"sig\":11,"
                         "\"corefile\":\"present\",\"exe\":\"/opt/tarry/bin/tarry\"}]' ;;\n"
                         "  *'info 4242'*) echo 'Stack trace of thread 4242:' ;;\n"
                         "  *) exit 1 ;;\n"
                         "esac\n";
  chmod(fake.c_str(), 0755);

  LinuxCrashReports apport("tarry", crashDir, fake);
  ASSERT_EQ(apport.systemReports(), std::vector<std::string>{"_usr_bin_tarry.1000.crash"});
  EXPECT_EQ(apport.readSystemReport("_usr_bin_tarry.1000.crash"), "ProblemType: Crash\n");
  EXPECT_EQ(apport.readSystemReport("../crash/_usr_bin_tarry.1000.crash"), std::nullopt);

  LinuxCrashReports coredump("tarry", dir / "no-apport", fake);
  const auto names = coredump.systemReports();
  ASSERT_EQ(names, std::vector<std::string>{"tarry.1794691122000000.4242.coredump.txt"});
  EXPECT_EQ(coredump.readSystemReport(names[0]), "Stack trace of thread 4242:\n");

  LinuxCrashReports neither("tarry", dir / "no-apport", dir / "no-coredumpctl");
  EXPECT_TRUE(neither.systemReports().empty());
}

}  // namespace
}  // namespace tarry::platform::os
