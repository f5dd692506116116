#!/usr/bin/env python3
"""Loopback benchmark of the trov daemon against curl, wget and aria2c.

Started by bench/run, which installs the tools and builds the binaries. This
helper owns everything else: a private origin (nginx, one worker, files on
tmpfs), the generated files, the daemons under test, the peers, the checks of
every downloaded file, the summary table and the raw JSON figures.

Pinning: the origin runs on the second CPU, every client (the daemon with its
order driver, or a peer) on the first; for the ping-rate scenario the server
under test gets the first CPU and the load generator (wrk) the second.
"""

import argparse
import datetime
import json
import os
import platform
import re
import select
import shutil
import signal
import socket
import statistics
import struct
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(HERE)
PAGE = 4096
KiB, MiB, GiB = 1 << 10, 1 << 20, 1 << 30
CLK_TCK = os.sysconf("SC_CLK_TCK")
PERF_HZ = 4000  # bench/perf_summary.py assumes the same
QUIET_CPUS = 0.15  # machine load (in CPUs) under which a run starts at once
QUIET_WAIT_RUN = 15  # seconds one run waits at most for a quieter machine
NOISY_CPUS = 0.25  # other load above which a run counts as disturbed

# ---------------------------------------------------------------- content
# Every 4 KiB page of a generated file starts with (file id, page index) and
# continues with a slice of a fixed pattern chosen by the page index, so a
# sampled byte tells a misplaced, stale or foreign page from the right one.


def _pattern():
    x, out = 0x9E3779B97F4A7C15, bytearray()
    while len(out) < 2 * PAGE:
        x = (x * 6364136223846793005 + 1442695040888963407) & (2**64 - 1)
        out += struct.pack("<Q", x)
    return bytes(out)


PAT = _pattern()


def page_bytes(fid, page):
    off = (page * 131) % PAGE
    return struct.pack("<QQ", fid, page) + PAT[off : off + PAGE - 16]


def gen_file(path, fid, size):
    with open(path, "wb") as f:
        pages = (size + PAGE - 1) // PAGE
        chunk = 256  # pages per write: 1 MiB
        for p0 in range(0, pages, chunk):
            blob = b"".join(page_bytes(fid, p) for p in range(p0, min(pages, p0 + chunk)))
            end = min(size, (p0 + chunk) * PAGE)
            f.write(blob[: end - p0 * PAGE])


def expected_byte(fid, off):
    page, r = divmod(off, PAGE)
    if r < 16:
        return struct.pack("<QQ", fid, page)[r]
    return PAT[(page * 131) % PAGE + r - 16]


def check_file(path, fid, size, samples):
    """None when the file has the right size and the sampled bytes, else why not."""
    try:
        st = os.stat(path)
    except OSError as e:
        return f"missing ({e.strerror})"
    if st.st_size != size:
        return f"size {st.st_size} != {size}"
    offs = {0, 15, 16, size // 2, size - 1}
    x = fid * 2654435761 + 1
    for _ in range(samples):
        x = (x * 6364136223846793005 + 1) & (2**64 - 1)
        offs.add((x >> 11) % size)
    fd = os.open(path, os.O_RDONLY)
    try:
        for o in sorted(offs):
            b = os.pread(fd, 1, o)
            if len(b) != 1 or b[0] != expected_byte(fid, o):
                return f"byte at {o} differs"
    finally:
        os.close(fd)
    return None


# ---------------------------------------------------------------- processes
STARTED = []  # pids this run started and has not reaped


def log(msg):
    print(msg, file=sys.stderr, flush=True)


def free_port(kind=socket.SOCK_STREAM):
    s = socket.socket(socket.AF_INET, kind)
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def pinned(cpu, argv):
    return ["taskset", "-c", str(cpu)] + argv


def spawn(argv, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **kw):
    p = subprocess.Popen(argv, stdout=stdout, stderr=stderr, **kw)
    STARTED.append(p.pid)
    return p


def reap(p, timeout):
    """Waits for p at most timeout seconds (then kills it): (status, rusage).
    Sleeps on a process descriptor, so waiting costs no CPU."""
    fd = os.pidfd_open(p.pid)
    try:
        poller = select.poll()
        poller.register(fd, select.POLLIN)
        if not poller.poll(max(0.0, timeout) * 1000):
            log(f"bench: pid {p.pid} ({' '.join(p.args[:4])}...) over its time, killed")
            os.kill(p.pid, signal.SIGKILL)
    finally:
        os.close(fd)
    _, status, ru = os.wait4(p.pid, 0)
    p.returncode = os.waitstatus_to_exitcode(status)
    if p.pid in STARTED:
        STARTED.remove(p.pid)
    return p.returncode, ru


def stop(p, sig=signal.SIGTERM, timeout=10):
    if p is None or p.pid not in STARTED:
        return None
    try:
        os.kill(p.pid, sig)
    except ProcessLookupError:
        pass
    rc, _ = reap(p, timeout)
    return rc


def stop_all():
    for pid in list(STARTED):
        try:
            os.kill(pid, signal.SIGTERM)
        except ProcessLookupError:
            pass
    deadline = time.monotonic() + 5
    for pid in list(STARTED):
        while time.monotonic() < deadline:
            try:
                if os.waitpid(pid, os.WNOHANG)[0] == pid:
                    break
            except ChildProcessError:
                break
            time.sleep(0.02)
        else:
            try:
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)
            except (ProcessLookupError, ChildProcessError):
                pass
        STARTED.remove(pid)


def proc_cpu(pid):
    """CPU seconds of pid: total (scheduler, ns resolution), user and system (ticks)."""
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    user, system = int(fields[11]) / CLK_TCK, int(fields[12]) / CLK_TCK
    total = user + system
    try:
        with open(f"/proc/{pid}/sched") as f:
            for line in f:
                if line.startswith("se.sum_exec_runtime"):
                    total = float(line.split(":")[1]) / 1000.0
                    break
    except OSError:
        pass
    return {"total": total, "user": user, "sys": system}


def sys_busy():
    """Busy CPU seconds of the whole machine, all CPUs together."""
    with open("/proc/stat") as f:
        v = [int(x) for x in f.readline().split()[1:]]
    return (sum(v[:8]) - v[3] - v[4]) / CLK_TCK  # all but idle and iowait


