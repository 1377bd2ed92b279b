#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The page on services, on a machine that is booted for it: systemd is the first process of namespaces of its own (boot.sh).

It needs root, systemd, and a control group of its own in the unified hierarchy. What its rights do not reach, such as the real-time
priority of a thread or the filter of devices in a container, systemd leaves out, so that it is not tested here.
"""
import contextlib
import ctypes
import os
import pathlib
import re
import shutil
import subprocess

import harness
import pages
from harness import EndToEndTest

HERE = pathlib.Path(__file__).parent
SOURCE = pathlib.Path(harness.options.source)
SYSTEMD = pathlib.Path("/lib/systemd/systemd")


def own_mounts():
    """What this process mounts is seen by its programs alone, and goes with it."""
    clone_newns = 0x20000
    if ctypes.CDLL(None, use_errno=True).unshare(clone_newns) != 0:
        raise OSError(ctypes.get_errno(), "unshare")
    subprocess.run(["mount", "--make-rprivate", "/"], check=True)


class Groups:
    """A control group below that of this process, for the machine that is booted."""

    def __init__(self, folder):
        own_mounts()
        self.mount = folder
        folder.mkdir()
        subprocess.run(["mount", "-t", "cgroup2", "cgroup2", folder], check=True)
        own = next(line for line in pathlib.Path("/proc/self/cgroup").read_text().splitlines() if line.startswith("0::"))
        self.path = folder / own.removeprefix("0::/") / f"mdencoder-test-{os.getpid()}"
        self.path.mkdir()

    def enter(self):
        """Called in the process that is to be in the group."""
        (self.path / "cgroup.procs").write_text("0")

    def is_removed(self):
        """Removes the groups as far as their processes are gone, and returns whether that is all of them."""
        with contextlib.suppress(OSError):
            for path, _, _ in os.walk(self.path, topdown=False):
                os.rmdir(path)
        return not self.path.exists()


class Boot(EndToEndTest):
    machine = None
    groups = None

    def boot(self):
        """Boots the machine, and waits until it is up."""
        (self.folder / "machine").mkdir()
        error = self.output("boot.err")
        machine = self.start(
            "setpriv", "--pdeathsig", "KILL", "unshare", "--mount", "--propagation", "private", "--pid", "--cgroup", "--ipc", "--uts", "--fork", "--kill-child",
            "sh", HERE / "boot.sh", self.folder / "machine", pathlib.Path(harness.options.encoder).resolve(),
            pathlib.Path(harness.options.library).resolve(), SOURCE / "packaging/systemd", stdin=subprocess.DEVNULL,
            stdout=error, stderr=error, preexec_fn=self.groups.enter)
        self.machine = machine
        children = pathlib.Path(f"/proc/{machine.pid}/task/{machine.pid}/children")

        def is_up():
            self.assertIsNone(machine.poll(), (self.folder / "boot.err").read_text())
            self.first = children.read_text().strip()
            return (self.first and os.readlink(f"/proc/{self.first}/exe").endswith("/systemd")
                    and self.inside("systemctl is-system-running").stdout == "running\n")
        self.wait_for(is_up, "the machine", 60)

    def tearDown(self):
        """Ends the machine before the folder goes."""
        if self.machine:
            self.machine.kill()
            self.machine.wait()
        if self.groups:
            self.wait_for(self.groups.is_removed, "the end of the machine", 60)
            subprocess.run(["umount", self.groups.mount], check=True)
        super().tearDown()

    def inside(self, command, **more):
        """Runs commands of the shell on the machine, as root in its own folder."""
        return subprocess.run(["nsenter", "--target", self.first, "--mount", "--pid", "--cgroup", "--ipc", "--uts", "--root",
                               "--wdns=/root", "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "TERM=dumb", "SYSTEMD_PAGER=cat", "sh", "-euc",
                               command], **{"capture_output": True, "text": True, "stdin": subprocess.DEVNULL,
                                            "timeout": 120 * harness.SLOW, **more})

    def prints(self, command):
        done = self.inside(command)
        self.assertEqual(done.returncode, 0, f"{command}: {done.stdout}{done.stderr}")
        return done.stdout + done.stderr

    def write(self, path, text):
        self.inside(f"cat >{path}", stdin=None, input=text, check=True)

    def follow_the_page(self):
        """Runs the block word by word. What it shows of the status stands behind the command."""
        (config,) = pages.blocks(SOURCE / "docs/service.md", "ini")
        self.write(config.split()[1], config)
        for command in pages.commands(pages.block(SOURCE, "docs/service.md#1")):
            self.prints("journalctl --sync")
            shown = self.prints(command)
            if "systemctl status" in command:
                self.assertIn('Status: ' + re.search(r'# (".*")$', command)[1], shown)
                self.assertIn("Active: active (running)", shown)
        self.assertRegex(shown, r"mdencoder\[\d+\]: mdencoder: source ground waits: there is no /dev/mdencoder-serial\n")
        self.assertNotIn("receiver socket", shown, "a notice is no warning")

    def check_reloads(self):
        """A reload is refused with the line that names the fault, and the service goes on."""
        path = "/etc/mdencoder/mdencoder.ini"
        config = self.prints(f"cat {path}")
        self.write(path, config.replace("port =", "prot ="))
        self.assertEqual(self.inside("systemctl reload mdencoder").returncode, 1)
        self.prints("journalctl --sync")
        self.assertIn('did you mean "port"?', self.prints("journalctl -u mdencoder -p err"))
        self.write(path, config.partition("[ground]")[0])
        self.prints("systemctl reload mdencoder")
        self.assertIn('Status: "1 of 1 sources open"', self.prints("systemctl status mdencoder"))

    def edit(self, text):
        """Puts a text where "systemctl edit" has it, whose editor needs a terminal."""
        self.write("/root/edited", text)
        master, terminal = os.openpty()
        self.addCleanup(os.close, master)
        self.addCleanup(os.close, terminal)
        done = self.inside("EDITOR='cp /root/edited' systemctl edit mdencoder", stdin=terminal, stdout=terminal,
                           stderr=terminal, capture_output=False)
        os.set_blocking(master, False)
        if done.returncode != 0:
            self.fail(os.read(master, 65536).decode())

    def check_rights(self):
        """Each change to the unit that the documents show is one that the service starts with."""
        texts = [text for page in pages.pages(SOURCE) for text in pages.blocks(page, "ini unit")]
        self.assertGreater(len(texts), 0)
        for text in texts:
            for path in re.findall(r"^ReadWritePaths=(\S+)", text, re.M):
                self.prints(f"mkdir -p {path}")
            self.edit(text)
            self.prints("systemctl restart mdencoder")
            self.prints("systemd-analyze verify --man=no mdencoder.service")
            for key, value in re.findall(r"^(\w+)=(.*)", text, re.M):
                self.assertIn(f"{key}={value}\n", self.prints(f"systemctl show mdencoder -p {key}"))

    def test_the_page_leads_to_a_service(self):
        for what, absent in (("root", os.geteuid() != 0), (SYSTEMD, not SYSTEMD.exists()), ("nsenter", not shutil.which("nsenter")),
                             ("cgroup2", "cgroup2\n" not in pathlib.Path("/proc/filesystems").read_text())):
            if absent:
                print(f"ABSENT: {what} - no machine is booted")
                return
        try:
            self.groups = Groups(self.folder / "groups")
        except (OSError, subprocess.CalledProcessError) as refused:
            print(f"ABSENT: control groups of one's own ({refused}) - no machine is booted")
            return
        self.boot()
        self.follow_the_page()
        self.check_reloads()
        self.check_rights()
        self.prints("systemctl stop mdencoder")
        self.assertIn("Result=success\n", self.prints("systemctl show mdencoder -p Result"))
        self.assertEqual(self.inside("test -s /var/lib/mdencoder/summary.json").returncode, 0)


if __name__ == "__main__":
    harness.main()
