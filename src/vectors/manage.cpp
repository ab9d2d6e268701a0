// Creation, filling, conversion and resizing of typed signal vectors.
#include "vectors/manage.hpp"

#include <cmath>
#include <cstdlib>
#include <cstring>

const char* const dvbErrString[11] = {
    "OK",
    "Unknown error",
    "Method or algorithm not yet implemented",
    "No more files to open",
    "No more memory to allocate",
    "The vector is empty",
    "The vector is not allocated",
    "The vector already exists",
    "The vectors have different sizes",
    "The vectors have different widths",
    "The vectors have different types",
};

size_t dvbElemSize(uint32_t type) {
    switch (type) {
    case Bit:
    case Symbol: return 1;
    case Digital:
    case Real: return 4;
    case Complex: return 8;
    default: return 0;
    }
}

namespace {

bool is_elem_type(uint32_t t) { return t == Bit || t == Symbol || t == Digital || t == Real || t == Complex; }

void set_desc(dvbVect* v, const char* text) {
    std::memset(v->desc, 0, sizeof v->desc);
    std::strncpy(v->desc, text, sizeof v->desc - 1);
}

// Allocates storage for n elements of the given size. A zero-sized request is
// no failure: it gives a null pointer with ok set.
void* alloc_elems(size_t n, size_t size, bool& ok) {
    ok = true;
    if (n == 0 || size == 0) return nullptr;
    void* p = std::calloc(n, size);
    if (p == nullptr) ok = false;
    return p;
}

void make_empty(dvbVect* v) {
    std::free(v->data);
    v->data = nullptr;
    v->len = 0;
    v->acc = 0;
    v->range = 0.0f;
    set_desc(v, "TBD");
}

// Replaces the storage of v by p (holding the same len) and sets the new type.
void replace_storage(dvbVect* v, void* p, uint32_t type) {
    std::free(v->data);
    v->data = p;
    v->type = type;
}

unsigned bytes_to_real(dvbVect* v) {
    bool ok;
    auto* out = static_cast<float*>(alloc_elems(v->len, sizeof(float), ok));
    if (!ok) return DVB_NO_MEMORY;
    const uint8_t* in = dvbBytes(v);
    for (uint32_t i = 0; i < v->len; ++i) out[i] = static_cast<float>(in[i]);
    replace_storage(v, out, Real);
    v->acc = 0;
    v->range = 0.0f;
    return DVB_OK;
}

unsigned pack_bits(dvbVect* v, int width, int order) {
    const uint32_t w = static_cast<uint8_t>(width);
    if (w == 0) return DVB_UNKNOWN;
    const uint32_t n = static_cast<uint32_t>((uint64_t{v->len} + w - 1) / w);
    bool ok;
    auto* out = static_cast<uint8_t*>(alloc_elems(n, 1, ok));
    if (!ok) return DVB_NO_MEMORY;
    const uint8_t* in = dvbBytes(v);
    for (uint32_t j = 0; j < n; ++j) {
        unsigned acc = 0;
        for (uint32_t k = 0; k < w; ++k) {
            const uint64_t idx = uint64_t{j} * w + k;
            // Missing bits of a last partial element count as zeros.
            const unsigned bit = idx < v->len ? in[idx] : 0u;
            const uint32_t shift = order == 0 ? w - 1 - k : k;
            if (shift < 8 * sizeof(unsigned)) acc |= bit << shift;
        }
        out[j] = static_cast<uint8_t>(acc);
    }
    replace_storage(v, out, Symbol);
    v->len = n;
    v->acc = static_cast<uint8_t>(w);
    v->range = 0.0f;
    return DVB_OK;
}

unsigned digital_to_real(dvbVect* v) {
    bool ok;
    auto* out = static_cast<float*>(alloc_elems(v->len, sizeof(float), ok));
    if (!ok) return DVB_NO_MEMORY;
    const int32_t* in = dvbInts(v);
    if (v->acc == 0) {
        for (uint32_t i = 0; i < v->len; ++i) out[i] = static_cast<float>(in[i]);
    } else {
        const float s = v->range / std::ldexp(1.0f, v->acc - 1);
        for (uint32_t i = 0; i < v->len; ++i) out[i] = static_cast<float>(in[i]) * s;
    }
    replace_storage(v, out, Real);
    return DVB_OK;
}

unsigned quantise(dvbVect* v, int width, double range) {
    bool ok;
    auto* out = static_cast<int32_t*>(alloc_elems(v->len, sizeof(int32_t), ok));
    if (!ok) return DVB_NO_MEMORY;
    const float* in = dvbReals(v);
    if (width > 0 && width <= 31) {
        // k is held as a float; the rest is evaluated in double from the double
        // range and rounded to float once, before the floor.
        const int32_t h = int32_t{1} << (width - 1);
        const float hf = static_cast<float>(h);
        const float k = static_cast<float>(hf / range);
        for (uint32_t i = 0; i < v->len; ++i) {
            const auto t = static_cast<float>((range + in[i]) * k - hf + 0.5);
            const float q = std::floor(t);
            int32_t d;
            if (!(q < hf)) d = h - 1;  // also catches NaN
            else if (q < -hf) d = -h;
            else d = static_cast<int32_t>(q);
            out[i] = d;
        }
        v->acc = static_cast<uint8_t>(width);
        v->range = static_cast<float>(range);
    } else {
        for (uint32_t i = 0; i < v->len; ++i) {
            const double t = in[i] + 0.5;
            out[i] = std::isfinite(t) && std::fabs(t) < 2147483648.0 ? static_cast<int32_t>(t) : 0;
        }
        v->acc = 0;
        v->range = 0.0f;
    }
    replace_storage(v, out, Digital);
    return DVB_OK;
}

unsigned convert(dvbVect* v, uint32_t t, int width, int order, double range) {
    if (v == nullptr) return DVB_NOT_ALLOCATED;
    if (v->type > Complex) return DVB_UNKNOWN;
    if (v->type == t && is_elem_type(t)) return DVB_OK;
    switch (v->type) {
    case Empty:
        make_empty(v);
        v->type = t;
        return DVB_OK;
    case Bit:
        if (t == Symbol) return pack_bits(v, width, order);
        if (t == Real) return bytes_to_real(v);
        return DVB_OK;
    case Symbol:
        if (t == Real) return bytes_to_real(v);
        return DVB_OK;
    case Digital:
        if (t == Real) return digital_to_real(v);
        return DVB_OK;
    case Real:
        if (t == Empty) {
            make_empty(v);
            v->type = Empty;
            return DVB_OK;
        }
        if (t == Digital) return quantise(v, width, range);
        return DVB_OK;
    case Complex: return DVB_OK;
    default: return DVB_UNKNOWN;
    }
}

// Gives v fresh zeroed storage of len elements of type t; the caller fills it.
unsigned const_prepare(dvbVect* v, uint32_t t, uint32_t len) {
    if (v == nullptr) return DVB_NOT_ALLOCATED;
    if (convert(v, t, 0, 0, 0.0) != DVB_OK || !is_elem_type(t)) return DVB_UNKNOWN;
    bool ok;
    void* p = alloc_elems(len, dvbElemSize(t), ok);
    if (!ok) return DVB_NO_MEMORY;
    std::free(v->data);
    v->data = p;
    v->len = len;
    v->type = t;
    if (t == Bit) {
        v->acc = 1;
        v->range = 0.0f;
    }
    return DVB_OK;
}

}  // namespace

