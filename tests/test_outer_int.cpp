// Outer convolutional interleaver: layout, byte mapping, an independent
// de-interleaver, sync-byte alignment, initial fills and the group rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <random>
#include <vector>

#include "frame/params.hpp"
#include "outer/outer_int.hpp"
#include "ring_util.hpp"
#include "vectors/manage.hpp"

namespace {

using testutil::ByteRing;

class OuterInt : public ::testing::Test {
protected:
    uint32_t saved_cinit = dvbt_parms.cinit;
    uint16_t saved_verbosity = verbosity;
    void TearDown() override {
        dvbt_parms.cinit = saved_cinit;
        verbosity = saved_verbosity;
    }
};

// Streams the bytes through conv_int in random pieces over small rings whose
// lengths are not multiples of 12, so groups cross the wrap points.
std::vector<uint8_t> interleave(const std::vector<uint8_t>& stream, convint_state* s,
                                unsigned seed) {
    std::mt19937 g(seed);
    ByteRing in(137, 130), out(149, 140);
    std::vector<uint8_t> got;
    size_t pos = 0;
    for (;;) {
        const size_t n = std::min<size_t>(
            {in.v->len - in.v->fill, stream.size() - pos, static_cast<size_t>(g() % 90)});
        in.push(stream.data() + pos, n);
        pos += n;
        const uint32_t c = conv_int(in.v, out.v, s, g() % 80, nullptr);
        EXPECT_EQ(c % 12, 0u);
        out.pop_into(got);
        if (pos == stream.size() && in.v->fill < 12) break;
    }
    return got;
}

// Inverse interleaver: commutator position j delays by (11 - j) * 17 bytes of
// its own branch, so every byte leaves 2244 stream positions late.
std::vector<uint8_t> deinterleave(const std::vector<uint8_t>& in) {
    std::vector<std::deque<uint8_t>> line(12);
    for (int j = 0; j < 12; j++) line[j].assign(static_cast<size_t>((11 - j) * 17), 0);
    std::vector<uint8_t> out;
    for (size_t k = 0; k < in.size(); k++) {
        auto& d = line[k % 12];
        d.push_back(in[k]);
        out.push_back(d.front());
        d.pop_front();
    }
    return out;
}

std::vector<uint8_t> random_stream(size_t n, unsigned seed) {
    std::mt19937 g(seed);
    std::vector<uint8_t> b(n);
    for (auto& x : b) x = static_cast<uint8_t>(g());
    return b;
}

}  // namespace

TEST_F(OuterInt, InitLayoutZeroFill) {
    dvbt_parms.cinit = 0;
    convint_state s;
    init_convint(&s, 12, 17);
    ASSERT_EQ(s.nbranch, 12u);
    size_t cells = 0;
    for (uint32_t j = 0; j < 12; j++) {
        EXPECT_EQ(s.branch_len[j], j * 17);
        EXPECT_EQ(s.branch_fifo[j].size(), j * 17u);
        EXPECT_EQ(s.branch_pos[j], 0u);
        EXPECT_TRUE(std::all_of(s.branch_fifo[j].begin(), s.branch_fifo[j].end(),
                                [](uint8_t c) { return c == 0; }));
        cells += s.branch_fifo[j].size();
    }
    EXPECT_EQ(cells, 1122u);
}

TEST_F(OuterInt, ByteMappingWithZeroFill) {
    dvbt_parms.cinit = 0;
    convint_state s;
    init_convint(&s, 12, 17);
    const std::vector<uint8_t> in = random_stream(12 * 17 * 11 * 3 + 600, 1);
    const std::vector<uint8_t> out = interleave(in, &s, 2);
    ASSERT_EQ(out.size(), in.size() / 12 * 12);
    // First group: b0 then 11 fill zeros.
    EXPECT_EQ(out[0], in[0]);
    for (int j = 1; j < 12; j++) EXPECT_EQ(out[j], 0) << j;
    // Input byte 12g+j leaves as output byte 12(g+17j)+j; earlier outputs are fill.
    size_t mismatches = 0;
    for (size_t m = 0; m < out.size(); m++) {
        const long h = static_cast<long>(m / 12), j = static_cast<long>(m % 12);
        const long src_g = h - 17 * j;
        const uint8_t want = src_g >= 0 ? in[static_cast<size_t>(12 * src_g + j)] : 0;
        if (out[m] != want) mismatches++;
    }
    EXPECT_EQ(mismatches, 0u);
}

