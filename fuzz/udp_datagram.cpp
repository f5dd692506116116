// Fuzz target: an order datagram as the UDP channel receives it: the line end
// cut, the "#!" prefix taken off when present, then split in place into
// identifier, URL and expiry.
//
// A datagram without an expiry deliberately stops the daemon (senders always
// stamp one), so those inputs are recognised first, with exactly the
// splitter's own steps, and skipped: that abort is the design, not a finding.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fuzzlib.h"
#include "strops.h"
#include "udl.h"

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }
bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// True when the splitter would reach its no-expiry assertion: an identifier
// of acceptable length, one blank, a URL of at least the minimum length, and
// then, past any white space, the end of the text or a "#".
bool lacks_expiry(const char *text) {
    const char *b = text;
    while (*b != '\0' && !is_blank(*b)) ++b;
    if (*b == '\0') return false;
    size_t lid_len = size_t(b - text);
    if (lid_len < UDL_MIN_LID || lid_len > UDL_MAX_LID) return false;
    const char *u = b + 1;
    const char *e = u;
    while (*e != '\0' && !is_blank(*e)) ++e;
    if (size_t(e - u) < UDL_MIN_URL) return false;
    const char *q = *e != '\0' ? e + 1 : e;
    while (is_space(*q)) ++q;
    return *q == '\0' || *q == '#';
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    char *msg = fuzz_dup_str(data, size);
    chomp(msg);
    char *text = strncmp(msg, "#!", 2) == 0 ? msg + 2 : msg;
    if (lacks_expiry(text)) {
        free(msg);
        return -1;  // not kept in the corpus either
    }
    size_t tlen = strlen(text);
    char *url = nullptr;
    char *lid = nullptr;
    time_t expiry = 0;
    int rc = parse_msg(text, &url, &lid, &expiry);
    FUZZ_CHECK(rc == 0 || rc == -1);
    if (rc == 0) {
        // Both parts are cut out of the text in place, within its bounds.
        FUZZ_CHECK(lid == text);
        FUZZ_CHECK(url > text && url < text + tlen);
        size_t lid_len = strlen(lid);
        size_t url_len = strlen(url);
        FUZZ_CHECK(lid_len >= UDL_MIN_LID && lid_len <= UDL_MAX_LID);
        FUZZ_CHECK(url_len >= UDL_MIN_URL && url + url_len <= text + tlen);
        FUZZ_CHECK(url == lid + lid_len + 1);
        for (const char *p = url; *p != '\0'; ++p) FUZZ_CHECK(!is_blank(*p));
    }
    free(msg);
    return 0;
}
