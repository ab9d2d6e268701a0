"""tervane-rx-gnuradio: GNU Radio's DVB-T receiver on a file of tervane's samples.

It decodes a time-domain output in the std format (complex64, 1x, frequency
mapping 0), possibly passed through tervane-channel, back into a transport
stream, with GNU Radio's DVB-T receiver blocks only: an independent receiver
for interoperability and receiver tests. The parameters take tervane's option
spellings and rules.
"""

import os
import select
import sys
import threading

from .files import Fail, is_input, report, sample_file, start
from .options import answered, first_value, list_option
from .tables import FFT_SIZE, FS, N_CARRIERS, N_DATA, NAMES, TS_PACKET, VERSION

PROG = "tervane-rx-gnuradio"

USAGE = """\
usage: tervane-rx-gnuradio -i IN.bin -o OUT.ts [-m 2k|8k] [-M 4|16|64] [-D GUARD] [-p RATE] [-b SPACING]

Decodes IN.bin (tervane -d t, format std, 1x, mapping 0) with GNU Radio's
DVB-T receiver into the transport stream OUT.ts.

  -m 2k|8k              OFDM mode (default 2k; the receiver has no 4k mode)
  -M 4|16|64            constellation (default 4)
  -D 1/4|1/8|1/16|1/32  guard interval (default 1/32)
  -p 1/2|2/3|3/4|5/6|7/8  code rate (default 1/2)
  -b 5|6|7|8            channel spacing (default 8): only the sample rate, which
                        changes nothing in the decoding of a file
  -h, -V                this help, the version

The other options of tervane are accepted; -a, -f, -I and -F must keep their
defaults (non-hierarchical, mapping 0, 1x, std). Needs Debian's gnuradio package.
"""

LISTS = ["-m", "-M", "-a", "-D", "-p", "-b", "-f", "-I", "-F"]

# Transport packets per block of the Reed-Solomon decoder and the descrambler;
# the outer deinterleaver delivers blocks of the same size (in 12-byte rows).
PACKETS_PER_BLOCK = 8


def parse_options(argv):
    """tervane's spellings and rules (tervane_options)."""
    opts = {name: list_option(argv, name) for name in LISTS}
    for name in ("-i", "-o"):
        opts[name] = first_value(argv, name)
    for name in ("-h", "-V"):
        opts[name] = name in argv
    return opts


def check(opts):
    """The input and output files and what the receiver can decode."""
    if not opts["-i"]:
        raise Fail("no input file given (-i IN.bin; tervane-rx-gnuradio -h for usage)")
    if not opts["-o"]:
        raise Fail("no output file given (-o OUT.ts; tervane-rx-gnuradio -h for usage)")
    refused = {"-m": (1, "GNU Radio's receiver has no 4k mode"),
               "-a": (None, "GNU Radio's receiver decodes non-hierarchical streams only (-a NH)"),
               "-f": (None, "the receiver needs the frequency mapping 0 (centre carrier at DC)"),
               "-I": (None, "the receiver takes 1x samples: transmit without -I"),
               "-F": (None, "the receiver reads the std format only")}
    for name, (bad, text) in refused.items():
        if (bad is not None and opts[name] == bad) or (bad is None and opts[name] != 0):
            raise Fail(f"{name} {NAMES[name][opts[name]]}: {text}")
    sample_file(opts["-i"])
    if is_input(opts["-o"], [opts["-i"]]):
        raise Fail(f"the output \"{opts['-o']}\" is the input: choose another name")


