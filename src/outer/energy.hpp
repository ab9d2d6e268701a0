// Energy dispersal with inversion of the first sync byte of every 8 packets.
#pragma once

#include <cstdint>
#include <cstdio>

#include "outer/mpeg2.hpp"
#include "vectors/manage.hpp"

// The dispersal sequence: 15-stage register, taps 0x6000, start 0xA9, 12032 bits
// packed into 1504 bytes. q->head is the position within the 8-packet group.
inline constexpr uint32_t ED_REGLEN = 15;
inline constexpr uint32_t ED_TAPS = 0x6000;
inline constexpr uint32_t ED_INIT = 0xA9;
inline constexpr uint32_t ED_BITS = 12032;
inline constexpr uint32_t ED_PACKET = TS_PACKET;
inline constexpr uint32_t ED_GROUP = 1504;

int32_t energy_inv(dvbVect* in, dvbVect* out, dvbVect* q, uint32_t maxlen, FILE* dump);

// The same stage with the packet length and group period as arguments; stores
// the count at *count and returns 1 when nothing could be moved, else 0.
unsigned dvbTSDisperdInvert(dvbVect* in, dvbVect* out, dvbVect* q, uint32_t plen, uint32_t period, uint32_t maxlen,
                            const char* label, FILE* dump, uint32_t* count);
