// The transport-stream timing layer: packet sync on a byte stream (188- or
// 204-byte packets), the fields that carry time (PCR, PTS, DTS, continuity
// counter), the programmes' PCR PIDs from the PAT and PMTs, the channel's exact
// useful rate, and the scheduler that re-paces a stream onto that rate.
//
// The scheduler is fed input packets as they come and asked for one output
// packet per slot of the channel's packet clock. Packets with PCRs keep their
// meaning: each leaves at the slot its input time maps to (never earlier), and
// its PCR is rewritten to the programme's clock at that slot, so that the
// output's PCRs are exact to the 27 MHz tick. Null packets fill the slots that
// nothing is due in.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "frame/params.hpp"

namespace tstiming {

inline constexpr size_t kPacket = 188;
inline constexpr uint8_t kSync = 0x47;
inline constexpr unsigned kNullPid = 0x1FFF;
inline constexpr int64_t kTicksPerSecond = 27'000'000;  // the system clock
inline constexpr int64_t kTicksPerMs = kTicksPerSecond / 1000;
inline constexpr int64_t kPcrWrap = (int64_t{1} << 33) * 300;  // PCR = base x 300 + extension
inline constexpr int64_t kPtsWrap = int64_t{1} << 33;          // PTS and DTS, at 90 kHz

using Packet = std::array<uint8_t, kPacket>;

// ---------------------------------------------------------------- fields

inline unsigned pid(const uint8_t* p) { return (p[1] & 0x1Fu) << 8 | p[2]; }
inline bool unit_start(const uint8_t* p) { return (p[1] & 0x40) != 0; }
inline bool has_payload(const uint8_t* p) { return (p[3] & 0x10) != 0; }
inline bool has_adaptation(const uint8_t* p) { return (p[3] & 0x20) != 0; }
inline unsigned cc(const uint8_t* p) { return p[3] & 0x0Fu; }
inline void set_cc(uint8_t* p, unsigned v) { p[3] = static_cast<uint8_t>((p[3] & 0xF0) | (v & 0x0F)); }
// Whether the adaptation field is long enough for its flags, and which are set.
inline bool has_flags(const uint8_t* p) { return has_adaptation(p) && p[4] >= 1 && p[4] <= 183; }
inline bool has_pcr(const uint8_t* p) { return has_flags(p) && p[4] >= 7 && (p[5] & 0x10) != 0; }
inline bool discontinuity(const uint8_t* p) { return has_flags(p) && (p[5] & 0x80) != 0; }
inline void set_discontinuity(uint8_t* p) { p[5] |= 0x80; }
// The PCR in 27 MHz ticks; the packet must carry one.
int64_t get_pcr(const uint8_t* p);
// Writes the PCR (taken modulo kPcrWrap), keeping the reserved bits.
void set_pcr(uint8_t* p, int64_t ticks);

// Where the PTS and DTS of a PES header that starts in the packet lie (byte
// offsets of their 5-byte fields), -1 for absent. Headers that do not fit in
// the packet, and streams without these fields, give -1 for both.
struct Stamps {
    int pts = -1, dts = -1;
};
Stamps pes_stamps(const uint8_t* p);
int64_t get_stamp(const uint8_t* field);
// Writes the 33-bit value (modulo kPtsWrap), keeping the prefix and marker bits.
void set_stamp(uint8_t* field, int64_t value);

// A null packet: PID 0x1FFF, payload only, counter 0, payload 0xFF.
Packet null_packet();

// The signed difference a - b of two values modulo m, in [-m/2, m/2).
int64_t wrap_diff(int64_t a, int64_t b, int64_t m);

// ---------------------------------------------------------------- rates

// A rate in bit/s as an exact fraction.
struct Rate {
    uint64_t num = 0, den = 1;
    double bps() const { return static_cast<double>(num) / static_cast<double>(den); }
};

enum class Branch { nh, hp, lp };

// The useful rate of a branch of the transmission that the parameters describe
// (after settle_parms): the cells of a symbol, their bits, the code rate and
// RS(188/204), over the symbol's duration; the report's r_u, r_uhp and r_ulp
// are its single-precision roundings.
Rate useful_rate(const dvbt_parms_t& p, Branch b);

// The slots of the channel's packet clock: slot k starts k x 1504 / rate
// seconds after slot 0, num / den ticks a slot.
struct SlotClock {
    uint64_t num = 1, den = 1;
    explicit SlotClock(Rate r);
    SlotClock() = default;
    // The time of slot k in ticks, rounded down, and rounded to the nearest.
    int64_t floor(uint64_t k) const;
    int64_t nearest(uint64_t k) const;
    double ticks_per_slot() const { return static_cast<double>(num) / static_cast<double>(den); }
};

// ---------------------------------------------------------------- packet sync

// Finds 188-byte packets in a byte stream: locked on 5 sync bytes at one
// packet's spacing (188 or 204 bytes; 204-byte packets lose their 16 parity
// bytes), or, at the end of the input, on 2 or more whole packets that reach
// it exactly; while locked, each packet must begin with a sync byte, and one
// that does not loses the lock. Bytes outside packets are skipped and counted.
struct Sync {
    size_t size = 0;  // packet spacing locked on: 188, 204, or 0 before the first lock
    uint64_t packets = 0, skipped = 0, losses = 0;
    uint64_t offset = 0;  // of the next byte to examine in the whole input
    // Each stretch of skipped bytes: where it starts in the input and its length.
    struct Stretch {
        uint64_t at, bytes;
    };
    std::vector<Stretch> stretches;  // the first kStretchesKept of them
    static constexpr size_t kStretchesKept = 16;

