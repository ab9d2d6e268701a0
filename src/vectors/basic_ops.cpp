// Element-wise operations on signal vectors.
#include "vectors/basic_ops.hpp"

#include <cmath>
#include <cstdint>
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
    default: return DVB_UNKNOWN;
    }
}

namespace {

// Checks shared by the two-operand operations, then sizes out like a.
unsigned check_two(dvbVect* out, const dvbVect* a, const dvbVect* b) {
    if (out == nullptr || a == nullptr || b == nullptr) return DVB_EMPTY;
    if (a->type != b->type) return DVB_DIFF_TYPES;
    if (a->len != b->len) return DVB_DIFF_SIZES;
    if (a->acc != b->acc) return DVB_DIFF_WIDTHS;
    if (out->type != a->type) return DVB_DIFF_TYPES;
    if (out->len != a->len) return dvbResizeVect(out, a->len);
    return DVB_OK;
}

unsigned check_one(dvbVect* out, const dvbVect* a) {
    if (out == nullptr || a == nullptr) return DVB_EMPTY;
    if (out->type != a->type) return DVB_DIFF_TYPES;
    if (out->len != a->len) return dvbResizeVect(out, a->len);
    return DVB_OK;
}

unsigned check_const(dvbVect* out, const dvbVect* a) {
    if (out == nullptr || a == nullptr) return DVB_EMPTY;
    if (out->acc != a->acc) return DVB_DIFF_WIDTHS;
    if (out->type != a->type) return DVB_DIFF_TYPES;
    if (out->len != a->len) return dvbResizeVect(out, a->len);
    return DVB_OK;
}

const int32_t* ints(const dvbVect* v) { return static_cast<const int32_t*>(v->data); }
const float* reals(const dvbVect* v) { return static_cast<const float*>(v->data); }

// Sum or difference wrapped into the two's complement range of acc bits: the
// 32-bit result is masked to acc bits and sign-extended from bit acc-1.
// Accuracies of 0 or 32 and more keep the plain 32-bit result.
int32_t wrap(uint32_t raw, unsigned acc) {
    if (acc > 0 && acc < 32) {
        const uint32_t mask = (uint32_t{1} << acc) - 1u;
        raw &= mask;
        if (raw & (uint32_t{1} << (acc - 1))) raw |= ~mask;
    }
    return static_cast<int32_t>(raw);
}

void copy_scale(dvbVect* out, const dvbVect* a) {
    out->acc = a->acc;
    out->range = a->range;
}

}  // namespace

int32_t dvbSaturateInt(double x) {
    if (std::isnan(x)) return 0;
    if (x >= 2147483647.0) return INT32_MAX;
    if (x <= -2147483648.0) return INT32_MIN;
    return static_cast<int32_t>(x);
}

unsigned dvbMultVect(dvbVect* out, const dvbVect* a, const dvbVect* b, int flag) {
    const unsigned rc = check_two(out, a, b);
    if (rc != DVB_OK) return rc;
    if (a->type == Digital) return DVB_NOT_IMPLEMENTED;
    if (a->type != Real) return DVB_UNKNOWN;
    const float* x = reals(a);
    const float* y = reals(b);
    float* z = dvbReals(out);
    for (uint32_t i = 0; i < a->len; ++i) z[i] = flag ? x[i] * y[i] : x[i] / y[i];
    return DVB_OK;
}

