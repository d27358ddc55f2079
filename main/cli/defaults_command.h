#pragma once

#include "platform/defaults_store.h"

#include <ostream>
#include <string>
#include <vector>

namespace tarry::cli {

/// `tarry defaults read [KEY] | write KEY JSON | delete KEY`: reads and edits the preferences
/// domain from a shell. `args` are the words after `defaults`. Returns the exit status: 0 done,
/// 1 no value for the key, 2 a usage or JSON error.
int runDefaultsCommand(platform::DefaultsStore& store, const std::vector<std::string>& args,
                       std::ostream& out, std::ostream& err);

}  // namespace tarry::cli
