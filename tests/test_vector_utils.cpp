// Vector utilities: naming and ramps, element-wise arithmetic, the native and
// MAT vector files (layout, round trips, hostile input) and the text printer.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "ring_util.hpp"
#include "vectors/basic_ops.hpp"
#include "vectors/dumps.hpp"
#include "vectors/manage.hpp"
#include "vectors/sources.hpp"

namespace {

using testutil::Vec;

using Bytes = std::vector<uint8_t>;

void set_ints(Vec& h, std::vector<int32_t> x, int acc, double range) {
    ASSERT_EQ(dvbConstVect(h.v, Digital, static_cast<uint32_t>(x.size()), 0, acc, range), 0u);
    for (size_t i = 0; i < x.size(); ++i) dvbInts(h.v)[i] = x[i];
}

void set_reals(Vec& h, std::vector<float> x) {
    ASSERT_EQ(dvbConstVect(h.v, Real, static_cast<uint32_t>(x.size()), 0.0), 0u);
    for (size_t i = 0; i < x.size(); ++i) dvbReals(h.v)[i] = x[i];
}

std::string temp_path(const char* tag) {
    return testing::TempDir() + "vecutil_" + tag + "_" + std::to_string(getpid());
}

Bytes read_file(const std::string& p) {
    std::ifstream f(p, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), {});
}

void write_file(const std::string& p, const Bytes& b) {
    std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), std::streamsize(b.size()));
}

std::vector<int32_t> ints_of(const Vec& h) { return {dvbInts(h.v), dvbInts(h.v) + h.v->len}; }
std::vector<float> reals_of(const Vec& h) { return {dvbReals(h.v), dvbReals(h.v) + h.v->len}; }
using I = std::vector<int32_t>;
using F = std::vector<float>;

void le32(Bytes& b, uint32_t x) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(x >> (8 * i)));
}

// Native header built independently from the documented layout.
Bytes native_header(uint32_t type, uint32_t len, uint8_t acc, float range, const char* desc) {
    Bytes b(45, 0);
    std::memcpy(b.data(), "mtDVB v0.2b", 11);
    uint32_t r;
    std::memcpy(&r, &range, 4);
    for (int i = 0; i < 4; ++i) {
        b[16 + i] = static_cast<uint8_t>(type >> (8 * i));
        b[20 + i] = static_cast<uint8_t>(len >> (8 * i));
        b[25 + i] = static_cast<uint8_t>(r >> (8 * i));
    }
    b[24] = acc;
    std::memcpy(b.data() + 29, desc, std::strlen(desc));
    return b;
}

// Two's complement wrap of an exact sum into acc bits, by modular arithmetic.
int32_t wrap_model(int64_t x, int acc) {
    const int64_t m = int64_t{1} << acc;
    int64_t r = ((x % m) + m) % m;
    return static_cast<int32_t>(r >= m / 2 ? r - m : r);
}

std::string print_stdout(const dvbVect* v, uint16_t flags, unsigned* rc) {
    testing::internal::CaptureStdout();
    *rc = dvbPrintVect(v, flags, nullptr);
    return testing::internal::GetCapturedStdout();
}

// Writes src as a native file, compares the file with want, reads it back into
// back and checks that every header field and element came back.
void native_round_trip(const Vec& src, const Bytes& want, Vec& back) {
    const std::string p = temp_path("native");
    ASSERT_EQ(dvbWriteVect(src.v, p.c_str(), 0x1), 0u);
    EXPECT_EQ(read_file(p), want);
    ASSERT_EQ(dvbReadVect(back.v, p.c_str(), 0x1), 0u);
    std::remove(p.c_str());
    EXPECT_EQ(back.v->type, src.v->type);
    ASSERT_EQ(back.v->len, src.v->len);
    EXPECT_EQ(back.v->acc, src.v->acc);
    EXPECT_EQ(back.v->range, src.v->range);
    EXPECT_STREQ(back.v->desc, src.v->desc);
    EXPECT_EQ(std::memcmp(back.v->data, src.v->data, src.v->len * dvbElemSize(src.v->type)), 0);
}

}  // namespace

