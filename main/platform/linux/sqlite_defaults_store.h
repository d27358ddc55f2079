#pragma once

#include "platform/defaults_store.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <thread>

struct sqlite3;
struct sqlite3_stmt;

namespace tarry::platform::os {

/// How soon the writer thread commits and looks for commits made by other processes.
struct StoreTiming {
  /// Delay from the first pending write to its commit; writes made meanwhile join the same commit.
  std::chrono::milliseconds commitDelay{200};
  /// How often the database is checked for changes made by another process. While the kernel
  /// reports changes to the database's files (inotify), this is only a fallback, checked at most
  /// every `watchedPollInterval`.
  std::chrono::milliseconds pollInterval{1000};
  std::chrono::milliseconds watchedPollInterval{60000};
};

/// The preferences domain kept in an SQLite database (WAL), one row per key holding the value's
/// JSON text. Everything lives in memory; a writer thread persists changed keys, coalesced, within
/// about `commitDelay` (well under a second) and picks up changes other processes commit
/// (`tarry defaults write` while the program runs).
///
/// A database that cannot be used is moved aside to `<path>.corrupt-<unix time>` and the domain
/// starts empty; when not even a fresh database can be made, values are kept in memory only.
/// Either case is reported through `note` (one line each), which may be called from the writer
/// thread.
class SqliteDefaultsStore final : public DefaultsStore {
 public:
  explicit SqliteDefaultsStore(std::string path, std::function<void(const std::string&)> note = {},
                               StoreTiming timing = {});
  ~SqliteDefaultsStore() override;

  /// `$XDG_CONFIG_HOME/tarry/defaults.sqlite3`.
  [[nodiscard]] static std::string defaultPath();

  [[nodiscard]] std::optional<Value> get(std::string_view key) const override;
  void set(std::string_view key, Value value) override;
  void remove(std::string_view key) override;
  [[nodiscard]] std::vector<std::string> keys(std::string_view prefix) const override;
  std::int64_t addInteger(std::string_view key, std::int64_t amount) override;
  void flush() override;

  /// False when the values are kept in memory only because no database could be used.
  [[nodiscard]] bool persistent() const { return persistent_; }

 private:
  using Stored = std::shared_ptr<const Value>;
  enum class OpenResult { ok, busy, unusable };

  OpenResult open(std::string& error);
  void closeDatabase();
  bool moveAside(std::string& aside, std::string& error);
  /// Every row of the table; rows whose value is not JSON are skipped and named in `skipped`.
  bool readAll(std::map<std::string, Value, std::less<>>& rows, std::vector<std::string>& skipped,
               std::string& error);
  /// Writes the dirty keys in one transaction; false (keys dirty again) when it failed.
  bool persistPending();
  void reloadIfChanged();
  /// Marks `key` for the writer; true when it is the first pending key. Needs `mutex_` held.
  bool markDirty(const std::string& key);
  void wakeWriter();
  void run();
  void sendNote(const std::string& line) const;

  const std::string path_;
  const std::function<void(const std::string&)> note_;
  const StoreTiming timing_;
  // NOTE: written only by the constructor, before the writer thread starts.
  bool persistent_ = false;

  mutable std::shared_mutex mutex_;  // values_, dirty_
  std::map<std::string, Stored, std::less<>> values_;
  std::set<std::string, std::less<>> dirty_;

  std::mutex dbMutex_;  // the connection, its statements, dataVersion_, saveFailing_
  sqlite3* db_ = nullptr;
  sqlite3_stmt* upsert_ = nullptr;
  sqlite3_stmt* delete_ = nullptr;
  sqlite3_stmt* dataVersion_ = nullptr;
  std::int64_t seenVersion_ = 0;
  bool saveFailing_ = false;

  std::mutex wakeMutex_;  // stopping_, pending_
  std::condition_variable wake_;
  bool stopping_ = false;
  bool pending_ = false;
  /// Set by the watcher: a file of the database changed.
  bool changed_ = false;
  std::thread writer_;

  /// The inotify watch on the database's folder and the pipe that ends the watcher; -1 when the
  /// kernel offers no watch (the writer then polls every `pollInterval`).
  int inotify_ = -1;
  int stopPipe_[2] = {-1, -1};
  std::thread watcher_;
  void startWatcher();
  void watch();
};

}  // namespace tarry::platform::os
