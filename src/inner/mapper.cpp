// QAM constellation and mapper.
#include "inner/mapper.hpp"

#include <array>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "frame/params.hpp"
#include "frame/print.hpp"
#include "inner/inner_x86.hpp"
#include "vectors/cpu.hpp"
#include "vectors/written.hpp"

static_assert(sizeof(dvbComplex) == 8, "a cell is two packed 32-bit floats");

namespace {

std::array<dvbComplex, 64> QAM{};

// Magnitude of a 64-QAM axis by its bit pair (high, low):
// 00 -> 7, 01 -> 5, 11 -> 3, 10 -> 1 (Gray order from the outside in).
constexpr std::array<float, 4> mag64{7.0f, 5.0f, 1.0f, 3.0f};

float sign(uint32_t bit, float mag) { return bit != 0 ? -mag : mag; }

// Writes cells to the dump as little-endian float pairs.
void dump_cells(FILE* dump, const dvbComplex* cells, uint32_t n) {
    if constexpr (std::endian::native == std::endian::little) {
        checked_write(cells, sizeof(dvbComplex), n, dump);
    } else {
        for (uint32_t i = 0; i < n; i++) {
            uint8_t b[8];
            const uint32_t re = std::bit_cast<uint32_t>(cells[i].re);
            const uint32_t im = std::bit_cast<uint32_t>(cells[i].im);
            for (int k = 0; k < 4; k++) {
                b[k] = static_cast<uint8_t>(re >> (8 * k));
                b[4 + k] = static_cast<uint8_t>(im >> (8 * k));
            }
            checked_write(b, 1, 8, dump);
        }
    }
}

}  // namespace

uint32_t dvbQAMConstGenerate() {
    // Hierarchy moves every point outwards by d = alpha - 1.
    const float d = dvbt_parms.alpha == 0 ? 0.0f : static_cast<float>(std::atoi(dvbt_alphaname[dvbt_parms.alpha]) - 1);
    const uint32_t mi = dvbt_parms.M;
    const uint32_t Mc = 1u << dvbt_bitpersymb[mi];

    QAM.fill(dvbComplex{0.0f, 0.0f});
    for (uint32_t w = 0; w < Mc; w++) {
        switch (mi) {
        case 0:  // y0 y1
            QAM[w] = {sign((w >> 1) & 1u, 1.0f), sign(w & 1u, 1.0f)};
            break;
        case 1:  // y0 y1 y2 y3: signs re, im; magnitudes re, im
            QAM[w] = {sign((w >> 3) & 1u, ((w >> 1) & 1u) != 0 ? 1.0f + d : 3.0f + d),
                      sign((w >> 2) & 1u, (w & 1u) != 0 ? 1.0f + d : 3.0f + d)};
            break;
        default: {  // y0 .. y5: signs re, im; re from (y2, y4), im from (y3, y5)
            const uint32_t re_pair = (((w >> 3) & 1u) << 1) | ((w >> 1) & 1u);
            const uint32_t im_pair = (((w >> 2) & 1u) << 1) | (w & 1u);
            QAM[w] = {sign((w >> 5) & 1u, mag64[re_pair] + d), sign((w >> 4) & 1u, mag64[im_pair] + d)};
            break;
        }
        }
    }

    // Normalise to unit mean power.
    double E = 0.0;
    for (uint32_t w = 0; w < Mc; w++)
        E += static_cast<double>(QAM[w].re) * QAM[w].re + static_cast<double>(QAM[w].im) * QAM[w].im;
    E /= Mc;
    const double root = std::sqrt(E);
    for (uint32_t w = 0; w < Mc; w++) {
        QAM[w].re = static_cast<float>(QAM[w].re / root);
        QAM[w].im = static_cast<float>(QAM[w].im / root);
    }
    return 0;
}

int32_t qam_map(dvbVect* in, dvbVect* out, uint32_t maxlen, FILE* dump) {
    if (in->fill == 0 || out->fill == out->len) return 0;

    const uint32_t n = dvbRingUnits(in, 1, out, 1, maxlen, 1);

    const uint8_t* src = dvbBytes(in);
    dvbComplex* dst = dvbCplx(out);
    uint32_t r = in->head;
    uint32_t w = dvbRingWritePos(out);
    // Runs that cross neither ring end.
    for (uint32_t done = 0; done < n;) {
        const uint32_t run = dvbRingRun(out, w, dvbRingRun(in, r, n - done));
        uint32_t i = 0;
#if TERVANE_X86
        if (dvbUseAvx512()) i = inner_detail::map_cells_avx512(QAM.data(), src + r, run, dst + w);
#endif
        for (; i < run; i++) dst[w + i] = QAM[src[r + i] & 63u];
        if (dump != nullptr) dump_cells(dump, dst + w, run);
        r = dvbRingAdvance(r, run, in->len);
        w = dvbRingAdvance(w, run, out->len);
        done += run;
    }

    dvbRingConsume(in, n);
    out->fill += n;
    dvbMsgPrint(4, "Mapping     : %d samples\n", static_cast<int>(n));
    return static_cast<int32_t>(n);
}

std::span<const dvbComplex, 64> dvbQAMTable() { return std::span<const dvbComplex, 64>(QAM); }
