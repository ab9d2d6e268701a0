"""tervane-view: metadata, pictures and measurements for the files of a tervane run.

Run it with the command line of a finished tervane run (the program name
replaced): it finds the run's time-domain output and its mapper and pre-IFFT
dumps, writes a SigMF metadata file beside each time-domain file, draws the
spectrum, the constellation, the carrier map and the CCDF as PNG files, and
prints a short measurement summary ending with the modulation error ratio.
"""

import hashlib
import json
import math
import os
import sys

from .files import Fail, is_input, report, write_file
from .options import answered, c_int, c_real, f32, first_value, list_option, stem_of
from .samples import integer_scale, sample_reader
from .tables import (CPILOT, DEFAULTS, FFT_SIZE, FILTER_DELAY, FS, GUARD_DIV, INTERP, KINDS, N_CARRIERS, N_CPILOT,
                     N_TPS, NAMES, SYMBOLS_PER_FRAME, TPS, VERSION)

PROG = "tervane-view"

USAGE = """\
usage: tervane-view [tervane's options] [-fc HZ]

Give the options of a finished tervane run (the same command line with
tervane-view in front). The view uses -o, -d, -m, -M, -a, -D, -b, -f, -I, -F
and -g to find and read the run's files; -p, -php, -plp, -cid, -c and -idi go
into the metadata; the other options of tervane are accepted and ignored.

  -fc HZ   centre frequency of the recording, written to the SigMF capture
  -h       this help
  -V       version

For the output basename OUT it writes OUT.sigmf-meta (OUT_agi.sigmf-meta,
OUT_I.sigmf-meta and OUT_Q.sigmf-meta for the integer formats), OUT_psd.png,
OUT_constellation.png, OUT_carriers.png and OUT_ccdf.png, and prints the
sample rate, duration, symbols, occupied bandwidth, in-band ripple, shoulder
attenuation, PAPR, pilot/data amplitude and MER.
"""

# tervane's options by kind, with their defaults; -fc is the view's own.
STRINGS = [name for name, kind in KINDS.items() if kind == "text"]
INTS = {name: DEFAULTS[name] for name, kind in KINDS.items() if kind == "int"}
REALS = {"-g": DEFAULTS["-g"], "-fc": None}
FLAGS = [name for name, kind in KINDS.items() if kind == "flag"]

# ---------------------------------------------------------------- options

def parse_options(argv):
    """tervane's rules: a name followed by a separate value, matched exactly; for a list
    the last valid value wins, for a number or a text the first occurrence with a value."""
    opts = {name: list_option(argv, name) for name in NAMES}
    for name in STRINGS + list(INTS) + list(REALS):
        v = first_value(argv, name)
        opts[name] = INTS.get(name, REALS.get(name)) if v is None else c_int(v) if name in INTS \
            else f32(c_real(v)) if name == "-g" else c_real(v) if name in REALS else v
    for name in FLAGS:
        opts[name] = name in argv
    if opts["-a"] != 0 and opts["-M"] == 0:
        opts["-M"] = 1                  # hierarchical QPSK runs as 16-QAM
    if opts["-m"] == 2:
        opts["-idi"] = False            # no in-depth interleaving in 8k
    return opts




def describe(opts):
    """Every transmission parameter of the run, in words."""
    hier = opts["-a"] != 0
    rates = (f"code rate HP {NAMES['-p'][opts['-php']]}, LP {NAMES['-p'][opts['-plp']]}" if hier
             else f"code rate {NAMES['-p'][opts['-p']]}")
    cid = "not set" if opts["-cid"] < 0 else f"0x{opts['-cid'] & 0xFFFF:04x}"
    mapping = {0: "0 (centre carrier at DC)", 1: "BB (centre carrier at half the sample rate)",
               2: "INV (spectrum inverted)"}[opts["-f"]]
    return (f"DVB-T (ETSI EN 300 744) baseband signal from tervane {VERSION}: mode {NAMES['-m'][opts['-m']]}, "
            f"{['QPSK', '16-QAM', '64-QAM'][opts['-M']]}, hierarchy {NAMES['-a'][opts['-a']]}, "
            f"guard interval {NAMES['-D'][opts['-D']]}, {rates}, channel {NAMES['-b'][opts['-b']]} MHz, "
            f"cell id {cid}, in-depth interleaving {'yes' if opts['-idi'] else 'no'}, "
            f"outer interleaver start {NAMES['-c'][opts['-c']]}, frequency mapping {mapping}, "
            f"interpolation {NAMES['-I'][opts['-I']]}, format {NAMES['-F'][opts['-F']]}, "
            f"gain {opts['-g']:.4f}")


