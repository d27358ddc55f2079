#pragma once

#include "platform/sim/journal.h"
#include "platform/workspace.h"

#include <map>
#include <set>
#include <vector>

namespace tarry::platform::sim {

/// Running apps set up by the test. By default a terminate request ends the app at once.
class SimWorkspace final : public Workspace {
 public:
  explicit SimWorkspace(Journal* journal = nullptr) : journal_(journal) {}

  [[nodiscard]] std::optional<RunningApp> frontmostApplication() override;
  [[nodiscard]] std::vector<RunningApp> runningApplications() override { return apps_; }
  bool terminate(const RunningApp& app) override;
  [[nodiscard]] bool isTerminated(std::int32_t pid) override;
  [[nodiscard]] std::int32_t ownPid() const override { return ownPid_; }
  [[nodiscard]] Icon ownIcon() const override { return Icon{"tarry", 0, 0, nullptr}; }
  [[nodiscard]] std::vector<std::string> identifierEquivalents(IdentifierSet set) const override;
  [[nodiscard]] std::string problem() const override { return problemText; }

  /// Adds (or replaces, by pid) a running app.
  void addApp(const RunningApp& app);
  void removeApp(std::int32_t pid);
  /// Makes the app with this pid frontmost; 0 = no frontmost app.
  void setFrontmost(std::int32_t pid) { frontPid_ = pid; }
  void setOwnPid(std::int32_t pid) { ownPid_ = pid; }
  void setEquivalents(IdentifierSet set, std::vector<std::string> ids) { equivalents_[set] = std::move(ids); }
  /// What `problem` reports.
  std::string problemText;
  /// Apps with these pids ignore terminate requests (as if the user cancelled a save prompt).
  std::set<std::int32_t> refuseTerminate;
  /// Every terminate request, in order.
  std::vector<RunningApp> terminateRequests;

 private:
  Journal* journal_;
  std::vector<RunningApp> apps_;
  std::set<std::int32_t> ended_;
  std::int32_t frontPid_ = 0;
  std::int32_t ownPid_ = 4242;
  std::map<IdentifierSet, std::vector<std::string>> equivalents_;
};

}  // namespace tarry::platform::sim
