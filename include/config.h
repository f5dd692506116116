// config: the configuration string readers over libconfig, and the file
// being loaded. Every string setting goes through one rule: too long is an
// error, absent takes the default (or the empty string), never an error.
#pragma once

#include <libconfig.h>

#include <cstddef>

// The parsed file that load_config_str reads; set for the duration of a load.
extern config_t *g_lcfg;

// Looks path up in g_lcfg. 0, or -1 when the value does not fit in size.
[[nodiscard]] int load_config_str(const char *path, char *buf, size_t size, const char *def);
// Looks name up as a member of setting. 0 or -1, as above.
[[nodiscard]] int load_config_setting_str(const config_setting_t *setting, const char *name,
                                          char *buf, size_t size, const char *def);
