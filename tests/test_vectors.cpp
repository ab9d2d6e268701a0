// The signal-vector library: result codes, conversions, the pseudo-random
// sequence, ramps, arithmetic, vector files and the printer. The ring toolkit
// is checked through the stages that use it.

#include <array>
#include <cmath>
#include <cstring>

#include "util.hpp"
#include "vectors/basic_ops.hpp"
#include "vectors/dumps.hpp"
#include "vectors/manage.hpp"
#include "vectors/prbs.hpp"
#include "vectors/sources.hpp"

namespace {

using namespace tu;
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
// The values of h after an operation on it that must succeed.
I ints_after(unsigned rc, const Vec& h) {
    EXPECT_EQ(rc, 0u);
    return ints_of(h);
}
F reals_after(unsigned rc, const Vec& h) {
    EXPECT_EQ(rc, 0u);
    return reals_of(h);
}

// Everything a vector file carries besides the elements.
std::string header_of(const Vec& h) {
    return std::to_string(h.v->type) + " " + std::to_string(h.v->len) + " " + std::to_string(h.v->acc) + " " +
           std::to_string(h.v->range) + " " + h.v->desc;
}

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

}  // namespace

TEST(VecManage, ResultCodesResizeAndCopy) {
    Vec a(Digital);
    EXPECT_EQ(priv_dvbCreateVect(&a.v, Digital), 7u);
    EXPECT_EQ(priv_dvbCreateVect(&a.v, Real), 10u);
    dvbVect* none = nullptr;
    EXPECT_EQ(priv_dvbDestroyVect(&none), 6u);
    EXPECT_EQ(dvbConstVect(nullptr, Symbol, 4, 0), 6u);
    EXPECT_EQ(dvbResizeVect(nullptr, 3), 6u);
    EXPECT_EQ(dvbCopyVect(a.v, nullptr), 5u);
    Vec bits(Bit);
    ASSERT_EQ(dvbConstVect(bits.v, Bit, 8, 1), 0u);
    EXPECT_EQ(dvbConstVect(bits.v, Symbol, 4, 7), 1u);  // a Bit vector cannot be brought to Symbol without a width
    EXPECT_EQ(bits.v->type, Bit);

    // Resizing keeps the values and the ring position, zeroes the tail.
    ASSERT_EQ(dvbConstVect(a.v, Digital, 3, -7, 0, 0.0), 0u);
    a.v->head = 2;
    ASSERT_EQ(dvbResizeVect(a.v, 5), 0u);
    ASSERT_EQ(a.v->len, 5u);
    EXPECT_EQ(std::vector<int32_t>(dvbInts(a.v), dvbInts(a.v) + 5), (std::vector<int32_t>{-7, -7, -7, 0, 0}));
    EXPECT_EQ(a.v->head, 2u);
    Vec dst(Real);
    ASSERT_EQ(dvbCopyVect(dst.v, a.v), 0u);
    EXPECT_EQ(dst.v->type, Digital);
    EXPECT_EQ(std::memcmp(dst.v->data, a.v->data, 5 * sizeof(int32_t)), 0);
    Vec one(Symbol), copy(Symbol);
    ASSERT_EQ(dvbConstVect(one.v, Symbol, 1, 0x5A), 0u);
    ASSERT_EQ(dvbConstVect(copy.v, Symbol, 1, 0), 0u);
    ASSERT_EQ(dvbCopyVect(copy.v, one.v), 0u);
    EXPECT_EQ(dvbBytes(copy.v)[0], 0x5A);
    ASSERT_EQ(dvbResizeVect(a.v, 0), 0u);
    EXPECT_EQ(a.v->type, 0u);  // Empty
    EXPECT_EQ(a.v->data, nullptr);
}

TEST(VecConvert, PackingAndQuantising) {
    for (int order : {0, 1}) {
        Vec a(Bit);
        ASSERT_EQ(dvbConstVect(a.v, Bit, 9, 0), 0u);
        std::memcpy(a.v->data, "\0\0\0\0\0\0\1\1\1", 9);
        ASSERT_EQ(dvbConvertVect(a.v, Symbol, 8, order), 0u);
        ASSERT_EQ(a.v->len, 2u);  // rounded up
        EXPECT_EQ(dvbBytes(a.v)[0], order == 0 ? 0x03 : 0xC0) << order;
    }
    Vec z(Bit);
    ASSERT_EQ(dvbConstVect(z.v, Bit, 3, 1), 0u);
    EXPECT_EQ(dvbConvertVect(z.v, Symbol, 0, 0), 1u);  // width 0 packs nothing
    EXPECT_EQ(z.v->type, Bit);
    Vec r(Real);
    ASSERT_EQ(dvbConstVect(r.v, Real, 4, 0.0), 0u);
    // The last value lands on -1 only when the sum is formed in double and rounded once.
    const float in[4] = {1.0f, -1.0f, 0.0f, -0.0039062514f};
    std::memcpy(r.v->data, in, sizeof in);
    EXPECT_EQ(ints_after(dvbConvertVect(r.v, Digital, 8, 1.0), r), (I{127, -128, 0, -1}));
    EXPECT_EQ(r.v->acc, 8);
    EXPECT_EQ(r.v->range, 1.0f);
    // Width 0: x + 0.5 truncated; what no 32-bit integer holds becomes 0.
    const float in0[5] = {2.5f, -1.7f, -0.3f, 1e10f, NAN};
    ASSERT_EQ(dvbConstVect(r.v, Real, 5, 0.0), 0u);
    std::memcpy(r.v->data, in0, sizeof in0);
    EXPECT_EQ(ints_after(dvbConvertVect(r.v, Digital, 0, 0.0), r), (I{3, -1, 0, 0, 0}));
    ASSERT_EQ(dvbConstVect(r.v, Digital, 1, 64, 8, 1.0), 0u);
    EXPECT_EQ(reals_after(dvbConvertVect(r.v, Real), r), (F{0.5f}));

    Vec u(Symbol);  // bytes are unsigned
    ASSERT_EQ(dvbConstVect(u.v, Symbol, 2, 255), 0u);
    dvbBytes(u.v)[1] = 3;
    EXPECT_EQ(reals_after(dvbConvertVect(u.v, Real), u), (F{255.0f, 3.0f}));
}

