#include "diagnostics/diagnostics.h"

#include "platform/sim/memory_defaults_store.h"
#include "platform/sim/memory_file_system.h"
#include "platform/sim/sim_main_loop.h"

#include <gtest/gtest.h>

#include <map>

namespace tarry::diagnostics {
namespace {

TEST(Redact, HomePathsNamesAndHostsButNotShortNames) {
  const RedactNames al{"al", "pc", "/home/al"};
  // Too short to replace as a word; only the path form goes.
  EXPECT_EQ(redact("al opened /home/al/notes.txt on pc at /Users/al", al),
            "al opened /home/<user>/notes.txt on pc at /Users/<user>");
  const RedactNames alice{"alice", "alice-laptop", "/home/alice"};
  EXPECT_EQ(redact("alice@alice-laptop: '/home/alice' \"/home/bob/x\" malice", alice),
            "<user>@<user>-laptop: '/home/<user>' \"/home/<user>/x\" m<user>");
  // Paths end at white space, quotes and slashes; "/home/" alone names nobody.
  EXPECT_EQ(redact("/home/\t/home/carol\n", alice), "/home/\t/home/<user>\n");
  // A home directory outside /home, and names that are the placeholders' own words.
  EXPECT_EQ(redact("cd /root/work; user on host", {"user", "host", "/root"}),
            "cd /home/<user>/work; <user> on <host>");
  const std::string once = redact("alice on alice-laptop in /home/alice", alice);
  EXPECT_EQ(redact(once, alice), once);
}

class FakeCrashReports final : public platform::CrashReports {
 public:
  bool install(const std::string& path) override {
    installedAt = path;
    return true;
  }
  std::vector<std::string> systemReports() override {
    std::vector<std::string> names;
    for (const auto& [name, text] : reports) names.push_back(name);
    return names;
  }
  std::optional<std::string> readSystemReport(const std::string& name) override {
    ++reads;
    const auto it = reports.find(name);
    if (it == reports.end()) return std::nullopt;
    return it->second;
  }

  std::string installedAt;
  std::map<std::string, std::string> reports;
  int reads = 0;
};

class DiagnosticsTest : public ::testing::Test {
 protected:
  DiagnosticsTest() {
    store.set("consentVersion", 1);
    diagnostics.setSender(
        {[this] { return configured; },
         [this](const std::string& kind, nlohmann::json payload, bool force, std::function<void(bool)> done) {
           sent.push_back({kind, std::move(payload), force});
           done(accept);
         }});
  }

  struct Sent {
    std::string kind;
    nlohmann::json payload;
    bool force;
  };

  [[nodiscard]] std::string dir() const { return store.get("logDir")->get<std::string>(); }

