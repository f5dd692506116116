// Fuzz target: a request head as a web listener receives it, through the head
// parser and the download-request split. The head is framed the way the
// request reader frames it (up to the end of its blank line when there is
// one), in a buffer of exactly that length.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fuzzlib.h"
#include "webops.h"

namespace {

// The size of a request's source and destination buffers in the daemon; the
// outputs here are heap buffers of exactly that size.
constexpr size_t ENDPOINT_SIZE = 256;

void check_layout(const uri_layout &u, const char *base, size_t len) {
    FUZZ_CHECK(fuzz_within(u.scheme, u.s_len, base, len));
    FUZZ_CHECK(fuzz_within(u.authority, u.a_len, base, len));
    FUZZ_CHECK(fuzz_within(u.path, u.p_len, base, len));
    FUZZ_CHECK(fuzz_within(u.query, u.q_len, base, len));
}

void check_fields(const http_header &h) {
    FUZZ_CHECK(h.type == HTTP_MT_GET || h.type == HTTP_MT_HEAD);
    FUZZ_CHECK(strnlen(h.host, sizeof h.host) < sizeof h.host - 1);
    FUZZ_CHECK(strnlen(h.user_agent, sizeof h.user_agent) < sizeof h.user_agent - 1);
    FUZZ_CHECK(strnlen(h.accept_enc, sizeof h.accept_enc) < sizeof h.accept_enc - 1);
    FUZZ_CHECK(!(h.is_keep_alive && h.is_close));
}

bool same_header(const http_header &a, const http_header &b) {
    return a.type == b.type && a.uri.scheme == b.uri.scheme && a.uri.s_len == b.uri.s_len &&
           a.uri.authority == b.uri.authority && a.uri.a_len == b.uri.a_len &&
           a.uri.path == b.uri.path && a.uri.p_len == b.uri.p_len && a.uri.query == b.uri.query &&
           a.uri.q_len == b.uri.q_len && strcmp(a.host, b.host) == 0 &&
           strcmp(a.user_agent, b.user_agent) == 0 && strcmp(a.accept_enc, b.accept_enc) == 0 &&
           a.is_keep_alive == b.is_keep_alive && a.is_close == b.is_close &&
           a.is_http10 == b.is_http10;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    size_t eod = head_eod(reinterpret_cast<const char *>(data), size);
    size_t len = eod > 0 ? eod : size;
    char *head = fuzz_dup_exact(data, len);

    http_header hdr;
    char url[ENDPOINT_SIZE] = "untouched";
    int rc = parse_http_header(head, len, &hdr, url, sizeof url);
    FUZZ_CHECK(strnlen(url, sizeof url) < sizeof url);
    if (rc == 0) {
        check_layout(hdr.uri, head, len);
        check_fields(hdr);
    }

    // The split parses the same head first: its verdict on the head, and
    // the header it hands back, must be the parser's.
    http_header uhdr;
    auto *src = static_cast<char *>(malloc(ENDPOINT_SIZE));
    auto *dst = static_cast<char *>(malloc(ENDPOINT_SIZE));
    if (src == nullptr || dst == nullptr) abort();
    int urc = web_parse_urq(head, len, src, dst, ENDPOINT_SIZE, &uhdr);
    if (rc != 0) {
        FUZZ_CHECK(urc == rc);
    } else {
        FUZZ_CHECK(same_header(hdr, uhdr));
        if (urc == 0 || urc == HTTP_RC_PING || urc == 7) {
            FUZZ_CHECK(strnlen(src, ENDPOINT_SIZE) < ENDPOINT_SIZE);
            FUZZ_CHECK(strnlen(dst, ENDPOINT_SIZE) < ENDPOINT_SIZE);
        }
    }
    free(dst);
    free(src);
    free(head);
    return 0;
}
