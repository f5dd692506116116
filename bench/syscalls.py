#!/usr/bin/env python3
"""System calls per order: strace -c on the daemon while orders come one at a time.

Started by bench/run-syscalls (which builds the release daemon and the order
driver). For each case (HTTP or datagram orders, fresh or kept source
connections) a daemon is started on the bench's configuration, warmed up,
then traced with `strace -f -c` over N orders of 16 KiB sent one after
another; the table gives the calls per order, by name.
"""

import argparse
import os
import re
import signal
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import bench  # noqa: E402


def trace_orders(env, trov, mode, names, warm):
    for d in ("w", "x"):
        bench.rmtree_contents(os.path.join(trov.data, d))
    bench.run_orderer(env, trov, mode, "s", names[:warm], "w", 1, 120)
    out = os.path.join(trov.dir, f"strace-{mode}.txt")
    st = subprocess.Popen(["strace", "-f", "-c", "-o", out, "-p", str(trov.pid)],
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    time.sleep(0.5)  # strace attaches
    res = bench.run_orderer(env, trov, mode, "s", names[warm:], "x", 1, 300)
    st.send_signal(signal.SIGINT)
    st.wait(timeout=30)
    if res.get("completed") != len(names) - warm:
        sys.exit(f"syscalls: {mode}: {res.get('completed')} of {len(names) - warm} orders done")
    counts = {}
    with open(out) as f:
        for line in f:
            m = re.match(r"\s*[\d.]+\s+[\d.]+\s+\d+\s+(\d+)\s+(?:\d+\s+)?(\w+)\s*$", line)
            if m and m.group(2) != "total":
                counts[m.group(2)] = int(m.group(1))
    return counts


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--orders", type=int, default=200)
    ap.add_argument("--work-dir", default="/dev/shm")
    ap.add_argument("--max-mmap-mb", type=int, default=8)
    ap.add_argument("--trov", required=True)
    ap.add_argument("--orderer", required=True)
    args = ap.parse_args()
    args.disk_dir = os.path.join(args.work_dir, f"trov-syscalls-{os.getpid()}")
    args.orderer_cpu = None
    args.perf = None
    args.quiet_wait = 0
    args.keep = False
    warm = 20
    os.makedirs(args.disk_dir)
    env = bench.Env(args)
    table = {}
    try:
        env.origin = bench.Nginx(env.work, "nginx-origin", env.origin_root, env.cpu_origin)
        os.makedirs(os.path.join(env.origin_root, "f"), exist_ok=True)
        env.origin.start()
        names = env.make_files("s", warm + args.orders, 16 * bench.KiB)
        for ka in (False, True):
            args.keepalive = ka
            for mode in ("udp", "http"):
                trov = bench.Trov(env, f"{mode}-{'ka' if ka else 'new'}",
                                  os.path.join(env.work, "data"), mmap_mb=args.max_mmap_mb)
                trov.start()
                try:
                    table[(mode, ka)] = trace_orders(env, trov, mode, names, warm)
                finally:
                    trov.stop()
    finally:
        env.cleanup()
        os.rmdir(args.disk_dir)
    cols = [("udp", False), ("udp", True), ("http", False), ("http", True)]
    calls = sorted({c for v in table.values() for c in v},
                   key=lambda c: -sum(v.get(c, 0) for v in table.values()))
    print("| system call | UDP, new connection | UDP, kept connection | HTTP, new connection "
          "| HTTP, kept connection |")
    print("|---|---|---|---|---|")
    for c in calls:
        print(f"| {c} | " + " | ".join(f"{table[k].get(c, 0) / args.orders:.2f}" for k in cols)
              + " |")
    print("| **total** | " + " | ".join(f"**{sum(table[k].values()) / args.orders:.1f}**"
                                         for k in cols) + " |")
    return 0


if __name__ == "__main__":
    sys.exit(main())
