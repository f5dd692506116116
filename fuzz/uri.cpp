// Fuzz target: the URI helpers on one text: the split (bounded and
// terminated), host and port from the path, the source/destination split
// with and without a context, and percent-decoding and -encoding, with a
// round trip through both. Every output is a heap buffer of exactly the size
// handed down, so a write past the bound is caught.
#include "uri.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "fuzzlib.h"

namespace {

constexpr size_t HOST_SIZE = 64;
constexpr size_t PORT_SIZE = 6;
constexpr size_t ENDPOINT_SIZE = 256;

char *alloc_exact(size_t n) {
    auto *p = static_cast<char *>(malloc(n));
    if (p == nullptr) abort();
    return p;
}

void check_layout(const uri_layout &u, const char *base, size_t len) {
    FUZZ_CHECK(fuzz_within(u.scheme, u.s_len, base, len));
    FUZZ_CHECK(fuzz_within(u.authority, u.a_len, base, len));
    FUZZ_CHECK(fuzz_within(u.path, u.p_len, base, len));
    FUZZ_CHECK(fuzz_within(u.query, u.q_len, base, len));
}

// The same part found at the same offset of two copies of one text.
bool same_part(const char *a, size_t alen, const char *abase, const char *b, size_t blen,
               const char *bbase) {
    if (a == nullptr || b == nullptr) return a == b && alen == blen;
    return a - abase == b - bbase && alen == blen;
}

void fuzz_split(const char *raw, size_t size, const char *text, size_t tlen) {
    uri_layout lo_n{};
    uri_layout lo{};
    int rc_n = uri_parse_n(raw, size, &lo_n);
    int rc = uri_parse(text, &lo);
    FUZZ_CHECK(rc == rc_n);
    FUZZ_CHECK(rc == 0 || rc == -1);
    if (rc != 0) return;
    check_layout(lo_n, raw, size);
    check_layout(lo, text, tlen);
    FUZZ_CHECK(same_part(lo.scheme, lo.s_len, text, lo_n.scheme, lo_n.s_len, raw));
    FUZZ_CHECK(same_part(lo.authority, lo.a_len, text, lo_n.authority, lo_n.a_len, raw));
    FUZZ_CHECK(same_part(lo.path, lo.p_len, text, lo_n.path, lo_n.p_len, raw));
    FUZZ_CHECK(same_part(lo.query, lo.q_len, text, lo_n.query, lo_n.q_len, raw));
    if (lo_n.path == nullptr) return;

    // The path inside the unterminated copy: its end is only its length.
    char *host = alloc_exact(HOST_SIZE);
    char *port = alloc_exact(PORT_SIZE);
    const char *after = uri_path_addrport(lo_n.path, lo_n.p_len, host, HOST_SIZE, port, PORT_SIZE);
    FUZZ_CHECK(strnlen(host, HOST_SIZE) < HOST_SIZE);
    FUZZ_CHECK(strnlen(port, PORT_SIZE) < PORT_SIZE);
    if (after != nullptr) FUZZ_CHECK(fuzz_within(after, 0, lo_n.path, lo_n.p_len));
    const char *bare = uri_path_addrport(lo_n.path, lo_n.p_len, nullptr, 0, nullptr, 0);
    // Without buffers nothing can fail to fit, so a success above stays one.
    if (after != nullptr) FUZZ_CHECK(bare == after);
    free(port);
    free(host);

    char *scheme = alloc_exact(URI_SCHEME_SIZE);
    char *auth = alloc_exact(URI_AUTH_SIZE);
    char *path = alloc_exact(URI_PATH_SIZE);
    char *query = alloc_exact(URI_QUERY_SIZE);
    int kind = uri_extract(text, scheme, auth, path, query);
    FUZZ_CHECK(kind >= -1 && kind < int(URI_KIND_COUNT));
    if (kind >= 0) {
        FUZZ_CHECK(strnlen(scheme, URI_SCHEME_SIZE) < URI_SCHEME_SIZE);
        FUZZ_CHECK(strnlen(auth, URI_AUTH_SIZE) < URI_AUTH_SIZE);
        FUZZ_CHECK(strnlen(path, URI_PATH_SIZE) < URI_PATH_SIZE);
        FUZZ_CHECK(strnlen(query, URI_QUERY_SIZE) < URI_QUERY_SIZE);
    }
    free(query);
    free(path);
    free(auth);
    free(scheme);
}

void fuzz_endpoints(const char *text) {
    char *src = alloc_exact(ENDPOINT_SIZE);
    char *dst = alloc_exact(ENDPOINT_SIZE);
    (void)uri_extract_endpts_ext(text, src, ENDPOINT_SIZE, dst, ENDPOINT_SIZE, nullptr);
    FUZZ_CHECK(strnlen(src, ENDPOINT_SIZE) < ENDPOINT_SIZE);
    FUZZ_CHECK(strnlen(dst, ENDPOINT_SIZE) < ENDPOINT_SIZE);

    uri_parse_ctx ctx{};
    ctx.root_dir = "/srv/media/";
    ctx.duration = 0;
    (void)uri_extract_endpts_ext(text, src, ENDPOINT_SIZE, dst, ENDPOINT_SIZE, &ctx);
    FUZZ_CHECK(strnlen(src, ENDPOINT_SIZE) < ENDPOINT_SIZE);
    FUZZ_CHECK(strnlen(dst, ENDPOINT_SIZE) < ENDPOINT_SIZE);
    FUZZ_CHECK(strnlen(ctx.udpfx, sizeof ctx.udpfx) < sizeof ctx.udpfx);
    free(dst);
    free(src);
}

void fuzz_decode(const uint8_t *data, size_t size) {
    // Bounded by the buffer alone: the text need not be terminated.
    for (int opt : {0, URI_DEC_PRINTABLE}) {
        char *buf = fuzz_dup_exact(data, size);
        size_t before = strnlen(buf, size);
        if (uri_decode_opt(buf, size, opt) != nullptr) {
            size_t after = strnlen(buf, size);
            FUZZ_CHECK(after < size);
            FUZZ_CHECK(after <= before);
        }
        free(buf);
    }
}

void fuzz_encode(const uint8_t *data, size_t size, const char *text, size_t tlen) {
    // With the tightest bound: the text fills the whole buffer.
    char *tight = fuzz_dup_exact(data, size);
    if (uri_encode(tight, size) != nullptr) FUZZ_CHECK(strnlen(tight, size) < size);
    free(tight);

    // With room for every byte escaped, encoding then decoding gives the
    // text back, unless it holds a "%", which the encoder leaves as it is.
    size_t room = 3 * tlen + 1;
    char *enc = alloc_exact(room);
    memcpy(enc, text, tlen + 1);
    FUZZ_CHECK(uri_encode(enc, room) == enc);
    FUZZ_CHECK(strnlen(enc, room) < room);
    for (const char *p = enc; *p != '\0'; ++p)
        FUZZ_CHECK(*p > 0x20 && *p < 0x7f && strchr(";/?:@&=+$,* ", *p) == nullptr);
    if (memchr(text, '%', tlen) == nullptr) {
        FUZZ_CHECK(uri_decode_opt(enc, room, 0) == enc);
        FUZZ_CHECK(strcmp(enc, text) == 0);
    }
    free(enc);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    char *raw = fuzz_dup_exact(data, size);
    char *text = fuzz_dup_str(data, size);
    size_t tlen = strlen(text);
    fuzz_split(raw, size, text, tlen);
    fuzz_endpoints(text);
    fuzz_decode(data, size);
    fuzz_encode(data, size, text, tlen);
    free(text);
    free(raw);
    return 0;
}
