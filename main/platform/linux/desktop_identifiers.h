#pragma once

#include "platform/workspace.h"

#include <string>
#include <vector>

namespace tarry::platform::os {

/// The identifiers that common Linux desktops give the members of a fixed set (terminals, the
/// desktop shell, file managers, ...), as desktop-file ids and, where apps are often known only by
/// their executable or WM_CLASS, those names too. The logic adds them to its built-in identifiers.
[[nodiscard]] std::vector<std::string> linuxIdentifierEquivalents(IdentifierSet set);

}  // namespace tarry::platform::os
