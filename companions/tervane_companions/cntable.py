"""tervane-waterfall -table: the C/N at which a receiver reaches a bit error ratio
of 2x10^-4 after the Viterbi decoder, for every constellation, code rate and
channel of the standard's performance table, beside the standard's figures.

For each constellation and code rate tervane transmits a tsgen stream once (8k,
guard 1/4); for each channel the search passes it through tervane-channel at
C/N steps of a quarter dB from the standard's figure until two neighbouring
steps bracket 2x10^-4, tops up both with further noise seeds until each holds
at least the asked-for number of error events (the decoder errs in bursts:
tervane-rx -ref counts events, errors less than 64 bits apart being one), and
interpolates log BER linearly between them. The entries run in parallel, one
per processor.
"""

import concurrent.futures
import math
import os
import re
import shutil
import subprocess
import tempfile
import threading

from .files import Fail
from .tables import FRAMES_PER_SUPERFRAME, N_DATA, RS_PACKET, SYMBOLS_PER_FRAME, VERSION

TARGET = 2e-4
STEP = 0.25
MODES = ["2k", "4k", "8k"]
CONSTELLATIONS = ["QPSK", "16-QAM", "64-QAM"]
M_NAMES = ["4", "16", "64"]
RATES = ["1/2", "2/3", "3/4", "5/6", "7/8"]
PROFILES = ["gaussian", "ricean", "rayleigh"]
PROFILE_TITLES = {"gaussian": "Gaussian", "ricean": "Ricean (F1)", "rayleigh": "Rayleigh (P1)"}

# The standard's Table A.1 (EN 300 744 V1.5.1): C/N in dB for BER 2x10^-4 after
# the Viterbi decoder, by constellation, channel and code rate.
STANDARD = {
    "QPSK": {"gaussian": [3.1, 4.9, 5.9, 6.9, 7.7], "ricean": [3.6, 5.7, 6.8, 8.0, 8.7],
             "rayleigh": [5.4, 8.4, 10.7, 13.1, 16.3]},
    "16-QAM": {"gaussian": [8.8, 11.1, 12.5, 13.5, 13.9], "ricean": [9.6, 11.6, 13.0, 14.4, 15.0],
               "rayleigh": [11.2, 14.2, 16.7, 19.3, 22.8]},
    "64-QAM": {"gaussian": [14.4, 16.5, 18.0, 19.3, 20.1], "ricean": [14.7, 17.1, 18.6, 20.0, 21.0],
               "rayleigh": [16.0, 19.3, 21.7, 25.3, 27.9]},
}

# The boosted pilots' and TPS's share of the signal's power, the same in every
# mode: 8k has 6048 data cells, 68 TPS cells at unit power and 701 pilots at
# 16/9 in its 6817 carriers.
PILOT_SHARE_DB = 10 * math.log10((6048 + 68 + 701 * 16 / 9) / 6817)

RX_LINE = re.compile(r"against the stream sent: \S+ \((\d+) errors in (\d+) error events, (\d+) bits")
TSCHECK_LINE = re.compile(r"^packets=(\d+) sync_losses=(\d+) tei=\d+ cc_errors=(\d+) .*per=(\S+)$", re.M)


class Entry:
    """One entry of the table: its transmission, channel and the points measured."""

    def __init__(self, m, rate, profile, stream="", rate_lp=None, alpha=0):
        self.m, self.rate, self.profile = m, rate, profile
        self.stream, self.rate_lp, self.alpha = stream, rate_lp, alpha
        # C/N -> [errors, bits, events, passes] (for GNU Radio [packets in error, packets, faulty runs, passes])
        self.points = {}
        self.result = None  # the C/N of the crossing, or None
        self.note = ""

    def tx_key(self):
        return (self.m, self.rate, self.rate_lp, self.alpha)


def packets_for(m, rate, bits, mode, alpha=0):
    """Packets that give about the given number of coded bits after the Viterbi decoder
    (the HP stream's, for a hierarchical transmission; the LP stream is sent three
    times as many), at least two superframes."""
    num, den = map(int, RATES[rate].split("/"))
    bits_per_cell = [2, 4, 6][m] if alpha == 0 else 2
    per_superframe = N_DATA[mode] * SYMBOLS_PER_FRAME * FRAMES_PER_SUPERFRAME * bits_per_cell * num // (den * 8 * RS_PACKET)
    per_bit = RS_PACKET * 8  # coded bits per packet after the decoder (204 bytes)
    return max(2 * per_superframe, int(bits / per_bit) + 1)