  platform::sim::SimMainLoop loop{1000.0, 1'794'691'122.0};
  platform::sim::MemoryFileSystem files;
  platform::sim::MemoryDefaultsStore store;
  settings::Tunables tunables;
  Log log{loop, files, store, tunables};
  FakeCrashReports crashes;
  Diagnostics diagnostics{
      log,
      files,
      store,
      tunables,
      crashes,
      {"tarry", "Debian GNU/Linux 12; Linux 6.1", "x86_64", "ab12", "alice", "desk01", "/home/alice"},
      "1.4.2"};
  std::vector<Sent> sent;
  bool configured = true;
  bool accept = true;
};

TEST_F(DiagnosticsTest, StartOpensTheCrashLogLogsTheStartAndCopiesReportsOnce) {
  crashes.reports = {{"_usr_bin_tarry.1000.crash", "first"}};
  diagnostics.startLogging();
  EXPECT_EQ(crashes.installedAt, dir() + "/crash.log");
  EXPECT_EQ(
      files.content(dir() + "/events.log"),
      "2026-11-14T21:18:42Z start tarry 1.4.2 os=Debian GNU/Linux 12; Linux 6.1 arch=x86_64 build-id=ab12\n");
  EXPECT_EQ(files.content(dir() + "/reports/_usr_bin_tarry.1000.crash"), "first");

  // A report already copied is neither read nor overwritten again.
  crashes.reports["_usr_bin_tarry.1000.crash"] = "changed";
  crashes.reports["tarry.5.77.coredump.txt"] = "dump";
  crashes.reads = 0;
  diagnostics.collectReports();
  EXPECT_EQ(crashes.reads, 1);
  EXPECT_EQ(files.content(dir() + "/reports/_usr_bin_tarry.1000.crash"), "first");
  EXPECT_EQ(files.content(dir() + "/reports/tarry.5.77.coredump.txt"), "dump");
}

TEST_F(DiagnosticsTest, HousekeepingKeepsTheNewestReports) {
  tunables.setNumber(settings::T::reportsKept, 2);
  log.log("x");
  files.createDirectories(dir() + "/reports");
  for (const char* name : {"a.crash", "b.crash", "c.crash"}) files.write(dir() + "/reports/" + name, name);
  files.write(dir() + "/reports/a.crash", "a again");  // now the newest
  diagnostics.housekeeping();
  EXPECT_EQ(files.list(dir() + "/reports"), (std::vector<std::string>{"a.crash", "c.crash"}));
}

TEST_F(DiagnosticsTest, UploadSendsRedactedTailsOnlyWhenSomethingChangedOrForced) {
  tunables.setNumber(settings::T::logTailBytes, 10000);
  crashes.reports = {{"_usr_bin_tarry.1000.crash", "crash in /home/alice/x"}};
  diagnostics.startLogging();
  log.log("opened /home/alice/secret on desk01");
  diagnostics.uploadLogs(false);
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].kind, "logs");
  EXPECT_FALSE(sent[0].force);
  const std::string events = sent[0].payload["events"];
  EXPECT_NE(events.find("opened /home/<user>/secret on <host>\n"), std::string::npos) << events;
  EXPECT_EQ(events.find("alice"), std::string::npos);
  EXPECT_EQ(sent[0].payload["crash"], "");
  EXPECT_EQ(sent[0].payload["reports"], (nlohmann::json::array({{{"name", "_usr_bin_tarry.1000.crash"},
                                                                 {"content", "crash in /home/<user>/x"}}})));

  diagnostics.uploadLogs(false);  // nothing new
  EXPECT_EQ(sent.size(), 1U);
  diagnostics.uploadLogs(true);
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_TRUE(sent[1].force);
  log.log("one more line");
  diagnostics.uploadLogs(false);
  EXPECT_EQ(sent.size(), 3U);

  // A send the server did not take is tried again next time.
  accept = false;
  log.log("and another");
  diagnostics.uploadLogs(false);
  diagnostics.uploadLogs(false);
  EXPECT_EQ(sent.size(), 5U);
}

TEST_F(DiagnosticsTest, UploadTailsStartAtALineAndHonourEveryStopCondition) {
  tunables.setNumber(settings::T::logTailBytes, 10000);
  for (int i = 0; i < 200; ++i) log.log("line " + std::to_string(i) + std::string(40, '.'));
  diagnostics.uploadLogs(true);
  ASSERT_EQ(sent.size(), 1U);
  const std::string events = sent[0].payload["events"];
  EXPECT_LE(events.size(), 10000U);
  EXPECT_EQ(events.rfind("2026-11-14T21:18:42Z line ", 0), 0U) << events.substr(0, 40);

  configured = false;
  diagnostics.uploadLogs(true);
  configured = true;
  tunables.setNumber(settings::T::logUploadPaused, 1);
  diagnostics.uploadLogs(true);
  tunables.setNumber(settings::T::logUploadPaused, 0);
  tunables.setNumber(settings::T::telemetryPaused, 1);
  diagnostics.uploadLogs(true);
  tunables.setNumber(settings::T::telemetryPaused, 0);
  store.set("consentVersion", 0);
  diagnostics.uploadLogs(true);
  EXPECT_EQ(sent.size(), 1U);
}

}  // namespace
}  // namespace tarry::diagnostics
