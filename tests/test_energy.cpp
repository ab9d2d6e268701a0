// Transport stream input and energy dispersal: ring reads from a file, the
// dispersal against a bit-serial scrambler reset every 8 packets, and the
// independence of the result from how the stream is cut into calls.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "frame/params.hpp"
#include "outer/energy.hpp"
#include "outer/mpeg2.hpp"
#include "ring_util.hpp"
#include "vectors/manage.hpp"
#include "vectors/prbs.hpp"

namespace {

using testutil::ByteRing;

struct Owned {
    dvbVect* v = nullptr;
    Owned() = default;
    ~Owned() { priv_dvbDestroyVect(&v); }
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
};

// The sequence as the driver prepares it.
struct Sequence : Owned {
    Sequence() {
        priv_dvbCreateVect(&v, Digital);
        EXPECT_EQ(dvbPRBSCreate(v, ED_REGLEN, ED_TAPS, ED_INIT, ED_BITS), 0u);
        EXPECT_EQ(dvbConvertVect(v, Symbol, 8, 0), 0u);
        v->head = 0;
    }
};

// Scrambler of the standard, stage by stage (stages 1..15, feedback 14 XOR 15).
struct Scrambler {
    std::array<int, 16> s{};
    Scrambler() { reset(); }
    void reset() {
        const char* load = "100101010000000";
        for (int i = 1; i <= 15; i++) s[i] = load[i - 1] - '0';
    }
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

// The 1504 sequence bytes from the scrambler.
std::vector<uint8_t> own_sequence() {
    Scrambler sc;
    std::vector<uint8_t> b(1504);
    for (auto& x : b) x = sc.next_byte();
    return b;
}

// Reference dispersal: the first sync byte of each 8-packet group is inverted and
// resets the scrambler; the other sync bytes pass while the scrambler runs on.
std::vector<uint8_t> reference(const std::vector<uint8_t>& ts) {
    std::vector<uint8_t> out(ts);
    Scrambler sc;
    for (size_t i = 0; i < ts.size(); i++) {
        if (i % 1504 == 0) {
            sc.reset();
            out[i] = static_cast<uint8_t>(~ts[i]);
            continue;
        }
        const uint8_t m = sc.next_byte();
        if (i % 188 != 0) out[i] ^= m;
    }
    return out;
}

std::vector<uint8_t> transport_stream(size_t packets, unsigned seed) {
    std::mt19937 g(seed);
    std::vector<uint8_t> b(packets * 188);
    for (size_t i = 0; i < b.size(); i++) b[i] = i % 188 == 0 ? 0x47 : static_cast<uint8_t>(g());
    return b;
}

std::vector<uint8_t> file_bytes(FILE* f) {
    std::vector<uint8_t> b;
    std::rewind(f);
    for (int c; (c = std::fgetc(f)) != EOF;) b.push_back(static_cast<uint8_t>(c));
    return b;
}

class EnergyDispersal : public ::testing::Test {
protected:
    uint16_t saved = verbosity;
    void TearDown() override { verbosity = saved; }
};

// Feeds the stream through small rings in pieces of the given sizes; the output
// ring is drained only every third call so that it also fills up.
std::vector<uint8_t> run_pieces(const std::vector<uint8_t>& ts, const std::vector<size_t>& pieces,
                                uint32_t maxlen, FILE* dump, int* wraps) {
    Sequence q;
    ByteRing in(193, 150), out(211, 200);
    std::vector<uint8_t> got;
    size_t pos = 0;
    for (size_t call = 0; got.size() < ts.size() && call < 100000; call++) {
        const size_t n = std::min({pieces[call % pieces.size()], ts.size() - pos,
                                   size_t{in.v->len - in.v->fill}});
        in.push(ts.data() + pos, n);
        pos += n;
        const uint32_t want = std::min({in.v->fill, out.v->len - out.v->fill, maxlen});
        const uint32_t r0 = in.v->head, w0 = (out.v->head + out.v->fill) % out.v->len;
        EXPECT_EQ(energy_inv(in.v, out.v, q.v, maxlen, dump), static_cast<int32_t>(want));
        *wraps += (r0 + want > in.v->len) + (w0 + want > out.v->len);
        if (call % 3 != 0 || in.v->fill == 0) out.pop_into(got);
    }
    EXPECT_EQ(q.v->head, ts.size() % 1504);
    return got;
}

}  // namespace

TEST_F(EnergyDispersal, KnownBytesAndWholeStreamInOneCall) {
    const std::vector<uint8_t> ts = transport_stream(27, 1);  // three groups and three packets
    const std::vector<uint8_t> seq = own_sequence();
    ASSERT_NE(seq[187], seq[188]);
    Sequence q;
    ByteRing in(ts.size() + 10, 10), out(ts.size() + 10, 7);
    in.push(ts.data(), ts.size());
    ASSERT_EQ(energy_inv(in.v, out.v, q.v, 100000, nullptr), static_cast<int32_t>(ts.size()));
    std::vector<uint8_t> got;
    out.pop_into(got);
    ASSERT_EQ(got.size(), ts.size());
    EXPECT_EQ(got[0], 0xB8);
    EXPECT_EQ(got[1], ts[1] ^ 0x03);
    EXPECT_EQ(got[188], 0x47);
    EXPECT_EQ(got[189], ts[189] ^ seq[188]);
    EXPECT_EQ(got[1504], 0xB8);
    EXPECT_TRUE(got == reference(ts));
    EXPECT_EQ(q.v->head, ts.size() % 1504);
}

TEST_F(EnergyDispersal, PiecesAndWrapAroundGiveSameOutputAndDump) {
    const std::vector<uint8_t> ts = transport_stream(20, 2);
    FILE* whole = std::tmpfile();
    ASSERT_NE(whole, nullptr);
    Sequence q;
    ByteRing in(ts.size(), 0), out(ts.size(), 0);
    in.push(ts.data(), ts.size());
    ASSERT_EQ(energy_inv(in.v, out.v, q.v, ts.size(), whole), static_cast<int32_t>(ts.size()));
    const std::vector<uint8_t> ref = file_bytes(whole);
    EXPECT_TRUE(ref == reference(ts));
    std::fclose(whole);

    for (const uint32_t maxlen : {100000u, 7u, 1u}) {
        FILE* dump = std::tmpfile();
        ASSERT_NE(dump, nullptr);
        int wraps = 0;
        const auto got = run_pieces(ts, {1, 187, 2, 188, 300, 5, 1000}, maxlen, dump, &wraps);
        EXPECT_TRUE(got == ref) << "maxlen " << maxlen;
        EXPECT_TRUE(file_bytes(dump) == ref) << "maxlen " << maxlen;
        if (maxlen > 1) {
            EXPECT_GT(wraps, 0) << "maxlen " << maxlen;  // some call crossed a ring end
        }
        std::fclose(dump);
    }
}

TEST_F(EnergyDispersal, EmptyInputOrFullOutputDoNothingSilently) {
    verbosity = 4;
    Sequence q;
    q.v->head = 100;
    ByteRing in(50, 3), out(50, 4);
    const uint8_t b[20] = {1, 2, 3};
    FILE* dump = std::tmpfile();
    ASSERT_NE(dump, nullptr);
    testing::internal::CaptureStdout();
    EXPECT_EQ(energy_inv(in.v, out.v, q.v, 50, dump), 0);
    in.push(b, 20);
    out.v->fill = 50;
    EXPECT_EQ(energy_inv(in.v, out.v, q.v, 50, dump), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(in.v->fill, 20u);
    EXPECT_EQ(in.v->head, 3u);
    EXPECT_EQ(q.v->head, 100u);
    EXPECT_TRUE(file_bytes(dump).empty());
    out.v->fill = 45;
    testing::internal::CaptureStdout();
    EXPECT_EQ(energy_inv(in.v, out.v, q.v, 50, dump), 5);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Energy+Inv. : 5 samples\n");
    EXPECT_EQ(file_bytes(dump).size(), 5u);
    std::fclose(dump);
}

TEST_F(EnergyDispersal, ParameterisedFormCodesAndCount) {
    verbosity = 4;
    Sequence q;
    const std::vector<uint8_t> s = own_sequence();
    ByteRing in(40), out(40);
    const std::vector<uint8_t> zeros(20, 0);
    uint32_t count = 77;
    testing::internal::CaptureStdout();
    EXPECT_EQ(dvbTSDisperdInvert(in.v, out.v, q.v, 4, 12, 40, "ED", nullptr, &count), 1u);
    EXPECT_EQ(count, 0u);
    in.push(zeros.data(), zeros.size());
    EXPECT_EQ(dvbTSDisperdInvert(in.v, out.v, q.v, 4, 12, 15, "ED", nullptr, &count), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ED => process : 15 samples\n");
    EXPECT_EQ(count, 15u);
    EXPECT_EQ(in.v->fill, 5u);
    EXPECT_EQ(q.v->head, 3u);
    std::vector<uint8_t> got;
    out.pop_into(got);
    // Packets of 4 bytes in groups of 12, over zero input.
    const std::vector<uint8_t> want = {0xFF, s[0], s[1], s[2], 0, s[4], s[5], s[6],
                                       0,    s[8], s[9], s[10], 0xFF, s[0], s[1]};
    EXPECT_TRUE(got == want);
}

TEST_F(EnergyDispersal, ReadMpegFillsRingAcrossWrapThenStops) {
    verbosity = 4;
    FILE* f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    for (int i = 0; i < 20; i++) std::fputc(100 + i, f);
    std::rewind(f);
    ByteRing ts(10, 6);
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_mpeg(f, ts.v, 10), 10u);
    EXPECT_EQ(read_mpeg(f, ts.v, 10), 0u);  // ring full: silent
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "MPEG-2_read : 10 samples\n");
    EXPECT_EQ(ts.v->fill, 10u);
    EXPECT_EQ(ts.v->head, 6u);
    for (uint32_t i = 0; i < 10; i++) EXPECT_EQ(ts.at((6 + i) % 10), 100 + i) << i;

    // head 7, fill 2, five allowed: written at 9, 0, 1, 2, 3.
    ts.v->head = 7;
    ts.v->fill = 2;
    std::fill(dvbBytes(ts.v), dvbBytes(ts.v) + 10, 0);
    EXPECT_EQ(read_mpeg(f, ts.v, 5), 5u);
    EXPECT_EQ(ts.v->fill, 7u);
    const uint8_t want[10] = {111, 112, 113, 114, 0, 0, 0, 0, 0, 110};
    for (int i = 0; i < 10; i++) EXPECT_EQ(ts.at(i), want[i]) << i;

    ts.v->fill = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_mpeg(f, ts.v, 10), 5u);
    EXPECT_EQ(read_mpeg(f, ts.v, 10), 0u);  // end of file: still reports
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "MPEG-2_read : 5 samples\nMPEG-2_read : 0 samples\n");
    EXPECT_EQ(ts.v->fill, 5u);
    std::fclose(f);
}
