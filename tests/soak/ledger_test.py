#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The bookkeeping of the long run finds what is missing, doubled and without a cause."""
import unittest

import ledger
import traffic


class LedgerTest(unittest.TestCase):
    def setUp(self):
        self.stream = ledger.Stream("a")
        self.series = ledger.Series()
        self.series.add(0, {})
        self.span = ledger.Span(100, "fault")
        self.span.end = 200
        for number in range(300):
            self.stream.note_sent(number)

    def record(self, without=()):
        for number in range(300):
            if number not in without:
                self.stream.note_recorded(number)

    def account(self):
        rules = [("kernel", ("a", "kernel"), 1), ("queue", ("a", "queue"), 0.5)]
        return ledger.account(self.stream, rules, self.span, self.series)

    def test_what_is_recorded_needs_no_cause(self):
        self.record()
        self.assertEqual(self.account(), {})
        self.assertEqual(self.stream.problems, [])

    def test_what_is_missing_without_a_cause_is_unaccounted(self):
        self.record(without=(100, 150, 199))
        self.assertEqual(self.account(), {"unaccounted": 3})

    def test_what_is_missing_in_another_span_is_not_of_this_one(self):
        self.record(without=(99, 200))
        self.assertEqual(self.account(), {})

    def test_counters_account_for_as_many_as_they_grew_in_the_span(self):
        self.record(without=(110, 120, 130))
        for moment, kernel, queue in ((90, 5, 4), (95, 5, 4), (150, 7, 6), (155, 7, 6), (250, 9, 9)):
            self.series.add(moment, {("a", "kernel"): kernel, ("a", "queue"): queue})
        self.assertEqual(self.account(), {"kernel": 2, "queue": 1})

    def test_counters_that_grew_without_a_loss_are_unaccounted(self):
        self.record()
        for moment in (150, 151):
            self.series.add(moment, {("a", "kernel"): 2})
        self.assertEqual(self.account(), {"kernel": 2, "unaccounted": -2})

    def test_a_window_excuses_only_what_was_sent_in_it(self):
        self.record(without=(110, 120, 130))
        self.span.excuse("a", 105, 125, "away")
        self.assertEqual(self.account(), {"away": 2, "unaccounted": 1})

    def test_what_the_sender_could_not_send_is_not_missing(self):
        self.stream.note_refused(120)
        self.record(without=(120,))
        self.assertEqual((self.account(), self.stream.sent()), ({}, 299))

    def test_the_end_of_a_stream_can_be_missing(self):
        self.record(without=range(195, 300))
        self.assertEqual(self.account(), {"unaccounted": 5})

    def test_doubled_late_and_unknown_messages_are_told(self):
        for number in (0, 1, 1, 3, 2, 300):
            self.stream.note_recorded(number)
        self.assertEqual(self.stream.problems, ["recorded number 1 twice", "recorded number 2 after 3",
                                                "recorded number 300, which was never sent"])


class MessageTest(unittest.TestCase):
    def test_numbers_come_back(self):
        for number in (0, 77, 1 << 40):
            self.assertTrue(traffic.is_whole(traffic.klv(number)))
            self.assertEqual(traffic.number_of(traffic.klv(number, b"x" * 100)), number)

    def test_damaged_messages_are_not_taken_for_others(self):
        choose = traffic.chooser(1, "damage")
        for number in range(500):
            data = traffic.damage(traffic.klv(traffic.DAMAGED | number), choose)
            self.assertFalse(traffic.is_whole(data) and traffic.number_of(data) < traffic.DAMAGED)

    def test_times_of_pairs_are_numbers(self):
        start = int(traffic.PAIR_EPOCH.timestamp() * 1000000)
        self.assertEqual([traffic.pair_of(start + 50000 * number) for number in (0, 9)], [0, 9])
        self.assertEqual(traffic.pair_of(start + 1), -1)


if __name__ == "__main__":
    unittest.main()
