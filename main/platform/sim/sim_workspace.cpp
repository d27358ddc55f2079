#include "platform/sim/sim_workspace.h"

#include <algorithm>

namespace tarry::platform::sim {

std::optional<RunningApp> SimWorkspace::frontmostApplication() {
  for (const auto& app : apps_) {
    if (app.pid == frontPid_) return app;
  }
  return std::nullopt;
}

bool SimWorkspace::terminate(const RunningApp& app) {
  terminateRequests.push_back(app);
  if (journal_) journal_->add("terminate " + (app.bundleID.empty() ? std::string("?") : app.bundleID) +
                              " pid=" + std::to_string(app.pid));
  if (refuseTerminate.count(app.pid) != 0) return true;
  removeApp(app.pid);
  return true;
}

bool SimWorkspace::isTerminated(std::int32_t pid) {
  return ended_.count(pid) != 0 ||
         std::none_of(apps_.begin(), apps_.end(), [pid](const RunningApp& a) { return a.pid == pid; });
}

std::vector<std::string> SimWorkspace::identifierEquivalents(IdentifierSet set) const {
  const auto it = equivalents_.find(set);
  return it == equivalents_.end() ? std::vector<std::string>{} : it->second;
}

void SimWorkspace::addApp(const RunningApp& app) {
  removeApp(app.pid);
  ended_.erase(app.pid);
  apps_.push_back(app);
}

void SimWorkspace::removeApp(std::int32_t pid) {
  const auto it = std::find_if(apps_.begin(), apps_.end(), [pid](const RunningApp& a) { return a.pid == pid; });
  if (it == apps_.end()) return;
  apps_.erase(it);
  ended_.insert(pid);
  if (frontPid_ == pid) frontPid_ = 0;
}

}  // namespace tarry::platform::sim
