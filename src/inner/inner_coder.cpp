// Convolutional inner coder and puncturer.
#include "inner/inner_coder.hpp"

#include <algorithm>
#include <cstring>

#include "frame/print.hpp"

namespace {

// Generator taps with bit 0 the newest input bit: 171 and 133 octal reversed.
constexpr uint32_t POLY_X = 0x4F;
constexpr uint32_t POLY_Y = 0x6D;

// Coded bits of one input nibble: entry (prev6 << 4) | nibble holds the 8 bits
// X Y X Y ... produced by the nibble's bits (most significant first) when the
// register's low 6 bits are prev6. Only the low 7 register bits reach the
// taps, so this gives exactly the bit-by-bit result.
using NibbleBits = std::array<uint8_t, 8>;
constexpr std::array<NibbleBits, 1024> enc_nibble = [] {
    std::array<NibbleBits, 1024> t{};
    for (uint32_t idx = 0; idx < 1024; idx++) {
        uint32_t s = idx >> 4;
        for (int k = 0; k < 4; k++) {
            s = (s << 1) | ((idx >> (3 - k)) & 1u);
            t[idx][2 * k] = Partab[s & POLY_X];
            t[idx][2 * k + 1] = Partab[s & POLY_Y];
        }
    }
    return t;
}();

// Kept positions of one period for rate index R, taken from p_mat.
template <int R>
constexpr auto kept_positions() {
    std::array<uint32_t, out_plen[R]> idx{};
    uint32_t m = 0;
    for (uint32_t k = 0; k < static_cast<uint32_t>(in_plen[R]); k++)
        if (p_mat[R][k] != 0) idx[m++] = k;
    return idx;
}

// Punctures q whole periods at rate index R from ring position *r to ring
// position *w. Runs of periods that lie contiguous in both rings go through a
// fixed gather loop; a period that crosses a ring end is done element by element.
template <int R>
void puncture_periods(const uint8_t* src, uint32_t ilen, uint32_t* r, uint8_t* dst,
                      uint32_t olen, uint32_t* w, uint32_t q) {
    constexpr uint32_t ip = in_plen[R];
    constexpr uint32_t op = out_plen[R];
    constexpr auto idx = kept_positions<R>();
    uint32_t ri = *r, wi = *w;
    while (q > 0) {
        uint32_t run = std::min({(ilen - ri) / ip, (olen - wi) / op, q});
        q -= run;
        const uint8_t* s = src + ri;
        uint8_t* d = dst + wi;
        for (; run > 0; run--, s += ip, d += op)
            for (uint32_t m = 0; m < op; m++) d[m] = s[idx[m]];
        ri = static_cast<uint32_t>(s - src);
        wi = static_cast<uint32_t>(d - dst);
        if (ri == ilen) ri = 0;
        if (wi == olen) wi = 0;
        if (q > 0 && ((ilen - ri) < ip || (olen - wi) < op)) {
            for (uint32_t k = 0; k < ip; k++) {
                const uint8_t b = src[ri];
                if (++ri == ilen) ri = 0;
                if (p_mat[R][k] != 0) {
                    dst[wi] = b;
                    if (++wi == olen) wi = 0;
                }
            }
            q--;
        }
    }
    *r = ri;
    *w = wi;
}

}  // namespace

void init_convenc(uint32_t* state, uint32_t value) { *state = value; }

int32_t encode27(dvbVect* in, dvbVect* out, uint32_t* state, uint32_t maxlen, FILE* dump) {
    if (in->fill == 0 || out->fill == out->len) return 0;

    const uint32_t n = dvbRingUnits(in, 1, out, 16, maxlen, 1);

    const uint8_t* src = dvbBytes(in);
    uint8_t* dst = dvbBytes(out);
    const uint32_t ilen = in->len, olen = out->len;
    uint32_t r = in->head;
    const uint32_t w0 = dvbRingWritePos(out);
    uint32_t w = w0;
    uint32_t st = *state;

    for (uint32_t i = 0; i < n; i++) {
        const uint32_t b = src[r];
        if (++r == ilen) r = 0;
        const NibbleBits& hi = enc_nibble[((st & 0x3Fu) << 4) | (b >> 4)];
        const uint32_t mid = (st << 4) | (b >> 4);  // register after the high nibble
        const NibbleBits& lo = enc_nibble[((mid & 0x3Fu) << 4) | (b & 0xFu)];
        st = (st << 8) | b;
        if (olen - w >= 16) {
            std::memcpy(dst + w, hi.data(), 8);
            std::memcpy(dst + w + 8, lo.data(), 8);
            w += 16;
            if (w == olen) w = 0;
        } else {
            for (int k = 0; k < 8; k++) {
                dst[w] = hi[k];
                if (++w == olen) w = 0;
            }
            for (int k = 0; k < 8; k++) {
                dst[w] = lo[k];
                if (++w == olen) w = 0;
            }
        }
    }
    *state = st;

    dvbRingDump(out, w0, 16 * n, dump);
    dvbRingConsume(in, n);
    out->fill += 16 * n;
    dvbMsgPrint(4, "Inner_coder1: %d samples\n", static_cast<int>(n));
    return static_cast<int32_t>(n);
}

int32_t puncture(dvbVect* in, dvbVect* out, uint16_t rate, uint32_t maxlen, FILE* dump) {
    if (in->fill == 0 || out->fill == out->len) return 0;
    if (rate >= in_plen.size()) return 0;

    const uint32_t ip = static_cast<uint32_t>(in_plen[rate]);
    const uint32_t op = static_cast<uint32_t>(out_plen[rate]);
    const uint32_t q = dvbRingUnits(in, ip, out, op, maxlen, ip);

    const uint8_t* src = dvbBytes(in);
    uint8_t* dst = dvbBytes(out);
    const uint32_t ilen = in->len, olen = out->len;
    uint32_t r = in->head;
    const uint32_t w0 = dvbRingWritePos(out);
    uint32_t w = w0;

    switch (rate) {
        case 0: puncture_periods<0>(src, ilen, &r, dst, olen, &w, q); break;
        case 1: puncture_periods<1>(src, ilen, &r, dst, olen, &w, q); break;
        case 2: puncture_periods<2>(src, ilen, &r, dst, olen, &w, q); break;
        case 3: puncture_periods<3>(src, ilen, &r, dst, olen, &w, q); break;
        default: puncture_periods<4>(src, ilen, &r, dst, olen, &w, q); break;
    }

    const uint32_t consumed = q * ip;
    dvbRingDump(out, w0, q * op, dump);
    dvbRingConsume(in, consumed);
    out->fill += q * op;
    dvbMsgPrint(4, "Inner_coder2: %d samples\n", static_cast<int>(consumed));
    return static_cast<int32_t>(consumed);
}
