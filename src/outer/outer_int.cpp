// Outer convolutional interleaver.
#include "outer/outer_int.hpp"

#include <cstdlib>

#include "frame/params.hpp"
#include "frame/print.hpp"
#include "outer/outer_x86.hpp"
#include "vectors/cpu.hpp"
#include "vectors/written.hpp"

namespace {
constexpr uint32_t GROUP = 12;    // bytes per commutator cycle
constexpr uint32_t PIECE = 1024;  // groups per piece
uint8_t in_piece[GROUP * PIECE];
uint8_t out_piece[GROUP * PIECE];
}  // namespace

void init_convint(convint_state* s, uint32_t I, uint32_t M) {
    s->branch_pos.assign(I, 0);
    s->branch_fifo.assign(I, std::vector<uint8_t>());
    for (uint32_t j = 1; j < I; j++) {
        std::vector<uint8_t>& fifo = s->branch_fifo[j];
        fifo.resize(static_cast<size_t>(j) * M);
        for (uint8_t& cell : fifo) cell = dvbt_parms.cinit == 0 ? 0 : static_cast<uint8_t>(std::rand() & 0xFF);
    }
    s->nbranch = I;
    s->branch_len.resize(I);
    for (uint32_t j = 0; j < I; j++) s->branch_len[j] = j * M;
}

namespace {

// Each branch along its bytes 12 apart, in stretches that stop where its FIFO
// cell index wraps; or the widest vector form the kernels may use.
void interleave_piece(const uint8_t* src, uint32_t c, uint8_t* dst, uint8_t* const* fifo, const uint32_t* flen,
                      uint32_t* fpos) {
#if TERVANE_X86
    if (dvbUseAvx512()) return outer_detail::interleave_avx512(src, c, dst, fifo, flen, fpos);
#endif
    for (uint32_t j = 0; j < GROUP; j++) {
        if (fifo[j] == nullptr) {
            for (uint32_t g = 0; g < c; g++) dst[GROUP * g + j] = src[GROUP * g + j];
            continue;
        }
        uint8_t* f = fifo[j];
        uint32_t p = fpos[j];
        for (uint32_t g = 0; g < c;) {
            const uint32_t run = c - g < flen[j] - p ? c - g : flen[j] - p;
            for (uint32_t k = 0; k < run; k++, g++, p++) {
                const uint8_t o = f[p];
                f[p] = src[GROUP * g + j];
                dst[GROUP * g + j] = o;
            }
            if (p == flen[j]) p = 0;
        }
        fpos[j] = p;
    }
}

}  // namespace

uint32_t conv_int(dvbVect* in, dvbVect* out, convint_state* s, uint32_t maxlen, FILE* dump) {
    if (in->fill == 0 || out->fill == out->len) return 0;

    const uint32_t ngroup = dvbRingUnits(in, GROUP, out, GROUP, maxlen, GROUP);

    // Branch views for the 12 commutator positions; a position without a
    // branch FIFO passes its byte straight through.
    uint8_t* fifo[GROUP] = {};
    uint32_t flen[GROUP] = {};
    uint32_t fpos[GROUP] = {};
    for (uint32_t j = 0; j < GROUP && j < s->nbranch; j++) {
        if (s->branch_len[j] == 0) continue;
        fifo[j] = s->branch_fifo[j].data();
        flen[j] = s->branch_len[j];
        fpos[j] = s->branch_pos[j];
    }

    uint32_t r = in->head;
    const uint32_t w0 = dvbRingWritePos(out);
    uint32_t w = w0;
    // Pieces of whole groups, read as one run (the input ring itself unless
    // they cross its end) and written straight into the output ring when they
    // fit before its end.
    for (uint32_t done = 0; done < ngroup;) {
        const uint32_t c = ngroup - done < PIECE ? ngroup - done : PIECE;
        const uint32_t bytes = GROUP * c;
        const auto* src = static_cast<const uint8_t*>(dvbRingView(in, r, bytes, in_piece));
        const bool direct = out->len - w >= bytes;
        uint8_t* dst = direct ? dvbBytes(out) + w : out_piece;
        interleave_piece(src, c, dst, fifo, flen, fpos);
        r = dvbRingAdvance(r, bytes, in->len);
        w = direct ? dvbRingAdvance(w, bytes, out->len) : dvbRingPut(out, w, out_piece, bytes);
        done += c;
    }

    for (uint32_t j = 0; j < GROUP && j < s->nbranch; j++)
        if (fifo[j] != nullptr) s->branch_pos[j] = fpos[j];

    const uint32_t moved = GROUP * ngroup;
    checked_ring_write(out, w0, moved, dump);
    dvbRingConsume(in, moved);
    out->fill += moved;
    dvbMsgPrint(4, "Outer_int   : %d samples\n", static_cast<int>(moved));
    return moved;
}
