#include "platform/linux/sqlite_defaults_store.h"

#include "platform/linux/xdg_paths.h"

#include <sqlite3.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <limits>
#include <string_view>
#include <utility>
#include <vector>

namespace tarry::platform::os {
namespace {

namespace fs = std::filesystem;

// Another process (the command line tool, a second instance starting) may hold the write lock
// for a moment; wait for it rather than failing.
constexpr int kBusyTimeoutMs = 5000;

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS defaults(key TEXT PRIMARY KEY NOT NULL, value TEXT NOT NULL) "
    "WITHOUT ROWID";

std::string serialize(const Value& value) {
  // A string with invalid UTF-8 would make dump() throw; store it with replacement characters.
  return value.dump(-1, ' ', false, Value::error_handler_t::replace);
}

std::string errorOf(sqlite3* db) { return db != nullptr ? sqlite3_errmsg(db) : "out of memory"; }

bool exec(sqlite3* db, const char* sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

void finalize(sqlite3_stmt*& stmt) {
  sqlite3_finalize(stmt);
  stmt = nullptr;
}

// The parser reads every non-negative integer as unsigned; the program writes signed ones (counters
// are int64). Reading them back as signed keeps a value's type the same across a restart.
void normalizeIntegers(Value& value) {
  if (value.is_number_unsigned()) {
    const auto n = value.get<std::uint64_t>();
    if (n <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      value = static_cast<std::int64_t>(n);
    }
  } else if (value.is_structured()) {
    for (auto& element : value) normalizeIntegers(element);
  }
}

bool pathPresent(const std::string& path) {
  std::error_code ec;
  return fs::symlink_status(path, ec).type() != fs::file_type::not_found && !ec;
}

}  // namespace

SqliteDefaultsStore::SqliteDefaultsStore(std::string path, std::function<void(const std::string&)> note,
                                         StoreTiming timing)
    : path_(std::move(path)), note_(std::move(note)), timing_(timing) {
  std::error_code ec;
  const fs::path parent = fs::path(path_).parent_path();
  if (!parent.empty()) fs::create_directories(parent, ec);

  std::string error;
  OpenResult result = open(error);
  if (result == OpenResult::unusable && pathPresent(path_)) {
    std::string aside;
    std::string moveError;
    if (!moveAside(aside, moveError)) {
      sendNote("cannot use " + path_ + " (" + error + ") nor move it aside (" + moveError +
               "); keeping preferences in memory only");
      return;
    }
    sendNote("cannot use " + path_ + " (" + error + "); moved it to " + aside + " and started from defaults");
    result = open(error);
  }
  if (result == OpenResult::busy) {
    sendNote(path_ + " is locked by another process (" + error + "); keeping preferences in memory only");
    return;
  }
  if (result != OpenResult::ok) {
    sendNote("cannot create " + path_ + " (" + error + "); keeping preferences in memory only");
    return;
  }
  persistent_ = true;
  startWatcher();
  writer_ = std::thread([this] { run(); });
}

void SqliteDefaultsStore::startWatcher() {
  // Another process's commit writes the database or its WAL file: the kernel says so, and the
  // writer thread need not wake every second to ask SQLite (an idle program should sleep).
  const fs::path parent = fs::path(path_).parent_path();
  inotify_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (inotify_ < 0) return;
  if (inotify_add_watch(inotify_, parent.empty() ? "." : parent.c_str(),
                        IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_DELETE) < 0 ||
      pipe2(stopPipe_, O_CLOEXEC) != 0) {
    ::close(inotify_);
    inotify_ = -1;
    return;
  }
  watcher_ = std::thread([this] { watch(); });
}

void SqliteDefaultsStore::watch() {
  const std::string name = fs::path(path_).filename().string();
  alignas(inotify_event) char buffer[4096];
  for (;;) {
    pollfd fds[2] = {{inotify_, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents != 0) return;
    bool ours = false;
    for (;;) {
      const ssize_t n = ::read(inotify_, buffer, sizeof(buffer));
      if (n <= 0) break;
      for (ssize_t at = 0; at < n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
        // The database, its "-wal" or "-journal": a commit writes one of them. "-shm" is left out:
        // reading the database touches it, and the reload must not wake itself.
        const std::string_view file = event->len > 0 ? std::string_view(event->name) : std::string_view();
        if (file.substr(0, name.size()) == name && !file.ends_with("-shm")) ours = true;
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
    }
    if (!ours) continue;
    {
      const std::lock_guard lock(wakeMutex_);
      changed_ = true;
    }
    wake_.notify_one();
  }
}

SqliteDefaultsStore::~SqliteDefaultsStore() {
  {
    const std::lock_guard lock(wakeMutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (writer_.joinable()) writer_.join();
  if (watcher_.joinable()) {
    const char stop = 1;
    [[maybe_unused]] const ssize_t n = ::write(stopPipe_[1], &stop, 1);
    watcher_.join();
  }
  for (int fd : {inotify_, stopPipe_[0], stopPipe_[1]}) {
    if (fd >= 0) ::close(fd);
  }
  persistPending();
  const std::lock_guard db(dbMutex_);
  closeDatabase();
}

std::string SqliteDefaultsStore::defaultPath() { return configDirectory() + "/defaults.sqlite3"; }

void SqliteDefaultsStore::sendNote(const std::string& line) const {
  if (note_) note_("preferences: " + line);
}

SqliteDefaultsStore::OpenResult SqliteDefaultsStore::open(std::string& error) {
  const std::lock_guard lock(dbMutex_);
  int rc = sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  std::map<std::string, Value, std::less<>> rows;
  std::vector<std::string> skipped;
  const auto fail = [&](int code) {
    if (error.empty()) error = errorOf(db_);
    closeDatabase();
    const int primary = code & 0xff;
    return primary == SQLITE_BUSY || primary == SQLITE_LOCKED || primary == SQLITE_NOMEM
               ? OpenResult::busy
               : OpenResult::unusable;
  };
  error.clear();
  if (rc != SQLITE_OK) return fail(rc);
  sqlite3_extended_result_codes(db_, 1);
  sqlite3_busy_timeout(db_, kBusyTimeoutMs);
  // WAL lets the command line tool read while the program writes. A process crash loses nothing
  // committed; NORMAL syncing only risks the last commits on a power cut.
  if (!exec(db_, "PRAGMA journal_mode=WAL") || !exec(db_, "PRAGMA synchronous=NORMAL") ||
      !exec(db_, kSchema)) {
    return fail(sqlite3_extended_errcode(db_));
  }
  // quick_check walks every page of the file, not only the ones the rows are read from below.
  sqlite3_stmt* check = nullptr;
  rc = sqlite3_prepare_v2(db_, "PRAGMA quick_check(1)", -1, &check, nullptr);
  if (rc == SQLITE_OK) {
    rc = sqlite3_step(check);
    if (rc == SQLITE_ROW) {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(check, 0));
      const std::string verdict = text != nullptr ? text : "";
      if (verdict != "ok") {
        error = "integrity check: " + verdict;
        rc = SQLITE_CORRUPT;
      }
    }
  }
  if (rc != SQLITE_ROW) {
    rc = rc == SQLITE_CORRUPT ? rc : sqlite3_extended_errcode(db_);
    sqlite3_finalize(check);
    return fail(rc);
  }
  sqlite3_finalize(check);

  if (!readAll(rows, skipped, error)) return fail(sqlite3_extended_errcode(db_));
  // Preparing the upsert also proves the table has the key constraint it relies on.
  if (sqlite3_prepare_v3(db_,
                         "INSERT INTO defaults(key, value) VALUES(?1, ?2) "
                         "ON CONFLICT(key) DO UPDATE SET value = excluded.value",
                         -1, SQLITE_PREPARE_PERSISTENT, &upsert_, nullptr) != SQLITE_OK ||
      sqlite3_prepare_v3(db_, "DELETE FROM defaults WHERE key = ?1", -1, SQLITE_PREPARE_PERSISTENT, &delete_,
                         nullptr) != SQLITE_OK ||
      sqlite3_prepare_v3(db_, "PRAGMA data_version", -1, SQLITE_PREPARE_PERSISTENT, &dataVersion_, nullptr) !=
          SQLITE_OK) {
    return fail(sqlite3_extended_errcode(db_));
  }
  if (sqlite3_step(dataVersion_) == SQLITE_ROW) seenVersion_ = sqlite3_column_int64(dataVersion_, 0);
  sqlite3_reset(dataVersion_);

  for (const auto& key : skipped) sendNote("ignored " + key + " in " + path_ + ": its value is not JSON");
  const std::unique_lock values(mutex_);
  values_.clear();
  for (auto& [key, value] : rows) values_.emplace(key, std::make_shared<const Value>(std::move(value)));
  return OpenResult::ok;
}

void SqliteDefaultsStore::closeDatabase() {
  finalize(upsert_);
  finalize(delete_);
  finalize(dataVersion_);
  if (db_ != nullptr) sqlite3_close_v2(db_);
  db_ = nullptr;
}

bool SqliteDefaultsStore::moveAside(std::string& aside, std::string& error) {
  const std::string base = path_ + ".corrupt-" + std::to_string(std::time(nullptr));
  aside = base;
  for (int n = 2; pathPresent(aside); ++n) aside = base + "-" + std::to_string(n);
  std::error_code ec;
  fs::rename(path_, aside, ec);
  if (ec) {
    error = ec.message();
    return false;
  }
  // A journal left beside the old file belongs to it; SQLite would replay it onto the new one.
  for (const char* suffix : {"-wal", "-shm", "-journal"}) {
    const std::string companion = path_ + suffix;
    if (!pathPresent(companion)) continue;
    fs::rename(companion, aside + suffix, ec);
    if (ec) fs::remove_all(companion, ec);
  }
  return true;
}

bool SqliteDefaultsStore::readAll(std::map<std::string, Value, std::less<>>& rows,
                                  std::vector<std::string>& skipped, std::string& error) {
  sqlite3_stmt* select = nullptr;
  if (sqlite3_prepare_v2(db_, "SELECT key, value FROM defaults", -1, &select, nullptr) != SQLITE_OK) {
    error = errorOf(db_);
    return false;
  }
  int rc = SQLITE_ROW;
  while ((rc = sqlite3_step(select)) == SQLITE_ROW) {
    const auto* key = reinterpret_cast<const char*>(sqlite3_column_text(select, 0));
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(select, 1));
    if (key == nullptr) continue;
    Value value = text != nullptr ? Value::parse(text, nullptr, false) : Value(Value::value_t::discarded);
    if (value.is_discarded()) {
      skipped.emplace_back(key);
      continue;
    }
    normalizeIntegers(value);
    rows.insert_or_assign(key, std::move(value));
  }
  if (rc != SQLITE_DONE) error = errorOf(db_);
  sqlite3_finalize(select);
  return rc == SQLITE_DONE;
}

std::optional<Value> SqliteDefaultsStore::get(std::string_view key) const {
  const std::shared_lock lock(mutex_);
  const auto it = values_.find(key);
  if (it == values_.end()) return std::nullopt;
  return *it->second;
}

void SqliteDefaultsStore::set(std::string_view key, Value value) {
  std::string name(key);
  Stored stored = std::make_shared<const Value>(std::move(value));
  bool first = false;
  {
    const std::unique_lock lock(mutex_);
    first = markDirty(name);
    values_.insert_or_assign(std::move(name), std::move(stored));
  }
  if (first) wakeWriter();
}

void SqliteDefaultsStore::remove(std::string_view key) {
  bool first = false;
  {
    const std::unique_lock lock(mutex_);
    const auto it = values_.find(key);
    if (it == values_.end()) return;
    first = markDirty(it->first);
    values_.erase(it);
  }
  if (first) wakeWriter();
}

std::vector<std::string> SqliteDefaultsStore::keys(std::string_view prefix) const {
  const std::shared_lock lock(mutex_);
  std::vector<std::string> out;
  for (auto it = values_.lower_bound(prefix); it != values_.end(); ++it) {
    if (it->first.compare(0, prefix.size(), prefix) != 0) break;
    out.push_back(it->first);
  }
  return out;
}

std::int64_t SqliteDefaultsStore::addInteger(std::string_view key, std::int64_t amount) {
  bool first = false;
  std::int64_t sum = amount;
  {
    const std::unique_lock lock(mutex_);
    auto it = values_.find(key);
    if (it != values_.end() && it->second->is_number_integer()) {
      // A counter that reached the end of the range stays there rather than wrapping negative.
      const std::int64_t current = it->second->get<std::int64_t>();
      if (__builtin_add_overflow(current, amount, &sum)) {
        sum =
            amount > 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
      }
    }
    Stored stored = std::make_shared<const Value>(sum);
    if (it != values_.end()) {
      it->second = std::move(stored);
      first = markDirty(it->first);
    } else {
      std::string name(key);
      first = markDirty(name);
      values_.emplace(std::move(name), std::move(stored));
    }
  }
  if (first) wakeWriter();
  return sum;
}

void SqliteDefaultsStore::flush() { persistPending(); }

bool SqliteDefaultsStore::markDirty(const std::string& key) {
  if (!persistent_) return false;
  const bool first = dirty_.empty();
  dirty_.insert(key);
  return first;
}

void SqliteDefaultsStore::wakeWriter() {
  {
    const std::lock_guard lock(wakeMutex_);
    pending_ = true;
  }
  wake_.notify_one();
}

bool SqliteDefaultsStore::persistPending() {
  const std::lock_guard db(dbMutex_);
  if (db_ == nullptr) return true;
  // NOTE: the dirty set is taken while holding dbMutex_, so a reload that runs after this commit
  // sees these keys on disk, and one that runs before it sees them still dirty.
  std::vector<std::pair<std::string, Stored>> batch;
  {
    const std::unique_lock lock(mutex_);
    if (dirty_.empty()) return true;
    batch.reserve(dirty_.size());
    for (const auto& key : dirty_) {
      const auto it = values_.find(key);
      batch.emplace_back(key, it != values_.end() ? it->second : nullptr);
    }
    dirty_.clear();
  }

  bool ok = exec(db_, "BEGIN IMMEDIATE");
  for (std::size_t i = 0; ok && i < batch.size(); ++i) {
    const auto& [key, value] = batch[i];
    sqlite3_stmt* stmt = value ? upsert_ : delete_;
    sqlite3_bind_text(stmt, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    std::string text;
    if (value) {
      text = serialize(*value);
      sqlite3_bind_text(stmt, 2, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    }
    ok = sqlite3_step(stmt) == SQLITE_DONE;
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
  }
  std::string error;
  if (ok) ok = exec(db_, "COMMIT");
  if (!ok) {
    error = errorOf(db_);
    if (sqlite3_get_autocommit(db_) == 0) exec(db_, "ROLLBACK");
    // The current values are still in memory; marking the keys again writes them next time.
    const std::unique_lock lock(mutex_);
    for (auto& entry : batch) dirty_.insert(std::move(entry.first));
  }
  if (!ok && !saveFailing_) sendNote("saving to " + path_ + " failed (" + error + "); will retry");
  if (ok && saveFailing_) sendNote("saving to " + path_ + " works again");
  saveFailing_ = !ok;
  return ok;
}

void SqliteDefaultsStore::reloadIfChanged() {
  const std::lock_guard db(dbMutex_);
  if (db_ == nullptr) return;
  // data_version changes only when another connection commits to the file.
  std::int64_t version = seenVersion_;
  if (sqlite3_step(dataVersion_) == SQLITE_ROW) version = sqlite3_column_int64(dataVersion_, 0);
  sqlite3_reset(dataVersion_);
  if (version == seenVersion_) return;

  std::map<std::string, Value, std::less<>> rows;
  std::vector<std::string> skipped;
  std::string error;
  if (!readAll(rows, skipped, error)) return;  // tried again at the next change
  seenVersion_ = version;

  // Keys with local writes not yet saved keep the local value: it is the newer one.
  const std::unique_lock lock(mutex_);
  for (auto it = values_.begin(); it != values_.end();) {
    if (!rows.contains(it->first) && !dirty_.contains(it->first)) {
      it = values_.erase(it);
    } else {
      ++it;
    }
  }
  for (auto& [key, value] : rows) {
    if (dirty_.contains(key)) continue;
    const auto it = values_.find(key);
    if (it == values_.end()) {
      values_.emplace(key, std::make_shared<const Value>(std::move(value)));
    } else if (*it->second != value) {
      it->second = std::make_shared<const Value>(std::move(value));
    }
  }
}

void SqliteDefaultsStore::run() {
  using Clock = std::chrono::steady_clock;
  const auto pollInterval =
      inotify_ >= 0 ? std::max(timing_.pollInterval, timing_.watchedPollInterval) : timing_.pollInterval;
  auto nextPoll = Clock::now() + pollInterval;
  constexpr auto kNone = Clock::time_point::max();
  auto commitAt = kNone;  // when the pending writes are due
  std::unique_lock lock(wakeMutex_);
  while (!stopping_) {
    if (pending_) {
      pending_ = false;
      if (commitAt == kNone) commitAt = Clock::now() + timing_.commitDelay;
    }
    const auto deadline = std::min(commitAt, nextPoll);
    wake_.wait_until(lock, deadline, [this] { return stopping_ || pending_ || changed_; });
    if (stopping_) break;
    if (pending_) continue;
    const bool changed = changed_;
    changed_ = false;
    lock.unlock();
    const auto now = Clock::now();
    if (now >= commitAt) {
      commitAt = kNone;
      // A failed save (disk full, a lock held too long) is tried again after a pause.
      if (!persistPending()) commitAt = now + std::max(timing_.commitDelay, std::chrono::milliseconds(1000));
    }
    if (changed || now >= nextPoll) {
      reloadIfChanged();
      // A change may be reported while the other process is still inside its commit: look once
      // more shortly after the last report.
      nextPoll =
          now + (changed ? std::min<std::chrono::milliseconds>(pollInterval, std::chrono::milliseconds(100))
                         : pollInterval);
    }
    lock.lock();
  }
}

}  // namespace tarry::platform::os
