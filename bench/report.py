#!/usr/bin/env python3
"""Turns the raw Google Benchmark JSON of kestrel-bench into one table per
workload: each contender's median over the repetitions, the spread of the
repetitions (half the range, max - min, in the same unit), and kestrel's ratio
to each peer, checked against the targets where there is one.

    bench/report.py build/bench/results.json [--markdown]

Standard library only.
"""

import json
import statistics
import sys
from collections import OrderedDict

HIGHER = "higher"  # a rate: more is better
LOWER = "lower"  # a time: less is better


class Metric:
    def __init__(self, key, label, unit, scale, better, ratio=True, difference=False):
        self.key = key  # field of a benchmark run, or "time"
        self.label = label
        self.unit = unit
        self.scale = scale  # multiplies the raw value for display
        self.better = better
        self.ratio = ratio  # whether kestrel is compared with the peers
        # Compared as kestrel minus peer instead of kestrel / peer (for values
        # that may be negative).
        self.difference = difference


def time_metric(unit):
    return Metric("time", "time per call", unit, 1.0, LOWER)


WORKLOADS = OrderedDict(
    [
        ("throughput", {
            "title": "1. Cross-thread throughput: 1,000,000 small events into one consumer thread",
            "metrics": [Metric("items_per_second", "events/s", "M/s", 1e-6, HIGHER)],
        }),
        ("coalescing", {
            "title": "2. Coalescing: progress updates of 100 jobs (1,000,000 posts), "
                     "time to the same final state",
            "metrics": [
                Metric("items_per_second", "posts/s", "M/s", 1e-6, HIGHER),
                Metric("executions", "executions", "", 1.0, LOWER),
            ],
        }),
        ("latency", {
            "title": "3. Post-to-execute latency of one event",
            "metrics": [
                Metric("p50_us", "median", "us", 1.0, LOWER),
                Metric("p99_us", "p99", "us", 1.0, LOWER),
            ],
        }),
        ("pingpong", {
            "title": "4. Event ping-pong between two threads",
            "metrics": [Metric("items_per_second", "round trips/s", "k/s", 1e-3, HIGHER)],
        }),
        ("clock", {
            "title": "5. Current time",
            "metrics": [time_metric("ns")],
        }),
        ("timer", {
            "title": "6. Periodic timer at a 2 ms and a 5 ms fixed rate, 200 ticks: "
                     "lateness per tick, CPU and wake-ups of the timer thread",
            "metrics": [
                Metric("p50_us", "median", "us", 1.0, LOWER, ratio=False),
                Metric("p99_us", "p99", "us", 1.0, LOWER, difference=True),
                Metric("earliest_us", "earliest", "us", 1.0, LOWER, ratio=False),
                Metric("drift_us", "drift", "us", 1.0, LOWER, ratio=False),
                Metric("cpu_pct", "CPU", "% of a core", 1.0, LOWER),
                Metric("wakeups_per_tick", "wake-ups per tick", "", 1.0, LOWER, ratio=False),
            ],
        }),
        ("plugin", {
            "title": "7. Plugin load cycle: load, look up the entry point, unload",
            "metrics": [time_metric("us")],
        }),
        ("text", {
            "title": "8. Message texts",
            "metrics": [time_metric("ns")],
        }),
        ("idle", {
            "title": "9. Idle threads: 32 consumer threads without work for one second",
            "metrics": [
                Metric("wakeups_per_thread_s", "wake-ups per thread", "/s", 1.0, LOWER,
                       ratio=False),
                Metric("cpu_pct", "CPU of all 32", "% of a core", 1.0, LOWER, ratio=False),
            ],
        }),
    ]
)

# The kestrel timer wakes this long after each due time on purpose.
TIMER_MARGIN_US = 500.0


