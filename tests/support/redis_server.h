// redis_server: a throw-away redis-server for tests, in the foreground on a
// free 127.0.0.1 port without persistence, in a private directory of the
// runner (see daemon.h); stopped by its PID, and it dies with the test.
#pragma once

#include <hiredis/hiredis.h>

#include "daemon.h"

struct redis_server {
    daemon_proc proc;  // the server process; its log is proc.err_path
    int port;          // kept after a stop, so a test can aim at a dead port
};

// Starts redis-server from PATH and waits up to 10 seconds until it answers
// PING. 0, or -1 with the reason on stderr (and nothing left running).
[[nodiscard]] int redis_server_start(redis_server *srv);
// Stops and reaps the server (SIGTERM, 5 seconds, SIGKILL); its directory
// stays. The wait status, or -1 when it was not running or had to be killed.
int redis_server_stop(redis_server *srv);
// Stops the server if it runs and removes its directory.
void redis_server_destroy(redis_server *srv);

// A fresh blocking connection to the server, or null. Free it with redisFree.
redisContext *redis_server_client(const redis_server *srv);

// Loads the load-balancer DB scripts with <src_dir>/scripts/lbdb-load, their
// digest files left in sha_dir. 0, or -1 with the loader's output on stderr.
[[nodiscard]] int redis_server_load_lbdb(const redis_server *srv, const char *src_dir,
                                         const char *sha_dir);
