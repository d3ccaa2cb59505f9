#!/usr/bin/env python3
"""Turns the raw results of scripts/bench into one table: figure, goal,
measured, pass/fail.

Inputs (in --results DIR):
  gbench.json        Google Benchmark output of zel_bench (CPU times)
  count/*/           one callgrind run of zel_bench_count each: driver.txt
                     (the driver's summary line) and callgrind.out.* (one
                     file per thread; thread 1 is the calling thread)
  memory.txt         zel_bench_memory output
  machine.txt        key=value description of the machine

Times are the minimum CPU time of the benchmark thread over the
repetitions (interleaved with the other benchmarks), so ratios compare
neighbours measured in the same run. Instruction counts are per action
after a warm-up (see bench/zel_bench_count.cpp).

Exit status: 0 every goal met, 1 a goal missed, 2 a figure is missing.
"""

import argparse
import glob
import json
import os
import re
import sys

MIB = 1024 * 1024


class Missing(Exception):
    pass


def load_gbench(path):
    """Minimum CPU and wall seconds per iteration over the repetitions, and
    the user counters, by FIGURE/GRAPH."""
    times = {}
    walls = {}
    counters = {}
    if not os.path.exists(path):
        return times, walls, counters
    try:
        with open(path) as f:
            data = json.load(f)
    except ValueError:
        return times, walls, counters  # a run that died half way: every timing is missing
    for b in data.get("benchmarks", []):
        if b.get("run_type") != "iteration" or b.get("error_occurred"):
            continue
        key = "/".join(b["name"].split("/")[:2])
        scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[b.get("time_unit", "ns")]
        cpu = b["cpu_time"] * scale
        real = b["real_time"] * scale
        times[key] = min(times.get(key, cpu), cpu)
        walls[key] = min(walls.get(key, real), real)
        counters[key] = b
    return times, walls, counters


def load_counts(root):
    counts = {}
    for d in sorted(glob.glob(os.path.join(root, "*"))):
        driver = os.path.join(d, "driver.txt")
        if not os.path.exists(driver):
            continue
        text = open(driver).read().strip()
        if not text:
            continue
        info = dict(item.split("=", 1) for item in text.split())
        main = 0
        background = 0
        for path in glob.glob(os.path.join(d, "callgrind.out.*")):
            thread = None
            total = None
            with open(path) as f:
                for line in f:
                    if line.startswith("thread:"):
                        thread = int(line.split()[1])
                    elif line.startswith("totals:") or (line.startswith("summary:") and total is None):
                        total = int(line.split()[1])
            if thread is None or total is None:
                continue
            if thread == 1:
                main += total
            else:
                background += total
        k = int(info["k"])
        counts[(info["scenario"], info["graph"], k)] = {
            "main": main / k,
            "background": background / k,
            "operations": int(info["operations"]),
            "bytes": int(info["bytes"]),
        }
    return counts


def load_memory(path):
    rows = {}
    if not os.path.exists(path):
        return rows
    for line in open(path):
        line = line.strip()
        if not line:
            continue
        info = dict(item.split("=", 1) for item in line.split())
        rows[info["graph"]] = {k: int(v) for k, v in info.items() if k != "graph"}
    return rows


def si(value, unit=""):
    for factor, prefix in ((1e9, "G"), (1e6, "M"), (1e3, "k")):
        if abs(value) >= factor:
            return "%.3g %s%s" % (value / factor, prefix, unit)
    return "%.3g %s" % (value, unit) if unit else "%.3g" % value


def count(value):
    return "{:,}".format(int(round(value)))


def seconds(value):
    if value >= 1:
        return "%.3g s" % value
    if value >= 1e-3:
        return "%.3g ms" % (value * 1e3)
    return "%.3g µs" % (value * 1e6)


def mib(value):
    return "%.2f MiB" % (value / MIB)