# ---------------------------------------------------------------- files

def find_files(opts):
    """The run's time-domain files (by format) and dumps that exist; with -d only its letters."""
    stem = stem_of(opts["-o"])
    letters = opts["-d"]
    wanted = (lambda c: True) if letters is None else (lambda c: c in letters)
    fmt = opts["-F"]
    td = [[stem + ".bin"], [stem + "_agi.bin"], [stem + "_I.bin", stem + "_Q.bin"]][fmt]
    files = {"stem": stem, "td": None, "ma": None, "fd": None}
    if wanted("t") and all(os.path.isfile(f) for f in td):
        files["td"] = td
    for key, suffix, letter in (("ma", "_ma.bin", "m"), ("fd", "_fd.bin", "f")):
        if wanted(letter) and os.path.isfile(stem + suffix):
            files[key] = stem + suffix
    if not any(files[k] for k in ("td", "ma", "fd")):
        raise Fail(f"found none of {', '.join(td)}, {stem}_ma.bin, {stem}_fd.bin "
                   "(run tervane with -d t, m or f and the same -o first)")
    return files


def write_sigmf(opts, names, rate):
    """One SigMF metadata file beside each time-domain data file; returns their names."""
    fmt = opts["-F"]
    written = []
    for n, name in enumerate(names):
        meta_name = name[:-4] + ".sigmf-meta" if name.endswith(".bin") else name + ".sigmf-meta"
        sha = hashlib.sha512()
        with open(name, "rb") as f:
            for chunk in iter(lambda: f.read(1 << 20), b""):
                sha.update(chunk)
        desc = describe(opts)
        if fmt == 1:
            desc += (f"; signed 16-bit big-endian I/Q, code = trunc(sample x "
                     f"{integer_scale(1, opts['-m'], opts['-g']):.3f})")
        elif fmt == 2:
            other = names[1 - n]
            desc += (f"; {'I' if n == 0 else 'Q'} component only ({'Q' if n == 0 else 'I'} in "
                     f"{os.path.basename(other)}), 14-bit offset codes in big-endian 16-bit words, "
                     f"8192 = 0, code = trunc(sample x {integer_scale(2, opts['-m'], opts['-g']):.3f}) + 8192")
        capture = {"core:sample_start": 0}
        if opts["-fc"] is not None:
            if not math.isfinite(opts["-fc"]):
                raise Fail(f"-fc {opts['-fc']}: the centre frequency must be a finite number of Hz")
            capture["core:frequency"] = opts["-fc"]
        meta = {
            "global": {
                "core:datatype": ["cf32_le", "ci16_be", "ru16_be"][fmt],
                "core:version": "1.2.0",
                "core:sample_rate": rate,
                "core:num_channels": 1,
                "core:dataset": os.path.basename(name),
                "core:sha512": sha.hexdigest(),
                "core:recorder": f"tervane {VERSION}",
                "core:description": desc,
            },
            "captures": [capture],
            "annotations": [],
        }
        write_file(writable(opts, meta_name), (json.dumps(meta, indent=2, allow_nan=False) + "\n").encode())
        written.append(meta_name)
    return written


