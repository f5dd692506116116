// meta: application identity strings (see meta.h).
#include "meta.h"

#include <sys/utsname.h>

#include <cstring>

#include "libmeta.h"

namespace {
constexpr const char *VERSION = "0.2";
constexpr int VER_MAJOR = 0;
constexpr int VER_MINOR = 15;
constexpr const char *EDITION = "tellurix";
constexpr const char *BUILD_KIND = "regular";
constexpr const char *BUILD_DATE = "2019-12-22";

struct app_row {
    const char *tag;
    const char *desc;
};
constexpr app_row APPS[] = {{"trv", "Download manager"}};

const char *app_desc(const char *tag) {
    for (const auto &a : APPS)
        if (tag != nullptr && strcmp(tag, a.tag) == 0) return a.desc;
    return nullptr;
}
}  // namespace

const char *get_app_tag(const char *name) {
    static char tag[128];
    if (tag[0] != '\0' || name == nullptr) return tag[0] != '\0' ? tag : "#error#";
    int n =
        snprintf(tag, sizeof tag, "%s/%s-%d.%d (%s)", name, VERSION, VER_MAJOR, VER_MINOR, EDITION);
    if (n < 1 || size_t(n) >= sizeof tag) {
        tag[0] = '\0';
        return "#error#";
    }
    return tag;
}

const char *get_app_version() {
    // Built from the same constants as the tag, so the two never disagree.
    static char ver[32];
    if (ver[0] == '\0') snprintf(ver, sizeof ver, "%s-%d.%d", VERSION, VER_MAJOR, VER_MINOR);
    return ver;
}

const char *get_app_info(const char *name, [[maybe_unused]] int id) {
    static char info[256];
    const char *desc = app_desc(name);
    if (desc == nullptr) return "#error#";
    utsname un{};
    char sys[160] = "unknown system";
    if (uname(&un) == 0)
        snprintf(sys, sizeof sys, "%.40s %.60s %.20s", un.sysname, un.release, un.machine);
    int n = snprintf(info, sizeof info, "%s (%s) %s-%d.%d %s %s [%s] built on %s", name, desc,
                     VERSION, VER_MAJOR, VER_MINOR, EDITION, BUILD_KIND, sys, BUILD_DATE);
    if (n < 1 || size_t(n) >= sizeof info) return "#error#";
    return info;
}

void dump_build_info(FILE *fp) {
    fprintf(fp, "----\n");
    fprintf(fp, "%s ", lbvlm_info());
    if (using_fast_clocks()) fprintf(fp, "[fast-clocks] ");
    fprintf(fp, "[%s]\n", "-ggdb");
    fprintf(fp, "----\n\n");
}
