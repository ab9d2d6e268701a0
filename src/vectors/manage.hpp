// Typed signal vectors: the record, its element types, result codes and the
// operations that create, fill, convert and resize it. The same record serves as
// the ring buffer between two stages of the transmitter chain.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// Element type codes. Codes 1, 3, 4, 5 and 8 are not element types.
enum : uint32_t {
    Empty = 0,
    Bit = 2,
    Symbol = 6,
    Digital = 7,
    Real = 9,
    Complex = 10,
};

// Library result codes; each is the index of its text in dvbErrString.
enum : unsigned {
    DVB_OK = 0,
    DVB_UNKNOWN = 1,
    DVB_NOT_IMPLEMENTED = 2,
    DVB_NO_FILES = 3,
    DVB_NO_MEMORY = 4,
    DVB_EMPTY = 5,
    DVB_NOT_ALLOCATED = 6,
    DVB_EXISTS = 7,
    DVB_DIFF_SIZES = 8,
    DVB_DIFF_WIDTHS = 9,
    DVB_DIFF_TYPES = 10,
};

extern const char* const dvbErrString[11];

struct dvbComplex {
    float re;
    float im;
};

struct dvbVect {
    uint32_t type;   // element type code
    uint32_t len;    // number of elements the storage holds (ring capacity)
    uint32_t head;   // ring index of the oldest held element
    uint32_t fill;   // number of held elements
    uint8_t acc;     // accuracy in bits
    float range;     // full-scale value of a Digital vector
    char desc[16];   // NUL-terminated description
    void* data;      // element storage, owned by the record
};

// Size in bytes of one element of the given type; 0 for Empty and non-types.
size_t dvbElemSize(uint32_t type);

unsigned priv_dvbCreateVect(dvbVect** h, uint32_t type);
unsigned priv_dvbDestroyVect(dvbVect** h);

// Fresh storage of len elements set to one value. The overload follows the type:
// Bit/Symbol take an integer (low byte stored), Digital an integer value, an
// accuracy and a range, Real a double, Complex two doubles.
unsigned dvbConstVect(dvbVect* v, uint32_t type, uint32_t len, int value);
unsigned dvbConstVect(dvbVect* v, uint32_t type, uint32_t len, int value, int acc, double range);
unsigned dvbConstVect(dvbVect* v, uint32_t type, uint32_t len, double value);
unsigned dvbConstVect(dvbVect* v, uint32_t type, uint32_t len, double re, double im);

// In-place conversion. Bit to Symbol takes a width and a bit-order flag
// (0: first bit most significant); Real to Digital a width and a range.
unsigned dvbConvertVect(dvbVect* v, uint32_t type);
unsigned dvbConvertVect(dvbVect* v, uint32_t type, int width, int order);
unsigned dvbConvertVect(dvbVect* v, uint32_t type, int width, double range);

unsigned dvbResizeVect(dvbVect* v, uint32_t len);

// Typed views of the storage.
inline uint8_t* dvbBytes(dvbVect* v) { return static_cast<uint8_t*>(v->data); }
inline const uint8_t* dvbBytes(const dvbVect* v) { return static_cast<const uint8_t*>(v->data); }
inline int32_t* dvbInts(dvbVect* v) { return static_cast<int32_t*>(v->data); }
inline float* dvbReals(dvbVect* v) { return static_cast<float*>(v->data); }
inline dvbComplex* dvbCplx(dvbVect* v) { return static_cast<dvbComplex*>(v->data); }
inline const dvbComplex* dvbCplx(const dvbVect* v) { return static_cast<const dvbComplex*>(v->data); }

// Ring helpers shared by the stage functions.
inline uint32_t dvbRingFree(const dvbVect* v) { return v->len - v->fill; }
inline uint32_t dvbRingWritePos(const dvbVect* v) {
    return static_cast<uint32_t>((uint64_t{v->head} + v->fill) % v->len);
}
inline uint32_t dvbRingAdvance(uint32_t pos, uint32_t n, uint32_t len) {
    return static_cast<uint32_t>((uint64_t{pos} + n) % len);
}
// Copies n elements from src into the ring's storage from position pos on,
// wrapping at its end; returns the position after the last one.
uint32_t dvbRingPut(dvbVect* v, uint32_t pos, const void* src, uint32_t n);
// Copies n elements of the ring's storage from position pos on (wrapping) to
// dst; returns the position after the last one.
uint32_t dvbRingGet(const dvbVect* v, uint32_t pos, void* dst, uint32_t n);

// Appends to the dump file (when there is one) the n elements that sit in the
// ring from position start on, wrapping at the end of the storage.
void dvbRingDump(const dvbVect* v, uint32_t start, uint32_t n, FILE* dump);

// Marks n held elements as consumed.
inline void dvbRingConsume(dvbVect* v, uint32_t n) {
    v->fill -= n;
    v->head = dvbRingAdvance(v->head, n, v->len);
}
