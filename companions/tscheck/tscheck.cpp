// tscheck: checks a transport stream that a receiver gave back from a tsgen
// test stream: packet sync, transport error indicators, continuity counters per
// PID, and the PRBS 2^23-1 of the null packets, bit by bit. The last line is a
// summary for scripts; the exit status is 0 only for an error-free stream.
//
// Packet sync: locked when 5 sync bytes (0x47) follow each other at 188-byte
// spacing, lost after 2 consecutive packets without one. The measurement starts
// at the first null packet whose payload is a stretch of the PRBS (what a
// receiver delivers before that is its start-up and is not checked).
#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "companion.hpp"
#include "frame/version.hpp"
#include "ts.hpp"

namespace {

constexpr const char* kProg = "tscheck";
constexpr size_t kPacket = TS_PACKET;
constexpr uint8_t kSync = TS_SYNC;
constexpr int kLockSyncs = 5;     // consecutive sync bytes that lock the packet sync
constexpr int kUnlockMisses = 2;  // consecutive missing sync bytes that lose it
constexpr unsigned kPayloadBits = 184 * 8;
// The PRBS is found when the 1449 bits that follow the 23 loaded from a payload
// differ in at most a tenth of them (a payload of any other content differs in
// about half); it is lost when a payload differs from the continued sequence in
// more than a quarter of its bits (a packet dropped or inserted, or garbage).
constexpr unsigned kLockMaxMisses = (kPayloadBits - 23) / 10;
constexpr unsigned kSlipMisses = kPayloadBits / 4;
constexpr int kEventsShown = 10;  // of each kind

const char kUsage[] =
    "usage: tscheck FILE.ts\n"
    "  Checks a transport stream decoded by a receiver from a tsgen test stream:\n"
    "  packet sync, transport error indicators, continuity counters per PID and the\n"
    "  PRBS 2^23-1 of the null packets. Prints what it found and, last, the line\n"
    "  packets=N sync_losses=N tei=N cc_errors=N prbs_bits=N bit_errors=N ber=X per=X\n"
    "  Exit status: 0 error-free, 1 errors found, 2 bad usage.\n";

// The file through a window that slides forward: any size in little memory.
class Input {
public:
    explicit Input(FILE* fp) : fp_(fp) {}
    // Makes bytes [pos, end) available if the file has them; false at its end.
    bool has(uint64_t pos, uint64_t end) {
        if (pos > base_ + 4 * kChunk) {  // drop what lies behind
            const auto drop = static_cast<std::ptrdiff_t>(std::min<uint64_t>(pos - base_, buf_.size()));
            buf_.erase(buf_.begin(), buf_.begin() + drop);
            base_ += static_cast<uint64_t>(drop);
        }
        while (base_ + buf_.size() < end && !eof_) {
            const size_t old = buf_.size();
            buf_.resize(old + kChunk);
            const size_t got = std::fread(buf_.data() + old, 1, kChunk, fp_);
            buf_.resize(old + got);
            if (got < kChunk) {
                if (std::ferror(fp_)) error_ = errno;
                eof_ = true;
            }
        }
        return base_ + buf_.size() >= end;
    }
    const uint8_t* at(uint64_t pos) const { return buf_.data() + (pos - base_); }
    int error() const { return error_; }

private:
    static constexpr size_t kChunk = 1 << 20;
    FILE* fp_;
    std::vector<uint8_t> buf_;
    uint64_t base_ = 0;
    bool eof_ = false;
    int error_ = 0;
};

unsigned long long ull(uint64_t v) { return static_cast<unsigned long long>(v); }

struct PidStats {
    uint64_t packets = 0, cc_errors = 0;
    int last_cc = -1;
};

class Checker {
public:
    // --- counts
    uint64_t packets = 0, sync_losses = 0, sync_byte_errors = 0, skipped = 0, leading = 0;
    uint64_t tei = 0, cc_errors = 0, prbs_bits = 0, bit_errors = 0, nulls = 0, null_errors = 0, slips = 0;
    bool started = false;
    uint64_t start_packet = 0;
    std::map<unsigned, PidStats> pids;

