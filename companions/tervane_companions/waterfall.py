"""tervane-waterfall: bit error ratio after a receiver against C/N, step by step.

For one transmission it runs tsgen and tervane once, then for every C/N of the
sweep tervane-channel, a receiver (tervane-rx, the project's own, or GNU Radio's,
tervane-rx-gnuradio) and tscheck, in a scratch directory that it removes, and
prints per step C/N, the bit error ratio after the Viterbi decoder (tervane-rx's
exact count against the stream sent) and the bit and packet error ratios after
the whole receiver: the waterfall curve, to compare with the C/N a receiver
needs for quasi-error-free reception.
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile

from . import cntable
from .files import Fail, report
from .options import answered, first_value, list_option
from .tables import BITS, FRAMES_PER_SUPERFRAME, N_DATA, NAMES, RS_PACKET, SYMBOLS_PER_FRAME, VERSION

PROG = "tervane-waterfall"

USAGE = """\
usage: tervane-waterfall [-m MODE] [-M 4|16|64] [-D GUARD] [-p RATE] [-b SPACING]
                         -from DB -to DB [-step DB] [-profile NAME] [-n PACKETS]
                         [-cfo HZ] [-seed N] [-rx pilots|static|gnuradio]
       tervane-waterfall -table [-margins] [-M 4|16|64] [-p RATE] [-profile NAME]
                         [-m MODE] [-rx pilots|static|gnuradio] [-events N] [-jobs N]
                         [-seed N] [-o PICTURE.png]
       tervane-waterfall -hier [-events N] [-jobs N] [-seed N]

Transmits a tsgen test stream with tervane once and, for every C/N from -from
to -to in steps of -step (default 1 dB), passes it through tervane-channel,
decodes it and checks it with tscheck; prints per step the C/N requested and
achieved, the bit error ratio after the Viterbi decoder, the bit and packet
error ratios after the receiver and the bits checked, then the C/N from which
every step was error-free.

  -m, -M, -D, -p, -b  the transmission, with tervane's names (default 2k, 4, 1/32,
                      1/2, 8)
  -rx NAME            the receiver: pilots (default; tervane-rx with its channel
                      estimate from the scattered pilots), static (tervane-rx -est
                      static: a channel fixed over the run, the ideal receiver) or
                      gnuradio (tervane-rx-gnuradio: 2k and 8k only, no count
                      after the Viterbi decoder)
  -profile NAME       gaussian (default), ricean or rayleigh
  -n PACKETS          length of the test stream (default: two superframes and
                      1400 packets, at least 2 000 000 PRBS bits after the receiver)
  -cfo HZ             carrier frequency offset of every step
  -seed N             seed of the noise of the first step (default 1; step k uses N + k)
  -h, -V              this help, the version

-table finds, for each constellation, code rate and channel of the standard's
performance table (Table A.1), the C/N at which the receiver (default -rx
static) reaches BER 2e-4 after the Viterbi decoder: 8k (-m to change), guard
1/4, quarter-dB steps, at least -events error events (default 100) at the two
steps that bracket it, log-BER interpolation; it prints the table beside the
standard's with the differences. -M, -p and -profile narrow it; -o writes the
curves as a picture; -margins adds the same table for tervane-rx with its
pilots and for GNU Radio's receiver (C/N for quasi-error-free packets), each
with its margin over the ideal receiver. -hier measures hierarchical
transmission (16- and 64-QAM, alpha 1, 2 and 4, HP 1/2 and LP 2/3, Gaussian
channel). -jobs sets how many entries run at once (default: the processors).

The programs are taken from the directory of this script, else from the PATH.
"""

LISTS = ["-m", "-M", "-D", "-p", "-b"]
TEXTS = ["-from", "-to", "-step", "-profile", "-n", "-cfo", "-seed", "-rx", "-events", "-jobs", "-o"]
FLAGS = ["-h", "-V", "-table", "-hier", "-margins"]
RECEIVERS = {"pilots": "tervane-rx", "static": "tervane-rx", "gnuradio": "tervane-rx-gnuradio"}
SUMMARY = re.compile(r"^packets=(\d+) sync_losses=(\d+) tei=(\d+) cc_errors=(\d+) "
                     r"prbs_bits=(\d+) bit_errors=(\d+) ber=(\S+) per=(\S+)$", re.M)


def parse_options(argv):
    """tervane's spellings and rules (tervane_options)."""
    opts = {name: list_option(argv, name) for name in LISTS}
    for name in TEXTS:
        opts[name] = first_value(argv, name)
        if opts[name] is None and name in argv:
            raise Fail(f"{name} needs a value")
    for name in FLAGS:
        opts[name] = name in argv
    known = set(LISTS) | set(TEXTS)
    a = 0
    while a < len(argv):
        if argv[a] in known:
            a += 2
        elif argv[a] in FLAGS:
            a += 1
        else:
            raise Fail(f"unknown option \"{argv[a]}\" ({PROG} -h for usage)")
    return opts