class Probe:
    """The machine's busy time and the origin's CPU over one run: what the
    run's own processes do not account for is other load (or interrupts)."""

    def __init__(self, env, server=None):
        self.server = server if server is not None else env.origin
        self.busy0 = sys_busy()
        self.srv0 = self.server.cpu_now() if self.server else None

    def end(self):
        self.busy = sys_busy() - self.busy0
        self.srv = cpu_delta(self.srv0, self.server.cpu_now())["total"] if self.server else 0.0

    def finish(self, run, own_cpu):
        if not hasattr(self, "busy"):
            self.end()
        if self.server is not None and run["scenario"] != "d":
            run["origin_cpu_s"] = self.srv
        run["machine_busy_s"] = self.busy
        run["other_cpu_s"] = max(0.0, self.busy - own_cpu - self.srv)


def wait_quiet(env):
    """Waits, within the run's budget, until other load has (nearly) gone;
    returns the CPUs found busy just before the measurement."""
    limit = min(QUIET_WAIT_RUN, env.quiet_budget)
    t_start = time.monotonic()
    while True:
        b0, t0 = sys_busy(), time.monotonic()
        time.sleep(0.5)
        busy = (sys_busy() - b0) / (time.monotonic() - t0)
        waited = time.monotonic() - t_start
        if busy <= QUIET_CPUS or waited >= limit:
            env.quiet_budget = max(0.0, env.quiet_budget - max(0.0, waited - 0.5))
            return busy


def cpu_delta(a, b):
    return {k: b[k] - a[k] for k in a}


def proc_mem(pid):
    out = {}
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith(("VmRSS:", "VmHWM:")):
                out[line.split(":")[0]] = int(line.split()[1])
    return out


def children(pid):
    try:
        with open(f"/proc/{pid}/task/{pid}/children") as f:
            return [int(x) for x in f.read().split()]
    except OSError:
        return []


def http_get(port, path="/", timeout=2.0):
    """Status of one GET on loopback, or None."""
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=timeout) as s:
            s.sendall(f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n"
                      "User-Agent: trov-bench\r\nConnection: close\r\n\r\n".encode())
            head = s.recv(64)
            m = re.match(rb"HTTP/1\.\d (\d{3})", head)
            return int(m.group(1)) if m else None
    except OSError:
        return None


def wait_status(port, want, what, timeout=10.0):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if http_get(port) == want:
            return
        time.sleep(0.05)
    raise RuntimeError(f"{what} did not answer {want} on port {port} within {timeout:.0f} s")


def rmtree_contents(path):
    if os.path.isdir(path):
        shutil.rmtree(path)
    os.makedirs(path, exist_ok=True)


# ---------------------------------------------------------------- servers
NGINX_CONF = """\
worker_processes 1;
daemon off;
master_process on;
pid {dir}/nginx.pid;
error_log {dir}/error.log warn;
worker_rlimit_nofile 16384;
events {{ worker_connections 8192; }}
http {{
    access_log off;
    sendfile on;
    tcp_nopush on;
    keepalive_requests 1000000;
    keepalive_timeout 65;
    default_type application/octet-stream;
    client_body_temp_path {dir}/cb;
    proxy_temp_path {dir}/px;
    fastcgi_temp_path {dir}/fc;
    uwsgi_temp_path {dir}/uw;
    scgi_temp_path {dir}/sc;
    server {{
        listen 127.0.0.1:{port} backlog=4096;
        location = / {{ return 204; }}
        location /f/ {{ root {root}; }}
    }}
}}
"""


class Nginx:
    def __init__(self, work, name, root, cpu):
        self.dir = os.path.join(work, name)
        os.makedirs(self.dir, exist_ok=True)
        self.port = free_port()
        self.cpu = cpu
        self.conf = os.path.join(self.dir, "nginx.conf")
        with open(self.conf, "w") as f:
            f.write(NGINX_CONF.format(dir=self.dir, port=self.port, root=root))
        self.proc = None

    def start(self):
        self.proc = spawn(pinned(self.cpu, ["nginx", "-e", os.path.join(self.dir, "error.log"),
                                            "-p", self.dir + "/", "-c", self.conf]))
        wait_status(self.port, 204, "nginx")
        return self

    def pids(self):
        return [self.proc.pid] + children(self.proc.pid)

    def cpu_now(self):
        tot = {"total": 0.0, "user": 0.0, "sys": 0.0}
        for pid in self.pids():
            for k, v in proc_cpu(pid).items():
                tot[k] += v
        return tot

    def url(self, path):
        return f"http://127.0.0.1:{self.port}{path}"

    def stop(self):
        stop(self.proc, signal.SIGQUIT)


TROV_CONF = """\
trov: {{
    log: {{
        file = "{log}";
        level = "{level}";
        time_format = "local";
        max_size_mb = 4096;
        max_files = 2;
        eod_rotate = false;
        enable_syslog = false;
    }};
    runtime: {{
        non_daemon = true;
        enforce_core_dumps = false;
        cpunum = {cpu};
    }};
    web_input: {{
        alias = "web";
        ifc = "127.0.0.1";
        port = {web};
        max_accept = 64;
    }};
    udp_input: {{
        url = "udp://127.0.0.1:{udp}";
        must_lock = false;
    }};
    {keepalive}
    data_dir = "{data}";
    urq_tmout_sec = 1;
    max_tasks = 8192;
    task_tmout_ms = 5000;
    max_mmap_mb = {mmap};
}};
"""


# What --keepalive adds: one idle connection per order outstanding.
KEEPALIVE_CONF = "source_keepalive: { per_origin = 64; idle_ms = 5000; };"