class Table:
    """The search over the entries with one receiver."""

    def __init__(self, exe, receiver, events, max_passes, bits, work, seed, mode, tx):
        self.exe, self.receiver, self.events, self.max_passes, self.mode = exe, receiver, events, max_passes, mode
        self.bits, self.work, self.seed = bits, work, seed
        # The signals transmitted so far and their lock, shared by the tables of one run.
        self.tx_done, self.tx_lock = tx

    def run(self, args, ok=(0,)):
        r = subprocess.run(args, cwd=self.work, capture_output=True, text=True)
        if r.returncode not in ok:
            last = (r.stderr.strip() or r.stdout.strip() or "no message").splitlines()[-1]
            raise Fail(f"{os.path.basename(args[0])} failed (status {r.returncode}): {last}")
        return r.stdout

    def transmit(self, entry):
        """The transmission's signal file (made once, whichever entry asks first)."""
        key = entry.tx_key()
        with self.tx_lock:
            if key not in self.tx_done:
                self.tx_done[key] = (threading.Lock(), None)
            lock = self.tx_done[key][0]
        with lock:
            name = self.tx_done[key][1]
            if name is None:
                stem = "tx_" + "_".join(str(k) for k in key)
                n = packets_for(entry.m, entry.rate, self.bits, self.mode, entry.alpha)
                opts = ["-m", MODES[self.mode], "-D", "1/4", "-M", M_NAMES[entry.m], "-v", "0", "-l", os.devnull, "-d", "t"]
                if entry.alpha:
                    opts += ["-a", str(entry.alpha), "-php", RATES[entry.rate], "-plp", RATES[entry.rate_lp],
                             "-ihp", stem + "_hp.ts", "-ilp", stem + "_lp.ts", "-o", stem]
                    self.run([self.exe["tsgen"], "-o", stem + "_hp.ts", "-n", str(n)])
                    self.run([self.exe["tsgen"], "-o", stem + "_lp.ts", "-n", str(3 * n)])
                else:
                    opts += ["-p", RATES[entry.rate], "-i", stem + ".ts", "-o", stem]
                    self.run([self.exe["tsgen"], "-o", stem + ".ts", "-n", str(n)])
                self.run([self.exe["tervane"]] + opts, ok=(0,))
                name = stem
                self.tx_done[key] = (lock, name)
        return name

    def measure(self, entry, cn, seed):
        """One pass at the given C/N: [errors, bits, events] after the Viterbi decoder
        (for GNU Radio's receiver [packets in error, packets, 0] after its whole chain)."""
        stem = self.transmit(entry)
        tag = f"{stem}_{entry.profile}_{threading.get_ident()}"
        ch, out = tag + ".bin", tag + ".ts"
        try:
            self.run([self.exe["tervane-channel"], "-i", stem + ".bin", "-o", ch, "-m", MODES[self.mode], "-profile",
                      entry.profile, "-cn", f"{cn:.4f}", "-seed", str(seed)])
            if self.receiver == "gnuradio":
                self.run([self.exe["tervane-rx-gnuradio"], "-i", ch, "-o", out, "-m", MODES[self.mode], "-D", "1/4", "-M",
                          M_NAMES[entry.m], "-p", RATES[entry.rate]])
                if not os.path.exists(os.path.join(self.work, out)):
                    return [0, 0, 1]  # no lock: nothing decoded
                m = TSCHECK_LINE.search(self.run([self.exe["tscheck"], out], ok=(0, 1)))
                if m is None:
                    return [0, 0, 1]
                # The packets it delivered (it drops those before its lock and
                # those still in its pipeline at the end: it delivers about half of a
                # short stream), and those in error. A run that lost sync or packets
                # on the way, or delivered less than a third of the stream (its lock
                # found late or lost), is faulty however clean its packets.
                packets, sync_losses, cc_errors = int(m.group(1)), int(m.group(2)), int(m.group(3))
                sent = packets_for(entry.m, entry.rate, self.bits, self.mode, entry.alpha)
                faulty = sync_losses > 0 or cc_errors > 0 or 3 * packets < sent
                return [round(float(m.group(4)) * packets), packets, int(faulty)]
            ref = stem + ("_lp.ts" if entry.stream == "LP" else "_hp.ts" if entry.stream == "HP" else ".ts")
            args = [self.exe["tervane-rx"], "-i", ch, "-o", out, "-b", "8", ("-reflp" if entry.stream == "LP"
                                                                            else "-ref"), ref]
            if entry.stream == "LP":
                args += ["-olp", tag + "_lp.ts"]
            if self.receiver == "static":
                args += ["-est", "static"]
            text = self.run(args, ok=(0, 2, 3))
            m = RX_LINE.search(text)
            if m is None:
                return [1, 1, 0]  # no lock: nothing decoded
            return [int(m.group(1)), int(m.group(3)), int(m.group(2))]
        finally:
            for name in (ch, out, tag + "_lp.ts"):
                if os.path.exists(os.path.join(self.work, name)):
                    os.remove(os.path.join(self.work, name))

    def point(self, entry, cn, passes=1):
        """Measures the C/N until it has the given number of passes."""
        key = round(cn * 4)
        have = entry.points.setdefault(cn, [0, 0, 0, 0])
        while have[3] < passes:
            seed = self.seed + 7919 * (key + 1000) + 104729 * have[3]
            e, b, ev = self.measure(entry, cn, seed)
            have[0] += e
            have[1] += b
            have[2] += ev
            have[3] += 1
        return have

    def search_qef(self, entry, start):
        """GNU Radio's receiver: the lowest step from which no packet was lost or in
        error (quasi-error-free over the run), the step below it showing errors:
        whole dB steps to the bracket, then quarter steps within it. entry.note
        gets the packet error ratio of the step below."""
        bad = lambda c: self.point(entry, c)[0] > 0 or self.point(entry, c)[2] > 0
        cn = float(round(start))
        for _ in range(60):
            if bad(cn):
                cn += 1
            elif not bad(cn - 1):
                cn -= 1
            else:
                break
        else:
            entry.note = "no quasi-error-free step found"
            return None
        for k in (3, 2, 1):
            if not bad(cn - k * STEP):
                cn -= k * STEP
                break
        p = entry.points[cn - STEP] if (cn - STEP) in entry.points else self.point(entry, cn - STEP)
        below = f"PER {p[0] / p[1]:.1e}" if p[0] else f"{p[1]} packets, lock late or lost"
        entry.note = f"{below} at {cn - STEP:.2f} dB, 0 in {entry.points[cn][1]} packets at {cn:.2f}"
        return cn

    def search(self, entry, start):
        """The C/N of the crossing of TARGET, by the rules in the module's text."""
        if self.receiver == "gnuradio":
            return self.search_qef(entry, start)
        ber = lambda c: (lambda p: p[0] / p[1] if p[1] else 1.0)(self.point(entry, c))
        # Whole dB steps from the start to the bracket, then quarter steps within it.
        cn = float(round(start))
        above = ber(cn) >= TARGET
        for _ in range(60):
            nxt = cn + 1 if above else cn - 1
            if (ber(nxt) >= TARGET) != above:
                lo = cn if above else nxt
                break
            cn = nxt
        else:
            entry.note = "no crossing found"
            return None
        hi = lo + 1
        for k in (1, 2, 3):
            if ber(lo + k * STEP) < TARGET:
                hi = lo + k * STEP
                break
        lo = hi - STEP
        # Both sides with enough events; a side that falls on the other side of
        # TARGET with them moves the bracket by a step.
        for _ in range(8):
            for c in (lo, hi):
                p = self.point(entry, c)
                while p[2] < self.events and p[3] < self.max_passes:
                    p = self.point(entry, c, p[3] + 1)
            b_lo, b_hi = ber(lo), ber(hi)
            if b_lo < TARGET:
                lo, hi = lo - STEP, lo
            elif b_hi >= TARGET:
                lo, hi = hi, hi + STEP
            else:
                break
        else:
            entry.note = "no stable bracket"
            return None
        if entry.points[hi][2] < self.events:
            entry.note = f"{entry.points[hi][2]} events above"
        if b_hi == 0:
            entry.note = "no error above: the crossing is taken at the upper step"
            return hi
        f = (math.log(TARGET) - math.log(b_lo)) / (math.log(b_hi) - math.log(b_lo))
        return lo + f * (hi - lo)


