// Vector generators: naming and linear ramps.
#include "vectors/sources.hpp"

#include <cmath>
#include <cstring>

#include "vectors/basic_ops.hpp"

namespace {

// Type check and resize shared by both forms; a zero count leaves nothing to fill.
unsigned ramp_prepare(dvbVect* v, uint32_t n, bool& fill) {
    fill = false;
    if (v == nullptr) return DVB_NOT_ALLOCATED;
    if (v->type != Digital && v->type != Real) return DVB_UNKNOWN;
    const unsigned rc = dvbResizeVect(v, n);
    if (rc != DVB_OK) return rc;
    fill = n > 0;
    return DVB_OK;
}

// A single-element ramp has no step: it holds its start value.
float ramp_divisor(uint32_t n) { return n > 1 ? static_cast<float>(n - 1) : 1.0f; }

}  // namespace

unsigned dvbNameVect(dvbVect* v, const char* name) {
    if (v == nullptr) return DVB_NOT_ALLOCATED;
    if (name == nullptr) return DVB_OK;
    const size_t n = std::strlen(name);
    if (n < sizeof v->desc) {
        std::memset(v->desc, 0, sizeof v->desc);
        std::memcpy(v->desc, name, n);
    }
    return DVB_OK;
}

unsigned dvbLinSpaceVect(dvbVect* v, uint32_t n, int start, int end, int acc, double range) {
    if (v != nullptr && v->type == Real)
        return dvbLinSpaceVect(v, n, static_cast<double>(start), static_cast<double>(end));
    bool fill;
    const unsigned rc = ramp_prepare(v, n, fill);
    if (rc != DVB_OK || !fill) return rc;
    v->acc = static_cast<uint8_t>(acc);
    v->range = static_cast<float>(range);
    // The difference is taken on 64 bits so that extreme end points cannot overflow.
    const float diff = static_cast<float>(int64_t{end} - int64_t{start});
    const float step = n > 1 ? diff / ramp_divisor(n) : 0.0f;
    int32_t* d = dvbInts(v);
    for (uint32_t i = 0; i < n; ++i) {
        const float inc = static_cast<float>(i) * step;
        d[i] = dvbSaturateInt(std::floor(static_cast<double>(start) + 0.5 + static_cast<double>(inc)));
    }
    return DVB_OK;
}

unsigned dvbLinSpaceVect(dvbVect* v, uint32_t n, double start, double end) {
    bool fill;
    if (v != nullptr && v->type == Digital) return DVB_UNKNOWN;
    const unsigned rc = ramp_prepare(v, n, fill);
    if (rc != DVB_OK || !fill) return rc;
    const float s = static_cast<float>(start);
    const float e = static_cast<float>(end);
    const float step = n > 1 ? (e - s) / ramp_divisor(n) : 0.0f;
    float* d = dvbReals(v);
    for (uint32_t i = 0; i < n; ++i) d[i] = static_cast<float>(i) * step + s;
    return DVB_OK;
}