class Trov:
    def __init__(self, env, name, data_dir, level="err", mmap_mb=8, cpu=None):
        self.env = env
        self.name = name
        self.dir = os.path.join(env.work, "trov-" + name)
        os.makedirs(self.dir, exist_ok=True)
        os.makedirs(data_dir, exist_ok=True)
        self.data = data_dir
        self.level = level
        self.mmap_mb = mmap_mb
        self.cpu = env.cpu_client if cpu is None else cpu
        self.web = free_port()
        self.udp = free_port(socket.SOCK_DGRAM)
        self.log = os.path.join(self.dir, "trov.log")
        self.conf = os.path.join(self.dir, "trov.conf")
        with open(self.conf, "w") as f:
            ka = getattr(env.args, "keepalive", False)
            f.write(TROV_CONF.format(log=self.log, level=level, cpu=self.cpu, web=self.web,
                                     udp=self.udp, data=data_dir, mmap=mmap_mb,
                                     keepalive=KEEPALIVE_CONF if ka else ""))
        self.proc = None

    def start(self):
        self.err = open(os.path.join(self.dir, "stderr"), "wb")
        self.proc = spawn(pinned(self.cpu, [self.env.trov, "-T", "-q", "-C", self.conf,
                                            "-P", str(self.cpu)]), stderr=self.err)
        wait_status(self.web, 204, f"trov ({self.name})")
        return self

    @property
    def pid(self):
        return self.proc.pid

    def cpu_now(self):
        return proc_cpu(self.pid)

    def mem(self):
        return proc_mem(self.pid)

    def log_bytes(self):
        try:
            return os.path.getsize(self.log)
        except OSError:
            return 0

    def truncate_log(self):
        # The daemon appends; cutting the file keeps tmpfs small between runs.
        try:
            os.truncate(self.log, 0)
        except OSError:
            pass

    def stop(self):
        rc = stop(self.proc)
        self.err.close()
        if rc not in (0, None):
            log(f"bench: trov ({self.name}) exited with {rc}")
        return rc


# ---------------------------------------------------------------- environment
class Env:
    def __init__(self, args):
        self.args = args
        self.trov = args.trov
        self.orderer = args.orderer
        ncpu = os.cpu_count() or 1
        self.cpu_client, self.cpu_origin = (0, 1) if ncpu >= 2 else (0, 0)
        self.cpu_orderer = self.cpu_client if args.orderer_cpu is None else args.orderer_cpu
        self.work = os.path.join(args.work_dir, f"trov-bench-{os.getpid()}")
        self.disk = os.path.join(args.disk_dir, f"trov-bench-{os.getpid()}")
        self.origin_root = os.path.join(self.work, "o")
        self.files = {}  # url path -> (fid, size)
        self.perf_dir = args.perf
        self.quiet_budget = float(args.quiet_wait)
        self.origin = None
        self.fid = 0
        # Made last: nothing above can fail and leave them behind.
        for d in (self.work, self.disk):
            os.makedirs(d)
            os.chmod(d, 0o755)  # the origin's worker does not run as root

    def make_files(self, sub, count, size, prefix="f"):
        d = os.path.join(self.origin_root, "f", sub)
        os.makedirs(d, exist_ok=True)
        names = []
        t0 = time.monotonic()
        for i in range(count):
            name = f"{prefix}{i:05d}"
            self.fid += 1
            gen_file(os.path.join(d, name), self.fid, size)
            self.files[f"/f/{sub}/{name}"] = (self.fid, size)
            names.append(name)
        log(f"bench: generated {count} x {human(size)} in /f/{sub}/ "
            f"({time.monotonic() - t0:.1f} s)")
        return names

    def cleanup(self):
        stop_all()
        if not self.args.keep:
            for d in (self.work, self.disk):
                shutil.rmtree(d, ignore_errors=True)


def human(n):
    for unit, f in (("GiB", GiB), ("MiB", MiB), ("KiB", KiB)):
        if n >= f and n % f == 0:
            return f"{n // f} {unit}"
    return f"{n} B"


def verify(env, sub, names, dst_dir, samples):
    """Checks every file; returns (ok count, first problems, leftovers)."""
    bad = []
    ok = 0
    for name in names:
        fid, size = env.files[f"/f/{sub}/{name}"]
        why = check_file(os.path.join(dst_dir, name), fid, size, samples)
        if why is None:
            ok += 1
        elif len(bad) < 5:
            bad.append(f"{name}: {why}")
    extra = sorted(set(os.listdir(dst_dir)) - set(names)) if os.path.isdir(dst_dir) else []
    return ok, bad, extra[:5]


def new_run(scenario, case, tool, rep, units, unit):
    return {"scenario": scenario, "case": case, "tool": tool, "rep": rep,
            "units": units, "unit": unit, "ok": False}


def finish_check(env, run, sub, names, dst, samples):
    ok, bad, extra = verify(env, sub, names, dst, samples)
    run["verified"] = ok
    run["ok"] = ok == len(names) and run.get("exit", 0) == 0 and not extra
    if bad:
        run["problems"] = bad
    if extra:
        run["leftovers"] = extra
    if not run["ok"]:
        log(f"bench: {run['scenario']}/{run['case']}/{run['tool']} rep {run['rep']}: "
            f"{ok}/{len(names)} files right, exit {run.get('exit')}, {bad} {extra}")


# ---------------------------------------------------------------- runners
def perf_start(env, pid, name):
    """Starts sampling pid's call chains when profiles were asked for (--perf)."""
    if not env.perf_dir:
        return None
    os.makedirs(env.perf_dir, exist_ok=True)
    out = os.path.join(env.perf_dir, name + ".data")
    p = spawn(pinned(env.cpu_origin, ["perf", "record", "-q", "-e", "cpu-clock", "-F",
                                      str(PERF_HZ), "-g", "-p", str(pid), "-o", out]))
    time.sleep(0.3)  # perf attaches asynchronously
    return p


def perf_stop(p):
    if p is not None:
        stop(p, signal.SIGINT, 30)


def run_orderer(env, trov, mode, sub, names, dst_rel, conc, timeout, sample_every=0):
    """Orders names from the origin through trov; returns the orderer's figures."""
    lst = os.path.join(env.work, "names.lst")
    with open(lst, "w") as f:
        f.write("".join(n + "\n" for n in names))
    watch = os.path.join(trov.data, dst_rel)
    os.makedirs(watch, exist_ok=True)
    port = trov.udp if mode == "udp" else trov.web
    argv = [env.orderer, "-m", mode, "-a", f"127.0.0.1:{port}",
            "-s", env.origin.url(f"/f/{sub}/"),
            "-d", dst_rel + "/", "-w", watch, "-l", lst, "-n", str(conc), "-T", str(timeout),
            "-p", str(trov.pid), "-k", str(sample_every)]
    perf = perf_start(env, trov.pid, f"{sub}-{trov.name}-{mode}")
    probe = Probe(env)
    c0 = trov.cpu_now()
    p = spawn(pinned(env.cpu_orderer, argv), stdout=subprocess.PIPE)
    out_text = p.stdout.read()
    rc, _ = reap(p, timeout + 30)
    c1 = trov.cpu_now()
    probe.end()
    perf_stop(perf)
    try:
        res = json.loads(out_text)
    except ValueError:
        res = {"completed": 0, "wall_s": float("nan"), "orderer_cpu_s": 0.0}
    res["exit"] = rc
    res["cpu"] = cpu_delta(c0, c1)
    res["probe"] = probe
    return res


