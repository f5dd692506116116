// meta: the identity strings of the suite's programs: the application tag
// sent as server identification, the information line of the version and
// start lines, and the build information of the usage text.
#pragma once

#include <cstdio>

// "<tag>/0.2-0.15 (tellurix)"; built once, later calls (null name too)
// return the cached text. "#error#" when it cannot be built.
const char *get_app_tag(const char *name);
// "0.2-0.15": the version alone, as the tag carries it.
const char *get_app_version();
// The one-line description of a program tag; "#error#" for an unknown tag.
const char *get_app_info(const char *name, int id);
void dump_build_info(FILE *fp);
