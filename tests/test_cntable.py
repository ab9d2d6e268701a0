#!/usr/bin/python3
"""The performance table's searches on curves known in advance: each pass samples the
curve instead of running the chain, so the C/N each search finds can be checked exactly
(log BER straight in C/N: the log interpolation must land on the crossing) or within the
statistics of seeded noise, and GNU Radio's quasi-error-free step against where the
errors and the faulty runs stop.
"""

import math
import random
import unittest

from tervane_companions import cntable


class Curve(cntable.Table):
    """A table whose passes sample log10 BER = log10 2e-4 - (C/N - crossing): 10^6 bits a
    pass, errors in events of 5 bits, exact or drawn (seeded by the pass's own seed)."""

    def __init__(self, crossing, noisy=False, receiver="static", clean=None, qef=None):
        super().__init__({}, receiver, 100, 12, 10**6, None, 1, 2, ({}, None))
        self.crossing, self.noisy, self.clean, self.qef = crossing, noisy, clean, qef
        self.cliff = math.inf  # no error from there on

    def measure(self, entry, cn, seed):
        if self.receiver == "gnuradio":  # [packets in error, packets, faulty runs]
            return [7 if cn < self.clean else 0, 1000, 1 if self.clean <= cn < self.qef else 0]
        mean = cntable.TARGET * 10 ** (self.crossing - cn) * 10**6 / 5 if cn < self.cliff else 0
        events = max(0, round(random.Random(seed).gauss(mean, math.sqrt(mean)))) if self.noisy else mean
        return [5 * events, 10**6, events]


def entry():
    return cntable.Entry(2, 1, "gaussian")


class Search(unittest.TestCase):
    def test_exact_curve_lands_on_its_crossing_with_both_steps_topped_up(self):
        for crossing in (15.30, 3.1, 19.999, 7.51):
            t, e = Curve(crossing), entry()
            self.assertAlmostEqual(t.search(e, 16.0), crossing, places=9)
            lo = math.floor(crossing / cntable.STEP) * cntable.STEP
            for step in (lo, lo + cntable.STEP):  # 40 events a pass at 2e-4: three passes or more
                self.assertGreaterEqual(e.points[step][2], 100, (crossing, step))
            self.assertEqual(e.note, "")
        t, e = Curve(15.3), entry()
        t.cliff = 15.4
        self.assertEqual(t.search(e, 16.0), 15.5)
        self.assertEqual(e.note, "no error above: the crossing is taken at the upper step")

    def test_noisy_curve_is_found_within_its_statistics(self):
        # Crossings just beside a step: its first pass may put it on the wrong side, and
        # the bracket must move once the events are in (down at 3.5 and 15.01, up at
        # 3.05 and 4.02 with these seeds).
        for crossing in (3.05, 3.5, 4.02, 12.74, 15.01, 15.26):
            e = entry()
            got = Curve(crossing, noisy=True).search(e, crossing - 0.6)
            self.assertIsNotNone(got, (crossing, e.note))
            self.assertLess(abs(got - crossing), 0.08, crossing)
            # Between two steps a quarter dB apart that bracket 2e-4, each with 100
            # events or more, by log BER.
            lo = math.floor(got / cntable.STEP) * cntable.STEP
            (e_lo, b_lo, ev_lo, _), (e_hi, b_hi, ev_hi, _) = e.points[lo], e.points[lo + cntable.STEP]
            self.assertGreaterEqual(min(ev_lo, ev_hi), 100, crossing)
            f = math.log(cntable.TARGET * b_lo / e_lo) / math.log(e_hi * b_lo / (b_hi * e_lo))
            self.assertAlmostEqual(got, lo + cntable.STEP * f, places=9, msg=crossing)

    def test_gnuradio_needs_a_step_without_errors_and_without_a_faulty_run(self):
        t, e = Curve(0, receiver="gnuradio", clean=20.0, qef=20.0), entry()
        self.assertEqual(t.search(e, 22.3), 20.0)
        self.assertEqual(e.note, "PER 7.0e-03 at 19.75 dB, 0 in 1000 packets at 20.00")
        # Clean packets from 18.5, but its lock late or lost below 20: not quasi-error-free.
        t, e = Curve(0, receiver="gnuradio", clean=18.5, qef=20.0), entry()
        self.assertEqual(t.search(e, 17.0), 20.0)
        self.assertEqual(e.note, "1000 packets, lock late or lost at 19.75 dB, 0 in 1000 packets at 20.00")


if __name__ == "__main__":
    unittest.main()