def build(gr, blocks, dtv, fft, window, opts, out_fd):
    """The receiver chain, from the sample file to the descriptor out_fd."""
    mode = opts["-m"]
    fft_len, carriers, data_cells = FFT_SIZE[mode], N_CARRIERS[mode], N_DATA[mode]
    transmission = [dtv.T2k, None, dtv.T8k][mode]
    constellation = [dtv.MOD_QPSK, dtv.MOD_16QAM, dtv.MOD_64QAM][opts["-M"]]
    rate = [dtv.C1_2, dtv.C2_3, dtv.C3_4, dtv.C5_6, dtv.C7_8][opts["-p"]]
    guard = [dtv.GI_1_4, dtv.GI_1_8, dtv.GI_1_16, dtv.GI_1_32][opts["-D"]]
    guard_len = fft_len // [4, 8, 16, 32][opts["-D"]]

    tb = gr.top_block("tervane-rx-gnuradio")
    src = blocks.file_source(gr.sizeof_gr_complex, opts["-i"], False)
    # Time and frequency synchronisation, guard removal: one vector per symbol.
    acquisition = dtv.dvbt_ofdm_sym_acquisition(1, fft_len, carriers, guard_len, 30)
    # Forward FFT with the spectrum shifted so that carrier 0 comes first.
    spectrum = fft.fft_vcc(fft_len, True, window.rectangular(fft_len), True, 1)
    # Frame sync from the TPS, channel estimate from the pilots, data cells out.
    reference = dtv.dvbt_demod_reference_signals(
        gr.sizeof_gr_complex, fft_len, data_cells, constellation, dtv.NH, rate, rate,
        guard, transmission, 0, 0)
    demap = dtv.dvbt_demap(data_cells, constellation, dtv.NH, transmission, 1.0)
    symbol_deint = dtv.dvbt_symbol_inner_interleaver(data_cells, transmission, 0)  # 0: deinterleave
    bit_deint = dtv.dvbt_bit_inner_deinterleaver(data_cells, constellation, dtv.NH, transmission)
    to_stream = blocks.vector_to_stream(gr.sizeof_char, data_cells)
    viterbi = dtv.dvbt_viterbi_decoder(constellation, dtv.NH, rate, 768)
    outer_deint = dtv.dvbt_convolutional_deinterleaver(PACKETS_PER_BLOCK * 204 // 12, 12, 17)
    rs = dtv.dvbt_reed_solomon_dec(2, 8, 0x11D, 255, 239, 8, 51, PACKETS_PER_BLOCK)
    descramble = dtv.dvbt_energy_descramble(PACKETS_PER_BLOCK)
    sink = blocks.file_descriptor_sink(gr.sizeof_char, out_fd)
    tb.connect(src, acquisition, spectrum, reference, demap, symbol_deint, bit_deint,
               to_stream, viterbi, outer_deint, rs, descramble, sink)
    return tb


def decode(tb_of, path):
    """Runs the receiver into a pipe whose other end a thread copies to the file, so
    that a failed write (a full disk) is seen, stops the receiver and is reported,
    instead of ending GNU Radio's writer thread and leaving the flowgraph waiting.
    Returns the bytes written."""
    try:
        out = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o666)
    except OSError as e:
        raise Fail(f"can't create \"{path}\": {e.strerror}") from None
    rfd, wfd = os.pipe()
    tb = tb_of(wfd)
    done, state = threading.Event(), {"bytes": 0, "error": None}

    def copy():
        while True:
            if not select.select([rfd], [], [], 0.1)[0]:
                if done.is_set():
                    return
                continue
            chunk = memoryview(os.read(rfd, 1 << 20))
            if state["error"] is not None:
                continue                                # drain, so that the receiver can stop
            try:
                while chunk:
                    n = os.write(out, chunk)
                    state["bytes"] += n
                    chunk = chunk[n:]
            except OSError as e:
                state["error"] = e
                tb.stop()

    copier = threading.Thread(target=copy)
    copier.start()
    tb.run()        # returns once the file is exhausted and no block can run any more
    done.set()
    copier.join()
    os.close(out)
    os.close(rfd)
    if state["error"] is not None:
        raise Fail(f"writing \"{path}\" failed after {state['bytes']} bytes: {state['error'].strerror}")
    return state["bytes"]


def main(argv):
    start()
    opts = parse_options(argv)
    if answered(PROG, USAGE, opts):
        return 0
    try:
        check(opts)
        try:
            from gnuradio import blocks, dtv, fft, gr
            from gnuradio.fft import window
        except ImportError:
            raise Fail("needs GNU Radio's DVB-T receiver (gnuradio.dtv): apt-get install gnuradio") from None
        gr.logging().set_default_level(gr.log_levels.err)   # no notes on buffer sizes
        size = decode(lambda fd: build(gr, blocks, dtv, fft, window, opts, fd), opts["-o"])
    except (Fail, OSError, RuntimeError, ValueError) as e:
        return report(PROG, e)
    samples = os.path.getsize(opts["-i"]) // 8
    print(f"{PROG} {VERSION}: {NAMES['-m'][opts['-m']]}, {['QPSK', '16-QAM', '64-QAM'][opts['-M']]}, "
          f"guard {NAMES['-D'][opts['-D']]}, code rate {NAMES['-p'][opts['-p']]}, "
          f"{NAMES['-b'][opts['-b']]} MHz channel ({FS[opts['-b']] / 1e6:.6f} MHz samples)")
    print(f"Input: {opts['-i']}, {samples} samples ({samples / FS[opts['-b']]:.6f} s)")
    print(f"Output: {opts['-o']}, {size // TS_PACKET} packets" + (f" and {size % TS_PACKET} bytes" if size % TS_PACKET else ""))
    return 0



if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