    void packet(const uint8_t* p, uint64_t number) {
        ++packets;
        const unsigned pid = (p[1] & 0x1Fu) << 8 | p[2];
        const bool prbs_packet = pid == TS_NULL_PID && (p[3] & 0x30) == 0x10;  // payload only
        if (!started) {
            if (!prbs_packet || !lock(p + 4)) {
                ++leading;
                return;
            }
            started = true, start_packet = number;
            pids[pid].packets = 1, pids[pid].last_cc = p[3] & 0x0F;
            return;
        }
        if (p[1] & 0x80) {
            ++tei;
            if (show(tei_events_))
                std::printf("transport error indicator set in packet %llu (PID 0x%04X)\n", ull(number), pid);
        }
        PidStats& s = pids[pid];
        ++s.packets;
        if (p[3] & 0x10) {  // the counter counts packets with a payload
            const int cc = p[3] & 0x0F;
            if (s.last_cc >= 0 && cc != ((s.last_cc + 1) & 0x0F)) {
                ++cc_errors, ++s.cc_errors;
                if (show(cc_events_))
                    std::printf("continuity error in packet %llu: PID 0x%04X counter %d after %d\n", ull(number), pid,
                                cc, s.last_cc);
            }
            s.last_cc = cc;
        }
        if (prbs_packet) null_packet(p + 4, number);
    }

    // Whether to print an event: the first few of each kind.
    static bool show(int& shown) {
        if (shown == kEventsShown) std::printf("(further events of this kind not shown)\n");
        return shown++ < kEventsShown;
    }
    int sync_events_ = 0;

private:
    Prbs23 prbs_;
    bool prbs_locked_ = false;
    int tei_events_ = 0, cc_events_ = 0, slip_events_ = 0;

    // Loads the first 23 bits of a payload and checks the rest against their continuation.
    bool lock(const uint8_t* payload) {
        uint32_t reg = 0;
        for (unsigned i = 0; i < 23; ++i) reg = reg << 1 | (payload[i / 8] >> (7 - i % 8) & 1u);
        Prbs23 trial;
        trial.load(reg);
        unsigned misses = 0;
        for (unsigned i = 23; i < kPayloadBits; ++i) misses += (payload[i / 8] >> (7 - i % 8) & 1u) ^ trial.next_bit();
        if (misses > kLockMaxMisses) return false;
        prbs_ = trial, prbs_locked_ = true;
        return true;
    }

    void null_packet(const uint8_t* payload, uint64_t number) {
        ++nulls;
        if (prbs_locked_) {
            Prbs23 ahead = prbs_;
            unsigned misses = 0;
            for (unsigned i = 0; i < kPayloadBits / 8; ++i)
                misses += static_cast<unsigned>(std::popcount(static_cast<unsigned>(payload[i] ^ ahead.next_byte())));
            if (misses <= kSlipMisses) {
                prbs_ = ahead;
                prbs_bits += kPayloadBits, bit_errors += misses;
                if (misses > 0) ++null_errors;
                return;
            }
            ++slips;
            prbs_locked_ = false;
            const bool again = lock(payload);
            if (show(slip_events_))
                std::printf("PRBS lost in packet %llu (%u of %u bits differ)%s\n", ull(number), misses, kPayloadBits,
                            again ? "; found again in it" : "");
        } else if (lock(payload) && show(slip_events_)) {
            std::printf("PRBS found again in packet %llu\n", ull(number));
        }
        ++null_errors;  // a packet that broke the sequence, or came while it was lost
    }
};

}  // namespace