def standard_for(entry):
    """The standard's figure for the entry's stream: a hierarchical stream is
    compared with the non-hierarchical point of its own constellation and rate."""
    if entry.stream == "HP":
        return STANDARD["QPSK"][entry.profile][entry.rate]
    if entry.stream == "LP":
        return STANDARD[CONSTELLATIONS[entry.m - 1]][entry.profile][entry.rate_lp]
    return STANDARD[CONSTELLATIONS[entry.m]][entry.profile][entry.rate]


def run_entries(table, entries, jobs, progress):
    def one(entry):
        start = standard_for(entry) + (3.0 if table.receiver == "gnuradio" else 0.0)
        entry.result = table.search(entry, start)
        progress(entry)
        return entry

    with concurrent.futures.ThreadPoolExecutor(max_workers=jobs) as pool:
        for f in concurrent.futures.as_completed([pool.submit(one, e) for e in entries]):
            f.result()


def fmt(x):
    return "-" if x is None else f"{x:5.2f}"


def name_of(e):
    if e.alpha:
        return f"{CONSTELLATIONS[e.m]} alpha {e.alpha} {e.stream} {RATES[e.rate if e.stream == 'HP' else e.rate_lp]}"
    return f"{CONSTELLATIONS[e.m]} {RATES[e.rate]} {PROFILE_TITLES[e.profile]}"


