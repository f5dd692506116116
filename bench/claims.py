#!/usr/bin/env python3
"""What coordinating agents costs per datagram order: lock files against claims.

Scenario c of bench.py (16 KiB files, 64 orders outstanding) with UDP orders
only, against three daemons that differ in how they coordinate:

  none          must_lock = false (what bench.py measures)
  file          must_lock = true, a lock file per order on the tmpfs
  redis         claim = "redis": a claim and a release per order in a local
                redis-server (pinned with the origin)

The "file" and "redis" daemons also have the lbdb section (every file is
registered, as a fleet that coordinates through Redis would run), so the two
differ only in the coordination. Started by bench/run-claims.
"""
import argparse
import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(HERE)
sys.path.insert(0, HERE)
import bench  # noqa: E402


def start_redis(env, port):
    d = os.path.join(env.work, "redis")
    os.makedirs(d, exist_ok=True)
    p = bench.spawn(bench.pinned(env.cpu_origin, [
        "redis-server", "--port", str(port), "--bind", "127.0.0.1", "--save", "",
        "--appendonly", "no", "--dir", d]))
    for _ in range(200):
        if subprocess.run(["redis-cli", "-p", str(port), "ping"], capture_output=True,
                          text=True).stdout.strip() == "PONG":
            break
        time.sleep(0.05)
    sha = os.path.join(d, "sha1")
    subprocess.run([os.path.join(TOP, "scripts", "lbdb-load"), "127.0.0.1", str(port), sha],
                   check=True, capture_output=True)
    return p, sha


def variant(env, name, data, redis_port, sha_dir):
    t = bench.Trov(env, name, data, level="err")
    with open(t.conf) as f:
        text = f.read()
    lock_dir = os.path.join(env.work, f"locks-{name}")
    os.makedirs(lock_dir, exist_ok=True)
    coord = {"none": "must_lock = false;",
             "file": f'must_lock = true;\n        lock_dir = "{lock_dir}";',
             "redis": 'claim = "redis";'}[name]
    text = text.replace("must_lock = false;", coord)
    if name != "none":
        text = text.replace("    data_dir =", f'''    lbdb: {{
        host = "127.0.0.1";
        port = {redis_port};
        sha1_dir = "{sha_dir}";
    }};
    local_url_prefix = "http://edge.example/";
    data_dir =''')
    with open(t.conf, "w") as f:
        f.write(text)
    return t


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--trov", required=True)
    ap.add_argument("--orderer", required=True)
    ap.add_argument("--reps", type=int, default=3)
    ap.add_argument("--files", type=int, default=20000)
    ap.add_argument("--work-dir", default="/dev/shm")
    args = ap.parse_args()
    ns = argparse.Namespace(trov=args.trov, orderer=args.orderer, orderer_cpu=None,
                            work_dir=args.work_dir, disk_dir=args.work_dir + "/claims-disk",
                            perf=None, quiet_wait=60, keep=False, max_mmap_mb=8)
    os.makedirs(ns.disk_dir, exist_ok=True)
    env = bench.Env(ns)
    os.sched_setaffinity(0, {env.cpu_origin})
    runs = []
    redis = None
    try:
        env.origin = bench.Nginx(env.work, "nginx-origin", env.origin_root, env.cpu_origin)
        os.makedirs(os.path.join(env.origin_root, "f"), exist_ok=True)
        env.origin.start()
        redis_port = bench.free_port()
        redis, sha_dir = start_redis(env, redis_port)
        names = env.make_files("c", args.files, 16 * bench.KiB)
        for name in ("none", "file", "redis"):
            data = os.path.join(env.work, f"data-{name}")
            t = variant(env, name, data, redis_port, sha_dir).start()
            try:
                for rep in range(1, args.reps + 1):
                    r = bench.trov_run(env, t, "udp", "c", "claims", f"trov udp {name}", rep, "c",
                                       names, "x", 64, len(names), "files", 4, 600)
                    runs.append(r)
                    bench.log(f"claims: {name} rep {rep}: {len(names) / r['wall_s']:.0f} files/s, "
                              f"{r['cpu_s'] / len(names) * 1e6:.1f} us daemon CPU/file, "
                              f"ok={r['ok']}")
            finally:
                t.stop()
    finally:
        if redis is not None:
            bench.stop(redis)
        env.cleanup()
    print("| coordination | files/s (median) | daemon CPU per file (median) | runs ok |")
    print("|---|---|---|---|")
    for name in ("none", "file", "redis"):
        rs = [r for r in runs if r["tool"] == f"trov udp {name}"]
        if not rs:
            continue
        rate = sorted(r["units"] / r["wall_s"] for r in rs)[len(rs) // 2]
        cpu = sorted(r["cpu_s"] / r["units"] * 1e6 for r in rs)[len(rs) // 2]
        print(f"| {name} | {rate:,.0f} | {cpu:.1f} µs | {sum(r['ok'] for r in rs)}/{len(rs)} |")
    return 0 if all(r["ok"] for r in runs) else 1


if __name__ == "__main__":
    sys.exit(main())
