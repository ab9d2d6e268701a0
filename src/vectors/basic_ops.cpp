// Element-wise operations on signal vectors.
#include "vectors/basic_ops.hpp"

#include <cstdlib>
#include <cstring>

unsigned dvbCopyVect(dvbVect* dst, const dvbVect* src) {
    if (dst == nullptr || src == nullptr) return DVB_EMPTY;
    if (dst->len != src->len) {
        const unsigned rc = dvbResizeVect(dst, src->len);
        if (rc != DVB_OK) return rc;
    }
    // The destination's storage was sized for its own element type; make sure it
    // can hold len elements of the source's type before copying.
    const size_t need = size_t{src->len} * dvbElemSize(src->type);
    const size_t have = size_t{dst->len} * dvbElemSize(dst->type);
    if (need > have) {
        void* p = std::realloc(dst->data, need);
        if (p == nullptr) return DVB_NO_MEMORY;
        dst->data = p;
    }
    dst->len = src->len;
    dst->type = src->type;
    dst->acc = src->acc;
    dst->range = src->range;
    std::memcpy(dst->desc, src->desc, sizeof dst->desc);
    switch (src->type) {
    case Digital:
    case Real:
    case Symbol:
        if (need > 0) std::memcpy(dst->data, src->data, need);
        return DVB_OK;
    default:
        return DVB_UNKNOWN;
    }
}
