#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs mdencoder with sources of all kinds into a stream and the live page with ten clients (scripts/soak-page).

Every delivered message must be in the stream, byte by byte, and memory, descriptors and threads must not grow.
"""
import argparse
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time

PORT = 18090
HOST_INI = """[serial]
/dev/ttyPS0 = {out}/serial
[capture0]
kind = anc
port = 16020
[log]
console = no
file = {out}/host.log
"""
INI = """[encoder]
host_config = {out}/host.ini
output_dir = {out}
summary = {out}/summary.json
format = none
http = 127.0.0.1:{port}

[u1]
input = udp
port = 16001
[u2]
input = udp
port = 16002
relay1 = 127.0.0.1:16003
[u3]
input = udp
port = 16003
[cot]
input = udp
data = cot
port = 16004
cot_delta_ms = 50
[serial]
input = serial
baud = 115200
[anc]
input = video
interface = 0
[file]
url = flight.ts
loop = yes

[stream show]
url = show.ts
url2 = udp://127.0.0.1:16030
hls = segments
"""
URL = f"http://127.0.0.1:{PORT}"
TICKS = os.sysconf("SC_CLK_TCK")


class Run:
    def __init__(self, options):
        self.options, self.out = options, options.out
        self.seconds = options.minutes * 60
        self.problems, self.samples, self.clients, self.feeds = [], [], [], []

    def begin(self):
        shutil.rmtree(self.out, ignore_errors=True)
        self.out.mkdir(parents=True, exist_ok=True)
        (self.out / "host.ini").write_text(HOST_INI.format(out=self.out))
        (self.out / "run.ini").write_text(INI.format(out=self.out, port=PORT))
        subprocess.run([self.options.feed, "ts", "--output", self.out / "flight.ts", "--duration", "60"], check=True,
                       stdout=subprocess.DEVNULL)
        self.feed("klv", "--simulate", "--rate", "20", "--pty", self.out / "serial")
        self.wait(lambda: (self.out / "serial").exists())
        self.encoder = subprocess.Popen(
            [self.options.encoder, self.out / "run.ini", "--library", self.options.library],
            stdout=subprocess.DEVNULL, stderr=(self.out / "encoder.err").open("w"))
        self.wait(lambda: subprocess.run(["curl", "-sf", URL + "/healthz"], capture_output=True).returncode == 0)
        self.feed("klv", "--simulate", "--rate", "60", "--udp", "127.0.0.1:16001")
        self.feed("klv", "--simulate", "--rate", "30", "--seed", "2", "--udp", "127.0.0.1:16002")
        self.feed("cot", "--simulate", "--rate", "10", "--udp", "127.0.0.1:16004")
        self.feed("anc", "--simulate", "--rate", "25", "--seed", "3", "--udp", "127.0.0.1:16020")
        for _ in range(4):
            self.client("curl", "-sN", URL + "/api/v1/events")
        for source in ("u1", "serial"):
            self.client("curl", "-sN", URL + f"/api/v1/events?source={source}&kind=message")
        for _ in range(2):
            self.client("curl", "-sN", URL + "/stream/show.mp4")
        self.client("sh", "-c", f"while :; do curl -s {URL}/metrics {URL}/api/v1/sources; sleep 1; done")
        # Nobody needs the browser's own network; it plays the video and draws the map.
        self.client("chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                    "--remote-debugging-port=0", f"--user-data-dir={self.out}/browser", URL + "/")

    def wait(self, condition):
        for _ in range(600):
            if condition():
                return
            time.sleep(0.1)
        sys.exit("the program did not begin")

    def feed(self, *arguments):
        self.feeds.append(subprocess.Popen([self.options.feed, *map(str, arguments), "--duration", str(self.seconds)],
                                           stdout=subprocess.DEVNULL))

    def client(self, *command):
        self.clients.append(subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                             start_new_session=True))

    def sample(self):
        process = pathlib.Path(f"/proc/{self.encoder.pid}")
        resident = next(int(line.split()[1]) for line in (process / "status").read_text().splitlines()
                        if line.startswith("VmRSS"))
        ticks = {}
        for task in (process / "task").iterdir():
            name, fields = (task / "comm").read_text().strip(), (task / "stat").read_text().rsplit(")", 1)[1].split()
            ticks[name] = ticks.get(name, 0) + int(fields[11]) + int(fields[12])
        self.samples.append({"time": time.monotonic(), "resident": resident, "threads": len(list((process / "task").iterdir())),
                             "descriptors": len(list((process / "fd").iterdir())), "ticks": ticks})
        gone = [index for index, client in enumerate(self.clients) if client.poll() is not None]
        if gone:
            self.problems.append(f"clients {gone} have ended")
            self.clients = [client for client in self.clients if client.poll() is None]

    def end(self):
        for feed in self.feeds:
            feed.wait(60)
        time.sleep(2)
        with (self.out / "metrics.txt").open("w") as file:
            subprocess.run(["curl", "-s", URL + "/metrics"], stdout=file, check=False)
        self.encoder.send_signal(signal.SIGINT)
        if self.encoder.wait(60) != 0:
            self.problems.append("the program ended with an error")
        for client in self.clients:
            os.killpg(client.pid, signal.SIGKILL)

    def judge(self):
        summary = json.loads((self.out / "summary.json").read_text())
        stream = summary["streams"][0]
        names = [source["name"] for source in summary["sources"]]
        report = {"minutes": self.options.minutes, "clients": 10, "stream": stream,
                  "messages": {source["name"]: source["messages"] for source in summary["sources"]}}
        for number, name in enumerate(names):
            done = subprocess.run(["ffmpeg", "-v", "warning", "-y", "-i", self.out / "show.ts", "-map", f"0:d:{number}",
                                   "-c", "copy", "-f", "data", self.out / "track.bin"], capture_output=True, text=True)
            same = (self.out / "track.bin").read_bytes() == (self.out / f"{name}.klv").read_bytes()
            if not same or report["messages"][name] == 0:
                self.problems.append(f"the track of {name} is not what was delivered")
            if "ontinuity" in done.stderr or "corrupt" in done.stderr:
                self.problems.append(f"FFmpeg finds faults: {done.stderr[:200]}")
        first, last = self.samples[len(self.samples) // 4], self.samples[-1]
        for name in ("resident", "threads", "descriptors"):
            report[name] = [first[name], last[name]]
        span = last["time"] - first["time"]
        report["processor"] = {name: round((last["ticks"][name] - first["ticks"].get(name, 0)) / TICKS / span * 100, 2)
                               for name in sorted(last["ticks"])}
        if last["resident"] > first["resident"] * 1.05:
            self.problems.append("memory has grown")
        if last["descriptors"] > first["descriptors"] + 2 or last["threads"] > first["threads"] + 2:
            self.problems.append("descriptors or threads have grown")
        report["problems"] = self.problems
        (self.out / "report.json").write_text(json.dumps(report, indent=1))
        print(json.dumps(report, indent=1))


def main():
    parser = argparse.ArgumentParser()
    for name in ("encoder", "feed", "library", "out"):
        parser.add_argument(f"--{name}", required=True, type=pathlib.Path)
    parser.add_argument("--minutes", type=int, required=True)
    run = Run(parser.parse_args())
    run.begin()
    end = time.monotonic() + run.seconds
    while time.monotonic() < end:
        time.sleep(min(run.seconds / 20, 60))
        run.sample()
    run.end()
    run.judge()
    return 1 if run.problems else 0


sys.exit(main())
