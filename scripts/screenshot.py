#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Takes pictures of the page while simulated flights play; scripts/screenshot starts it, in a network of its own."""
import argparse
import pathlib
import time

from page_run import Run, save_picture

SOURCES = """[aircraft]
input = udp
port = 15000
family = ipv4
mission_id = DEMONSTRATION
classification = unclassified
classifying_country = USA
object_country = USA
relay1 = 127.0.0.1:15100
relay2 = 127.0.0.1:15199

[second]
input = udp
port = 15001
family = ipv4

[tak]
input = udp
port = 15002
family = ipv4
data = cot
cot_delta_ms = 50
cot_discovery = yes

[copy]
input = udp
port = 15100
family = ipv4

[serial]
input = serial
baud = 115200

[stream flight]
url = flight.ts
sources = aircraft
"""
FLIGHTS = (("klv", 15000, 40, 20), ("klv", 15001, 51, 10), ("cot", 15002, 3, 5))  # seeds of neighbours
WIDTHS = ((1440, 900), (820, 1180), (360, 780))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", type=pathlib.Path, required=True)
    parser.add_argument("--docs", type=pathlib.Path, required=True)
    parser.add_argument("--out", type=pathlib.Path, required=True)
    parser.add_argument("--widths", action="store_true")
    parser.add_argument("--seconds", type=float, default=90, help="how long the flights play before the first picture")
    options = parser.parse_args()
    with Run(options.bin, SOURCES, FLIGHTS) as run:
        run.open_page()
        time.sleep(options.seconds)
        run.browser.prefer(color_scheme="light")
        save_picture(run.browser, options.docs / "live_page.png")
        for width, height in WIDTHS if options.widths else ():
            run.browser.resize(width, height)
            for scheme in ("light", "dark"):
                run.browser.prefer(color_scheme=scheme)
                time.sleep(1)
                save_picture(run.browser, options.out / f"{width}-{scheme}.png")


if __name__ == "__main__":
    main()
