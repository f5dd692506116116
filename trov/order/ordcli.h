// ordcli: the trov-order command: reads the command line, builds the order
// (order.h), sends it over HTTP or UDP, reports the answer and, when asked,
// waits for the file (fwait.h). Messages go to stderr, results to stdout.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string_view>

// Exit statuses of the command.
constexpr int ORDCLI_OK = 0;       // answered 200 or 204 / sent; with a wait, the file is there
constexpr int ORDCLI_FAILED = 1;   // another answer, no answer, a network error, a file in the way
constexpr int ORDCLI_REFUSED = 2;  // a bad command line, or an order the daemon would reject
constexpr int ORDCLI_TIMEOUT = 3;  // no answer or no file before the time-out

constexpr size_t ORDCLI_HOST_SIZE = 256;
constexpr size_t ORDCLI_PORT_SIZE = 6;

// The whole command; the exit status.
int ordcli_main(int argc, char **argv);

// Splits "HOST:PORT" or "[IPv6]:PORT" into host and port (1 to 65535,
// digits only). 0, or 22 when either part is missing, bad or too long.
[[nodiscard]] int ordcli_parse_endpoint(const char *text, char *host, size_t host_size, char *port,
                                        size_t port_size);

// Reads "--timeout SECONDS" (a positive number, fractions allowed, at most a
// week) into milliseconds. 0 or 22.
[[nodiscard]] int ordcli_parse_timeout(const char *text, long *ms);

// Prints the operator's summary of a metrics exposition (the body of
// GET /metrics on the daemon's admin listener) to fp. 0, or 22 when text
// holds none of the daemon's metrics.
int ordcli_print_stats(std::string_view text, FILE *fp);

// Writes the full help text to fp.
void ordcli_usage(FILE *fp);