// The dispersal sequence itself is checked byte for byte by the chain test;
// here the two cases the driver never makes.
TEST(VecPRBS, NoVectorAndNoRegister) {
    Vec q(Digital);
    EXPECT_EQ(dvbPRBSCreate(nullptr, 15, 0x6000, 169, 8), 6u);  // the vector's code, nothing generated
    ASSERT_EQ(dvbPRBSCreate(q.v, 0, 0x6000, 169, 5), 0u);       // no register: all zeros
    EXPECT_EQ(std::vector<uint8_t>(dvbBytes(q.v), dvbBytes(q.v) + 5), (std::vector<uint8_t>(5, 0)));
}

TEST(VecUtilSources, LinSpaceAndName) {
    Vec r(Real), d(Digital), e(Empty);
    EXPECT_EQ(reals_after(dvbLinSpaceVect(r.v, 5, 0.0, 1.0), r), (F{0.0f, 0.25f, 0.5f, 0.75f, 1.0f}));
    EXPECT_EQ(ints_after(dvbLinSpaceVect(d.v, 3, 0, 10, 8, 2.0), d), (I{0, 5, 10}));
    EXPECT_EQ(ints_after(dvbLinSpaceVect(d.v, 4, 3, -3, 0, 0.0), d), (I{3, 1, -1, -3}));  // rounds half up
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
    EXPECT_EQ(ints_after(dvbAddVect(out.v, a.v, b.v, 1), out)[0], -56);
    EXPECT_EQ(ints_after(dvbAddVect(out.v, a.v, b.v, 0), out)[1], 127);
    EXPECT_EQ(dvbMultVect(out.v, a.v, b.v, 1), 2u);
    EXPECT_EQ(ints_of(out), (I{0, 127}));  // not computed
    set_ints(a, {64}, 8, 0.5);
    EXPECT_EQ(ints_after(dvbInvVect(out.v, a.v), out), (I{2}));

    // Other accuracies wrap the same way; 0 keeps the plain 32-bit result.
    for (auto [acc, x, y, sum, diff] :
         std::vector<std::array<int32_t, 5>>{{3, 3, 1, -4, 2},
                                             {3, -4, 3, -1, 1},
                                             {16, 32767, 2, -32767, 32765},
                                             {31, 1 << 29, 3 << 28, -(1 << 30) + (1 << 28), -(1 << 28)},
                                             {0, 2147483647, -2147483647, 0, -2}}) {
        set_ints(a, {x}, acc, 1.0);
        set_ints(b, {y}, acc, 1.0);
        EXPECT_EQ(ints_after(dvbAddVect(out.v, a.v, b.v, 1), out)[0], sum) << acc;
        EXPECT_EQ(ints_after(dvbAddVect(out.v, a.v, b.v, 0), out)[0], diff) << acc;
    }
}

