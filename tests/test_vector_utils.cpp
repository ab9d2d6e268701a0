// Vector utilities: ramps, element-wise arithmetic, the native and MAT vector
// files (layout, round trips, hostile input) and the text printer.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "cli_util.hpp"
#include "ring_util.hpp"
#include "vectors/basic_ops.hpp"
#include "vectors/dumps.hpp"
#include "vectors/manage.hpp"
#include "vectors/sources.hpp"

namespace {

using testutil::Vec;
using Bytes = std::vector<uint8_t>;
using I = std::vector<int32_t>;
using F = std::vector<float>;

void set_ints(Vec& h, I x, int acc, double range) {
    ASSERT_EQ(dvbConstVect(h.v, Digital, static_cast<uint32_t>(x.size()), 0, acc, range), 0u);
    std::memcpy(h.v->data, x.data(), x.size() * 4);
}

void set_reals(Vec& h, F x) {
    ASSERT_EQ(dvbConstVect(h.v, Real, static_cast<uint32_t>(x.size()), 0.0), 0u);
    std::memcpy(h.v->data, x.data(), x.size() * 4);
}

I ints_of(const Vec& h) { return {dvbInts(h.v), dvbInts(h.v) + h.v->len}; }
F reals_of(const Vec& h) { return {dvbReals(h.v), dvbReals(h.v) + h.v->len}; }

void le32(Bytes& b, uint32_t x) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(x >> (8 * i)));
}

// Native header built independently from the documented layout.
Bytes native_header(uint32_t type, uint32_t len, uint8_t acc, float range, const char* desc) {
    Bytes b(16, 0);
    std::memcpy(b.data(), "mtDVB v0.2b", 11);
    le32(b, type);
    le32(b, len);
    b.push_back(acc);
    uint32_t r;
    std::memcpy(&r, &range, 4);
    le32(b, r);
    b.resize(45, 0);
    std::memcpy(b.data() + 29, desc, std::strlen(desc));
    return b;
}

// Two's complement wrap of an exact sum into acc bits, by modular arithmetic.
int32_t wrap_model(int64_t x, int acc) {
    const int64_t m = int64_t{1} << acc;
    const int64_t r = ((x % m) + m) % m;
    return static_cast<int32_t>(r >= m / 2 ? r - m : r);
}