unsigned priv_dvbCreateVect(dvbVect** h, uint32_t type) {
    if (*h != nullptr) return (*h)->type == type ? DVB_EXISTS : DVB_DIFF_TYPES;
    auto* v = static_cast<dvbVect*>(std::calloc(1, sizeof(dvbVect)));
    if (v == nullptr) return DVB_NO_MEMORY;
    v->type = type;
    set_desc(v, "TBD");
    *h = v;
    return DVB_OK;
}

unsigned priv_dvbDestroyVect(dvbVect** h) {
    if (*h == nullptr) return DVB_NOT_ALLOCATED;
    std::free((*h)->data);
    std::free(*h);
    *h = nullptr;
    return DVB_OK;
}

unsigned dvbConstVect(dvbVect* v, uint32_t type, uint32_t len, int value) {
    switch (type) {
    case Digital: return dvbConstVect(v, type, len, value, 0, 0.0);
    case Real: return dvbConstVect(v, type, len, static_cast<double>(value));
    case Complex: return dvbConstVect(v, type, len, static_cast<double>(value), 0.0);
    default: break;
    }
    const unsigned rc = const_prepare(v, type, len);
    if (rc != DVB_OK) return rc;
    if (len > 0) std::memset(v->data, static_cast<uint8_t>(value), len);
    return DVB_OK;
}

unsigned dvbConstVect(dvbVect* v, uint32_t type, uint32_t len, int value, int acc, double range) {
    if (type != Digital) return dvbConstVect(v, type, len, value);
    const unsigned rc = const_prepare(v, type, len);
    if (rc != DVB_OK) return rc;
    v->acc = static_cast<uint8_t>(acc);
    v->range = static_cast<float>(range);
    int32_t* d = dvbInts(v);
    for (uint32_t i = 0; i < len; ++i) d[i] = value;
    return DVB_OK;
}

