// origin: the test origin server (see origin.h). One thread per connection
// answers with blocking calls; a stop shuts every socket down, which ends
// them, and wakes every pause, so no thread outlives origin_stop.
#include "origin.h"

#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>

#include "daemon.h"

namespace {

constexpr long k_max_rounds = 1 << 20;  // bounds every loop that waits on a peer
constexpr size_t k_head_max = 16384;    // a longer request head ends the connection
constexpr size_t k_chunk = 64 * 1024;   // body bytes made per write

uint64_t name_seed(std::string_view name) {
    uint64_t h = 0xcbf29ce484222325ull;  // FNV-1a: every byte of the name counts
    for (unsigned char c : name) h = (h ^ c) * 0x100000001b3ull;
    return h;
}

// One splitmix64 word per 8 body bytes: every input bit reaches every output
// bit, so neighbouring blocks and names look unrelated, and hundreds of MiB
// cost little next to the socket writes.
unsigned char body_byte(uint64_t seed, uint64_t pos) {
    uint64_t z = seed + (pos >> 3) * 0x9e3779b97f4a7c15ull;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return static_cast<unsigned char>((z ^ (z >> 31)) >> (8 * (pos & 7)));
}

void fill(uint64_t seed, uint64_t off, char *out, size_t len) {
    for (size_t i = 0; i < len; ++i) out[i] = static_cast<char>(body_byte(seed, off + i));
}

struct conn {
    int fd;  // -1 once closed; guarded by origin::mu, as done is
    std::thread thr;
    bool done;
};

}  // namespace

struct origin {
    int port = 0;
    int lfd = -1;
    bool stopping = false;  // guarded by mu
    std::thread acceptor;
    mutable std::mutex mu;          // guards conns' descriptors and flags, reqs and last_head
    std::condition_variable wake;   // ends every pause at a stop
    std::list<conn> conns;          // a list: each thread keeps a pointer to its entry
    std::vector<std::string> reqs;  // request targets
    std::string last_head;          // the last request head, as received
    int ka_max = 0;                 // requests per kept-alive connection; 0 = keep-alive off
    size_t accepted = 0;            // connections accepted since the start
};

