#pragma once
// xcb/xkb.h names a struct member `explicit`, which C++ reserves; it is renamed while that header
// is read (nothing in this program touches the member). Redefining a keyword is what this header
// is for, so it is read as a system header: GCC and clang then keep their warnings about the
// rename (clang's -Wkeyword-macro) to themselves, and only here.
#pragma GCC system_header

#define explicit explicit_
#include <xcb/xkb.h>
#undef explicit
