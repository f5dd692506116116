// redis_server: starting, probing and stopping a test redis-server (see
// redis_server.h) through the child-process runner.
#include "redis_server.h"

#include <sys/socket.h>

#include <cstdio>
#include <cstring>

namespace {

redisContext *connect_to(int port, int ms) {
    timeval tv{.tv_sec = ms / 1000, .tv_usec = ms % 1000 * 1000};
    redisContext *c = redisConnectWithTimeout("127.0.0.1", port, tv);
    if (c != nullptr && c->err == 0 && redisSetTimeout(c, tv) == REDIS_OK) return c;
    if (c != nullptr) redisFree(c);
    return nullptr;
}

bool answers_ping(int port) {
    redisContext *c = connect_to(port, 200);
    auto *r = c != nullptr ? static_cast<redisReply *>(redisCommand(c, "PING")) : nullptr;
    bool ok = r != nullptr && r->type == REDIS_REPLY_STATUS && strcmp(r->str, "PONG") == 0;
    if (r != nullptr) freeReplyObject(r);
    if (c != nullptr) redisFree(c);
    return ok;
}

}  // namespace

int redis_server_start(redis_server *srv) {
    daemon_proc *p = &srv->proc;
    if (p->dir.empty() && daemon_init(p, daemon_find_program("redis-server")) != 0) return -1;
    // A free port may be taken before the server binds it; then another try.
    for (int attempt = 0; attempt < 3; ++attempt) {
        srv->port = pick_free_port(SOCK_STREAM);
        if (daemon_start(p, {"--port", std::to_string(srv->port), "--bind", "127.0.0.1", "--save",
                             "", "--appendonly", "no", "--dir", p->dir, "--daemonize", "no",
                             "--logfile", p->err_path}) != 0)
            return -1;
        if (wait_until(10000, [&] { return !daemon_running(p) || answers_ping(srv->port); }) &&
            daemon_running(p))
            return 0;
        (void)daemon_stop(p);
        fprintf(stderr, "redis_server: no answer on port %d:\n%s", srv->port,
                daemon_read_file(p->err_path).c_str());
    }
    return -1;
}

int redis_server_stop(redis_server *srv) { return daemon_stop(&srv->proc); }

void redis_server_destroy(redis_server *srv) {
    daemon_destroy(&srv->proc);
    srv->port = 0;
}

redisContext *redis_server_client(const redis_server *srv) {
    redisContext *c = connect_to(srv->port, 2000);
    if (c == nullptr) fprintf(stderr, "redis_server: cannot connect to port %d\n", srv->port);
    return c;
}

int redis_server_load_lbdb(const redis_server *srv, const char *src_dir, const char *sha_dir) {
    std::string out, err;
    int rc = daemon_run(daemon_find_program("bash"),
                        {std::string(src_dir) + "/scripts/lbdb-load", "127.0.0.1",
                         std::to_string(srv->port), sha_dir},
                        30000, &out, &err);
    if (rc == 0) return 0;
    fprintf(stderr, "redis_server: lbdb-load failed (%d):\n%s%s", rc, out.c_str(), err.c_str());
    return -1;
}