TEST(VecUtilArith, RealFlagsAndResultCodes) {
    Vec a(Real), b(Real), out(Real), d(Digital), e(Empty);
    set_reals(a, {1.5f, -2.0f});
    set_reals(b, {2.0f, 0.5f});
    EXPECT_EQ(reals_after(dvbAddVect(out.v, a.v, b.v, 0), out), (F{-0.5f, -2.5f}));
    EXPECT_EQ(reals_after(dvbMultVect(out.v, a.v, b.v, 0), out), (F{0.75f, -4.0f}));
    // One-operand and constant forms.
    EXPECT_EQ(reals_after(dvbInvVect(out.v, b.v), out), (F{0.5f, 2.0f}));
    EXPECT_EQ(reals_after(dvbMultConst(out.v, a.v, -2.0), out), (F{-3.0f, 4.0f}));
    EXPECT_EQ(reals_after(dvbAddConst(out.v, a.v, 0.25), out), (F{1.75f, -1.75f}));
    EXPECT_EQ(reals_after(dvbAddConst(out.v, a.v, 1), out), (F{2.5f, -1.0f}));  // an integer constant on a Real vector
    Vec dout(Digital);
    set_ints(d, {127, -128}, 8, 1.0);
    EXPECT_EQ(dvbAddConst(dout.v, d.v, 1), 9u);  // the output's accuracy must match
    set_ints(dout, {0, 0}, 8, 1.0);
    EXPECT_EQ(ints_after(dvbAddConst(dout.v, d.v, 1), dout), (I{-128, -127}));
    EXPECT_EQ(dvbAddConst(dout.v, d.v, 1.0), 1u);
    EXPECT_EQ(dvbMultConst(dout.v, d.v, 2.0), 2u);
    EXPECT_EQ(ints_after(dvbNegVect(dout.v, d.v), dout), (I{-127, 128}));

    set_ints(d, {1, 2}, 8, 1.0);
    EXPECT_EQ(dvbAddVect(nullptr, a.v, a.v, 1), 5u);
    EXPECT_EQ(dvbAddVect(out.v, a.v, d.v, 1), 10u);
    EXPECT_EQ(dvbNegVect(d.v, a.v), 10u);
    EXPECT_EQ(dvbMultConst(out.v, d.v, 1.0), 9u);
    EXPECT_EQ(dvbNegVect(e.v, e.v), 1u);
}

TEST(VecUtilFile, NativeAndMatRoundTripsAndHostileInput) {
    tu::TempDir dir;
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
    EXPECT_EQ(tu::read_file(p), want);
    ASSERT_EQ(dvbReadVect(back.v, p.c_str(), 0x1), 0u);
    EXPECT_EQ(header_of(back), header_of(s));
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
    EXPECT_EQ(tu::read_file(p), want);
    EXPECT_EQ(reals_after(dvbReadVect(rb.v, p.c_str(), 0x4), rb), reals_of(r));
    EXPECT_EQ(header_of(rb), std::to_string(Real) + " 3 0 0.000000 carrie");
    Vec one(Real), one_back(Empty);
    set_reals(one, {-7.5f});
    ASSERT_EQ(dvbWriteVect(one.v, p.c_str(), 0x4), 0u);
    EXPECT_EQ(reals_after(dvbReadVect(one_back.v, p.c_str(), 0x4), one_back), (F{-7.5f}));
    ASSERT_EQ(dvbWriteVect(r.v, p.c_str(), 0x4), 0u);
    for (size_t field : {0u, 12u}) {  // only type code 0 without an imaginary part is read
        Bytes bad = want;
        bad[field] = 1;
        tu::write_file(p, bad);
        EXPECT_EQ(dvbReadVect(rb.v, p.c_str(), 0x4), 1u) << field;
        EXPECT_EQ(reals_of(rb), reals_of(r));
    }

    // Four-byte elements are little-endian in the file; flag 0x2 reads them too.
    Vec d(Digital), db(Empty);
    set_ints(d, {-3, 0x01020304, 7}, 8, 2.0);
    ASSERT_EQ(dvbWriteVect(d.v, p.c_str(), 0x1), 0u);
    want = native_header(Digital, 3, 8, 2.0f, "TBD");
    for (uint32_t x : {0xFFFFFFFDu, 0x01020304u, 7u}) le32(want, x);
    EXPECT_EQ(tu::read_file(p), want);
    EXPECT_EQ(ints_after(dvbReadVect(db.v, p.c_str(), 0x2), db), ints_of(d));

    // A file cut inside its elements leaves the vector as it was.
    want = native_header(Digital, 3, 8, 1.0f, "x");
    want.insert(want.end(), 11, 0x55);
    tu::write_file(p, want);
    const void* const data = r.v->data;
    const std::string before = header_of(r);
    EXPECT_EQ(dvbReadVect(r.v, p.c_str(), 0x1), 1u);
    EXPECT_EQ(header_of(r), before);
    EXPECT_EQ(r.v->data, data);
    EXPECT_EQ(reals_of(r), (F{0.5f, -1.25f, 3.0f}));

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
    EXPECT_EQ(tu::captured([&] { rc = dvbPrintVect(d.v, 0x001 | 0x080 | 0x004 | 0x008, nullptr); }),
              "\n\nType: Digital\nDesc: ramp\n Acc: 8 bit, +/- 1.500000\n Len: 3\nSize: " +
                  std::to_string(sizeof(dvbVect) + 12) + " byte\n\n  -3\n  +0\n  +7\n\n");
    EXPECT_EQ(rc, 0u);

    Vec r(Real);
    set_reals(r, {0.5f, -2.0f});
    ASSERT_EQ(dvbNameVect(r.v, "r"), 0u);
    EXPECT_EQ(tu::captured([&] { rc = dvbPrintVect(r.v, 0x040 | 0x010 | 0x001, nullptr); }),
              "______________________________\n| Type: Real\n| Desc: r\n------------------------------\n"
              "|  0 :  +0.500000\n|  1 :  -2.000000\n------------------------------\n");
    tu::captured([&] { rc = dvbPrintVect(nullptr, 0x001, nullptr); });
    EXPECT_EQ(rc, 6u);
}
