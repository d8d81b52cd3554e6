#!/usr/bin/env python3
"""Two cameras at once: runs the two pipelines of a scenario together (fbm-sim, one process, each
pipeline on its own threads) and each alone, interleaved, and prints the wall-clock scaling
(frames a second of both at once over one alone) and the CPU time per frame of each way.
Usage: dual.py FBM_SIM SCENARIO [FRAMES] [ROUNDS]"""
import json
import os
import re
import resource
import statistics
import subprocess
import sys
import tempfile
import time

sim, scenario = sys.argv[1], sys.argv[2]
frames = int(sys.argv[3]) if len(sys.argv) > 3 else 20000
rounds = int(sys.argv[4]) if len(sys.argv) > 4 else 5
plan = json.load(open(scenario))
alone = []
tmp = tempfile.mkdtemp()
for p in plan["pipelines"]:
    path = os.path.join(tmp, p["name"] + ".json")
    json.dump(dict(p, frames=plan.get("frames", frames)), open(path, "w"))
    alone.append(path)


def run(path):
    """The seconds each pipeline of one fbm-sim run took to run its frames (as it reports them,
    without the process's start and end), and the run's CPU seconds."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    out = subprocess.run([sim, "--no-progress", "--scenario", path, "-n", str(frames)],
                         capture_output=True, text=True)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    if out.returncode != 0 or "leak check: OK" not in out.stdout:
        sys.exit(f"dual.py: {path} failed:\n{out.stdout}{out.stderr}")
    seconds = [float(s) for s in re.findall(r"frames in ([0-9.]+) s\)", out.stdout)]
    return seconds, (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)


n = len(alone)
scaling, cpu_alone, cpu_both = [], [], []
for _ in range(rounds):
    singles = [run(path) for path in alone]
    both = run(scenario)
    # One after the other the pipelines take the sum of their times; at once, the longest.
    scaling.append(sum(s[0][0] for s in singles) / max(both[0]))
    cpu_alone.append(sum(c for _, c in singles) / (n * frames) * 1e6)
    cpu_both.append(both[1] / (n * frames) * 1e6)

med = statistics.median
print(f"two cameras ({os.path.basename(scenario)}, {frames} frames each, {rounds} round{'s' if rounds != 1 else ''}, interleaved):")
print(f"  wall-clock scaling  {med(scaling):.2f}x  ({min(scaling):.2f} to {max(scaling):.2f}; 2.00x is perfect)")
print(f"  CPU per frame       alone {med(cpu_alone):.1f} us, both at once {med(cpu_both):.1f} us "
      f"({(med(cpu_both) / med(cpu_alone) - 1) * 100:+.0f}%)")
