// Vector files and the text printer of signal vectors.
//
// Native file: a 45-byte header written field by field, little-endian, no gaps:
//   0  16  magic "mtDVB v0.2b", NUL-padded (not checked on reading)
//  16   4  type        20  4  len        24  1  acc
//  25   4  range (IEEE single)           29 16  desc, NUL-terminated
//  45 ...  elements: 1 byte each for Bit and Symbol, 4 bytes little-endian each
//          for Digital (signed) and Real (IEEE single); none for other types.
// A file of length 0 reads back as an Empty vector (as resizing to 0 gives);
// files of any type other than Bit, Symbol, Digital and Real are refused.
//
// MAT-file (Level 4): five little-endian int32 (type code 0, rows = len,
// columns 1, imaginary flag 0, name length 7), the name, then the elements as
// 8-byte little-endian doubles. Type code 0 announces exactly that layout, so
// every vector is written that way whatever its length and element type, and
// any Level 4 reader can load it; the values are those of the library's
// conversion to Real with accuracy 0 (Bit and Symbol unsigned, Digital the plain
// integers). The name is the first 6 characters of desc plus a terminating NUL.
// The writer never modifies the caller's vector. The reader accepts type code 0
// with imaginary flag 0 only, reads rows x columns doubles (a matrix arrives as
// its elements in column order) and makes the vector Real with acc 0, range 0.0
// and desc from the first 15 characters of the name; doubles beyond the float
// range become infinities.
//
// Reading never trusts the header: the elements are read into fresh storage
// that grows with the data actually present, so a huge len in a short file
// fails cleanly, and the vector is replaced only once the whole file was read.
// Any failure leaves the vector exactly as it was; head and fill are never
// touched.
#include "vectors/dumps.hpp"

#include <cfloat>
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* kLibVersion = "0.2b";
constexpr size_t kHeaderSize = 45;
constexpr size_t kMatHeaderSize = 20;
constexpr uint32_t kMatNameLen = 7;

bool is_listed_type(uint32_t t) { return t == Bit || t == Symbol || t == Digital || t == Real; }

void put_u32(uint8_t* p, uint32_t x) {
    for (size_t i = 0; i < sizeof x; ++i) p[i] = static_cast<uint8_t>(x >> (8 * i));
}

uint32_t get_u32(const uint8_t* p) {
    uint32_t x = 0;
    for (size_t i = 0; i < sizeof x; ++i) x |= uint32_t{p[i]} << (8 * i);
    return x;
}

void put_u64(uint8_t* p, uint64_t x) {
    for (size_t i = 0; i < sizeof x; ++i) p[i] = static_cast<uint8_t>(x >> (8 * i));
}

uint64_t get_u64(const uint8_t* p) {
    uint64_t x = 0;
    for (size_t i = 0; i < sizeof x; ++i) x |= uint64_t{p[i]} << (8 * i);
    return x;
}

uint32_t float_bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}

float bits_float(uint32_t u) {
    float f;
    std::memcpy(&f, &u, sizeof f);
    return f;
}

// Narrows a double read from a file to float; values beyond the float range
// become infinities explicitly rather than through an out-of-range conversion.
float narrow(double x) {
    if (std::isfinite(x) && std::fabs(x) > static_cast<double>(FLT_MAX)) return x > 0 ? HUGE_VALF : -HUGE_VALF;
    return static_cast<float>(x);
}

// Closes the file when it goes out of scope.
struct FileCloser {
    FILE* f;
    ~FileCloser() {
        if (f != nullptr) std::fclose(f);
    }
};

bool write_all(FILE* f, const void* p, size_t n) { return n == 0 || std::fwrite(p, 1, n, f) == n; }

// Writes the elements of a 4-byte type little-endian, a block at a time.
bool write_words(FILE* f, const dvbVect* v) {
    uint8_t buf[4096];
    const auto* src = static_cast<const uint8_t*>(v->data);
    for (uint32_t i = 0; i < v->len;) {
        const uint32_t n = v->len - i < sizeof buf / 4 ? v->len - i : static_cast<uint32_t>(sizeof buf / 4);
        for (uint32_t k = 0; k < n; ++k) {
            uint32_t w;
            std::memcpy(&w, src + 4 * size_t{i + k}, 4);
            put_u32(buf + 4 * k, w);
        }
        if (!write_all(f, buf, 4 * size_t{n})) return false;
        i += n;
    }
    return true;
}