TEST(VecUtilSources, NameVectKeepsDescForLongNames) {
    Vec a(Real);
    EXPECT_EQ(dvbNameVect(a.v, "pilots"), 0u);
    EXPECT_STREQ(a.v->desc, "pilots");
    EXPECT_EQ(dvbNameVect(a.v, "fifteen_chars_x"), 0u);
    EXPECT_STREQ(a.v->desc, "fifteen_chars_x");
    EXPECT_EQ(dvbNameVect(a.v, "sixteen_chars_xx"), 0u);
    EXPECT_STREQ(a.v->desc, "fifteen_chars_x");
    EXPECT_EQ(dvbNameVect(nullptr, "x"), 6u);
}

TEST(VecUtilSources, LinSpaceRealAndDigital) {
    Vec r(Real), d(Digital);
    ASSERT_EQ(dvbLinSpaceVect(r.v, 5, 0.0, 1.0), 0u);
    EXPECT_EQ(reals_of(r), (F{0.0f, 0.25f, 0.5f, 0.75f, 1.0f}));
    ASSERT_EQ(dvbLinSpaceVect(d.v, 3, 0, 10, 8, 2.0), 0u);
    EXPECT_EQ(ints_of(d), (I{0, 5, 10}));
    EXPECT_EQ(d.v->acc, 8);
    EXPECT_EQ(d.v->range, 2.0f);
    // Rounding half up, ascending and descending.
    ASSERT_EQ(dvbLinSpaceVect(d.v, 3, 0, 1, 0, 0.0), 0u);
    EXPECT_EQ(ints_of(d), (I{0, 1, 1}));
    ASSERT_EQ(dvbLinSpaceVect(d.v, 4, 3, -3, 0, 0.0), 0u);
    EXPECT_EQ(ints_of(d), (I{3, 1, -1, -3}));
    // One element holds its start; zero elements leave the vector Empty.
    ASSERT_EQ(dvbLinSpaceVect(d.v, 1, 7, 9, 0, 0.0), 0u);
    EXPECT_EQ(ints_of(d), (I{7}));
    EXPECT_EQ(dvbLinSpaceVect(d.v, 0, 7, 9, 0, 0.0), 0u);
    EXPECT_EQ(d.v->type, Empty);
    EXPECT_EQ(d.v->len, 0u);

    EXPECT_EQ(dvbLinSpaceVect(nullptr, 3, 0.0, 1.0), 6u);
    EXPECT_EQ(dvbLinSpaceVect(d.v, 3, 0.0, 1.0), 1u);  // Empty now
    Vec s(Symbol), d2(Digital);
    EXPECT_EQ(dvbLinSpaceVect(s.v, 3, 0, 2, 0, 0.0), 1u);
    EXPECT_EQ(dvbLinSpaceVect(d2.v, 3, 0.0, 1.0), 1u);
    // The integer form on a Real vector ramps in floating point.
    ASSERT_EQ(dvbLinSpaceVect(r.v, 3, 0, 1, 8, 1.0), 0u);
    EXPECT_EQ(reals_of(r), (F{0.0f, 0.5f, 1.0f}));
}

