// Fuzz target: the end-of-head scan and the field look-ups the upstream
// reader runs on a response head, over a buffer of exactly the input's
// length (received text is not terminated).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string_view>

#include "fuzzlib.h"
#include "webops.h"

namespace {

// The end of the first terminator, found another way: the earliest "\n\n"
// or "\r\n\r\n" (they cannot start at the same byte).
size_t expected_eod(std::string_view s) {
    size_t lf = s.find("\n\n");
    size_t crlf = s.find("\r\n\r\n");
    if (lf == std::string_view::npos && crlf == std::string_view::npos) return 0;
    if (crlf == std::string_view::npos || (lf != std::string_view::npos && lf < crlf))
        return lf + 2;
    return crlf + 4;
}

void check_field(const char *name, const char *text, size_t size) {
    size_t vlen = 99;
    const char *v = find_http_header_n(name, text, size, &vlen);
    long num = extract_num_hdr(name, text, size);
    if (v == nullptr) {
        FUZZ_CHECK(vlen == 0);
        FUZZ_CHECK(num == -1);
        return;
    }
    // The value lies inside the text, is free of control bytes and is
    // followed, still inside the text, by a line end.
    FUZZ_CHECK(fuzz_within(v, vlen + 1, text, size));
    for (size_t i = 0; i < vlen; ++i)
        FUZZ_CHECK(static_cast<unsigned char>(v[i]) >= 0x20 && v[i] != 0x7f);
    FUZZ_CHECK(v[vlen] == '\r' || v[vlen] == '\n');
    if (vlen == 0) FUZZ_CHECK(num == -1);
    // A value that begins with digits is their number, whatever follows;
    // runs short enough not to overflow are checked against a plain sum.
    size_t digits = 0;
    long sum = 0;
    while (digits < vlen && digits < 18 && v[digits] >= '0' && v[digits] <= '9')
        sum = sum * 10 + (v[digits++] - '0');
    bool short_run = digits == vlen || digits < 18;
    if (digits > 0 && short_run) FUZZ_CHECK(num == sum);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    char *text = fuzz_dup_exact(data, size);
    size_t eod = head_eod(text, size);
    FUZZ_CHECK(eod == expected_eod({text, size}));

    // As the download engine asks: only the head when there is one.
    size_t n = eod > 0 ? eod : size;
    for (const char *name : {"Content-Length:", "content-length", "Host:", "Connection"})
        check_field(name, text, n);
    free(text);
    return 0;
}
