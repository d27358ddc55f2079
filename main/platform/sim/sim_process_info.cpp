#include "platform/sim/sim_process_info.h"

#include <algorithm>
#include <cmath>

namespace tarry::platform::sim {

std::vector<std::int32_t> SimProcessInfo::childrenOf(std::int32_t pid) {
  const std::lock_guard lock(mutex_);
  ++childQueries_;
  std::vector<std::int32_t> out;
  if (processes_.count(pid) == 0) return out;
  for (const auto child : order_) {
    if (processes_.at(child).parent == pid) out.push_back(child);
  }
  const auto [first, last] = extraChildren_.equal_range(pid);
  for (auto it = first; it != last; ++it) out.push_back(it->second);
  return out;
}

std::optional<std::string> SimProcessInfo::name(std::int32_t pid) {
  const std::lock_guard lock(mutex_);
  const auto it = processes_.find(pid);
  if (it == processes_.end()) return std::nullopt;
  return it->second.name;
}

std::optional<std::string> SimProcessInfo::executableName(std::int32_t pid) {
  const std::lock_guard lock(mutex_);
  const auto it = processes_.find(pid);
  if (it == processes_.end()) return std::nullopt;
  return it->second.executable;
}

std::optional<std::uint64_t> SimProcessInfo::cpuTimeNs(std::int32_t pid) {
  const std::lock_guard lock(mutex_);
  const auto it = processes_.find(pid);
  if (it == processes_.end()) return std::nullopt;
  return it->second.cpuNs;
}

std::optional<std::uint64_t> SimProcessInfo::footprintBytes(std::int32_t pid) {
  const std::lock_guard lock(mutex_);
  const auto it = processes_.find(pid);
  if (it == processes_.end()) return std::nullopt;
  return it->second.footprint;
}

std::uint64_t SimProcessInfo::monotonicNs() {
  const std::lock_guard lock(mutex_);
  return clockNs_;
}

void SimProcessInfo::sleepFor(double milliseconds) {
  const std::lock_guard lock(mutex_);
  sleeps_.push_back(milliseconds);
  const double ns = std::max(0.0, milliseconds) * 1e6;
  clockNs_ += static_cast<std::uint64_t>(std::llround(ns));
  for (auto& [pid, p] : processes_) {
    p.cpuNs += static_cast<std::uint64_t>(std::llround(ns * std::max(0.0, p.cpuPercent) / 100.0));
  }
}

void SimProcessInfo::add(std::int32_t pid, std::int32_t parent, std::optional<std::string> name,
                         std::optional<std::string> executable, double cpuPercent) {
  const std::lock_guard lock(mutex_);
  if (processes_.count(pid) == 0) order_.push_back(pid);
  Process p;
  p.parent = parent;
  p.name = std::move(name);
  p.executable = std::move(executable);
  p.cpuPercent = cpuPercent;
  processes_[pid] = std::move(p);
}

void SimProcessInfo::remove(std::int32_t pid) {
  const std::lock_guard lock(mutex_);
  processes_.erase(pid);
  order_.erase(std::remove(order_.begin(), order_.end(), pid), order_.end());
}

void SimProcessInfo::setCpuPercent(std::int32_t pid, double percent) {
  const std::lock_guard lock(mutex_);
  const auto it = processes_.find(pid);
  if (it != processes_.end()) it->second.cpuPercent = percent;
}

void SimProcessInfo::setFootprint(std::int32_t pid, std::optional<std::uint64_t> bytes) {
  const std::lock_guard lock(mutex_);
  const auto it = processes_.find(pid);
  if (it != processes_.end()) it->second.footprint = bytes;
}

void SimProcessInfo::addExtraChild(std::int32_t parent, std::int32_t child) {
  const std::lock_guard lock(mutex_);
  extraChildren_.emplace(parent, child);
}

std::vector<double> SimProcessInfo::sleeps() const {
  const std::lock_guard lock(mutex_);
  return sleeps_;
}

int SimProcessInfo::childQueries() const {
  const std::lock_guard lock(mutex_);
  return childQueries_;
}

}  // namespace tarry::platform::sim
