// Hostile inputs to the real executable: degenerate and malformed streams,
// unusable paths, over-long names, extreme option values and hierarchical
// streams of very different lengths. Every run is bounded by `timeout`; it
// must end with status 0, or 1 only for a missing or unopenable input, with no
// signal and no sanitizer report on standard error.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "cli_util.hpp"

namespace {

using cli::TempDir;
namespace fs = std::filesystem;

// Samples of one 2k symbol with the default guard 1/32, as float pairs.
constexpr size_t kSymbol2kBytes = (2048 + 64) * 8;

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Runs the transmitter under `timeout` (status 124 on a hang, 128 + n on a
// signal) and checks that it ended with this status, without a sanitizer
// report, and with the end report when the status is 0.
cli::Result transmit(const TempDir& dir, const std::vector<std::string>& args, int status = 0) {
    std::vector<std::string> full{"-k", "5", "60", TERVANE_EXE};
    full.insert(full.end(), args.begin(), args.end());
    const cli::Result r = cli::run(dir.path, "timeout", full);
    const std::string err = cli::read_text(dir / "err.txt");
    EXPECT_EQ(r.status, status) << r.out << err;
    EXPECT_FALSE(contains(err, "Sanitizer") || contains(err, "runtime error")) << err;
    if (status == 0) {
        EXPECT_TRUE(contains(r.out, "Theoretical global rate = ")) << r.out;
    }
    return r;
}

// Whole 2k symbols of finite samples; returns the symbol count.
size_t finite_symbols(const fs::path& file) {
    const auto bytes = cli::read_file(file);
    EXPECT_EQ(bytes.size() % kSymbol2kBytes, 0u) << file;
    for (size_t i = 0; i + 4 <= bytes.size(); i += 4) {
        float v;
        std::memcpy(&v, bytes.data() + i, 4);
        if (!std::isfinite(v)) {
            ADD_FAILURE() << "non-finite sample at byte " << i << " of " << file;
            break;
        }
    }
    return bytes.size() / kSymbol2kBytes;
}

TEST(HostileStream, EmptyShortAndUnsynchronisedStreams) {
    TempDir dir;
    cli::write_file(dir / "empty.ts", {});
    cli::Result r = transmit(dir, {"-i", "empty.ts", "-o", "e", "-d", "et"});
    EXPECT_TRUE(contains(r.out, "Checking MPEG-2 TS file length ... 0 bytes\n"));
    EXPECT_EQ(fs::file_size(dir / "e.bin"), 0u);
    EXPECT_FALSE(contains(r.out, "% done")) << "a progress line without samples";

    // Shorter than one packet: dispersed, but no packet for the coder.
    auto in = cli::make_ts(1);
    in.resize(100);
    cli::write_file(dir / "short.ts", in);
    transmit(dir, {"-i", "short.ts", "-o", "s", "-d", "ert"});
    const auto ed = cli::read_file(dir / "s_ed.bin");
    ASSERT_EQ(ed.size(), 100u);
    EXPECT_EQ(ed[0], 0xB8);
    EXPECT_EQ(fs::file_size(dir / "s_rs.bin"), 0u);
    EXPECT_EQ(fs::file_size(dir / "s.bin"), 0u);

    // Starts inside a packet and ends with a partial one: coded by position alone.
    in = cli::make_ts(60, 7);
    in.erase(in.begin(), in.begin() + 5);
    cli::write_file(dir / "unsync.ts", in);
    transmit(dir, {"-i", "unsync.ts", "-o", "u", "-d", "et", "-c", "0"});
    const auto ued = cli::read_file(dir / "u_ed.bin");
    ASSERT_EQ(ued.size(), in.size());
    EXPECT_EQ(ued[0], static_cast<unsigned char>(~in[0]));
    EXPECT_EQ(ued[188], in[188]);
    EXPECT_GT(finite_symbols(dir / "u.bin"), 40u);
}

TEST(HostileStream, RandomBytesInTwoConfigurations) {
    TempDir dir;
    std::mt19937 gen(3);
    std::vector<unsigned char> b(188 * 300 + 77);
    for (auto& x : b) x = static_cast<unsigned char>(gen() >> 24);
    cli::write_file(dir / "in.ts", b);
    transmit(dir, {"-i", "in.ts", "-o", "out", "-d", "t", "-v", "1"});
    EXPECT_GT(finite_symbols(dir / "out.bin"), 200u);
    transmit(dir, {"-i", "in.ts", "-o", "x", "-d", "t", "-v", "1", "-m", "8k", "-M", "64", "-D", "1/4", "-p",
                   "7/8", "-I", "4x", "-F", "agi", "-s", "7"});
}

TEST(HostilePaths, DirectoryInputMissingOutputDirectoryAndLongNames) {
    TempDir dir;
    fs::create_directories(dir / "sub");
    cli::write_file(dir / "ok.ts", cli::make_ts(20));
    cli::Result r = transmit(dir, {"-i", "sub", "-o", "out", "-d", "t"}, 1);
    EXPECT_TRUE(contains(r.out, "FATAL ERROR: Can't find \"sub\"\n")) << r.out;
    EXPECT_FALSE(fs::exists(dir / "out.bin"));
    r = transmit(dir, {"-i", std::string(300, 'n') + ".ts"}, 1);  // longer than a path component
    EXPECT_TRUE(contains(r.out, "FATAL ERROR: Can't find \"nnnn")) << r.out;

    r = transmit(dir, {"-i", "ok.ts", "-o", "missing/out", "-d", "et"});
    EXPECT_TRUE(contains(r.out, "WARNING: Can't open \"missing/out_ed.bin\" -> skipping ...\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "WARNING: Can't open \"missing/out.bin\" -> skipping ...\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "% done")) << "the samples are still counted";

    // A stem of 122 characters: "stem.bin" has 126 and fits, "stem_ed.bin" has 129 and does not.
    const std::string stem(122, 's');
    r = transmit(dir, {"-i", "ok.ts", "-o", stem + ".ext", "-d", "te"});
    EXPECT_TRUE(fs::exists(dir / (stem + ".bin")));
    EXPECT_FALSE(fs::exists(dir / (stem + "_ed.bin")));
    EXPECT_TRUE(contains(r.out, "WARNING: file name too long (129 characters, at most 126)")) << r.out;
}

// One extreme value per option: clamped batch size, NaN gain, a cell
// identifier beyond 32 bits, a negative verbosity that shows everything.
TEST(HostileOptions, ExtremeValuesOnePerOption) {
    TempDir dir;
    cli::write_file(dir / "in.ts", cli::make_ts(20));
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"-s", "2147483648"}, "MPEG-2 packets per time: 1000\n"},
        {{"-g", "nan"}, "Gain factor            : nan\n"},
        {{"-cid", "99999999999"}, "Cell identifier        : 0x7fffffff\n"},
        {{"-v", "-1"}, "MPEG-2_read : 3760 samples\n"}};
    for (const auto& [opt, shown] : cases) {
        SCOPED_TRACE(opt[0] + " " + opt[1]);
        const cli::Result r = transmit(dir, {"-i", "in.ts", "-o", "out", "-d", "t", opt[0], opt[1]});
        EXPECT_TRUE(contains(r.out, shown)) << r.out;
    }
}

// The bit interleaver needs both streams: the shorter one bounds the output,
// and the longer one's surplus stays in its ring without stalling the end.
TEST(HostileHierarchy, StreamsOfVeryDifferentLengths) {
    TempDir dir;
    cli::write_file(dir / "short.ts", cli::make_ts(10, 1));
    cli::write_file(dir / "long.ts", cli::make_ts(2000, 2));
    // 10 packets at rate 1/2 give 16320 two-bit words, 129 whole blocks of
    // 126 words, so 10 whole 1512-cell symbols.
    for (const auto& [hp, lp] : {std::pair{"short.ts", "long.ts"}, std::pair{"long.ts", "short.ts"}}) {
        SCOPED_TRACE(std::string(hp) + " + " + lp);
        transmit(dir, {"-a", "2", "-M", "16", "-ihp", hp, "-ilp", lp, "-o", "h", "-d", "t"});
        EXPECT_EQ(finite_symbols(dir / "h.bin"), 10u);
    }
}

}  // namespace