bool write_native(FILE* f, const dvbVect* v) {
    uint8_t h[kHeaderSize] = {};
    std::snprintf(reinterpret_cast<char*>(h), 16, "mtDVB v%s", kLibVersion);
    put_u32(h + 16, v->type);
    put_u32(h + 20, v->len);
    h[24] = v->acc;
    put_u32(h + 25, float_bits(v->range));
    // desc up to its first NUL (at most 15 characters), zero-padded.
    for (size_t i = 0; i < 15 && v->desc[i] != '\0'; ++i) h[29 + i] = static_cast<uint8_t>(v->desc[i]);
    if (!write_all(f, h, sizeof h)) return false;
    switch (v->type) {
    case Bit:
    case Symbol: return write_all(f, v->data, v->len);
    case Digital:
    case Real: return write_words(f, v);
    default: return true;
    }
}

double element_value(const dvbVect* v, uint32_t i) {
    switch (v->type) {
    case Bit:
    case Symbol: return static_cast<const uint8_t*>(v->data)[i];
    case Digital: return static_cast<const int32_t*>(v->data)[i];
    default: return static_cast<const float*>(v->data)[i];
    }
}

bool write_mat(FILE* f, const dvbVect* v) {
    uint8_t h[kMatHeaderSize + kMatNameLen] = {};
    put_u32(h + 0, 0);  // little-endian IEEE doubles, full numeric matrix
    put_u32(h + 4, v->len);
    put_u32(h + 8, 1);
    put_u32(h + 12, 0);
    put_u32(h + 16, kMatNameLen);
    for (size_t i = 0; i < kMatNameLen - 1 && v->desc[i] != '\0'; ++i)
        h[kMatHeaderSize + i] = static_cast<uint8_t>(v->desc[i]);
    if (!write_all(f, h, sizeof h)) return false;
    uint8_t buf[4096];
    for (uint32_t i = 0; i < v->len;) {
        const uint32_t n = v->len - i < sizeof buf / 8 ? v->len - i : static_cast<uint32_t>(sizeof buf / 8);
        for (uint32_t k = 0; k < n; ++k) {
            const double d = element_value(v, i + k);
            uint64_t u;
            std::memcpy(&u, &d, sizeof u);
            put_u64(buf + 8 * k, u);
        }
        if (!write_all(f, buf, 8 * size_t{n})) return false;
        i += n;
    }
    return true;
}

// Reads exactly n bytes into freshly allocated storage. The storage grows with
// the data actually read, so a length field larger than the file costs no more
// memory than the file holds. Returns 0, 1 when the file ends early, 4 when
// memory runs out; on failure nothing stays allocated.
unsigned read_exact(FILE* f, size_t n, uint8_t** out) {
    *out = nullptr;
    constexpr size_t kFirstBlock = size_t{1} << 20;
    uint8_t* buf = nullptr;
    size_t cap = 0;
    size_t got = 0;
    while (got < n) {
        if (got == cap) {
            size_t next = cap == 0 ? kFirstBlock : cap * 2;
            if (next > n || next < cap) next = n;
            void* p = std::realloc(buf, next);
            if (p == nullptr) {
                std::free(buf);
                return DVB_NO_MEMORY;
            }
            buf = static_cast<uint8_t*>(p);
            cap = next;
        }
        const size_t want = cap - got;
        const size_t r = std::fread(buf + got, 1, want, f);
        got += r;
        if (r < want) {
            std::free(buf);
            return DVB_UNKNOWN;
        }
    }
    *out = buf;
    return DVB_OK;
}

// Replaces the content of v by what was read; storage ownership moves to v.
void install(dvbVect* v, uint32_t type, uint32_t len, uint8_t acc, float range, const char* desc, void* data) {
    std::free(v->data);
    v->data = data;
    // A length of 0 leaves the vector Empty, as resizing to 0 does.
    v->type = len > 0 ? type : Empty;
    v->len = len;
    v->acc = acc;
    v->range = range;
    std::memset(v->desc, 0, sizeof v->desc);
    for (size_t i = 0; i + 1 < sizeof v->desc && desc[i] != '\0'; ++i) v->desc[i] = desc[i];
}

