// Convolutional inner coder and puncturer.
#include "inner/inner_coder.hpp"

#include <algorithm>
#include <cstring>

#include "frame/print.hpp"
#include "inner/inner_x86.hpp"
#include "vectors/cpu.hpp"
#include "vectors/simd.hpp"
#include "vectors/written.hpp"

using namespace inner_detail;

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

// ---------------------------------------------------------------------------
// Encoder on whole words: eight input bytes give 128 coded bits at once.

// The input bits before the run, in the place the previous word would hold
// them (b_-1 at bit 63), from the shift register.
inline uint64_t prev_from_state(uint32_t st) {
    uint64_t prev = 0;
    for (int j = 0; j < 6; j++) prev |= static_cast<uint64_t>((st >> j) & 1u) << (63 - j);
    return prev;
}

// Bits 0..31 of x spread to the even bits of the result.
inline uint64_t spread_even(uint64_t x) {
    x &= 0xFFFFFFFFull;
    x = (x | (x << 16)) & 0x0000FFFF0000FFFFull;
    x = (x | (x << 8)) & 0x00FF00FF00FF00FFull;
    x = (x | (x << 4)) & 0x0F0F0F0F0F0F0F0Full;
    x = (x | (x << 2)) & 0x3333333333333333ull;
    return (x | (x << 1)) & 0x5555555555555555ull;
}

// One byte (0 or 1) per bit of an 8-bit value, bit 0 first.
constexpr std::array<uint64_t, 256> bit_bytes = [] {
    std::array<uint64_t, 256> t{};
    for (uint32_t v = 0; v < 256; v++)
        for (uint32_t k = 0; k < 8; k++) t[v] |= static_cast<uint64_t>((v >> k) & 1u) << (8 * k);
    return t;
}();

// Codes g groups of eight bytes from src to 128 g coded bits at dst; *prev is
// the word before the first group and becomes the last one.
void encode_groups(const uint8_t* src, uint8_t* dst, uint32_t g, uint64_t* prev) {
    uint64_t pw = *prev;
    for (uint32_t i = 0; i < g; i++, src += 8, dst += 128) {
        const uint64_t w = bits_in_time_order(load64(src));
        const CodedWords c = code_word(w, pw);
        pw = w;
        for (int half = 0; half < 2; half++) {
            const uint64_t m = spread_even(c.x >> (32 * half)) | (spread_even(c.y >> (32 * half)) << 1);
            for (int k = 0; k < 8; k++) {
                const uint64_t bytes = bit_bytes[(m >> (8 * k)) & 0xFFu];
                std::memcpy(dst + 64 * half + 8 * k, &bytes, 8);
            }
        }
    }
    *prev = pw;
}

// Punctures q whole periods at rate index R from ring position *r to ring
// position *w. Runs of periods that lie contiguous in both rings go through a
// fixed gather loop; a period that crosses a ring end is done element by element.
template <int R>
void puncture_periods(const uint8_t* src, uint32_t ilen, uint32_t* r, uint8_t* dst, uint32_t olen, uint32_t* w,
                      uint32_t q) {
    constexpr uint32_t ip = in_plen[R];
    constexpr uint32_t op = out_plen[R];
    constexpr auto idx = kept_positions<R>();
    uint32_t ri = *r, wi = *w;
    while (q > 0) {
        uint32_t run = std::min({(ilen - ri) / ip, (olen - wi) / op, q});
        q -= run;
        const uint8_t* s = src + ri;
        uint8_t* d = dst + wi;
#if TERVANE_X86
        if (dvbUseAvx512()) {
            const uint32_t done = puncture_avx512(R, s, d, run);
            s += done * ip;
            d += done * op;
            run -= done;
        }
#endif
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

    for (uint32_t i = 0; i < n;) {
        // Whole groups of eight bytes where both rings have them in one piece.
        uint32_t g = std::min({(n - i) / 8, (ilen - r) / 8, (olen - w) / 128});
        if (g > 0) {
            uint64_t prev = prev_from_state(st);
#if TERVANE_X86
            if (dvbUseAvx512()) encode_groups_avx512(src + r, dst + w, g, &prev);
            else
#endif
                encode_groups(src + r, dst + w, g, &prev);
            r += 8 * g;
            w += 128 * g;
            i += 8 * g;
            st = (static_cast<uint32_t>(src[r - 4]) << 24) | (static_cast<uint32_t>(src[r - 3]) << 16) |
                 (static_cast<uint32_t>(src[r - 2]) << 8) | src[r - 1];
            if (r == ilen) r = 0;
            if (w == olen) w = 0;
            continue;
        }
        const uint32_t b = src[r];
        if (++r == ilen) r = 0;
        i++;
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

    checked_ring_write(out, w0, 16 * n, dump);
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
    checked_ring_write(out, w0, q * op, dump);
    dvbRingConsume(in, consumed);
    out->fill += q * op;
    dvbMsgPrint(4, "Inner_coder2: %d samples\n", static_cast<int>(consumed));
    return static_cast<int32_t>(consumed);
}
