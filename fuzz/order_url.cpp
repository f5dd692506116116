// Fuzz target: the order URL of a datagram, split into source and destination
// and percent-decoded with the size the datagram path hands down. The outputs
// are heap buffers of exactly that size, so a write past the bound is caught.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fuzzlib.h"
#include "webops.h"

namespace {
// parse_url hands 255 as the size of its two 256-byte buffers.
constexpr size_t ENDPOINT_SIZE = 255;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    char *url = fuzz_dup_str(data, size);
    auto *src = static_cast<char *>(malloc(ENDPOINT_SIZE));
    auto *dst = static_cast<char *>(malloc(ENDPOINT_SIZE));
    if (src == nullptr || dst == nullptr) abort();
    int rc = web_parse_url(url, src, dst, ENDPOINT_SIZE);
    FUZZ_CHECK(rc == 0 || rc == 34 || rc == -1);
    // Both outputs are emptied first, so they are terminated on every path.
    FUZZ_CHECK(strnlen(src, ENDPOINT_SIZE) < ENDPOINT_SIZE);
    FUZZ_CHECK(strnlen(dst, ENDPOINT_SIZE) < ENDPOINT_SIZE);
    free(dst);
    free(src);
    free(url);
    return 0;
}
