# SPDX-License-Identifier: Apache-2.0
"""The faults of a soak run. Each function makes one, undoes it and returns when it is undone; what it may cost and how
one can tell that it had an effect it says in its span."""
import signal
import time

import plant

NOT_RELOADED = "configuration not reloaded"
RELOADED = "configuration reloaded"
RELOADS = 100


class Timeout(Exception):
    pass


def wait_for(run, condition, what, seconds=30):
    until = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > until:
            raise Timeout(f"waited {seconds} s in vain for {what}")
        run.check_alive()
        time.sleep(0.05)


def reader_stops(run, span):
    """Nobody reads the standard output; then somebody does."""
    run.encoder.reading.clear()
    # The first time is the longest, so that the memory for rows has its full size when the warm-up ends.
    is_first = not any(one.fault == span.fault for one in run.spans[:-1])
    try:
        time.sleep(100 if is_first and not run.is_quick else run.between(5, 100))
    finally:
        run.encoder.reading.set()


def line_closes(run, span):
    """The serial line's far end is closed, and opened again."""
    serial = run.senders["serial"]
    begin = time.time() - 1
    serial.unplug()
    time.sleep(run.between(1.5, 8))
    serial.plug()
    wait_for(run, serial.is_open, "the serial line")
    opened = time.time()
    time.sleep(0.6)  # as documented: data that is sent half a second after the device is back is received
    span.excuse("serial", begin, opened + 0.6, "line closed")
    span.recovered["serial"] = opened


def interface_goes(run, span):
    """The interface of a group and of a relay is removed, and added again."""
    begin = time.time() - 0.2
    plant.unplug()
    time.sleep(run.between(3, 12))
    plant.plug()
    after_interface(run, span, begin)


def interface_flaps(run, span):
    """The interface is removed and added again every second."""
    begin, start = time.time() - 0.2, time.monotonic()
    for number in range(8 if run.is_quick else 20):
        plant.unplug()
        time.sleep(max(0, start + number + 0.5 - time.monotonic()))
        plant.plug()
        time.sleep(max(0, start + number + 1 - time.monotonic()))
    after_interface(run, span, begin)


def after_interface(run, span, begin):
    """Waits until everything that is sent over the wire arrives. A recording shows that after at most 2.5 seconds."""
    back = time.time()
    streams = [run.streams["group"], run.streams["wire"]]

    def whole():
        until = time.time() - 3
        return until - 1.5 > back and not any(
            stream.missing(*stream.numbers(until - 1.5, until)) or stream.numbers(until - 1.5, until)[0] ==
            stream.numbers(until - 1.5, until)[1] for stream in streams)
    wait_for(run, whole, "messages over the interface", 60)
    for stream in streams:
        span.excuse(stream.name, begin, time.time() - 4.5, "interface away")
        span.recovered[stream.name] = back


def disk_fills(run, span):
    """The file system of two recordings is full, more messages come than wait in memory, and it is emptied."""
    held = [recording for recording in run.recordings.all.values() if recording.folder == run.folders.disk]
    before = len(run.encoder.lines())
    for recording in held:
        recording.hold = True
    ballast = run.folders.disk / "ballast"
    try:
        with open(ballast, "wb", buffering=0) as file:
            try:
                while file.write(bytes(4096)):
                    pass
            except OSError:
                pass
            # What the recordings left of their last pages is taken by their next writes.
            time.sleep(2)
            run.senders["u6"].burst(5000, 3000)
            time.sleep(run.between(1, 15))
    finally:
        ballast.unlink()
        for recording in held:
            recording.hold = False
    wait_for(run, lambda: run.encoder.count("of u6 continues in", before), "the recording to continue")
    span.expected.append(("u6", "disk"))
    # One of each recording; where the index did not fit first, one more says so.
    span.notes["lines"] = run.encoder.count("cannot be written further to", before)
    if span.notes["lines"] > 2:
        run.complain(f"a full disk wrote {span.notes['lines']} lines")