TEST(VecUtilArith, DigitalAddWrapsWithinAccuracy) {
    Vec a(Digital), b(Digital), out(Digital);
    set_ints(a, {100, -128, 127, -5}, 8, 1.0);
    set_ints(b, {100, 1, 1, 3}, 8, 1.0);
    ASSERT_EQ(dvbAddVect(out.v, a.v, b.v, 1), 0u);
    EXPECT_EQ(ints_of(out), (I{-56, -127, -128, -2}));
    EXPECT_EQ(out.v->acc, 8);
    EXPECT_EQ(out.v->range, 1.0f);
    ASSERT_EQ(dvbAddVect(out.v, a.v, b.v, 0), 0u);
    EXPECT_EQ(ints_of(out), (I{0, 127, 126, -8}));

    // Against the modular model over many pairs and accuracies.
    for (int acc : {3, 8, 16, 31}) {
        I x, y;
        uint32_t seed = 12345u + static_cast<uint32_t>(acc);
        for (int i = 0; i < 128; ++i) {
            seed = seed * 1103515245u + 12345u;
            (i % 2 ? x : y).push_back(wrap_model(static_cast<int32_t>(seed), acc));
        }
        set_ints(a, x, acc, 1.0);
        set_ints(b, y, acc, 1.0);
        I sum, diff, inc;
        for (size_t i = 0; i < x.size(); ++i) {
            sum.push_back(wrap_model(int64_t{x[i]} + y[i], acc));
            diff.push_back(wrap_model(int64_t{x[i]} - y[i], acc));
            inc.push_back(wrap_model(int64_t{x[i]} + 1, acc));
        }
        ASSERT_EQ(dvbAddVect(out.v, a.v, b.v, 1), 0u);
        EXPECT_EQ(ints_of(out), sum) << acc;
        ASSERT_EQ(dvbAddVect(out.v, a.v, b.v, 0), 0u);
        EXPECT_EQ(ints_of(out), diff) << acc;
        ASSERT_EQ(dvbAddConst(out.v, a.v, 1), 0u);
        EXPECT_EQ(ints_of(out), inc) << acc;
    }
    // Accuracy 0 keeps the plain 32-bit result.
    set_ints(a, {1000, -70000}, 0, 0.0);
    set_ints(b, {2000, 5}, 0, 0.0);
    ASSERT_EQ(dvbAddVect(out.v, a.v, b.v, 1), 0u);
    EXPECT_EQ(ints_of(out), (I{3000, -69995}));
}

TEST(VecUtilArith, DigitalMultNotImplementedLeavesOutUnchanged) {
    Vec a(Digital), b(Digital), out(Digital);
    set_ints(a, {2, 3, 4}, 8, 1.0);
    set_ints(b, {5, 6, 7}, 8, 1.0);
    set_ints(out, {41, 42}, 8, 1.0);
    EXPECT_EQ(dvbMultVect(out.v, a.v, b.v, 1), 2u);
    EXPECT_EQ(ints_of(out), (I{41, 42, 0}));  // resized to a's length, nothing computed
    EXPECT_EQ(dvbMultVect(out.v, a.v, b.v, 0), 2u);
    EXPECT_EQ(dvbMultConst(out.v, a.v, 2.0), 2u);
    EXPECT_EQ(ints_of(out), (I{41, 42, 0}));
}

TEST(VecUtilArith, DigitalNegAndInv) {
    Vec a(Digital), out(Digital);
    set_ints(a, {64, 5, 0, INT32_MIN, -64, 3}, 8, 0.5);
    ASSERT_EQ(dvbInvVect(out.v, a.v), 0u);
    // floor(128 / a + 0.5); division by zero saturates.
    EXPECT_EQ(ints_of(out), (I{2, 26, INT32_MAX, 0, -2, 43}));
    EXPECT_EQ(out.v->acc, 8);
    EXPECT_EQ(out.v->range, 0.5f);
    ASSERT_EQ(dvbNegVect(out.v, a.v), 0u);
    EXPECT_EQ(ints_of(out), (I{-64, -5, 0, INT32_MIN, 64, -3}));  // two's complement
}

