#!/usr/bin/env python3
"""Order bursts on the UDP channel: does every datagram order get fetched?

Orders are published in bursts (one segment on every channel at the same
moment), so the channel must take a burst whole. Two scenarios against the
daemon's default configuration of the order channel (no rcvbuf_kb key):

  u1  4,096 orders of 16 KiB files, sent as fast as one sender can
  u2  2,000 orders of 256 KiB files, paced at 10,000 datagrams/s

Each repetition counts the files that arrived (checked byte by byte on
samples, as bench.py does), the orders never fetched, and the datagrams the
daemon reported dropped. Started by bench/run-burst; shares bench.py's
origin, daemon runner and file checks.
"""
import argparse
import os
import re
import socket
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import bench  # noqa: E402

DROP_RE = re.compile(rb"udl_report_drops: (\d+) order datagrams dropped \(receive buffer full\)")


def send_burst(port, datagrams, rate):
    """Sends every datagram; rate 0 = as fast as possible, else paced per ms."""
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    t0 = time.monotonic()
    if rate <= 0:
        for d in datagrams:
            s.sendto(d, ("127.0.0.1", port))
    else:
        per_tick = max(1, rate // 1000)  # a tick is a millisecond
        for i in range(0, len(datagrams), per_tick):
            due = t0 + (i / rate)
            now = time.monotonic()
            if due > now:
                time.sleep(due - now)
            for d in datagrams[i:i + per_tick]:
                s.sendto(d, ("127.0.0.1", port))
    s.close()
    return time.monotonic() - t0


def wait_files(dst, want, stall_s, limit_s):
    """Waits until want files are in dst, or nothing new came for stall_s,
    or limit_s passed. Returns (count, seconds until the last one came)."""
    t0 = time.monotonic()
    last_n, last_change = -1, t0
    while True:
        try:
            n = sum(1 for f in os.listdir(dst) if not f.endswith("-Trov"))
        except FileNotFoundError:
            n = 0
        now = time.monotonic()
        if n != last_n:
            last_n, last_change = n, now
        if n >= want or now - last_change > stall_s or now - t0 > limit_s:
            return n, last_change - t0
        time.sleep(0.02)


def drops_in(path):
    try:
        with open(path, "rb") as f:
            return sum(int(m.group(1)) for m in DROP_RE.finditer(f.read()))
    except OSError:
        return 0


def one_case(env, trov, name, sub, names, rate, rep):
    dst_rel = f"burst-{name}"
    dst = os.path.join(trov.data, dst_rel)
    bench.rmtree_contents(dst)
    os.makedirs(dst, exist_ok=True)
    trov.truncate_log()
    exp = int(time.time()) + 3600
    dgs = [f"#!{name}r{rep}n{i:05d} http://0/src/{env.origin.url(f'/f/{sub}/{n}')}"
           f"/dst/{dst_rel}/{n} {exp}".encode() for i, n in enumerate(names)]
    c0 = trov.cpu_now()
    send_s = send_burst(trov.udp, dgs, rate)
    got, last_s = wait_files(dst, len(names), stall_s=5.0, limit_s=120.0)
    c1 = trov.cpu_now()
    # Give the once-a-second report of drops time to come.
    time.sleep(1.5)
    dropped = drops_in(trov.log)
    ok, bad, extra = bench.verify(env, sub, names, dst, 16)
    res = {"case": name, "rep": rep, "orders": len(names), "fetched": got, "verified": ok,
           "missing": len(names) - got, "dropped_reported": dropped,
           "send_s": round(send_s, 3), "wall_s": round(last_s, 3),
           "cpu_s": round(c1["total"] - c0["total"], 3), "problems": bad, "leftovers": extra}
    bench.rmtree_contents(dst)
    return res


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--trov", required=True)
    ap.add_argument("--reps", type=int, default=3)
    ap.add_argument("--scale", type=float, default=1.0, help="fraction of the order counts")
    ap.add_argument("--rcvbuf-kb", type=int,
                    help="set udp_input.rcvbuf_kb (default: key absent, the daemon's default)")
    ap.add_argument("--work-dir", default="/dev/shm")
    args = ap.parse_args()

    ns = argparse.Namespace(trov=args.trov, orderer="", orderer_cpu=None, work_dir=args.work_dir,
                            disk_dir=args.work_dir + "/disk", perf=None, quiet_wait=0,
                            keep=False)
    os.makedirs(ns.disk_dir, exist_ok=True)
    env = bench.Env(ns)
    os.sched_setaffinity(0, {env.cpu_origin})
    results = []
    try:
        env.origin = bench.Nginx(env.work, "nginx-origin", env.origin_root, env.cpu_origin)
        os.makedirs(os.path.join(env.origin_root, "f"), exist_ok=True)
        env.origin.start()
        n1, n2 = int(4096 * args.scale), int(2000 * args.scale)
        small = env.make_files("u1", n1, 16 * bench.KiB)
        mid = env.make_files("u2", n2, 256 * bench.KiB)
        trov = bench.Trov(env, "burst", os.path.join(env.work, "data"), level="warn")
        if args.rcvbuf_kb is not None:
            with open(trov.conf) as f:
                text = f.read()
            with open(trov.conf, "w") as f:
                f.write(text.replace("must_lock = false;",
                                     f"must_lock = false;\n        rcvbuf_kb = {args.rcvbuf_kb};"))
        trov.start()
        for rep in range(1, args.reps + 1):
            for name, sub, names, rate in (("u1", "u1", small, 0), ("u2", "u2", mid, 10000)):
                r = one_case(env, trov, name, sub, names, rate, rep)
                results.append(r)
                bench.log(f"burst: {name} rep {rep}: {r['fetched']}/{r['orders']} fetched "
                          f"({r['verified']} verified), {r['dropped_reported']} reported dropped, "
                          f"sent in {r['send_s']} s, last file after {r['wall_s']} s, "
                          f"daemon CPU {r['cpu_s']} s")
        hwm = trov.mem().get("VmHWM")
        trov.stop()
    finally:
        env.cleanup()
    print("| case | rep | orders | fetched | never fetched | reported dropped | sent in | "
          "all in after | daemon CPU |")
    print("|---|---|---|---|---|---|---|---|---|")
    for r in results:
        print(f"| {r['case']} | {r['rep']} | {r['orders']} | {r['verified']} | {r['missing']} | "
              f"{r['dropped_reported']} | {r['send_s']:.2f} s | {r['wall_s']:.2f} s | "
              f"{r['cpu_s']:.2f} s |")
    print(f"\npeak RSS of the daemon: {hwm} KiB")
    complete = sum(1 for r in results if r["verified"] == r["orders"] and not r["leftovers"])
    print(f"complete runs: {complete} of {len(results)}")
    return 0 if complete == len(results) else 1


if __name__ == "__main__":
    sys.exit(main())
