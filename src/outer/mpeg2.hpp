// Transport stream file input.
#pragma once

#include <cstdint>
#include <cstdio>

#include "vectors/manage.hpp"

// Transport stream packets: their size, their sync byte and the PID of the
// null packets that stuff a stream to its rate.
inline constexpr uint32_t TS_PACKET = 188;
inline constexpr uint8_t TS_SYNC = 0x47;
inline constexpr uint16_t TS_NULL_PID = 0x1FFF;

// Reads up to maxlen bytes of the file into the free space of the ring.
uint32_t read_mpeg(FILE* fp, dvbVect* ts, uint32_t maxlen);
