#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The README's example prints what arrives on its port and ends cleanly on SIGINT."""
import os
import select
import signal
import socket
import subprocess
import sys
import time

KEY = bytes.fromhex("060E2B34020B01010E01030101000000")
message = KEY + bytes([10]) + bytes([2, 8]) + bytes(8)

process = subprocess.Popen([sys.argv[1]], stdout=subprocess.PIPE)
sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
line = b""
deadline = time.monotonic() + 20
while time.monotonic() < deadline and process.poll() is None:
    sender.sendto(message, ("127.0.0.1", 15000))
    if select.select([process.stdout], [], [], 0.1)[0]:
        line = os.read(process.stdout.fileno(), 4096)
        break
process.send_signal(signal.SIGINT)
status = process.wait(timeout=20)
if not line.startswith(b"camera #0: 27 bytes\n"):
    sys.exit(f"printed {line!r}")
if status != 0:
    sys.exit(f"ended with {status}")
print("1 passed, 0 failed")
