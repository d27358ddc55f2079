#include "platform/linux/linux_file_system.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "temp_dir.h"

namespace tarry::platform::os {
namespace {

using testing::TempDir;

TEST(LinuxFileSystem, FilesAndDirectories) {
  TempDir dir;
  LinuxFileSystem files;
  const std::string logs = dir / "a/b/logs";
  EXPECT_TRUE(files.createDirectories(logs));
  EXPECT_TRUE(files.exists(logs));

  const std::string log = logs + "/events.log";
  EXPECT_TRUE(files.append(log, "one\n"));
  EXPECT_TRUE(files.append(log, "two\n"));
  EXPECT_EQ(files.size(log), 8U);
  EXPECT_EQ(files.readTail(log, 4), "two\n");
  EXPECT_EQ(files.readTail(log, 100), "one\ntwo\n");

  EXPECT_TRUE(files.write(log, "new"));
  EXPECT_EQ(files.readTail(log, 100), "new");
  EXPECT_TRUE(files.write(logs + "/crash.log", ""));
  EXPECT_EQ(files.list(logs), (std::vector<std::string>{"crash.log", "events.log"}))
      << "no temporary file is left behind";

  // Failures come back as results.
  EXPECT_FALSE(files.createDirectories(log + "/sub"));
  EXPECT_FALSE(files.append(logs, "x"));
  EXPECT_FALSE(files.write(logs, "x"));
  EXPECT_FALSE(files.write(dir / "missing/file", "x"));
  EXPECT_FALSE(files.size(dir / "missing").has_value());
  EXPECT_FALSE(files.readTail(logs, 10).has_value());
  EXPECT_FALSE(files.list(log).has_value());
  EXPECT_FALSE(files.exists(dir / "missing"));
}

TEST(LinuxFileSystem, UUIDsAreRandomVersion4) {
  LinuxFileSystem files;
  const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    const std::string id = files.newUUID();
    EXPECT_TRUE(std::regex_match(id, form)) << id;
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 200U);
}

}  // namespace
}  // namespace tarry::platform::os
