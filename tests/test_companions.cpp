// The companions as programs: the one version and the transmitter's tables in
// every program of both languages; the test-stream generator's packets, PSI
// sections with their CRC, continuity counters, PRBS payload and errors.

#include <map>
#include <sstream>

#include "frame/params.hpp"
#include "frame/version.hpp"
#include "ofdm/filter.hpp"
#include "ofdm/framing.hpp"
#include "util.hpp"

namespace {

// CRC-32 of MPEG-2 sections bit by bit: a section with its CRC leaves 0.
uint32_t crc_bitwise(const unsigned char* p, size_t n) {
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < 8 * n; ++i)
        crc = (crc << 1) ^ (((crc >> 31) ^ (p[i / 8] >> (7 - i % 8) & 1u)) != 0 ? 0x04C11DB7u : 0);
    return crc;
}

// The version comes from the build files, the tables from the C++ ones: every
// program shows what that one place holds.
TEST(Companions, ShowTheOneVersionAndTheTransmittersTables) {
    tu::TempDir dir;
    const std::string build = TERVANE_BUILD_DIR;
    EXPECT_TRUE(tu::contains(tu::tervane(dir.path, {"-V"}).out, "Tervane v. " TERVANE_VERSION " Linux"));
    for (const std::string prog :
         {"tscheck", "tervane-channel", "tervane-view", "tervane-rx-gnuradio", "tervane-waterfall"}) {
        const auto r = tu::run(dir.path, build + "/" + prog, {"-V"});
        EXPECT_EQ(r.out, prog + " " TERVANE_VERSION "\n") << tu::read_text(dir / "err.txt");
        EXPECT_EQ(r.status, 0) << prog;
    }
    // Python reads the version, the 8k continual pilots and the sample rates from the generated module.
    const auto py = tu::run(dir.path, "/usr/bin/python3",
                            {"-B", "-c",
                             "import sys; sys.path.insert(0, '" TERVANE_SOURCE_DIR "/companions'); "
                             "from tervane_companions import tables as t; "
                             "print(t.VERSION, *t.CPILOT, *('%.17g' % x for x in t.FS), *t.GUARD_DIV, "
                             "*t.INTERP, *t.FILTER_DELAY)"});
    std::ostringstream want;
    want << TERVANE_VERSION;
    for (int32_t k : cpilot) want << ' ' << k;
    for (uint32_t band = 0; band < 4; ++band) {
        char text[40];
        std::snprintf(text, sizeof text, "%.17g", dvbSampleRate(band, 0));
        want << ' ' << text;
    }
    for (float g : dvbt_guardfrac) want << ' ' << 1.0f / g;
    for (float i : dvbt_interprate) want << ' ' << i;
    want << " 0 " << filter2x.size() / 2 << ' ' << filter4x.size() / 2;
    EXPECT_EQ(py.out, want.str() + "\n") << tu::read_text(dir / "err.txt");
    for (uint32_t band = 0; band < 4; ++band)
        EXPECT_EQ(static_cast<float>(dvbSampleRate(band, 0)), dvbt_fs[band])
            << "the float table and the exact rate agree";
    // A refused invocation of each Python companion: one line naming the program, status 1.
    const std::vector<std::pair<std::string, std::vector<std::string>>> refused{
        {"tervane-view", {"-o", "none"}},
        {"tervane-rx-gnuradio", {"-o", "x.ts"}},
        {"tervane-waterfall", {"-from", "1", "-to", "0"}}};
    for (const auto& [prog, args] : refused) {
        EXPECT_EQ(tu::run(dir.path, build + "/" + prog, args).status, 1) << prog;
        const std::string err = tu::read_text(dir / "err.txt");
        EXPECT_TRUE(err.rfind(prog + ": ", 0) == 0 && err.find('\n') == err.size() - 1) << err;
    }
}

TEST(Tsgen, PacketsTablesCountersAndPrbs) {
    tu::TempDir dir;
    const size_t n = 1750;  // 18 PATs and PMTs: every counter wraps past 15
    ASSERT_EQ(tu::run(dir.path, TSGEN_EXE, {"-o", "s.ts", "-n", std::to_string(n)}).status, 0);
    const auto ts = tu::read_file(dir / "s.ts");
    ASSERT_EQ(ts.size(), 188 * n);
    std::vector<int> bits;  // the null payloads as one stream, most significant bit first
    std::map<unsigned, int> next_cc, count;
    for (size_t k = 0; k < n; ++k) {
        const unsigned char* pkt = &ts[188 * k];
        const unsigned pid = (pkt[1] & 0x1Fu) << 8 | pkt[2];
        ASSERT_EQ(pkt[0], 0x47);
        ASSERT_EQ(pkt[3] & 0x30, 0x10) << "payload only";
        ASSERT_TRUE(count[pid]++ == 0 || (pkt[3] & 0x0F) == next_cc[pid]) << "continuity, packet " << k;
        next_cc[pid] = (pkt[3] + 1) & 0x0F;
        ASSERT_EQ((pkt[1] & 0x40) != 0, pid != 0x1FFF) << "a section starts in every table packet";
        if (pid == 0x1FFF) {
            for (int i = 4; i < 188; ++i)
                for (int b = 7; b >= 0; --b) bits.push_back(pkt[i] >> b & 1);
            continue;
        }
        // PAT (program 1 on PID 0x100) or PMT (program 1, PCR PID 0x1FFF), pointer 0, CRC, stuffing.
        const unsigned char* sec = pkt + 5;
        ASSERT_EQ(pkt[4], 0);
        ASSERT_EQ(crc_bitwise(sec, 16), 0u);
        ASSERT_EQ(std::vector<unsigned char>(sec, sec + 12),
                  pid == 0 ? (std::vector<unsigned char>{0x00, 0xB0, 13, 0, 1, 0xC1, 0, 0, 0, 1, 0xE1, 0x00})
                           : (std::vector<unsigned char>{0x02, 0xB0, 13, 0, 1, 0xC1, 0, 0, 0xFF, 0xFF, 0xF0, 0x00}));
        ASSERT_EQ(pid, k % 100 == 0 ? 0u : 0x100u);
        for (int i = 21; i < 188; ++i) ASSERT_EQ(pkt[i], 0xFF);
    }
    EXPECT_EQ(count[0], 18);
    EXPECT_EQ(count[0x100], 18);
    // PRBS 2^23-1: b[k] = b[k-23] ^ b[k-18], continuous over the null packets, not all zeros.
    ASSERT_EQ(bits.size(), 184u * 8u * (n - 36));
    for (size_t k = 23; k < bits.size(); ++k) ASSERT_EQ(bits[k], bits[k - 23] ^ bits[k - 18]) << "bit " << k;
    EXPECT_EQ(std::vector<int>(bits.begin(), bits.begin() + 8), std::vector<int>(8, 0))
        << "a register of ones shifts out zeros first";
}

