// config: configuration string readers (see config.h).
#include "config.h"

#include <cstdio>
#include <cstring>

#include "log.h"

LOG_MODULE(0);

config_t *g_lcfg = nullptr;

namespace {
int store_str(const char *who, const char *key, const char *val, char *buf, size_t size,
              const char *def) {
    if (val != nullptr) {
        size_t len = strlen(val);
        if (len >= size) {
            LOG_ERR("%s: %s value is too long (%ld), max = %ld characters.\n", who, key, long(len),
                    long(size));
            return -1;
        }
        memcpy(buf, val, len + 1);
        return 0;
    }
    if (def != nullptr && def[0] != '\0') {
        snprintf(buf, size, "%s", def);
        return 0;
    }
    if (size > 0) buf[0] = '\0';
    return 0;
}
}  // namespace

int load_config_str(const char *path, char *buf, size_t size, const char *def) {
    const char *val = nullptr;
    if (g_lcfg == nullptr || config_lookup_string(g_lcfg, path, &val) != CONFIG_TRUE) val = nullptr;
    return store_str(__func__, path, val, buf, size, def);
}

int load_config_setting_str(const config_setting_t *setting, const char *name, char *buf,
                            size_t size, const char *def) {
    const char *val = nullptr;
    if (setting == nullptr || config_setting_lookup_string(setting, name, &val) != CONFIG_TRUE)
        val = nullptr;
    return store_str(__func__, name, val, buf, size, def);
}
