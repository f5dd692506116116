// fwait: waits for an ordered file to appear under its final name in the
// data directory (the daemon renames it into place when the last byte is
// in). Owns one inotify descriptor, watching the deepest directory of the
// file's path that exists so far and moving deeper as the daemon makes them.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <ctime>

constexpr size_t FW_PATH_SIZE = 4096;

struct fw_ctx {
    int ifd;                  // inotify descriptor; -1 = none
    int wd;                   // the current watch; -1 = none
    char path[FW_PATH_SIZE];  // "<data_dir>/<rel>"
    size_t base_len;          // length of "<data_dir>" in path
    size_t watched_len;       // length of the watched directory's prefix of path; 0 = none
    timespec start;           // CLOCK_MONOTONIC at fw_mark; the time taken counts from it
};

// Prepares the wait for "<data_dir>/<rel>" and marks the start. data_dir must
// be a directory and the file must not exist yet. 0; 2 data_dir is missing;
// 20 it is not a directory; 17 the file is already there; 36 the path is too
// long; -1 inotify failed. why gets the reason; fw_close is safe either way.
[[nodiscard]] int fw_open(fw_ctx *w, const char *data_dir, const char *rel, char *why,
                          size_t why_size);

// Restarts the clock: call it just before the order goes out.
void fw_mark(fw_ctx *w);

// Waits until the file exists as a regular file, or until timeout_ms after
// the mark. With progress_fd >= 0, a single line there shows the time
// elapsed, rewritten in place and cleared at the end (for a terminal). 0 with
// the file's size and the time since the mark in ms; 62 at the deadline.
[[nodiscard]] int fw_wait(fw_ctx *w, long timeout_ms, int progress_fd, long long *size,
                          long *elapsed_ms);

// Closes the inotify descriptor. Safe after a failed fw_open and twice.
void fw_close(fw_ctx *w);
