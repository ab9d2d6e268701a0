// Outer convolutional interleaver: byte mapping, an independent de-interleaver,
// sync-byte alignment, initial fills and the whole-group rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <random>
#include <vector>

#include "outer/outer_int.hpp"
#include "ring_util.hpp"

namespace {

using testutil::ByteRing;
using Bytes = std::vector<uint8_t>;

class OuterInt : public ::testing::Test {
protected:
    uint32_t saved_cinit = dvbt_parms.cinit;
    void TearDown() override { dvbt_parms.cinit = saved_cinit; }
};

// Streams the bytes through conv_int in random pieces over small rings whose
// lengths are not multiples of 12, so groups cross the wrap points; the dump
// must hold exactly the output.
Bytes interleave(const Bytes& stream, convint_state* s, unsigned seed) {
    std::mt19937 g(seed);
    ByteRing in(137, 130), out(149, 140);
    FILE* dump = std::tmpfile();
    Bytes got;
    for (size_t pos = 0; pos < stream.size() || in.v->fill >= 12;) {
        const size_t n = std::min<size_t>({in.v->len - in.v->fill, stream.size() - pos, g() % 90});
        in.push(stream.data() + pos, n);
        pos += n;
        EXPECT_EQ(conv_int(in.v, out.v, s, g() % 80, dump) % 12, 0u);
        out.pop_into(got);
    }
    std::rewind(dump);
    Bytes dumped(got.size() + 1);
    dumped.resize(std::fread(dumped.data(), 1, dumped.size(), dump));
    EXPECT_EQ(dumped, got);
    std::fclose(dump);
    return got;
}

// Inverse interleaver: commutator position j delays by (11 - j) * 17 bytes of
// its own branch, so every byte leaves 2244 stream positions late.
Bytes deinterleave(const Bytes& in) {
    std::vector<std::deque<uint8_t>> line(12);
    for (int j = 0; j < 12; j++) line[j].assign(static_cast<size_t>((11 - j) * 17), 0);
    Bytes out;
    for (size_t k = 0; k < in.size(); k++) {
        auto& d = line[k % 12];
        d.push_back(in[k]);
        out.push_back(d.front());
        d.pop_front();
    }
    return out;
}

}  // namespace

TEST_F(OuterInt, MappingSyncAndIndependentDeinterleaver) {
    dvbt_parms.cinit = 0;
    convint_state s;
    init_convint(&s, 12, 17);
    std::mt19937 g(3);
    Bytes in(204 * 40 + 7);
    for (size_t i = 0; i < in.size(); i++) in[i] = i % 204 ? static_cast<uint8_t>(g()) : i % 1632 ? 0x47 : 0xB8;
    const Bytes out = interleave(in, &s, 4);
    ASSERT_EQ(out.size(), 204 * 40u);
    // Input byte 12g+j leaves as output byte 12(g+17j)+j; earlier outputs are the zero fill.
    size_t mismatches = 0;
    for (size_t m = 0; m < out.size(); m++) {
        const long src_g = static_cast<long>(m / 12) - 17 * static_cast<long>(m % 12);
        mismatches += out[m] != (src_g >= 0 ? in[static_cast<size_t>(12 * src_g) + m % 12] : 0);
    }
    EXPECT_EQ(mismatches, 0u);
    for (size_t p = 0; p < 40; p++) EXPECT_EQ(out[204 * p], in[204 * p]) << "sync byte of packet " << p;
    const Bytes back = deinterleave(out);
    EXPECT_TRUE(std::equal(back.begin() + 2244, back.end(), in.begin()));
}

TEST_F(OuterInt, RandFillReproducibleAndDistinctPerStream) {
    dvbt_parms.cinit = 1;
    std::srand(1);  // the sequence of a never-seeded rand()
    Bytes seq(2244);
    for (auto& x : seq) x = static_cast<uint8_t>(std::rand() & 0xFF);
    std::srand(1);
    convint_state hp, lp, again;
    init_convint(&hp, 12, 17);
    init_convint(&lp, 12, 17);
    Bytes fills;
    for (const convint_state* st : {&hp, &lp})
        for (uint32_t j = 1; j < 12; j++) fills.insert(fills.end(), st->branch_fifo[j].begin(), st->branch_fifo[j].end());
    EXPECT_EQ(fills, seq);
    EXPECT_NE(hp.branch_fifo, lp.branch_fifo);
    std::srand(1);
    init_convint(&again, 12, 17);
    EXPECT_EQ(again.branch_fifo, hp.branch_fifo);
}

TEST_F(OuterInt, WholeGroupsAndLimits) {
    dvbt_parms.cinit = 0;
    testutil::Verbose v;
    convint_state s;
    init_convint(&s, 12, 17);
    const Bytes b(40, 0x5A);
    ByteRing in(100), out(100);
    testing::internal::CaptureStdout();
    EXPECT_EQ(conv_int(in.v, out.v, &s, 100, nullptr), 0u);  // empty input: silent
    in.push(b.data(), 11);
    EXPECT_EQ(conv_int(in.v, out.v, &s, 100, nullptr), 0u);
    in.push(b.data() + 11, 29);
    EXPECT_EQ(conv_int(in.v, out.v, &s, 23, nullptr), 12u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Outer_int   : 0 samples\nOuter_int   : 12 samples\n");
    out.v->fill = 89;  // 11 free
    EXPECT_EQ(conv_int(in.v, out.v, &s, 100, nullptr), 0u);
    out.v->fill = 100;  // full: silent
    testing::internal::CaptureStdout();
    EXPECT_EQ(conv_int(in.v, out.v, &s, 100, nullptr), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(in.v->fill, 28u);
}
