// Hostile inputs to the real executable: degenerate and malformed streams,
// unusable paths, over-long names, extreme option values and hierarchical
// streams of very different lengths. Every run is bounded by `timeout`; it
// must end with status 0, or 1 only for a missing or unopenable input, with no
// signal and no sanitizer report on standard error.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "cli_util.hpp"

namespace {

using cli::TempDir;
namespace fs = std::filesystem;

// Samples of one 2k symbol with the default guard 1/32, as float pairs.
constexpr size_t kSymbol2kBytes = (2048 + 64) * 8;
const std::string kRule(48, '_');

struct RunResult {
    int status = -1;
    std::string out;
    std::string err;
};

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Runs the transmitter under `timeout` (status 124 on a hang, 128 + n on a
// signal) and collects standard error.
RunResult transmit(const TempDir& dir, const std::vector<std::string>& args) {
    std::vector<std::string> full{"-k", "5", "60", TERVANE_EXE};
    full.insert(full.end(), args.begin(), args.end());
    const cli::Result r = cli::run(dir.path, "timeout", full);
    return {r.status, r.out, cli::read_text(dir / "err.txt")};
}

// A run that ended by itself, without a sanitizer report, with this status.
void expect_ended(const RunResult& r, int status) {
    EXPECT_NE(r.status, 124) << "the run hung";
    EXPECT_EQ(r.status, status) << r.out << r.err;
    EXPECT_FALSE(contains(r.err, "Sanitizer")) << r.err;
    EXPECT_FALSE(contains(r.err, "runtime error")) << r.err;
}

// A normal end: the end report on the screen and the closing rule in the log.
void expect_normal_end(const TempDir& dir, const RunResult& r, const std::string& log = "test.log") {
    expect_ended(r, 0);
    EXPECT_TRUE(contains(r.out, "Theoretical global rate = ")) << r.out;
    EXPECT_TRUE(contains(cli::read_text(dir / log), kRule)) << "no closing rule in " << log;
}

std::vector<unsigned char> random_bytes(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::vector<unsigned char> b(n);
    for (auto& x : b) x = static_cast<unsigned char>(gen() >> 24);
    return b;
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

TEST(HostileStream, EmptyFileWritesAnEmptyOutputAndTheEndReport) {
    TempDir dir;
    cli::write_file(dir / "in.ts", {});
    const RunResult r = transmit(dir, {"-i", "in.ts", "-o", "out", "-d", "et"});
    expect_normal_end(dir, r);
    EXPECT_TRUE(contains(r.out, "Checking MPEG-2 TS file length ... 0 bytes\n"));
    EXPECT_TRUE(contains(r.out, "Elapsed time = ")) << r.out;
    ASSERT_TRUE(fs::exists(dir / "out.bin"));
    EXPECT_EQ(fs::file_size(dir / "out.bin"), 0u);
    EXPECT_EQ(fs::file_size(dir / "out_ed.bin"), 0u);
    EXPECT_FALSE(contains(r.out, "% done")) << "a progress line without samples";
}

TEST(HostileStream, ShorterThanOnePacketIsDispersedButMakesNoSymbol) {
    TempDir dir;
    auto in = cli::make_ts(1);
    in.resize(100);
    cli::write_file(dir / "in.ts", in);
    const RunResult r = transmit(dir, {"-i", "in.ts", "-o", "out", "-d", "ert"});
    expect_normal_end(dir, r);
    const auto ed = cli::read_file(dir / "out_ed.bin");
    ASSERT_EQ(ed.size(), 100u);
    EXPECT_EQ(ed[0], 0xB8);          // inverted sync byte
    EXPECT_EQ(ed[1], in[1] ^ 0x03);  // first byte of the dispersal sequence
    EXPECT_EQ(fs::file_size(dir / "out_rs.bin"), 0u);
    EXPECT_EQ(fs::file_size(dir / "out.bin"), 0u);
}

TEST(HostileStream, NoSyncByteAtTheStartIsCodedByPositionAlone) {
    TempDir dir;
    auto in = cli::make_ts(60, 7);
    in.erase(in.begin(), in.begin() + 5);  // starts inside a packet, ends with a partial one
    cli::write_file(dir / "in.ts", in);
    const RunResult r = transmit(dir, {"-i", "in.ts", "-o", "out", "-d", "et", "-c", "0"});
    expect_normal_end(dir, r);
    const auto ed = cli::read_file(dir / "out_ed.bin");
    ASSERT_EQ(ed.size(), in.size());
    EXPECT_EQ(ed[0], static_cast<unsigned char>(~in[0]));  // treated as the group's sync byte
    EXPECT_EQ(ed[188], in[188]);                            // as the next packet's sync byte
    EXPECT_GT(finite_symbols(dir / "out.bin"), 40u);
}

TEST(HostileStream, RandomBytesInSeveralConfigurations) {
    TempDir dir;
    cli::write_file(dir / "in.ts", random_bytes(188 * 300 + 77, 3));
    const std::vector<std::vector<std::string>> configs = {
        {},
        {"-m", "8k", "-M", "64", "-D", "1/4", "-p", "7/8", "-I", "4x", "-F", "agi", "-s", "7"},
        {"-m", "4k", "-M", "16", "-idi", "-f", "INV", "-I", "2x", "-F", "agiold", "-s", "1000"},
        {"-m", "2k", "-M", "64", "-f", "BB", "-D", "1/8", "-cid", "4660", "-d", "ercvpbsmf"},
    };
    for (const auto& extra : configs) {
        std::vector<std::string> args{"-i", "in.ts", "-o", "out", "-d", "t", "-v", "1"};
        args.insert(args.end(), extra.begin(), extra.end());
        const RunResult r = transmit(dir, args);
        SCOPED_TRACE(::testing::PrintToString(extra));
        expect_normal_end(dir, r);
    }
    // The default configuration once more, checked sample by sample.
    const RunResult r = transmit(dir, {"-i", "in.ts", "-o", "out", "-d", "t", "-v", "1"});
    expect_normal_end(dir, r);
    EXPECT_GT(finite_symbols(dir / "out.bin"), 200u);
}

TEST(HostileInput, DirectoryOrMissingInputIsFatal) {
    TempDir dir;
    fs::create_directories(dir / "sub");
    cli::write_file(dir / "ok.ts", cli::make_ts(10));

    RunResult r = transmit(dir, {"-i", "sub", "-o", "out", "-d", "t"});
    expect_ended(r, 1);
    EXPECT_TRUE(contains(r.out, "FATAL ERROR: Can't find \"sub\"\n")) << r.out;
    EXPECT_FALSE(fs::exists(dir / "out.bin"));

    r = transmit(dir, {"-a", "1", "-ihp", "ok.ts", "-ilp", "sub", "-d", "t"});
    expect_ended(r, 1);
    EXPECT_TRUE(contains(r.out, "FATAL ERROR: Can't find \"sub\"\n")) << r.out;

    r = transmit(dir, {"-a", "1", "-ihp", "ok.ts"});
    expect_ended(r, 1);
    EXPECT_TRUE(contains(r.out, "FATAL ERROR: no MPEG-2 TS LP file name given.\n")) << r.out;

    r = transmit(dir, {"-i", ""});
    expect_ended(r, 1);
    EXPECT_TRUE(contains(r.out, "FATAL ERROR: no MPEG-2 TS file name given.\n")) << r.out;

    // A name longer than a path component can be.
    r = transmit(dir, {"-i", std::string(300, 'n') + ".ts"});
    expect_ended(r, 1);
    EXPECT_TRUE(contains(r.out, "FATAL ERROR: Can't find \"nnnn")) << r.out;
}

TEST(HostileOutput, UnopenableOutputsAreSkippedWithAWarning) {
    TempDir dir;
    cli::write_file(dir / "in.ts", cli::make_ts(40));
    RunResult r = transmit(dir, {"-i", "in.ts", "-o", "missing/out", "-d", "et"});
    expect_normal_end(dir, r);
    EXPECT_TRUE(contains(r.out, "WARNING: Can't open \"missing/out_ed.bin\" -> skipping ...\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "WARNING: Can't open \"missing/out.bin\" -> skipping ...\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "% done")) << "the samples are still counted";

    r = transmit(dir, {"-i", "in.ts", "-o", "missing/out", "-d", "t", "-F", "agiold"});
    expect_normal_end(dir, r);
    EXPECT_TRUE(contains(r.out, "WARNING: Can't open \"missing/out_I.bin\" -> skipping ...\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "WARNING: Can't open \"missing/out_Q.bin\" -> skipping ...\n")) << r.out;

    // A log that cannot be created: the messages still reach the screen.
    fs::create_directories(dir / "logdir");
    r = transmit(dir, {"-i", "in.ts", "-o", "out", "-d", "t", "-l", "logdir"});
    expect_ended(r, 0);
    EXPECT_TRUE(contains(r.out, "Theoretical global rate = ")) << r.out;
    EXPECT_EQ(finite_symbols(dir / "out.bin"), 40u * 204 * 8 * 2 / 2 / 1512);
}

TEST(HostileOutput, NamesLongerThanTheNameBufferAreRefused) {
    TempDir dir;
    cli::write_file(dir / "in.ts", cli::make_ts(20));
    // A stem of 122 characters: "stem.bin" has 126 and fits, "stem_ed.bin" has 129 and does not.
    const std::string stem(122, 's');
    RunResult r = transmit(dir, {"-i", "in.ts", "-o", stem + ".ext", "-d", "te"});
    expect_normal_end(dir, r);
    EXPECT_TRUE(fs::exists(dir / (stem + ".bin")));
    EXPECT_FALSE(fs::exists(dir / (stem + "_ed.bin")));
    EXPECT_TRUE(contains(r.out, "WARNING: file name too long (129 characters, at most 126)")) << r.out;

    // 123 characters: even the sample file is refused, and the run goes on.
    const std::string longer(123, 'l');
    r = transmit(dir, {"-i", "in.ts", "-o", longer, "-d", "t"});
    expect_normal_end(dir, r);
    EXPECT_FALSE(fs::exists(dir / (longer + ".bin")));
    EXPECT_TRUE(contains(r.out, "WARNING: file name too long (127 characters, at most 126)")) << r.out;
    EXPECT_TRUE(contains(r.out, "% done"));

    // Input and log names beyond the parser's 120-byte blocks are kept whole.
    const std::string in_name = std::string(200, 'i') + ".ts";
    const std::string log_name = std::string(200, 'g') + ".log";
    fs::copy_file(dir / "in.ts", dir / in_name);
    r = transmit(dir, {"-i", in_name, "-o", "x", "-d", "t", "-l", log_name});
    expect_normal_end(dir, r, log_name);
    EXPECT_TRUE(contains(r.out, "MPEG-2 TS file name    : " + in_name + "\n"));
    EXPECT_EQ(finite_symbols(dir / "x.bin"), 20u * 204 * 8 * 2 / 2 / 1512);
}

TEST(HostileOptions, ExtremeBatchSizesAreClampedAndChangeNoSample) {
    TempDir dir;
    cli::write_file(dir / "in.ts", cli::make_ts(150, 5));
    RunResult r = transmit(dir, {"-i", "in.ts", "-o", "ref", "-d", "t", "-c", "0"});
    expect_normal_end(dir, r);
    const auto ref = cli::read_file(dir / "ref.bin");
    ASSERT_GT(ref.size(), 0u);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"0", "5"}, {"-7", "5"}, {"2147483648", "1000"}, {"1000000", "1000"}, {"-2147483649", "5"}};
    for (const auto& [value, packets] : cases) {
        SCOPED_TRACE("-s " + value);
        r = transmit(dir, {"-i", "in.ts", "-o", "out", "-d", "t", "-c", "0", "-s", value});
        expect_normal_end(dir, r);
        EXPECT_TRUE(contains(r.out, "MPEG-2 packets per time: " + packets + "\n")) << r.out;
        EXPECT_EQ(cli::read_file(dir / "out.bin"), ref);
    }
}

// Every 16-bit code of an integer-format file.
std::vector<uint16_t> codes(const fs::path& file) {
    const auto b = cli::read_file(file);
    std::vector<uint16_t> c;
    for (size_t i = 0; i + 1 < b.size(); i += 2) c.push_back(static_cast<uint16_t>(b[i] << 8 | b[i + 1]));
    return c;
}

bool all_equal(const std::vector<uint16_t>& c, uint16_t v) {
    for (uint16_t x : c)
        if (x != v) return false;
    return true;
}

// Gain 0 (or a NaN, or one so small that the scale factor overflows) makes the
// scale factor infinite or NaN: every product is out of range, and the integer
// formats write their out-of-range code (agi: -32768; agiold: the offset code
// of the 32-bit minimum, which lands on 8192, mid-scale). An infinite or huge
// negative gain makes it 0 or a tiny value: every sample truncates to 0.
TEST(HostileOptions, DegenerateGainsGiveDefinedIntegerCodes) {
    TempDir dir;
    cli::write_file(dir / "in.ts", cli::make_ts(20));
    const size_t samples = 20u * 204 * 8 * 2 / 2 / 1512 * (2048 + 64);
    struct Case {
        std::string gain, shown;
        uint16_t agi;
    };
    const std::vector<Case> cases = {{"0", "0.0000", 0x8000},
                                     {"nan", "nan", 0x8000},
                                     {"1e-40", "0.0000", 0x8000},
                                     {"inf", "inf", 0x0000},
                                     {"-1e30", "-1000000015047466219876688855040.0000", 0x0000}};
    for (const Case& c : cases) {
        SCOPED_TRACE("-g " + c.gain);
        RunResult r = transmit(dir, {"-i", "in.ts", "-o", "g", "-d", "t", "-F", "agi", "-g", c.gain});
        expect_normal_end(dir, r);
        EXPECT_TRUE(contains(r.out, "Gain factor            : " + c.shown + "\n")) << r.out;
        const auto agi = codes(dir / "g_agi.bin");
        EXPECT_EQ(agi.size(), 2 * samples);
        EXPECT_TRUE(all_equal(agi, c.agi));

        r = transmit(dir, {"-i", "in.ts", "-o", "g", "-d", "t", "-F", "agiold", "-g", c.gain});
        expect_normal_end(dir, r);
        const auto I = codes(dir / "g_I.bin"), Q = codes(dir / "g_Q.bin");
        EXPECT_EQ(I.size(), samples);
        EXPECT_EQ(Q.size(), samples);
        EXPECT_TRUE(all_equal(I, 8192) && all_equal(Q, 8192));
    }
}

// The cell identifier travels as its low 16 bits; a negative one means "not set".
TEST(HostileOptions, ExtremeCellIdentifiers) {
    TempDir dir;
    cli::write_file(dir / "in.ts", cli::make_ts(150, 9));
    auto run_cid = [&](const std::vector<std::string>& cid, const std::string& shown) {
        std::vector<std::string> args{"-i", "in.ts", "-o", "out", "-d", "t", "-c", "0"};
        args.insert(args.end(), cid.begin(), cid.end());
        const RunResult r = transmit(dir, args);
        expect_normal_end(dir, r);
        EXPECT_TRUE(contains(r.out, "Cell identifier        : " + shown + "\n")) << r.out;
        return cli::read_file(dir / "out.bin");
    };
    const auto none = run_cid({}, "not set");
    const auto zero = run_cid({"-cid", "0"}, "0x0000");
    const auto ffff = run_cid({"-cid", "65535"}, "0xffff");
    EXPECT_NE(none, zero);
    EXPECT_NE(zero, ffff);
    EXPECT_EQ(run_cid({"-cid", "65536"}, "0x10000"), zero);
    EXPECT_EQ(run_cid({"-cid", "2147483647"}, "0x7fffffff"), ffff);
    EXPECT_EQ(run_cid({"-cid", "99999999999"}, "0x7fffffff"), ffff);
    EXPECT_EQ(run_cid({"-cid", "-2147483648"}, "not set"), none);
}

// The verbosity is kept in 16 bits: values wrap, and a negative one shows everything.
TEST(HostileOptions, ExtremeVerbosity) {
    TempDir dir;
    cli::write_file(dir / "in.ts", cli::make_ts(20));
    for (const std::string v : {"-1", "99999", "2147483648"}) {
        const RunResult r = transmit(dir, {"-i", "in.ts", "-v", v});
        expect_normal_end(dir, r);
        EXPECT_TRUE(contains(r.out, "MPEG-2_read : 3760 samples\n")) << "-v " << v;
    }
    for (const std::string v : {"0", "65536", "-65536"}) {
        const RunResult r = transmit(dir, {"-i", "in.ts", "-v", v});
        expect_ended(r, 0);
        EXPECT_EQ(r.out, "") << "-v " << v;
        EXPECT_TRUE(contains(cli::read_text(dir / "test.log"), kRule));
    }
}

// The bit interleaver needs both streams: the shorter one bounds the output,
// and the longer one's surplus stays in its ring without stalling the end.
TEST(HostileHierarchy, StreamsOfVeryDifferentLengths) {
    TempDir dir;
    cli::write_file(dir / "short.ts", cli::make_ts(10, 1));
    cli::write_file(dir / "long.ts", cli::make_ts(2000, 2));
    cli::write_file(dir / "empty.ts", {});
    // 10 packets at rate 1/2 give 16320 two-bit words, 129 whole blocks of
    // 126 words, so 10 whole 1512-cell symbols.
    for (const auto& [hp, lp] : std::vector<std::pair<std::string, std::string>>{
             {"short.ts", "long.ts"}, {"long.ts", "short.ts"}}) {
        SCOPED_TRACE(hp + " + " + lp);
        const RunResult r = transmit(dir, {"-a", "2", "-M", "16", "-ihp", hp, "-ilp", lp, "-o", "h", "-d", "t"});
        expect_normal_end(dir, r);
        EXPECT_TRUE(contains(r.out, "Checking MPEG-2 TS files length ... ")) << r.out;
        EXPECT_EQ(finite_symbols(dir / "h.bin"), 10u);
    }
    const RunResult r = transmit(dir, {"-a", "4", "-M", "64", "-ihp", "long.ts", "-ilp", "empty.ts", "-o", "e", "-d", "t"});
    expect_normal_end(dir, r);
    EXPECT_EQ(fs::file_size(dir / "e.bin"), 0u);
}

}  // namespace
