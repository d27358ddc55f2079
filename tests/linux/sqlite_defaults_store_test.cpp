#include "platform/linux/sqlite_defaults_store.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "temp_dir.h"

namespace tarry::platform::os {
namespace {

using testing::eventually;
using testing::Notes;
using testing::TempDir;

// What another process sees: a plain read-only connection to the file.
std::optional<Value> onDisk(const std::string& path, const std::string& key) {
  sqlite3* db = nullptr;
  std::optional<Value> out;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_busy_timeout(db, 2000);
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT value FROM defaults WHERE key = ?1", -1, &stmt, nullptr) ==
        SQLITE_OK) {
      sqlite3_bind_text(stmt, 1, key.c_str(), -1, SQLITE_TRANSIENT);
      if (sqlite3_step(stmt) == SQLITE_ROW) {
        out = Value::parse(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0)), nullptr, false);
      }
    }
    sqlite3_finalize(stmt);
  }
  sqlite3_close(db);
  return out;
}

bool rawExec(const std::string& path, const std::string& sql) {
  sqlite3* db = nullptr;
  bool ok = sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
            sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
  sqlite3_close(db);
  return ok;
}

std::vector<std::string> asideCopies(const TempDir& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with("defaults.sqlite3.corrupt-")) names.push_back(name);
  }
  return names;
}

const Value kTyped = Value::object({
    {"flag", false},
    {"count", -42},
    {"positive", 42},
    {"large", std::int64_t{9007199254740993}},
    {"ratio", 2.5},
    {"name", "Zoë \"quoted\" \\ line\nbreak"},
    {"nothing", nullptr},
    {"list", Value::array({1, "two", 3.0, true})},
    {"huge", std::uint64_t{18446744073709551615U}},
    {"nested", Value::object({{"a", Value::array()}, {"b", Value::object({{"c", 1}})}})},
});

TEST(SqliteDefaultsStore, EveryValueTypeAndRemovalSurvivesReopen) {
  TempDir dir;
  const std::string path = dir / "sub/dir/defaults.sqlite3";  // parents are created
  {
    SqliteDefaultsStore store(path);
    ASSERT_TRUE(store.persistent());
    for (const auto& [key, value] : kTyped.items()) store.set(key, value);
    store.set("gone", 1);
    store.set("day.20240102.blocked", 3);
    store.set("day.20240101.blocked", 2);
    store.set("dayz", 0);
    store.remove("gone");
    EXPECT_EQ(store.addInteger("all.blocked", 5), 5);
    EXPECT_EQ(store.addInteger("all.blocked", 2), 7);
    EXPECT_EQ(store.addInteger("name", 1), 1) << "a non-integer counts as 0";
    store.set("name", kTyped["name"]);
  }
  Notes notes;
  SqliteDefaultsStore reopened(path, notes.sink());
  EXPECT_TRUE(notes.lines().empty());
  for (const auto& [key, value] : kTyped.items()) {
    const auto got = reopened.get(key);
    ASSERT_TRUE(got.has_value()) << key;
    EXPECT_EQ(*got, value) << key;
    EXPECT_EQ(got->type(), value.type()) << key;
  }
  EXPECT_FALSE(reopened.get("gone").has_value());
  EXPECT_EQ(reopened.get("all.blocked"), Value(7));
  EXPECT_EQ(reopened.keys("day."),
            (std::vector<std::string>{"day.20240101.blocked", "day.20240102.blocked"}));
  EXPECT_EQ(reopened.keys("").size(), kTyped.size() + 4);
  EXPECT_TRUE(reopened.keys("zzz").empty());
}

TEST(SqliteDefaultsStore, CountersAddedFromManyThreadsLoseNothing) {
  TempDir dir;
  const std::string path = dir / "defaults.sqlite3";
  constexpr int kThreads = 4;
  constexpr int kAdds = 5000;
  {
    // A short commit delay keeps the writer committing while the threads add.
    SqliteDefaultsStore store(path, {},
                              StoreTiming{std::chrono::milliseconds(1), std::chrono::milliseconds(5)});
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&store] {
        for (int i = 0; i < kAdds; ++i) {
          store.addInteger("all.blocked", 1);
          store.addInteger("period.blocked", 2);
        }
      });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(store.get("all.blocked"), Value(kThreads * kAdds));
  }
  EXPECT_EQ(onDisk(path, "all.blocked"), Value(kThreads * kAdds));
  EXPECT_EQ(onDisk(path, "period.blocked"), Value(2 * kThreads * kAdds));
}

