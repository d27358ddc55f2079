#include "cli/defaults_command.h"

#include "settings/known_keys.h"

#include <optional>
#include <string_view>

namespace tarry::cli {
namespace {

constexpr const char* kUsage =
    "usage: tarry defaults read            print every preference as one JSON object\n"
    "       tarry defaults read KEY        print the value of KEY as JSON\n"
    "       tarry defaults write KEY JSON  store a JSON value under KEY\n"
    "       tarry defaults delete KEY      remove KEY\n"
    "Values are JSON: true, 2.5, 3, '\"text\"', '[1, 2]', '{\"a\": 1}'.\n";

constexpr int kDone = 0;
constexpr int kNoValue = 1;
constexpr int kUsageError = 2;

std::string text(const platform::Value& value, int indent = -1) {
  return value.dump(indent, ' ', false, platform::Value::error_handler_t::replace);
}

int usage(std::ostream& err) {
  err << kUsage;
  return kUsageError;
}

int noValue(std::ostream& err, const std::string& key) {
  err << "tarry defaults: no value for " << key << '\n';
  return kNoValue;
}

// Parses `json`, or says what is wrong with it in the parser's own words (without its
// exception-id prefix, which means nothing to a user).
std::optional<platform::Value> parse(const std::string& json, std::string& problem) {
  try {
    return platform::Value::parse(json);
  } catch (const platform::Value::exception& e) {
    std::string_view what = e.what();
    if (what.starts_with("[json.exception.")) {
      const auto close = what.find("] ");
      if (close != std::string_view::npos) what.remove_prefix(close + 2);
    }
    problem = what;
    return std::nullopt;
  }
}

}  // namespace

int runDefaultsCommand(platform::DefaultsStore& store, const std::vector<std::string>& args,
                       std::ostream& out, std::ostream& err) {
  if (args.empty()) return usage(err);
  const std::string& verb = args[0];

  if (verb == "read" && args.size() == 1) {
    platform::Value all = platform::Value::object();
    for (const auto& key : store.keys("")) {
      if (auto value = store.get(key)) all[key] = std::move(*value);
    }
    // NOTE: nlohmann's object keeps its keys sorted, so the output is in key order.
    out << text(all, 2) << '\n';
    return kDone;
  }
  if (verb == "read" && args.size() == 2) {
    const auto value = store.get(args[1]);
    if (!value) return noValue(err, args[1]);
    out << text(*value) << '\n';
    return kDone;
  }
  if (verb == "write" && args.size() == 3) {
    const std::string& key = args[1];
    if (key.empty()) {
      err << "tarry defaults: the key must not be empty\n";
      return kUsageError;
    }
    std::string problem;
    auto value = parse(args[2], problem);
    if (!value) {
      err << "tarry defaults: the value for " << key << " is not valid JSON: " << problem << "\n"
          << "A text value needs JSON quotes inside the shell's quotes, e.g.\n"
          << "  tarry defaults write " << key << " '\"text\"'\n";
      return kUsageError;
    }
    // The store takes any value (every reader has its default and clamp); a key or type the
    // program does not read is most likely a typo, worth a word.
    if (const std::string warning = settings::defaultsWriteWarning(key, *value); !warning.empty()) {
      err << "tarry defaults: warning: " << warning << '\n';
    }
    store.set(key, std::move(*value));
    store.flush();
    return kDone;
  }
  if (verb == "delete" && args.size() == 2) {
    if (!store.get(args[1])) return noValue(err, args[1]);
    store.remove(args[1]);
    store.flush();
    return kDone;
  }
  return usage(err);
}

}  // namespace tarry::cli