    // Takes bytes and emits each whole packet found (188 bytes) to out, which
    // is called as out(const uint8_t*). At the end of the input, call finish.
    template <typename Out>
    void feed(std::span<const uint8_t> bytes, Out&& out) {
        buf_.insert(buf_.end(), bytes.begin(), bytes.end());
        scan(false, out);
    }
    template <typename Out>
    void finish(Out&& out) {
        scan(true, out);
        end_stretch();
    }

private:
    std::vector<uint8_t> buf_;
    size_t pos_ = 0;
    bool locked_ = false;
    uint64_t stretch_at_ = 0, stretch_len_ = 0;

    // Whether bytes [pos, pos + n) are in the buffer.
    bool have(size_t n) const { return buf_.size() - pos_ >= n; }
    // The spacing that locks at the next byte, 0 for none, -1 when the bytes
    // to tell have not come yet.
    int lock_size(bool at_end) const;
    void skip();
    void end_stretch();
    template <typename Out>
    void scan(bool at_end, Out& out) {
        for (;;) {
            if (!locked_) {
                const int s = lock_size(at_end);
                if (s < 0) break;  // not enough bytes to tell yet
                if (s == 0) {
                    skip();
                    continue;
                }
                end_stretch();
                locked_ = true, size = static_cast<size_t>(s);
            }
            if (!have(size)) {
                if (!at_end || !have(1)) break;
                locked_ = false;  // a partial packet at the end
                continue;
            }
            if (buf_[pos_] != kSync) {
                locked_ = false, ++losses;
                continue;
            }
            out(buf_.data() + pos_);
            ++packets, pos_ += size, offset += size;
        }
        if (pos_ > 65536 && pos_ * 2 > buf_.size()) {
            buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(pos_));
            pos_ = 0;
        }
    }
};

// ---------------------------------------------------------------- PAT and PMT

// The programmes of a stream and their PCR PIDs, from the PAT and the PMTs
// (sections may span packets; the first version seen of each is kept).
struct Programmes {
    struct Programme {
        unsigned number = 0, pmt_pid = 0, pcr_pid = kNullPid;
        bool known = false;  // its PMT has been read
    };
    std::vector<Programme> list;
    bool pat_seen = false;

