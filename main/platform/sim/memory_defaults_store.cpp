#include "platform/sim/memory_defaults_store.h"

#include <limits>

namespace tarry::platform::sim {

std::optional<Value> MemoryDefaultsStore::get(std::string_view key) const {
  const std::lock_guard lock(mutex_);
  const auto it = values_.find(key);
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

void MemoryDefaultsStore::set(std::string_view key, Value value) {
  const std::lock_guard lock(mutex_);
  values_.insert_or_assign(std::string(key), std::move(value));
}

void MemoryDefaultsStore::remove(std::string_view key) {
  const std::lock_guard lock(mutex_);
  const auto it = values_.find(key);
  if (it != values_.end()) values_.erase(it);
}

std::vector<std::string> MemoryDefaultsStore::keys(std::string_view prefix) const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  for (auto it = values_.lower_bound(prefix); it != values_.end(); ++it) {
    if (it->first.compare(0, prefix.size(), prefix) != 0) break;
    out.push_back(it->first);
  }
  return out;
}

std::int64_t MemoryDefaultsStore::addInteger(std::string_view key, std::int64_t amount) {
  const std::lock_guard lock(mutex_);
  auto it = values_.find(key);
  const std::int64_t current =
      it != values_.end() && it->second.is_number_integer() ? it->second.get<std::int64_t>() : 0;
  // Saturates at the ends of the range, like the SQLite store; the counters treat an end as overflow.
  std::int64_t sum = 0;
  if (__builtin_add_overflow(current, amount, &sum)) {
    sum = amount > 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
  }
  values_.insert_or_assign(std::string(key), Value(sum));
  return sum;
}

}  // namespace tarry::platform::sim
