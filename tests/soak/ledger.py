# SPDX-License-Identifier: Apache-2.0
"""Accounts for every message of a run: what was sent and not recorded has a cause, or the run has failed.

The run is cut into spans: each fault from just before it begins until everything has settled, and the quiet times in
between. Nothing is being lost where two spans meet. What a span lost of a source must therefore equal what the counters
of losses grew by in this span. Where a cause has no counter (an interface that is away), the fault names the time in
which it may lose messages.
"""
import array
import bisect
import threading


class Stream:
    """The messages of one source: numbers from 0 on, when each was sent, and whether it is in the recording."""

    def __init__(self, name):
        self.name = name
        self.times = array.array("d")  # of sending; negative if the sender was refused
        self.seen = bytearray()
        self.refused = 0
        self.recorded = 0
        self.problems = []  # what no cause excuses: doubled, out of order, never sent
        self.damaged_sent = 0
        self.damaged_recorded = 0
        self.optional = None  # tells of a number whether the source may leave it out
        self.lock = threading.Lock()
        self.latest = -1

    def next_number(self):
        return len(self.times)

    def note_sent(self, time, taken=True):
        """Notes the next number. The sender notes it before it sends, so that no recording can be earlier."""
        self.times.append(time if taken else -time)
        self.refused += not taken

    def note_refused(self, number):
        self.times[number] = -self.times[number]
        self.refused += 1

    def note_recorded(self, number):
        self.recorded += 1
        if not 0 <= number < len(self.times):
            return self.complain(f"recorded number {number}, which was never sent")
        if number >= len(self.seen):
            self.seen.extend(bytes(number + 1024 - len(self.seen)))
        if self.seen[number]:
            return self.complain(f"recorded number {number} twice")
        if number < self.latest:
            self.complain(f"recorded number {number} after {self.latest}")
        self.latest = max(self.latest, number)
        self.seen[number] = 1

    def complain(self, text):
        if len(self.problems) < 20:
            self.problems.append(text)
        else:
            self.problems[19] = "... and more"

    def sent(self):
        return len(self.times) - self.refused

    def has(self, number):
        return number < len(self.seen) and self.seen[number] == 1

    def missing(self, first=0, last=None):
        """Returns the numbers that were sent, had to be recorded and are not."""
        last = len(self.times) if last is None else last
        found = []
        at = first
        while at < last:
            if at < len(self.seen):
                at = self.seen.find(0, at, last)
                if at < 0:
                    at = max(first, len(self.seen))
                    continue
            if at < last and self.times[at] > 0 and not (self.optional and self.optional(at)):
                found.append(at)
            at += 1
        return found

    def numbers(self, begin, end):
        """Returns the range of numbers that were sent from begin to before end."""
        times = self.times
        key = abs
        return bisect.bisect_left(times, begin, key=key), bisect.bisect_left(times, end, key=key)


class Series:
    """Samples of counters that only grow, by stream and name."""

    def __init__(self):
        self.times = []
        self.values = []  # {(stream, counter): value}
        self.lock = threading.Lock()

    def add(self, time, values):
        with self.lock:
            self.times.append(time)
            self.values.append(values)

    def at(self, time, key):
        """Returns the value at the time. A count of events without a partner is one too high while the partner is on
        its way, so the least of two samples is right."""
        with self.lock:
            index = bisect.bisect_right(self.times, time)
            return min((one.get(key, 0) for one in self.values[max(0, index - 2):index]), default=0)


class Span:
    def __init__(self, begin, fault):
        self.begin = begin
        self.end = None
        self.fault = fault  # None for a quiet time
        self.windows = {}  # stream: (begin, end, cause)
        self.expected = []  # (stream, counter) of which the fault must have made at least one
        self.recovered = {}  # stream: the time from which on nothing may be missing any more
        self.notes = {}

    def excuse(self, stream, begin, end, cause):
        self.windows[stream] = (begin, end, cause)

    def name(self):
        return self.fault or "quiet"


def counted(series, key, span):
    return max(0, series.at(span.end, key) - series.at(span.begin, key))


def account(stream, rules, span, series):
    """Returns {cause: messages} of what the span lost of the stream; the cause "unaccounted" is what no rule explains.

    Rules are (cause, (stream, counter), messages for each count).
    """
    missing = stream.missing(*stream.numbers(span.begin, span.end))
    causes = {}
    window = span.windows.get(stream.name)
    if window is not None:
        inside = [number for number in missing if window[0] <= stream.times[number] <= window[1]]
        causes[window[2]] = len(inside)
        if inside and stream.name in span.recovered:
            since = span.recovered[stream.name]
            span.notes[f"{stream.name} back after s"] = round(max(0, stream.times[inside[-1]] - since), 2)
        missing = [number for number in missing if not window[0] <= stream.times[number] <= window[1]]
    explained = 0
    for cause, key, factor in rules:
        amount = counted(series, key, span) * factor
        if window is None and amount:
            causes[cause] = causes.get(cause, 0) + amount
            explained += amount
    if len(missing) != explained:
        causes["unaccounted"] = len(missing) - explained
    return causes
