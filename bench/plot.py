#!/usr/bin/env python3
"""Draws what lumora-compare measured: medians as bars, ranges as whiskers.

plot.py bench.json bench.png
"""

import json
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt

PANELS = [
    ("cpu_ms", "CPU, ms per frame, 30 a second", 1),
    ("fps", "frames per second carried", 1),
    ("peak_mb", "peak memory, MB", 1),
    ("take_bytes", "recording, MB", 1e-6),
    ("ssim_take", "SSIM of the recording", 1),
    ("ssim_preview", "SSIM of the preview", 1),
]
COLOURS = {
    "encoders alone": "#999999",
    "encoders and a pipe": "#666666",
    "helper": "#1b7837",
    "ffmpeg": "#7b3294",
    "ffmpeg, one conversion": "#c2a5cf",
    "GStreamer": "#e08214",
}


def draw_panel(axes, presets, key, title, scale):
    position, ticks, values = 0, [], []
    for preset, rows in presets.items():
        start = position
        for name in COLOURS:
            if name not in rows:
                continue
            value = rows[name].get(key)
            if value is not None:
                if not isinstance(value, dict):
                    value = {"median": value, "low": value, "high": value}
                median = value["median"] * scale
                below = median - value["low"] * scale
                above = value["high"] * scale - median
                axes.bar(position, median, yerr=[[below], [above]], color=COLOURS[name], capsize=3)
                values.append(median)
            position += 1
        ticks.append(((start + position - 1) / 2, preset))
        position += 1
    axes.set_title(title)
    axes.set_xticks([at for at, _ in ticks], [preset for _, preset in ticks])
    if key.startswith("ssim"):  # nobody is near 0
        axes.set_ylim(min(values) - 0.01, min(max(values) + 0.005, 1))


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        report = json.load(file)
    figure, panels = plt.subplots(2, 3, figsize=(15, 8))
    for axes, (key, title, scale) in zip(panels.flat, PANELS):
        draw_panel(axes, report["presets"], key, title, scale)
    handles = [plt.Rectangle((0, 0), 1, 1, color=colour) for colour in COLOURS.values()]
    figure.legend(handles, COLOURS, loc="lower center", ncol=len(COLOURS))
    figure.suptitle(
        "1920×1080 RGBA in; 640×360 preview and 1920×1080 recording out; "
        f"{report['frames']} frames, median and range of {report['rounds']} rounds"
    )
    figure.tight_layout(rect=(0, 0.05, 1, 1))
    figure.savefig(sys.argv[2], dpi=110)


if __name__ == "__main__":
    main()
