#!/usr/bin/env python3
"""Turns the benchmarks' JSON output into bench/RESULTS.md (see scripts/bench.sh).

usage: results.py --api API.json --engine ENGINE.json --memory MEMORY.txt --out RESULTS.md
                  [--meta "Label: text"]...

Times are wall-clock (the benchmarks use real time). For a benchmark run in several
repetitions the median repetition counts. A ratio is library time / raw time: 1.03 means the
library is 3% slower than the same requests made with libldap directly.
"""
import argparse
import json
import re
import statistics
import sys

NS_PER_UNIT = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}

PAIRS = [
    ("key_read", "key read (GetSignPublicKey, free function)",
     "base search `(signPubcer;binary=*)` + attribute walk + copy"),
    ("key_write", "key write (CLdap::ModifySignPublicKey)",
     "`ldap_modify_s`, one replace of one binary value"),
    ("entry_select", "entry select (CLdap::SelectLdap(dn, att) + FreeAtt)",
     "base search `(cn=*)` + two attribute walks"),
    ("child_list_100", "child listing, 100 children (CLdap::SelectLdap(dn, 0, list, count) + FreeDN)",
     "one-level search `(|(ou=*)(cn=*))` + count + DN per entry"),
]
TREES = [10, 100, 1000]
THREAD_ROWS = [
    ("free_functions", "library, free functions (one shared engine)"),
    ("cldap_per_thread", "library, one CLdap per thread"),
    ("raw_one_handle_mutex", "raw libldap, one handle + mutex"),
    ("raw_handle_per_thread", "raw libldap, one handle per thread"),
]
THREADS = [1, 4, 8]


def key_of(name):
    """Benchmark name without the run settings: 'key_read/raw', 'threads_read/x/threads:4'."""
    parts = [p for p in name.split("/")
             if p != "real_time" and not re.match(r"(min_time|repeats|iterations):", p)]
    return "/".join(parts)


def load(path):
    with open(path) as f:
        data = json.load(f)
    runs = {}
    for b in data.get("benchmarks", []):
        if b.get("run_type") != "iteration":
            continue
        key = key_of(b["name"])
        if b.get("error_occurred"):
            runs.setdefault(key, []).append({"error": b.get("error_message", "error")})
            continue
        entry = dict(b)
        entry["ns"] = b["real_time"] * NS_PER_UNIT[b.get("time_unit", "ns")]
        runs.setdefault(key, []).append(entry)
    return runs


def median_ns(runs, key):
    good = [r["ns"] for r in runs.get(key, []) if "ns" in r]
    if not good or len(good) != len(runs.get(key, [])):
        return None
    return statistics.median(good)


def counter(runs, key, name):
    good = [r[name] for r in runs.get(key, []) if name in r]
    return statistics.median(good) if good else None


