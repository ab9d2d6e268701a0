// Convolutional byte interleaver (I branches, depth M) of the outer coder.
#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

#include "vectors/manage.hpp"

// State of one interleaver: branch j is a FIFO of j*M bytes, read and then
// rewritten at cell branch_pos[j] on each visit.
struct convint_state {
    uint32_t nbranch = 0;
    std::vector<uint32_t> branch_len;
    std::vector<std::vector<uint8_t>> branch_fifo;
    std::vector<uint32_t> branch_pos;
};

// Creates the branch FIFOs. Their initial content is zero when dvbt_parms.cinit
// is 0, else the low bytes of successive rand() values (branch 1 first).
void init_convint(convint_state* s, uint32_t I, uint32_t M);

// Interleaves whole groups of 12 bytes, the commutator at branch 0 at the start
// of every group. maxlen limits the bytes moved. Returns the bytes moved.
uint32_t conv_int(dvbVect* in, dvbVect* out, convint_state* s, uint32_t maxlen, FILE* dump);
