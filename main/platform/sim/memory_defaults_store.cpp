#include "platform/sim/memory_defaults_store.h"

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
  std::int64_t sum = amount;
  if (it != values_.end() && it->second.is_number_integer()) sum += it->second.get<std::int64_t>();
  values_.insert_or_assign(std::string(key), Value(sum));
  return sum;
}

}  // namespace tarry::platform::sim
