"""Readers of tervane's time-domain outputs in its three formats."""

import math
import os

from .files import Fail
from .options import f32
from .tables import FULL_SCALE, REF_AMPLITUDE


def integer_scale(fmt, mode, gain):
    """Codes per unit of signal of the integer formats, as the transmitter computes it."""
    return FULL_SCALE[fmt] / (gain * REF_AMPLITUDE[mode])


def sample_reader(np, fmt, mode, gain, names):
    """Number of samples and a function giving samples [a, b) as complex values of the
    signal, for the files of format fmt (0 std, 1 agi, 2 agiold)."""
    if fmt == 0:
        if os.path.getsize(names[0]) % 8:
            raise Fail(f"{names[0]} is not a whole number of float32 I/Q samples")
        data = np.memmap(names[0], dtype="<c8", mode="r") if os.path.getsize(names[0]) else np.zeros(0, "c8")
        return len(data), lambda a, b: np.asarray(data[a:b], dtype=np.complex128)
    sf = f32(integer_scale(fmt, mode, gain)) if gain != 0 else math.inf
    if not math.isfinite(sf) or sf == 0:
        raise Fail(f"-g {gain} leaves no signal in the integer samples")
    sizes = [os.path.getsize(n) for n in names]
    if any(s % (4 if fmt == 1 else 2) for s in sizes) or len(set(sizes)) != 1:
        raise Fail(f"{' and '.join(names)}: not whole {'16-bit I/Q pairs' if fmt == 1 else 'and equal 16-bit streams'}")
    if sizes[0] == 0:
        return 0, None
    if fmt == 1:
        iq = np.memmap(names[0], dtype=">i2", mode="r").reshape(-1, 2)
        return len(iq), lambda a, b: (iq[a:b, 0] + 1j * iq[a:b, 1].astype(np.float64)) / sf
    i_codes, q_codes = (np.memmap(n, dtype=">u2", mode="r") for n in names)

    def offset(codes):                  # 14-bit offset code back to a signed value
        return ((codes.astype(np.int64) - 8192 + 32768) % 65536 - 32768).astype(np.float64)
    return len(i_codes), lambda a, b: (offset(i_codes[a:b]) + 1j * offset(q_codes[a:b])) / sf