unsigned read_native(FILE* f, dvbVect* v) {
    uint8_t h[kHeaderSize];
    if (std::fread(h, 1, sizeof h, f) != sizeof h) return DVB_UNKNOWN;
    const uint32_t type = get_u32(h + 16);
    const uint32_t len = get_u32(h + 20);
    if (!is_listed_type(type)) return DVB_UNKNOWN;
    char desc[16];
    std::memcpy(desc, h + 29, sizeof desc);
    desc[15] = '\0';
    const size_t es = dvbElemSize(type);
    if (len > SIZE_MAX / es) return DVB_NO_MEMORY;
    uint8_t* data = nullptr;
    const unsigned rc = read_exact(f, size_t{len} * es, &data);
    if (rc != DVB_OK) return rc;
    if (es == 4) {
        for (uint32_t i = 0; i < len; ++i) {
            const uint32_t w = get_u32(data + 4 * size_t{i});
            std::memcpy(data + 4 * size_t{i}, &w, 4);
        }
    }
    install(v, type, len, h[24], bits_float(get_u32(h + 25)), desc, data);
    return DVB_OK;
}

unsigned read_mat(FILE* f, dvbVect* v) {
    uint8_t h[kMatHeaderSize];
    if (std::fread(h, 1, sizeof h, f) != sizeof h) return DVB_UNKNOWN;
    const uint32_t code = get_u32(h);
    const auto rows = static_cast<int32_t>(get_u32(h + 4));
    const auto cols = static_cast<int32_t>(get_u32(h + 8));
    const uint32_t imag = get_u32(h + 12);
    const auto namlen = static_cast<int32_t>(get_u32(h + 16));
    if (code != 0 || imag != 0 || rows < 0 || cols < 0 || namlen < 0) return DVB_UNKNOWN;
    const uint64_t count = uint64_t(rows) * uint64_t(cols);
    if (count > UINT32_MAX) return DVB_UNKNOWN;
    if (count > SIZE_MAX / 8) return DVB_NO_MEMORY;

    // The name: its first 15 bytes are kept, the rest is skipped.
    char name[16] = {};
    const size_t keep = namlen < 15 ? static_cast<size_t>(namlen) : 15;
    if (std::fread(name, 1, keep, f) != keep) return DVB_UNKNOWN;
    if (static_cast<size_t>(namlen) > keep &&
        std::fseek(f, static_cast<long>(static_cast<size_t>(namlen) - keep), SEEK_CUR) != 0)
        return DVB_UNKNOWN;

    uint8_t* raw = nullptr;
    const unsigned rc = read_exact(f, static_cast<size_t>(count) * 8, &raw);
    if (rc != DVB_OK) return rc;
    float* data = nullptr;
    if (count > 0) {
        data = static_cast<float*>(std::malloc(static_cast<size_t>(count) * sizeof(float)));
        if (data == nullptr) {
            std::free(raw);
            return DVB_NO_MEMORY;
        }
        for (size_t i = 0; i < count; ++i) {
            const uint64_t u = get_u64(raw + 8 * i);
            double d;
            std::memcpy(&d, &u, sizeof d);
            data[i] = narrow(d);
        }
    }
    std::free(raw);
    install(v, Real, static_cast<uint32_t>(count), 0, 0.0f, name, data);
    return DVB_OK;
}

const char* type_name(const dvbVect* v) {
    if (v == nullptr) return "Unallocated";
    switch (v->type) {
    case Empty: return "Empty";
    case Bit: return "Bit";
    case Symbol: return "Symbol";
    case Digital: return "Digital";
    case Real: return "Real";
    default: return "Unknown";
    }
}

void print_element(FILE* out, const dvbVect* v, uint32_t i, bool index, const char* prefix, int width) {
    if (index) std::fprintf(out, "%s%*u :", prefix, width, i);
    switch (v->type) {
    case Bit:
    case Symbol: std::fprintf(out, "  %d\n", static_cast<int>(static_cast<const uint8_t*>(v->data)[i])); break;
    case Digital: std::fprintf(out, "  %+d\n", static_cast<const int32_t*>(v->data)[i]); break;
    default: std::fprintf(out, "  %+.6f\n", static_cast<double>(static_cast<const float*>(v->data)[i])); break;
    }
}

// Index column width: ceil(log10(len)) + 1, computed on integers.
int index_width(uint32_t len) {
    int digits = 0;
    for (uint64_t p = 1; p < len; p *= 10) ++digits;
    return digits + 1;
}

void print_listing(FILE* out, const dvbVect* v, uint16_t flags, const char* prefix) {
    if (!is_listed_type(v->type) || (v->len > 0 && v->data == nullptr)) return;
    const bool index = (flags & DVB_PRINT_INDEX) != 0;
    const int width = index_width(v->len);
    const uint32_t len = v->len;
    auto range = [&](uint32_t from, uint32_t to) {
        for (uint32_t i = from; i < to; ++i) print_element(out, v, i, index, prefix, width);
    };
    if (!(flags & DVB_PRINT_SHORT)) {
        range(0, len);
        return;
    }
    const uint32_t first = len >= 40 ? 20 : len / 2;
    const uint32_t last = len >= 40 ? len - 20 : len / 2;
    range(0, first);
    std::fprintf(out, "%s   .     .     .      .\n%s   .     .     .      .\n", prefix, prefix);
    range(last, len);
}

}  // namespace

