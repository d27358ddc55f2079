#pragma once

#include "platform/defaults_store.h"

#include <map>
#include <mutex>
#include <string>

namespace tarry::platform::sim {

/// A preferences domain held in memory only.
class MemoryDefaultsStore final : public DefaultsStore {
 public:
  [[nodiscard]] std::optional<Value> get(std::string_view key) const override;
  void set(std::string_view key, Value value) override;
  void remove(std::string_view key) override;
  [[nodiscard]] std::vector<std::string> keys(std::string_view prefix) const override;
  std::int64_t addInteger(std::string_view key, std::int64_t amount) override;
  void flush() override {}

 private:
  mutable std::mutex mutex_;
  std::map<std::string, Value, std::less<>> values_;
};

}  // namespace tarry::platform::sim
