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
    uint32_t type;  // element type code
    uint32_t len;   // number of elements the storage holds (ring capacity)
    uint32_t head;  // ring index of the oldest held element
    uint32_t fill;  // number of held elements
    uint8_t acc;    // accuracy in bits
    float range;    // full-scale value of a Digital vector
    char desc[16];  // NUL-terminated description
    void* data;     // element storage, owned by the record
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

// The ring toolkit shared by every stage function.

inline uint32_t dvbRingFree(const dvbVect* v) { return v->len - v->fill; }
inline uint32_t dvbRingWritePos(const dvbVect* v) {
    return static_cast<uint32_t>((uint64_t{v->head} + v->fill) % v->len);
}
inline uint32_t dvbRingAdvance(uint32_t pos, uint32_t n, uint32_t len) {
    return static_cast<uint32_t>((uint64_t{pos} + n) % len);
}

// Whole units a stage can move in one call: the smallest of the held input
// elements / in_unit, the free output elements / out_unit and maxlen /
// max_unit. A null in (a producer) or out (a consumer) sets no bound.
uint32_t dvbRingUnits(const dvbVect* in, uint32_t in_unit, const dvbVect* out, uint32_t out_unit, uint32_t maxlen,
                      uint32_t max_unit);

// Elements from position pos on, at most n, that lie before the end of the storage.
inline uint32_t dvbRingRun(const dvbVect* v, uint32_t pos, uint32_t n) { return v->len - pos < n ? v->len - pos : n; }

// Copies n elements from src into the ring's storage from position pos on,
// wrapping at its end; returns the position after the last one.
uint32_t dvbRingPut(dvbVect* v, uint32_t pos, const void* src, uint32_t n);
// Copies n elements of the ring's storage from position pos on (wrapping) to
// dst; returns the position after the last one.
uint32_t dvbRingGet(const dvbVect* v, uint32_t pos, void* dst, uint32_t n);
// The n elements from position pos on as one contiguous run: the storage
// itself when they do not cross its end, else a copy in scratch.
const void* dvbRingView(const dvbVect* v, uint32_t pos, uint32_t n, void* scratch);

// Reads up to n elements from the file into the storage from pos on, in two
// reads when they cross its end (the second is made even when the first came
// back short); returns the elements read.
size_t dvbRingRead(FILE* fp, dvbVect* v, uint32_t pos, uint32_t n);
// Writes the n elements from pos on to the file, in two writes when they
// cross the end of the storage (the second only when the first was whole);
// returns the elements written.
size_t dvbRingWrite(const dvbVect* v, uint32_t pos, uint32_t n, FILE* fp);

// Marks n held elements as consumed.
inline void dvbRingConsume(dvbVect* v, uint32_t n) {
    v->fill -= n;
    v->head = dvbRingAdvance(v->head, n, v->len);
}