unsigned dvbWriteVect(const dvbVect* v, const char* name, uint16_t flags) {
    if (v == nullptr) return DVB_NOT_ALLOCATED;
    if (v->len == 0) return DVB_EMPTY;
    if ((flags & DVB_FILE_MAT) && (!is_listed_type(v->type) || v->data == nullptr)) return DVB_UNKNOWN;
    if ((flags & DVB_FILE_NATIVE) && is_listed_type(v->type) && v->data == nullptr) return DVB_UNKNOWN;
    if (name == nullptr) return DVB_NO_FILES;
    FileCloser fc{std::fopen(name, "wb")};
    if (fc.f == nullptr) return DVB_NO_FILES;
    bool ok = true;
    if (flags & DVB_FILE_NATIVE) ok = write_native(fc.f, v);
    if (ok && (flags & DVB_FILE_MAT)) ok = write_mat(fc.f, v);
    const int closed = std::fclose(fc.f);
    fc.f = nullptr;
    return ok && closed == 0 ? DVB_OK : DVB_UNKNOWN;
}

unsigned dvbReadVect(dvbVect* v, const char* name, uint16_t flags) {
    if (v == nullptr) return DVB_NOT_ALLOCATED;
    if (name == nullptr) return DVB_NO_FILES;
    FileCloser fc{std::fopen(name, "rb")};
    if (fc.f == nullptr) return DVB_NO_FILES;
    if (flags & (DVB_FILE_NATIVE | DVB_FILE_NATIVE_ALT)) return read_native(fc.f, v);
    if (flags & DVB_FILE_MAT) return read_mat(fc.f, v);
    return DVB_OK;
}

unsigned dvbPrintVect(const dvbVect* v, uint16_t flags, const char* name) {
    FILE* out = stdout;
    if (flags & DVB_PRINT_FILE) {
        // Text mode is "w" on every platform this runs on ("wt" is not ISO C).
        out = name != nullptr ? std::fopen(name, "w") : nullptr;
        if (out == nullptr) return DVB_NO_FILES;
    }
    const bool blank = v == nullptr || v->type == Empty;
    const uint32_t len = blank ? 0 : v->len;
    const int acc = blank ? 0 : v->acc;
    const double range = blank ? 0.0 : static_cast<double>(v->range);
    char desc[17] = {};
    if (!blank) std::memcpy(desc, v->desc, sizeof v->desc);
    unsigned long long size = 0;
    if (v != nullptr) {
        if (v->type == Empty) size = sizeof(dvbVect);
        else if (is_listed_type(v->type)) size = sizeof(dvbVect) + uint64_t{v->len} * dvbElemSize(v->type);
    }

    const bool framed = (flags & DVB_PRINT_FRAME) != 0;
    const char* prefix = framed ? "| " : "";
    std::fputs(framed ? "______________________________\n" : "\n\n", out);
    if (flags & DVB_PRINT_TYPE) std::fprintf(out, "%sType: %s\n%sDesc: %s\n", prefix, type_name(v), prefix, desc);
    if (flags & DVB_PRINT_ACC) std::fprintf(out, "%s Acc: %d bit, +/- %f\n", prefix, acc, range);
    // The address prints as 0x followed by lower-case hex digits (PRIxPTR), the
    // same on every platform, also for a null handle ("0x0").
    if (flags & DVB_PRINT_ADDR) std::fprintf(out, "%sAddr: 0x%" PRIxPTR "\n", prefix, reinterpret_cast<uintptr_t>(v));
    if (flags & DVB_PRINT_LEN) std::fprintf(out, "%s Len: %u\n", prefix, len);
    if (flags & DVB_PRINT_SIZE) std::fprintf(out, "%sSize: %llu byte\n", prefix, size);
    std::fputs(framed ? "------------------------------\n" : "\n", out);
    if (!blank) print_listing(out, v, flags, prefix);
    std::fputs(framed ? "------------------------------\n" : "\n", out);

    if (out != stdout) std::fclose(out);
    else std::fflush(out);
    if (v == nullptr) return DVB_NOT_ALLOCATED;
    return v->type == Empty ? DVB_EMPTY : DVB_OK;
}
