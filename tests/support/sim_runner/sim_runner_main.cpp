// tarry-sim: runs the real guard on the simulated platform from a scenario file and prints (or
// checks) the transcript of what it did. The format is described in docs/scenarios.md.
#include "sim_runner.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

namespace {

using namespace tarry::simrun;

constexpr const char* kUsage =
    "Usage: tarry-sim FILE.scn            print the transcript\n"
    "       tarry-sim --check FILE.scn    compare with the transcript after the \"---\" line\n"
    "       tarry-sim --update FILE.scn   replace that transcript with the one produced now\n"
    "       tarry-sim --commands          list the scenario commands\n";

bool readFile(const std::string& path, std::string& text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream buffer;
  buffer << in.rdbuf();
  text = buffer.str();
  return true;
}

int listCommands() {
  for (const auto& [name, command] : buildCommandTable()) std::printf("%s\n", command.usage.c_str());
  std::printf("at SECONDS [COMMAND ...]\n");
  return 0;
}

int check(const std::string& path, const Scenario& scenario, const std::vector<std::string>& got) {
  if (!scenario.hasExpected) {
    std::fprintf(stderr, "%s: no expected transcript (no \"---\" line)\n", path.c_str());
    return 1;
  }
  const auto& want = scenario.expected;
  std::size_t i = 0;
  while (i < want.size() && i < got.size() && want[i] == got[i]) ++i;
  if (i == want.size() && i == got.size()) {
    std::printf("%s: ok (%zu lines)\n", path.c_str(), got.size());
    return 0;
  }
  std::fprintf(stderr, "%s: transcript differs at line %zu\n", path.c_str(), i + 1);
  std::fprintf(stderr, "  expected: %s\n", i < want.size() ? want[i].c_str() : "(end of transcript)");
  std::fprintf(stderr, "  got:      %s\n", i < got.size() ? got[i].c_str() : "(end of transcript)");
  std::fprintf(stderr, "full transcript:\n");
  for (const auto& line : got) std::fprintf(stderr, "%s\n", line.c_str());
  return 1;
}

int update(const std::string& path, const Scenario& scenario, const std::vector<std::string>& got) {
  std::string text;
  for (const auto& line : scenario.commands) text += line + "\n";
  text += "---\n";
  for (const auto& line : got) text += line + "\n";
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out || !(out << text)) {
    std::fprintf(stderr, "%s: cannot write\n", path.c_str());
    return 2;
  }
  std::printf("%s: transcript written (%zu lines)\n", path.c_str(), got.size());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string_view mode;
  std::string path;
  if (argc == 2 && std::string_view(argv[1]) == "--commands") return listCommands();
  if (argc == 2 && argv[1][0] != '-') {
    path = argv[1];
  } else if (argc == 3 &&
             (std::string_view(argv[1]) == "--check" || std::string_view(argv[1]) == "--update")) {
    mode = argv[1];
    path = argv[2];
  } else {
    std::fputs(kUsage, argc == 2 && std::string_view(argv[1]) == "--help" ? stdout : stderr);
    return argc == 2 && std::string_view(argv[1]) == "--help" ? 0 : 2;
  }

  std::string text;
  if (!readFile(path, text)) {
    std::fprintf(stderr, "%s: cannot read\n", path.c_str());
    return 2;
  }
  const Scenario scenario = parseScenario(text);
  std::string error;
  const auto transcript = runScenario(scenario.commands, error);
  if (!transcript) {
    std::fprintf(stderr, "%s: %s\n", path.c_str(), error.c_str());
    return 2;
  }
  if (mode == "--check") return check(path, scenario, *transcript);
  if (mode == "--update") return update(path, scenario, *transcript);
  for (const auto& line : *transcript) std::printf("%s\n", line.c_str());
  return 0;
}
