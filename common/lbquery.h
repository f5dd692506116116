// lbquery: the client of the load-balancer DB, a Redis server that keeps, per
// segment, the URLs it can be fetched from. Owns the one process-wide
// connection, the digests of the server-side scripts it runs with EVALSHA and
// the reply buffer of the segment URL operations. Reactor thread only.
#pragma once

#include <hiredis/hiredis.h>
#include <libconfig.h>
#include <sys/time.h>

#include <cstddef>
#include <ctime>
#include <type_traits>

constexpr size_t LBDB_HOST_SIZE = 128;
constexpr size_t LBDB_PATH_SIZE = 128;
constexpr size_t LBDB_SHA_SIZE = 42;      // a 40-digit digest, its terminator and a spare byte
constexpr size_t LBDB_REPLY_SIZE = 1024;  // the operations' shared reply buffer
constexpr int LBDB_CONNECT_TMOUT_MS = 500;

// need_func bits: which scripts a process runs, and so which digests it reads
// and verifies. The engine needs LBDB_FN_ADD only.
constexpr int LBDB_FN_NEXT = 1;
constexpr int LBDB_FN_ADD = 2;
constexpr int LBDB_FN_DEL = 4;
constexpr int LBDB_FN_MBGET = 8;
constexpr int LBDB_FN_CLAIM = 16;  // the order claim and release scripts, together

// lbdb_init opts bits. LBDB_OPT_STAY passes "-S" to the get scripts, which
// then answer without moving the segment's round-robin cursor.
constexpr int LBDB_OPT_STAY = 1;

// The "trov.lbdb" section. Plain record: lives inside the configuration record
// and is copied with memcpy.
struct lbdb_cfg {
    char host[LBDB_HOST_SIZE];
    int port;  // 0 = the DB is not used
    char sha1_path[LBDB_PATH_SIZE];
    struct timeval tmout;  // connect time-out
};
static_assert(std::is_trivially_copyable_v<lbdb_cfg> && std::is_standard_layout_v<lbdb_cfg>);

// Fills cfg from a "trov.lbdb" setting: host and sha1_dir are required (127
// characters at most), port defaults to 0, connect_tmout_ms to 500. The
// record is cleared first. 0, or -1 after an error line.
[[nodiscard]] int load_lbdb_cfg(config_setting_t *section, lbdb_cfg *cfg);

// Reads the digest of every script named in need_func (LBDB_FN_* bits) from
// "<sha1_dir>/<script>.sha1" and prepares the call options. Must not be called
// twice without lbdb_destroy in between (fatal assertion). 0; 34 when
// sha1_dir has 128 characters or more; -1 or the first failing read's code,
// after which the client is destroyed again.
[[nodiscard]] int lbdb_init(const char *sha1_dir, int need_func, int opts);

// Connects with tmout bounding the connect and asks the server whether each
// needed script is loaded. Needs lbdb_init and no connection (fatal
// assertions); an empty needed digest is a fatal assertion too. 0 when
// connected with every script present; -1 when the server cannot be reached;
// otherwise the first non-zero check_script_exists code (2 = a script is not
// loaded), with the connection closed again.
[[nodiscard]] int lbdb_connect(const char *host, int port, struct timeval tmout);

// Closes the connection, if any. The digests stay; lbdb_connect may follow.
void lbdb_disconnect();

// Disconnects and forgets everything, so that lbdb_init may run again.
void lbdb_destroy();

// Reads the digest in "<dir>/<file>" into sha (cap bytes), and checks it on
// the server when connected. 0, or -1 / the code of the read or the check.
[[nodiscard]] int verify_db_script(const char *dir, const char *file, char *sha, size_t cap);

// Reads the first line of path into buf, at most cap - 2 characters, and cuts
// a trailing newline. A line of fewer than 39 or more than 48 characters (its
// newline counted) is refused with -1; so is a file that cannot be opened.
// An empty file is logged but gives 0 with buf unchanged.
[[nodiscard]] int read_sha_signature(const char *path, char *buf, int cap);

// Asks the server whether the script sha is loaded. Needs a connection (fatal
// assertion). 0 loaded, 2 not loaded, -1 no reply or a Redis error, 22 a reply
// of an unexpected shape.
[[nodiscard]] int check_script_exists(const char *sha);

// Copies the text of a string reply, or of the one string of a one-element
// array reply, into buf and terminates it. A string of up to cap bytes fits,
// its terminator at buf[cap]: pass one less than the buffer's size. The
// string inside an array is never refused for its length: a longer one is
// cut to its first cap bytes. 0; 34 too long (a plain string only); 22 wrong
// shape; -1 a status or error reply.
[[nodiscard]] int reply_to_str(const redisReply *reply, char *buf, size_t cap);

// Registers url for segment id until expiry (seconds of the epoch) with the
// add script. Needs LBDB_FN_ADD and a connection (fatal assertions). 0 when
// the script answered "OK <id>"; -1 for no reply (a lost connection), another
// identifier or a failure text; or reply_to_str's code.
[[nodiscard]] int lbdb_add_segurl(const char *id, const char *url, time_t expiry);

// Claims order id for claimant with the claim script, for ttl_ms unless
// released. Needs LBDB_FN_CLAIM (fatal assertion). 0 when the claim is ours;
// 16 when another claimant holds it; -1 when no claim could be made (not
// connected, no reply, an error reply such as a script the server lost, an
// answer of another shape), with the reason in why (cap bytes, cut to fit).
[[nodiscard]] int lbdb_claim_order(const char *id, const char *claimant, long ttl_ms, char *why,
                                   size_t cap);

// Gives order id's claim back, if claimant still holds it. Needs
// LBDB_FN_CLAIM. 0 released; 2 not held by claimant (expired, or another's);
// -1 no answer or an error, logged.
int lbdb_release_order(const char *id, const char *claimant);

// Removes url from segment id with the delete script. Needs LBDB_FN_DEL and a
// connection. 0 when the answer begins with "OK ", -1 for no reply or a
// failure text, or reply_to_str's code (answers are bounded to 127 bytes).
[[nodiscard]] int lbdb_del_segurl(const char *id, const char *url);

// Asks the next-URL script for segment id's next URL in round-robin order and
// writes it into url (a buffer of cap bytes, cap >= 2). The call options are
// the script's one argument. 0; -1 for no reply or a "#err: " answer (url is
// then empty); or reply_to_str's code.
[[nodiscard]] int lbdb_rr_get_segurl(const char *id, char *url, size_t cap);

// The multi-bucket get: buckets is a comma-separated list of URL authorities
// in order of preference (empty = any), selector a text that picks the same
// URL among a bucket's URLs while they stay the same; the call options follow.
// Needs LBDB_FN_MBGET. The command is logged with the multi-bucket digest but
// sent with the next-URL digest, so the server runs the round-robin script
// with these arguments; callers get a round-robin answer. Results as
// lbdb_rr_get_segurl.
[[nodiscard]] int lbdb_mb_get_segurl(const char *id, const char *buckets, const char *selector,
                                     char *url, size_t cap);
