// Interoperability: GNU Radio's DVB-T receiver (driven by tools/tervane-rx.py)
// decodes the transmitter's output, and the transport stream that comes back
// must be the one that went in.
//
// Once the receiver delivers its first packet that matches an input packet (it
// needs some symbols to lock, and its outer deinterleaver starts empty), every
// packet it delivers afterwards must equal the input packet at the same
// position, in order, to the end of its output; at most a few packets may come
// before that first match; and at least 80 % of the input must come back. What
// may be missing: about the first superframe (the receiver starts delivering at
// a frame boundary after locking), and at the end one outer-interleaver depth
// that the transmitter never sends, the receiver's own deinterleaver depth and
// the packets its descrambler does not flush (about 100). Each stream is 8 to
// 10 superframes long, so these losses stay below about 15 %.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "util.hpp"

namespace {

const char* const kPython = "/usr/bin/python3";

struct Config {
    const char *mode, *M, *guard, *rate, *packnum;
    size_t superframes;  // length of the input stream
};

// Packets per superframe: 272 symbols x data cells x bits per cell x code rate / (8 x 204).
size_t packets_per_superframe(const Config& c) {
    const size_t bits = std::string(c.M) == "4" ? 2 : std::string(c.M) == "16" ? 4 : 6;
    return (std::string(c.mode) == "2k" ? 252 : 1008) * bits * static_cast<size_t>(c.rate[0] - '0') / static_cast<size_t>(c.rate[2] - '0');
}

bool receiver_available() {
    static const bool ok = std::system((std::string(kPython) + " -c 'import gnuradio.dtv' >/dev/null 2>&1").c_str()) == 0;
    return ok;
}

struct Comparison {
    size_t delivered = 0, first_rx = 0, first_in = 0, matching = 0;
    bool found = false;
};

// Aligns the decoded stream on the input at its first packet that is an input
// packet, then counts the packets that keep matching in order (stopping at the first that does not).
Comparison compare(const tu::Bytes& in, const tu::Bytes& rx) {
    Comparison c;
    c.delivered = rx.size() / 188;
    auto packet = [](const tu::Bytes& v, size_t k) { return std::string_view(reinterpret_cast<const char*>(&v[188 * k]), 188); };
    std::unordered_map<std::string_view, size_t> position;  // input packets are all different
    for (size_t i = 0; i < in.size() / 188; ++i) position.emplace(packet(in, i), i);
    for (size_t r = 0; r < c.delivered && !c.found; ++r) {
        const auto it = position.find(packet(rx, r));
        if (it != position.end()) c.found = true, c.first_rx = r, c.first_in = it->second;
    }
    while (c.found && c.first_rx + c.matching < c.delivered && c.first_in + c.matching < in.size() / 188 &&
           packet(rx, c.first_rx + c.matching) == packet(in, c.first_in + c.matching))
        ++c.matching;
    return c;
}

// Transmits in.ts to out.bin with the configuration; returns the samples written.
size_t transmit(const tu::TempDir& dir, const Config& c) {
    const auto tx = tu::tervane(dir.path, {"-i", "in.ts", "-o", "out", "-d", "t", "-m", c.mode, "-M", c.M, "-D", c.guard,
                                           "-p", c.rate, "-s", c.packnum, "-v", "0"});
    EXPECT_EQ(tx.status, 0);
    return std::filesystem::file_size(dir / "out.bin") / 8;
}

// Decodes out.bin into rx.ts with the receiver set to the configuration (5 minutes at most).
tu::Bytes receive(const tu::TempDir& dir, const Config& c) {
    const std::string script = std::string(TERVANE_SOURCE_DIR) + "/tools/tervane-rx.py";
    const auto r = tu::run(dir.path, "/usr/bin/timeout", {"300", kPython, script, "-i", "out.bin", "-o", "rx.ts", "-m", c.mode, "-M", c.M, "-p", c.rate, "-D", c.guard});
    EXPECT_EQ(r.status, 0) << "receiver failed (124: timed out)\n" << tu::read_text(dir / "err.txt");
    return tu::read_file(dir / "rx.ts");
}

void PrintTo(const Config& c, std::ostream* os) { *os << c.mode << " " << c.M << "-QAM " << c.rate << " guard " << c.guard << " -s " << c.packnum; }

class InteropDecode : public ::testing::TestWithParam<Config> {};

TEST_P(InteropDecode, TheStreamComesBack) {
    if (!receiver_available()) GTEST_SKIP() << kPython << " cannot import gnuradio.dtv (install Debian's gnuradio package)";
    const Config& cfg = GetParam();
    tu::TempDir dir;
    const auto in = tu::make_ts(cfg.superframes * packets_per_superframe(cfg), 7);
    tu::write_file(dir / "in.ts", in);
    ASSERT_GT(transmit(dir, cfg), 0u);
    const auto rx = receive(dir, cfg);
    const Comparison c = compare(in, rx);
    EXPECT_EQ(rx.size() % 188, 0u);
    ASSERT_TRUE(c.found) << "none of the " << c.delivered << " delivered packets occurs in the input";
    EXPECT_LE(c.first_rx, 32u) << "too many packets before the first match";  // 4 blocks of 8
    EXPECT_EQ(c.first_rx + c.matching, c.delivered) << "a delivered packet differs from the input at its position";
    EXPECT_GE(static_cast<double>(c.matching), 0.80 * static_cast<double>(in.size() / 188));
}

// Both modes the receiver supports, every constellation, guard interval and
// code rate, and batch sizes that divide nothing in the chain.
INSTANTIATE_TEST_SUITE_P(Configs, InteropDecode,
                         ::testing::Values(Config{"2k", "4", "1/32", "1/2", "5", 10}, Config{"2k", "16", "1/4", "3/4", "37", 8},
                                           Config{"2k", "64", "1/8", "7/8", "100", 8}, Config{"8k", "4", "1/8", "7/8", "7", 8},
                                           Config{"8k", "64", "1/4", "2/3", "37", 8}, Config{"8k", "16", "1/16", "5/6", "13", 8}),
                         [](const auto& info) {
                             std::string name = std::string(info.param.mode) + "_M" + info.param.M + "_rate" + info.param.rate + "_guard" + info.param.guard;
                             std::erase(name, '/');
                             return name;
                         });

// The comparison is not satisfied by just any output: decoded with another
// code rate or constellation, the signal gives back no input packet.
TEST(InteropMismatch, WrongReceiverSettingsRecoverNothing) {
    if (!receiver_available()) GTEST_SKIP() << kPython << " cannot import gnuradio.dtv";
    const Config sent{"2k", "4", "1/32", "1/2", "7", 4};
    tu::TempDir dir;
    const auto in = tu::make_ts(sent.superframes * packets_per_superframe(sent), 3);
    tu::write_file(dir / "in.ts", in);
    ASSERT_GT(transmit(dir, sent), 0u);
    EXPECT_FALSE(compare(in, receive(dir, {"2k", "4", "1/32", "2/3", "", 0})).found);
    EXPECT_FALSE(compare(in, receive(dir, {"2k", "16", "1/32", "1/2", "", 0})).found);
    EXPECT_TRUE(compare(in, receive(dir, sent)).found);
}

}  // namespace