std::string print_stdout(const dvbVect* v, uint16_t flags, unsigned* rc) {
    testing::internal::CaptureStdout();
    *rc = dvbPrintVect(v, flags, nullptr);
    return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(VecUtilSources, LinSpaceAndName) {
    Vec r(Real), d(Digital), e(Empty);
    ASSERT_EQ(dvbLinSpaceVect(r.v, 5, 0.0, 1.0), 0u);
    EXPECT_EQ(reals_of(r), (F{0.0f, 0.25f, 0.5f, 0.75f, 1.0f}));
    ASSERT_EQ(dvbLinSpaceVect(d.v, 3, 0, 10, 8, 2.0), 0u);
    EXPECT_EQ(ints_of(d), (I{0, 5, 10}));
    ASSERT_EQ(dvbLinSpaceVect(d.v, 4, 3, -3, 0, 0.0), 0u);  // rounds half up
    EXPECT_EQ(ints_of(d), (I{3, 1, -1, -3}));
    EXPECT_EQ(dvbLinSpaceVect(nullptr, 3, 0.0, 1.0), 6u);
    EXPECT_EQ(dvbLinSpaceVect(e.v, 3, 0.0, 1.0), 1u);
    // A name longer than 15 characters leaves the description unchanged.
    ASSERT_EQ(dvbNameVect(r.v, "fifteen_chars_x"), 0u);
    EXPECT_EQ(dvbNameVect(r.v, "sixteen_chars_xx"), 0u);
    EXPECT_STREQ(r.v->desc, "fifteen_chars_x");
}

TEST(VecUtilArith, DigitalWrapInvAndMult) {
    Vec a(Digital), b(Digital), out(Digital);
    set_ints(a, {100, -128}, 8, 1.0);
    set_ints(b, {100, 1}, 8, 1.0);
    ASSERT_EQ(dvbAddVect(out.v, a.v, b.v, 1), 0u);
    EXPECT_EQ(ints_of(out)[0], -56);
    ASSERT_EQ(dvbAddVect(out.v, a.v, b.v, 0), 0u);
    EXPECT_EQ(ints_of(out)[1], 127);
    EXPECT_EQ(dvbMultVect(out.v, a.v, b.v, 1), 2u);
    EXPECT_EQ(ints_of(out), (I{0, 127}));  // not computed
    set_ints(a, {64}, 8, 0.5);
    ASSERT_EQ(dvbInvVect(out.v, a.v), 0u);
    EXPECT_EQ(ints_of(out), (I{2}));

    // Against the modular model at other accuracies.
    for (int acc : {3, 16, 31}) {
        I x, y, sum, diff;
        uint32_t seed = 12345u + static_cast<uint32_t>(acc);
        for (int i = 0; i < 128; ++i) {
            seed = seed * 1103515245u + 12345u;
            (i % 2 ? x : y).push_back(wrap_model(static_cast<int32_t>(seed), acc));
        }
        for (size_t i = 0; i < x.size(); ++i) {
            sum.push_back(wrap_model(int64_t{x[i]} + y[i], acc));
            diff.push_back(wrap_model(int64_t{x[i]} - y[i], acc));
        }
        set_ints(a, x, acc, 1.0);
        set_ints(b, y, acc, 1.0);
        ASSERT_EQ(dvbAddVect(out.v, a.v, b.v, 1), 0u);
        EXPECT_EQ(ints_of(out), sum) << acc;
        ASSERT_EQ(dvbAddVect(out.v, a.v, b.v, 0), 0u);
        EXPECT_EQ(ints_of(out), diff) << acc;
    }
}

TEST(VecUtilArith, RealFlagsAndResultCodes) {
    Vec a(Real), b(Real), out(Real), d(Digital), e(Empty);
    set_reals(a, {1.5f, -2.0f});
    set_reals(b, {2.0f, 0.5f});
    ASSERT_EQ(dvbAddVect(out.v, a.v, b.v, 0), 0u);
    EXPECT_EQ(reals_of(out), (F{-0.5f, -2.5f}));
    ASSERT_EQ(dvbMultVect(out.v, a.v, b.v, 0), 0u);
    EXPECT_EQ(reals_of(out), (F{0.75f, -4.0f}));

    set_ints(d, {1, 2}, 8, 1.0);
    EXPECT_EQ(dvbAddVect(nullptr, a.v, a.v, 1), 5u);
    EXPECT_EQ(dvbAddVect(out.v, a.v, d.v, 1), 10u);
    EXPECT_EQ(dvbNegVect(d.v, a.v), 10u);
    EXPECT_EQ(dvbMultConst(out.v, d.v, 1.0), 9u);
    EXPECT_EQ(dvbNegVect(e.v, e.v), 1u);
}

TEST(VecUtilFile, NativeAndMatRoundTripsAndHostileInput) {
    cli::TempDir dir;
    const std::string p = (dir / "v.vec").string();
    Vec s(Symbol), back(Empty);
    ASSERT_EQ(dvbConstVect(s.v, Symbol, 3, 0), 0u);
    std::memcpy(s.v->data, "\x03\xF6\x80", 3);
    s.v->acc = 8;
    s.v->range = 0.25f;
    ASSERT_EQ(dvbNameVect(s.v, "dispersal"), 0u);
    Bytes want = native_header(Symbol, 3, 8, 0.25f, "dispersal");
    want.insert(want.end(), {0x03, 0xF6, 0x80});
    ASSERT_EQ(want.size(), 48u);
    ASSERT_EQ(dvbWriteVect(s.v, p.c_str(), 0x1), 0u);
    EXPECT_EQ(cli::read_file(p), want);
    ASSERT_EQ(dvbReadVect(back.v, p.c_str(), 0x1), 0u);
    EXPECT_EQ(back.v->type, Symbol);
    ASSERT_EQ(back.v->len, 3u);
    EXPECT_EQ(back.v->acc, 8);
    EXPECT_EQ(back.v->range, 0.25f);
    EXPECT_STREQ(back.v->desc, "dispersal");
    EXPECT_EQ(std::memcmp(back.v->data, s.v->data, 3), 0);

    Vec r(Real), rb(Empty);
    set_reals(r, {0.5f, -1.25f, 3.0f});
    ASSERT_EQ(dvbNameVect(r.v, "carriers"), 0u);
    ASSERT_EQ(dvbWriteVect(r.v, p.c_str(), 0x4), 0u);
    want.clear();
    for (uint32_t x : {0u, 3u, 1u, 0u, 7u}) le32(want, x);
    want.insert(want.end(), {'c', 'a', 'r', 'r', 'i', 'e', 0});
    for (double x : {0.5, -1.25, 3.0}) {
        uint64_t u;
        std::memcpy(&u, &x, 8);
        le32(want, static_cast<uint32_t>(u));
        le32(want, static_cast<uint32_t>(u >> 32));
    }
    EXPECT_EQ(cli::read_file(p), want);
    ASSERT_EQ(dvbReadVect(rb.v, p.c_str(), 0x4), 0u);
    EXPECT_EQ(rb.v->type, Real);
    EXPECT_EQ(reals_of(rb), reals_of(r));
    EXPECT_STREQ(rb.v->desc, "carrie");

    // A file cut inside its elements leaves the vector as it was.
    want = native_header(Digital, 3, 8, 1.0f, "x");
    want.insert(want.end(), 11, 0x55);
    cli::write_file(p, want);
    const void* const data = r.v->data;
    EXPECT_EQ(dvbReadVect(r.v, p.c_str(), 0x1), 1u);
    EXPECT_EQ(r.v->type, Real);
    EXPECT_EQ(r.v->data, data);
    EXPECT_EQ(reals_of(r), (F{0.5f, -1.25f, 3.0f}));
    EXPECT_STREQ(r.v->desc, "carriers");

    Vec e(Digital);
    EXPECT_EQ(dvbReadVect(nullptr, p.c_str(), 0x1), 6u);
    EXPECT_EQ(dvbWriteVect(e.v, p.c_str(), 0x1), 5u);
    EXPECT_EQ(dvbReadVect(r.v, "/nonexistent/dir/x.vec", 0x1), 3u);
}

TEST(VecUtilPrint, HeaderAndFramedLayouts) {
    Vec d(Digital);
    set_ints(d, {-3, 0, 7}, 8, 1.5);
    ASSERT_EQ(dvbNameVect(d.v, "ramp"), 0u);
    unsigned rc = 99;
    EXPECT_EQ(print_stdout(d.v, 0x001 | 0x080 | 0x004 | 0x008, &rc),
              "\n\nType: Digital\nDesc: ramp\n Acc: 8 bit, +/- 1.500000\n Len: 3\nSize: " +
                  std::to_string(sizeof(dvbVect) + 12) + " byte\n\n  -3\n  +0\n  +7\n\n");
    EXPECT_EQ(rc, 0u);

    Vec r(Real);
    set_reals(r, {0.5f, -2.0f});
    ASSERT_EQ(dvbNameVect(r.v, "r"), 0u);
    EXPECT_EQ(print_stdout(r.v, 0x040 | 0x010 | 0x001, &rc),
              "______________________________\n| Type: Real\n| Desc: r\n------------------------------\n"
              "|  0 :  +0.500000\n|  1 :  -2.000000\n------------------------------\n");
    print_stdout(nullptr, 0x001, &rc);
    EXPECT_EQ(rc, 6u);
}