class Table:
    def __init__(self):
        self.rows = []
        self.failed = False
        self.missing = []

    def add(self, number, figure, goal, compute):
        """compute() returns (measured text, passed: True/False/None)."""
        try:
            measured, passed = compute()
        except (Missing, KeyError, ZeroDivisionError) as e:
            self.missing.append("%s %s (%s)" % (number, figure, e))
            measured, passed = "not measured", False
        if passed is None:
            verdict = "info"
        else:
            verdict = "pass" if passed else "**FAIL**"
            self.failed = self.failed or not passed
        self.rows.append((number, figure, goal, measured, verdict))

    def markdown(self):
        lines = ["| # | figure | goal | measured | result |", "|---|---|---|---|---|"]
        for r in self.rows:
            lines.append("| %s |" % " | ".join(r))
        return "\n".join(lines)


def growth(values):
    """Largest per-unit cost divided by the per-unit cost at the smallest size."""
    return max(values) / values[0]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--results", required=True)
    parser.add_argument("--seconds", type=int, default=0, help="wall time of the whole run")
    parser.add_argument("--update-doc", help="rewrite the generated part of this markdown file")
    args = parser.parse_args()

    r = args.results
    times, walls, counters = load_gbench(os.path.join(r, "gbench.json"))
    counts = load_counts(os.path.join(r, "count"))
    memory = load_memory(os.path.join(r, "memory.txt"))
    machine = {}
    if os.path.exists(os.path.join(r, "machine.txt")):
        for line in open(os.path.join(r, "machine.txt")):
            if "=" in line:
                k, v = line.rstrip("\n").split("=", 1)
                machine[k] = v

    def t(name):
        if name not in times:
            raise Missing("no timing " + name)
        return times[name]

    def w(name):
        if name not in walls:
            raise Missing("no timing " + name)
        return walls[name]

    def c(scenario, graph, k):
        key = (scenario, graph, k)
        if key not in counts:
            raise Missing("no count %s %s K=%d" % key)
        return counts[key]

    chains = ["chain:10", "chain:100", "chain:1000", "chain:10000"]
    chain_k = {"chain:10": 20, "chain:100": 5, "chain:1000": 2, "chain:10000": 1}
    wides = ["wide:1M", "wide:10M", "wide:100M"]
    support_wide_k = 2
    table = Table()

    # 1. Preparation against what it cannot avoid, measured beside it: the
    # plug-in's transposes of the filters and weights, and the runtime's own
    # copy of every constant.
    def prep_ratio():
        prep = t("prepare_passthrough/mobilenet")
        copy = t("memcpy/mobilenet")
        transposes = t("transpose/mobilenet")
        runtime = t("runtime_copy/mobilenet")
        floor = transposes + runtime
        ratio = prep / floor
        return ("%.2f× (%s against %s: transposes %s + the runtime's copies into fresh buffers %s). Against one "
                "memcpy of its %s of constants (%s): preparation %.2f×, the unavoidable work %.2f×" %
                (ratio, seconds(prep), seconds(floor), seconds(transposes), seconds(runtime),
                 si(c("prepare", "mobilenet", 2)["bytes"], "B"), seconds(copy), prep / copy, floor / copy),
                ratio <= 1.5)

    table.add("1", "Pass-through preparation of MobileNet ÷ its unavoidable part, measured alone (CPU time)",
              "≤ 1.5×", prep_ratio)

    def validated_ratio():
        prep = t("prepare_validated/mobilenet")
        copy = t("memcpy/mobilenet")
        return "%.2f× (%s)" % (prep / copy, seconds(prep)), None

    table.add("1b", "Validated preparation of MobileNet ÷ the same memcpy", "—", validated_ratio)

    # 2. Per-execution overhead.
    def exec_overhead():
        plugin = c("execute", "mobilenet", 100)
        direct = c("execute-direct", "mobilenet", 100)
        version = c("version-direct", "mobilenet", 100)
        calling = plugin["main"] - direct["main"]
        total = calling + plugin["background"]
        text = ("%s instructions: %s calling thread (%s of them the runtime's version answer) + %s voting thread. "
                "Time per execution, plug-in against direct: CPU %s against %s, wall %s against %s" %
                (count(total), count(calling), count(version["main"]), count(plugin["background"]),
                 seconds(t("execute_plugin/mobilenet")), seconds(t("execute_direct/mobilenet")),
                 seconds(w("execute_plugin/mobilenet")), seconds(w("execute_direct/mobilenet"))))
        return text, total <= 15000

    table.add("2", "Plug-in overhead per execution, 1-input 1-output graph, 100 executions in a row",
              "≤ 15,000 instructions", exec_overhead)

    # 3. Support query per operation.
    def support_per_op():
        s = c("support", "mobilenet", 5)
        per_op = (s["main"] + s["background"]) / s["operations"]
        return ("%s instructions (%s calling thread + %s voting thread); per query of %d operations: CPU %s, "
                "wall %s" %
                (count(per_op), count(s["main"] / s["operations"]), count(s["background"] / s["operations"]),
                 s["operations"], seconds(t("support/mobilenet")), seconds(w("support/mobilenet"))),
                per_op <= 20000)

    table.add("3", "Support query per operation, MobileNet", "≤ 20,000 instructions", support_per_op)

    # 4. Simulator throughput.
    def throughput():
        seconds_per = t("inference/mobilenet")
        macs = counters["inference/mobilenet"]["macs"]
        rate = macs / seconds_per
        return "%s MAC/s (%s MACs in %s)" % (si(rate), si(macs), seconds(seconds_per)), rate >= 1e9

    table.add("4", "Simulator throughput, MobileNet with full numerics, one core", "≥ 1 G MAC/s", throughput)

    # 5. Heap.
    for graph, number in (("mobilenet", "5"), ("wide:100M", "5b")):
        def heap(graph=graph):
            if graph not in memory:
                raise Missing("no heap figure for " + graph)
            m = memory[graph]
            limit = m["largest"] + MIB
            return ("%s peak (largest constant %s, limit %s); %s kept by the executor" %
                    (mib(m["peak"]), mib(m["largest"]), mib(limit), si(m["retained"], "B")),
                    m["peak"] <= limit)

        label = "MobileNet" if graph == "mobilenet" else "one 100 MB weight"
        table.add(number, "Peak heap held by the plug-in while preparing, %s" % label,
                  "≤ largest constant + 1 MiB", heap)

    # 6. Scaling.
    def flat(values, fmt, unit_label):
        g = growth(values)
        return "%s %s → %.2f×" % (" / ".join(fmt(v) for v in values), unit_label, g), g <= 2.0

    def instr_per_op(scenario):
        def compute():
            values = []
            for ch in chains:
                x = c(scenario, ch, chain_k[ch])
                values.append((x["main"] + x["background"]) / x["operations"])
            return flat(values, count, "instructions")
        return compute

    def time_per_op(name, wall):
        def compute():
            values = [t("%s/%s" % (name, ch)) / int(ch.split(":")[1]) for ch in chains]
            text, ok = flat(values, seconds, "CPU")
            if wall:
                walled = [w("%s/%s" % (name, ch)) / int(ch.split(":")[1]) for ch in chains]
                wall_text, wall_ok = flat(walled, seconds, "wall")
                text, ok = text + "; " + wall_text, ok and wall_ok
            return text, ok
        return compute

    table.add("6a", "Preparation per operation, chains of 10 / 100 / 1,000 / 10,000 (instructions)",
              "flat, ≤ 2×", instr_per_op("prepare"))
    table.add("6b", "Support query per operation, same chains (instructions)", "flat, ≤ 2×",
              instr_per_op("support"))
    table.add("6c", "Preparation per operation, same chains (CPU time)", "flat, ≤ 2×",
              time_per_op("prepare_passthrough", False))
    table.add("6d", "Support query per operation, same chains (CPU and wall time)", "flat, ≤ 2×",
              time_per_op("support", True))

    def prep_per_byte_instr():
        values = []
        for w in wides:
            x = c("prepare", w, 1)
            values.append((x["main"] + x["background"]) / x["bytes"])
        return flat(values, lambda v: "%.2f" % v, "instructions/byte")

    def prep_per_byte_time():
        per_byte = [t("prepare_passthrough/" + w) / c("prepare", w, 1)["bytes"] * 1e9 for w in wides]
        copies = [t("memcpy/" + w) / c("prepare", w, 1)["bytes"] * 1e9 for w in wides]
        transposes = [t("transpose/" + w) / c("prepare", w, 1)["bytes"] * 1e9 for w in wides]
        ratio = growth(per_byte) / growth(copies)
        return ("growth %.2f× ÷ memcpy's %.2f× = %.2f×. Preparation %s ns/byte (%s × memcpy of the same size); "
                "memcpy alone %s ns/byte; the transpose alone %s ns/byte (growth %.2f×)" %
                (growth(per_byte), growth(copies), ratio, " / ".join("%.2f" % v for v in per_byte),
                 " / ".join("%.1f" % (p / m) for p, m in zip(per_byte, copies)),
                 " / ".join("%.2f" % v for v in copies), " / ".join("%.2f" % v for v in transposes),
                 growth(transposes)),
                ratio <= 1.5)

    def support_wide():
        values = []
        for w in wides:
            x = c("support", w, support_wide_k)
            values.append(x["main"] + x["background"])
        return flat(values, count, "instructions per query")

    table.add("6e", "Preparation per byte, one weight of 1 / 10 / 100 MB (instructions)", "flat, ≤ 2×",
              prep_per_byte_instr)
    table.add("6f", "Preparation per byte, same weights (CPU time): its growth ÷ the growth of memcpy",
              "≤ 1.5×", prep_per_byte_time)
    table.add("6g", "Support query, same weights (instructions per query)", "flat, ≤ 2×", support_wide)

    def voting_growth():
        few = c("execute", "mobilenet", 100)
        many = c("execute", "mobilenet", 1000)
        values = [few["background"], many["background"]]
        main_values = [few["main"], many["main"]]
        g = growth(values)
        return ("voting thread %s / %s, calling thread %s / %s instructions per execution → %.2f×" %
                (count(values[0]), count(values[1]), count(main_values[0]), count(main_values[1]), g), g <= 2.0)

    table.add("6h", "Work per execution, 100 / 1,000 executions in a row", "flat, ≤ 2×", voting_growth)

    # Output.
    lines = []
    lines.append(table.markdown())
    lines.append("")
    lines.append("Machine: %s, %s cores, %s, %s; %s; %s. Load average at start: %s." %
                 (machine.get("cpu", "?"), machine.get("cores", "?"), machine.get("memory", "?"),
                  machine.get("kernel", "?"), machine.get("compiler", "?"), machine.get("valgrind", "?"),
                  machine.get("load", "?")))
    lines.append("Run: %s, revision %s%s." % (machine.get("date", "?"), machine.get("revision", "?"),
                                               (", %d s in all" % args.seconds) if args.seconds else ""))
    if table.missing:
        lines.append("")
        lines.append("Not measured: " + "; ".join(table.missing))
    text = "\n".join(lines)
    print(text)
    with open(os.path.join(r, "table.md"), "w") as f:
        f.write(text + "\n")

    if args.update_doc:
        doc = open(args.update_doc).read()
        begin, end = "<!-- bench-table:begin -->", "<!-- bench-table:end -->"
        if begin not in doc or end not in doc:
            print("%s has no %s ... %s markers" % (args.update_doc, begin, end), file=sys.stderr)
            return 2
        head, rest = doc.split(begin, 1)
        _, tail = rest.split(end, 1)
        with open(args.update_doc, "w") as f:
            f.write(head + begin + "\n" + text + "\n" + end + tail)

    if table.missing:
        return 2
    return 1 if table.failed else 0


if __name__ == "__main__":
    sys.exit(main())
