#!/usr/bin/python3
# Independent DVB-T receiver for the interoperability tests, built from GNU
# Radio's DVB-T receiver blocks only: it decodes a file of tervane's "std"
# samples (mapping "0") back into transport stream packets.
#   dvbt_rx.py IN.bin OUT.ts MODE CONSTELLATION RATE GUARD [--hierarchy NH]
# with tervane's spellings of the values. The receiver locks in the first
# superframe and delivers from a later frame boundary; the last hundred or so
# packets never leave its descrambler.

import argparse
import sys

from gnuradio import blocks, dtv, fft, gr
from gnuradio.fft import window

MODES = {"2k": (dtv.T2k, 2048, 1705, 1512), "8k": (dtv.T8k, 8192, 6817, 6048)}
CONSTELLATIONS = {"4": dtv.MOD_QPSK, "16": dtv.MOD_16QAM, "64": dtv.MOD_64QAM}
RATES = {"1/2": dtv.C1_2, "2/3": dtv.C2_3, "3/4": dtv.C3_4, "5/6": dtv.C5_6, "7/8": dtv.C7_8}
GUARDS = {"1/4": (dtv.GI_1_4, 4), "1/8": (dtv.GI_1_8, 8), "1/16": (dtv.GI_1_16, 16), "1/32": (dtv.GI_1_32, 32)}
HIERARCHIES = {"NH": dtv.NH}

# Transport packets per block of the Reed-Solomon decoder and the descrambler;
# the outer deinterleaver delivers blocks of the same size (in 12-byte rows).
PACKETS_PER_BLOCK = 8


def build(args):
    mode, fft_len, carriers, data_cells = MODES[args.mode]
    constellation = CONSTELLATIONS[args.constellation]
    rate = RATES[args.rate]
    guard, guard_div = GUARDS[args.guard]
    hierarchy = HIERARCHIES[args.hierarchy]

    tb = gr.top_block("tervane interop receiver")
    src = blocks.file_source(gr.sizeof_gr_complex, args.input, False)

    # Time and frequency synchronisation, guard removal: one vector per symbol.
    acquisition = dtv.dvbt_ofdm_sym_acquisition(1, fft_len, carriers, fft_len // guard_div, 30)
    # Forward FFT with the spectrum shifted so that carrier 0 comes first.
    spectrum = fft.fft_vcc(fft_len, True, window.rectangular(fft_len), True, 1)
    # Frame sync from the TPS, channel estimate from the pilots, data cells out.
    reference = dtv.dvbt_demod_reference_signals(
        gr.sizeof_gr_complex, fft_len, data_cells, constellation, hierarchy, rate, rate,
        guard, mode, 0, 0)
    demap = dtv.dvbt_demap(data_cells, constellation, hierarchy, mode, 1.0)
    symbol_deint = dtv.dvbt_symbol_inner_interleaver(data_cells, mode, 0)  # 0: deinterleave
    bit_deint = dtv.dvbt_bit_inner_deinterleaver(data_cells, constellation, hierarchy, mode)
    to_stream = blocks.vector_to_stream(gr.sizeof_char, data_cells)
    viterbi = dtv.dvbt_viterbi_decoder(constellation, hierarchy, rate, 768)
    outer_deint = dtv.dvbt_convolutional_deinterleaver(PACKETS_PER_BLOCK * 204 // 12, 12, 17)
    rs = dtv.dvbt_reed_solomon_dec(2, 8, 0x11D, 255, 239, 8, 51, PACKETS_PER_BLOCK)
    descramble = dtv.dvbt_energy_descramble(PACKETS_PER_BLOCK)
    sink = blocks.file_sink(gr.sizeof_char, args.output, False)

    tb.connect(src, acquisition, spectrum, reference, demap, symbol_deint, bit_deint,
               to_stream, viterbi, outer_deint, rs, descramble, sink)
    return tb


def main():
    parser = argparse.ArgumentParser(description="Decode tervane's time-domain samples into a transport stream.")
    parser.add_argument("input", help="complex64 sample file (tervane -d t, format std)")
    parser.add_argument("output", help="decoded transport stream file")
    parser.add_argument("mode", choices=sorted(MODES))
    parser.add_argument("constellation", choices=sorted(CONSTELLATIONS))
    parser.add_argument("rate", choices=sorted(RATES))
    parser.add_argument("guard", choices=sorted(GUARDS))
    parser.add_argument("--hierarchy", default="NH", choices=sorted(HIERARCHIES))
    args = parser.parse_args()

    tb = build(args)
    tb.run()  # returns once the file is exhausted and no block can run any more
    return 0


if __name__ == "__main__":
    sys.exit(main())
