#!/usr/bin/env python3
"""Reads a callgrind output file (events Ir and Ge: instructions and global bus events, that is
atomic read-modify-writes) and prints the cost per cycle by owner. A function's own cost goes to
its owner, known by its name; a function of no owner (the C and C++ libraries, the standard
headers' templates) is charged to its callers, in proportion to what their calls to it cost.
Usage: profile.py CALLGRIND_OUT CYCLES [whole]   (whole: the total only)"""
import collections
import re
import sys

# Owners by function name, the first that matches (a release build has names, not source lines).
OWNERS = [("heap pool", r"BufferHeapPool::"), ("producer", r"BufferProducer::"),
          ("manager", r"pipeline::"),
          ("platform", r"\bHost|Utils::|vexlor::|IMetadata|IImageBufferHeap"),
          ("caller", r"fbmbench::|^fbm_profile_cycles|^main$")]

names = {}  # (kind, id) -> name
self_cost = collections.defaultdict(lambda: [0, 0])  # fn -> [Ir, Ge]
calls = collections.defaultdict(lambda: [0, 0])      # (caller, callee) -> inclusive [Ir, Ge]
events = []


def named(kind, text):
    """Resolves callgrind's name compression: '(id) name' defines, '(id)' refers."""
    m = re.match(r"\((\d+)\)(?: (.*))?$", text)
    if not m:
        return text
    key = (kind, m.group(1))
    if m.group(2) is not None:
        names[key] = m.group(2)
    return names[key]


def costs(line):
    fields = line.split()[1:]  # the position first
    vals = [int(v) for v in fields[: len(events)]]
    return vals + [0] * (len(events) - len(vals))


fn = callee = None
in_call = False
with open(sys.argv[1]) as f:
    for raw in f:
        line = raw.rstrip("\n")
        if line.startswith("events:"):
            events = line.split()[1:]
        elif line.startswith(("fl=", "fi=", "fe=")):
            named("fl", line[3:])
        elif line.startswith("fn="):
            fn = named("fn", line[3:])
        elif line.startswith(("cfl=", "cfi=")):
            named("fl", line[4:])
        elif line.startswith("cfn="):
            callee = named("fn", line[4:])
        elif line.startswith(("ob=", "cob=")):
            named("ob", line.split("=", 1)[1])
        elif line.startswith("calls="):
            in_call = True
        elif line and (line[0].isdigit() or line[0] in "+-*"):
            c = costs(line)
            target = calls[(fn, callee)] if in_call else self_cost[fn]
            target[0] += c[0]
            target[1] += c[1] if len(c) > 1 else 0
            in_call = False

if events[:2] != ["Ir", "Ge"]:
    sys.exit("profile.py: run callgrind with --collect-bus=yes (events Ir Ge)")


def owner(name):
    for o, pattern in OWNERS:
        if re.search(pattern, name):
            return o
    return None


callers = collections.defaultdict(list)
for (a, b), c in calls.items():
    if a != b:
        callers[b].append((a, c[0] + 1))

share = {}  # an unowned function -> {owner: fraction of its cost}


def shares(name, seen=()):
    if name in share:
        return share[name]
    o = owner(name)
    if o:
        return {o: 1.0}
    if not callers.get(name) or name in seen:
        return {"caller": 1.0}
    out = collections.defaultdict(float)
    total = sum(w for _, w in callers[name])
    for a, w in callers[name]:
        for k, v in shares(a, seen + (name,)).items():
            out[k] += v * w / total
    share[name] = out
    return out


by_owner = collections.defaultdict(lambda: [0.0, 0.0])
for name, (ir, ge) in self_cost.items():
    for k, v in shares(name).items():
        by_owner[k][0] += ir * v
        by_owner[k][1] += ge * v

n = float(sys.argv[2])
whole = len(sys.argv) > 3 and sys.argv[3] == "whole"  # a peer: no owners of ours


def row(label, ir, ge):
    print(f"{label:<24} {ir / n:>12,.0f} {ge / n:>8.1f}")


print(f"{'owner':<24} {'instructions':>12} {'atomics':>8}")
total = [sum(v[0] for v in by_owner.values()), sum(v[1] for v in by_owner.values())]
if not whole:
    for o, _ in OWNERS:
        row(o, *by_owner[o])
    row("in all, but the platform", total[0] - by_owner["platform"][0], total[1] - by_owner["platform"][1])
row("in all", *total)