    void packet(const uint8_t* p);
    // Whether the PAT and every PMT it names have been read.
    bool complete() const;
    // Whether any programme names a PCR PID.
    bool any_pcr_pid() const;

private:
    struct Section {
        std::vector<uint8_t> bytes;
        bool open = false;
    };
    std::vector<std::pair<unsigned, Section>> sections_;
    Section& section(unsigned pid);
    void table(unsigned pid, const std::vector<uint8_t>& s);
};

// ---------------------------------------------------------------- the input's clock

// The time of every input position on the clock of one PCR PID (the master):
// piecewise linear through its PCRs, continuous across the 33-bit wrap and
// across discontinuities (a signalled one, a step back, or one of more than a
// second: the time runs on at the rate of the segment before), extrapolated
// before the first PCR and after the last at the rate of the nearest segment.
// Positions are packet numbers of the input; the time is in ticks.
struct Timeline {
    int64_t fallback_num = 1, fallback_den = 1;  // ticks a packet with fewer than 2 PCRs
    int pcrs = 0;

    // A PCR of the master at input packet n; returns whether it is a jump (a
    // discontinuity, signalled or not). Packet numbers must increase.
    bool pcr(int64_t n, int64_t value, bool signalled);
    // The time of input packet n: interpolated in the last segment, or
    // extrapolated before the first PCR or after the last.
    int64_t at(int64_t n) const;

private:
    struct Point {
        int64_t n = 0, t = 0, value = 0;
    };
    Point first_, prev_, last_;
    int64_t first_dt_ = 0, first_dn_ = 0;  // the first segment, for extrapolation backwards
    int64_t dt_ = 0, dn_ = 0;              // the last segment
};

// ---------------------------------------------------------------- the scheduler

enum class Mode { undecided, paced, passed };
enum class Pull { packet, need_input, done };

struct Config {
    Rate rate;  // the channel's useful rate
    // paced: re-paced by the PCRs; passed: as it is, nulls included, one
    // packet a slot; undecided: paced from the first PCR, passed when a PMT
    // names no PCR PID or no PCR comes within decide_packets.
    Mode start = Mode::undecided;
    // Live: packets are timed by their arrival on the output clock (the
    // device's): the first waits `latency` ticks, and the mapping slips back to
    // that when a PCR of the master comes more than max_late after its time or
    // more than 2 x latency before it. Otherwise the first packet goes in slot
    // 0 and the mapping never moves. Either way, a packet's time is known when
    // the master's next PCR has come: latency must exceed the PCRs' interval.
    bool live = false;
    int64_t latency = 250 * kTicksPerMs;
    // A packet that would leave later than this after its time (live: after
    // its time, its arrival and the PCR that gave its time) for want of room:
    // dropped when drop_late, else counted (a file's dry run refuses the input on it).
    int64_t max_late = 100 * kTicksPerMs;
    bool drop_late = true;
    // A PCR-only packet is inserted on a PCR PID whose last PCR left this long
    // ago, while its own last PCR left less than a second ago.
    int64_t pcr_gap = 35 * kTicksPerMs;
    size_t capacity = 65536;  // packets held at most; more arriving are dropped
    size_t decide_packets = 20000;
};

struct Stats {
    uint64_t in = 0, in_nulls = 0, out = 0, out_nulls = 0, forwarded = 0;
    uint64_t filled = 0;  // null packets put in where nothing was due (the input's own not counted)
    uint64_t restamped = 0, inserted = 0, dropped_late = 0, dropped_full = 0;
    uint64_t jumps = 0, unsignalled = 0, slips = 0;
    int64_t max_late = 0;  // ticks, the largest lateness of a forwarded packet
    // At the largest lateness: the busy stretch of slots that led to it, the
    // packets it held and the time the last of them was due.
    int64_t busy_from = 0, busy_due = 0, busy_until = 0;
};