TEST(SqliteDefaultsStore, WritesOfAKilledProcessAreOnDisk) {
  TempDir dir;
  const std::string path = dir / "defaults.sqlite3";
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(ready[0]);
    // Never destroyed: only the writer thread can have put anything on disk.
    auto* store = new SqliteDefaultsStore(path);
    for (const auto& [key, value] : kTyped.items()) store->set(key, value);
    const char byte = 1;
    if (::write(ready[1], &byte, 1) != 1) ::_exit(3);
    for (;;) {
      store->addInteger("all.launches", 1);
      ::usleep(50);
    }
  }
  ::close(ready[1]);
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  ::close(ready[0]);

  std::int64_t seen = 0;
  const bool persisted = eventually([&] {
    const auto count = onDisk(path, "all.launches");
    seen = count && count->is_number_integer() ? count->get<std::int64_t>() : 0;
    return onDisk(path, "nested") == kTyped["nested"] && seen > 100;
  });
  ::kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  ASSERT_TRUE(persisted) << "nothing reached the disk while the process ran";

  // Killed in the middle of a stream of commits, the file still opens cleanly with everything.
  Notes notes;
  SqliteDefaultsStore reopened(path, notes.sink());
  EXPECT_TRUE(notes.lines().empty());
  EXPECT_TRUE(asideCopies(dir).empty());
  for (const auto& [key, value] : kTyped.items()) EXPECT_EQ(reopened.get(key), value) << key;
  const auto count = reopened.get("all.launches");
  ASSERT_TRUE(count.has_value());
  EXPECT_GE(count->get<std::int64_t>(), seen);
}

// An unusable file is kept for inspection under another name; the program starts from defaults
// and saves into a fresh database.
TEST(SqliteDefaultsStore, UnusableFileIsMovedAsideAndAFreshOneUsed) {
  const std::vector<std::pair<const char*, std::function<void(const std::string&)>>> damages = {
      {"garbage",
       [](const std::string& path) { std::ofstream(path) << std::string(5000, '\x5a') << "not a database"; }},
      {"a directory", [](const std::string& path) { std::filesystem::create_directories(path + "/inside"); }},
      {"a damaged page",
       [](const std::string& path) {
         {
           SqliteDefaultsStore store(path);
           for (int i = 0; i < 50; ++i) store.set("key" + std::to_string(i), std::string(40, 'v'));
         }
         // Page 1 (the schema) stays intact; the table's own page is overwritten.
         ASSERT_GE(std::filesystem::file_size(path), 8192U);
         std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
         file.seekp(4096);
         file << std::string(4096, '\x5a');
       }},
  };
  for (const auto& [name, damage] : damages) {
    SCOPED_TRACE(name);
    TempDir dir;
    const std::string path = dir / "defaults.sqlite3";
    damage(path);
    Notes notes;
    {
      SqliteDefaultsStore store(path, notes.sink());
      EXPECT_TRUE(store.persistent());
      EXPECT_TRUE(store.keys("").empty());
      store.set("enabled", false);
    }
    ASSERT_EQ(notes.lines().size(), 1U);
    EXPECT_NE(notes.lines()[0].find("moved it to " + path + ".corrupt-"), std::string::npos)
        << notes.lines()[0];
    EXPECT_EQ(asideCopies(dir).size(), 1U);
    Notes again;
    SqliteDefaultsStore reopened(path, again.sink());
    EXPECT_TRUE(again.lines().empty());
    EXPECT_EQ(reopened.get("enabled"), Value(false));
  }
}

TEST(SqliteDefaultsStore, NoWritablePlaceKeepsValuesInMemory) {
  TempDir dir;
  std::ofstream(dir / "file") << "x";
  Notes notes;
  SqliteDefaultsStore store(dir / "file/defaults.sqlite3", notes.sink());
  EXPECT_FALSE(store.persistent());
  ASSERT_EQ(notes.lines().size(), 1U);
  EXPECT_NE(notes.lines()[0].find("memory only"), std::string::npos) << notes.lines()[0];
  store.set("holdSeconds", 3.5);
  EXPECT_EQ(store.addInteger("all.blocked", 2), 2);
  store.flush();
  EXPECT_EQ(store.get("holdSeconds"), Value(3.5));
  EXPECT_EQ(store.keys(""), (std::vector<std::string>{"all.blocked", "holdSeconds"}));
}

