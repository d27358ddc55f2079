#pragma once

#include <string>
#include <vector>

namespace tarry::platform::os {

/// `strings` as the null-terminated array of pointers that execv*() takes (an argument list or an
/// environment). Made before fork: a child of a threaded process may not allocate. The strings
/// must outlive the array.
inline std::vector<char*> execArgs(const std::vector<std::string>& strings) {
  std::vector<char*> out;
  out.reserve(strings.size() + 1);
  for (const auto& s : strings) out.push_back(const_cast<char*>(s.c_str()));
  out.push_back(nullptr);
  return out;
}

}  // namespace tarry::platform::os
