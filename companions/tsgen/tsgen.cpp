// tsgen: writes a valid MPEG-2 transport stream for tests of the transmitter and
// of receivers: a PAT and a PMT repeated every 100 packets, every other packet a
// null packet (PID 0x1FFF) whose payload carries a continuous PRBS 2^23-1
// (x^23 + x^18 + 1, the bit-error-rate test pattern), continuity counters
// counted per PID.
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "companion.hpp"
#include "ts.hpp"

namespace {

constexpr size_t kPacket = TS_PACKET;
constexpr unsigned kTablePeriod = 100;  // a PAT and a PMT in every 100 packets
constexpr uint16_t kPmtPid = 0x0100;
constexpr uint16_t kProgram = 1;

const char kUsage[] =
    "usage: tsgen -o FILE [-n PACKETS]\n"
    "  writes PACKETS (default 10000) 188-byte transport stream packets to FILE:\n"
    "  a PAT (program 1 -> PMT PID 0x0100) and a PMT every 100 packets, first\n"
    "  in the file; all other packets null packets (PID 0x1FFF) whose payloads\n"
    "  carry one continuous PRBS 2^23-1 (x^23 + x^18 + 1, register seeded with\n"
    "  all ones, bytes MSB first).\n";

// CRC-32 of MPEG-2 sections: polynomial 0x04C11DB7, initial value all ones,
// no reflection, no final inversion.
uint32_t crc32_mpeg(const uint8_t* p, size_t n) {
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i) {
        crc ^= static_cast<uint32_t>(p[i]) << 24;
        for (int b = 0; b < 8; ++b) crc = (crc & 0x80000000u) ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
    }
    return crc;
}

// Header of a packet with payload only (adaptation_field_control 01).
void put_header(uint8_t* pkt, uint16_t pid, bool unit_start, uint8_t cc) {
    pkt[0] = TS_SYNC;
    pkt[1] = static_cast<uint8_t>((unit_start ? 0x40 : 0x00) | ((pid >> 8) & 0x1F));
    pkt[2] = static_cast<uint8_t>(pid & 0xFF);
    pkt[3] = static_cast<uint8_t>(0x10 | (cc & 0x0F));
}

// A PSI section (table id, id field, body) in a packet of its own: pointer
// field 0, section with CRC, 0xFF stuffing.
void put_section(uint8_t* pkt, uint16_t pid, uint8_t cc, uint8_t table_id, uint16_t id_field, const uint8_t* body,
                 size_t body_len) {
    std::memset(pkt, 0xFF, kPacket);
    put_header(pkt, pid, true, cc);
    uint8_t* sec = pkt + 5;
    pkt[4] = 0;                                      // pointer_field
    const size_t section_length = 5 + body_len + 4;  // after the length field: header rest, body, CRC
    sec[0] = table_id;
    sec[1] = static_cast<uint8_t>(0xB0 | ((section_length >> 8) & 0x0F));  // syntax 1, '0', reserved
    sec[2] = static_cast<uint8_t>(section_length & 0xFF);
    sec[3] = static_cast<uint8_t>(id_field >> 8);
    sec[4] = static_cast<uint8_t>(id_field & 0xFF);
    sec[5] = 0xC1;  // reserved, version 0, current_next 1
    sec[6] = 0;     // section_number
    sec[7] = 0;     // last_section_number
    std::memcpy(sec + 8, body, body_len);
    const uint32_t crc = crc32_mpeg(sec, 8 + body_len);
    for (int i = 0; i < 4; ++i) sec[8 + body_len + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
}

void put_pat(uint8_t* pkt, uint8_t cc) {
    const uint8_t body[4] = {static_cast<uint8_t>(kProgram >> 8), static_cast<uint8_t>(kProgram & 0xFF),
                             static_cast<uint8_t>(0xE0 | (kPmtPid >> 8)), static_cast<uint8_t>(kPmtPid & 0xFF)};
    put_section(pkt, 0x0000, cc, 0x00, 0x0001 /* transport_stream_id */, body, sizeof body);
}

void put_pmt(uint8_t* pkt, uint8_t cc) {
    // PCR_PID 0x1FFF (no PCR), no program descriptors, no elementary streams.
    const uint8_t body[4] = {0xE0 | (TS_NULL_PID >> 8), TS_NULL_PID & 0xFF, 0xF0, 0x00};
    put_section(pkt, kPmtPid, cc, 0x02, kProgram, body, sizeof body);
}

bool parse_count(const char* text, unsigned long long& out) {
    if (text == nullptr || *text < '0' || *text > '9') return false;
    errno = 0;
    char* end = nullptr;
    out = std::strtoull(text, &end, 10);
    return errno == 0 && end != nullptr && *end == '\0';
}

// Reports a failed write with what reached the file; ends the process with status 1.
[[noreturn]] void write_failed(FILE* fp, const char* name) {
    const int err = errno;
    struct stat st {};
    const long long bytes = fstat(fileno(fp), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
    companion::fail("write to \"%s\" failed after %lld bytes (%lld whole packets): %s", name, bytes,
                    bytes / static_cast<long long>(kPacket), std::strerror(err));
}

}  // namespace

int main(int argc, char** argv) {
    companion::start("tsgen");
    const char* out_name = nullptr;
    unsigned long long packets = 10000;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if ((a == "-o" || a == "-n") && i + 1 >= argc)
            companion::fail_status(2, "option %s needs a value (tsgen -h for usage)", a.c_str());
        if (a == "-o") {
            out_name = argv[++i];
        } else if (a == "-n") {
            if (!parse_count(argv[++i], packets) || packets > 100000000ull)
                companion::fail_status(2, "-n takes a whole number of packets from 0 to 100000000, not \"%s\"",
                                       argv[i]);
        } else {
            companion::fail_status(2, "unknown argument \"%s\" (tsgen -h for usage)", a.c_str());
        }
    }
    if (out_name == nullptr) companion::fail_status(2, "no output file given (usage: tsgen -o FILE [-n PACKETS])");
    FILE* fp = std::fopen(out_name, "wb");
    if (fp == nullptr) companion::fail_status(2, "can't create \"%s\": %s", out_name, std::strerror(errno));

    // Continuity counters of the PAT, the PMT and the null packets. ISO 13818-1
    // exempts null packets from the rule; they are counted anyway so that a
    // receiver test may check them.
    uint8_t cc_pat = 0, cc_pmt = 0, cc_null = 0;
    Prbs23 prbs;
    std::array<uint8_t, kPacket> pkt{};
    for (unsigned long long n = 0; n < packets; ++n) {
        const unsigned long long slot = n % kTablePeriod;
        if (slot == 0) {
            put_pat(pkt.data(), cc_pat++);
        } else if (slot == 1) {
            put_pmt(pkt.data(), cc_pmt++);
        } else {
            put_header(pkt.data(), TS_NULL_PID, false, cc_null++);
            for (size_t i = 4; i < kPacket; ++i) pkt[i] = prbs.next_byte();
        }
        if (std::fwrite(pkt.data(), 1, kPacket, fp) != kPacket) write_failed(fp, out_name);
    }
    if (std::fflush(fp) != 0) write_failed(fp, out_name);
    if (std::fclose(fp) != 0) companion::fail("closing \"%s\" failed: %s", out_name, std::strerror(errno));
    return 0;
}
