#!/usr/bin/env python3
"""Turns the raw timings of scripts/bench into its table and bench-results.json.

Each figure is the median of its runs; each Kestrelvane figure is also given as
a ratio to the baselines measured in the same run, so that a busy machine
shifts both sides alike.

    bench-report.py RAW.tsv OUT.json RUNS
"""
import json
import statistics
import sys

MIB = 1 << 20

# What each row measures, in the order of the table.
LABELS = {
    ("sha256_speed", "large"): "openssl speed sha256, one core, in memory",
    ("sha256", "large"): "openssl dgst -sha256 of the files, one core",
    ("dd_fsync", "large"): "dd conv=fsync to disk",
    ("unix_socket", "large"): "plain copy through a Unix socket (socat)",
    ("rsync", "large"): "rsync to a loopback daemon",
    ("socketpair", "large"): "Kestrelvane engines, socket pair in one process",
    ("tcp", "large"): "kestrelvane send/receive over TCP, tmpfs",
    ("tls", "large"): "the same over TLS 1.3, paired devices",
    ("usb", "large"): "kestrelvane send over the usbmuxd simulator, tmpfs",
    ("usb_v1", "large"): "the same to a phone of the first version (no resume extension)",
    ("tcp_disk", "large"): "kestrelvane send/receive over TCP, to disk",
    ("sha256_speed", "photos"): "openssl speed sha256, one core, in memory",
    ("sha256", "photos"): "openssl dgst -sha256 of the files, one core",
    ("rsync", "photos"): "rsync to a loopback daemon",
    ("tcp", "photos"): "kestrelvane send/receive over TCP, tmpfs",
    ("tls", "photos"): "the same over TLS 1.3, paired devices",
    ("usb", "photos"): "kestrelvane send over the usbmuxd simulator, tmpfs",
    ("tls_held", "photos"): "the same photos again to a receiver that holds them",
    ("resume_tls_dropped", "resume"): "over TLS, after the connection dropped at 90 %",
    ("resume_tls_killed", "resume"): "over TLS, after the receiver was killed at 90 %",
    ("resume_usb_dropped", "resume"): "over USB, after the connection dropped at 90 %",
    ("resume_usb_killed", "resume"): "over USB, after the phone was killed at 90 %",
    ("queue_model", "queue"): "app queue model takes a drop (offscreen)",
    ("queue_view", "queue"): "app queue model shown in a list view (offscreen)",
    ("queue_send", "queue"): "a large send from the app, its rows' bars drawn (offscreen)",
}
# The GUI thread may not go longer than this without running its event loop.
MAX_STALL_MS = 50.0
KESTRELVANE = {"socketpair", "tcp", "tls", "usb", "tcp_disk", "tls_held"}
BASELINES = {
    "large": ["sha256", "sha256_speed", "dd_fsync", "unix_socket", "rsync"],
    "photos": ["sha256", "sha256_speed", "rsync"],
    "resume": [],
}
# The send in clear is the baseline of the send over TLS alone; the first
# send of the photos that of sending them again.
# The send to a phone of the first version is that of the same send with the
# resume extension on.
OWN_BASELINES = {"tls": ["tcp"], "tls_held": ["tls"], "usb": ["usb_v1"]}
# A send after a break at 90 % may move at most this share of the file.
MAX_RESUMED_SHARE = 0.12
# (kind, set, baseline or None, least ratio or files/s, what it asks)
TARGETS = [
    ("tcp", "large", "sha256", 0.6, "at least 0.6x openssl dgst -sha256"),
    ("usb", "large", "sha256", 0.6, "at least 0.6x openssl dgst -sha256"),
    ("tcp", "large", "sha256_speed", 0.6, "at least 0.6x openssl speed sha256"),
    ("usb", "large", "sha256_speed", 0.6, "at least 0.6x openssl speed sha256"),
    ("tcp", "large", "rsync", 1.3, "at least 1.3x rsync"),
    ("usb", "large", "rsync", 1.3, "at least 1.3x rsync"),
    ("tcp_disk", "large", "dd_fsync", 0.8, "at least 0.8x dd conv=fsync"),
    ("tcp", "photos", None, 1000.0, "at least 1,000 files/s"),
    ("tls", "large", "tcp", 0.8, "at least 0.8x the same send in clear"),
    ("tls", "photos", "tcp", 0.8, "at least 0.8x the same send in clear"),
    ("usb", "photos", None, 1000.0, "at least 1,000 files/s"),
    ("usb", "large", "usb_v1", 0.95, "at least 0.95x with the extension off"),
]