def number(opts, name, default=None):
    text = opts[name]
    if text is None:
        if default is None:
            raise Fail(f"no {name} given ({PROG} -h for usage)")
        return default
    try:
        value = float(text)
    except ValueError:
        raise Fail(f"{name} takes a number, not \"{text}\"") from None
    if value != value or value in (float("inf"), float("-inf")):
        raise Fail(f"{name} takes a finite number, not \"{text}\"")
    return value


def programs(receiver):
    """Where each program is: beside this script, else on the PATH."""
    here = os.path.dirname(os.path.realpath(sys.argv[0]))
    found = {}
    for name in ["tsgen", "tervane", "tervane-channel", RECEIVERS[receiver], "tscheck"]:
        path = os.path.join(here, name)
        found[name] = path if os.access(path, os.X_OK) and os.path.isfile(path) else shutil.which(name)
        if found[name] is None:
            raise Fail(f"can't find {name} beside {PROG} or on the PATH")
    return found


def run(cwd, args, ok=(0,)):
    """Runs a program; its output and status. A status not in ok fails (tervane's 2: an incomplete output)."""
    r = subprocess.run(args, cwd=cwd, capture_output=True, text=True)
    if r.returncode not in ok:
        last = (r.stderr.strip() or r.stdout.strip() or "no message").splitlines()[-1]
        raise Fail(f"{os.path.basename(args[0])} failed (status {r.returncode}): {last}")
    return r.stdout, r.returncode


def main(argv):
    try:
        opts = parse_options(argv)
        if answered(PROG, USAGE, opts):
            return 0
        if opts["-table"] or opts["-hier"]:
            return table_mode(argv, opts)
        for name in ("-events", "-jobs", "-o", "-margins"):
            if name in argv:
                raise Fail(f"{name} applies to -table")
        first, last = number(opts, "-from"), number(opts, "-to")
        step = number(opts, "-step", 1.0)
        if step <= 0 or last < first:
            raise Fail("the sweep needs -from <= -to and a positive -step")
        steps = int((last - first) / step + 1e-9) + 1
        profile = opts["-profile"] or "gaussian"
        if profile not in ("gaussian", "ricean", "rayleigh"):
            raise Fail(f"unknown profile \"{profile}\" (gaussian, ricean or rayleigh)")
        mode, bits = opts["-m"], BITS[opts["-M"]]
        receiver = opts["-rx"] or "pilots"
        if receiver not in RECEIVERS:
            raise Fail(f"unknown receiver \"{receiver}\" (pilots, static or gnuradio)")
        if mode == 1 and receiver == "gnuradio":
            raise Fail("-m 4k: GNU Radio's receiver decodes 2k and 8k only")
        rate = [(1, 2), (2, 3), (3, 4), (5, 6), (7, 8)][opts["-p"]]
        # Reed-Solomon packets a superframe carries
        cells = N_DATA[mode] * SYMBOLS_PER_FRAME * FRAMES_PER_SUPERFRAME
        per_superframe = cells * bits * rate[0] // (rate[1] * 8 * RS_PACKET)
        packets = int(number(opts, "-n", 2 * per_superframe + 1400))
        seed = int(number(opts, "-seed", 1))
        exe = programs(receiver)
    except Fail as e:
        return report(PROG, e)

    tx_opts = [v for name in LISTS for v in (name, NAMES[name][opts[name]])]
    # GNU Radio's receiver is told the transmission; ours finds it, given the spacing.
    if receiver == "gnuradio":
        rx_opts = tx_opts
    else:
        rx_opts = ["-b", NAMES["-b"][opts["-b"]], "-ref", "in.ts"] + (["-est", "static"] if receiver == "static" else [])
    ch_opts = ["-m", NAMES["-m"][mode], "-b", NAMES["-b"][opts["-b"]], "-profile", profile]
    if opts["-cfo"] is not None:
        ch_opts += ["-cfo", opts["-cfo"]]
    work = tempfile.mkdtemp(prefix="tervane-waterfall-")
    try:
        run(work, [exe["tsgen"], "-o", "in.ts", "-n", str(packets)])
        run(work, [exe["tervane"], "-i", "in.ts", "-o", "tx", "-d", "t", "-v", "0", "-l", os.devnull] + tx_opts)
        print(f"{PROG} {VERSION}: {NAMES['-m'][mode]}, {['QPSK', '16-QAM', '64-QAM'][opts['-M']]}, "
              f"guard {NAMES['-D'][opts['-D']]}, code rate {NAMES['-p'][opts['-p']]}, {profile} channel"
              + (f", CFO {opts['-cfo']} Hz" if opts["-cfo"] is not None else "") + f", {packets} packets sent, "
              f"receiver {RECEIVERS[receiver]}" + (" -est static" if receiver == "static" else ""))
        print(f"{'C/N dB':>7} {'achieved':>9} {'BER Vit.':>10} {'BER':>10} {'PER':>10} {'bits':>10}", flush=True)
        clean_from = None
        for k in range(steps):
            cn = first + k * step
            out, _ = run(work, [exe["tervane-channel"], "-i", "tx.bin", "-o", "ch.bin", "-cn", f"{cn:.6g}",
                             "-seed", str(seed + k)] + ch_opts)
            achieved = re.search(r"achieved (\S+) dB", out).group(1)
            # tervane-rx: 2 no lock, 3 lock lost: no stream, or part of one, to check.
            rx_out, _ = run(work, [exe[RECEIVERS[receiver]], "-i", "ch.bin", "-o", "rx.ts"] + rx_opts, ok=(0, 2, 3))
            # The exact count against the stream sent; none where no packet of it was
            # decoded (far below the cliff the decoder finds no packet sync).
            viterbi = cntable.RX_LINE.search(rx_out)
            bits = int(viterbi.group(3)) if viterbi else 0
            ber_viterbi = f"{int(viterbi.group(1)) / bits:.2e}" if bits else "-"
            if not os.path.exists(os.path.join(work, "rx.ts")):
                open(os.path.join(work, "rx.ts"), "wb").close()
            checked_text, status = run(work, [exe["tscheck"], "rx.ts"], ok=(0, 1))
            m = SUMMARY.search(checked_text)
            checked, errors = int(m.group(5)), int(m.group(6))
            clean = status == 0
            ber = f"{errors / checked:.2e}" if checked else "no PRBS"
            per = f"{float(m.group(8)):.2e}" if checked else "-"
            print(f"{cn:7.2f} {float(achieved):9.3f} {ber_viterbi:>10} {ber:>10} {per:>10} {checked:10d}", flush=True)
            clean_from = (clean_from if clean_from is not None else cn) if clean else None
        if clean_from is None:
            print("Error-free: at no step up to the last")
        else:
            print(f"Error-free: from {clean_from:.2f} dB on (no bit error, lost packet or sync loss)")
    except (Fail, OSError) as e:
        return report(PROG, e)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    return 0



