// Fuzz target: the receiver's front end on arbitrary bytes as samples. The
// first byte chooses the sample format, the frequency mapping, the
// interpolation and the guard searched (the mode is 2k); the second, the piece
// size, whether the samples are resampled from a rate of their own, and the
// static collection. The rest, repeated to a bounded length, is converted and
// pushed in pieces of varying size. Whatever it finds, every symbol handed out
// must have the data cells of its mode, finite cells and non-negative
// reliabilities, with frame and symbol numbers in range; and the status must
// read back sane figures. A search over a short span and a single mode keep
// each input quick.
#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "receiver/carriers.hpp"
#include "receiver/frontend.hpp"
#include "receiver/input.hpp"

namespace {

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "fuzz_rx: %s\n", what);
    std::abort();
}

constexpr size_t kSamples = 60000;  // samples pushed per input, at most

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    const uint8_t sel = data[0];
    constexpr rx::Format formats[] = {rx::Format::cf32, rx::Format::ci16_be, rx::Format::ci16_le, rx::Format::ci8,
                                      rx::Format::cu8};
    const rx::Format format = formats[sel % 5];
    rx::FrontEndConfig cfg;
    cfg.mapping = (sel >> 3) % 3;
    cfg.interp = (sel >> 5) & 1;
    cfg.mode = 0;
    cfg.delta = (sel >> 6) & 3;
    cfg.search_span = 8192;
    cfg.collect_static = (data[1] & 1) != 0;
    if ((data[1] & 2) != 0) cfg.interp = 0, cfg.rate = 1.37 * 64e6 / 7;  // a rate of its own: resampled
    const auto bytes = static_cast<size_t>(rx::format_bytes(format));
    std::vector<uint8_t> raw(data + 2, data + size);
    const size_t whole = raw.size() / bytes;
    if (whole == 0) return 0;
    std::vector<std::complex<float>> one(whole), samples;
    rx::convert_samples(format, raw.data(), whole, one.data());
    for (auto& v : one)  // the command refuses samples that are not finite
        if (!std::isfinite(v.real()) || !std::isfinite(v.imag())) v = {0, 0};
    while (samples.size() < kSamples) samples.insert(samples.end(), one.begin(), one.end());
    samples.resize(kSamples);
    auto fe = rx::frontend_create(cfg);
    auto sink = [](const rx::Transmission& t, const rx::SymbolCells& s) {
        if (t.mode > 2 || s.cells.size() != static_cast<size_t>(dvbt_N[t.mode])) fail("cells not of the mode");
        if (s.csi.size() != s.cells.size()) fail("a reliability per cell");
        if (s.frame > 3 || s.symbol > 67) fail("frame or symbol out of range");
        for (size_t i = 0; i < s.cells.size(); ++i)
            if (!std::isfinite(s.cells[i].real()) || !std::isfinite(s.cells[i].imag()) || !(s.csi[i] >= 0))
                fail("a cell or reliability not finite");
    };
    size_t at = 0, piece = 1 + data[1];
    while (at < samples.size()) {
        const size_t n = std::min(piece, samples.size() - at);
        rx::frontend_push(*fe, std::span<const std::complex<float>>(samples.data() + at, n), sink);
        at += n;
        piece = piece * 7 % 9001 + 1;
    }
    const rx::FrontEndStatus st = rx::frontend_status(*fe);
    if (!std::isfinite(st.offset_hz) || !std::isfinite(st.clock_ppm)) fail("offsets not finite");
    if (cfg.collect_static) {
        const rx::StaticChannel c = rx::frontend_static(*fe);
        for (const auto& h : c.h)
            if (!std::isfinite(h.real()) || !std::isfinite(h.imag())) fail("static channel not finite");
    }
    return 0;
}
