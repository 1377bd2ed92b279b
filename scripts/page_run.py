# SPDX-License-Identifier: Apache-2.0
"""A run of mdencoder with its page and simulated flights, for the scripts that look at the page in Chromium."""
import os
import pathlib
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests" / "roads"))
from browser import Browser  # noqa: E402

ADDRESS = "127.0.0.1:8080"


def wait_for(condition, what, seconds=60):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            sys.exit(f"waited in vain for {what}")
        time.sleep(0.1)


def save_picture(browser, path):
    """Saves what is shown with at most 256 colours, which makes the file a quarter."""
    with tempfile.NamedTemporaryFile(suffix=".png") as whole:
        browser.screenshot(whole.name)
        path.parent.mkdir(parents=True, exist_ok=True)
        subprocess.run(["ffmpeg", "-loglevel", "error", "-y", "-i", whole.name, "-vf",
                        "split[a][b];[a]palettegen=reserve_transparent=0[p];[b][p]paletteuse=dither=none", path], check=True)


def has_messages(browser):
    return browser.run("return document.querySelectorAll('#items tbody tr').length > 10;") is True


class Run:
    """Starts the program with these sources and flights, and ends all of it. A flight is (kind, port, seed, rate)."""

    def __init__(self, bin_folder, sources, flights):
        self.bin = bin_folder.resolve()
        self.sources = sources
        self.flights = flights
        self.processes = []

    def __enter__(self):
        subprocess.run(["ip", "link", "set", "lo", "up", "multicast", "on"], check=True)
        self.folder = tempfile.TemporaryDirectory(prefix="metadata_page_")
        folder = pathlib.Path(self.folder.name)
        (folder / "host.ini").write_text("[serial]\n/dev/ttyPS0 = none\n[log]\nconsole = no\nfile = host.log\n")
        (folder / "page.ini").write_text(f"[encoder]\nhost_config = host.ini\noutput_dir = .\nhttp = {ADDRESS}\n\n{self.sources}")
        self.start(self.bin / "encoder" / "mdencoder", "page.ini", "--library",
                   self.bin / "metadata_lib" / "libmetadata_lib.so.1", "--format", "none")
        for kind, port, seed, rate in self.flights:
            self.start(self.bin / "tools" / "mdfeed" / "mdfeed", kind, "--simulate", "--seed", seed, "--rate", rate,
                       "--duration", 600, "--udp", f"127.0.0.1:{port}")
        self.browser = Browser()
        return self

    def start(self, *command):
        self.processes.append(subprocess.Popen([str(word) for word in command], cwd=self.folder.name,
                                               stdout=subprocess.DEVNULL, env={**os.environ, "TZ": "UTC"}))

    def open_page(self):
        """Opens the page and waits until it shows a message."""
        def opens():
            try:
                self.browser.open(f"http://{ADDRESS}/")
            except Exception:  # the program does not listen yet; Chromium has no error of its own for that
                return False
            return self.browser.run("return document.querySelector('#connection') !== null;") is True
        wait_for(opens, "the page")
        wait_for(lambda: has_messages(self.browser), "the first message")

    def __exit__(self, *_):
        self.browser.close()
        for process in self.processes:
            process.terminate()
        for process in self.processes:
            process.wait()
        self.folder.cleanup()
