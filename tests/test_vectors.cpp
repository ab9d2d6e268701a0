// Vector record: creation and destruction codes, conversions, resizing,
// copying, and the pseudo-random sequence against a bit-serial model.
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
    ASSERT_EQ(dvbResizeVect(a.v, 0), 0u);
    EXPECT_EQ(a.v->type, Empty);
    EXPECT_EQ(a.v->data, nullptr);
}

TEST(VecConvert, PackingQuantisingAndUnofferedConversions) {
    for (int order : {0, 1}) {
        Vec a(Bit);
        ASSERT_EQ(dvbConstVect(a.v, Bit, 9, 0), 0u);
        std::memcpy(a.v->data, "\0\0\0\0\0\0\1\1\1", 9);
        ASSERT_EQ(dvbConvertVect(a.v, Symbol, 8, order), 0u);
        ASSERT_EQ(a.v->len, 2u);  // rounded up
        EXPECT_EQ(dvbBytes(a.v)[0], order == 0 ? 0x03 : 0xC0) << order;
    }
    Vec r(Real);
    ASSERT_EQ(dvbConstVect(r.v, Real, 4, 0.0), 0u);
    // The last value lands on -1 only when the sum is formed in double and rounded once.
    const float in[4] = {1.0f, -1.0f, 0.0f, -0.0039062514f};
    std::memcpy(r.v->data, in, sizeof in);
    ASSERT_EQ(dvbConvertVect(r.v, Digital, 8, 1.0), 0u);
    EXPECT_EQ(std::vector<int32_t>(dvbInts(r.v), dvbInts(r.v) + 4), (std::vector<int32_t>{127, -128, 0, -1}));
    ASSERT_EQ(dvbConstVect(r.v, Digital, 1, 64, 8, 1.0), 0u);
    ASSERT_EQ(dvbConvertVect(r.v, Real), 0u);
    EXPECT_EQ(dvbReals(r.v)[0], 0.5f);

    Vec s(Symbol);
    ASSERT_EQ(dvbConstVect(s.v, Symbol, 4, 1), 0u);
    const void* const data = s.v->data;
    EXPECT_EQ(dvbConvertVect(s.v, Bit), 0u);
    EXPECT_EQ(s.v->type, Symbol);
    EXPECT_EQ(s.v->data, data);
    EXPECT_EQ(dvbBytes(s.v)[3], 1);
}

TEST(VecPRBS, DispersalSequenceMatchesSerialScrambler) {
    Vec q(Digital);
    ASSERT_EQ(dvbPRBSCreate(q.v, 15, 0x6000, 169, 12032), 0u);
    ASSERT_EQ(q.v->type, Bit);
    ASSERT_EQ(q.v->len, 12032u);
    const std::vector<uint8_t> ref = serial_prbs(12032);
    EXPECT_EQ(std::vector<uint8_t>(dvbBytes(q.v), dvbBytes(q.v) + 12032), ref);

    ASSERT_EQ(dvbConvertVect(q.v, Symbol, 8, 0), 0u);
    const std::vector<uint8_t> first{0x03, 0xF6, 0x08, 0x34, 0x30, 0xB8, 0xA3, 0x93};
    EXPECT_EQ(std::vector<uint8_t>(dvbBytes(q.v), dvbBytes(q.v) + 8), first);
}