TEST(VecUtilArith, RealOperations) {
    Vec a(Real), b(Real), out(Real);
    set_reals(a, {1.5f, -2.0f, 0.0f, 4.0f});
    set_reals(b, {2.0f, 0.5f, 3.0f, -8.0f});
    ASSERT_EQ(dvbAddVect(out.v, a.v, b.v, 1), 0u);
    EXPECT_EQ(reals_of(out), (F{3.5f, -1.5f, 3.0f, -4.0f}));
    ASSERT_EQ(dvbAddVect(out.v, a.v, b.v, 0), 0u);
    EXPECT_EQ(reals_of(out), (F{-0.5f, -2.5f, -3.0f, 12.0f}));
    ASSERT_EQ(dvbMultVect(out.v, a.v, b.v, 1), 0u);
    EXPECT_EQ(reals_of(out), (F{3.0f, -1.0f, 0.0f, -32.0f}));
    ASSERT_EQ(dvbMultVect(out.v, a.v, b.v, 0), 0u);
    EXPECT_EQ(reals_of(out), (F{0.75f, -4.0f, 0.0f, -0.5f}));
    ASSERT_EQ(dvbNegVect(out.v, a.v), 0u);
    EXPECT_EQ(reals_of(out), (F{-1.5f, 2.0f, -0.0f, -4.0f}));
    ASSERT_EQ(dvbMultConst(out.v, a.v, 0.1), 0u);
    EXPECT_EQ(reals_of(out), (F{1.5f * 0.1f, -2.0f * 0.1f, 0.0f, 4.0f * 0.1f}));
    ASSERT_EQ(dvbAddConst(out.v, a.v, 0.1), 0u);
    EXPECT_EQ(reals_of(out), (F{1.5f + 0.1f, -2.0f + 0.1f, 0.1f, 4.0f + 0.1f}));
    ASSERT_EQ(dvbAddConst(out.v, a.v, 2), 0u);
    EXPECT_EQ(reals_of(out), (F{3.5f, 0.0f, 2.0f, 6.0f}));
    ASSERT_EQ(dvbInvVect(out.v, a.v), 0u);
    EXPECT_EQ(reals_of(out), (F{1.0f / 1.5f, -0.5f, HUGE_VALF, 0.25f}));
    // In place: out may be one of the operands.
    ASSERT_EQ(dvbAddVect(a.v, a.v, b.v, 1), 0u);
    EXPECT_EQ(reals_of(a), (F{3.5f, -1.5f, 3.0f, -4.0f}));
}

TEST(VecUtilArith, ResultCodesInCheckOrder) {
    Vec a(Real), b(Real), out(Real), d(Digital), d2(Digital), bits(Bit), e(Empty);
    set_reals(a, {1, 2, 3});
    set_reals(b, {1, 2});
    set_ints(d, {1, 2, 3}, 8, 1.0);
    EXPECT_EQ(dvbAddVect(nullptr, a.v, a.v, 1), 5u);
    EXPECT_EQ(dvbMultVect(out.v, a.v, nullptr, 1), 5u);
    EXPECT_EQ(dvbNegVect(out.v, nullptr), 5u);
    EXPECT_EQ(dvbInvVect(nullptr, a.v), 5u);
    EXPECT_EQ(dvbMultConst(nullptr, a.v, 1.0), 5u);
    EXPECT_EQ(dvbAddConst(out.v, nullptr, 1), 5u);
    EXPECT_EQ(dvbAddVect(out.v, a.v, d.v, 1), 10u);  // type before length
    EXPECT_EQ(dvbAddVect(out.v, a.v, b.v, 1), 8u);
    set_ints(d2, {1, 2, 3}, 4, 1.0);
    EXPECT_EQ(dvbAddVect(d2.v, d.v, d2.v, 1), 9u);
    EXPECT_EQ(dvbAddVect(d2.v, a.v, a.v, 1), 10u);  // out of another type
    EXPECT_EQ(dvbNegVect(d.v, a.v), 10u);
    EXPECT_EQ(dvbAddConst(d2.v, a.v, 1.0), 9u);     // accuracy before type
    EXPECT_EQ(dvbMultConst(out.v, d.v, 1.0), 9u);
    out.v->acc = 8;
    EXPECT_EQ(dvbMultConst(out.v, d.v, 1.0), 10u);
    EXPECT_EQ(out.v->len, 0u);  // no resize before a failed check
    // Types without arithmetic give 1 (after the resize).
    ASSERT_EQ(dvbConstVect(bits.v, Bit, 3, 1), 0u);
    Vec bo(Bit);
    EXPECT_EQ(dvbAddVect(bo.v, bits.v, bits.v, 1), 1u);
    EXPECT_EQ(bo.v->len, 3u);
    EXPECT_EQ(dvbNegVect(e.v, e.v), 1u);
    EXPECT_EQ(dvbAddConst(d.v, d.v, 0.5), 1u);  // Digital refuses a double constant
    // A destination that cannot be resized returns the resize's code.
    Vec c(Complex), c2(Complex);
    ASSERT_EQ(dvbConstVect(c.v, Complex, 2, 0.0, 0.0), 0u);
    EXPECT_EQ(dvbNegVect(c2.v, c.v), 1u);
}