unsigned dvbConstVect(dvbVect* v, uint32_t type, uint32_t len, double value) {
    if (type == Complex) return dvbConstVect(v, type, len, value, 0.0);
    if (type != Real) return dvbConstVect(v, type, len, static_cast<int>(value));
    const unsigned rc = const_prepare(v, type, len);
    if (rc != DVB_OK) return rc;
    float* d = dvbReals(v);
    for (uint32_t i = 0; i < len; ++i) d[i] = static_cast<float>(value);
    return DVB_OK;
}

unsigned dvbConstVect(dvbVect* v, uint32_t type, uint32_t len, double re, double im) {
    if (type != Complex) return dvbConstVect(v, type, len, re);
    const unsigned rc = const_prepare(v, type, len);
    if (rc != DVB_OK) return rc;
    dvbComplex* d = dvbCplx(v);
    for (uint32_t i = 0; i < len; ++i) d[i] = {static_cast<float>(re), static_cast<float>(im)};
    return DVB_OK;
}

unsigned dvbConvertVect(dvbVect* v, uint32_t type) { return convert(v, type, 0, 0, 0.0); }

unsigned dvbConvertVect(dvbVect* v, uint32_t type, int width, int order) { return convert(v, type, width, order, 0.0); }

unsigned dvbConvertVect(dvbVect* v, uint32_t type, int width, double range) {
    return convert(v, type, width, 0, range);
}

unsigned dvbResizeVect(dvbVect* v, uint32_t len) {
    if (v == nullptr) return DVB_NOT_ALLOCATED;
    if (v->type != Bit && v->type != Symbol && v->type != Digital && v->type != Real) return DVB_UNKNOWN;
    if (len == 0) {
        std::free(v->data);
        v->data = nullptr;
        v->len = 0;
        v->type = Empty;
        return DVB_OK;
    }
    const size_t es = dvbElemSize(v->type);
    void* p = std::realloc(v->data, size_t{len} * es);
    if (p == nullptr) return DVB_NO_MEMORY;
    if (len > v->len) std::memset(static_cast<uint8_t*>(p) + size_t{v->len} * es, 0, size_t{len - v->len} * es);
    v->data = p;
    v->len = len;
    return DVB_OK;
}

uint32_t dvbRingUnits(const dvbVect* in, uint32_t in_unit, const dvbVect* out, uint32_t out_unit, uint32_t maxlen,
                      uint32_t max_unit) {
    uint32_t n = maxlen / max_unit;
    if (in != nullptr && in->fill / in_unit < n) n = in->fill / in_unit;
    if (out != nullptr && dvbRingFree(out) / out_unit < n) n = dvbRingFree(out) / out_unit;
    return n;
}

uint32_t dvbRingPut(dvbVect* v, uint32_t pos, const void* src, uint32_t n) {
    const size_t es = dvbElemSize(v->type);
    const uint32_t first = dvbRingRun(v, pos, n);
    const auto* from = static_cast<const uint8_t*>(src);
    std::memcpy(static_cast<uint8_t*>(v->data) + size_t{pos} * es, from, size_t{first} * es);
    if (n > first) std::memcpy(v->data, from + size_t{first} * es, size_t{n - first} * es);
    return dvbRingAdvance(pos, n, v->len);
}

uint32_t dvbRingGet(const dvbVect* v, uint32_t pos, void* dst, uint32_t n) {
    const size_t es = dvbElemSize(v->type);
    const uint32_t first = dvbRingRun(v, pos, n);
    auto* to = static_cast<uint8_t*>(dst);
    std::memcpy(to, static_cast<const uint8_t*>(v->data) + size_t{pos} * es, size_t{first} * es);
    if (n > first) std::memcpy(to + size_t{first} * es, v->data, size_t{n - first} * es);
    return dvbRingAdvance(pos, n, v->len);
}

const void* dvbRingView(const dvbVect* v, uint32_t pos, uint32_t n, void* scratch) {
    if (dvbRingRun(v, pos, n) == n) return static_cast<const uint8_t*>(v->data) + size_t{pos} * dvbElemSize(v->type);
    dvbRingGet(v, pos, scratch, n);
    return scratch;
}

size_t dvbRingRead(FILE* fp, dvbVect* v, uint32_t pos, uint32_t n) {
    const size_t es = dvbElemSize(v->type);
    const uint32_t first = dvbRingRun(v, pos, n);
    size_t got = std::fread(static_cast<uint8_t*>(v->data) + size_t{pos} * es, es, first, fp);
    if (n > first) got += std::fread(v->data, es, n - first, fp);
    return got;
}

size_t dvbRingWrite(const dvbVect* v, uint32_t pos, uint32_t n, FILE* fp) {
    const size_t es = dvbElemSize(v->type);
    const uint32_t first = dvbRingRun(v, pos, n);
    size_t done = std::fwrite(static_cast<const uint8_t*>(v->data) + size_t{pos} * es, es, first, fp);
    if (done == first && n > first) done += std::fwrite(v->data, es, n - first, fp);
    return done;
}
