#!/usr/bin/env python3
"""Where the daemon's CPU goes, from a profile recorded by `bench/run --perf DIR`.

    bench/perf_summary.py DIR/c-c-64-err-udp.data [--units 20000] [--focus SYMBOL ...]

Prints the share of samples (and, given --units, the microseconds per unit:
file, request or GiB) spent inside each system call, in the page-fault path,
and in user space by function, from the call chains of a cpu-clock profile.
With --focus, also the callees of each named symbol. Needs perf.
"""

import argparse
import collections
import subprocess
import sys


def stacks_of(path):
    out = subprocess.run(["perf", "script", "-i", path, "-F", "period,ip,sym"],
                         capture_output=True, text=True, check=True).stdout
    stacks, cur = [], None
    for line in out.splitlines():
        line = line.strip()
        if not line:
            continue
        parts = line.split(None, 1)
        if len(parts) == 1 and parts[0].isdigit():  # a sample's header: its period
            if cur:
                stacks.append(cur)
            cur = []
            continue
        if cur is None:
            cur = []
        sym = parts[1] if len(parts) > 1 else "[unknown]"
        cur.append(sym.split("+0x")[0].split(" (")[0])
    if cur:
        stacks.append(cur)
    return stacks  # each one leaf first


PREFIXES = ("__x64_sys_", "__do_sys_", "__se_sys_", "ksys_", "__sys_", "do_sys_", "__x64_")


def entry_of(stack):
    """The system call (or fault) a sample sits in; None for user space."""
    for i in range(len(stack) - 1, -1, -1):  # from the root down
        sym = stack[i]
        if sym in ("asm_exc_page_fault", "exc_page_fault"):
            return "page fault"
        if sym in ("do_syscall_64", "x64_sys_call"):
            callee = stack[i - 1] if i > 0 else "?"
            if callee == "x64_sys_call" and i > 1:
                callee = stack[i - 2]
            for p in PREFIXES:
                if callee.startswith(p):
                    return callee[len(p):]
            return callee
        if sym.startswith(("entry_SYSCALL", "asm_sysvec", "asm_common_interrupt")):
            continue
    if stack and stack[0].startswith(("entry_SYSCALL", "syscall_", "do_syscall")):
        return "syscall entry/exit"
    return None


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("data")
    ap.add_argument("--units", type=float, default=0, help="files, requests or GiB in the run")
    ap.add_argument("--top", type=int, default=25)
    ap.add_argument("--focus", nargs="*", default=[])
    ap.add_argument("--hz", type=float, default=4000, help="sampling frequency of the record")
    args = ap.parse_args()
    stacks = stacks_of(args.data)
    n = len(stacks)
    if n == 0:
        sys.exit("no samples")
    per = 1e6 / args.hz / args.units if args.units else 0

    def show(title, counter, top):
        print(f"\n{title}")
        for k, v in counter.most_common(top):
            extra = f"  {v * per:8.1f} us/unit" if per else ""
            print(f"  {100 * v / n:5.1f}%{extra}  {k}")

    sysc, user = collections.Counter(), collections.Counter()
    kernel_total = 0
    for st in stacks:
        name = entry_of(st)
        in_user = name is None
        if in_user:
            leaf = st[0] if st else "?"
            user[leaf] += 1
        else:
            kernel_total += 1
            sysc[name] += 1
    print(f"{n} samples; {100 * kernel_total / n:.1f}% in the kernel, "
          f"{100 * (n - kernel_total) / n:.1f}% in user space"
          + (f"; {n * per:.1f} us per unit sampled" if per else ""))
    show("inside system calls and faults (inclusive):", sysc, args.top)
    show("user space, by function (self):", user, args.top)
    for f in args.focus:
        callees = collections.Counter()
        for st in stacks:
            if f in st:
                i = st.index(f)
                callees[st[i - 1] if i > 0 else "<self>"] += 1
        show(f"callees of {f} ({100 * sum(callees.values()) / n:.1f}%):", callees, 12)


if __name__ == "__main__":
    main()
