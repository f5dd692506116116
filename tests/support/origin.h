// origin: a test origin HTTP/1.1 server on 127.0.0.1 for the end-to-end tests.
// One thread per connection; the request path picks what the server sends,
// from well-formed bodies whose every byte can be checked to short, reset,
// stalled, split and slow answers. It records every request target.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Paths understood (a "?query" is recorded but plays no part in the choice):
//   /f/<size>/<name>             200, Content-Length: size, the body of name
//   /nolen/<size>/<name>         200 without Content-Length; body, end of stream
//   /zero/<name>                 200, Content-Length: 0
//   /status/<code>/<name>        that status (200-599), body "status <code>\n" (204: none)
//   /split/<size>/<name>         as /f, the status line alone, the rest 200 ms later
//   /short/<size>/<sent>/<name>  announces size, sends the first sent bytes, ends
//   /reset/<size>/<name>         announces size, sends size/2 bytes, waits for their
//                                acknowledgement, then resets
//   /slow/<size>/<name>          as /f, the body in 1 KiB pieces 10 ms apart
//   /stall/<size>/<sent>/<name>  announces size, sends sent bytes, then holds the
//                                connection until the client closes or a stop
//   /once/<size>/<name>          as /f, head and body in one write (size <= 16 MiB)
//   /long/<size>/<extra>/<name>  announces size, sends size + extra bytes
//   /fclose/<size>/<name>        as /f, always with "Connection: close"
//   /delay/<ms>/<any of these>   waits ms after the request head, then as that
// <name> is the rest of the path and may contain "/". Unknown paths get 404,
// malformed ones 400. A body answer's head is exactly
//   "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
//   "Content-Length: <size>\r\nConnection: close\r\n\r\n"
// (without Content-Length for /nolen). One request per connection (unless
// keep-alive is on, see origin_set_keepalive): after the
// answer the server half-closes and reads until the client closes.
struct origin;

// Starts a server on a free port of 127.0.0.1: the server, or null with the
// reason on stderr.
[[nodiscard]] origin *origin_start();
// Stops accepting, closes every connection, joins every thread. Idempotent;
// the request log stays readable. destroy also frees it (null is fine).
void origin_stop(origin *o);
void origin_destroy(origin *o);

// The port, and "http://127.0.0.1:<port>" followed by path (which should
// begin with "/").
int origin_port(const origin *o);
std::string origin_url(const origin *o, const std::string &path);

// The number of requests so far whose target (query included) contains
// part, and the head of the last request, up to its blank line.
size_t origin_request_count(const origin *o, const std::string &part = "");
std::string origin_last_head(const origin *o);

// Connections accepted and not yet closed; a bounded wait until there are
// none (every client has closed its side), true when so.
int origin_open_connections(const origin *o);
bool origin_wait_idle(const origin *o, int timeout_ms);

// Compares data with the start of name's body: empty, or "byte <n> of
// [<name>]: got 0x.., expected 0x..". Every name gives a different stream and
// every position matters, so shifted, swapped or mixed-up content is caught.
std::string origin_check_bytes(const void *data, size_t len, const std::string &name);
// The file at path against name's body of size bytes: empty when it
// matches, else what is wrong (missing, length, first bad byte).
std::string origin_expect_file(const std::string &path, const std::string &name, uint64_t size);

// Keep-alive (off at the start): a request that asks for it with
// "Connection: keep-alive" is answered so, and its connection serves up to
// max_requests requests in turn; the next one on it finds the connection
// closed without an answer. 0 turns it off again (for new connections).
void origin_set_keepalive(origin *o, int max_requests);
// Connections accepted since the start.
size_t origin_connections(const origin *o);