int main(int argc, char** argv) {
    companion::start(kProg);
    if (argc == 2 && (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (argc == 2 && std::strcmp(argv[1], "-V") == 0) {
        companion::print_version();
        return 0;
    }
    if (argc != 2) companion::fail_status(2, "give one transport stream file (usage: tscheck FILE.ts)");
    FILE* fp = std::fopen(argv[1], "rb");
    if (fp == nullptr) companion::fail_status(2, "can't read \"%s\": %s", argv[1], std::strerror(errno));
    Input in(fp);
    Checker c;
    uint64_t pos = 0;
    bool locked = false;
    for (;;) {
        if (!locked) {
            // Search: 5 sync bytes at 188-byte spacing, starting at pos.
            if (!in.has(pos, pos + (kLockSyncs - 1) * kPacket + 1)) break;
            bool ok = true;
            for (int k = 0; k < kLockSyncs && ok; ++k) ok = *in.at(pos + static_cast<uint64_t>(k) * kPacket) == kSync;
            if (!ok) {
                ++pos, ++c.skipped;
                continue;
            }
            locked = true;
        }
        if (!in.has(pos, pos + kPacket)) break;
        if (*in.at(pos) != kSync) {
            // One missing sync byte is a corrupted packet; two in a row (this
            // one and the next, or the end of the file) lose the sync.
            static_assert(kUnlockMisses == 2);
            const bool next_ok = in.has(pos, pos + kPacket + 1) && *in.at(pos + kPacket) == kSync;
            if (!next_ok) {
                ++c.sync_losses;
                if (Checker::show(c.sync_events_)) std::printf("packet sync lost at byte %llu\n", ull(pos));
                locked = false;
                ++pos, ++c.skipped;
                continue;
            }
            ++c.sync_byte_errors;
            if (Checker::show(c.sync_events_)) std::printf("corrupted sync byte at byte %llu\n", ull(pos));
        }
        c.packet(in.at(pos), c.packets);
        pos += kPacket;
    }
    in.has(pos, pos + 1);
    if (in.error() != 0) companion::fail_status(2, "reading \"%s\" failed: %s", argv[1], std::strerror(in.error()));
    std::fclose(fp);
    // Bytes after the last packet: not enough for a packet, or never in sync.
    uint64_t trailing = 0;
    while (in.has(pos + trailing, pos + trailing + 1)) ++trailing;

    std::printf("%s %s: %s\n", kProg, TERVANE_VERSION, argv[1]);
    std::printf(
        "Sync: %llu packets; %llu bytes out of sync skipped, %llu bytes after the last packet; "
        "%llu corrupted sync bytes\n",
        ull(c.packets), ull(c.skipped), ull(trailing), ull(c.sync_byte_errors));
    if (c.started) {
        std::printf("PRBS: found in packet %llu; the %llu packets before it are not checked\n", ull(c.start_packet),
                    ull(c.leading));
        std::printf("Null packets checked: %llu, %llu with errors, %llu PRBS losses\n", ull(c.nulls),
                    ull(c.null_errors), ull(c.slips));
        int shown = 0;
        for (const auto& [pid, s] : c.pids) {
            if (++shown > 16) {
                std::printf("(%zu more PIDs not shown)\n", c.pids.size() - 16);
                break;
            }
            std::printf("PID 0x%04X: %llu packets, %llu continuity errors\n", pid, ull(s.packets), ull(s.cc_errors));
        }
    } else {
        std::printf("PRBS: not found in any null packet (is this a decoded tsgen stream?)\n");
    }
    const double ber = c.prbs_bits ? static_cast<double>(c.bit_errors) / static_cast<double>(c.prbs_bits) : 0.0;
    const double per = c.nulls ? static_cast<double>(c.null_errors) / static_cast<double>(c.nulls) : 0.0;
    std::printf(
        "packets=%llu sync_losses=%llu tei=%llu cc_errors=%llu prbs_bits=%llu bit_errors=%llu ber=%.3g per=%.3g\n",
        ull(c.packets), ull(c.sync_losses), ull(c.tei), ull(c.cc_errors), ull(c.prbs_bits), ull(c.bit_errors), ber,
        per);
    const bool clean = c.started && c.sync_losses == 0 && c.sync_byte_errors == 0 && c.tei == 0 && c.cc_errors == 0 &&
                       c.bit_errors == 0 && c.null_errors == 0;
    return clean ? 0 : 1;
}
