// Vector record: creation and destruction codes, constant fill, conversions,
// resizing, copying, and the pseudo-random sequence against a bit-serial model.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "ring_util.hpp"
#include "vectors/basic_ops.hpp"
#include "vectors/manage.hpp"
#include "vectors/prbs.hpp"

namespace {

using testutil::Vec;

// Scrambler of the standard written stage by stage: stages 1..15 loaded with
// 100101010000000, feedback stage 14 XOR stage 15 into stage 1, output = feedback.
std::vector<uint8_t> serial_prbs(size_t nbits) {
    std::array<int, 16> s{};
    const char* load = "100101010000000";
    for (int i = 1; i <= 15; i++) s[i] = load[i - 1] - '0';
    std::vector<uint8_t> bits;
    for (size_t n = 0; n < nbits; n++) {
        const int b = s[14] ^ s[15];
        for (int i = 15; i > 1; i--) s[i] = s[i - 1];
        s[1] = b;
        bits.push_back(static_cast<uint8_t>(b));
    }
    return bits;
}

void bits_vector(Vec& h, const std::vector<uint8_t>& bits) {
    ASSERT_EQ(dvbConstVect(h.v, Bit, static_cast<uint32_t>(bits.size()), 0), 0u);
    std::memcpy(h.v->data, bits.data(), bits.size());
}

}  // namespace

TEST(VecManage, CreateDestroyAndEmptyConstCodes) {
    Vec a(Digital);
    EXPECT_EQ(a.v->len, 0u);
    EXPECT_EQ(a.v->data, nullptr);
    EXPECT_STREQ(a.v->desc, "TBD");
    dvbVect* const before = a.v;
    EXPECT_EQ(priv_dvbCreateVect(&a.v, Digital), 7u);
    EXPECT_EQ(priv_dvbCreateVect(&a.v, Real), 10u);
    EXPECT_EQ(a.v, before);
    EXPECT_EQ(a.v->type, Digital);

    dvbVect* none = nullptr;
    EXPECT_EQ(priv_dvbDestroyVect(&none), 6u);
    dvbVect* h = nullptr;
    ASSERT_EQ(priv_dvbCreateVect(&h, Symbol), 0u);
    EXPECT_EQ(priv_dvbDestroyVect(&h), 0u);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(priv_dvbDestroyVect(&h), 6u);

    Vec s(Symbol);
    EXPECT_EQ(dvbConstVect(s.v, Symbol, 0, 0), 0u);
    EXPECT_EQ(s.v->len, 0u);
    EXPECT_EQ(s.v->type, Symbol);
    EXPECT_EQ(dvbConstVect(nullptr, Symbol, 4, 0), 6u);
}

TEST(VecConvert, PackingFollowsOrderFlagAndRoundsLengthUp) {
    const std::vector<uint8_t> bits{0, 0, 0, 0, 0, 0, 1, 1};
    for (int order : {0, 1}) {
        Vec a(Bit);
        bits_vector(a, bits);
        ASSERT_EQ(dvbConvertVect(a.v, Symbol, 8, order), 0u);
        EXPECT_EQ(a.v->type, Symbol);
        EXPECT_EQ(a.v->len, 1u);
        EXPECT_EQ(a.v->acc, 8);
        EXPECT_EQ(dvbBytes(a.v)[0], order == 0 ? 0x03 : 0xC0) << order;
    }
    Vec b(Bit);
    bits_vector(b, {1, 0, 1, 0, 1, 0, 1, 0, 1});
    ASSERT_EQ(dvbConvertVect(b.v, Symbol, 8, 0), 0u);
    ASSERT_EQ(b.v->len, 2u);
    EXPECT_EQ(dvbBytes(b.v)[0], 0xAA);
}

