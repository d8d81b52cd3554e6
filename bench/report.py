#!/usr/bin/env python3
"""Prints the benchmark run as one table: medians, ratios against the peer, targets."""
import json
import sys

run = json.load(open(sys.argv[1]))
med = {}
counters = {}
for b in run["benchmarks"]:
    if b.get("aggregate_name") != "median":
        continue
    name = b["run_name"]
    med[name] = b["real_time"] if "real_time" in name else b["cpu_time"]
    counters[name] = b

def ns(name):
    return med.get(name)

rows = []
def row(case, ours, peer, target, met):
    rows.append((case, ours, peer, target, met))

def fmt(v, unit="ns"):
    if v is None:
        return "-"
    return f"{v / 1000:.2f} us" if unit == "us" else f"{v:.0f} ns" if v >= 10 else f"{v:.2f} ns"

a, p = ns("BM_Manager_AcquireRelease"), ns("BM_Peer_AcquireRelease")
row("1. acquire + release, one thread", fmt(a), fmt(p), "<= 1.0x peer",
    f"{a / p:.2f}x" if a and p else "no peer")
a, p = ns("BM_Manager_AcquireReleasePipelined/real_time"), ns("BM_Peer_AcquireReleasePipelined/real_time")
row("2. acquire + release on two threads", fmt(a), fmt(p), "<= 1.0x peer",
    f"{a / p:.2f}x" if a and p else "no peer")
for streams, sets in ((1, 10), (4, 10), (8, 10), (4, 100), (4, 1000)):
    n = f"BM_Manager_Frame/{streams}/{sets}"
    c = counters.get(n, {})
    allocs = c.get("allocs/frame")
    note = f"{allocs:.0f} allocs/frame" if allocs is not None else ""
    target = "<= 5 us" if streams == 4 else "linear in streams, flat in sets"
    row(f"3. frame: {streams} streams, {sets} sets ready", fmt(ns(n), "us"), "", target, note)
c = counters.get("BM_Manager_StarvingRequest/manual_time", {})
if c:
    row("4. starving pool fed from history: median", fmt(c.get("median_ns")), "", "", "")
    row("4. starving pool fed from history: p99", fmt(c.get("p99_ns")), "", "< 20 us",
        "met" if c.get("p99_ns", 1e9) < 20000 else "not met")
for n, label in (("BM_Log_ObjectLevelTooLow", "5. debug site, object level too low"),
                 ("BM_Log_GlobalSwitchOff", "5. debug site, global switch off")):
    v = ns(n)
    row(label, fmt(v), "", "< 2 ns", "met" if v is not None and v < 2 else "not met")
for sets in (4, 64):
    row(f"6. select and give back {sets} sets", fmt(ns(f"BM_Manager_SelectReturnAll/{sets}"), "us"), "", "", "")

widths = [max(len(str(r[i])) for r in rows + [("case", "ours", "peer", "target", "ratio / result")]) for i in range(5)]
header = ("case", "ours", "peer", "target", "ratio / result")
print("  ".join(h.ljust(w) for h, w in zip(header, widths)))
print("  ".join("-" * w for w in widths))
for r in rows:
    print("  ".join(str(v).ljust(w) for v, w in zip(r, widths)))
ctx = run.get("context", {})
print(f"\nmachine: {ctx.get('num_cpus')} x {ctx.get('mhz_per_cpu')} MHz, medians of {ctx.get('repetitions', 3)} repetitions")
