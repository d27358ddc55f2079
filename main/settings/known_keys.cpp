#include "settings/known_keys.h"

#include <algorithm>
#include <array>
#include <optional>

namespace tarry::settings {
namespace {

enum class Kind { flag, number, text, rules, hoursByApp, any };

struct Known {
  std::string_view key;
  Kind kind;
};

// Every key the program reads, with the type its reader expects. Statistics, app sets and the
// updater keep families of keys under the prefixes below.
constexpr std::array kKeys = {
    Known{"enabled", Kind::flag},       Known{"showHUD", Kind::flag},
    Known{"playSound", Kind::flag},     Known{"showMenuBar", Kind::flag},
    Known{"menuCounter", Kind::flag},   Known{"unsavedWarn", Kind::flag},
    Known{"workHours", Kind::flag},     Known{"workWeekdays", Kind::flag},
    Known{"micStrict", Kind::flag},     Known{"busyGuard", Kind::flag},
    Known{"undoQuit", Kind::flag},      Known{"onlyListedApps", Kind::flag},
    Known{"autoUpdate", Kind::flag},    Known{"loginDefaultDone", Kind::flag},
    Known{"holdSeconds", Kind::number}, Known{"style", Kind::number},
    Known{"appearance", Kind::number},  Known{"workFrom", Kind::number},
    Known{"workTo", Kind::number},      Known{"closeHold", Kind::number},
    Known{"logoutHold", Kind::number},  Known{"ramSaverHours", Kind::number},
    Known{"pauseUntil", Kind::number},  Known{"lastAnnounceId", Kind::number},
    Known{"appModes", Kind::rules},     Known{"ramSaverApp", Kind::hoursByApp},
    Known{"logDir", Kind::text},        Known{"logSig", Kind::any},
    Known{"recents", Kind::any},        Known{"installID", Kind::any},
    Known{"consentVersion", Kind::any}, Known{"lastActiveDay", Kind::any},
    Known{"lastVersion", Kind::any},    Known{"updatedFrom", Kind::any},
    Known{"launchAtLogin", Kind::any},
};
constexpr std::array<std::string_view, 7> kPrefixes = {"stats.",  "day.",   "period.", "all.",
                                                       "appset.", "update", "launch"};
constexpr std::array<std::string_view, 5> kRuleWords = {"hold", "short", "long", "instant", "never"};

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

std::optional<Kind> kindOf(std::string_view key) {
  for (const Known& k : kKeys) {
    if (k.key == key) return k.kind;
  }
  for (std::string_view prefix : kPrefixes) {
    if (key.starts_with(prefix)) return Kind::any;
  }
  return std::nullopt;
}

std::string inQuotes(std::string_view key) {
  std::string quoted(1, '"');
  quoted.append(key).push_back('"');
  return quoted;
}

}  // namespace

std::string defaultsWriteWarning(std::string_view key, const platform::Value& value) {
  const std::optional<Kind> kind = kindOf(key);
  if (!kind) {
    std::string text = "Tarry reads no key " + inQuotes(key) + "; stored anyway";
    const auto near =
        std::find_if(kKeys.begin(), kKeys.end(), [&](const Known& k) { return lower(k.key) == lower(key); });
    if (near != kKeys.end()) text += " (did you mean " + inQuotes(near->key) + "?)";
    return text;
  }
  const std::string stored = "; stored anyway, but it reads as its default";
  switch (*kind) {
    case Kind::flag:
      return value.is_boolean() ? "" : inQuotes(key) + " is read as true or false" + stored;
    case Kind::number:
      return value.is_number() ? "" : inQuotes(key) + " is read as a number" + stored;
    case Kind::text:
      return value.is_string() ? "" : inQuotes(key) + " is read as a text in JSON quotes" + stored;
    case Kind::rules: {
      if (!value.is_object()) return inQuotes(key) + " is read as an object of app id → rule" + stored;
      for (const auto& [app, rule] : value.items()) {
        if (!rule.is_string() ||
            std::find(kRuleWords.begin(), kRuleWords.end(), rule.get<std::string>()) == kRuleWords.end()) {
          return "the rule for " + inQuotes(app) +
                 " is not one of \"hold\", \"short\", \"long\", \"instant\", \"never\"; stored anyway, but "
                 "that app keeps "
                 "the normal hold";
        }
      }
      return {};
    }
    case Kind::hoursByApp: {
      if (!value.is_object()) return inQuotes(key) + " is read as an object of app id → idle hours" + stored;
      for (const auto& [app, hours] : value.items()) {
        if (!hours.is_number())
          return "the idle hours for " + inQuotes(app) + " are not a number; that entry is ignored";
      }
      return {};
    }
    case Kind::any:
      return {};
  }
  return {};
}

}  // namespace tarry::settings
