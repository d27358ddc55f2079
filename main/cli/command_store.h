#pragma once

#include "platform/linux/sqlite_defaults_store.h"

#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tarry::cli {

/// The preferences database as a command (`tarry defaults`, `tarry apps`) opens it. What the store
/// reports (a damaged database moved aside, a read-only one) goes to standard error and, as the
/// desktop program's notes do, to the event log of the log folder in use: a command is often the
/// first to open a damaged database, and the logDir it held went with it.
class CommandStore final {
 public:
  /// Opens the database; what it reported is written at once to the event log (the folder the
  /// store names, made when it names none, as the program does).
  CommandStore();
  /// Writes any later notes to the event log, and saves the store.
  ~CommandStore();
  CommandStore(const CommandStore&) = delete;
  CommandStore& operator=(const CommandStore&) = delete;

  [[nodiscard]] platform::os::SqliteDefaultsStore& store() { return *store_; }

 private:
  void note(const std::string& line);
  void writeNotes();

  std::mutex mutex_;
  std::vector<std::string> notes_;
  std::optional<platform::os::SqliteDefaultsStore> store_;
};

}  // namespace tarry::cli