TEST(SqliteDefaultsStore, ReadOnlyFileIsReadAndKeptAsItIs) {
  TempDir dir;
  const std::string path = dir / "defaults.sqlite3";
  {
    SqliteDefaultsStore store(path);
    store.set("holdSeconds", 3.5);
    store.set("appModes", Value::parse(R"({"notes_pad": "never"})"));
  }
  // Root passes over file modes but not over the immutable flag.
  const bool root = ::geteuid() == 0;
  const std::string lock = root ? "chattr +i '" + path + "' 2>/dev/null" : "chmod 0444 '" + path + "'";
  if (std::system(lock.c_str()) != 0 || ::access(path.c_str(), W_OK) == 0)
    GTEST_SKIP() << "cannot make it read-only";
  {
    Notes notes;
    SqliteDefaultsStore store(path, notes.sink());
    EXPECT_TRUE(store.readOnly());
    EXPECT_FALSE(store.persistent());
    EXPECT_EQ(store.get("holdSeconds"), Value(3.5));
    EXPECT_EQ(store.get("appModes"), Value::parse(R"({"notes_pad": "never"})"));
    ASSERT_EQ(notes.lines().size(), 1U);
    EXPECT_NE(notes.lines()[0].find("read-only: using its values, but changes cannot be saved"),
              std::string::npos)
        << notes.lines()[0];
    store.set("holdSeconds", 5.0);  // kept in memory for this run
    store.flush();
    EXPECT_EQ(store.get("holdSeconds"), Value(5.0));
  }
  if (root) {
    EXPECT_EQ(std::system(("chattr -i '" + path + "'").c_str()), 0) << "the file stays immutable";
  }
  EXPECT_EQ(onDisk(path, "holdSeconds"), Value(3.5));
  EXPECT_TRUE(asideCopies(dir).empty()) << "a read-only database is never moved aside";
}

TEST(SqliteDefaultsStore, RowThatIsNotJsonIsSkippedOthersKept) {
  TempDir dir;
  const std::string path = dir / "defaults.sqlite3";
  { SqliteDefaultsStore store(path); }
  ASSERT_TRUE(rawExec(path, "INSERT INTO defaults VALUES('good', '1'), ('bad', 'oops{')"));
  Notes notes;
  SqliteDefaultsStore store(path, notes.sink());
  EXPECT_EQ(store.get("good"), Value(1));
  EXPECT_FALSE(store.get("bad").has_value());
  ASSERT_EQ(notes.lines().size(), 1U);
  EXPECT_NE(notes.lines()[0].find("bad"), std::string::npos);
  EXPECT_TRUE(asideCopies(dir).empty());
}

TEST(SqliteDefaultsStore, ChangesFromAnotherProcessAreReloadedPendingLocalWritesWin) {
  TempDir dir;
  const std::string path = dir / "defaults.sqlite3";
  {
    SqliteDefaultsStore seed(path);
    seed.set("shared", "old");
    seed.set("dropped", 1);
    seed.set("mine", "old");
  }
  // This one commits only when told to, so its write to "mine" stays pending throughout.
  SqliteDefaultsStore running(path, {}, StoreTiming{std::chrono::hours(1), std::chrono::milliseconds(10)});
  running.set("mine", "local");

  SqliteDefaultsStore other(path);
  other.set("shared", "new");
  other.set("added", Value::array({1, 2}));
  other.set("mine", "theirs");
  other.remove("dropped");
  other.flush();

  EXPECT_TRUE(eventually([&] { return running.get("added") == Value::array({1, 2}); }));
  EXPECT_EQ(running.get("shared"), Value("new"));
  EXPECT_FALSE(running.get("dropped").has_value());
  EXPECT_EQ(running.get("mine"), Value("local"));

  running.flush();
  EXPECT_EQ(onDisk(path, "mine"), Value("local"));
}

}  // namespace
}  // namespace tarry::platform::os