def save_figure(plt, fig, path):
    """Saves the picture as PNG; a failure names the file."""
    try:
        with open(path, "wb") as f:
            fig.savefig(f, format="png", dpi=100)
    except OSError as e:
        raise Fail(f"writing {path} failed: {e.strerror or e}") from e
    finally:
        plt.close(fig)


def writable(opts, name):
    """name, unless it is one of the run's input streams."""
    if is_input(name, (opts["-i"], opts["-ihp"], opts["-ilp"])):
        raise Fail(f"{name} is an input of the run and would be overwritten")
    return name


# ---------------------------------------------------------------- the frame

def layout(np, opts):
    """Carrier geometry: bin of every carrier at the output rate, pilot values, classes per phase."""
    mode = opts["-m"]
    F, K = FFT_SIZE[mode], N_CARRIERS[mode]
    R = INTERP[opts["-I"]]
    k = np.arange(K)
    kc = (K - 1) // 2
    unsigned = [(k - kc) % F, k + (F - K + 1) // 2, (kc - k) % F][opts["-f"]]
    signed = np.where(unsigned < F // 2, unsigned, unsigned - F)
    w = np.ones(K, dtype=np.int8)       # reference sequence x^11 + x^2 + 1, all ones at start
    for n in range(11, K):
        w[n] = w[n - 9] ^ w[n - 11]
    continual = np.zeros(K, bool)
    continual[CPILOT[:N_CPILOT[mode]]] = True
    tps = np.zeros(K, bool)
    tps[TPS[:N_TPS[mode]]] = True
    pilot = np.zeros((4, K), bool)      # pilot carriers by scattered-pilot phase l mod 4
    for phase in range(4):
        pilot[phase] = continual
        pilot[phase, 3 * phase::12] = True
    return {"F": F, "K": K, "R": R, "G": F // GUARD_DIV[opts["-D"]], "signed": signed,
            "bin": signed % (R * F), "pvalue": np.where(w == 1, -4.0 / 3.0, 4.0 / 3.0),
            "pilot": pilot, "tps": tps, "data": ~(pilot | tps)}   # data: by phase, like pilot


def ideal_levels(np, opts):
    """Amplitudes of one axis of the constellation, hierarchy included, at unit mean power."""
    d = [0, 0, 1, 3][opts["-a"]]
    levels = np.array([[1.0], [1.0 + d, 3.0 + d], [1.0 + d, 3.0 + d, 5.0 + d, 7.0 + d]][opts["-M"]])
    levels = np.concatenate([-levels[::-1], levels])
    return levels / math.sqrt(2 * np.mean(levels ** 2))


def demodulated_symbols(np, read, n_symbols, geo):
    """Yields (symbol number, cells of every carrier) for each OFDM symbol of the output: an
    R·F-point FFT over the useful part, centred in the cyclic prefix clear of the filter's
    start-up, phase-corrected to the filter's delay and scaled by 1/F."""
    F, G, R = geo["F"], geo["G"], geo["R"]
    S, RF = F + G, R * F
    back = R * G // 2
    shift = back + FILTER_DELAY[INTERP.index(R)]
    rotate = np.exp(2j * np.pi * geo["signed"] * shift / RF) / F
    batch = max(1, (1 << 20) // (R * S))
    for first in range(0, n_symbols, batch):
        last = min(n_symbols, first + batch)
        x = read(first * R * S, last * R * S).reshape(last - first, R * S)
        start = R * G - back
        spectra = np.fft.fft(x[:, start:start + RF], axis=1)[:, geo["bin"]] * rotate
        for i, cells in enumerate(spectra):
            yield first + i, cells


def equaliser(np, read, n_symbols, geo):
    """Gain of every carrier, fitted to the pilots of all symbols: one complex gain without
    interpolation; with it, the response of an FIR as long as the interpolation filter."""
    K = geo["K"]
    acc = np.zeros(K, complex)
    count = np.zeros(K)
    for l, cells in demodulated_symbols(np, read, n_symbols, geo):
        m = geo["pilot"][l % 4]
        acc[m] += cells[m] / geo["pvalue"][m]
        count[m] += 1
    q = FILTER_DELAY[INTERP.index(geo["R"])]
    omega = 2 * np.pi * geo["signed"] / (geo["R"] * geo["F"])
    basis = np.exp(-1j * np.outer(omega, np.arange(-q, q + 1)))
    seen = count > 0
    weight = np.sqrt(count[seen])
    coef = np.linalg.lstsq(basis[seen] * weight[:, None], acc[seen] / count[seen] * weight, rcond=1e-10)[0]
    gain = basis @ coef
    return np.where(np.abs(gain) > 1e-12, gain, 1e-12)


# ---------------------------------------------------------------- measurements

def nearest_points(np, cells, levels):
    """The ideal constellation point nearest to each cell (the grid is separable)."""
    return (levels[np.abs(cells.real[:, None] - levels).argmin(axis=1)]
            + 1j * levels[np.abs(cells.imag[:, None] - levels).argmin(axis=1)])


def cell_classes(np, cells, levels):
    """0 data, 1 pilot, 2 TPS: the kind of the nearest of the ideal points, the pilot values
    (real, +-4/3) and the TPS values (real, +-1)."""
    sign = np.where(cells.real < 0, -1.0, 1.0)
    dist = np.stack([np.abs(cells - nearest_points(np, cells, levels)),
                     np.abs(cells - sign * 4 / 3), np.abs(cells - sign)])
    return dist.argmin(axis=0).astype(np.int8)


def new_map_stats():
    return {"pilot_sum": 0.0, "pilot_n": 0, "data_pow": 0.0, "data_n": 0, "off": 0, "image": []}


def add_map_symbol(np, stats, geo, l, cells, levels):
    """Carrier-map statistics of one symbol: pilot and data amplitudes, cells off the pattern."""
    cls = cell_classes(np, cells, levels)
    expected = np.where(geo["pilot"][l % 4], 1, np.where(geo["tps"], 2, 0))
    stats["off"] += int(np.count_nonzero(cls != expected))
    stats["pilot_sum"] += float(np.abs(cells[cls == 1]).sum())
    stats["pilot_n"] += int(np.count_nonzero(cls == 1))
    stats["data_pow"] += float((np.abs(cells[cls == 0]) ** 2).sum())
    stats["data_n"] += int(np.count_nonzero(cls == 0))
    if len(stats["image"]) < SYMBOLS_PER_FRAME:
        stats["image"].append(cls)


def welch_and_power(np, read, n, nper):
    """Welch PSD (Hann, half overlap) and power statistics over all n samples, in blocks."""
    win = np.hanning(nper)
    psd = np.zeros(nper)
    segments = 0
    for offset in (0, nper // 2):
        usable = (n - offset) // nper * nper
        for a in range(offset, offset + usable, 256 * nper):
            b = min(a + 256 * nper, offset + usable)
            seg = read(a, b).reshape(-1, nper) * win
            psd += (np.abs(np.fft.fft(seg, axis=1)) ** 2).sum(axis=0)
            segments += seg.shape[0]
    total, peak = 0.0, 0.0
    for a in range(0, n, 1 << 20):
        p = np.abs(read(a, min(n, a + (1 << 20)))) ** 2
        total += float(p.sum())
        peak = max(peak, float(p.max()))
    if total == 0:
        raise Fail("the output holds only zero samples")
    mean = total / n
    edges = np.arange(-40.0, 20.005, 0.01)
    hist = np.zeros(len(edges) - 1)
    for a in range(0, n, 1 << 20):
        p = np.abs(read(a, min(n, a + (1 << 20)))) ** 2
        db = 10 * np.log10(np.maximum(p / mean, 1e-4))
        hist += np.histogram(np.clip(db, -40, 19.999), edges)[0]
    return np.fft.fftshift(psd / max(segments, 1)), mean, peak, edges, hist


def spectrum_figures(np, psd, rate, centre, bn):
    """Occupied bandwidth (99 % power), in-band ripple and shoulder attenuation from the PSD."""
    nper = len(psd)
    freq = (np.arange(nper) - nper // 2) * rate / nper
    freq = (freq - centre + rate / 2) % rate - rate / 2       # relative to the band centre
    order = np.argsort(freq)
    freq, psd = freq[order], psd[order]
    cum = np.cumsum(psd) / psd.sum()
    obw = freq[np.searchsorted(cum, 0.995)] - freq[np.searchsorted(cum, 0.005)]
    rbw = rate / nper
    inband = np.abs(freq) <= bn / 2 - 2 * rbw
    level = psd[inband].mean()
    db = 10 * np.log10(np.maximum(psd / level, 1e-30))
    ripple = db[inband].max() - db[inband].min()
    shoulder_zone = (np.abs(freq) >= bn / 2 + 300e3) & (np.abs(freq) <= bn / 2 + 1.7e6)
    shoulder = -db[shoulder_zone].max() if shoulder_zone.any() else None
    return freq, db, obw, ripple, shoulder, shoulder_zone


# ---------------------------------------------------------------- pictures

def plot_psd(plt, path, freq, db, bn, shoulder, zone, title):
    fig, ax = plt.subplots(figsize=(9, 5))
    ax.plot(freq / 1e6, db, lw=0.8)
    for edge in (-bn / 2e6, bn / 2e6):
        ax.axvline(edge, color="tab:red", ls="--", lw=0.8)
    ax.fill_between(freq / 1e6, -120, 10, where=zone, color="tab:orange", alpha=0.15, label="shoulder zone")
    ax.set_ylim(max(-100, db.min() - 5), 5)
    ax.set_xlabel("frequency from the band centre (MHz)")
    ax.set_ylabel("PSD relative to the in-band mean (dB)")
    text = f"nominal bandwidth {bn / 1e6:.3f} MHz (dashed)"
    if shoulder is not None:
        text += f"\nshoulder attenuation {shoulder:.1f} dB"
    ax.text(0.02, 0.04, text, transform=ax.transAxes)
    ax.set_title(title)
    ax.grid(alpha=0.3)
    save_figure(plt, fig, path)


def plot_constellation(np, plt, path, hist, lim, levels, title):
    fig, ax = plt.subplots(figsize=(6, 6))
    ax.imshow(np.log10(1 + hist.T), origin="lower", extent=(-lim, lim, -lim, lim), cmap="magma")
    gx, gy = np.meshgrid(levels, levels)
    ax.plot(gx.ravel(), gy.ravel(), "o", mfc="none", mec="tab:cyan", ms=9, mew=0.6, label="ideal points")
    ax.set_xlabel("I")
    ax.set_ylabel("Q")
    ax.legend(loc="upper right", fontsize=8)
    ax.set_title(title)
    save_figure(plt, fig, path)


def plot_carriers(np, plt, path, image, title):
    from matplotlib.colors import ListedColormap
    img = np.array(image)
    cmap = ListedColormap(["#d0d8e8", "#d62728", "#2ca02c"])
    fig, (full, zoom) = plt.subplots(2, 1, figsize=(10, 7))
    for ax, part in ((full, img), (zoom, img[:24, :97])):
        ax.imshow(part, aspect="auto", interpolation="nearest", cmap=cmap, vmin=0, vmax=2, origin="lower")
        ax.set_xlabel("carrier")
        ax.set_ylabel("symbol")
    full.set_title(title)
    zoom.set_title("symbols 0 to 23, carriers 0 to 96: data (grey), pilots (red), TPS (green)")
    fig.tight_layout()
    save_figure(plt, fig, path)


def plot_ccdf(np, plt, path, edges, hist, papr, title):
    ccdf = 1 - np.cumsum(hist) / hist.sum()
    z = edges[1:]
    keep = ccdf > 0
    fig, ax = plt.subplots(figsize=(7, 5))
    ax.semilogy(z[keep], ccdf[keep], label="signal")
    zz = np.linspace(0, 13, 200)
    ax.semilogy(zz, np.exp(-10 ** (zz / 10)), ls="--", color="grey", label="complex Gaussian")
    ax.axhline(1e-4, color="tab:red", lw=0.6)
    if papr is not None:
        ax.axvline(papr, color="tab:red", lw=0.6)
        ax.text(papr + 0.2, 2e-4, f"{papr:.2f} dB at 1e-4")
    ax.set_xlim(0, 14)
    ax.set_ylim(1e-6, 1)
    ax.set_xlabel("instantaneous power above the mean (dB)")
    ax.set_ylabel("probability of exceeding")
    ax.legend()
    ax.grid(alpha=0.3, which="both")
    ax.set_title(title)
    save_figure(plt, fig, path)


# ---------------------------------------------------------------- main

def analyse(np, plt, opts, files):
    stem = files["stem"]
    geo = layout(np, opts)
    F, K, G, R = geo["F"], geo["K"], geo["G"], geo["R"]
    rate = R * FS[opts["-b"]]
    bn = K * FS[opts["-b"]] / F
    centre = FS[opts["-b"]] / 2 if opts["-f"] == 1 else 0.0
    levels = ideal_levels(np, opts)
    lim = 1.3 * levels.max()
    const_hist = np.zeros((300, 300))
    hist_range = [[-lim, lim], [-lim, lim]]
    name = os.path.basename(stem) or stem
    pictures = []
    for kind in ("psd", "ccdf", "constellation", "carriers"):
        writable(opts, f"{stem}_{kind}.png")
    lines = []

    map_stats = new_map_stats()
    map_source = None
    if files["fd"]:
        size = os.path.getsize(files["fd"])
        if size % (8 * K):
            raise Fail(f"{files['fd']} is not a whole number of {NAMES['-m'][opts['-m']]} symbols")
        fd = np.memmap(files["fd"], dtype=np.complex64, mode="r") if size else np.zeros(0, np.complex64)
        for l in range(size // (8 * K)):
            add_map_symbol(np, map_stats, geo, l, np.asarray(fd[l * K:(l + 1) * K], dtype=np.complex128), levels)
        map_source = files["fd"]
    if files["ma"]:
        if os.path.getsize(files["ma"]) % 8:
            raise Fail(f"{files['ma']} is not a whole number of float32 cells")
        ma = np.memmap(files["ma"], dtype="<c8", mode="r") if os.path.getsize(files["ma"]) else np.zeros(0, "c8")
        for a in range(0, len(ma), 1 << 20):
            cells = np.asarray(ma[a:a + (1 << 20)])
            const_hist += np.histogram2d(cells.real, cells.imag, bins=300, range=hist_range)[0]
        const_source = files["ma"]

    mer = None
    if files["td"]:
        n, read = sample_reader(np, opts["-F"], opts["-m"], opts["-g"], files["td"])
        symbols = n // (R * (F + G))
        if symbols == 0:
            raise Fail(f"{files['td'][0]} holds no whole OFDM symbol")
        metas = write_sigmf(opts, files["td"], rate)
        lines += [f"Metadata: {' '.join(metas)}",
                  f"Sample rate: {rate / 1e6:.6f} MHz",
                  f"Duration: {n / rate:.6f} s ({n} samples)",
                  f"Symbols: {symbols} ({symbols // SYMBOLS_PER_FRAME} frames and "
                  f"{symbols % SYMBOLS_PER_FRAME} symbols)"]
        nper = 1 << max(6, round(math.log2(rate / 30e3)))        # resolution bandwidth near 30 kHz
        if n < nper:
            raise Fail(f"{files['td'][0]} is too short for a spectrum")
        psd, mean, peak, edges, hist = welch_and_power(np, read, n, nper)
        freq, db, obw, ripple, shoulder, zone = spectrum_figures(np, psd, rate, centre, bn)
        exceed = hist[::-1].cumsum()[::-1] / n               # share at or above each bin
        above = np.nonzero(exceed > 1e-4)[0]
        papr = float(edges[above[-1] + 1]) if n >= 1e4 and len(above) else None
        lines += [f"Occupied bandwidth: {obw / 1e6:.3f} MHz (99 % of the power)",
                  f"In-band ripple: {ripple:.2f} dB",
                  f"Shoulder attenuation: {shoulder:.1f} dB" if shoulder is not None
                  else "Shoulder attenuation: outside the sampled band",
                  (f"PAPR: {papr:.2f} dB at 1e-4" if papr is not None else "PAPR: too few samples for 1e-4")
                  + f" (peak {10 * math.log10(peak / mean):.2f} dB)"]
        plot_psd(plt, f"{stem}_psd.png", freq, db, bn, shoulder, zone,
                 f"{name}: power spectral density (RBW {rate / nper / 1e3:.1f} kHz)")
        plot_ccdf(np, plt, f"{stem}_ccdf.png", edges, hist, papr, f"{name}: CCDF of the instantaneous power")
        pictures += [f"{stem}_psd.png", f"{stem}_ccdf.png"]

        gain = equaliser(np, read, symbols, geo)
        signal = error = 0.0
        for l, cells in demodulated_symbols(np, read, symbols, geo):
            cells = cells / gain
            data = cells[geo["data"][l % 4]]
            ideal = nearest_points(np, data, levels)
            signal += float((np.abs(ideal) ** 2).sum())
            error += float((np.abs(data - ideal) ** 2).sum())
            if not files["ma"]:
                const_hist += np.histogram2d(data.real, data.imag, bins=300, range=hist_range)[0]
            if not files["fd"]:
                add_map_symbol(np, map_stats, geo, l, cells, levels)
        mer = 10 * math.log10(signal / error) if error > 0 else math.inf
        if not files["ma"]:
            const_source = f"demodulated from {files['td'][0]}"
        if not files["fd"]:
            map_source = f"demodulated from {files['td'][0]}"

    if files["ma"] or files["td"]:
        plot_constellation(np, plt, f"{stem}_constellation.png", const_hist, lim, levels,
                           f"{name}: constellation ({os.path.basename(const_source)})")
        pictures.append(f"{stem}_constellation.png")
    if map_stats["image"]:
        plot_carriers(np, plt, f"{stem}_carriers.png", map_stats["image"],
                      f"{name}: carrier map ({os.path.basename(map_source)})")
        pictures.append(f"{stem}_carriers.png")
        ratio = (map_stats["pilot_sum"] / max(map_stats["pilot_n"], 1)) / \
            math.sqrt(map_stats["data_pow"] / max(map_stats["data_n"], 1))
        lines += [f"Pilot/data amplitude: {ratio:.4f} ({map_source})",
                  f"Cells off the pilot pattern: {map_stats['off']}"]
    if mer is not None:
        lines.append(f"MER: {mer:.2f} dB")
        if mer < 15:
            print(f"{PROG}: warning: MER {mer:.1f} dB: are these the options of the run?", file=sys.stderr)
    lines.append(f"Pictures: {' '.join(pictures)}")
    print("\n".join(lines))


def main(argv):
    try:
        opts = parse_options(argv)
    except ValueError as e:            # e.g. a number too large for a float
        return report(PROG, f"bad option value: {e}")
    if answered(PROG, USAGE, opts):
        return 0
    try:
        import numpy as np
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        print(f"{PROG}: needs numpy and matplotlib: apt-get install python3-numpy python3-matplotlib",
              file=sys.stderr)
        return 1
    try:
        files = find_files(opts)
        print(f"{PROG} {VERSION}: {describe(opts).split(': ', 1)[1]}")
        analyse(np, plt, opts, files)
    except (Fail, OSError, ValueError, MemoryError) as e:
        return report(PROG, e)
    return 0




if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
