// Pseudo-random binary sequences from a linear feedback shift register.
#pragma once

#include <cstdint>

#include "vectors/manage.hpp"

// Fills v with nbits bits: each bit is the parity of the low reglen bits of
// (register AND taps), fed back into bit 0 of the register.
unsigned dvbPRBSCreate(dvbVect* v, uint32_t reglen, uint32_t taps, uint32_t init, uint32_t nbits);
