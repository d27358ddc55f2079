#pragma once

#include <cstdlib>
#include <memory>

namespace tarry::platform::x11 {

/// xcb hands out replies (and errors) allocated with malloc; the caller frees them.
struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};

/// An owned xcb reply.
template <typename T>
using XPtr = std::unique_ptr<T, FreeDeleter>;

}  // namespace tarry::platform::x11
