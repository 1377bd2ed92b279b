#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures the page's first paint and its late frames; scripts/bench-page starts it, in a network of its own."""
import argparse
import pathlib
import statistics
import sys

from page_run import Run

COUNT = 8
RATE = 60
LOADS = 5
SECONDS = 20
LATE_MS = 25  # at 60 frames a second a frame was left out
MOST_PAINT_MS = 500
MOST_LATE = 0.005  # of the frames

SOURCES = "".join(f"[source{i}]\ninput = udp\nport = {15000 + i}\nfamily = ipv4\n\n" for i in range(COUNT))
FLIGHTS = [("klv", 15000 + i, i + 1, RATE) for i in range(COUNT)]

PAINT = ("const paints = performance.getEntriesByType('paint');"
         "return paints.find(({ name }) => name === 'first-contentful-paint')?.startTime ?? null;")
FRAMES = """const times = [];
const began = performance.now();
await new Promise((resolve) => {
  const step = (now) => {
    times.push(now);
    if (now - began < given[0] * 1000) requestAnimationFrame(step);
    else resolve();
  };
  requestAnimationFrame(step);
});
return times.slice(1).map((time, index) => time - times[index]);"""


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", type=pathlib.Path, required=True)
    options = parser.parse_args()
    with Run(options.bin, SOURCES, FLIGHTS) as run:
        paints = []
        for _ in range(LOADS):
            run.open_page()
            paints.append(run.browser.run(PAINT))
        run.browser.driver.set_script_timeout(SECONDS + 30)
        frames = run.browser.run(FRAMES, SECONDS)
    late = sum(frame > LATE_MS for frame in frames)
    paint = statistics.median(paints)
    print(f"first contentful paint: {paint:.0f} ms (median of {LOADS}; limit {MOST_PAINT_MS})")
    print(f"frames: {len(frames)} in {SECONDS} s, {late} late (limit {MOST_LATE:.1%}), longest {max(frames):.0f} ms, "
          f"{COUNT} sources of {RATE} messages a second")
    if paint > MOST_PAINT_MS or late > MOST_LATE * len(frames):
        sys.exit("bench_page.py: a limit is missed")


if __name__ == "__main__":
    main()
