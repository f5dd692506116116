// main: the daemon's start-up and shut-down, and the callbacks through which
// the reactor reaches the engine, the requests, the listeners and the UDP
// channel (routed by the 4-character tag every registered object begins
// with), plus the idle work between events.
#pragma once

#include <ctime>

// The whole program: start, run the loop, shut down. The exit status.
int trov_main(int argc, char **argv);

// Prints the option guide to stderr and exits with status.
[[noreturn]] void usage(int status);
// Both option passes around the configuration load. 0, or exits with 1.
int setup_config(int argc, char **argv);
// Signals, daemon mode, user, log file, pid file, cores, CPU pin. 0 or rc.
int runtime_setup();
// Reactor, web listeners, UDP channel. 0 or the first failing step's rc.
int app_start();
void app_shutdown();

// Reactor callbacks.
int on_read(int fd, int err, void *udata, void *aux);
int on_write(int fd, int err, void *udata, void *aux);
int on_error(int fd, int err, void *udata, void *aux);
int on_srv_accept(int fd, int err, void *srv, void *aux);
void upd_tmout(timespec *ts);
int on_pp();
int do_idle_tasks();
// Whether SIGUSR2 has put every module at debug level.
bool is_debug_mode();