unsigned dvbAddVect(dvbVect* out, const dvbVect* a, const dvbVect* b, int flag) {
    const unsigned rc = check_two(out, a, b);
    if (rc != DVB_OK) return rc;
    if (a->type == Digital) {
        const int32_t* x = ints(a);
        const int32_t* y = ints(b);
        int32_t* z = dvbInts(out);
        const unsigned acc = a->acc;
        for (uint32_t i = 0; i < a->len; ++i) {
            const uint32_t ux = static_cast<uint32_t>(x[i]);
            const uint32_t uy = static_cast<uint32_t>(y[i]);
            z[i] = wrap(flag ? ux + uy : ux - uy, acc);
        }
        copy_scale(out, a);
        return DVB_OK;
    }
    if (a->type != Real) return DVB_UNKNOWN;
    const float* x = reals(a);
    const float* y = reals(b);
    float* z = dvbReals(out);
    for (uint32_t i = 0; i < a->len; ++i) z[i] = flag ? x[i] + y[i] : x[i] - y[i];
    return DVB_OK;
}

unsigned dvbNegVect(dvbVect* out, const dvbVect* a) {
    const unsigned rc = check_one(out, a);
    if (rc != DVB_OK) return rc;
    if (a->type == Digital) {
        const int32_t* x = ints(a);
        int32_t* z = dvbInts(out);
        for (uint32_t i = 0; i < a->len; ++i) z[i] = static_cast<int32_t>(0u - static_cast<uint32_t>(x[i]));
        copy_scale(out, a);
        return DVB_OK;
    }
    if (a->type != Real) return DVB_UNKNOWN;
    const float* x = reals(a);
    float* z = dvbReals(out);
    for (uint32_t i = 0; i < a->len; ++i) z[i] = -x[i];
    return DVB_OK;
}

unsigned dvbInvVect(dvbVect* out, const dvbVect* a) {
    const unsigned rc = check_one(out, a);
    if (rc != DVB_OK) return rc;
    if (a->type == Digital) {
        const int32_t* x = ints(a);
        int32_t* z = dvbInts(out);
        const float full = std::ldexp(1.0f, static_cast<int>(a->acc) - 1);
        for (uint32_t i = 0; i < a->len; ++i) {
            const float q = full / static_cast<float>(x[i]);
            z[i] = dvbSaturateInt(std::floor(static_cast<double>(q) + 0.5));
        }
        copy_scale(out, a);
        return DVB_OK;
    }
    if (a->type != Real) return DVB_UNKNOWN;
    const float* x = reals(a);
    float* z = dvbReals(out);
    for (uint32_t i = 0; i < a->len; ++i) z[i] = 1.0f / x[i];
    return DVB_OK;
}

unsigned dvbMultConst(dvbVect* out, const dvbVect* a, double c) {
    const unsigned rc = check_const(out, a);
    if (rc != DVB_OK) return rc;
    if (a->type == Digital) return DVB_NOT_IMPLEMENTED;
    if (a->type != Real) return DVB_UNKNOWN;
    const float k = static_cast<float>(c);
    const float* x = reals(a);
    float* z = dvbReals(out);
    for (uint32_t i = 0; i < a->len; ++i) z[i] = x[i] * k;
    return DVB_OK;
}

unsigned dvbAddConst(dvbVect* out, const dvbVect* a, int c) {
    if (a != nullptr && a->type == Real) return dvbAddConst(out, a, static_cast<double>(c));
    const unsigned rc = check_const(out, a);
    if (rc != DVB_OK) return rc;
    if (a->type != Digital) return DVB_UNKNOWN;
    const int32_t* x = ints(a);
    int32_t* z = dvbInts(out);
    const uint32_t uc = static_cast<uint32_t>(c);
    for (uint32_t i = 0; i < a->len; ++i) z[i] = wrap(static_cast<uint32_t>(x[i]) + uc, a->acc);
    copy_scale(out, a);
    return DVB_OK;
}

unsigned dvbAddConst(dvbVect* out, const dvbVect* a, double c) {
    const unsigned rc = check_const(out, a);
    if (rc != DVB_OK) return rc;
    if (a->type != Real) return DVB_UNKNOWN;
    const float k = static_cast<float>(c);
    const float* x = reals(a);
    float* z = dvbReals(out);
    for (uint32_t i = 0; i < a->len; ++i) z[i] = x[i] + k;
    return DVB_OK;
}