TEST_F(OuterInt, DeinterleaverRestoresPacketsAndSyncStaysPut) {
    dvbt_parms.cinit = 1;
    convint_state s;
    init_convint(&s, 12, 17);
    std::vector<uint8_t> in = random_stream(204 * 40, 3);
    for (size_t p = 0; p < 40; p++) in[204 * p] = p % 8 == 0 ? 0xB8 : 0x47;
    const std::vector<uint8_t> out = interleave(in, &s, 4);
    ASSERT_EQ(out.size(), in.size());
    for (size_t p = 0; p < 40; p++) EXPECT_EQ(out[204 * p], in[204 * p]) << "packet " << p;
    const std::vector<uint8_t> back = deinterleave(out);
    EXPECT_TRUE(std::equal(back.begin() + 2244, back.end(), in.begin()));
}

TEST_F(OuterInt, RandFillReproducibleAndDistinctPerStream) {
    dvbt_parms.cinit = 1;
    std::srand(1);  // the sequence of a never-seeded rand()
    std::vector<uint8_t> seq(2244);
    for (auto& x : seq) x = static_cast<uint8_t>(std::rand() & 0xFF);

    std::srand(1);
    convint_state hp, lp;
    init_convint(&hp, 12, 17);
    init_convint(&lp, 12, 17);
    size_t k = 0;
    for (uint32_t j = 1; j < 12; j++)
        for (uint32_t c = 0; c < j * 17; c++, k++) {
            EXPECT_EQ(hp.branch_fifo[j][c], seq[k]);
            EXPECT_EQ(lp.branch_fifo[j][c], seq[1122 + k]);
        }
    EXPECT_NE(hp.branch_fifo, lp.branch_fifo);

    std::srand(1);
    convint_state again;
    init_convint(&again, 12, 17);
    EXPECT_EQ(again.branch_fifo, hp.branch_fifo);

    // The first group of output shows cell 0 of every branch.
    const std::vector<uint8_t> in = random_stream(24, 9);
    const std::vector<uint8_t> out = interleave(in, &again, 6);
    ASSERT_EQ(out.size(), 24u);
    EXPECT_EQ(out[0], in[0]);
    for (uint32_t j = 1; j < 12; j++) EXPECT_EQ(out[j], seq[17 * j * (j - 1) / 2]) << j;
}

TEST_F(OuterInt, WholeGroupsAndLimits) {
    dvbt_parms.cinit = 0;
    verbosity = 4;
    convint_state s;
    init_convint(&s, 12, 17);
    const std::vector<uint8_t> b = random_stream(40, 7);
    ByteRing in(100), out(100);

    testing::internal::CaptureStdout();
    EXPECT_EQ(conv_int(in.v, out.v, &s, 100, nullptr), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    in.push(b.data(), 11);
    testing::internal::CaptureStdout();
    EXPECT_EQ(conv_int(in.v, out.v, &s, 100, nullptr), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Outer_int   : 0 samples\n");
    EXPECT_EQ(in.v->fill, 11u);

    in.push(b.data() + 11, 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(conv_int(in.v, out.v, &s, 100, nullptr), 12u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Outer_int   : 12 samples\n");
    EXPECT_EQ(out.v->fill, 12u);

    in.push(b.data() + 12, 28);
    EXPECT_EQ(conv_int(in.v, out.v, &s, 23, nullptr), 12u);
    EXPECT_EQ(conv_int(in.v, out.v, &s, 11, nullptr), 0u);
    out.v->fill = 89;  // 11 free
    EXPECT_EQ(conv_int(in.v, out.v, &s, 100, nullptr), 0u);
    out.v->fill = 100;
    testing::internal::CaptureStdout();
    EXPECT_EQ(conv_int(in.v, out.v, &s, 100, nullptr), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(in.v->fill, 16u);
}

TEST_F(OuterInt, DumpHoldsOutput) {
    dvbt_parms.cinit = 0;
    convint_state s;
    init_convint(&s, 12, 17);
    const std::vector<uint8_t> b = random_stream(60, 8);
    ByteRing in(64), out(50, 45);  // the output wraps
    in.push(b.data(), 60);
    FILE* dump = std::tmpfile();
    ASSERT_NE(dump, nullptr);
    EXPECT_EQ(conv_int(in.v, out.v, &s, 100, dump), 48u);
    std::vector<uint8_t> got;
    out.pop_into(got);
    std::rewind(dump);
    std::vector<uint8_t> dumped(100);
    dumped.resize(std::fread(dumped.data(), 1, dumped.size(), dump));
    EXPECT_EQ(dumped, got);
    std::fclose(dump);
}
