// libmeta: the support library's own identity, for version and build output.
#pragma once

#include <cstdio>

// "libvlm/<version>-<major>.<minor> (<build hash>) @<build time>", cached.
const char *lbvlm_info();
// Whether the library reads time from a cached fast clock. Never here.
bool using_fast_clocks();
