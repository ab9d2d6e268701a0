// The test-stream generator, run as a program: packet structure, PSI sections
// with their CRC, continuity counters and the PRBS payload.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <vector>

#include "util.hpp"

namespace {

using tu::TempDir;

// CRC-32 of MPEG-2 sections, bit by bit over the message polynomial.
uint32_t crc_bitwise(const unsigned char* p, size_t n) {
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i) {
        for (int b = 7; b >= 0; --b) {
            const uint32_t in = (p[i] >> b) & 1u;
            const uint32_t top = crc >> 31;
            crc <<= 1;
            if (top ^ in) crc ^= 0x04C11DB7u;
        }
    }
    return crc;
}

unsigned pid_of(const unsigned char* pkt) { return ((pkt[1] & 0x1Fu) << 8) | pkt[2]; }

TEST(TsgenStream, PacketsTablesCountersAndPrbs) {
    TempDir dir;
    const int n = 1750;  // 18 PATs and PMTs: every counter wraps past 15
    auto r = tu::run(dir.path, TSGEN_EXE, {"-o", "s.ts", "-n", std::to_string(n)});
    ASSERT_EQ(r.status, 0);
    const auto ts = tu::read_file(dir / "s.ts");
    ASSERT_EQ(ts.size(), 188u * n);

    // PRBS 2^23-1 as a 23-stage shift register, feedback from stages 23 and 18.
    std::array<int, 23> stage{};
    stage.fill(1);
    auto prbs_byte = [&stage] {
        int byte = 0;
        for (int i = 0; i < 8; ++i) {
            const int bit = stage[22] ^ stage[17];
            for (int k = 22; k > 0; --k) stage[k] = stage[k - 1];
            stage[0] = bit;
            byte = (byte << 1) | bit;
        }
        return byte;
    };

    std::vector<int> bits;  // the null payloads as one bit stream, MSB first
    std::map<unsigned, int> last_cc;
    int pats = 0, pmts = 0, nulls = 0;
    for (int k = 0; k < n; ++k) {
        const unsigned char* pkt = &ts[188u * k];
        ASSERT_EQ(pkt[0], 0x47) << k;
        ASSERT_EQ(pkt[3] & 0x30, 0x10) << "payload only";
        const unsigned pid = pid_of(pkt);
        const int cc = pkt[3] & 0x0F;
        if (last_cc.count(pid) != 0) {
            ASSERT_EQ(cc, (last_cc[pid] + 1) % 16) << "packet " << k;
        }
        last_cc[pid] = cc;
        if (pid == 0x1FFF) {
            ++nulls;
            ASSERT_EQ(pkt[1] & 0x40, 0);
            for (int i = 4; i < 188; ++i) {
                ASSERT_EQ(pkt[i], prbs_byte()) << "packet " << k << " byte " << i;
                for (int b = 7; b >= 0; --b) bits.push_back((pkt[i] >> b) & 1);
            }
            continue;
        }
        // A PSI section starting in this packet.
        ASSERT_TRUE(pid == 0x0000 || pid == 0x0100) << pid;
        ASSERT_NE(pkt[1] & 0x40, 0);
        ASSERT_EQ(pkt[4], 0) << "pointer field";
        const unsigned char* sec = pkt + 5;
        const unsigned len = ((sec[1] & 0x0Fu) << 8) | sec[2];
        ASSERT_EQ(sec[1] & 0x80, 0x80) << "section syntax";
        ASSERT_LE(5u + 3u + len, 188u);
        EXPECT_EQ(crc_bitwise(sec, 3 + len), 0u) << "CRC over the whole section";
        EXPECT_EQ(sec[5], 0xC1) << "version 0, current_next 1";
        EXPECT_EQ(sec[6], 0) << "section_number";
        EXPECT_EQ(sec[7], 0) << "last_section_number";
        for (size_t i = 5 + 3 + len; i < 188; ++i) ASSERT_EQ(pkt[i], 0xFF) << "stuffing";
        if (pid == 0) {
            ++pats;
            ASSERT_EQ(sec[0], 0x00);
            ASSERT_EQ(len, 13u);  // one program
            EXPECT_EQ((sec[8] << 8) | sec[9], 1);
            EXPECT_EQ(((sec[10] & 0x1F) << 8) | sec[11], 0x0100);
        } else {
            ++pmts;
            ASSERT_EQ(sec[0], 0x02);
            ASSERT_EQ(len, 13u);  // no elementary streams
            EXPECT_EQ((sec[3] << 8) | sec[4], 1) << "program number";
            EXPECT_EQ(((sec[8] & 0x1F) << 8) | sec[9], 0x1FFF) << "PCR_PID";
            EXPECT_EQ(((sec[10] & 0x0F) << 8) | sec[11], 0) << "program_info_length";
        }
    }
    EXPECT_EQ(pats, 18);
    EXPECT_EQ(pmts, 18);
    EXPECT_EQ(nulls, n - 36);
    // Whatever the register's seed, the stream obeys b[k] = b[k-23] ^ b[k-18]
    // and is not all zeros.
    ASSERT_EQ(bits.size(), 184u * 8u * nulls);
    for (size_t k = 23; k < bits.size(); ++k) ASSERT_EQ(bits[k], bits[k - 23] ^ bits[k - 18]) << "bit " << k;
    EXPECT_NE(std::count(bits.begin(), bits.begin() + 23, 1), 0);
    EXPECT_EQ(pid_of(&ts[0]), 0u);
    EXPECT_EQ(pid_of(&ts[188]), 0x100u);
}

TEST(TsgenStream, BadArgumentsFailCleanly) {
    TempDir dir;
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {}, {"-n", "10"}, {"-o", "x.ts", "-n", "ten"}, {"-o", "x.ts", "-n", "-5"}, {"-o"},
             {"-o", "x.ts", "-q"}, {"-o", "nodir/x.ts", "-n", "3"}, {"-o", "x.ts", "-n", " 5"},
             {"-o", "x.ts", "-n", "1e3"}, {"-o", "x.ts", "-n", "99999999999999999999999"}, {"-o", "x.ts", "-n"}}) {
        const auto r = tu::run(dir.path, TSGEN_EXE, args);
        EXPECT_EQ(r.status, 2) << (args.empty() ? "(none)" : args.back());
        const std::string err = tu::read_text(dir / "err.txt");
        EXPECT_EQ(err.rfind("tsgen: ", 0), 0u) << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << "one line: " << err;
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "x.ts") && std::filesystem::file_size(dir / "x.ts") > 0);
    const auto help = tu::run(dir.path, TSGEN_EXE, {"-h"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("usage: tsgen -o FILE [-n PACKETS]\n", 0), 0u) << help.out;
}

TEST(TsgenStream, DefaultLengthAndShortWrite) {
    TempDir dir;
    ASSERT_EQ(tu::run(dir.path, TSGEN_EXE, {"-o", "d.ts"}).status, 0);
    EXPECT_EQ(std::filesystem::file_size(dir / "d.ts"), 188u * 10000u);
    ASSERT_EQ(tu::run(dir.path, TSGEN_EXE, {"-o", "z.ts", "-n", "0"}).status, 0);
    EXPECT_EQ(std::filesystem::file_size(dir / "z.ts"), 0u);
    if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
    // A device that is always full: the failed write is reported, status 1.
    EXPECT_EQ(tu::run(dir.path, TSGEN_EXE, {"-o", "/dev/full", "-n", "100"}).status, 1);
    EXPECT_NE(tu::read_text(dir / "err.txt").find("tsgen: "), std::string::npos);
}

}  // namespace