def table_mode(argv, opts):
    """-table and -hier: the search of cntable over the chosen entries."""
    receiver = opts["-rx"] or "static"
    if receiver not in RECEIVERS:
        raise Fail(f"unknown receiver \"{receiver}\" (pilots, static or gnuradio)")
    for name in ("-from", "-to", "-step", "-n", "-cfo", "-D", "-b"):
        if name in argv:
            raise Fail(f"{name} does not apply to -table (guard 1/4, 8 MHz, the search sets the C/N)")
    mode = opts["-m"] if "-m" in argv else 2
    if mode == 1 and (receiver == "gnuradio" or opts["-margins"]):
        raise Fail("-m 4k: GNU Radio's receiver decodes 2k and 8k only")
    if opts["-hier"] and receiver == "gnuradio":
        raise Fail("-hier: GNU Radio's receiver decodes no hierarchical transmission")
    # -M, -p and -profile, when given, narrow the table.
    ms = [opts["-M"]] if "-M" in argv else [0, 1, 2]
    rates = [opts["-p"]] if "-p" in argv else [0, 1, 2, 3, 4]
    profile = opts["-profile"]
    if profile is not None and profile not in cntable.PROFILES:
        raise Fail(f"unknown profile \"{profile}\" (gaussian, ricean or rayleigh)")
    profiles = [profile] if profile else cntable.PROFILES
    chosen = [(m, r, p) for m in ms for r in rates for p in profiles]
    events = int(number(opts, "-events", 100))
    jobs = int(number(opts, "-jobs", os.cpu_count() or 1))
    if events < 1 or jobs < 1:
        raise Fail("-events and -jobs take a positive number")
    png = opts["-o"]
    if png is not None and not png.endswith(".png"):
        raise Fail(f"-o names the picture, a .png file, not \"{png}\"")
    exe = programs(receiver)
    if opts["-margins"] and (receiver != "static" or opts["-hier"]):
        raise Fail("-margins compares the pilots and GNU Radio receivers with -rx static, in the -table")
    if opts["-margins"]:
        exe.update(programs("gnuradio"))
    return cntable.main_table(exe, opts, chosen, jobs, events, png, opts["-hier"], mode, opts["-margins"])


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
