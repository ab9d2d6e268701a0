// Transport stream input and energy dispersal: ring reads from a file, the
// dispersal against a bit-serial scrambler reset every 8 packets, and the
// independence of the result from how the stream is cut into calls.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <random>
#include <vector>

#include "outer/energy.hpp"
#include "outer/mpeg2.hpp"
#include "ring_util.hpp"
#include "vectors/prbs.hpp"

namespace {

using testutil::ByteRing;
using Bytes = std::vector<uint8_t>;

// The sequence as the driver prepares it.
struct Sequence : testutil::Vec {
    Sequence() : Vec(Digital) {
        EXPECT_EQ(dvbPRBSCreate(v, ED_REGLEN, ED_TAPS, ED_INIT, ED_BITS), 0u);
        EXPECT_EQ(dvbConvertVect(v, Symbol, 8, 0), 0u);
        v->head = 0;
    }
};

// Scrambler of the standard, stage by stage (stages 1..15, feedback 14 XOR 15).
struct Scrambler {
    std::array<int, 16> s{};
    Scrambler() { reset(); }
    void reset() { for (int i = 1; i <= 15; i++) s[i] = "100101010000000"[i - 1] - '0'; }
    uint8_t next_byte() {
        int byte = 0;
        for (int n = 0; n < 8; n++) {
            const int b = s[14] ^ s[15];
            for (int i = 15; i > 1; i--) s[i] = s[i - 1];
            s[1] = b;
            byte = byte << 1 | b;
        }
        return static_cast<uint8_t>(byte);
    }
};

// Reference dispersal: the first sync byte of each 8-packet group is inverted and
// resets the scrambler; the other sync bytes pass while the scrambler runs on.
Bytes reference(const Bytes& ts) {
    Bytes out(ts);
    Scrambler sc;
    for (size_t i = 0; i < ts.size(); i++) {
        if (i % 1504 == 0) sc.reset();
        const uint8_t m = i % 1504 == 0 ? 0xFF : sc.next_byte();
        if (i % 1504 == 0 || i % 188 != 0) out[i] ^= m;
    }
    return out;
}

Bytes transport_stream(size_t packets, unsigned seed) {
    std::mt19937 g(seed);
    Bytes b(packets * 188);
    for (size_t i = 0; i < b.size(); i++) b[i] = i % 188 == 0 ? 0x47 : static_cast<uint8_t>(g());
    return b;
}

Bytes file_bytes(FILE* f) {
    Bytes b;
    std::rewind(f);
    for (int c; (c = std::fgetc(f)) != EOF;) b.push_back(static_cast<uint8_t>(c));
    return b;
}

}  // namespace

TEST(EnergyDispersal, KnownBytesWholeStreamAndSilentNoOps) {
    testutil::Verbose v;
    const Bytes ts = transport_stream(27, 1);  // three groups and three packets
    Scrambler sc;
    Bytes seq(189);
    for (auto& x : seq) x = sc.next_byte();
    ASSERT_NE(seq[187], seq[188]);
    Sequence q;
    ByteRing in(ts.size() + 10, 10), out(ts.size(), 7);
    in.push(ts);
    testing::internal::CaptureStdout();
    ASSERT_EQ(energy_inv(in.v, out.v, q.v, 100000, nullptr), static_cast<int32_t>(ts.size()));
    EXPECT_EQ(energy_inv(in.v, out.v, q.v, 100000, nullptr), 0);  // empty input
    in.push(ts.data(), 5);
    EXPECT_EQ(energy_inv(in.v, out.v, q.v, 100000, nullptr), 0);  // full output
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Energy+Inv. : 5076 samples\n");
    EXPECT_EQ(in.v->fill, 5u);
    EXPECT_EQ(q.v->head, ts.size() % 1504);
    const Bytes got = out.pop_all();
    ASSERT_EQ(got.size(), ts.size());
    EXPECT_EQ(got[0], 0xB8);
    EXPECT_EQ(got[1], ts[1] ^ 0x03);
    EXPECT_EQ(got[188], 0x47);
    EXPECT_EQ(got[189], ts[189] ^ seq[188]);
    EXPECT_EQ(got[1504], 0xB8);
    EXPECT_TRUE(got == reference(ts));
}

// Pieces of 1 to 1000 bytes through small rings, the output drained only every
// third call so that it also fills up: the output and the dump match the
// reference for any maxlen, and some calls cross a ring end.
TEST(EnergyDispersal, PiecesAndWrapAroundGiveSameOutputAndDump) {
    const Bytes ts = transport_stream(20, 2);
    const Bytes ref = reference(ts);
    const size_t pieces[] = {1, 187, 2, 188, 300, 5, 1000};
    for (const uint32_t maxlen : {100000u, 7u}) {
        SCOPED_TRACE(maxlen);
        FILE* dump = std::tmpfile();
        ASSERT_NE(dump, nullptr);
        Sequence q;
        ByteRing in(193, 150), out(211, 200);
        Bytes got;
        int wraps = 0;
        for (size_t pos = 0, call = 0; got.size() < ts.size() && call < 100000; call++) {
            const size_t n = std::min({pieces[call % 7], ts.size() - pos, size_t{in.v->len - in.v->fill}});
            in.push(ts.data() + pos, n);
            pos += n;
            const uint32_t want = std::min({in.v->fill, out.v->len - out.v->fill, maxlen});
            const uint32_t r0 = in.v->head, w0 = (out.v->head + out.v->fill) % out.v->len;
            EXPECT_EQ(energy_inv(in.v, out.v, q.v, maxlen, dump), static_cast<int32_t>(want));
            wraps += (r0 + want > in.v->len) + (w0 + want > out.v->len);
            if (call % 3 != 0 || in.v->fill == 0) out.pop_into(got);
        }
        EXPECT_EQ(q.v->head, ts.size() % 1504);
        EXPECT_TRUE(got == ref);
        EXPECT_TRUE(file_bytes(dump) == ref);
        EXPECT_GT(wraps, 0);
        std::fclose(dump);
    }
}

// A ring of 10 bytes with head 6 and a file of 20 bytes: a wrapping read of 10,
// then nothing while the ring is full, a read starting at (head + fill), and
// the end of the file still reported.
TEST(EnergyDispersal, ReadMpegFillsRingAcrossWrapThenStops) {
    testutil::Verbose v;
    FILE* f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    for (int i = 0; i < 20; i++) std::fputc(100 + i, f);
    std::rewind(f);
    ByteRing ts(10, 6);
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_mpeg(f, ts.v, 10), 10u);
    EXPECT_EQ(read_mpeg(f, ts.v, 10), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "MPEG-2_read : 10 samples\n");
    EXPECT_EQ(ts.v->head, 6u);
    for (uint32_t i = 0; i < 10; i++) EXPECT_EQ(ts.at((6 + i) % 10), 100 + i) << i;

    ts.v->head = 7;
    ts.v->fill = 2;
    EXPECT_EQ(read_mpeg(f, ts.v, 5), 5u);  // written at 9, 0, 1, 2, 3
    EXPECT_EQ(ts.v->fill, 7u);
    for (int i = 0; i < 5; i++) EXPECT_EQ(ts.at((9 + i) % 10), 110 + i) << i;
    ts.v->fill = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_mpeg(f, ts.v, 10), 5u);
    EXPECT_EQ(read_mpeg(f, ts.v, 10), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "MPEG-2_read : 5 samples\nMPEG-2_read : 0 samples\n");
    EXPECT_EQ(ts.v->fill, 5u);
    std::fclose(f);
}
