#pragma once

// xcb/xkb.h names a struct member `explicit`, which C++ reserves; rename it while the header is
// read. Nothing in this program touches that member.
#define explicit explicit_
#include <xcb/xkb.h>
#undef explicit