def rows(entries, cell):
    """The table's rows: constellation and rate, then cell(entry) per channel."""
    by = {(e.m, e.rate, e.profile): e for e in entries}
    print(f"{'':8} {'rate':4}" + "".join(f" | {PROFILE_TITLES[p]:^24}" for p in PROFILES))
    for m in range(3):
        for r in range(5):
            if any((m, r, p) in by for p in PROFILES):
                print(f"{CONSTELLATIONS[m]:8} {RATES[r]:4}" +
                      "".join(f" | {cell(by[(m, r, p)]) if (m, r, p) in by else '':>24}" for p in PROFILES))


def print_table(entries):
    """The measured table beside the standard's; returns the largest difference."""
    print("Measured against the standard (dB): measured, standard, difference")

    def cell(e):
        std = STANDARD[CONSTELLATIONS[e.m]][e.profile][e.rate]
        d = "-" if e.result is None else f"{e.result - std:+5.2f}"
        return f"{fmt(e.result)}  {std:5.1f}  {d:>5}"

    rows(entries, cell)
    for e in entries:
        if e.note:
            print(f"note: {name_of(e)}: {e.note}")
    diffs = [(e.result - STANDARD[CONSTELLATIONS[e.m]][e.profile][e.rate], e) for e in entries if e.result is not None]
    if diffs:
        d, e = max(diffs, key=lambda x: abs(x[0]))
        print(f"Largest difference: {d:+.2f} dB ({name_of(e)})")
    print(f"C is the whole signal's power at the receiver input: the boosted pilots and the TPS carry "
          f"{PILOT_SHARE_DB:.2f} dB of it, so counted over the data cells alone every figure is that much lower.")


def print_margins(ideal, other, receiver):
    """Each entry's C/N with another receiver and its excess over the ideal one."""
    title = ("tervane-rx with its channel estimate from the scattered pilots: C/N for BER 2e-4 after the Viterbi "
             "decoder (dB), and its margin over -est static" if receiver == "pilots" else
             "GNU Radio's receiver: C/N from which its output was quasi-error-free (no packet in error over the run; "
             "dB), and its margin over tervane-rx -est static")
    print(title)
    base = {(e.m, e.rate, e.profile): e.result for e in ideal}

    def cell(e):
        b = base.get((e.m, e.rate, e.profile))
        d = "-" if e.result is None or b is None else f"{e.result - b:+5.2f}"
        return f"{fmt(e.result)}  ({d})"

    rows(other, cell)
    for e in other:
        if e.note:
            print(f"note: {name_of(e)}: {e.note}")


