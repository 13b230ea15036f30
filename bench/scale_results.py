#!/usr/bin/env python3
"""Writes the section "At scale" of bench/RESULTS.md from scripts/bench-scale.sh's outputs.

usage: scale_results.py WORK_DIR RESULTS_MD
"""
import glob
import json
import os
import re
import sys

work, results = sys.argv[1], sys.argv[2]


def rows(path):
    """name -> counters of the median aggregate (or the one run) of each benchmark."""
    out = {}
    for b in json.load(open(path))["benchmarks"]:
        name = re.sub(r"/(0|1)?/?real_time.*$", "", b["name"])
        if "library_us" not in b or (b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median"):
            continue
        if b.get("run_type") == "aggregate" or name not in out:
            out[name] = b
    return out


def size_of(path):
    return int(re.search(r"-(\d+)\.json$", path).group(1))


runs = {}
for path in glob.glob(os.path.join(work, "fast-*.json")) + glob.glob(os.path.join(work, "walk-*.json")):
    for name, b in rows(path).items():
        runs[name] = b

def ms(us):
    return f"{us / 1000:,.2f} ms" if us >= 1000 else f"{us:,.0f} µs"

lines = ["## At scale", "",
         "Written by `scripts/bench-scale.sh`: throwaway slapd (dbnosync) filled by "
         "`scripts/directory populate --keys` (10 units; users hold two certificates and two "
         "encrypted keys, about 4.4 KiB). Every library call is paired with its raw-libldap "
         "counterpart in one loop (median call times of the median repetition; *speed* is raw "
         "time / library time, 1.00 = as fast as raw libldap). The lookups look for users of the "
         "last unit, spread over the directory, so that the walk visits every unit.", ""]
for path in sorted(glob.glob(os.path.join(work, "populate-*.txt")), key=lambda p: int(re.search(r"-(\d+)\.txt$", p).group(1))):
    lines.append("- " + open(path).read().strip().replace("directory: ", ""))
lines += ["", "| operation | users | library, median call | raw libldap, median call | speed vs raw |",
          "|---|---:|---:|---:|---:|"]
labels = {"lookup/fast": "GetFullDN, fast_lookup = yes (one indexed search)",
          "lookup/walk": "GetFullDN, the walk (default)",
          "passwd/fast": "ModifyPriKeyPsw by name, fast_lookup = yes",
          "passwd/walk": "ModifyPriKeyPsw by name, the walk (default)",
          "key_read": "key read by DN (GetSignPublicKey)"}
def key(name):
    op, n = name.rsplit("/users:", 1)
    return (list(labels).index(op), int(n))
for name in sorted(runs, key=key):
    op, n = name.rsplit("/users:", 1)
    b = runs[name]
    lines.append(f"| {labels[op]} | {int(n):,} | {ms(b['library_us'])} | {ms(b['raw_us'])} | "
                 f"{b['raw_us'] / b['library_us']:.3f} |")
memory = os.path.join(work, "memory.txt")
if os.path.exists(memory):
    lines += ["", "- " + open(memory).read().strip()]
walked = sorted(size_of(p) for p in glob.glob(os.path.join(work, "walk-*.json")))
slow = [n for n in walked if max(runs.get(f"{op}/users:{n}", {"library_us": 0})["library_us"] for op in ("lookup/walk",)) >= 10e6]
if slow:
    lines += [f"- The walk passes 10 s per call at {slow[0]:,} users (one call measured there, none beyond)."]
section = "\n".join(lines) + "\n"

text = open(results).read() if os.path.exists(results) else ""
start = text.find("## At scale")
if start >= 0:
    end = text.find("\n## ", start + 1)
    text = text[:start] + section + (text[end + 1:] if end >= 0 else "")
else:
    text = text.rstrip("\n") + "\n\n" + section
open(results, "w").write(text)
print(section)