TEST(VecConvert, QuantisingClipsAndRounds) {
    Vec a(Real);
    ASSERT_EQ(dvbConstVect(a.v, Real, 3, 0.0), 0u);
    const float in8[3] = {1.0f, -1.0f, 0.0f};
    std::memcpy(a.v->data, in8, sizeof in8);
    ASSERT_EQ(dvbConvertVect(a.v, Digital, 8, 1.0), 0u);
    EXPECT_EQ(a.v->type, Digital);
    EXPECT_EQ(a.v->acc, 8);
    EXPECT_EQ(a.v->range, 1.0f);
    EXPECT_EQ(dvbInts(a.v)[0], 127);
    EXPECT_EQ(dvbInts(a.v)[1], -128);
    EXPECT_EQ(dvbInts(a.v)[2], 0);

    // The sum is formed in double from the double range and rounded once: a value
    // just below -1/256 lands on -1, where an all-float evaluation gives 0.
    Vec c(Real);
    ASSERT_EQ(dvbConstVect(c.v, Real, 1, static_cast<double>(-0.0039062514f)), 0u);
    ASSERT_EQ(dvbConvertVect(c.v, Digital, 8, 1.0), 0u);
    EXPECT_EQ(dvbInts(c.v)[0], -1);

    Vec b(Real);
    ASSERT_EQ(dvbConstVect(b.v, Real, 3, 0.0), 0u);
    const float in0[3] = {2.5f, -1.7f, -0.3f};
    std::memcpy(b.v->data, in0, sizeof in0);
    ASSERT_EQ(dvbConvertVect(b.v, Digital, 0, 0.0), 0u);
    EXPECT_EQ(b.v->acc, 0);
    EXPECT_EQ(dvbInts(b.v)[0], 3);
    EXPECT_EQ(dvbInts(b.v)[1], -1);
    EXPECT_EQ(dvbInts(b.v)[2], 0);
}

TEST(VecConvert, ToRealScalesDigitalAndReadsSymbolsUnsigned) {
    Vec d(Digital);
    ASSERT_EQ(dvbConstVect(d.v, Digital, 2, 64, 8, 1.0), 0u);
    ASSERT_EQ(dvbConvertVect(d.v, Real), 0u);
    EXPECT_EQ(d.v->type, Real);
    EXPECT_EQ(dvbReals(d.v)[1], 0.5f);
    EXPECT_EQ(d.v->acc, 8);  // kept for the way back
    EXPECT_EQ(d.v->range, 1.0f);

    Vec s(Symbol);
    ASSERT_EQ(dvbConstVect(s.v, Symbol, 1, 255), 0u);
    ASSERT_EQ(dvbConvertVect(s.v, Real), 0u);
    EXPECT_EQ(dvbReals(s.v)[0], 255.0f);
}

TEST(VecConvert, ConversionsNotOfferedChangeNothing) {
    struct Case { uint32_t from, to; };
    for (const Case c : {Case{Symbol, Bit}, Case{Digital, Symbol}, Case{Complex, Real},
                         Case{Complex, Empty}, Case{Bit, Digital}, Case{Real, Symbol}}) {
        Vec a(c.from);
        ASSERT_EQ(dvbConstVect(a.v, c.from, 4, 1.0, 0.0), 0u);
        a.v->head = 1;
        a.v->fill = 2;
        std::vector<uint8_t> bytes(4 * dvbElemSize(c.from));
        std::memcpy(bytes.data(), a.v->data, bytes.size());
        const void* const data = a.v->data;
        EXPECT_EQ(dvbConvertVect(a.v, c.to), 0u) << c.from << "->" << c.to;
        EXPECT_EQ(a.v->type, c.from);
        EXPECT_EQ(a.v->len, 4u);
        EXPECT_EQ(a.v->data, data);
        EXPECT_EQ(std::memcmp(a.v->data, bytes.data(), bytes.size()), 0);
        EXPECT_EQ(a.v->head, 1u);
        EXPECT_EQ(a.v->fill, 2u);
    }
}