def trov_run(env, trov, mode, scenario, case, tool, rep, sub, names, dst_rel, conc, units, unit,
             samples, timeout, sample_every=0):
    dst = os.path.join(trov.data, dst_rel)
    rmtree_contents(dst)
    trov.truncate_log()
    busy_before = wait_quiet(env)
    res = run_orderer(env, trov, mode, sub, names, dst_rel, conc, timeout, sample_every)
    run = new_run(scenario, case, tool, rep, units, unit)
    run["busy_before_cpus"] = busy_before
    res["probe"].finish(run, res["cpu"]["total"] + (res.get("orderer_cpu_s") or 0.0))
    run.update({"wall_s": res["wall_s"], "cpu_s": res["cpu"]["total"],
                "cpu_user_s": res["cpu"]["user"], "cpu_sys_s": res["cpu"]["sys"],
                "orderer_cpu_s": res.get("orderer_cpu_s"), "exit": res["exit"],
                "rss_kb": res.get("rss_kb"), "hwm_kb": res.get("hwm_kb"),
                "rss_samples": res.get("rss_samples", []), "statuses": res.get("statuses"),
                "failed_orders": res.get("failed"), "log_bytes": trov.log_bytes(),
                "first_done_s": res.get("first_done_s")})
    finish_check(env, run, sub, names, dst, samples)
    rmtree_contents(dst)
    trov.truncate_log()
    return run


def peer_run(env, scenario, case, tool, rep, argvs, sub, names, dst, units, unit, samples,
             timeout, cwd=None):
    """Runs one or more peer processes at once (all pinned to the client CPU)."""
    rmtree_contents(dst)
    errlog = open(os.path.join(env.work, "peer.err"), "wb")
    busy_before = wait_quiet(env)
    probe = Probe(env)
    t0 = time.monotonic()
    procs = [spawn(pinned(env.cpu_client, a), stderr=errlog, cwd=cwd) for a in argvs]
    cpu = {"total": 0.0, "user": 0.0, "sys": 0.0}
    worst = 0
    deadline = t0 + timeout
    for p in procs:
        rc, ru = reap(p, deadline - time.monotonic())
        cpu["user"] += ru.ru_utime
        cpu["sys"] += ru.ru_stime
        worst = worst or rc
    wall = time.monotonic() - t0
    errlog.close()
    cpu["total"] = cpu["user"] + cpu["sys"]
    run = new_run(scenario, case, tool, rep, units, unit)
    run.update({"wall_s": wall, "cpu_s": cpu["total"], "cpu_user_s": cpu["user"],
                "cpu_sys_s": cpu["sys"], "exit": worst, "procs": len(procs)})
    run["busy_before_cpus"] = busy_before
    probe.finish(run, cpu["total"])
    if worst != 0:
        with open(os.path.join(env.work, "peer.err"), "rb") as f:
            run["stderr_tail"] = f.read()[-400:].decode(errors="replace")
    finish_check(env, run, sub, names, dst, samples)
    rmtree_contents(dst)
    return run


def curl_list(env, sub, names, dst):
    path = os.path.join(env.work, "curl.cfg")
    with open(path, "w") as f:
        for n in names:
            f.write(f'url = "{env.origin.url(f"/f/{sub}/{n}")}"\noutput = "{dst}/{n}"\n')
    return path


def aria_list(env, sub, names):
    path = os.path.join(env.work, "aria2.lst")
    with open(path, "w") as f:
        for n in names:
            f.write(f"{env.origin.url(f'/f/{sub}/{n}')}\n  out={n}\n")
    return path


def wget_lists(env, sub, names, procs):
    paths = []
    for k in range(procs):
        path = os.path.join(env.work, f"wget-{k}.lst")
        with open(path, "w") as f:
            f.write("".join(env.origin.url(f"/f/{sub}/{n}") + "\n" for n in names[k::procs]))
        paths.append(path)
    return paths


CURL = ["curl", "-sS", "--no-progress-meter", "-f"]
ARIA = ["aria2c", "-q", "--allow-overwrite=true", "--auto-file-renaming=false",
        "--summary-interval=0", "--download-result=hide"]
WGET = ["wget", "-q", "-nd"]


def peers_many(env, sub, names, dst, conc, close_variant):
    """Peer command sets for many files at conc at once: (tool, [argv...])."""
    cfg = curl_list(env, sub, names, dst)
    out = [("curl -Z", [CURL + ["-Z", "--parallel-max", str(conc), "-K", cfg]])]
    if close_variant:
        out.append(("curl -Z close", [CURL + ["-Z", "--parallel-max", str(conc),
                                              "-H", "Connection: close", "-K", cfg]]))
    out.append((f"aria2c -j{conc}", [ARIA + ["-j", str(conc), "-i", aria_list(env, sub, names),
                                             "-d", dst]]))
    out.append((f"wget x{conc}", [WGET + ["-P", dst, "-i", lst]
                                  for lst in wget_lists(env, sub, names, conc)]))
    return out