def targets_for(workload, case, peer):
    """[(metric key, comparison, bound, description)]. The comparison is
    kestrel / peer on that metric, or kestrel - peer for the timer's p99,
    whose kestrel value has the wake-up margin taken off first."""
    if workload == "throughput":
        if peer.startswith("Poco"):
            return [("items_per_second", ">=", 1.0, "at least POCO's")]
        if peer.startswith("asio"):
            return [("items_per_second", ">=", 1.0, "at least Asio's")]
        if peer.startswith("std"):
            return [("items_per_second", ">=", 0.5, "at least half the std queue's")]
    if workload == "coalescing" and peer.startswith("asio"):
        return [("items_per_second", ">=", 1.0, "at least Asio's plain posts")]
    if workload == "latency" and case == "idle" and peer.startswith("std"):
        return [("p99_us", "<=", 3.0, "idle pickup p99 at most 3x the std consumer's")]
    if workload == "pingpong" and peer == "std::condition_variable":
        return [("items_per_second", ">=", 0.9, "at least 0.9 of std's")]
    if workload == "clock":
        if case.endswith("1 thread") and peer == "clock_gettime":
            return [("time", "<=", 4.0, "at most 4x clock_gettime")]
        if case.endswith("2 threads") and peer.startswith("recursive_mutex"):
            return [("time", "<=", 1.5, "at most 1.5x the locked reads")]
    if workload == "timer":
        if peer.startswith("Poco"):
            return [("p99_us", "<=", 0.0, "p99 beyond the 0.5 ms margin no worse than POCO's")]
        if peer.startswith("sleep_until"):
            return [("p99_us", "<=", 0.0, "p99 at most the sleep_until loop's + 0.5 ms"),
                    ("cpu_pct", "<=", 1.5, "CPU at most 1.5x the sleep_until loop's")]
    if workload == "plugin" and peer.startswith("dlopen"):
        return [("time", "<=", 1.2, "at most 1.2x raw dlopen/dlsym/dlclose")]
    return []


# Targets on kestrel's own values, with no peer to divide by (the peers' idle
# threads do not wake at all): (workload, metric key, bound, description).
ABSOLUTE_TARGETS = [
    ("idle", "wakeups_per_thread_s", 1.0, "at most 1 wake-up per idle thread per second"),
]


TIME_UNITS_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}

GOOGLE_BENCHMARK_SUFFIXES = ("iterations:", "repeats:", "min_time:", "real_time",
                             "manual_time", "process_time", "threads:")


def split_name(run):
    parts = run["run_name"].split("/")
    workload, case, contender = parts[0], parts[1], parts[2]
    threads = run.get("threads", 1)
    if workload == "clock":
        case = "%s, %d thread%s" % (case, threads, "" if threads == 1 else "s")
    return workload, case, contender


def value_of(run, metric):
    if metric.key == "time":
        nanoseconds = run["real_time"] * TIME_UNITS_NS[run["time_unit"]]
        return nanoseconds / TIME_UNITS_NS[metric.unit]
    if metric.key not in run:
        return None
    return run[metric.key] * metric.scale


def load(path):
    with open(path) as f:
        data = json.load(f)
    results = OrderedDict()  # workload -> case -> contender -> [runs]
    for run in data["benchmarks"]:
        if run.get("run_type") != "iteration" or run.get("error_occurred"):
            continue
        workload, case, contender = split_name(run)
        results.setdefault(workload, OrderedDict()).setdefault(
            case, OrderedDict()).setdefault(contender, []).append(run)
    # Repetitions are interleaved at random: put kestrel first, the peers and
    # the cases in name order.
    ordered = OrderedDict()
    for workload, cases in results.items():
        ordered[workload] = OrderedDict()
        for case in sorted(cases):
            contenders = cases[case]
            names = sorted(contenders, key=lambda c: (not is_kestrel(c), c.lower()))
            ordered[workload][case] = OrderedDict((c, contenders[c]) for c in names)
    return data.get("context", {}), ordered


def summary(runs, metric):
    values = [v for v in (value_of(r, metric) for r in runs) if v is not None]
    if not values:
        return None
    return statistics.median(values), (max(values) - min(values)) / 2.0, len(values)


def number(v):
    if v is None:
        return "-"
    magnitude = abs(v)
    if magnitude >= 1000:
        return "%.0f" % v
    if magnitude >= 100:
        return "%.1f" % v
    if magnitude >= 10:
        return "%.2f" % v
    return "%.3f" % v


def short_name(contender):
    """A kestrel contender's name without "kestrel", as a column label."""
    name = contender[len("kestrel"):].strip()
    return name.split(", ", 1)[1] if ", " in name else name


def is_kestrel(contender):
    return contender.startswith("kestrel")


def ratio_cell(workload, case, kestrel_runs, peer, peer_runs, metric):
    k = summary(kestrel_runs, metric)
    p = summary(peer_runs, metric)
    if k is None or p is None or p[0] == 0:
        return "-", None
    targets = [t for t in targets_for(workload, case, peer) if t[0] == metric.key]
    if metric.difference:
        compared = (k[0] - TIMER_MARGIN_US) - p[0]
        text = "%+.0f" % compared
    else:
        compared = k[0] / p[0]
        text = "%.2f" % compared
    verdict = None
    if targets:
        _, comparison, bound, description = targets[0]
        met = compared >= bound if comparison == ">=" else compared <= bound
        verdict = "target %s %s (%s): %s" % (comparison, ("%g" % bound), description,
                                             "met" if met else "MISSED")
    return text, verdict