TEST(VecUtilFile, NativeFilesLayoutAndRoundTrip) {
    Vec s(Symbol), d(Digital), r(Real), back(Empty);
    ASSERT_EQ(dvbConstVect(s.v, Symbol, 3, 0), 0u);
    std::memcpy(s.v->data, "\x03\xF6\x80", 3);
    s.v->acc = 8;
    s.v->range = 0.25f;
    ASSERT_EQ(dvbNameVect(s.v, "dispersal"), 0u);
    Bytes want = native_header(Symbol, 3, 8, 0.25f, "dispersal");
    want.insert(want.end(), {0x03, 0xF6, 0x80});
    ASSERT_EQ(want.size(), 48u);
    native_round_trip(s, want, back);

    set_ints(d, {-2, 0x01020304, 127}, 8, 1.5);
    want = native_header(Digital, 3, 8, 1.5f, "TBD");
    for (uint32_t x : {0xFFFFFFFEu, 0x01020304u, 127u}) le32(want, x);
    native_round_trip(d, want, back);  // replaces the Symbol content of back

    set_reals(r, {0.1f, -1e30f, 3.0f});
    ASSERT_EQ(dvbNameVect(r.v, "real"), 0u);
    want = native_header(Real, 3, 0, 0.0f, "real");
    for (float x : {0.1f, -1e30f, 3.0f}) {
        uint32_t u;
        std::memcpy(&u, &x, 4);
        le32(want, u);
    }
    native_round_trip(r, want, back);
    // Flag 0x2 reads the same native file.
    const std::string p = temp_path("alt");
    Vec alt(Empty);
    ASSERT_EQ(dvbWriteVect(d.v, p.c_str(), 0x1), 0u);
    ASSERT_EQ(dvbReadVect(alt.v, p.c_str(), 0x2), 0u);
    EXPECT_EQ(ints_of(alt), ints_of(d));
    // A header with no elements reads back as an Empty vector.
    write_file(p, native_header(Real, 0, 3, 1.0f, "none"));
    ASSERT_EQ(dvbReadVect(alt.v, p.c_str(), 0x1), 0u);
    EXPECT_EQ(alt.v->type, Empty);
    EXPECT_EQ(alt.v->len, 0u);
    EXPECT_EQ(alt.v->data, nullptr);
    std::remove(p.c_str());
}

TEST(VecUtilFile, MatFileRoundTrip) {
    const std::string p = temp_path("mat");
    Vec r(Real), back(Empty), d(Digital);
    set_reals(r, {0.5f, -1.25f, 3.0f});
    ASSERT_EQ(dvbNameVect(r.v, "carriers"), 0u);
    ASSERT_EQ(dvbWriteVect(r.v, p.c_str(), 0x4), 0u);
    Bytes want;
    for (uint32_t x : {0u, 3u, 1u, 0u, 7u}) le32(want, x);
    want.insert(want.end(), {'c', 'a', 'r', 'r', 'i', 'e', 0});
    for (double x : {0.5, -1.25, 3.0}) {
        uint64_t u;
        std::memcpy(&u, &x, 8);
        le32(want, static_cast<uint32_t>(u));
        le32(want, static_cast<uint32_t>(u >> 32));
    }
    EXPECT_EQ(read_file(p), want);
    ASSERT_EQ(dvbReadVect(back.v, p.c_str(), 0x4), 0u);
    EXPECT_EQ(back.v->type, Real);
    EXPECT_EQ(reals_of(back), reals_of(r));
    EXPECT_STREQ(back.v->desc, "carrie");
    EXPECT_EQ(back.v->acc, 0);

    // A Digital vector goes out as its plain integers and stays as it was.
    set_ints(d, {-7, 0, 100000}, 8, 1.0);
    ASSERT_EQ(dvbWriteVect(d.v, p.c_str(), 0x4), 0u);
    EXPECT_EQ(d.v->type, Digital);
    EXPECT_EQ(d.v->acc, 8);
    ASSERT_EQ(dvbReadVect(back.v, p.c_str(), 0x4), 0u);
    EXPECT_EQ(reals_of(back), (F{-7.0f, 0.0f, 100000.0f}));
    std::remove(p.c_str());
}