def picture(entries, name):
    """BER after the Viterbi decoder against C/N, one panel per channel, the
    standard's points marked."""
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    fig, axes = plt.subplots(1, 3, figsize=(15, 5.5), sharey=True)
    colours = plt.rcParams["axes.prop_cycle"].by_key()["color"]
    for ax, p in zip(axes, PROFILES):
        for e in sorted((e for e in entries if e.profile == p), key=lambda e: (e.m, e.rate)):
            pts = sorted((c, v[0] / v[1]) for c, v in e.points.items() if v[1] and v[0])
            colour = colours[e.rate % len(colours)]
            style = ["-", "--", ":"][e.m]
            if pts:
                ax.semilogy([c for c, _ in pts], [b for _, b in pts], style, color=colour, marker=".",
                            label=f"{CONSTELLATIONS[e.m]} {RATES[e.rate]}")
            ax.semilogy([STANDARD[CONSTELLATIONS[e.m]][p][e.rate]], [TARGET], "x", color=colour, markersize=9)
        ax.axhline(TARGET, color="grey", linewidth=0.5)
        ax.set_title(PROFILE_TITLES[p])
        ax.set_xlabel("C/N (dB)")
        ax.grid(True, which="both", linewidth=0.3)
        ax.set_ylim(1e-6, 1e-1)
    axes[0].set_ylabel("BER after the Viterbi decoder")
    axes[0].legend(fontsize=7, ncol=3, loc="lower left")
    fig.suptitle("tervane-rx -est static, 8k, guard 1/4 (lines; QPSK solid, 16-QAM dashed, 64-QAM dotted) "
                 "against EN 300 744 Table A.1 (x at 2e-4)")
    fig.tight_layout()
    fig.savefig(name, dpi=72)
    plt.close(fig)


def print_hier(entries):
    print("Hierarchical, Gaussian channel, HP 1/2, LP 2/3 (dB), beside the standard's non-hierarchical point of "
          "each stream's constellation and rate:")
    print(f"{'':8} {'alpha':5} {'stream':6} {'measured':>8} {'reference':>22} {'diff':>6}")
    for e in sorted(entries, key=lambda e: (e.m, e.alpha, e.stream)):
        ref = standard_for(e)
        ref_name = f"QPSK {RATES[e.rate]}" if e.stream == "HP" else f"{CONSTELLATIONS[e.m - 1]} {RATES[e.rate_lp]}"
        d = "-" if e.result is None else f"{e.result - ref:+6.2f}"
        print(f"{CONSTELLATIONS[e.m]:8} {e.alpha:5} {e.stream:6} {fmt(e.result):>8} {ref_name + f' {ref:.1f}':>22} "
              f"{d:>6}")
    for e in entries:
        if e.note:
            print(f"note: {name_of(e)}: {e.note}")


RECEIVER_NAMES = {"static": "tervane-rx -est static", "pilots": "tervane-rx",
                  "gnuradio": "tervane-rx-gnuradio (C/N for quasi-error-free packets)"}


def main_table(exe, opts, chosen, jobs, events, png, hier, mode, margins):
    """Runs the search for the chosen entries and prints the tables; returns the exit status."""
    receiver = opts["-rx"] or "static"
    work = tempfile.mkdtemp(prefix="tervane-waterfall-")
    tx = ({}, threading.Lock())
    seed = int(opts["-seed"] or 1)
    # 4 million coded bits per pass (about 0.2 s of signal in 64-QAM 7/8, 0.8 s in QPSK 1/2).
    table = Table(exe, receiver, events, 12, 4e6, work, seed, mode, tx)
    try:
        if hier:
            entries = [Entry(m, 0, "gaussian", stream, rate_lp=1, alpha=a)
                       for m in (1, 2) for a in (1, 2, 4) for stream in ("HP", "LP")]
        else:
            entries = [Entry(m, r, p) for m, r, p in chosen]
        print(f"tervane-waterfall {VERSION}: C/N (dB) for BER 2e-4 after the Viterbi decoder, {MODES[mode]}, "
              f"guard 1/4, receiver {RECEIVER_NAMES[receiver]}, at least {events} error events at the steps that "
              f"bracket it", flush=True)

        def progress(e):
            done = "no crossing" if e.result is None else f"{e.result:.2f} dB"
            print(f"  {name_of(e)}: {done} ({len(e.points)} steps)", flush=True)

        run_entries(table, entries, jobs, progress)
        if hier:
            print_hier(entries)
            return 0
        print_table(entries)
        if png:
            # The curves a dB either side of each crossing, one pass a step.
            def widen(e):
                for k in range(-4, 5):
                    table.point(e, round(e.result / STEP) * STEP + k * STEP)

            with concurrent.futures.ThreadPoolExecutor(max_workers=jobs) as pool:
                for f in [pool.submit(widen, e) for e in entries if e.result is not None]:
                    f.result()
            picture(entries, png)
            print(f"Picture: {png}")
        for other in (("pilots", "gnuradio") if margins else ()):
            print(f"Margins: receiver {RECEIVER_NAMES[other]}", flush=True)
            others = [Entry(e.m, e.rate, e.profile) for e in entries]
            run_entries(Table(exe, other, events, 12, 4e6, work, seed, mode, tx), others, jobs, progress)
            print_margins(entries, others, other)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    return 0
