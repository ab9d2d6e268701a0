// Fuzz target: the vector-file reader on arbitrary file contents. The input
// is written to a temporary file and read with the native flag (0x1) and the
// MAT flag (0x4), each time into a fresh Empty vector and into a vector that
// already holds elements. A failed read must leave the vector exactly as it
// was; a successful one must give what the bytes say (the native header
// fields and elements, the MAT doubles narrowed to floats), with storage for
// every element.
#include <unistd.h>

#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "vectors/dumps.hpp"
#include "vectors/manage.hpp"

namespace {

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "fuzz_vecfile: %s\n", what);
    std::abort();
}

// The temporary file, created once and removed at the end of the process.
struct TempFile {
    std::string name;
    TempFile() {
        char pattern[] = "/tmp/fuzz_vecfile-XXXXXX";
        const int fd = mkstemp(pattern);
        if (fd < 0) fail("cannot create the temporary file");
        close(fd);
        name = pattern;
    }
    ~TempFile() { unlink(name.c_str()); }
};

const std::string& temp_name() {
    static const TempFile file;
    return file.name;
}

uint32_t le32(const uint8_t* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

struct Snapshot {
    uint32_t type, len, head, fill;
    uint8_t acc;
    float range;
    char desc[16];
    const void* data;
    std::vector<uint8_t> bytes;
};

Snapshot snap(const dvbVect* v) {
    Snapshot s{v->type, v->len, v->head, v->fill, v->acc, v->range, {}, v->data, {}};
    std::memcpy(s.desc, v->desc, sizeof s.desc);
    const size_t n = size_t{v->len} * dvbElemSize(v->type);
    if (v->data != nullptr)
        s.bytes.assign(static_cast<const uint8_t*>(v->data), static_cast<const uint8_t*>(v->data) + n);
    return s;
}

bool same(const Snapshot& a, const dvbVect* v) {
    const Snapshot b = snap(v);
    return a.type == b.type && a.len == b.len && a.head == b.head && a.fill == b.fill && a.acc == b.acc &&
           std::memcmp(&a.range, &b.range, sizeof a.range) == 0 && std::memcmp(a.desc, b.desc, 16) == 0 &&
           a.data == b.data && a.bytes == b.bytes;
}

// Checks a native read against the file bytes.
void check_native(const uint8_t* d, size_t size, const dvbVect* v) {
    const uint32_t type = le32(d + 16), len = le32(d + 20);
    if (v->len != len) fail("native: length differs from the header");
    if (len == 0) {
        if (v->type != Empty) fail("native: empty vector not Empty");
        return;
    }
    if (v->type != type) fail("native: type differs from the header");
    if (v->acc != d[24]) fail("native: accuracy differs from the header");
    if (std::memcmp(&v->range, d + 25, 4) != 0) fail("native: range differs from the header");
    if (std::strncmp(v->desc, reinterpret_cast<const char*>(d + 29), 15) != 0 || v->desc[15] != '\0')
        fail("native: description differs from the header");
    const size_t es = dvbElemSize(type);
    if (size < 45 + size_t{len} * es) fail("native: more elements than the file holds");
    if (v->data == nullptr) fail("native: no storage");
    if (std::memcmp(v->data, d + 45, size_t{len} * es) != 0) fail("native: elements differ from the file");
}

// Checks a MAT read against the file bytes.
void check_mat(const uint8_t* d, size_t size, const dvbVect* v) {
    const uint64_t count = uint64_t{le32(d + 4)} * le32(d + 8);
    const size_t start = 20 + le32(d + 16);
    if (v->len != count) fail("mat: length differs from rows x columns");
    if (count == 0) {
        if (v->type != Empty) fail("mat: empty vector not Empty");
        return;
    }
    if (v->type != Real || v->acc != 0 || v->range != 0.0f) fail("mat: not a plain Real vector");
    if (size < start + 8 * count) fail("mat: more elements than the file holds");
    const auto* x = static_cast<const float*>(v->data);
    for (size_t i = 0; i < count; ++i) {
        double e;
        std::memcpy(&e, d + start + 8 * i, 8);
        const float got = x[i];
        if (std::isnan(e)) {
            if (!std::isnan(got)) fail("mat: NaN lost");
        } else if (std::fabs(e) > static_cast<double>(FLT_MAX)) {
            if (!std::isinf(got) || std::signbit(got) != std::signbit(e)) fail("mat: overflow not infinite");
        } else {
            const float want = static_cast<float>(e);
            if (std::memcmp(&want, &got, sizeof got) != 0) fail("mat: element differs from the file");
        }
    }
}

void read_into(dvbVect* v, const uint8_t* data, size_t size, uint16_t flags) {
    const Snapshot before = snap(v);
    const unsigned rc = dvbReadVect(v, temp_name().c_str(), flags);
    if (rc != DVB_OK) {
        if (rc != DVB_UNKNOWN && rc != DVB_NO_MEMORY) fail("unexpected result code");
        if (!same(before, v)) fail("a failed read changed the vector");
        return;
    }
    if (v->head != before.head || v->fill != before.fill) fail("a read changed head or fill");
    if (flags == DVB_FILE_NATIVE) check_native(data, size, v);
    else check_mat(data, size, v);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FILE* f = std::fopen(temp_name().c_str(), "wb");
    if (f == nullptr) fail("cannot write the temporary file");
    if (size > 0 && std::fwrite(data, 1, size, f) != size) fail("short write");
    std::fclose(f);

    for (const uint16_t flags : {uint16_t{DVB_FILE_NATIVE}, uint16_t{DVB_FILE_MAT}}) {
        dvbVect* fresh = nullptr;
        priv_dvbCreateVect(&fresh, Empty);
        read_into(fresh, data, size, flags);
        priv_dvbDestroyVect(&fresh);

        dvbVect* held = nullptr;
        priv_dvbCreateVect(&held, Real);
        dvbConstVect(held, Real, 5, 0.25);
        held->head = 2;
        held->fill = 3;
        read_into(held, data, size, flags);
        priv_dvbDestroyVect(&held);
    }
    return 0;
}