// Driving it: a file or a pipe pushes each packet and pulls until need_input,
// then, at its end, calls end() and pulls until done. A live player
// (cfg.live) pushes packets as they arrive and pulls one packet per slot of
// the modulator's packet clock, whatever is due: a null packet when nothing
// is; a packet's arrival is the slot count at its push. One scheduler a
// branch of a hierarchical transmission, each at its branch's rate.
struct Scheduler {
    Config cfg;
    SlotClock clock;
    Mode mode = Mode::undecided;
    Stats stats;
    Programmes programmes;
    int master = -1;  // the PID whose PCRs time the input

    explicit Scheduler(const Config& c);
    // An input packet (188 bytes, sync byte first).
    void push(const uint8_t* p);
    // The input has ended: what is held is scheduled.
    void end();
    // The content of the next output slot. need_input: not yet known (never
    // when live: a null packet goes instead); done: the input has ended and
    // everything has gone.
    Pull pull(Packet& out);
    // Packets held: waiting for their time or their slot.
    size_t held() const { return q_.size(); }

private:
    struct Held {
        Packet p;
        int64_t n = 0, t = 0, arrival = 0, ready = 0;  // input number and time; slot times it came and got its time
        bool jump = false;
    };
    struct TimeBase {
        unsigned pid = 0;
        int64_t c = 0;  // PCR at slot time t: t + c (modulo kPcrWrap)
        int64_t last_out = 0, last_real = 0;
        bool anchored = false, pending = false;  // pending: the next PCR announces a discontinuity
    };
    std::deque<Held> q_;
    size_t resolved_ = 0;  // the first q_[0 .. resolved_) have their time
    Timeline tl_;
    int64_t n_ = 0;  // input packets so far
    uint64_t k_ = 0;
    int64_t d_ = 0;  // slot time = input time + d_
    bool anchored_ = false, ended_ = false;
    std::vector<TimeBase> bases_;
    std::array<int8_t, 8192> last_cc_;
    int64_t busy_from_ = 0;
    bool busy_ = false;
    int64_t slack_ = 0;  // lateness allowed beyond max_late while catching up after a slip back

    void decide(Mode m);
    void resolve(int64_t up_to);
    void resolve_all();
    TimeBase& base(unsigned pid);
    void slip(int64_t by);
    void emit(Packet& out, const Packet& p, bool filler);
    void restamp(Packet& p, const Held& h, int64_t t);
};

// ---------------------------------------------------------------- a file played again

// What a loop over a file needs: per PID the counters at its ends, per PES
// stream its presentation times, and the file's length on its clock.
struct FileFacts {
    uint64_t packets = 0, nulls = 0;
    bool any_pcr = false;
    int64_t duration = 0;  // ticks, a multiple of 300: what a loop adds to PCR, PTS and DTS
    int64_t span = 0;      // ticks from the first packet to the end of the last on the master's clock
    int64_t media = 0;     // ticks: the presentation span of the stream stamped most often, and one frame
    struct Counter {
        int first = -1, last = -1;  // first counter, last with a payload
        bool first_payload = false;
    };
    std::vector<Counter> counters = std::vector<Counter>(8192);

    // Takes the file's packets in order; finish computes the durations.
    void packet(const uint8_t* p);
    void finish(const SlotClock& fallback);

private:
    Timeline tl_;
    int master_ = -1;
    std::vector<std::pair<unsigned, std::vector<int64_t>>> pts_;
};

// Rewrites a packet of pass `loop` (0 for the first) over the file so that
// the passes join: PCR, PTS and DTS offset by loop x duration, counters
// shifted to run on from the pass before.
struct Looper {
    const FileFacts* facts = nullptr;
    int64_t loop = 0;
    void apply(uint8_t* p) const;
    // The counter shift of a PID in pass `loop`.
    unsigned shift(unsigned pid) const;
};

}  // namespace tstiming
