// Pseudo-random binary sequence generator.
#include "vectors/prbs.hpp"

#include <bit>

unsigned dvbPRBSCreate(dvbVect* v, uint32_t reglen, uint32_t taps, uint32_t init, uint32_t nbits) {
    const unsigned rc = dvbConstVect(v, Bit, nbits, 0);
    if (rc != DVB_OK) return rc;
    const uint32_t mask = reglen >= 32 ? 0xFFFFFFFFu : ((uint32_t{1} << reglen) - 1u);
    uint32_t r = init;
    uint8_t* out = dvbBytes(v);
    for (uint32_t i = 0; i < nbits; ++i) {
        const uint32_t b = static_cast<uint32_t>(std::popcount(r & taps & mask)) & 1u;
        out[i] = static_cast<uint8_t>(b);
        r = (r << 1) | b;
    }
    return DVB_OK;
}