TEST(VecUtilFile, HostileFilesLeaveTheVectorIntact) {
    const std::string p = temp_path("bad");
    Vec v(Real), e(Digital);
    set_reals(v, {9.0f, -9.0f});
    ASSERT_EQ(dvbNameVect(v.v, "keep"), 0u);
    const void* data = v.v->data;
    auto mat = [](uint32_t code, uint32_t rows, uint32_t cols, uint32_t imag, uint32_t namlen) {
        Bytes b;
        for (uint32_t x : {code, rows, cols, imag, namlen}) le32(b, x);
        b.insert(b.end(), 7, 'a');
        return b;
    };
    const Bytes h = native_header(Digital, 3, 8, 1.0f, "x");
    Bytes trunc = h, huge = native_header(Digital, 0xFFFFFFFFu, 8, 1.0f, "x");
    trunc.insert(trunc.end(), 11, 0x55);
    huge.insert(huge.end(), 64, 0x55);
    const std::vector<std::pair<Bytes, uint16_t>> cases = {
        {{}, 0x1}, {Bytes(h.begin(), h.begin() + 44), 0x1},  // shorter than the header
        {h, 0x1}, {trunc, 0x1}, {huge, 0x1},                  // elements missing or cut
        {native_header(0, 0, 0, 0.0f, "x"), 0x1}, {native_header(3, 0, 0, 0.0f, "x"), 0x1},
        {native_header(Complex, 1, 0, 0.0f, "x"), 0x1}, {native_header(77, 1, 0, 0.0f, "x"), 0x1},
        {Bytes(10, 0), 0x4}, {mat(10, 1, 1, 0, 7), 0x4}, {mat(0, 1, 1, 1, 7), 0x4},
        {mat(0, 2, 1, 0, 7), 0x4}, {mat(0, 0x7FFFFFFF, 0x7FFFFFFF, 0, 7), 0x4},
        {mat(0, 0x7FFFFFFF, 1, 0, 7), 0x4}, {mat(0, 1, 1, 0, 0x7FFFFFFF), 0x4},
        {mat(0, 1, 1, 0, 0xFFFFFFFF), 0x4},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        write_file(p, cases[i].first);
        EXPECT_EQ(dvbReadVect(v.v, p.c_str(), cases[i].second), 1u) << "case " << i;
        EXPECT_EQ(v.v->type, Real);
        EXPECT_EQ(v.v->data, data);
        EXPECT_EQ(reals_of(v), (F{9.0f, -9.0f})) << "case " << i;
        EXPECT_STREQ(v.v->desc, "keep");
    }
    EXPECT_EQ(dvbReadVect(v.v, "/nonexistent/dir/x.vec", 0x1), 3u);
    EXPECT_EQ(dvbReadVect(nullptr, p.c_str(), 0x1), 6u);
    EXPECT_EQ(dvbWriteVect(nullptr, p.c_str(), 0x1), 6u);
    EXPECT_EQ(dvbWriteVect(e.v, p.c_str(), 0x1), 5u);
    EXPECT_EQ(dvbWriteVect(v.v, "/nonexistent/dir/x.vec", 0x1), 3u);
    std::remove(p.c_str());
}