def median_run(runs, key, name):
    """The repetition whose counter `name` is the median one (the lower middle for an even
    count), so that figures shown beside that median come from the same repetition."""
    good = sorted((r for r in runs.get(key, []) if name in r), key=lambda r: r[name])
    return good[(len(good) - 1) // 2] if good else None


def fmt_rate(ns):
    if ns is None:
        return "failed"
    rate = 1e9 / ns
    return f"{rate:,.0f}" if rate >= 100 else f"{rate:,.1f}"


def fmt_time(ns):
    if ns is None:
        return "failed"
    if ns >= 1e6:
        return f"{ns / 1e6:,.1f} ms"
    return f"{ns / 1e3:,.1f} µs"


def fmt_ratio(x):
    return "n/a" if x is None else f"{x:.3f}"


def ratio(a, b):
    return None if a is None or b is None or b == 0 else a / b


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--api", required=True)
    ap.add_argument("--engine", required=True)
    ap.add_argument("--memory", required=True)
    ap.add_argument("--out", required=True)
    ap.add_argument("--meta", action="append", default=[])
    args = ap.parse_args()

    api = load(args.api)
    engine = load(args.engine)
    out = []
    w = out.append

    w("# libqorldap benchmark results")
    w("")
    w("Written by `scripts/bench.sh` (`./run bench`); do not edit by hand.")
    w("")
    for m in args.meta:
        w(f"- {m}")
    w("")
    w("Every library operation runs against its raw counterpart: the very same directory "
      "requests, with the same walks over the results, made with libldap directly on one "
      "connection bound as the manager (the floor no wrapper can beat). Both run in the same "
      "process against the same throwaway slapd on 127.0.0.1. Times are wall-clock.")
    w("")
    w("- *library ops/s*, *raw ops/s*: each side run on its own, median of the repetitions "
      "(shuffled together with every other benchmark); *ratio* is library time / raw time "
      "from those two medians (1.03 = 3% slower). Separate runs see whatever else the machine "
      "was doing at their own moment: on a busy machine only the paired figures compare.")
    w("- *paired*: both sides alternating call by call in one loop (the order swapped every "
      "call), each call timed on its own; median over the repetitions of: the ratio of the "
      "median call times (shown with the two median times of that same repetition), the "
      "ratio of the times the fastest 10% of the calls stay under (p10: on a busy machine "
      "the calls that found a core free), and each side's mean CPU time per call in the "
      "calling thread (waits for the server or a core left out; the difference is what the "
      "library adds on the client).")
    w("")

    w("## Library vs raw libldap (one thread, one connection)")
    w("")
    w("| operation | raw counterpart | library ops/s | raw ops/s | ratio | paired ratio, "
      "median call (library / raw µs) | paired ratio, p10 | client CPU per call, library / "
      "raw (µs) |")
    w("|---|---|---:|---:|---:|---:|---:|---:|")

    def row(runs, label, raw_label, lib_key, raw_key, paired_key, digits):
        lib = median_ns(runs, lib_key)
        raw = median_ns(runs, raw_key)
        mid = median_run(runs, paired_key, "ratio")
        pr = mid["ratio"] if mid else None
        plib = mid["library_us"] if mid else None
        praw = mid["raw_us"] if mid else None
        p10 = counter(runs, paired_key, "ratio_p10")
        clib = counter(runs, paired_key, "library_cpu_us")
        craw = counter(runs, paired_key, "raw_cpu_us")
        paired = "failed" if pr is None else f"{pr:.3f} ({plib:,.{digits}f} / {praw:,.{digits}f})"
        cpu = "n/a" if clib is None or craw is None else f"{clib:,.{digits}f} / {craw:,.{digits}f}"
        w(f"| {label} | {raw_label} | {fmt_rate(lib)} | {fmt_rate(raw)} | "
          f"{fmt_ratio(ratio(lib, raw))} | {paired} | {fmt_ratio(p10)} | {cpu} |")
        return ratio(lib, raw), pr, p10, clib, craw

    summary = {}
    for key, label, raw_label in PAIRS:
        summary[key] = row(api, label, raw_label, f"{key}/library", f"{key}/raw",
                           f"{key}/paired", 1)
    for users in TREES:
        row(engine, f"GetFullDN, {users:,} users in 10 units, user in the last unit (engine)",
            "the walk's 32 searches", f"get_full_dn/library/users:{users}",
            f"get_full_dn/raw/users:{users}", f"get_full_dn/paired/users:{users}", 0)
    w("")
    for key, target in (("key_read", "key read"), ("key_write", "key write")):
        sep, pr, p10, clib, craw = summary.get(key, (None,) * 5)
        if pr is None or p10 is None:
            verdict = "no figure"
        elif pr <= 1.05 and p10 <= 1.05:
            verdict = "within the 5% target"
        elif pr > 1.05 and p10 > 1.05:
            verdict = "OVER the 5% target"
        else:
            verdict = "inconclusive (the two paired figures disagree: the machine was busy)"
        cpu = "" if clib is None or craw is None else \
            f", client CPU {clib - craw:+.1f} µs per call against raw"
        w(f"- {target}: paired ratio {fmt_ratio(pr)} (median call), {fmt_ratio(p10)} (p10)"
          f"{cpu}; separate runs {fmt_ratio(sep)} — {verdict}.")
    w("")

    w("## GetFullDN (engine only): what one call costs")
    w("")
    w("The walk lists the children of every DN it visits, selects that DN itself, and at the "
      "last level tries the composed candidate DN with one base search. Looking for a user in "
      "the last of 10 units visits the tree's root and all 10 units: 2 + 10 × 3 = 32 searches "
      "per call, whatever the tree's size; the listings return 10 + N entries.")
    w("")
    w("| users | searches per call | entries listed per call | library time per call | "
      "µs per search |")
    w("|---:|---:|---:|---:|---:|")
    for users in TREES:
        key = f"get_full_dn/library/users:{users}"
        lib = median_ns(engine, key)
        searches = counter(engine, key, "searches_per_call")
        listed = counter(engine, key, "entries_listed_per_call")
        per = "n/a" if lib is None or not searches else f"{lib / searches / 1e3:,.0f}"
        w(f"| {users:,} | {searches:.0f} | {listed:,.0f} | {fmt_time(lib)} | {per} |"
          if searches is not None else f"| {users:,} | failed | | | |")
    w("")

    w("## Threads: key reads (aggregate ops/s over all threads)")
    w("")
    w("Each thread reads the 1.2 KiB certificate of its own user. The free functions share the "
      "library's one engine (one connection); CLdap objects have an engine and a connection "
      "each.")
    w("")
    w("| variant | " + " | ".join(f"{t} thread{'s' if t > 1 else ''}" for t in THREADS) + " |")
    w("|---|" + "---:|" * len(THREADS))
    times = {}
    for key, label in THREAD_ROWS:
        cells = []
        for t in THREADS:
            ns = median_ns(api, f"threads_read/{key}/threads:{t}")
            times[(key, t)] = ns
            cells.append(fmt_rate(ns))
        w(f"| {label} | " + " | ".join(cells) + " |")
    for lib, raw, label in (("free_functions", "raw_one_handle_mutex",
                             "ratio: free functions / raw one handle + mutex"),
                            ("cldap_per_thread", "raw_handle_per_thread",
                             "ratio: CLdap per thread / raw handle per thread")):
        cells = [fmt_ratio(ratio(times[(lib, t)], times[(raw, t)])) for t in THREADS]
        w(f"| *{label}* | " + " | ".join(cells) + " |")
    w("")

    w("## Key protection")
    w("")
    w("| operation | time per call | ops/s | PBKDF2 runs (100,000 iterations) per call | "
      "share of the time in PBKDF2 |")
    w("|---|---:|---:|---:|---:|")
    pbkdf2 = median_ns(api, "pbkdf2_sha256_100k")
    for key, label, runs in (
            ("publish_p12", "PublishP12 (RSA-2048 bundle made by openssl; entry exists)", 1),
            ("modify_pri_key_psw", "ModifyPriKeyPsw (both private keys)", 4)):
        ns = median_ns(api, key)
        share = "n/a" if ns is None or pbkdf2 is None else f"{min(runs * pbkdf2 / ns, 1):.0%}"
        w(f"| {label} | {fmt_time(ns)} | {fmt_rate(ns)} | {runs} | {share} |")
    w(f"| one PBKDF2-HMAC-SHA256 derivation, 100,000 iterations (OpenSSL directly) | "
      f"{fmt_time(pbkdf2)} | {fmt_rate(pbkdf2)} | 1 | 100% |")
    w("")

    w("## Memory")
    w("")
    mem = {}
    try:
        with open(args.memory) as f:
            for line in f:
                if line.startswith("memory "):
                    mem = dict(kv.split("=", 1) for kv in line.split()[1:])
    except OSError:
        pass
    if mem:
        reads = int(mem["reads"])
        writes = int(mem["writes"])
        w(f"memory growth over {reads:,} reads and {writes:,} writes: "
          f"{int(mem['growth_kib']):,} KiB (VmRSS {int(mem['rss_before_kib']):,} KiB before, "
          f"{int(mem['rss_after_kib']):,} KiB after, {float(mem['seconds']):.1f} s; one process, "
          "key reads through the free functions, key writes through one CLdap, after a "
          "warm-up of 1,000 of each).")
    else:
        w("memory run failed: no figure.")
    w("")

    text = "\n".join(out)
    with open(args.out, "w") as f:
        f.write(text)
    sys.stdout.write(text)


if __name__ == "__main__":
    main()