def scenario_a(env, sizes, reps, runs):
    size = sizes["a_size"]
    names = env.make_files("a", 1, size, prefix="big")
    name = names[0]
    url = env.origin.url(f"/f/a/{name}")
    mapped_mb = max(1024, 2 * size // MiB)
    for fs, root in (("tmpfs", env.work), ("disk", env.disk)):
        case = f"1 x {human(size)} to {fs}"
        data = os.path.join(root, "a-data")
        daemons = [Trov(env, f"a-{fs}-relay", data, mmap_mb=8).start(),
                   Trov(env, f"a-{fs}-mapped", data, mmap_mb=mapped_mb).start()]
        dst = os.path.join(data, "peer")
        try:
            for rep in range(1, reps + 1):
                for t in daemons:
                    variant = "relay" if t.mmap_mb == 8 else "mapped"
                    if fs == "disk":
                        subprocess.run(["sync"], check=False)
                    runs.append(trov_run(env, t, "http", "a", case, f"trov {variant}", rep, "a",
                                         names, "x", 1, size, "bytes", 1024, 300))
                peers = [("curl", [CURL + ["-o", f"{dst}/{name}", url]]),
                         ("wget", [WGET + ["-O", f"{dst}/{name}", url]]),
                         ("aria2c -x1 -s1", [ARIA + ["-x1", "-s1", "-d", dst, "-o", name, url]])]
                for tool, argvs in peers:
                    if fs == "disk":
                        subprocess.run(["sync"], check=False)
                    runs.append(peer_run(env, "a", case, tool, rep, argvs, "a", names, dst, size,
                                         "bytes", 1024, 300))
                log(f"bench: a {fs} rep {rep} done")
        finally:
            for t in daemons:
                hwm = t.mem().get("VmHWM")
                for r in runs:
                    if r["scenario"] == "a" and r["case"] == case and r["tool"].endswith(
                            "relay" if t.mmap_mb == 8 else "mapped"):
                        r["daemon_hwm_kb"] = hwm
                t.stop()
            shutil.rmtree(data, ignore_errors=True)
            if fs == "disk":
                subprocess.run(["sync"], check=False)


def scenario_many(env, scen, sub, names, size, conc, reps, runs, levels, close_variant, timeout):
    case = f"{len(names)} x {human(size)}, {conc} at once"
    data = os.path.join(env.work, f"{scen}-data-{conc}")
    daemons = {lv: Trov(env, f"{scen}-{conc}-{lv}", data, level=lv,
                        mmap_mb=env.args.max_mmap_mb).start() for lv in levels}
    dst = os.path.join(data, "peer")
    os.makedirs(dst, exist_ok=True)
    peers = peers_many(env, sub, names, dst, conc, close_variant)
    sample_every = max(1, len(names) // 20)
    try:
        for rep in range(1, reps + 1):
            for lv, t in daemons.items():
                for mode in ("http", "udp"):
                    tool = f"trov {mode}" + (f" log={lv}" if len(levels) > 1 else "")
                    runs.append(trov_run(env, t, mode, scen, case, tool, rep, sub, names, "x",
                                         conc, len(names), "files", 4, timeout, sample_every))
            for tool, argvs in peers:
                runs.append(peer_run(env, scen, case, tool, rep, argvs, sub, names, dst,
                                     len(names), "files", 4, timeout))
            log(f"bench: {scen} {case} rep {rep} done")
    finally:
        for lv, t in daemons.items():
            mem = t.mem()
            for r in runs:
                if r["scenario"] == scen and r["case"] == case and r["tool"].startswith("trov") \
                        and (len(levels) == 1 or r["tool"].endswith(f"log={lv}")):
                    r["daemon_hwm_kb"] = mem.get("VmHWM")
            t.stop()
        shutil.rmtree(data, ignore_errors=True)


WRK_RE = {
    "requests": re.compile(r"(\d+) requests in ([\d.]+)(m?s)"),
    "rps": re.compile(r"Requests/sec:\s+([\d.]+)"),
    "errors": re.compile(r"Socket errors: connect (\d+), read (\d+), write (\d+), timeout (\d+)"),
    "non2xx": re.compile(r"Non-2xx or 3xx responses: (\d+)"),
}


def wrk_run(env, server, port, tool, rep, duration, conns, close):
    argv = ["wrk", "-t1", f"-c{conns}", f"-d{duration}s"]
    if close:
        argv += ["-H", "Connection: close"]
    argv.append(f"http://127.0.0.1:{port}/")
    busy_before = wait_quiet(env)
    perf = perf_start(env, server.pid, f"d-{tool.replace(' ', '-')}") \
        if isinstance(server, Trov) else None
    probe = Probe(env, server)
    c0 = server.cpu_now()
    p = spawn(pinned(env.cpu_origin, argv), stdout=subprocess.PIPE)
    out = p.stdout.read().decode(errors="replace")
    rc, ru = reap(p, duration + 30)
    c1 = server.cpu_now()
    probe.end()
    perf_stop(perf)
    run = new_run("d", f"GET / -> 204, {conns} connections, {duration} s", tool, rep, 0, "requests")
    m = WRK_RE["requests"].search(out)
    reqs = int(m.group(1)) if m else 0
    secs = float(m.group(2)) / (1000 if m and m.group(3) == "ms" else 1) if m else float("nan")
    e = WRK_RE["errors"].search(out)
    n = WRK_RE["non2xx"].search(out)
    d = cpu_delta(c0, c1)
    run.update({"units": reqs, "wall_s": secs, "cpu_s": d["total"], "cpu_user_s": d["user"],
                "cpu_sys_s": d["sys"], "exit": rc,
                "socket_errors": [int(x) for x in e.groups()] if e else [0, 0, 0, 0],
                "non2xx": int(n.group(1)) if n else 0, "wrk_cpu_s": ru.ru_utime + ru.ru_stime})
    run["busy_before_cpus"] = busy_before
    probe.finish(run, ru.ru_utime + ru.ru_stime)
    # A closed connection after a whole answer is counted by wrk as a read
    # error; only connect errors, time-outs and wrong statuses are failures.
    errs = run["socket_errors"]
    run["ok"] = rc == 0 and reqs > 0 and run["non2xx"] == 0 and errs[0] == 0 and errs[3] == 0
    if not run["ok"]:
        log(f"bench: d/{tool} rep {rep}: {out[-400:]}")
    return run


def scenario_d(env, sizes, reps, runs):
    duration, conns = sizes["d_secs"], sizes["d_conns"]
    ng = Nginx(env.work, "nginx-ping", os.path.join(env.work, "o"), env.cpu_client).start()
    tr = Trov(env, "d", os.path.join(env.work, "d-data"), cpu=env.cpu_client).start()
    try:
        for rep in range(1, reps + 1):
            runs.append(wrk_run(env, ng, ng.port, "nginx keep-alive", rep, duration, conns, False))
            runs.append(wrk_run(env, ng, ng.port, "nginx close", rep, duration, conns, True))
            runs.append(wrk_run(env, tr, tr.web, "trov", rep, duration, conns, False))
            runs.append(wrk_run(env, tr, tr.web, "trov close", rep, duration, conns, True))
            log(f"bench: d rep {rep} done")
    finally:
        hwm = tr.mem().get("VmHWM")
        for r in runs:
            if r["scenario"] == "d" and r["tool"].startswith("trov"):
                r["daemon_hwm_kb"] = hwm
        tr.stop()
        ng.stop()


# ---------------------------------------------------------------- summary
def summarize(runs):
    groups = {}
    for r in runs:
        groups.setdefault((r["scenario"], r["case"], r["tool"]), []).append(r)
    out = []
    for (scen, case, tool), rs in groups.items():
        good = [r for r in rs if r["ok"]]
        s = {"scenario": scen, "case": case, "tool": tool, "reps": len(rs), "ok_reps": len(good),
             "unit": rs[0]["unit"]}
        # Runs disturbed by other load are left out when undisturbed ones exist.
        quiet = [r for r in good if r.get("other_cpu_s", 0.0) <= NOISY_CPUS * r["wall_s"]]
        if quiet and len(quiet) < len(good):
            s["noisy_reps_dropped"] = len(good) - len(quiet)
            good = quiet
        if good:
            rates = [r["units"] / r["wall_s"] for r in good]
            walls = [r["wall_s"] for r in good]
            cpus = [r["cpu_s"] for r in good]
            per = [r["cpu_s"] / r["units"] for r in good if r["units"]]
            s.update({"wall_s": stat3(walls), "rate": stat3(rates), "cpu_s": stat3(cpus),
                      "cpu_per_unit": stat3(per)})
            orders = [r["orderer_cpu_s"] for r in good if r.get("orderer_cpu_s") is not None]
            if orders:
                s["orderer_cpu_s"] = stat3(orders)
            hwm = [r["daemon_hwm_kb"] for r in good if r.get("daemon_hwm_kb")]
            if hwm:
                s["daemon_hwm_kb"] = max(hwm)
            samples = [x for r in good for x in r.get("rss_samples", [])]
            if samples:
                s["rss_kb_first"] = samples[0][1]
                s["rss_kb_max"] = max(x[1] for x in samples)
                s["rss_kb_last"] = samples[-1][1]
            other = [r["other_cpu_s"] / r["wall_s"] for r in good if "other_cpu_s" in r]
            if other:
                s["other_cpu_share"] = statistics.median(other)
            origin = [r["origin_cpu_s"] / r["units"] for r in good
                      if r.get("origin_cpu_s") is not None and r["units"]]
            if origin:
                s["origin_cpu_per_unit"] = statistics.median(origin)
            logs = [r["log_bytes"] for r in good if "log_bytes" in r]
            if logs:
                s["log_bytes"] = statistics.median(logs)
        out.append(s)
    return out


def stat3(xs):
    return {"median": statistics.median(xs), "min": min(xs), "max": max(xs)}


def fmt_rate(s):
    r = s["rate"]["median"]
    if s["unit"] == "bytes":
        return f"{r / GiB:.2f} GiB/s"
    if s["unit"] == "files":
        return f"{r:,.0f} files/s"
    return f"{r:,.0f} req/s"


def fmt_cpu_unit(s):
    v = s["cpu_per_unit"]["median"]
    if s["unit"] == "bytes":
        return f"{v * GiB:.2f} s/GiB"
    return f"{v * 1e6:.0f} us/{'file' if s['unit'] == 'files' else 'req'}"


def trov_label(tool):
    return tool[len("trov "):] if tool.startswith("trov ") else tool


def markdown(summary):
    head = ("| scenario | case | client | wall s: median (min-max) | throughput | CPU s | "
            "CPU per unit | peak RSS | other load | trov / this (throughput) |")
    lines = [head, "|" + "---|" * 10]
    by_case = {}
    for s in summary:
        by_case.setdefault((s["scenario"], s["case"]), []).append(s)
    for (scen, case), rows in by_case.items():
        trovs = [s for s in rows if s["tool"].startswith("trov") and "rate" in s]
        for s in rows:
            if "rate" not in s:
                lines.append(f"| {scen} | {case} | {s['tool']} | failed ({s['ok_reps']}/"
                             f"{s['reps']} runs right) | | | | | | |")
                continue
            w = s["wall_s"]
            if scen == "d":
                wall = f"{w['median']:.1f}"
            else:
                wall = f"{w['median']:.3f} ({w['min']:.3f}-{w['max']:.3f})"
            cpu = f"{s['cpu_s']['median']:.3f}"
            if s.get("orderer_cpu_s", {}).get("median", 0) >= 0.0005:
                cpu += f" (+{s['orderer_cpu_s']['median']:.3f} orderer)"
            rss = f"{s['daemon_hwm_kb'] / 1024:.1f} MiB" if s.get("daemon_hwm_kb") else ""
            if s["tool"].startswith("trov"):
                ratio = "" if s["ok_reps"] == s["reps"] else f"{s['ok_reps']}/{s['reps']} runs ok"
            else:
                ratio = " / ".join(f"{trov_label(t['tool'])} {t['rate']['median'] / s['rate']['median']:.2f}x"
                                   for t in trovs)
            other = f"{s['other_cpu_share']:.2f}" if "other_cpu_share" in s else ""
            if s.get("noisy_reps_dropped"):
                other += f" ({s['noisy_reps_dropped']} of {s['reps']} runs left out)"
            lines.append(f"| {scen} | {case} | {s['tool']} | {wall} | {fmt_rate(s)} | {cpu} | "
                         f"{fmt_cpu_unit(s)} | {rss} | {other} | {ratio} |")
    return "\n".join(lines)


def find(summary, scen, tool, case_has=""):
    return [s for s in summary if s["scenario"] == scen and s["tool"] == tool
            and case_has in s["case"] and "rate" in s]


def targets(summary):
    """Each target: (name, met, figure text)."""
    out = []

    def med(s, k):
        return s[k]["median"]

    for fs in ("tmpfs", "disk"):
        for variant, limit in (("relay", 1.1), ("mapped", 0.7)):
            for s in find(summary, "a", f"trov {variant}", fs):
                v = med(s, "cpu_per_unit") * GiB
                out.append((f"a {fs}: {variant} path <= {limit} CPU s per GiB", v <= limit,
                            f"{v:.2f} s/GiB"))
        for a in find(summary, "a", "aria2c -x1 -s1", fs):
            for variant in ("relay", "mapped"):
                for s in find(summary, "a", f"trov {variant}", fs):
                    r = med(a, "wall_s") / med(s, "wall_s")
                    out.append((f"a {fs}: {variant} wall >= 1.3x faster than aria2c -x1 -s1",
                                r >= 1.3, f"{r:.2f}x"))
    for s in summary:
        if s["scenario"] != "b" or not s["tool"].startswith("trov") or "rate" not in s:
            continue
        conc = re.search(r"(\d+) at once", s["case"]).group(1)
        for peer, factor in (("curl -Z", 1.0), (f"aria2c -j{conc}", 2.0)):
            for p in find(summary, "b", peer, s["case"]):
                r = med(s, "rate") / med(p, "rate")
                out.append((f"b {conc} at once: {s['tool']} >= {factor:g}x {peer}", r >= factor,
                            f"{r:.2f}x"))
    for s in summary:
        if s["scenario"] != "c" or not s["tool"].startswith("trov") or "rate" not in s:
            continue
        for peer in ("curl -Z close", "aria2c -j64"):
            for p in find(summary, "c", peer):
                r = med(s, "rate") / med(p, "rate")
                out.append((f"c: {s['tool']} >= 2x {peer}", r >= 2.0, f"{r:.2f}x"))
        v = med(s, "cpu_per_unit") * 1e6
        out.append((f"c: {s['tool']} CPU per file <= 150 us", v <= 150, f"{v:.0f} us"))
        if s.get("daemon_hwm_kb"):
            mib = s["daemon_hwm_kb"] / 1024
            out.append((f"c: {s['tool']} peak RSS <= 24 MiB", mib <= 24, f"{mib:.1f} MiB"))
        if "rss_kb_first" in s:
            growth = (s["rss_kb_last"] - s["rss_kb_first"]) / 1024
            out.append((f"c: {s['tool']} RSS flat in the number of files (growth < 1 MiB)",
                        growth < 1.0, f"{s['rss_kb_first'] / 1024:.1f} -> "
                        f"{s['rss_kb_last'] / 1024:.1f} MiB (max {s['rss_kb_max'] / 1024:.1f})"))
    ng = find(summary, "d", "nginx close")
    for tool in ("trov", "trov close"):
        for s in find(summary, "d", tool):
            for n in ng:
                r = med(s, "rate") / med(n, "rate")
                out.append((f"d: {tool} rate >= 1.0x nginx without keep-alive", r >= 1.0,
                            f"{r:.2f}x"))
                a, b = med(s, "cpu_per_unit") * 1e6, med(n, "cpu_per_unit") * 1e6
                out.append((f"d: {tool} server CPU per request <= nginx without keep-alive",
                            a <= b, f"{a:.1f} vs {b:.1f} us"))
    return out


def machine():
    model = ""
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass

    def ver(argv):
        try:
            out = subprocess.run(argv, capture_output=True, text=True, timeout=10)
            return (out.stdout + out.stderr).strip().splitlines()[0]
        except (OSError, IndexError, subprocess.SubprocessError):
            return ""

    return {"nproc": os.cpu_count(), "cpu": model, "kernel": platform.release(),
            "commit": ver(["git", "-C", TOP, "log", "-1", "--format=%h"]),
            "mem_gib": round(os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / GiB, 1),
            "tools": {"nginx": ver(["nginx", "-v"]), "curl": ver(["curl", "--version"]),
                      "wget": ver(["wget", "--version"]), "aria2c": ver(["aria2c", "--version"]),
                      "wrk": ver(["wrk", "--version"])}}


def fs_type(path):
    try:
        return subprocess.run(["stat", "-f", "-c", "%T", path], capture_output=True,
                              text=True).stdout.strip()
    except OSError:
        return "?"


def write_readme(path, text):
    begin, end = "<!-- results:begin -->", "<!-- results:end -->"
    with open(path) as f:
        doc = f.read()
    if begin not in doc or end not in doc:
        log(f"bench: {path} has no results markers; not updated")
        return
    pre, rest = doc.split(begin, 1)
    post = rest.split(end, 1)[1]
    with open(path, "w") as f:
        f.write(pre + begin + "\n" + text.rstrip() + "\n" + end + post)


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--only", default="a,b,c,d", help="scenarios to run, e.g. a,c")
    ap.add_argument("--quick", action="store_true", help="small counts, one repetition")
    ap.add_argument("--reps", type=int, help="repetitions per measurement (default 3; quick 1)")
    ap.add_argument("--work-dir", default="/dev/shm", help="tmpfs for the origin's files")
    ap.add_argument("--disk-dir", default="/var/tmp", help="directory on a real disk")
    ap.add_argument("--json", help="raw figures (default bench/results/<time>.json)")
    ap.add_argument("--readme", action="store_true", help="put the table into bench/README.md")
    ap.add_argument("--perf", help="record perf profiles of the daemon's runs into this dir")
    ap.add_argument("--keep", action="store_true", help="keep the work directories")
    ap.add_argument("--orderer-cpu", type=int,
                    help="CPU of the order driver (default: the daemon's, CPU 0); 1 puts it "
                         "with the origin, to see the daemon alone on its CPU")
    ap.add_argument("--max-mmap-mb", type=int, default=8,
                    help="the daemon's max_mmap_mb in b and c (default 8, the sample's; "
                         "0 writes every body through the relay)")
    ap.add_argument("--keepalive", action="store_true",
                    help="the daemon keeps source connections (source_keepalive, 64 per origin)")
    ap.add_argument("--quiet-wait", type=float, default=300,
                    help="seconds in all that runs may wait for other load to pass (default 300)")
    ap.add_argument("--from-json", metavar="FILE",
                    help="measure nothing: print (and with --readme, record) the table of a "
                         "saved run")
    ap.add_argument("--trov", required=True)
    ap.add_argument("--orderer", required=True)
    args = ap.parse_args()
    if args.from_json:
        with open(args.from_json) as f:
            saved = json.load(f)
        report(saved["runs"], saved["machine"], saved["started"], saved["mode"], saved["reps"],
               args.readme, pinning=saved.get("pinning"))
        return 0
    only = set(args.only.replace(" ", "").split(","))
    if not only <= set("abcd"):
        ap.error("--only takes a subset of a,b,c,d")
    reps = args.reps or (1 if args.quick else 3)
    if args.quick:
        sizes = {"a_size": 128 * MiB, "b_files": 200, "b_concs": [16, 64], "c_files": 2000,
                 "d_secs": 2, "d_conns": 8}
    else:
        sizes = {"a_size": GiB, "b_files": 2000, "b_concs": [16, 64], "c_files": 20000,
                 "d_secs": 10, "d_conns": 8}

    need = (2 * sizes["a_size"] if "a" in only else 0) + 3 * sizes["b_files"] * 256 * KiB + \
        3 * sizes["c_files"] * 16 * KiB + 512 * MiB
    st = os.statvfs(args.work_dir)
    if st.f_bavail * st.f_frsize < need:
        sys.exit(f"bench: {args.work_dir} has less than {need // MiB} MiB free")
    if "a" in only and fs_type(args.disk_dir) in ("tmpfs", "ramfs"):
        log(f"bench: warning: {args.disk_dir} is not on a disk")

    env = Env(args)
    # The driver sleeps while anything is measured; kept off the client's CPU
    # all the same.
    os.sched_setaffinity(0, {env.cpu_origin})
    started = datetime.datetime.now()
    runs = []
    ok = False
    try:
        env.origin = Nginx(env.work, "nginx-origin", env.origin_root, env.cpu_origin)
        os.makedirs(os.path.join(env.origin_root, "f"), exist_ok=True)
        env.origin.start()
        log(f"bench: origin on 127.0.0.1:{env.origin.port} (CPU {env.cpu_origin}), "
            f"work in {env.work}, disk in {env.disk}")
        if "a" in only:
            scenario_a(env, sizes, reps, runs)
        if "b" in only:
            names = env.make_files("b", sizes["b_files"], 256 * KiB)
            for conc in sizes["b_concs"]:
                scenario_many(env, "b", "b", names, 256 * KiB, conc, reps, runs, ["err"], False,
                              300)
        if "c" in only:
            names = env.make_files("c", sizes["c_files"], 16 * KiB)
            scenario_many(env, "c", "c", names, 16 * KiB, 64, reps, runs, ["err", "info"], True,
                          600)
        if "d" in only:
            scenario_d(env, sizes, reps, runs)
        ok = True
    finally:
        env.cleanup()
        if not ok:
            log("bench: stopped early; partial figures follow")

    mach = machine()
    mode = "quick" if args.quick else "full"
    pinning = {"client": env.cpu_client, "origin": env.cpu_origin, "orderer": env.cpu_orderer,
               "max_mmap_mb_bc": args.max_mmap_mb, "keepalive": args.keepalive}
    summary, tg = report(runs, mach, started.isoformat(timespec="seconds"), mode, reps, False,
                         pinning=pinning)

    path = args.json or os.path.join(HERE, "results", started.strftime("%Y-%m-%dT%H%M%S") + ".json")
    os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
    with open(path, "w") as f:
        json.dump({"started": started.isoformat(timespec="seconds"), "mode": mode, "reps": reps,
                   "sizes": sizes, "scenarios": sorted(only), "machine": mach,
                   "pinning": pinning,
                   "summary": summary, "targets": [{"target": n, "met": m, "figure": x}
                                                   for n, m, x in tg],
                   "runs": runs}, f, indent=1)
    log(f"bench: raw figures in {path}")
    if args.readme:
        report(runs, mach, started.isoformat(timespec="seconds"), mode, reps, True, quiet=True,
               pinning=pinning)
    bad = [r for r in runs if not r["ok"]]
    if bad or not ok:
        log(f"bench: {len(bad)} run(s) failed their checks")
        return 1
    return 0


def report(runs, mach, started, mode, reps, readme, quiet=False, pinning=None):
    """Prints the table and the targets; with readme, records them in README.md."""
    summary = summarize(runs)
    table = markdown(summary)
    tg = targets(summary)
    when = started.replace("T", " ")[:16]
    commit = f" of trov {mach['commit']}" if mach.get("commit") else ""
    header = (f"Run{commit} on {when}, {mode} ({reps} repetition{'s' if reps > 1 else ''}); "
              f"{mach['nproc']} CPUs ({mach['cpu']}), kernel {mach['kernel']}, "
              f"{mach['mem_gib']} GiB; {mach['tools']['nginx'].replace('nginx version: ', '')}, "
              f"{' '.join(mach['tools']['curl'].split()[:2])}, "
              f"{' '.join(mach['tools']['wget'].split()[:3])}, "
              f"{' '.join(mach['tools']['aria2c'].split()[:3])}.")
    if pinning and pinning.get("orderer") != pinning.get("client"):
        header += f" The order driver ran on CPU {pinning['orderer']}, not with the daemon."
    if pinning and pinning.get("max_mmap_mb_bc", 8) != 8:
        header += f" max_mmap_mb = {pinning['max_mmap_mb_bc']} in b and c."
    if pinning and pinning.get("keepalive"):
        header += " Source keep-alive on (64 idle connections per origin)."
    loads = [r["other_cpu_s"] / r["wall_s"] for r in runs
             if r.get("other_cpu_s") is not None and r.get("wall_s")]
    if loads:
        header += (f" Other load during the runs: median {statistics.median(loads):.2f} CPUs, "
                   f"max {max(loads):.2f}.")
    tg_text = "\n".join(f"- {'met' if met else 'NOT met'}: {name} ({fig})" for name, met, fig in tg)
    text = header + "\n\n" + table + "\n\nTargets:\n\n" + tg_text
    if not quiet:
        print(text)
    if readme:
        write_readme(os.path.join(HERE, "README.md"), text)
    return summary, tg


if __name__ == "__main__":
    sys.exit(main())
