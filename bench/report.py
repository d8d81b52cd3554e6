#!/usr/bin/env python3
"""Prints a benchmark run as one table: medians of the repetitions, and each ratio against the peer
from paired repetitions (the run interleaves the repetitions of every case at random, so the i-th
repetition of ours and of the peer ran side by side), with its median and spread."""
import json
import statistics
import sys

run = json.load(open(sys.argv[1]))
reps = {}  # case name -> [(repetition index, time, counters)]
for b in run["benchmarks"]:
    if b.get("run_type") != "iteration":
        continue
    name = b["run_name"]
    t = b["real_time"] if ("real_time" in name or "manual_time" in name) else b["cpu_time"]
    unit = b.get("time_unit", "ns")
    t *= {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[unit]
    reps.setdefault(name, []).append((b.get("repetition_index", 0), t, b))


def median(name):
    r = reps.get(name)
    return statistics.median(t for _, t, _ in r) if r else None


def counter(name, key):
    r = reps.get(name)
    vals = [b[key] for _, _, b in r if key in b] if r else []
    return statistics.median(vals) if vals else None


def ratio(ours, peer):
    """Median and spread (lowest and highest quarter cut) of ours/peer over paired repetitions."""
    a, p = dict((i, t) for i, t, _ in reps.get(ours, [])), dict((i, t) for i, t, _ in reps.get(peer, []))
    pairs = sorted(a[i] / p[i] for i in a if i in p and p[i] > 0)
    if not pairs:
        return "no peer"
    q = len(pairs) // 4
    return f"{statistics.median(pairs):.2f}x ({pairs[q]:.2f} to {pairs[-1 - q]:.2f}, {len(pairs)} pairs)"


def fmt(v, unit="ns"):
    if v is None:
        return "-"
    if unit == "us":
        return f"{v / 1000:.2f} us"
    return f"{v:.0f} ns" if v >= 10 else f"{v:.2f} ns"


rows = []
def row(case, ours, peer, target, result):
    rows.append((case, ours, peer, target, result))

a, p = "BM_Manager_AcquireRelease", "BM_Peer_AcquireRelease"
row("1. acquire + release, one thread", fmt(median(a)), fmt(median(p)), "<= 1.8x peer", ratio(a, p))
a, p = "BM_Manager_AcquireReleasePipelined/real_time", "BM_Peer_AcquireReleasePipelined/real_time"
row("2. acquire + release on two threads", fmt(median(a)), fmt(median(p)), "<= 2.0x peer", ratio(a, p))
for streams, sets in ((1, 10), (4, 10), (8, 10), (4, 100), (4, 1000)):
    n = f"BM_Manager_Frame/{streams}/{sets}"
    allocs = counter(n, "allocs/frame")
    pipeline = counter(n, "by pipeline")
    note = ""
    if allocs is not None and pipeline is not None:
        note = f"{allocs:.0f} allocs/frame, {allocs - pipeline:.0f} by the manager"
    target = "<= 1.5 us" if streams == 4 else "linear in streams, flat in sets"
    row(f"3. frame: {streams} streams, {sets} sets ready", fmt(median(n), "us"), "", target, note)
n = "BM_Manager_StarvingRequest/manual_time"
if n in reps:
    row("4. starving pool fed from history: median", fmt(counter(n, "median_ns")), "", "", "")
    p99 = counter(n, "p99_ns")
    row("4. starving pool fed from history: p99", fmt(p99), "", "< 20 us",
        "met" if p99 is not None and p99 < 20000 else "not met")
for n, label in (("BM_Log_ObjectLevelTooLow", "5. debug site, object level too low"),
                 ("BM_Log_GlobalSwitchOff", "5. debug site, global switch off")):
    v = median(n)
    row(label, fmt(v), "", "< 2 ns", "met" if v is not None and v < 2 else "not met")
for sets in (4, 64):
    row(f"6. select and give back {sets} sets", fmt(median(f"BM_Manager_SelectReturnAll/{sets}"), "us"), "", "", "")
n = "BM_Manager_FirstBufferAfterConfigure/manual_time"
if n in reps:
    first, alloc = median(n), counter(n, "alloc_ns")
    met = first is not None and alloc is not None and first <= alloc + 100_000
    row("7. first buffer after configure", fmt(first, "us"), "",
        f"<= one heap ({fmt(alloc, 'us')}) + 100 us", "met" if met else "not met")

header = ("case", "ours", "peer", "target", "ratio (spread) / result")
widths = [max(len(str(r[i])) for r in rows + [header]) for i in range(5)]
print("  ".join(h.ljust(w) for h, w in zip(header, widths)))
print("  ".join("-" * w for w in widths))
for r in rows:
    print("  ".join(str(v).ljust(w) for v, w in zip(r, widths)))
ctx = run.get("context", {})
n = max((len(v) for v in reps.values()), default=0)
print(f"\nmachine: {ctx.get('num_cpus')} x {ctx.get('mhz_per_cpu')} MHz; {n} repetitions of every case, "
      "interleaved at random; medians, and ratios from paired repetitions (spread: middle half)")