namespace {

// Sleeps ms unless the server stops first; false when it stops.
bool nap(origin *o, int ms) {
    std::unique_lock lk(o->mu);
    return !o->wake.wait_for(lk, std::chrono::milliseconds(ms), [o] { return o->stopping; });
}

// A blocking send stops short only on an error (a stop's shutdown included)
// or a signal, and this thread takes no signals.
bool send_all(int fd, std::string_view s) {
    return send(fd, s.data(), s.size(), MSG_NOSIGNAL) == ssize_t(s.size());
}

// Reads some of what the client sends into buf (dropped when null); false
// once the client has closed or failed, or the server stops.
bool read_some(int fd, std::string *buf) {
    char tmp[4096];
    ssize_t n = -1;
    for (int i = 0; i < 100 && (n = recv(fd, tmp, sizeof tmp, 0)) < 0 && errno == EINTR; ++i) {
    }
    if (n > 0 && buf != nullptr) buf->append(tmp, size_t(n));
    return n > 0;
}

bool send_body(origin *o, int fd, uint64_t seed, uint64_t to, bool slow) {
    auto buf = std::make_unique<char[]>(k_chunk);
    for (uint64_t pos = 0; pos < to;) {
        size_t n = size_t(std::min<uint64_t>(slow ? 1024 : k_chunk, to - pos));
        fill(seed, pos, buf.get(), n);
        if (!send_all(fd, {buf.get(), n})) return false;
        pos += n;
        if (slow && pos < to && !nap(o, 10)) return false;
    }
    return true;
}

// The daemon sets its own reason phrases, so these need not be right.
std::string mk_head(int code, uint64_t size, bool has_len, bool keep = false) {
    return "HTTP/1.1 " + std::to_string(code) + (code == 200 ? " OK" : " Error") +
           "\r\nContent-Type: application/octet-stream\r\n" +
           (has_len ? "Content-Length: " + std::to_string(size) + "\r\n" : "") +
           (keep ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n");
}

// Cuts the next "/"-ended segment off the front of s as a number; false when it is none.
bool next_num(std::string_view *s, uint64_t *out) {
    std::string_view seg = s->substr(0, s->find('/'));
    s->remove_prefix(std::min(s->size(), seg.size() + 1));
    auto [p, ec] = std::from_chars(seg.data(), seg.data() + seg.size(), *out);
    return !seg.empty() && ec == std::errc() && p == seg.data() + seg.size();
}

enum class ending { fin, hold, reset, gone };

// An answer whose body is text rather than a stream; a 204 has none.
ending plain(int fd, int code, const std::string &text, bool keep = false) {
    return send_all(fd, mk_head(code, text.size(), code != 204, keep) + text) ? ending::fin
                                                                              : ending::gone;
}

// Sends the answer the path asks for; how the connection is to end. With
// keep, a whole answer says "Connection: keep-alive" (but "fclose" never).
ending answer(origin *o, int fd, std::string_view path, bool keep) {
    uint64_t n[2] = {0, 0};
    if (path.starts_with("/delay/")) {
        path.remove_prefix(7);
        if (!next_num(&path, &n[0]) || n[0] > 600000) return plain(fd, 400, "bad delay\n");
        if (!nap(o, int(n[0]))) return ending::gone;
    }
    path.remove_prefix(path.starts_with('/') ? 1 : 0);
    std::string_view kind = path.substr(0, path.find('/'));
    path.remove_prefix(std::min(path.size(), kind.size() + 1));
    static constexpr std::pair<std::string_view, int> k_kinds[] = {
        {"f", 1},     {"nolen", 1}, {"zero", 0},  {"status", 1}, {"split", 1}, {"short", 2},
        {"reset", 1}, {"slow", 1},  {"stall", 2}, {"once", 1},   {"long", 2},  {"fclose", 1}};
    auto k = std::find_if(std::begin(k_kinds), std::end(k_kinds),
                          [&](const auto &e) { return e.first == kind; });
    if (k == std::end(k_kinds)) return plain(fd, 404, "no such behaviour\n");
    for (int i = 0; i < k->second; ++i)
        if (!next_num(&path, &n[i])) return plain(fd, 400, "bad number in path\n");
    if (path.empty()) return plain(fd, 400, "missing name\n");
    if (kind == "status")
        return n[0] < 200 || n[0] > 599 ? plain(fd, 400, "bad status code\n")
               : n[0] == 204            ? plain(fd, 204, "")
                             : plain(fd, int(n[0]), "status " + std::to_string(n[0]) + "\n", keep);
    uint64_t seed = name_seed(path), size = n[0];
    std::string head = mk_head(200, size, kind != "nolen", keep && kind != "fclose");
    if (kind == "once") {
        if (size > 16u << 20) return plain(fd, 400, "too big for one write\n");
        size_t hl = head.size();
        head.resize(hl + size);
        fill(seed, 0, head.data() + hl, size);
        return send_all(fd, head) ? ending::fin : ending::gone;
    }
    if (kind == "split") {
        size_t eol = head.find("\r\n") + 2;
        if (!send_all(fd, head.substr(0, eol)) || !nap(o, 200)) return ending::gone;
        head.erase(0, eol);
    }
    uint64_t body = kind == "short" || kind == "stall" ? std::min(size, n[1])
                    : kind == "reset"                  ? size / 2
                    : kind == "long"                   ? size + n[1]
                                                       : size;
    if (!send_all(fd, head) || !send_body(o, fd, seed, body, kind == "slow")) return ending::gone;
    return kind == "stall" ? ending::hold : kind == "reset" ? ending::reset : ending::fin;
}

void serve_conn(origin *o, conn *c) {
    int fd = c->fd;
    std::string in;
    ending e = ending::gone;
    int ka_max = 0;
    {
        std::lock_guard lk(o->mu);
        ka_max = o->ka_max;
    }
    // One request, or with keep-alive up to ka_max in turn; one more on the
    // same connection finds it closed without an answer, as when an origin
    // drops an idle connection just as the client reuses it.
    for (int served = 0; served <= ka_max; ++served) {
        size_t end = std::string::npos;
        while ((end = in.find("\r\n\r\n")) == std::string::npos && in.size() <= k_head_max &&
               read_some(fd, &in)) {
        }
        if (end == std::string::npos) break;
        std::string_view line(in.data(), in.find("\r\n"));
        size_t sp1 = line.find(' '), sp2 = line.find(' ', sp1 + 1);
        std::string target(sp2 == line.npos ? "" : line.substr(sp1 + 1, sp2 - sp1 - 1));
        const std::string head = in.substr(0, end + 4);
        in.erase(0, end + 4);
        {
            std::lock_guard lk(o->mu);
            o->reqs.push_back(target);
            o->last_head = head;
        }
        if (served == ka_max && served > 0) {
            e = ending::gone;
            break;
        }
        const bool keep = ka_max > 0 && head.find("Connection: keep-alive") != std::string::npos;
        e = target.empty()
                ? plain(fd, 400, "malformed request line\n")
                : answer(o, fd, std::string_view(target).substr(0, target.find('?')), keep);
        // A short body ends its connection, or the client would wait for the rest.
        const bool kept = keep && e == ending::fin &&
                          target.find("/fclose/") == std::string::npos &&
                          target.find("/short/") == std::string::npos &&
                          target.find("/nolen/") == std::string::npos;
        if (!kept) break;
    }
    if (e == ending::reset) {
        // Closing with unsent bytes queued would drop them along with the
        // reset, so the partial body is given time to be acknowledged first.
        int outq = 0;
        for (int i = 0; i < 1000 && ioctl(fd, SIOCOUTQ, &outq) == 0 && outq > 0; ++i)
            if (!nap(o, 2)) break;
        linger lg{.l_onoff = 1, .l_linger = 0};
        (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    } else if (e != ending::gone) {
        if (e == ending::fin) (void)shutdown(fd, SHUT_WR);
        for (long i = 0; i < k_max_rounds && read_some(fd, nullptr); ++i) {
        }
    }
    std::lock_guard lk(o->mu);
    close(fd);  // under the lock, so that a stop never shuts down a reused number
    c->fd = -1;
    c->done = true;
}

void accept_loop(origin *o) {
    for (long t = 0; t < k_max_rounds; ++t) {
        int fd = accept4(o->lfd, nullptr, nullptr, SOCK_CLOEXEC);  // a stop's shutdown ends it
        std::lock_guard lk(o->mu);
        if (o->stopping) {
            if (fd >= 0) close(fd);
            return;
        }
        if (fd >= 0) {
            int one = 1;
            // Without it the second part of a split head could be held back
            // and merged with the first by Nagle's algorithm.
            (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            ++o->accepted;
            conn &c = o->conns.emplace_back();
            c.fd = fd;
            c.thr = std::thread(serve_conn, o, &c);
        }
        std::erase_if(o->conns, [](conn &c) {
            if (c.done) c.thr.join();  // it only has to return: done is its last store
            return c.done;
        });
    }
}

}  // namespace

origin *origin_start() {
    auto o = std::make_unique<origin>();
    o->lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (o->lfd < 0 || bind(o->lfd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 ||
        listen(o->lfd, 512) != 0 ||
        getsockname(o->lfd, reinterpret_cast<sockaddr *>(&sa), &len) != 0) {
        fprintf(stderr, "origin: listen on 127.0.0.1: %s\n", strerror(errno));
        if (o->lfd >= 0) close(o->lfd);
        return nullptr;
    }
    o->port = ntohs(sa.sin_port);
    o->acceptor = std::thread(accept_loop, o.get());
    return o.release();
}

void origin_stop(origin *o) {
    if (o == nullptr || !o->acceptor.joinable()) return;
    {
        // Held, so that no pause misses the wake-up and no connection is
        // added after the shutdowns.
        std::lock_guard lk(o->mu);
        o->stopping = true;
        for (conn &c : o->conns)
            if (c.fd >= 0) (void)shutdown(c.fd, SHUT_RDWR);
    }
    o->wake.notify_all();
    (void)shutdown(o->lfd, SHUT_RDWR);
    o->acceptor.join();
    for (conn &c : o->conns) c.thr.join();
    close(o->lfd);
}

void origin_destroy(origin *o) {
    origin_stop(o);
    delete o;
}

int origin_port(const origin *o) { return o->port; }

std::string origin_url(const origin *o, const std::string &path) {
    return "http://127.0.0.1:" + std::to_string(o->port) + path;
}

std::string origin_last_head(const origin *o) {
    std::lock_guard lk(o->mu);
    return o->last_head;
}

size_t origin_request_count(const origin *o, const std::string &part) {
    std::lock_guard lk(o->mu);
    return size_t(std::count_if(o->reqs.begin(), o->reqs.end(), [&](const std::string &t) {
        return t.find(part) != std::string::npos;
    }));
}

int origin_open_connections(const origin *o) {
    std::lock_guard lk(o->mu);
    return int(
        std::count_if(o->conns.begin(), o->conns.end(), [](const conn &c) { return c.fd >= 0; }));
}

bool origin_wait_idle(const origin *o, int timeout_ms) {
    return wait_until(timeout_ms, [o] { return origin_open_connections(o) == 0; });
}

std::string origin_check_bytes(const void *data, size_t len, const std::string &name) {
    const auto *p = static_cast<const unsigned char *>(data);
    uint64_t seed = name_seed(name);
    for (size_t i = 0; i < len; ++i) {
        if (unsigned char want = body_byte(seed, i); p[i] != want) {
            char msg[160];
            snprintf(msg, sizeof msg, "byte %zu of [%s]: got 0x%02x, expected 0x%02x", i,
                     name.c_str(), p[i], want);
            return msg;
        }
    }
    return "";
}

std::string origin_expect_file(const std::string &path, const std::string &name, uint64_t size) {
    if (access(path.c_str(), R_OK) != 0) return "cannot open [" + path + "]";
    std::string data = daemon_read_file(path), bad;
    if (data.size() != size)
        return "[" + path + "] has " + std::to_string(data.size()) + " bytes, expected " +
               std::to_string(size);
    bad = origin_check_bytes(data.data(), data.size(), name);
    return bad.empty() ? bad : "[" + path + "]: " + bad;
}

void origin_set_keepalive(origin *o, int max_requests) {
    std::lock_guard lk(o->mu);
    o->ka_max = max_requests;
}

size_t origin_connections(const origin *o) {
    std::lock_guard lk(o->mu);
    return o->accepted;
}