def hangs_up(run, span):
    """A hundred reloads under traffic, each with another extra source."""
    for number in range(RELOADS):
        extra = f"[extra]\ninput = udp\nport = 16090\nfamily = ipv4\nmission_id = M{number}\n" if number % 3 else ""
        run.encoder.write_config(run.encoder.good + extra)
        reload(run, RELOADED)
    run.encoder.write_config(run.encoder.good)
    reload(run, RELOADED)


def reload(run, answer):
    before = len(run.encoder.lines())
    run.encoder.signal(signal.SIGHUP)
    wait_for(run, lambda: run.encoder.count(answer, before), f"the line: {answer}")


def configuration_is_wrong(run, span):
    """Wrong configurations are reloaded: nothing changes."""
    good = run.encoder.good
    wrong = [good.replace("port = 16001", "port = 99999"), "", good + "[half\n",
             good + "[u4]\ninput = udp\nport = 16091\n", good.replace("format = json", "format = json\nqueue = 17"),
             good.replace("family = ipv6", "family = ipv5"),
             good + "[next]\ninput = udp\nport = 16001\n", good.replace("[u4]", "[encoder]"),
             good + "[next]\ninput = udp\nport = 16091\noutput = /nonexistent/a.klv\n"]
    run.choose.shuffle(wrong)
    for text in wrong:
        before = len(run.encoder.lines())
        run.encoder.write_config(text)
        reload(run, NOT_RELOADED)
        if run.encoder.count(RELOADED, before):
            run.complain("a wrong configuration was reloaded")
    run.encoder.write_config(good)
    reload(run, RELOADED)


def encoder_stops(run, span):
    """The encoder is stopped (SIGSTOP) while more comes than its sockets hold."""
    run.encoder.signal(signal.SIGSTOP)
    try:
        run.senders["u4"].burst(5000, 20000)
        run.senders["cot4"].burst(2500, 10000)
        time.sleep(run.between(1, 4))
    finally:
        run.encoder.signal(signal.SIGCONT)
    span.expected += [("u4", "kernel"), ("cot4", "kernel")]


def device_babbles(run, span):
    """The serial device sends noise between its messages."""
    begin = time.time() - 0.7
    run.senders["serial"].babble(run.between(3, 8), run.choose)
    time.sleep(1.5)
    span.excuse("serial", begin, time.time(), "device babbled")


def folder_is_read_only(run, span):
    """No file can be made in the folder of two recordings when they rotate."""
    before = len(run.encoder.lines())
    plant.run("mount", "-t", "tmpfs", "-o", "ro", "tmpfs", run.folders.rotated)
    try:
        time.sleep(run.between(7, 20))
    finally:
        plant.run("umount", run.folders.rotated)
    span.notes["lines"] = run.encoder.count("goes on in", before)
    if span.notes["lines"] < 2:
        run.complain("no line told that a recording could not rotate")
    if span.notes["lines"] > 2:
        run.complain(f"a folder in which nothing can be made wrote {span.notes['lines']} lines")


def datagrams_are_damaged(run, span):
    """Damaged datagrams arrive between the others."""
    for _ in range(60 if run.is_quick else 200):
        for name in ("group", "u6"):
            with run.senders[name].lock:
                run.senders[name].send_damaged(run.choose)
        time.sleep(0.03)


def overload(run, span):
    """More messages than the encoder can take."""
    run.senders["u4"].flood(500 if run.is_quick else 1000)
    time.sleep(1)
    span.expected.append(("u4", "kernel"))


ALL = (reader_stops, line_closes, interface_goes, interface_flaps, disk_fills, hangs_up, configuration_is_wrong,
       encoder_stops, device_babbles, folder_is_read_only, datagrams_are_damaged, overload)


def title(fault):
    return fault.__name__.replace("_", " ")
