#include "cli/defaults_command.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

#include "platform/linux/sqlite_defaults_store.h"
#include "temp_dir.h"

namespace tarry::cli {
namespace {

using platform::Value;
using platform::os::SqliteDefaultsStore;
using testing::eventually;
using testing::TempDir;

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

Outcome defaults(platform::DefaultsStore& store, const std::vector<std::string>& args) {
  std::ostringstream out;
  std::ostringstream err;
  const int status = runDefaultsCommand(store, args, out, err);
  return {status, out.str(), err.str()};
}

TEST(DefaultsCommand, WriteReadDeleteRoundTrip) {
  TempDir dir;
  const std::string path = dir / "defaults.sqlite3";
  {
    SqliteDefaultsStore store(path);
    EXPECT_EQ(defaults(store, {"write", "holdSeconds", "3.5"}).status, 0);
    EXPECT_EQ(defaults(store, {"write", "name", R"("Zoë")"}).status, 0);
    EXPECT_EQ(defaults(store, {"write", "appset.org.gnome.Terminal", R"({"rule": 2, "tags": [true, null]})"})
                  .status,
              0);
    EXPECT_EQ(defaults(store, {"write", "gone", "1"}).status, 0);
    const Outcome removed = defaults(store, {"delete", "gone"});
    EXPECT_EQ(removed.status, 0);
    EXPECT_TRUE(removed.err.empty());
  }
  // A new store on the same file stands for the next invocation of the command.
  SqliteDefaultsStore store(path);
  const Outcome one = defaults(store, {"read", "appset.org.gnome.Terminal"});
  EXPECT_EQ(one.status, 0);
  EXPECT_EQ(one.out, "{\"rule\":2,\"tags\":[true,null]}\n");

  const Outcome all = defaults(store, {"read"});
  EXPECT_EQ(all.status, 0);
  EXPECT_EQ(Value::parse(all.out),
            Value::parse(R"({"appset.org.gnome.Terminal": {"rule": 2, "tags": [true, null]},
                                                   "holdSeconds": 3.5, "name": "Zoë"})"));
  // Pretty-printed, in key order.
  EXPECT_TRUE(all.out.starts_with("{\n  \"appset.org.gnome.Terminal\": {\n    \"rule\": 2,")) << all.out;
  EXPECT_LT(all.out.find("holdSeconds"), all.out.find("name"));
}

TEST(DefaultsCommand, ErrorsSayWhatWentWrong) {
  TempDir dir;
  SqliteDefaultsStore store(dir / "defaults.sqlite3");
  store.set("kept", 1);

  const Outcome bare = defaults(store, {"write", "name", "text"});
  EXPECT_EQ(bare.status, 2);
  EXPECT_NE(bare.err.find("not valid JSON"), std::string::npos) << bare.err;
  EXPECT_NE(bare.err.find("at line 1, column "), std::string::npos) << bare.err;
  EXPECT_NE(bare.err.find(R"(tarry defaults write name '"text"')"), std::string::npos) << bare.err;
  EXPECT_EQ(defaults(store, {"write", "name", "[1, 2"}).status, 2);
  EXPECT_EQ(defaults(store, {"write", "name", "1 2"}).status, 2);
  EXPECT_FALSE(store.get("name").has_value());

  const Outcome missing = defaults(store, {"read", "absent"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "tarry defaults: no value for absent\n");
  EXPECT_TRUE(missing.out.empty());
  EXPECT_EQ(defaults(store, {"delete", "absent"}).status, 1);

  for (const auto& args : std::vector<std::vector<std::string>>{
           {}, {"frob"}, {"read", "a", "b"}, {"write", "kept"}, {"delete"}, {"delete", "kept", "x"}}) {
    const Outcome wrong = defaults(store, args);
    EXPECT_EQ(wrong.status, 2);
    EXPECT_NE(wrong.err.find("usage: tarry defaults"), std::string::npos);
  }
  EXPECT_EQ(store.get("kept"), Value(1)) << "a refused command changes nothing";
}

TEST(DefaultsCommand, WarnsAboutKeysAndTypesTheProgramDoesNotReadButStoresThem) {
  TempDir dir;
  SqliteDefaultsStore store(dir / "defaults.sqlite3");
  struct Case {
    std::string key, json, warning;
  };
  for (const Case& c : std::vector<Case>{
           {"holdseconds", "3",
            R"(Tarry reads no key "holdseconds"; stored anyway (did you mean "holdSeconds"?))"},
           {"colour", R"("red")", R"(Tarry reads no key "colour")"},
           {"enabled", R"("no")", R"("enabled" is read as true or false)"},
           {"holdSeconds", R"("3")", R"("holdSeconds" is read as a number)"},
           {"appModes", R"({"firefox": "instant", "Tk": "nope"})", R"(the rule for "Tk" is not one of)"},
           {"ramSaverApp", "[1]", R"("ramSaverApp" is read as an object)"},
       }) {
    const Outcome o = defaults(store, {"write", c.key, c.json});
    EXPECT_EQ(o.status, 0) << c.key;
    EXPECT_NE(o.err.find("tarry defaults: warning: " + c.warning), std::string::npos) << o.err;
    EXPECT_EQ(store.get(c.key), Value::parse(c.json)) << "stored as given";
  }
  for (const Case& c : std::vector<Case>{{"enabled", "false", ""},
                                         {"holdSeconds", "2.5", ""},
                                         {"appModes", R"({"Notespad": "never"})", ""},
                                         {"day.20261123.saved", "4", ""}}) {
    EXPECT_EQ(defaults(store, {"write", c.key, c.json}).err, "") << c.key;
  }
}

// The program as a shell user runs it, against a database that a running program has open.
TEST(DefaultsCommand, ProgramEditsTheDomainOfARunningInstance) {
  TempDir dir;
  const std::string path = dir / "tarry/defaults.sqlite3";
  SqliteDefaultsStore running(
      path, {}, platform::os::StoreTiming{std::chrono::milliseconds(10), std::chrono::milliseconds(10)});
  running.set("enabled", true);
  running.flush();

  const auto shell = [&](const std::string& words, std::string* out = nullptr) {
    const std::string command = "XDG_CONFIG_HOME='" + dir.path() + "' '" TARRY_BINARY "' defaults " + words;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return -1;
    char buffer[256];
    std::string text;
    while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) text += buffer;
    if (out != nullptr) *out = text;
    const int status = ::pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };

  EXPECT_EQ(shell(R"(write enabled false)"), 0);
  EXPECT_EQ(shell(R"(write holdSeconds '"--help"')"), 0);
  EXPECT_TRUE(eventually([&] {
    return running.get("enabled") == Value(false) && running.get("holdSeconds") == Value("--help");
  }));

  std::string out;
  EXPECT_EQ(shell("read holdSeconds", &out), 0);
  EXPECT_EQ(out, "\"--help\"\n");
  EXPECT_EQ(shell("read nothing 2>/dev/null"), 1);
  EXPECT_EQ(shell("write x oops 2>/dev/null"), 2);
}

}  // namespace
}  // namespace tarry::cli
