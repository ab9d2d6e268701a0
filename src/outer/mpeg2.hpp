// Transport stream file input.
#pragma once

#include <cstdint>
#include <cstdio>

#include "vectors/manage.hpp"

// Reads up to maxlen bytes of the file into the free space of the ring.
uint32_t read_mpeg(FILE* fp, dvbVect* ts, uint32_t maxlen);
