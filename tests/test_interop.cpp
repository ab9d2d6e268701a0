// Interoperability: the transmitter's time-domain output is decoded by an
// independent DVB-T receiver (GNU Radio's gr-dtv receiver blocks, driven by
// tests/interop/dvbt_rx.py), and the transport stream that comes back must be
// the one that went in.
//
// Checks per configuration:
//  - once the receiver delivers its first packet that matches an input packet
//    (it needs some symbols to lock, and its outer deinterleaver starts empty),
//    every packet it delivers afterwards equals the input packet at the same
//    position, in order, up to the end of its output;
//  - at most a few packets come out before that first match;
//  - at least kMinRecovered (80 %) of the input packets come back. What may be
//    missing: about the first superframe (the receiver locks within it but
//    starts delivering only at a later frame boundary), and at the end about
//    one outer-interleaver depth that the transmitter never sends (it stays in
//    its pipeline), the receiver's own outer deinterleaver depth and the
//    packets its descrambler does not flush (about 100). Each stream is 8 to
//    10 superframes long, so these losses stay below about 15 %.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "util.hpp"

namespace {

using tu::TempDir;

constexpr size_t kPacket = 188;
constexpr double kMinRecovered = 0.80;
// Packets the receiver may deliver before the first one that matches: its
// outer deinterleaver starts with zeros, the transmitter's with random bytes
// (11 x 17 x 12 bytes, about 12 packets each), rounded up to whole 8-packet
// blocks of the receiver's Reed-Solomon decoder and descrambler.
constexpr size_t kMaxLeadingGarbage = 32;

const char* const kPython = "/usr/bin/python3";

struct Config {
    const char* name;
    const char* mode;   // 2k | 8k
    const char* M;      // 4 | 16 | 64
    const char* guard;  // 1/4 | 1/8 | 1/16 | 1/32
    const char* rate;   // 1/2 .. 7/8
    const char* packnum;
    size_t superframes;  // length of the input stream in superframes
};

// Transport packets carried by one superframe (4 frames of 68 OFDM symbols):
// 272 symbols x data cells x bits per cell x code rate / (8 x 204 bytes).
size_t packets_per_superframe(const Config& c) {
    const size_t base = std::string(c.mode) == "2k" ? 252 : 1008;  // 272 x 1512 (6048) / 1632
    const size_t bits = std::string(c.M) == "4" ? 2 : std::string(c.M) == "16" ? 4 : 6;
    const size_t num = static_cast<size_t>(c.rate[0] - '0'), den = static_cast<size_t>(c.rate[2] - '0');
    return base * bits * num / den;
}

// Whether Debian's Python can load GNU Radio's DVB-T blocks; probed once.
bool receiver_available() {
    static const bool ok =
        std::system((std::string(kPython) + " -c 'import gnuradio.dtv' >/dev/null 2>&1").c_str()) == 0;
    return ok;
}

struct Comparison {
    size_t delivered = 0;   // whole packets the receiver wrote
    size_t first_rx = 0;    // index of the first delivered packet found in the input
    size_t first_in = 0;    // its position in the input
    bool found = false;
    size_t matching = 0;    // delivered packets from first_rx on that equal the input in order
    size_t first_bad = 0;   // first delivered packet (from first_rx on) that does not
};

// Aligns the decoded stream on the input by its first packet that equals some
// input packet, then counts how many of the following packets keep matching.
Comparison compare(const std::vector<unsigned char>& in, const std::vector<unsigned char>& rx) {
    Comparison c;
    c.delivered = rx.size() / kPacket;
    const size_t n_in = in.size() / kPacket;
    auto packet = [](const std::vector<unsigned char>& v, size_t k) {
        return std::string_view(reinterpret_cast<const char*>(v.data()) + k * kPacket, kPacket);
    };
    std::unordered_map<std::string_view, size_t> position;  // input packets are all different
    for (size_t i = n_in; i-- > 0;) position[packet(in, i)] = i;
    for (size_t r = 0; r < c.delivered; ++r) {
        const auto it = position.find(packet(rx, r));
        if (it != position.end()) {
            c.found = true;
            c.first_rx = r;
            c.first_in = it->second;
            break;
        }
    }
    if (!c.found) return c;
    c.first_bad = c.delivered;
    for (size_t r = c.first_rx; r < c.delivered; ++r) {
        const size_t i = c.first_in + (r - c.first_rx);
        if (i >= n_in || packet(rx, r) != packet(in, i)) {
            c.first_bad = r;
            break;
        }
        ++c.matching;
    }
    return c;
}

const std::string& receiver_script() {
    static const std::string path = std::string(TERVANE_SOURCE_DIR) + "/tests/interop/dvbt_rx.py";
    return path;
}

// Writes the stream as in.ts and transmits it to out.bin; returns the number
// of samples written.
size_t transmit(const TempDir& dir, const Config& cfg, const std::vector<unsigned char>& ts) {
    tu::write_file(dir / "in.ts", ts);
    const auto tx = tu::tervane(dir.path, {"-i", "in.ts", "-o", "out", "-d", "t", "-m", cfg.mode, "-M", cfg.M,
                                            "-D", cfg.guard, "-p", cfg.rate, "-s", cfg.packnum, "-v", "0"});
    EXPECT_EQ(tx.status, 0) << tu::read_text(dir / "err.txt");
    std::error_code ec;
    const auto bytes = std::filesystem::file_size(dir / "out.bin", ec);
    EXPECT_FALSE(ec) << "no out.bin";
    EXPECT_EQ(ec ? 0 : bytes % 8, 0u) << "not whole complex64 samples";
    return ec ? 0 : static_cast<size_t>(bytes / 8);
}

// Decodes out.bin into rx.ts with the receiver set to the given parameters;
// returns the receiver's exit status (124 when it had to be stopped).
int receive(const TempDir& dir, const Config& rx) {
    // A receiver that stalls must not hang the suite: it gets 5 minutes.
    const auto r = tu::run(dir.path, "/usr/bin/timeout",
                            {"300", kPython, receiver_script(), "out.bin", "rx.ts", rx.mode, rx.M, rx.rate, rx.guard});
    EXPECT_EQ(r.status, 0) << "receiver failed (124: timed out)\n" << tu::read_text(dir / "err.txt");
    return r.status;
}

#define SKIP_WITHOUT_RECEIVER()                                                                           \
    if (!receiver_available())                                                                            \
    GTEST_SKIP() << kPython << " cannot import gnuradio.dtv (install Debian's gnuradio package); "        \
                 << "the interoperability test needs GNU Radio's DVB-T receiver"

// Transmits a stream of cfg.superframes superframes, decodes it and checks
// what comes back (see the top of the file).
void check_round_trip(const Config& cfg) {
    TempDir dir;
    const auto in = tu::make_ts(cfg.superframes * packets_per_superframe(cfg), 7);

    using clock = std::chrono::steady_clock;
    const auto t0 = clock::now();
    const size_t samples = transmit(dir, cfg, in);
    ASSERT_GT(samples, 0u) << "the transmitter wrote no samples";
    const auto t1 = clock::now();
    ASSERT_EQ(receive(dir, cfg), 0);
    const auto t2 = clock::now();

    const auto rx = tu::read_file(dir / "rx.ts");
    const Comparison c = compare(in, rx);
    const size_t n_in = in.size() / kPacket;
    const double recovered = static_cast<double>(c.matching) / static_cast<double>(n_in);
    using ms = std::chrono::milliseconds;
    std::printf("[ interop  ] %s: %zu samples, %zu packets in, %zu delivered, first match rx #%zu = in #%zu, "
                "%zu matching (%.1f %%); tervane %lld ms, receiver %lld ms\n",
                cfg.name, samples, n_in, c.delivered, c.first_rx, c.first_in, c.matching, 100.0 * recovered,
                static_cast<long long>(std::chrono::duration_cast<ms>(t1 - t0).count()),
                static_cast<long long>(std::chrono::duration_cast<ms>(t2 - t1).count()));

    EXPECT_EQ(rx.size() % kPacket, 0u);
    ASSERT_TRUE(c.found) << "none of the " << c.delivered << " delivered packets occurs in the input";
    EXPECT_LE(c.first_rx, kMaxLeadingGarbage) << "the receiver delivered too many packets before the first match";
    EXPECT_EQ(c.first_bad, c.delivered) << "delivered packet #" << c.first_bad << " differs from input packet #"
                                        << c.first_in + (c.first_bad - c.first_rx);
    EXPECT_GE(recovered, kMinRecovered) << c.matching << " of " << n_in << " packets recovered";
}

// Between them the configurations cover both modes the receiver supports,
// every constellation, all four guard intervals, all five code rates and
// batch sizes that divide nothing in the chain (5 is the smallest allowed; in
// 8k the output ring must still hold one OFDM symbol, hence the larger sizes).
// Plain tests rather than parameterised ones keep '/' out of the temporary
// directory names.
TEST(InteropDecode, Mode2kQpskRate1_2Guard1_32Batch5) {
    SKIP_WITHOUT_RECEIVER();
    check_round_trip({"2k QPSK 1/2 GI 1/32 -s 5", "2k", "4", "1/32", "1/2", "5", 10});
}

TEST(InteropDecode, Mode2k16QamRate3_4Guard1_4Batch37) {
    SKIP_WITHOUT_RECEIVER();
    check_round_trip({"2k 16-QAM 3/4 GI 1/4 -s 37", "2k", "16", "1/4", "3/4", "37", 8});
}

TEST(InteropDecode, Mode2k64QamRate7_8Guard1_8Batch100) {
    SKIP_WITHOUT_RECEIVER();
    check_round_trip({"2k 64-QAM 7/8 GI 1/8 -s 100", "2k", "64", "1/8", "7/8", "100", 8});
}

TEST(InteropDecode, Mode8kQpskRate7_8Guard1_8Batch7) {
    SKIP_WITHOUT_RECEIVER();
    check_round_trip({"8k QPSK 7/8 GI 1/8 -s 7", "8k", "4", "1/8", "7/8", "7", 8});
}

TEST(InteropDecode, Mode8k64QamRate2_3Guard1_4Batch37) {
    SKIP_WITHOUT_RECEIVER();
    check_round_trip({"8k 64-QAM 2/3 GI 1/4 -s 37", "8k", "64", "1/4", "2/3", "37", 8});
}

TEST(InteropDecode, Mode8k16QamRate5_6Guard1_16Batch13) {
    SKIP_WITHOUT_RECEIVER();
    check_round_trip({"8k 16-QAM 5/6 GI 1/16 -s 13", "8k", "16", "1/16", "5/6", "13", 8});
}

// The comparison is not satisfied by just any output: the same signal decoded
// with a code rate or a constellation other than the one sent gives back no
// packet of the input.
TEST(InteropMismatch, WrongReceiverSettingsRecoverNothing) {
    SKIP_WITHOUT_RECEIVER();
    const Config sent{"sent", "2k", "4", "1/32", "1/2", "7", 4};
    TempDir dir;
    const auto in = tu::make_ts(sent.superframes * packets_per_superframe(sent), 3);
    ASSERT_GT(transmit(dir, sent, in), 0u);
    for (const Config& wrong : {Config{"rate", "2k", "4", "1/32", "2/3", "", 0},
                                Config{"constellation", "2k", "16", "1/32", "1/2", "", 0}}) {
        SCOPED_TRACE(wrong.name);
        ASSERT_EQ(receive(dir, wrong), 0);
        const Comparison c = compare(in, tu::read_file(dir / "rx.ts"));
        EXPECT_FALSE(c.found) << "rx packet #" << c.first_rx << " equals input packet #" << c.first_in;
    }
    // The right settings on the same file do recover it.
    ASSERT_EQ(receive(dir, sent), 0);
    EXPECT_TRUE(compare(in, tu::read_file(dir / "rx.ts")).found);
}

}  // namespace