TEST(VecManage, ResizeKeepsValuesZeroesTailAndEmptiesAtZero) {
    Vec a(Digital);
    ASSERT_EQ(dvbConstVect(a.v, Digital, 3, -7, 0, 0.0), 0u);
    a.v->head = 2;
    a.v->fill = 1;
    ASSERT_EQ(dvbResizeVect(a.v, 5), 0u);
    ASSERT_EQ(a.v->len, 5u);
    const int32_t want[5] = {-7, -7, -7, 0, 0};
    for (int i = 0; i < 5; i++) EXPECT_EQ(dvbInts(a.v)[i], want[i]) << i;
    EXPECT_EQ(a.v->head, 2u);
    EXPECT_EQ(a.v->fill, 1u);
    ASSERT_EQ(dvbResizeVect(a.v, 0), 0u);
    EXPECT_EQ(a.v->type, Empty);
    EXPECT_EQ(a.v->len, 0u);
    EXPECT_EQ(a.v->data, nullptr);
    EXPECT_EQ(dvbResizeVect(nullptr, 3), 6u);
}

TEST(VecCopy, SymbolSequenceIntoFreshDigitalVector) {
    Vec src(Symbol), dst(Digital);
    ASSERT_EQ(dvbConstVect(src.v, Symbol, 1504, 0), 0u);
    for (uint32_t i = 0; i < 1504; i++) dvbBytes(src.v)[i] = static_cast<uint8_t>(i * 7 + 3);
    src.v->acc = 8;
    dst.v->head = 5;
    ASSERT_EQ(dvbCopyVect(dst.v, src.v), 0u);
    EXPECT_EQ(dst.v->type, Symbol);
    EXPECT_EQ(dst.v->len, 1504u);
    EXPECT_EQ(dst.v->acc, 8);
    EXPECT_EQ(dst.v->head, 5u);
    EXPECT_EQ(std::memcmp(dst.v->data, src.v->data, 1504), 0);
    EXPECT_EQ(dvbCopyVect(nullptr, src.v), 5u);
    EXPECT_EQ(dvbCopyVect(dst.v, nullptr), 5u);
}

TEST(VecPRBS, DispersalSequenceMatchesSerialScrambler) {
    Vec q(Digital);
    ASSERT_EQ(dvbPRBSCreate(q.v, 15, 0x6000, 169, 12032), 0u);
    ASSERT_EQ(q.v->type, Bit);
    ASSERT_EQ(q.v->len, 12032u);
    EXPECT_EQ(q.v->acc, 1);
    const std::vector<uint8_t> ref = serial_prbs(12032);
    size_t diff = 0;
    for (size_t i = 0; i < ref.size(); i++) diff += dvbBytes(q.v)[i] != ref[i];
    EXPECT_EQ(diff, 0u);

    ASSERT_EQ(dvbConvertVect(q.v, Symbol, 8, 0), 0u);
    ASSERT_EQ(q.v->len, 1504u);
    const uint8_t first[8] = {0x03, 0xF6, 0x08, 0x34, 0x30, 0xB8, 0xA3, 0x93};
    for (int i = 0; i < 8; i++) EXPECT_EQ(dvbBytes(q.v)[i], first[i]) << i;
}

TEST(VecPRBS, NoBitsAndZeroLengthRegister) {
    Vec a(Digital);
    EXPECT_EQ(dvbPRBSCreate(a.v, 15, 0x6000, 169, 0), 0u);
    EXPECT_EQ(a.v->type, Bit);
    EXPECT_EQ(a.v->len, 0u);

    Vec b(Digital);
    ASSERT_EQ(dvbPRBSCreate(b.v, 0, 0x6000, 0x7FFF, 100), 0u);
    ASSERT_EQ(b.v->len, 100u);
    for (uint32_t i = 0; i < 100; i++) EXPECT_EQ(dvbBytes(b.v)[i], 0) << i;
}