TEST(Tsgen, BadArgumentsAndFailedWrites) {
    tu::TempDir dir;
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{},
                                               {"-n", "10"},
                                               {"-o", "x.ts", "-n", "ten"},
                                               {"-o", "x.ts", "-n", "-5"},
                                               {"-o"},
                                               {"-o", "x.ts", "-q"},
                                               {"-o", "nodir/x.ts", "-n", "3"},
                                               {"-o", "x.ts", "-n", " 5"},
                                               {"-o", "x.ts", "-n", "1e3"},
                                               {"-o", "x.ts", "-n", "99999999999999999999999"},
                                               {"-o", "x.ts", "-n"}}) {
        EXPECT_EQ(tu::run(dir.path, TSGEN_EXE, args).status, 2) << (args.empty() ? "(none)" : args.back());
        const std::string err = tu::read_text(dir / "err.txt");
        EXPECT_TRUE(err.rfind("tsgen: ", 0) == 0 && err.find('\n') == err.size() - 1) << "one line: " << err;
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "x.ts"));
    EXPECT_EQ(tu::run(dir.path, TSGEN_EXE, {"-h"}).out.rfind("usage: tsgen -o FILE [-n PACKETS]\n", 0), 0u);
    ASSERT_EQ(tu::run(dir.path, TSGEN_EXE, {"-o", "d.ts"}).status, 0);
    EXPECT_EQ(std::filesystem::file_size(dir / "d.ts"), 188u * 10000u);
    // A device that is always full: the failed write is an error, status 1.
    EXPECT_EQ(tu::run(dir.path, TSGEN_EXE, {"-o", "/dev/full", "-n", "100"}).status, 1);
    EXPECT_EQ(tu::read_text(dir / "err.txt").rfind("tsgen: write to \"/dev/full\" failed", 0), 0u);
    // A file-size limit stops the writing part-way: the message says how much reached the file.
    EXPECT_EQ(tu::run(dir.path, "bash", {"-c", std::string("ulimit -f 20 && exec ") + TSGEN_EXE + " -o lim.ts -n 1000"})
                  .status,
              1);
    EXPECT_EQ(tu::read_text(dir / "err.txt"),
              "tsgen: write to \"lim.ts\" failed after 20480 bytes (108 whole packets): File too large\n");
    EXPECT_EQ(std::filesystem::file_size(dir / "lim.ts"), 20480u);
}

}  // namespace

// Every command of the README, in order, in one scratch directory: the set-up
// command's build is the one under test, the test command is this suite, and
// the player's device is the fake one with that device's format and gains.
TEST(Readme, EveryCommandRuns) {
#ifndef TERVANE_RX_EXE
    GTEST_SKIP() << "the tour needs tervane-rx, built with Debian's libfftw3-dev and nlohmann-json3-dev";
#endif
    if (std::system("/usr/bin/python3 -c 'import numpy, matplotlib' >/dev/null 2>&1") != 0 || !tu::have_ffmpeg())
        GTEST_SKIP() << "the tour needs Debian's python3-numpy, python3-matplotlib and ffmpeg";
    const std::string build = TERVANE_BUILD_DIR, prefix = "cmake -S . -B build && cmake --build build -j2 && ";
    std::istringstream readme(tu::read_text(TERVANE_SOURCE_DIR "/README.md"));
    tu::TempDir dir;
    int commands = 0;
    bool block = false;
    for (std::string line; std::getline(readme, line);) {
        if (line.starts_with("```")) block = line == "```sh";
        if (!block || line.starts_with("```") || line.empty()) continue;
        if (line.starts_with(prefix)) line = line.substr(prefix.size());
        if (line.starts_with("ctest ")) continue;
        for (size_t at; (at = line.find("./build/")) != std::string::npos;) line.replace(at, 8, build + "/");
        if (tu::contains(line, "tervane-play")) {
#ifndef TERVANE_PLAY_EXE
            continue;
#else
            line.replace(line.find("driver=hackrf"), 13,
                         "driver=tervanefake,pace=0,record=/dev/null,native=CS8,rate_max=20e6");
            line = "SOAPY_SDR_PLUGIN_PATH=" TERVANE_SOAPY_FAKE " " + line;
#endif
        }
        SCOPED_TRACE(line);
        const auto r = tu::run(dir.path, "sh", {"-c", line});
        EXPECT_EQ(r.status, 0) << tu::read_text(dir / "err.txt");
        ++commands;
    }
    EXPECT_GE(commands, 10);
}
