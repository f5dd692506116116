// origin: the test origin server (see origin.h). Each connection runs a list
// of steps (bytes, a generated body range, a pause, end of stream, reset,
// hold) built from its request path; the poll loop advances them as the
// socket and the timers allow, so one slow client never holds up the others.
#include "origin.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>

namespace {

constexpr size_t k_head_max = 16384;        // longer request heads are refused
constexpr size_t k_chunk = 128 * 1024;      // body bytes generated per write attempt
constexpr uint64_t k_once_max = 16u << 20;  // /once builds its whole answer in memory
constexpr int k_idle_poll_ms = 1000;        // stop() wakes the loop, so this only bounds it
constexpr int k_outq_poll_ms = 2;           // how often a pending reset looks at the queue
constexpr int k_accept_batch = 64;
constexpr int k_wait_step_ms = 5;
constexpr int k_max_delay_prefixes = 4;

long now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

void sleep_ms(int ms) {
    timespec ts{.tv_sec = ms / 1000, .tv_nsec = (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

uint64_t name_seed(std::string_view name) {
    uint64_t h = 0xcbf29ce484222325ull;  // FNV-1a: cheap, and every byte of the name counts
    for (unsigned char c : name) h = (h ^ c) * 0x100000001b3ull;
    return h;
}

// The splitmix64 finaliser: every input bit reaches every output bit, so
// neighbouring blocks and neighbouring names look unrelated.
uint64_t mix(uint64_t z) {
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
}

// One 64-bit word per 8 body bytes keeps generation cheap enough to serve
// hundreds of MiB without a noticeable cost next to the socket writes.
uint64_t block_word(uint64_t seed, uint64_t block) {
    return mix(seed + block * 0x9e3779b97f4a7c15ull);
}

void fill_seeded(uint64_t seed, uint64_t off, unsigned char *out, size_t len) {
    size_t i = 0;
    while (i < len) {
        uint64_t pos = off + i;
        uint64_t w = block_word(seed, pos >> 3);
        for (unsigned k = unsigned(pos & 7); k < 8 && i < len; ++k, ++i)
            out[i] = static_cast<unsigned char>(w >> (8 * k));
    }
}

const char *reason(int code) {
    static constexpr struct {
        int code;
        const char *text;
    } k_reasons[] = {
        {100, "Continue"},
        {200, "OK"},
        {201, "Created"},
        {202, "Accepted"},
        {204, "No Content"},
        {206, "Partial Content"},
        {301, "Moved Permanently"},
        {302, "Found"},
        {304, "Not Modified"},
        {400, "Bad Request"},
        {401, "Unauthorized"},
        {403, "Forbidden"},
        {404, "Not Found"},
        {405, "Method Not Allowed"},
        {416, "Range Not Satisfiable"},
        {431, "Request Header Fields Too Large"},
        {500, "Internal Server Error"},
        {502, "Bad Gateway"},
        {503, "Service Unavailable"},
        {504, "Gateway Timeout"},
    };
    for (const auto &r : k_reasons)
        if (r.code == code) return r.text;
    return "Status";
}

bool bodiless(int code) { return code < 200 || code == 204 || code == 304; }

// has_len false leaves Content-Length out (the /nolen answer).
std::string mk_head(int code, bool has_len, uint64_t len, bool octets) {
    std::string h = "HTTP/1.1 " + std::to_string(code) + " " + reason(code) + "\r\n";
    if (octets) h += "Content-Type: application/octet-stream\r\n";
    if (has_len) h += "Content-Length: " + std::to_string(len) + "\r\n";
    h += "Connection: close\r\n\r\n";
    return h;
}

enum class step_kind { bytes, body, pause, fin, reset, hold };

struct step {
    step_kind kind;
    std::string bytes;  // bytes: what to send
    uint64_t from, to;  // body: the range [from, to) of the body
    int piece;          // body: > 0 sends it in pieces of this size ...
    int pause_ms;       // ... with this pause between them; pause: its length
};

step bytes_step(std::string b) { return step{step_kind::bytes, std::move(b), 0, 0, 0, 0}; }
step body_step(uint64_t from, uint64_t to, int piece = 0, int pause = 0) {
    return step{step_kind::body, {}, from, to, piece, pause};
}
step pause_step(int ms) { return step{step_kind::pause, {}, 0, 0, 0, ms}; }
step end_step(step_kind k) { return step{k, {}, 0, 0, 0, 0}; }

enum class phase { head, answer, drain, done };

struct conn {
    int fd;
    int id;
    phase ph;
    bool read_eof;
    std::string in;  // request bytes until the head is complete
    uint64_t seed;   // of the body name
    std::vector<step> steps;
    size_t cur;                            // the step being worked on
    size_t bytes_off;                      // bytes step: already sent
    uint64_t body_pos;                     // body step: next offset to generate
    uint64_t piece_left;                   // body step in pieces: bytes left of this piece
    std::unique_ptr<unsigned char[]> buf;  // generated but unsent body bytes
    size_t buf_off, buf_len;
    long wake_ms;         // > 0: nothing to do before this time
    long reset_deadline;  // reset step: give up waiting for acknowledgements
};

}  // namespace

struct origin {
    origin_cfg cfg;
    int port;
    int lfd;
    int wakefd;
    std::thread thr;
    std::atomic<bool> stopping;
    bool running;  // the thread exists and has not been joined
    std::atomic<int> delay_ms;
    std::atomic<int> accepted;
    std::atomic<int> open_now;
    mutable std::mutex mu;  // guards reqs
    std::vector<origin_request> reqs;
};

namespace {

void close_conn(conn &c) {
    if (c.fd >= 0) close(c.fd);
    c.fd = -1;
    c.ph = phase::done;
}

// Sends as much of p as the socket takes. The count sent (0 on a full
// buffer), or -1 when the connection is gone.
ssize_t send_some(conn &c, const void *p, size_t len) {
    ssize_t n = send(c.fd, p, len, MSG_NOSIGNAL);
    if (n >= 0) return n;
    return errno == EAGAIN || errno == EINTR ? 0 : -1;
}

bool parse_num(std::string_view s, uint64_t *out) {
    if (s.empty()) return false;
    auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), *out);
    return ec == std::errc() && p == s.data() + s.size();
}

// Cuts the next "/"-ended segment off the front of s (which starts after a "/").
std::string_view next_seg(std::string_view *s) {
    size_t slash = s->find('/');
    std::string_view seg = s->substr(0, slash);
    *s = slash == std::string_view::npos ? std::string_view{} : s->substr(slash + 1);
    return seg;
}

void answer_plain(conn &c, int code, const std::string &text, bool head_only) {
    std::string h = mk_head(code, true, text.size(), false);
    c.steps.push_back(bytes_step(head_only ? h : h + text));
    c.steps.push_back(end_step(step_kind::fin));
}

// Turns a request path into the connection's steps.
void plan(conn &c, const origin *o, const std::string &method, std::string_view path) {
    bool head_only = method == "HEAD";
    if (method != "GET" && !head_only) return answer_plain(c, 405, "method not allowed\n", false);
    int delay = o->delay_ms.load();
    if (path.starts_with('/')) path.remove_prefix(1);
    for (int i = 0; i < k_max_delay_prefixes && path.starts_with("delay/"); ++i) {
        path.remove_prefix(6);
        uint64_t ms = 0;
        if (!parse_num(next_seg(&path), &ms) || ms > 600000)
            return answer_plain(c, 400, "bad delay\n", head_only);
        delay += int(ms);
    }
    if (delay > 0) c.steps.push_back(pause_step(delay));

    std::string_view kind = next_seg(&path);
    int nums = kind == "short" || kind == "long" || kind == "stall" ? 2 : kind == "zero" ? 0 : 1;
    if (kind != "f" && kind != "nolen" && kind != "zero" && kind != "status" && kind != "split" &&
        kind != "short" && kind != "long" && kind != "reset" && kind != "slow" && kind != "stall" &&
        kind != "once")
        return answer_plain(c, 404, "no such behaviour\n", head_only);
    uint64_t n[2] = {0, 0};
    for (int i = 0; i < nums; ++i)
        if (!parse_num(next_seg(&path), &n[i]))
            return answer_plain(c, 400, "bad number in path\n", head_only);
    if (path.empty()) return answer_plain(c, 400, "missing name\n", head_only);
    c.seed = name_seed(path);
    uint64_t size = n[0];
    auto body = [&](uint64_t to, int piece = 0, int pause = 0) {
        if (!head_only && to > 0) c.steps.push_back(body_step(0, to, piece, pause));
    };

    if (kind == "status") {
        int code = int(size);
        if (code < 100 || code > 599) return answer_plain(c, 400, "bad status code\n", head_only);
        if (bodiless(code)) {
            c.steps.push_back(bytes_step("HTTP/1.1 " + std::to_string(code) + " " + reason(code) +
                                         "\r\nConnection: close\r\n\r\n"));
            c.steps.push_back(end_step(step_kind::fin));
            return;
        }
        return answer_plain(c, code, "status " + std::to_string(code) + "\n", head_only);
    }
    if (kind == "zero") {
        c.steps.push_back(bytes_step(mk_head(200, true, 0, true)));
    } else if (kind == "nolen") {
        c.steps.push_back(bytes_step(mk_head(200, false, 0, true)));
        body(size);
    } else if (kind == "f" || kind == "split" || kind == "slow") {
        std::string h = mk_head(200, true, size, true);
        if (kind == "split") {
            size_t eol = h.find("\r\n") + 2;
            c.steps.push_back(bytes_step(h.substr(0, eol)));
            c.steps.push_back(pause_step(o->cfg.split_pause_ms));
            c.steps.push_back(bytes_step(h.substr(eol)));
        } else {
            c.steps.push_back(bytes_step(h));
        }
        if (kind == "slow")
            body(size, std::max(1, o->cfg.slow_piece), std::max(0, o->cfg.slow_pause_ms));
        else
            body(size);
    } else if (kind == "short" || kind == "stall") {
        c.steps.push_back(bytes_step(mk_head(200, true, size, true)));
        body(std::min(size, n[1]));
        if (kind == "stall") {
            c.steps.push_back(end_step(step_kind::hold));
            return;
        }
    } else if (kind == "long") {
        c.steps.push_back(bytes_step(mk_head(200, true, size, true)));
        body(size + n[1]);
    } else if (kind == "reset") {
        c.steps.push_back(bytes_step(mk_head(200, true, size, true)));
        body(size / 2);
        c.steps.push_back(end_step(step_kind::reset));
        return;
    } else if (kind == "once") {
        if (size > k_once_max) return answer_plain(c, 400, "too big for one write\n", head_only);
        std::string all = mk_head(200, true, size, true);
        if (!head_only) {
            size_t hl = all.size();
            all.resize(hl + size);
            fill_seeded(c.seed, 0, reinterpret_cast<unsigned char *>(all.data() + hl), size);
        }
        c.steps.push_back(bytes_step(std::move(all)));
    }
    c.steps.push_back(end_step(step_kind::fin));
}

// The request head is complete in c.in: record it and plan the answer.
void take_request(origin *o, conn &c, size_t head_len) {
    origin_request r;
    r.conn_id = c.id;
    r.head = c.in.substr(0, head_len);
    std::string_view line(r.head);
    line = line.substr(0, line.find_first_of("\r\n"));
    size_t sp1 = line.find(' ');
    size_t sp2 = sp1 == std::string_view::npos ? sp1 : line.find(' ', sp1 + 1);
    bool well_formed = sp1 != std::string_view::npos && sp2 != std::string_view::npos;
    r.method = std::string(line.substr(0, sp1));
    if (well_formed) r.target = std::string(line.substr(sp1 + 1, sp2 - sp1 - 1));
    size_t q = r.target.find('?');
    r.path = r.target.substr(0, q);
    if (q != std::string::npos) r.query = r.target.substr(q + 1);
    c.in.clear();
    c.in.shrink_to_fit();
    c.ph = phase::answer;
    if (!well_formed)
        answer_plain(c, 400, "malformed request line\n", false);
    else
        plan(c, o, r.method, r.path);
    std::lock_guard lk(o->mu);
    o->reqs.push_back(std::move(r));
}

void read_head(origin *o, conn &c) {
    char tmp[4096];
    for (int i = 0; i < 64; ++i) {  // bounded: the rest waits for the next pass
        ssize_t n = recv(c.fd, tmp, sizeof tmp, 0);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) return close_conn(c);
        if (n < 0) return;
        size_t old = c.in.size();
        c.in.append(tmp, size_t(n));
        size_t from = old > 3 ? old - 3 : 0;
        size_t end = c.in.find("\r\n\r\n", from);
        size_t head_len = end == std::string::npos ? 0 : end + 4;
        if (head_len == 0) {
            size_t lf = c.in.find("\n\n", from);
            if (lf != std::string::npos) head_len = lf + 2;
        }
        if (head_len > 0) return take_request(o, c, head_len);
        if (c.in.size() > k_head_max) {
            c.in.resize(k_head_max);
            c.ph = phase::answer;
            answer_plain(c, 431, "request head too long\n", false);
            return;
        }
    }
}

// Reads and discards what the client sends after its request; end of stream
// or an error tells that the client has gone.
void discard_input(conn &c) {
    char tmp[4096];
    for (int i = 0; i < 64; ++i) {
        ssize_t n = recv(c.fd, tmp, sizeof tmp, 0);
        if (n > 0) continue;
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
        if (n < 0) return close_conn(c);
        c.read_eof = true;
        if (c.ph == phase::drain) close_conn(c);
        return;
    }
}

// Moves the connection's answer forward as far as the socket and its timers
// allow, but by a bounded amount per call so that one fast reader does not
// starve the other connections; the loop then comes back through POLLOUT.
void advance(origin *o, conn &c, long now) {
    for (int guard = 0; guard < 16 && c.ph == phase::answer; ++guard) {
        if (c.wake_ms > 0) {
            if (c.wake_ms > now) return;
            c.wake_ms = 0;
        }
        if (c.cur >= c.steps.size()) return close_conn(c);  // every plan ends in fin, reset or hold
        step &s = c.steps[c.cur];
        switch (s.kind) {
            case step_kind::pause:
                ++c.cur;
                if (s.pause_ms > 0) {
                    c.wake_ms = now + s.pause_ms;
                    return;
                }
                break;
            case step_kind::bytes: {
                ssize_t n =
                    send_some(c, s.bytes.data() + c.bytes_off, s.bytes.size() - c.bytes_off);
                if (n < 0) return close_conn(c);
                c.bytes_off += size_t(n);
                if (c.bytes_off < s.bytes.size()) return;
                c.bytes_off = 0;
                s.bytes.clear();
                s.bytes.shrink_to_fit();
                ++c.cur;
                break;
            }
            case step_kind::body: {
                if (c.buf_len == 0) {
                    if (c.body_pos < s.from) c.body_pos = s.from;
                    if (c.body_pos >= s.to) {
                        ++c.cur;
                        c.body_pos = 0;
                        c.piece_left = 0;
                        c.buf.reset();
                        break;
                    }
                    if (s.piece > 0 && c.piece_left == 0) c.piece_left = uint64_t(s.piece);
                    uint64_t n = std::min<uint64_t>(k_chunk, s.to - c.body_pos);
                    if (s.piece > 0) n = std::min(n, c.piece_left);
                    if (!c.buf) c.buf = std::make_unique<unsigned char[]>(k_chunk);
                    fill_seeded(c.seed, c.body_pos, c.buf.get(), size_t(n));
                    c.buf_off = 0;
                    c.buf_len = size_t(n);
                    c.body_pos += n;
                    if (s.piece > 0) c.piece_left -= n;
                }
                ssize_t n = send_some(c, c.buf.get() + c.buf_off, c.buf_len);
                if (n < 0) return close_conn(c);
                c.buf_off += size_t(n);
                c.buf_len -= size_t(n);
                if (c.buf_len > 0) return;
                if (s.piece > 0 && c.piece_left == 0 && c.body_pos < s.to && s.pause_ms > 0) {
                    c.wake_ms = now + s.pause_ms;
                    return;
                }
                break;
            }
            case step_kind::fin:
                (void)shutdown(c.fd, SHUT_WR);
                c.ph = phase::drain;
                if (c.read_eof) close_conn(c);
                return;
            case step_kind::hold:
                c.ph = phase::drain;
                if (c.read_eof) close_conn(c);
                return;
            case step_kind::reset: {
                // Closing with unsent bytes queued would drop them along with
                // the reset, so the partial body is given time to be
                // acknowledged first.
                if (c.reset_deadline == 0) c.reset_deadline = now + o->cfg.reset_wait_ms;
                int outq = 0;
                if (ioctl(c.fd, SIOCOUTQ, &outq) == 0 && outq > 0 && now < c.reset_deadline) {
                    c.wake_ms = now + k_outq_poll_ms;
                    return;
                }
                linger lg{.l_onoff = 1, .l_linger = 0};
                (void)setsockopt(c.fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
                return close_conn(c);
            }
        }
    }
}

void accept_all(origin *o, std::vector<conn> &conns) {
    for (int i = 0; i < k_accept_batch; ++i) {
        int fd = accept4(o->lfd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        int one = 1;
        // Without this the second half of a split head could be held back
        // and merged with the first by Nagle's algorithm.
        (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        conn c{};
        c.fd = fd;
        c.id = ++o->accepted;
        c.ph = phase::head;
        c.wake_ms = 0;
        conns.push_back(std::move(c));
    }
}

void serve(origin *o) {
    std::vector<conn> conns;
    std::vector<pollfd> pfds;
    while (!o->stopping.load()) {
        long now = now_ms();
        int timeout = k_idle_poll_ms;
        pfds.clear();
        pfds.push_back({.fd = o->wakefd, .events = POLLIN, .revents = 0});
        pfds.push_back({.fd = o->lfd, .events = POLLIN, .revents = 0});
        for (conn &c : conns) {
            short ev = 0;
            if (!c.read_eof) ev |= POLLIN;
            if (c.ph == phase::answer && c.wake_ms == 0) ev |= POLLOUT;
            if (c.wake_ms > 0) timeout = std::min<long>(timeout, std::max(0L, c.wake_ms - now));
            pfds.push_back({.fd = c.fd, .events = ev, .revents = 0});
        }
        int r = poll(pfds.data(), pfds.size(), timeout);
        if (r < 0 && errno != EINTR) {
            fprintf(stderr, "origin: poll: %s\n", strerror(errno));
            break;
        }
        if (o->stopping.load()) break;
        now = now_ms();
        size_t known = conns.size();  // accept_all may add to conns below
        for (size_t i = 0; i < known; ++i) {
            conn &c = conns[i];
            short re = r > 0 ? pfds[i + 2].revents : 0;
            bool kick = false;
            if (c.ph == phase::head) {
                if (re & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) read_head(o, c);
                kick = c.ph == phase::answer;
            } else if (re & (POLLERR | POLLHUP | POLLNVAL)) {
                // A reset, or both directions shut: nothing more can be sent,
                // and the error would keep poll from ever blocking.
                close_conn(c);
                continue;
            } else if (re & POLLIN) {
                discard_input(c);
            }
            if (c.ph == phase::answer && ((re & POLLOUT) || (c.wake_ms > 0 && c.wake_ms <= now)))
                kick = true;
            if (kick && c.ph == phase::answer) advance(o, c, now);
        }
        if (r > 0 && (pfds[1].revents & POLLIN)) accept_all(o, conns);
        std::erase_if(conns, [](const conn &c) { return c.ph == phase::done; });
        o->open_now.store(int(conns.size()));
    }
    for (conn &c : conns) close_conn(c);
    o->open_now.store(0);
}

}  // namespace

origin *origin_start(const origin_cfg &cfg) {
    auto o = std::make_unique<origin>();
    o->cfg = cfg;
    o->lfd = o->wakefd = -1;
    o->delay_ms.store(cfg.delay_ms);
    o->lfd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (o->lfd < 0) {
        fprintf(stderr, "origin: socket: %s\n", strerror(errno));
        return nullptr;
    }
    int one = 1;
    // A restart on the port of a stopped server must not wait out TIME_WAIT.
    (void)setsockopt(o->lfd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(uint16_t(cfg.port));
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (bind(o->lfd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 ||
        listen(o->lfd, 512) != 0 ||
        getsockname(o->lfd, reinterpret_cast<sockaddr *>(&sa), &len) != 0) {
        fprintf(stderr, "origin: listen on 127.0.0.1:%d: %s\n", cfg.port, strerror(errno));
        close(o->lfd);
        return nullptr;
    }
    o->port = ntohs(sa.sin_port);
    o->wakefd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (o->wakefd < 0) {
        fprintf(stderr, "origin: eventfd: %s\n", strerror(errno));
        close(o->lfd);
        return nullptr;
    }
    origin *raw = o.get();
    o->thr = std::thread(serve, raw);
    o->running = true;
    return o.release();
}

void origin_stop(origin *o) {
    if (o == nullptr || !o->running) return;
    o->stopping.store(true);
    uint64_t one = 1;
    (void)!write(o->wakefd, &one, sizeof one);
    o->thr.join();
    o->running = false;
    close(o->lfd);
    close(o->wakefd);
    o->lfd = o->wakefd = -1;
}

void origin_destroy(origin *o) {
    origin_stop(o);
    delete o;
}

int origin_port(const origin *o) { return o->port; }

std::string origin_url(const origin *o, const std::string &path) {
    return "http://127.0.0.1:" + std::to_string(o->port) + path;
}

void origin_set_delay(origin *o, int delay_ms) { o->delay_ms.store(delay_ms); }

std::vector<origin_request> origin_requests(const origin *o) {
    std::lock_guard lk(o->mu);
    return o->reqs;
}

size_t origin_request_count(const origin *o, const std::string &part) {
    std::lock_guard lk(o->mu);
    return size_t(std::count_if(o->reqs.begin(), o->reqs.end(), [&](const origin_request &r) {
        return r.path.find(part) != std::string::npos;
    }));
}

int origin_connections(const origin *o) { return o->accepted.load(); }

int origin_open_connections(const origin *o) { return o->open_now.load(); }

bool origin_wait_requests(const origin *o, size_t n, int timeout_ms, const std::string &part) {
    long deadline = now_ms() + timeout_ms;
    for (int i = 0; i <= timeout_ms / k_wait_step_ms + 1; ++i) {
        if (origin_request_count(o, part) >= n) return true;
        if (now_ms() >= deadline) break;
        sleep_ms(k_wait_step_ms);
    }
    return origin_request_count(o, part) >= n;
}

bool origin_wait_idle(const origin *o, int timeout_ms) {
    long deadline = now_ms() + timeout_ms;
    for (int i = 0; i <= timeout_ms / k_wait_step_ms + 1; ++i) {
        if (o->open_now.load() == 0) return true;
        if (now_ms() >= deadline) break;
        sleep_ms(k_wait_step_ms);
    }
    return o->open_now.load() == 0;
}

uint8_t origin_byte(const std::string &name, uint64_t i) {
    return static_cast<uint8_t>(block_word(name_seed(name), i >> 3) >> (8 * (i & 7)));
}

void origin_fill(const std::string &name, uint64_t off, void *buf, size_t len) {
    fill_seeded(name_seed(name), off, static_cast<unsigned char *>(buf), len);
}

std::string origin_check_bytes(const void *data, size_t len, const std::string &name,
                               uint64_t off) {
    const auto *p = static_cast<const unsigned char *>(data);
    uint64_t seed = name_seed(name);
    unsigned char want[4096];
    for (size_t done = 0; done < len;) {
        size_t n = std::min(sizeof want, len - done);
        fill_seeded(seed, off + done, want, n);
        if (memcmp(p + done, want, n) != 0) {
            size_t k = 0;
            while (p[done + k] == want[k]) ++k;
            char msg[160];
            snprintf(msg, sizeof msg, "byte %llu of [%s]: got 0x%02x, expected 0x%02x",
                     static_cast<unsigned long long>(off + done + k), name.c_str(), p[done + k],
                     want[k]);
            return msg;
        }
        done += n;
    }
    return "";
}

std::string origin_expect_file(const std::string &path, const std::string &name, uint64_t size) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "cannot open [" + path + "]: " + strerror(errno);
    struct stat st {};
    std::string msg;
    if (fstat(fd, &st) != 0) {
        msg = "cannot stat [" + path + "]: " + strerror(errno);
    } else if (uint64_t(st.st_size) != size) {
        msg = "[" + path + "] has " + std::to_string(st.st_size) + " bytes, expected " +
              std::to_string(size);
    } else {
        auto buf = std::make_unique<unsigned char[]>(1 << 20);
        uint64_t off = 0;
        while (off < size && msg.empty()) {
            ssize_t n = read(fd, buf.get(), std::min<uint64_t>(1 << 20, size - off));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                msg = "[" + path + "] ended early at byte " + std::to_string(off);
                break;
            }
            msg = origin_check_bytes(buf.get(), size_t(n), name, off);
            off += uint64_t(n);
        }
        if (!msg.empty() && msg.starts_with("byte ")) msg = "[" + path + "]: " + msg;
    }
    close(fd);
    return msg;
}
