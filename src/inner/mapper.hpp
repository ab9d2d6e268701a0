// QAM constellation (QPSK, 16-QAM, 64-QAM; uniform or hierarchical) and the
// mapper from symbol words to complex data cells of unit mean power.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>

#include "vectors/manage.hpp"

// Builds the constellation table for the constellation and hierarchy of the
// transmission parameters. Returns 0.
uint32_t dvbQAMConstGenerate();

// Maps each symbol word to its constellation point, one cell per word. maxlen
// limits the cells. Returns the cells produced.
int32_t qam_map(dvbVect* in, dvbVect* out, uint32_t maxlen, FILE* dump);

// Read-only view of the whole table (64 entries; the first 4, 16 or 64 are set).
std::span<const dvbComplex, 64> dvbQAMTable();
