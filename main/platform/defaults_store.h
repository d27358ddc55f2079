#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarry::platform {

/// A typed preference value: bool, integer, real, string, array or object.
using Value = nlohmann::json;

/// The per-user preferences domain: a string-keyed map of typed values.
/// NOTE: may be called from any thread; reads come from memory and never wait on the disk.
class DefaultsStore {
 public:
  DefaultsStore() = default;
  DefaultsStore(const DefaultsStore&) = delete;
  DefaultsStore& operator=(const DefaultsStore&) = delete;
  virtual ~DefaultsStore() = default;

  /// The value stored under `key`, or nothing when absent.
  [[nodiscard]] virtual std::optional<Value> get(std::string_view key) const = 0;
  /// Stores `value` under `key`, replacing what was there.
  virtual void set(std::string_view key, Value value) = 0;
  /// Removes `key`; absent keys are ignored.
  virtual void remove(std::string_view key) = 0;
  /// Every key that begins with `prefix` (all keys for an empty prefix), sorted.
  [[nodiscard]] virtual std::vector<std::string> keys(std::string_view prefix) const = 0;
  /// Adds `amount` to the integer under `key` (absent or non-integer counts as 0) and returns the
  /// sum, in one step.
  virtual std::int64_t addInteger(std::string_view key, std::int64_t amount) = 0;
  /// Makes every write so far durable before returning (at exit; tests).
  virtual void flush() = 0;
};

}  // namespace tarry::platform
