// origin: a test origin HTTP/1.1 server on 127.0.0.1 for the end-to-end tests.
// One thread runs a poll loop over many connections; the request path picks
// what the server sends, from well-formed bodies whose every byte can be
// checked to short, reset, stalled, split and slow answers. It records every
// request it receives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Paths understood (any "?query" is ignored for the choice but recorded):
//
//   /f/<size>/<name>             200, Content-Length: size, the body of name
//   /nolen/<size>/<name>         200 without Content-Length; body, then end of stream
//   /zero/<name>                 200, Content-Length: 0
//   /status/<code>/<name>        that status; body "status <code>\n" (none for
//                                1xx, 204 and 304)
//   /split/<size>/<name>         as /f, but the status line goes out alone and
//                                the rest of the head follows split_pause_ms later
//   /short/<size>/<sent>/<name>  announces size, sends the first sent bytes, ends
//   /long/<size>/<extra>/<name>  announces size, sends size + extra bytes, ends
//   /reset/<size>/<name>         announces size, sends the first size/2 bytes,
//                                waits for them to be acknowledged, then resets
//   /slow/<size>/<name>          as /f, the body in slow_piece-byte pieces with
//                                slow_pause_ms between them
//   /stall/<size>/<sent>/<name>  announces size, sends sent bytes, then sends
//                                nothing more and keeps the connection open
//                                until the client closes or the server stops
//   /once/<size>/<name>          as /f, head and body in one write (size <= 16 MiB)
//   /delay/<ms>/<any of these>   waits ms after the request head before answering
//
// <name> is the rest of the path as received (not decoded) and may contain
// "/"; the body is the name's byte stream (origin_byte). Unknown paths get 404,
// malformed numbers 400, methods other than GET and HEAD 405; HEAD gets the
// head alone. A body response's head is exactly
//   "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
//   "Content-Length: <size>\r\nConnection: close\r\n\r\n"
// (without the Content-Length line for /nolen). One request per connection:
// after the answer the server half-closes and reads until the client closes.

// Test-only records are built by value, never calloc'ed, so their defaults
// live in the members.
struct origin_cfg {
    int port = 0;              // 0 = a free port chosen by the kernel
    int delay_ms = 0;          // wait before every answer (added to /delay/)
    int split_pause_ms = 200;  // pause inside a /split head
    int slow_piece = 1024;     // bytes per /slow piece
    int slow_pause_ms = 10;    // pause between /slow pieces
    int reset_wait_ms = 2000;  // longest wait for /reset bytes to be acknowledged
};

struct origin_request {
    int conn_id;         // connection number, from 1 in accept order
    std::string method;  // "GET", ...
    std::string target;  // as received, with the query
    std::string path;    // target without the query
    std::string query;   // text after "?", empty when none
    std::string head;    // the raw head, up to and including the empty line
};

struct origin;  // opaque: a running (or stopped) server

// Starts a server on 127.0.0.1 (port from cfg, or a free one) and its thread.
// The server, or null with the reason on stderr.
[[nodiscard]] origin *origin_start(const origin_cfg &cfg = origin_cfg{});

// Stops the thread, closes the listener and every connection it accepted and
// joins. Idempotent; the request log and the port stay readable.
void origin_stop(origin *o);

// Stops the server if needed and frees it. Null is fine.
void origin_destroy(origin *o);

// The listening port (kept after a stop, so a test can restart on it).
int origin_port(const origin *o);

// "http://127.0.0.1:<port>" followed by path (which should begin with "/").
std::string origin_url(const origin *o, const std::string &path);

// Changes the server-wide answer delay for requests that arrive from now on.
void origin_set_delay(origin *o, int delay_ms);

// A copy of the request log, in arrival order. Thread-safe.
std::vector<origin_request> origin_requests(const origin *o);

// The number of requests whose path contains part (all with an empty part).
size_t origin_request_count(const origin *o, const std::string &part = "");

// Connections accepted since start, and those still open now.
int origin_connections(const origin *o);
int origin_open_connections(const origin *o);

// Waits up to timeout_ms until at least n requests whose path contains part
// have arrived. True when they have.
bool origin_wait_requests(const origin *o, size_t n, int timeout_ms, const std::string &part = "");

// Waits up to timeout_ms until no accepted connection is open (every client
// has closed its side). True when so.
bool origin_wait_idle(const origin *o, int timeout_ms);

// Byte i of the body served under name. Every name gives a different stream
// and every position within it matters, so shifted, swapped or mixed-up
// content is caught.
uint8_t origin_byte(const std::string &name, uint64_t i);

// Fills buf with the bytes [off, off + len) of name's body.
void origin_fill(const std::string &name, uint64_t off, void *buf, size_t len);

// Compares len bytes of data with name's body from offset off. Empty when they
// match, else a readable description of the first difference.
std::string origin_check_bytes(const void *data, size_t len, const std::string &name,
                               uint64_t off = 0);

// Checks the file at path byte for byte against name's body of size bytes.
// Empty when it matches, else what is wrong (missing, length, first bad byte).
std::string origin_expect_file(const std::string &path, const std::string &name, uint64_t size);
