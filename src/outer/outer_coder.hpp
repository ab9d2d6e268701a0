// Shortened Reed-Solomon RS(204,188) outer coder stage.
#pragma once

#include <cstdint>
#include <cstdio>

#include "outer/mpeg2.hpp"
#include "vectors/manage.hpp"

// A packet after the outer code: the transport packet and its 16 parity bytes.
inline constexpr uint32_t RS_PACKET = TS_PACKET + 16;

// Codes whole 188-byte packets of in into 204-byte packets of out (the packet
// followed by 16 parity bytes, highest degree first). maxlen limits the input
// bytes. Returns the number of input bytes consumed, a multiple of 188.
uint32_t rs_short204188(dvbVect* in, dvbVect* out, uint32_t maxlen, FILE* dump);
