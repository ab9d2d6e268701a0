// Outer convolutional interleaver.
#include "outer/outer_int.hpp"

#include <cstdlib>

#include "frame/params.hpp"
#include "frame/print.hpp"
#include "vectors/written.hpp"

namespace {
constexpr uint32_t GROUP = 12;  // bytes per commutator cycle
}

void init_convint(convint_state* s, uint32_t I, uint32_t M) {
    s->branch_pos.assign(I, 0);
    s->branch_fifo.assign(I, std::vector<uint8_t>());
    for (uint32_t j = 1; j < I; j++) {
        std::vector<uint8_t>& fifo = s->branch_fifo[j];
        fifo.resize(static_cast<size_t>(j) * M);
        for (uint8_t& cell : fifo)
            cell = dvbt_parms.cinit == 0 ? 0 : static_cast<uint8_t>(std::rand() & 0xFF);
    }
    s->nbranch = I;
    s->branch_len.resize(I);
    for (uint32_t j = 0; j < I; j++) s->branch_len[j] = j * M;
}

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

    const uint8_t* src = dvbBytes(in);
    uint8_t* dst = dvbBytes(out);
    const uint32_t ilen = in->len, olen = out->len;
    uint32_t r = in->head;
    const uint32_t w0 = dvbRingWritePos(out);
    uint32_t w = w0;

    for (uint32_t g = 0; g < ngroup; g++) {
        for (uint32_t j = 0; j < GROUP; j++) {
            uint8_t b = src[r];
            if (++r == ilen) r = 0;
            if (fifo[j] != nullptr) {
                uint8_t& cell = fifo[j][fpos[j]];
                const uint8_t o = cell;
                cell = b;
                b = o;
                if (++fpos[j] == flen[j]) fpos[j] = 0;
            }
            dst[w] = b;
            if (++w == olen) w = 0;
        }
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