def render(rows, markdown):
    if markdown:
        def line(cells):
            return "| " + " | ".join(c.replace("|", "\\|") for c in cells) + " |"
        lines = [line(rows[0]), "|" + "|".join("---" for _ in rows[0]) + "|"]
        lines += [line(r) for r in rows[1:]]
        return "\n".join(lines)
    widths = [max(len(r[i]) for r in rows) for i in range(len(rows[0]))]
    out = []
    for n, r in enumerate(rows):
        out.append("  ".join(c.ljust(widths[i]) for i, c in enumerate(r)).rstrip())
        if n == 0:
            out.append("  ".join("-" * w for w in widths))
    return "\n".join(out)


def report(context, results, markdown):
    out = []
    verdicts = []
    heading = "### " if markdown else "== "
    out.append(("## " if markdown else "") + "kestrel against its peers")
    reps = None
    for cases in results.values():
        for contenders in cases.values():
            for runs in contenders.values():
                reps = max(reps or 0, len(runs))
    out.append("")
    out.append("Host: %s CPUs, load average at start %s; %s repetitions, interleaved; "
               "cells are median ±half the range over the repetitions." % (
                   context.get("num_cpus", "?"),
                   ", ".join("%.2f" % x for x in context.get("load_avg", [])) or "?",
                   reps))
    for workload, layout in WORKLOADS.items():
        if workload not in results:
            continue
        out.append("")
        out.append(heading + layout["title"])
        for case, contenders in results[workload].items():
            kestrels = [c for c in contenders if is_kestrel(c)]
            header = [case]
            for m in layout["metrics"]:
                header.append("%s [%s]" % (m.label, m.unit) if m.unit else m.label)
            ratio_metrics = [m for m in layout["metrics"] if m.ratio]
            # One comparison column per kestrel contender and compared metric.
            columns = [(k, m) for k in kestrels for m in ratio_metrics]
            for k, m in columns:
                direction = "higher" if m.better == HIGHER else "lower"
                who = "kestrel" if len(kestrels) == 1 else short_name(k)
                what = m.label if len(ratio_metrics) > 1 else ""
                if m.difference:
                    header.append("%s %s - %.1f ms - peer's [us] (%s is better)" % (
                        who, m.label, TIMER_MARGIN_US / 1000.0, direction))
                else:
                    header.append(("%s/peer %s (%s is better)" % (who, what, direction))
                                  .replace("  ", " "))
            rows = [header]
            for contender, runs in contenders.items():
                row = [contender]
                for m in layout["metrics"]:
                    s = summary(runs, m)
                    row.append("-" if s is None else "%s ±%s" % (number(s[0]), number(s[1])))
                for k, m in columns:
                    if is_kestrel(contender):
                        row.append("")
                        continue
                    text, verdict = ratio_cell(workload, case, contenders[k], contender, runs, m)
                    row.append(text)
                    if verdict:
                        verdicts.append("%s, %s, %s vs %s: %s %s" % (
                            workload, case, k, contender, text, verdict))
                rows.append(row)
            out.append("")
            out.append(render(rows, markdown))
            for target_workload, key, bound, description in ABSOLUTE_TARGETS:
                if target_workload != workload:
                    continue
                metric = next(m for m in layout["metrics"] if m.key == key)
                for k in kestrels:
                    s = summary(contenders[k], metric)
                    if s is not None:
                        verdicts.append("%s, %s, %s: %s %s target <= %g (%s): %s" % (
                            workload, case, k, number(s[0]), metric.unit, bound, description,
                            "met" if s[0] <= bound else "MISSED"))
        if workload == "timer":
            out.append("")
            out.append("Lateness is the time a tick ran minus its due time on the nominal grid "
                       "(negative: early); drift is the time from the first to the last tick "
                       "minus 199 periods. kestrel's TimerThread wakes %.1f ms after each due "
                       "time by design; its p99 is compared with the peers' after taking that "
                       "margin off." % (TIMER_MARGIN_US / 1000.0))
    if verdicts:
        out.append("")
        out.append(heading + "Targets")
        out.append("")
        out += [("- " if markdown else "  ") + v for v in verdicts]
    return "\n".join(out)


def main(argv):
    if len(argv) < 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    markdown = "--markdown" in argv[2:]
    context, results = load(argv[1])
    if not results:
        print("no benchmark results in %s" % argv[1], file=sys.stderr)
        return 1
    print(report(context, results, markdown))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
