// GF(256) tables, generator polynomial and the RS(255,239) parity encoder.
#include "outer/rs.hpp"

namespace {

constexpr int MM = 8;          // bits per symbol
constexpr int NN = 255;        // full code length
constexpr int KK = 239;        // full data length
constexpr int NPAR = NN - KK;  // 16 parity bytes

// Reduces a sum of power indices modulo 255 without a division.
inline int32_t modnn(int32_t x) {
    while (x >= NN) {
        x -= NN;
        x = (x >> MM) + (x & NN);
    }
    return x;
}

// Feedback table of the encoder register: for every feedback byte f, the 16
// products f * g_j (j = 0..15) packed as two little-endian byte lanes, lane j at
// bits 8*(j%8) of word j/8. Built by gen_poly from the log/antilog tables.
uint64_t fb_lo[256];
uint64_t fb_hi[256];

void build_feedback_table() {
    for (int v = 0; v < 256; v++) {
        uint64_t lo = 0, hi = 0;
        if (v != 0) {
            const int32_t f = Index_of[v];
            for (int j = 0; j < NPAR; j++) {
                if (Gg[j] == NN) continue;
                const uint64_t p = static_cast<uint64_t>(Alpha_to[modnn(Gg[j] + f)]);
                if (j < 8) lo |= p << (8 * j);
                else hi |= p << (8 * (j - 8));
            }
        }
        fb_lo[v] = lo;
        fb_hi[v] = hi;
    }
}

}  // namespace

const int32_t Pp[MM + 1] = {1, 0, 1, 1, 1, 0, 0, 0, 1};
int32_t Alpha_to[NN + 1];
int32_t Index_of[NN + 1];
int32_t Gg[NPAR + 1];

void generate_gf() {
    int32_t mask = 1;
    Alpha_to[MM] = 0;
    for (int i = 0; i < MM; i++) {
        Alpha_to[i] = mask;
        Index_of[Alpha_to[i]] = i;
        if (Pp[i] != 0) Alpha_to[MM] ^= mask;
        mask <<= 1;
    }
    Index_of[Alpha_to[MM]] = MM;
    mask >>= 1;  // 0x80
    for (int i = MM + 1; i < NN; i++) {
        if (Alpha_to[i - 1] >= mask) Alpha_to[i] = Alpha_to[MM] ^ ((Alpha_to[i - 1] ^ mask) << 1);
        else Alpha_to[i] = Alpha_to[i - 1] << 1;
        Index_of[Alpha_to[i]] = i;
    }
    Index_of[0] = NN;
    Alpha_to[NN] = 0;
}

void gen_poly() {
    Gg[0] = Alpha_to[0];
    Gg[1] = 1;
    for (int i = 2; i <= NPAR; i++) {
        Gg[i] = 1;
        for (int j = i - 1; j > 0; j--) {
            if (Gg[j] != 0) Gg[j] = Gg[j - 1] ^ Alpha_to[modnn(Index_of[Gg[j]] + i - 1)];
            else Gg[j] = Gg[j - 1];
        }
        Gg[0] = Alpha_to[modnn(Index_of[Gg[0]] + i - 1)];
    }
    for (int i = 0; i <= NPAR; i++) Gg[i] = Index_of[Gg[i]];
    build_feedback_table();
}

void init_rs() {
    generate_gf();
    gen_poly();
}

// The 16-stage division register is held in two 64-bit words, stage j in byte
// lane j (stages 0..7 in lo, 8..15 in hi). One data byte shifts the register up
// by one stage and adds the feedback row: bit-identical to the stage-by-stage
// update, one table lookup per byte instead of 16 log/antilog lookups.
int encode_rs(const uint8_t* data, uint8_t* bb) {
    uint64_t lo = 0, hi = 0;
    int i = KK - 1;
    // With the register at zero, leading zero data bytes only shift zeros.
    while (i >= 0 && data[i] == 0) i--;
    for (; i >= 0; i--) {
        const unsigned f = data[i] ^ static_cast<unsigned>(hi >> 56);
        hi = ((hi << 8) | (lo >> 56)) ^ fb_hi[f];
        lo = (lo << 8) ^ fb_lo[f];
    }
    for (int j = 0; j < 8; j++) {
        bb[j] = static_cast<uint8_t>(lo >> (8 * j));
        bb[j + 8] = static_cast<uint8_t>(hi >> (8 * j));
    }
    return 0;
}

// Packets in lock step: the register update of one packet waits on the table
// load of the byte before, so several independent packets keep the processor busy.
template <uint32_t N>
void parity188_n(const uint8_t* const* pkt, uint8_t (*parity)[16]) {
    uint64_t lo[N] = {}, hi[N] = {};
    for (uint32_t i = 0; i < 188; i++) {
        for (uint32_t k = 0; k < N; k++) {
            const unsigned f = pkt[k][i] ^ static_cast<unsigned>(hi[k] >> 56);
            hi[k] = ((hi[k] << 8) | (lo[k] >> 56)) ^ fb_hi[f];
            lo[k] = (lo[k] << 8) ^ fb_lo[f];
        }
    }
    for (uint32_t k = 0; k < N; k++) {
        for (int m = 0; m < 8; m++) {
            parity[k][m] = static_cast<uint8_t>(hi[k] >> (8 * (7 - m)));
            parity[k][8 + m] = static_cast<uint8_t>(lo[k] >> (8 * (7 - m)));
        }
    }
}

void rs_parity188(const uint8_t* const* pkt, uint32_t count, uint8_t (*parity)[16]) {
    for (; count >= 4; count -= 4, pkt += 4, parity += 4) parity188_n<4>(pkt, parity);
    for (; count > 0; count--, pkt++, parity++) parity188_n<1>(pkt, parity);
}
