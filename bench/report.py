#!/usr/bin/env python3
"""Turns bench/results/latest.json into the Markdown table (results.md) and the plot (ratios.png).
Usage: bench/report.py RESULTS_DIR"""
import json
import os
import shutil
import subprocess
import sys

TOOLS = ["kestil get", "kestil put", "uftp", "atftp"]


def fmt(s, digits=2):
    if not s:
        return "—"
    return f"{s['median']:.{digits}f} ({s['min']:.{digits}f}–{s['max']:.{digits}f})"


def pct(s):
    """Copies (data datagrams per block, minus one) as a percentage of the blocks."""
    if not s:
        return "—"
    return f"{s['median'] * 100:.1f}% ({s['min'] * 100:.1f}–{s['max'] * 100:.1f})"


def complete_copies(v):
    """Copies over the runs that delivered the whole file: a run stopped early sent fewer
    datagrams than the file has blocks, which is no copy count at all."""
    done = [run["copies"] for run in v.get("runs", []) if run.get("md5_ok") and run.get("copies") is not None]
    if "runs" not in v:
        return v.get("copies")
    if not done:
        return None
    done.sort()
    return {"median": done[len(done) // 2], "min": done[0], "max": done[-1]}


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "bench/results"
    r = json.load(open(os.path.join(out, "latest.json")))
    m = r.get("machine", {})
    lines = [f"Measured on {m.get('cpu', '?')}, {m.get('cores', '?')} cores, {m.get('mem_GiB', '?')} GiB, "
             f"Linux {m.get('kernel', '?')}. Median of the runs (min–max).", ""]
    if "raw" in r:
        lines += [f"Raw loopback limit (146-byte datagrams, 141 bytes of payload): "
                  f"{fmt(r['raw']['payload_MBps'], 1)} MB/s"]
        if "client_calls_MBps" in r["raw"]:
            lines += [f"With the receive loop's required calls a datagram (lock released and taken, read, "
                      f"positioned write, trace and bar): {fmt(r['raw']['client_calls_MBps'], 1)} MB/s"]
        lines += [""]
    raw = r.get("raw", {}).get("payload_MBps", {}).get("median")
    calls = r.get("raw", {}).get("client_calls_MBps", {}).get("median")
    for item, label in (("loopback", ""), ("loopback-1core", ", both ends on one core")):
        if item not in r:
            continue
        lines += [f"| loopback download{label} | payload MB/s | of raw limit | of calls limit | copies | "
                  "client CPU s/MiB |", "|---|---|---|---|---|---|"]
        for tool, v in r[item].items():
            mbps = v["payload_MBps"]
            share = f"{mbps['median'] / raw:.2f}" if mbps and raw else "—"
            call_share = f"{mbps['median'] / calls:.2f}" if mbps and calls else "—"
            lines.append(f"| {tool} | {fmt(mbps, 1)} | {share} | {call_share} | {pct(v.get('copies'))} | "
                         f"{fmt(v['cpu_s_per_MiB'], 4)} |")
        lines.append("")
    if "scenarios" in r:
        lines += ["| link | tool | lower bound s | complete / bound | exit / bound | copies | complete, MD5 ok |",
                  "|---|---|---|---|---|---|---|"]
        for name, sc in r["scenarios"].items():
            link = sc["link"]
            best = link["best_other_exit_ratio_target"]
            desc = (f"{name}: {link['rate_bps'] / 1000:g} kbit/s, {link['delay_ms']} ms, {link['loss'] * 100:g}% loss, "
                    f"{link['size'] // 1024} KiB" + (f" (best other: {best})" if best else ""))
            for tool in TOOLS:
                if tool in sc:
                    v = sc[tool]
                    lines.append(f"| {desc} | {tool} | {v['lower_bound_s']:.2f} | {fmt(v['complete_ratio'])} | "
                                 f"{fmt(v['exit_ratio'])} | {pct(complete_copies(v))} | {v['completed']} |")
                    desc = ""
        lines.append("")
    if "memory" in r:
        lines += ["| kestil get | peak RSS MiB | client CPU s/MiB |", "|---|---|---|"]
        for size, v in r["memory"].items():
            lines.append(f"| {size} | {fmt(v['peak_rss_MiB'])} | {fmt(v['cpu_s_per_MiB'], 4)} |")
        lines.append("")
    with open(os.path.join(out, "results.md"), "w") as f:
        f.write("\n".join(lines))

    if "scenarios" not in r or shutil.which("gnuplot") is None:
        return
    data = os.path.join(out, "ratios.dat")
    with open(data, "w") as f:
        f.write("scenario " + " ".join(f'"{t}"' for t in TOOLS) + "\n")
        for name, sc in r["scenarios"].items():
            vals = []
            for t in TOOLS:
                c = sc.get(t, {}).get("complete_ratio")
                vals.append(f"{c['median']:.3f}" if c else "NaN")
            f.write(name + " " + " ".join(vals) + "\n")
    script = f"""
set terminal pngcairo size 900,480 font ",11"
set output "{os.path.join(out, 'ratios.png')}"
set title "Time until the file is complete, as a ratio to each tool's lower bound (lower is better)"
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.8 border -1
set yrange [0:*]
set key top left
set grid ytics
plot for [i=2:{len(TOOLS) + 1}] "{data}" using i:xtic(1) title columnheader(i)
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=False)
    os.remove(data)


if __name__ == "__main__":
    main()