def main():
    raw, out, runs = sys.argv[1], sys.argv[2], int(sys.argv[3])
    timings, memory, stalls, moved = {}, {}, {}, {}
    for line in open(raw):
        fields = line.rstrip("\n").split("\t")
        if fields[0] == "moved":  # name, bytes sent, file size, bytes held before
            moved.setdefault(fields[1], []).append(
                (int(fields[2]) / int(fields[3]), int(fields[4]) / int(fields[3])))
            continue
        if fields[0] == "memory":
            memory.setdefault(fields[1], []).append(int(fields[2]))
            continue
        if fields[0] == "stall":
            entry = stalls.setdefault(fields[1], {"longest_stall_ms": [], "longest_busy_ms": []})
            entry["longest_stall_ms"].append(float(fields[2]))
            entry["longest_busy_ms"].append(float(fields[3]))
            continue
        kind, group, seconds, size, files = fields
        entry = timings.setdefault((kind, group), {"seconds": [], "bytes": int(size), "files": int(files)})
        entry["seconds"].append(float(seconds))

    figures = {}
    for (kind, group), entry in timings.items():
        seconds = statistics.median(entry["seconds"])
        figures[(kind, group)] = {
            "kind": kind,
            "set": group,
            "label": LABELS.get((kind, group), kind),
            "runs": len(entry["seconds"]),
            "seconds_each_run": entry["seconds"],
            "median_seconds": seconds,
            "bytes": entry["bytes"],
            "files": entry["files"],
            "MiB_per_s": entry["bytes"] / MIB / seconds,
            "files_per_s": entry["files"] / seconds,
        }
    for (kind, group), figure in figures.items():
        if kind in moved:
            figure["moved_share_each_run"] = [share for share, _ in moved[kind]]
            figure["held_share_each_run"] = [held for _, held in moved[kind]]
        if kind in stalls:
            figure["longest_stall_ms_each_run"] = stalls[kind]["longest_stall_ms"]
            figure["longest_busy_ms_each_run"] = stalls[kind]["longest_busy_ms"]
            figure["longest_stall_ms"] = statistics.median(stalls[kind]["longest_stall_ms"])
            figure["longest_busy_ms"] = statistics.median(stalls[kind]["longest_busy_ms"])
        if kind not in KESTRELVANE:
            continue
        present = [b for b in BASELINES[group] + OWN_BASELINES.get(kind, [])
                   if (b, group) in figures]
        figure["ratio_to"] = {
            baseline: figure["MiB_per_s"] / figures[(baseline, group)]["MiB_per_s"]
            for baseline in present
        }
        # The same ratio within each run, paired with the baseline of that run.
        figure["ratio_to_each_run"] = {
            baseline: [
                (figure["bytes"] / ours) / (figures[(baseline, group)]["bytes"] / theirs)
                for ours, theirs in zip(figure["seconds_each_run"],
                                        figures[(baseline, group)]["seconds_each_run"])
            ]
            for baseline in present
        }

    targets = []
    for kind, group, baseline, least, wording in TARGETS:
        figure = figures.get((kind, group))
        if figure is None:
            continue
        value = figure["ratio_to"].get(baseline) if baseline else figure["files_per_s"]
        if value is None:
            continue
        targets.append({"figure": f"{kind}/{group}", "target": wording, "value": value,
                        "met": value >= least})
    for kind in ("queue_model", "queue_view", "queue_send"):
        figure = figures.get((kind, "queue"))
        if figure is not None and "longest_stall_ms" in figure:
            targets.append({"figure": f"{kind}/stall", "target": "GUI thread stall at most 50 ms",
                            "value": figure["longest_stall_ms"],
                            "met": figure["longest_stall_ms"] <= MAX_STALL_MS})
    for kind, shares in sorted(moved.items()):
        worst = max(share for share, _ in shares)
        targets.append({"figure": kind, "target": "moves at most 12 % of the file",
                        "value": worst, "met": worst <= MAX_RESUMED_SHARE})
    peaks = {name: max(values) for name, values in memory.items()}
    for name, peak in sorted(peaks.items()):
        if name.endswith("-large-receiver"):
            targets.append({"figure": name, "target": "peak resident memory under 64 MiB",
                            "value": peak / MIB, "met": peak < 64 * MIB})

    ordered = [figures[key] for key in LABELS if key in figures]
    report = {
        "runs": runs,
        "figures": ordered,
        "peak_resident_bytes": peaks,
        "targets": targets,
    }
    with open(out, "w") as stream:
        json.dump(report, stream, indent=2)
        stream.write("\n")

    print()
    for group, title in (("large", "Large files"), ("photos", "Many photos"),
                         ("resume", "A video sent again after a break")):
        rows = [f for f in ordered if f["set"] == group]
        if not rows:
            continue
        first = next(f for f in rows if f["files"])
        print(f"{title}: {first['files']} files, {first['bytes'] / MIB:.0f} MiB, "
              f"median of {runs} run(s)")
        names = BASELINES[group] + sorted({b for own in OWN_BASELINES.values() for b in own})
        if group == "resume":
            for figure in rows:
                print(f"  {figure['label']:<52} {figure['MiB_per_s']:>8.1f} MiB/s of the file, "
                      f"moved {max(figure.get('moved_share_each_run', [0])):.1%}")
            print()
            continue
        header = f"  {'':<52} {'MiB/s':>8} {'files/s':>8}" + "".join(f" {'x ' + n:>13}" for n in names)
        print(header)
        for figure in rows:
            ratios = figure.get("ratio_to", {})
            cells = "".join(f" {ratios[n]:>13.2f}" if n in ratios else f" {'':>13}" for n in names)
            files = f"{figure['files_per_s']:>8.1f}" if figure["files"] else f"{'-':>8}"
            print(f"  {figure['label']:<52} {figure['MiB_per_s']:>8.1f} {files}"
                  + cells)
        print()
    queue = [f for f in ordered if f["set"] == "queue"]
    if queue:
        print(f"Queue scale: a drop of a folder of {queue[0]['files']} files, median of {runs} run(s)")
        print(f"  {'':<52} {'seconds':>8} {'stall ms':>9} {'busy ms':>8}")
        for figure in queue:
            print(f"  {figure['label']:<52} {figure['median_seconds']:>8.3f} "
                  f"{figure.get('longest_stall_ms', 0):>9.1f} {figure.get('longest_busy_ms', 0):>8.1f}")
        print("  (stall: longest wall time between two 1 ms timer ticks; busy: the GUI")
        print("   thread's own CPU time in its longest gap, the stall minus waiting for a core)")
        print()
    if peaks:
        print("Peak resident memory (largest of the runs)")
        for name, peak in sorted(peaks.items()):
            print(f"  {name:<52} {peak / MIB:>8.1f} MiB")
        print()
    print("Targets")
    for target in targets:
        verdict = "met" if target["met"] else "MISSED"
        print(f"  {target['figure']:<22} {target['target']:<36} {target['value']:>10.2f}  {verdict}")
    print(f"\nbench: figures written to {out}")


if __name__ == "__main__":
    main()
