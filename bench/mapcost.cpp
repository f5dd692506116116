// What it costs the kernel to land a body in a new file, by way of writing:
// the CPU time of one process that creates, reserves (fallocate), fills and
// renames `count` files of `kib` KiB on a tmpfs, the bytes coming from a
// stream socket fed by a child on the other CPU. See bench/README.md, "The
// mapped path".
//
//   mapcost KIB COUNT [DIR]      every way, one line each
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif

namespace {

enum way { RELAY, SPLICE, MAP_POPULATED, MAP_FAULTED, MAP_MADVISED, MAP_THROUGH_FD, WAYS };
const char *const NAMES[WAYS] = {
    "relay: read + write",
    "relay: splice through a pipe",
    "mapping, MAP_POPULATE, read into it",
    "mapping, faulted in by the reads",
    "mapping, MADV_POPULATE_WRITE, read into it",
    "mapping untouched, body through the descriptor",
};

char s_buf[1 << 20];

double cpu_now() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

bool read_full(int s, char *p, size_t n) {
    while (n > 0) {
        ssize_t r = read(s, p, n);
        if (r <= 0) return false;
        p += r;
        n -= size_t(r);
    }
    return true;
}

// Body from the socket to the file at its offset, through the buffer.
bool relay(int s, int fd, size_t n) {
    while (n > 0) {
        ssize_t r = read(s, s_buf, n < sizeof s_buf ? n : sizeof s_buf);
        if (r <= 0 || write(fd, s_buf, size_t(r)) != r) return false;
        n -= size_t(r);
    }
    return true;
}

bool splice_in(int s, int fd, const int pipe_fds[2], size_t n) {
    while (n > 0) {
        ssize_t r = splice(s, nullptr, pipe_fds[1], nullptr, n, SPLICE_F_MOVE);
        if (r <= 0) return false;
        for (ssize_t moved = 0; moved < r;) {
            ssize_t w = splice(pipe_fds[0], nullptr, fd, nullptr, size_t(r - moved), SPLICE_F_MOVE);
            if (w <= 0) return false;
            moved += w;
        }
        n -= size_t(r);
    }
    return true;
}

bool land(way w, int s, int fd, size_t len, const int pipe_fds[2]) {
    if (w == RELAY) return relay(s, fd, len);
    if (w == SPLICE) return splice_in(s, fd, pipe_fds, len);
    int flags = MAP_SHARED | MAP_NORESERVE | (w == MAP_POPULATED ? MAP_POPULATE : 0);
    void *m = mmap(nullptr, len, PROT_WRITE, flags, fd, 0);
    if (m == MAP_FAILED) return false;
    if (w == MAP_MADVISED) (void)madvise(m, len, MADV_POPULATE_WRITE);
    bool ok = w == MAP_THROUGH_FD ? relay(s, fd, len) : read_full(s, static_cast<char *>(m), len);
    ok = ok && msync(m, len, MS_ASYNC) == 0;
    return munmap(m, len) == 0 && ok;
}

void pin(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    (void)sched_setaffinity(0, sizeof set, &set);
}

// One way: count files, fed by a child writing len * count bytes. The CPU
// time per file in microseconds, or a negative number on failure.
double run(way w, size_t len, int count, const std::string &dir) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return -1;
    pid_t child = fork();
    if (child == 0) {
        pin(1);
        close(sv[0]);
        memset(s_buf, 'x', sizeof s_buf);
        for (size_t left = len * size_t(count); left > 0;) {
            ssize_t k = write(sv[1], s_buf, left < 65536 ? left : 65536);
            if (k <= 0) _exit(1);
            left -= size_t(k);
        }
        _exit(0);
    }
    close(sv[1]);
    pin(0);
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0) return -1;
    (void)fcntl(pipe_fds[1], F_SETPIPE_SZ, 1 << 20);
    bool ok = true;
    const double t0 = cpu_now();
    for (int i = 0; i < count && ok; ++i) {
        const std::string fin = dir + "/f" + std::to_string(i), tmp = fin + "-T";
        int fd = open(tmp.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644);
        ok = fd >= 0 && fallocate(fd, 0, 0, off_t(len)) == 0 && land(w, sv[0], fd, len, pipe_fds);
        ok = fd >= 0 && close(fd) == 0 && ok && rename(tmp.c_str(), fin.c_str()) == 0;
    }
    const double per_file = (cpu_now() - t0) * 1e6 / count;
    for (int i = 0; i < count; ++i) (void)unlink((dir + "/f" + std::to_string(i)).c_str());
    close(sv[0]);
    close(pipe_fds[0]);
    close(pipe_fds[1]);
    int status = 0;
    (void)waitpid(child, &status, 0);
    return ok ? per_file : -1;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: mapcost KIB COUNT [DIR]\n");
        return 2;
    }
    const size_t len = size_t(atol(argv[1])) << 10;
    const int count = atoi(argv[2]);
    const std::string dir = argc > 3 ? argv[3] : "/dev/shm/mapcost-" + std::to_string(getpid());
    if (len == 0 || count <= 0 || (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)) {
        fprintf(stderr, "mapcost: bad size, count or directory\n");
        return 2;
    }
    int rc = 0;
    for (int w = 0; w < WAYS; ++w) {
        double us = run(way(w), len, count, dir);
        if (us < 0) rc = 1;
        printf("%6zu KiB  %-48s %8.1f us/file\n", len >> 10, NAMES[w], us);
    }
    if (argc <= 3) (void)rmdir(dir.c_str());
    return rc;
}
