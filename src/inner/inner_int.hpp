// Inner interleaving: the bit interleaver, which demultiplexes the punctured
// bits onto 2, 4 or 6 sub-streams, interleaves each in blocks of 126 and packs
// them into symbol words, and the symbol interleaver, which permutes the words
// within blocks of one OFDM symbol's data cells.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>

#include "vectors/manage.hpp"

// Bit interleaver, whole blocks of 126 words. in_hp is the only input of a
// non-hierarchical run; in hierarchical transmission every word takes 2 bits
// from in_hp and the rest from in_lp (which may be null otherwise). maxlen
// limits the HP (or only) input bits. Returns the HP (or only) bits consumed.
uint32_t bit_interleave(dvbVect* in_hp, dvbVect* in_lp, dvbVect* out, uint32_t maxlen, FILE* dump);

// Builds the symbol interleaver permutation H for the mode (8k when in-depth
// interleaving is on). Returns 0.
int32_t dvbSymIntAddrGenerate();

// Symbol interleaver, whole blocks of 1512, 3024 or 6048 words; even blocks
// apply H, odd blocks its inverse. maxlen limits the words. Returns the words
// moved.
int32_t symbol_interleave(dvbVect* in, dvbVect* out, uint32_t maxlen, FILE* dump);

// The block counter (0..67) that selects the direction of the next block.
int32_t dvbSymIntBlockNum();
