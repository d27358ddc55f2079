#pragma once

#include <string>

namespace tarry::platform::os {

/// The environment variable naming the lock descriptor an update hands on to the new copy.
inline constexpr const char* kHandedOnLockVariable = "TARRY_UPDATE_LOCK_FD";

/// One running copy of the program per user and display.
///
/// The first copy holds an exclusive `flock` on "<runtime dir>/tarry-<display>.lock" for its whole
/// life and listens on the socket "<runtime dir>/tarry-<display>.sock" beside it. The kernel drops
/// the lock when the process ends in any way (kill -9 included), so a stale lock cannot exist; a
/// stale socket file is removed by the next copy that holds the lock. Two copies racing for the
/// lock end with exactly one holder.
///
/// An update hands the lock on: the new copy inherits the descriptor (its number in
/// TARRY_UPDATE_LOCK_FD), so the lock is never free while one copy replaces the other and no
/// launch in between can become a second running copy.
class InstanceLock final {
 public:
  /// Paths for the display named `display` (":0", "localhost:10.0") under `runtimeDir`.
  InstanceLock(const std::string& runtimeDir, const std::string& display);
  ~InstanceLock();
  InstanceLock(const InstanceLock&) = delete;
  InstanceLock& operator=(const InstanceLock&) = delete;

  /// Takes the lock without waiting; true when this process is now the running copy (or already
  /// was). False when another process holds it, or on an error (`error` says which).
  bool tryAcquire(std::string& error);
  /// True while this object holds the lock.
  [[nodiscard]] bool held() const { return fd_ >= 0; }
  /// The held lock's descriptor (-1 when not held), for handing it on to a new copy.
  [[nodiscard]] int descriptor() const { return fd_; }
  /// In a copy started by an update: takes the lock the old copy handed on, if it names this
  /// lock's file. True when this object holds the lock now.
  bool adoptHandedOn();
  /// Once the lock is held: true when no copy listens at the socket any more (the old one after
  /// an update has gone), with any file left there removed so that this copy can listen.
  [[nodiscard]] bool claimSocket() const;

  /// Sends one request line to the running copy and returns its answer line ("ok", "error: …").
  /// Retries the connection for up to `timeoutSec` (the running copy may still be starting);
  /// false with `error` set when no copy answered.
  [[nodiscard]] bool send(const std::string& request, std::string& reply, std::string& error,
                          double timeoutSec = 3.0) const;

  [[nodiscard]] const std::string& socketPath() const { return socketPath_; }
  [[nodiscard]] const std::string& lockPath() const { return lockPath_; }

 private:
  std::string lockPath_;
  std::string socketPath_;
  int fd_ = -1;
};

}  // namespace tarry::platform::os
