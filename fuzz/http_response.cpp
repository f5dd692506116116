// Fuzz target: the upstream response-head reader fed through a socket pair,
// in the daemon's buffer size. Three deliveries of the same bytes: all then
// the end of stream, all with the peer still open, and in two pieces. Every
// descriptor is non-blocking and the data is written before reading, so no
// call can wait.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fuzzlib.h"
#include "webops.h"

namespace {

// The download engine reads a head into 2048 bytes and hands 2047 as cap;
// the buffer here is exactly cap bytes.
constexpr size_t HEAD_CAP = 2047;

struct outcome {
    int rc;
    http_resp_ctx ctx;
};

void make_pair(int fds[2]) {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) {
        perror("socketpair");
        abort();
    }
}

// Writes what the socket takes at once; the pair's buffer is far larger than
// any input the fuzzer makes, so a short write is a set-up fault.
void put(int fd, const uint8_t *data, size_t size) {
    if (size == 0) return;
    ssize_t n = write(fd, data, size);
    if (n < 0 || size_t(n) != size) {
        perror("write");
        abort();
    }
}

void check(const outcome &o, const char *buf) {
    FUZZ_CHECK(o.rc == 0 || o.rc == 11 || o.rc == -1);
    FUZZ_CHECK(o.ctx.total >= 0 && size_t(o.ctx.total) <= HEAD_CAP);
    if (o.rc == 0) {
        FUZZ_CHECK(o.ctx.tail > 0 && o.ctx.tail <= o.ctx.total);
        FUZZ_CHECK(size_t(o.ctx.tail) == head_eod(buf, size_t(o.ctx.total)));
    } else {
        FUZZ_CHECK(o.ctx.tail == 0 || o.rc == -1);
    }
}

outcome deliver(const uint8_t *data, size_t size, size_t first, bool close_peer) {
    int fds[2];
    make_pair(fds);
    char *buf = static_cast<char *>(malloc(HEAD_CAP));
    if (buf == nullptr) abort();
    outcome o{};
    put(fds[1], data, first);
    if (first < size) {
        // The first piece alone, the peer still open: done or "more".
        o.rc = recv_http_response(fds[0], buf, HEAD_CAP, &o.ctx);
        check(o, buf);
        if (o.rc != 11) {
            close(fds[1]);
            close(fds[0]);
            free(buf);
            return o;
        }
        put(fds[1], data + first, size - first);
    }
    if (close_peer) close(fds[1]);
    o.rc = recv_http_response(fds[0], buf, HEAD_CAP, &o.ctx);
    check(o, buf);
    if (!close_peer) close(fds[1]);
    close(fds[0]);
    free(buf);
    return o;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    outcome closed = deliver(data, size, size, true);
    outcome open = deliver(data, size, size, false);
    outcome pieces = deliver(data, size, size / 2, true);

    // A head that is there is read the same way however it arrived; one that
    // is not is "more" while the peer is open and an error once it closed.
    if (closed.rc == 0) {
        FUZZ_CHECK(open.rc == 0 && open.ctx.code == closed.ctx.code &&
                   open.ctx.tail == closed.ctx.tail && open.ctx.total == closed.ctx.total);
        FUZZ_CHECK(pieces.rc == 0 && pieces.ctx.code == closed.ctx.code &&
                   pieces.ctx.tail == closed.ctx.tail);
    }
    if (open.rc == 11) FUZZ_CHECK(closed.rc == -1 && pieces.rc == -1);
    return 0;
}