TEST(VecUtilPrint, HeaderAndListingLayouts) {
    Vec d(Digital);
    set_ints(d, {-3, 0, 7}, 8, 1.5);
    ASSERT_EQ(dvbNameVect(d.v, "ramp"), 0u);
    unsigned rc = 99;
    std::string out = print_stdout(d.v, 0x001 | 0x080 | 0x004 | 0x008, &rc);
    EXPECT_EQ(rc, 0u);
    EXPECT_EQ(out, "\n\nType: Digital\nDesc: ramp\n Acc: 8 bit, +/- 1.500000\n Len: 3\nSize: " +
                       std::to_string(sizeof(dvbVect) + 12) + " byte\n\n  -3\n  +0\n  +7\n\n");

    Vec r(Real);
    set_reals(r, {0.5f, -2.0f});
    ASSERT_EQ(dvbNameVect(r.v, "r"), 0u);
    out = print_stdout(r.v, 0x040 | 0x010 | 0x001, &rc);
    EXPECT_EQ(out, "______________________________\n| Type: Real\n| Desc: r\n------------------------------\n"
                   "|  0 :  +0.500000\n|  1 :  -2.000000\n------------------------------\n");

    char addr[64];
    std::snprintf(addr, sizeof addr, "Addr: 0x%" PRIxPTR "\n", reinterpret_cast<uintptr_t>(r.v));
    out = print_stdout(r.v, 0x002, &rc);
    EXPECT_EQ(out, std::string("\n\n") + addr + "\n  +0.500000\n  -2.000000\n\n");

    out = print_stdout(nullptr, 0x001 | 0x002 | 0x004 | 0x008 | 0x080, &rc);
    EXPECT_EQ(rc, 6u);
    EXPECT_EQ(out, "\n\nType: Unallocated\nDesc: \n Acc: 0 bit, +/- 0.000000\nAddr: 0x0\n Len: 0\nSize: 0 byte\n\n\n");
    Vec e(Empty);
    out = print_stdout(e.v, 0x001 | 0x008, &rc);
    EXPECT_EQ(rc, 5u);
    EXPECT_EQ(out, "\n\nType: Empty\nDesc: \nSize: " + std::to_string(sizeof(dvbVect)) + " byte\n\n\n");
    Vec c(Complex);
    ASSERT_EQ(dvbConstVect(c.v, Complex, 2, 1.0, 1.0), 0u);
    out = print_stdout(c.v, 0x001 | 0x004 | 0x008, &rc);
    EXPECT_EQ(rc, 0u);
    EXPECT_EQ(out, "\n\nType: Unknown\nDesc: TBD\n Len: 2\nSize: 0 byte\n\n\n");
}

TEST(VecUtilPrint, AbbreviatedListingsAndFileOutput) {
    const std::string p = temp_path("print");
    Vec s(Symbol);
    ASSERT_EQ(dvbConstVect(s.v, Symbol, 45, 0), 0u);
    for (uint32_t i = 0; i < 45; ++i) dvbBytes(s.v)[i] = static_cast<uint8_t>(200 + i);
    testing::internal::CaptureStdout();
    EXPECT_EQ(dvbPrintVect(s.v, 0x100 | 0x020 | 0x010 | 0x040, p.c_str()), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    const Bytes f = read_file(p);
    std::string want = "______________________________\n------------------------------\n";
    auto line = [&](uint32_t i) {
        char b[64];
        std::snprintf(b, sizeof b, "| %3u :  %u\n", i, static_cast<unsigned>(static_cast<uint8_t>(200 + i)));
        want += b;
    };
    for (uint32_t i = 0; i < 20; ++i) line(i);
    want += "|    .     .     .      .\n|    .     .     .      .\n";
    for (uint32_t i = 25; i < 45; ++i) line(i);
    want += "------------------------------\n";
    EXPECT_EQ(std::string(f.begin(), f.end()), want);

    // A short vector lists everything, the dots after its first half.
    ASSERT_EQ(dvbResizeVect(s.v, 5), 0u);
    unsigned rc;
    EXPECT_EQ(print_stdout(s.v, 0x020, &rc),
              "\n\n\n  200\n  201\n   .     .     .      .\n   .     .     .      .\n  202\n  203\n  204\n\n");
    EXPECT_EQ(print_stdout(s.v, 0x000, &rc), "\n\n\n  200\n  201\n  202\n  203\n  204\n\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(dvbPrintVect(s.v, 0x100 | 0x001, "/nonexistent/dir/p.txt"), 3u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    std::remove(p.c_str());
}
