// The transport-stream timing layer.
#include "tstiming.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <numeric>

namespace tstiming {
namespace {

__extension__ typedef __int128 i128;
__extension__ typedef unsigned __int128 u128;

// A PCR that lands more than this away from where its time base puts it is a jump.
constexpr int64_t kJump = kTicksPerSecond;
// A PCR PID still gets inserted PCRs this long after its last own one.
constexpr int64_t kActive = kTicksPerSecond;

int64_t mod(int64_t v, int64_t m) {
    const int64_t r = v % m;
    return r < 0 ? r + m : r;
}

// a x b / c, truncated, without overflow of the product.
int64_t muldiv(int64_t a, int64_t b, int64_t c) { return static_cast<int64_t>(i128{a} * b / c); }

u128 gcd128(u128 a, u128 b) {
    while (b != 0) {
        const u128 t = a % b;
        a = b, b = t;
    }
    return a;
}

}  // namespace

// ---------------------------------------------------------------- fields

int64_t get_pcr(const uint8_t* p) {
    const int64_t base =
        int64_t{p[6]} << 25 | int64_t{p[7]} << 17 | int64_t{p[8]} << 9 | int64_t{p[9]} << 1 | int64_t{p[10]} >> 7;
    const int64_t ext = int64_t{p[10] & 1} << 8 | p[11];
    return mod(base * 300 + ext, kPcrWrap);
}

void set_pcr(uint8_t* p, int64_t ticks) {
    const int64_t v = mod(ticks, kPcrWrap);
    const int64_t base = v / 300, ext = v % 300;
    p[6] = static_cast<uint8_t>(base >> 25);
    p[7] = static_cast<uint8_t>(base >> 17);
    p[8] = static_cast<uint8_t>(base >> 9);
    p[9] = static_cast<uint8_t>(base >> 1);
    p[10] = static_cast<uint8_t>((base & 1) << 7 | (p[10] & 0x7E) | ext >> 8);
    p[11] = static_cast<uint8_t>(ext);
}

Stamps pes_stamps(const uint8_t* p) {
    if (!unit_start(p) || !has_payload(p)) return {};
    const int off = has_adaptation(p) ? 5 + p[4] : 4;
    if (off + 9 > static_cast<int>(kPacket)) return {};
    const uint8_t* h = p + off;
    if (h[0] != 0 || h[1] != 0 || h[2] != 1) return {};
    // Streams whose PES packets have no optional header.
    switch (h[3]) {
    case 0xBC:
    case 0xBE:
    case 0xBF:
    case 0xF0:
    case 0xF1:
    case 0xF2:
    case 0xF8:
    case 0xFF: return {};
    default: break;
    }
    if ((h[6] & 0xC0) != 0x80) return {};
    const int flags = h[7] >> 6;
    Stamps s;
    if (flags >= 2 && off + 14 <= static_cast<int>(kPacket)) s.pts = off + 9;
    if (flags == 3 && off + 19 <= static_cast<int>(kPacket)) s.dts = off + 14;
    return s;
}

int64_t get_stamp(const uint8_t* f) {
    return int64_t{(f[0] >> 1) & 7} << 30 | int64_t{f[1]} << 22 | int64_t{f[2] >> 1} << 15 | int64_t{f[3]} << 7 |
           int64_t{f[4] >> 1};
}

void set_stamp(uint8_t* f, int64_t value) {
    const int64_t v = mod(value, kPtsWrap);
    f[0] = static_cast<uint8_t>((f[0] & 0xF1) | ((v >> 29) & 0x0E));
    f[1] = static_cast<uint8_t>(v >> 22);
    f[2] = static_cast<uint8_t>((f[2] & 1) | ((v >> 14) & 0xFE));
    f[3] = static_cast<uint8_t>(v >> 7);
    f[4] = static_cast<uint8_t>((f[4] & 1) | ((v << 1) & 0xFE));
}

Packet null_packet() {
    Packet p;
    p.fill(0xFF);
    p[0] = kSync, p[1] = kNullPid >> 8, p[2] = kNullPid & 0xFF, p[3] = 0x10;
    return p;
}

int64_t wrap_diff(int64_t a, int64_t b, int64_t m) {
    const int64_t d = mod(a - b, m);
    return d >= m / 2 ? d - m : d;
}

// ---------------------------------------------------------------- rates

Rate useful_rate(const dvbt_parms_t& p, Branch b) {
    // Guard 1/div: a symbol lasts fft x (div + 1) / div samples; code rate kn/kd.
    constexpr std::array<uint64_t, 4> div{4, 8, 16, 32};
    constexpr std::array<uint64_t, 5> kn{1, 2, 3, 5, 7}, kd{2, 3, 4, 6, 8};
    const uint32_t rate = b == Branch::nh ? p.rate : b == Branch::hp ? p.rate_hp : p.rate_lp;
    const uint64_t bits = b == Branch::nh   ? static_cast<uint64_t>(dvbt_bitpersymb[p.M])
                          : b == Branch::hp ? 2u
                                            : static_cast<uint64_t>(dvbt_bitpersymb[p.M] - 2);
    // Samples a second: 8 MHz x (5 + band) / 7.
    const u128 num =
        u128{8000000} * (5 + p.band) * static_cast<uint64_t>(dvbt_N[p.mode]) * div[p.delta] * bits * kn[rate] * kPacket;
    const u128 den = u128{7} * static_cast<uint64_t>(dvbt_fftsize[p.mode]) * (div[p.delta] + 1) * kd[rate] * 204;
    const u128 g = gcd128(num, den);
    return {static_cast<uint64_t>(num / g), static_cast<uint64_t>(den / g)};
}

SlotClock::SlotClock(Rate r) {
    // 1504 bits a slot at num / den bit/s.
    const u128 a = u128{kPacket * 8} * kTicksPerSecond * r.den, b = r.num;
    const u128 g = gcd128(a, b);
    num = static_cast<uint64_t>(a / g), den = static_cast<uint64_t>(b / g);
}

int64_t SlotClock::floor(uint64_t k) const { return static_cast<int64_t>(u128{k} * num / den); }

int64_t SlotClock::nearest(uint64_t k) const {
    return static_cast<int64_t>((u128{k} * num * 2 + den) / (u128{den} * 2));
}

// ---------------------------------------------------------------- packet sync

int Sync::lock_size(bool at_end) const {
    const size_t left = buf_.size() - pos_;
    if (left == 0) return -1;
    if (buf_[pos_] != kSync) return 0;
    bool waiting = false;
    for (const size_t s : {size_t{188}, size_t{204}}) {
        if (left >= 4 * s + 1) {
            bool ok = true;
            for (size_t j = 1; j < 5 && ok; ++j) ok = buf_[pos_ + j * s] == kSync;
            if (ok) return static_cast<int>(s);
        } else if (at_end) {
            // Two or more whole packets that end the input exactly.
            bool ok = left % s == 0 && left / s >= 2;
            for (size_t j = 1; j < left / s && ok; ++j) ok = buf_[pos_ + j * s] == kSync;
            if (ok) return static_cast<int>(s);
        } else {
            waiting = true;
        }
    }
    return waiting ? -1 : 0;
}

void Sync::skip() {
    if (stretch_len_ == 0) stretch_at_ = offset;
    ++stretch_len_, ++skipped, ++offset, ++pos_;
}

void Sync::end_stretch() {
    if (stretch_len_ == 0) return;
    if (stretches.size() < kStretchesKept) stretches.push_back({stretch_at_, stretch_len_});
    stretch_len_ = 0;
}

// ---------------------------------------------------------------- PAT and PMT

Programmes::Section& Programmes::section(unsigned pid) {
    for (auto& [id, s] : sections_)
        if (id == pid) return s;
    return sections_.emplace_back(pid, Section{}).second;
}

void Programmes::packet(const uint8_t* p) {
    const unsigned id = pid(p);
    bool psi = id == 0;
    for (const Programme& g : list) psi = psi || (g.pmt_pid == id && !g.known);
    if (!psi || !has_payload(p) || complete()) return;
    size_t off = has_adaptation(p) ? 5u + p[4] : 4u;
    if (off >= kPacket) return;
    Section& s = section(id);
    auto take = [&](size_t from, size_t to) {
        if (!s.open) return;
        s.bytes.insert(s.bytes.end(), p + from, p + to);
        while (s.bytes.size() >= 3 && s.bytes[0] != 0xFF) {
            const size_t len = ((s.bytes[1] & 0x0Fu) << 8 | s.bytes[2]) + 3u;
            if (s.bytes.size() < len) return;
            table(id, std::vector<uint8_t>(s.bytes.begin(), s.bytes.begin() + static_cast<std::ptrdiff_t>(len)));
            s.bytes.erase(s.bytes.begin(), s.bytes.begin() + static_cast<std::ptrdiff_t>(len));
        }
        if (!s.bytes.empty() && s.bytes[0] == 0xFF) s.bytes.clear(), s.open = false;
        if (s.bytes.size() > 4096) s.bytes.clear(), s.open = false;
    };
    if (unit_start(p)) {
        const size_t start = off + 1 + p[off];
        if (start > kPacket) return;
        take(off + 1, start);
        s.bytes.clear(), s.open = true;
        take(start, kPacket);
    } else {
        take(off, kPacket);
    }
}

void Programmes::table(unsigned pid, const std::vector<uint8_t>& s) {
    if (s.size() < 12 || (s[1] & 0x80) == 0 || (s[5] & 1) == 0) return;
    const size_t end = s.size() - 4;  // before the CRC
    if (pid == 0 && s[0] == 0x00 && !pat_seen) {
        for (size_t i = 8; i + 4 <= end; i += 4) {
            const unsigned number = s[i] << 8 | s[i + 1], pmt = (s[i + 2] & 0x1Fu) << 8 | s[i + 3];
            if (number != 0) list.push_back({number, pmt, kNullPid, false});
        }
        pat_seen = true;
    } else if (s[0] == 0x02) {
        const unsigned number = s[3] << 8 | s[4];
        for (Programme& g : list)
            if (g.pmt_pid == pid && g.number == number && !g.known)
                g.pcr_pid = (s[8] & 0x1Fu) << 8 | s[9], g.known = true;
    }
}

bool Programmes::complete() const {
    return pat_seen && std::all_of(list.begin(), list.end(), [](const Programme& g) { return g.known; });
}

bool Programmes::any_pcr_pid() const {
    return std::any_of(list.begin(), list.end(), [](const Programme& g) { return g.known && g.pcr_pid != kNullPid; });
}

// ---------------------------------------------------------------- the input's clock

bool Timeline::pcr(int64_t n, int64_t value, bool signalled) {
    if (pcrs == 0) {
        first_ = prev_ = last_ = {n, value, value};
        pcrs = 1;
        return false;
    }
    const int64_t d = mod(value - last_.value, kPcrWrap);
    const bool jump = signalled || d > kJump;
    const int64_t t = jump ? at(n) : last_.t + d;
    prev_ = last_;
    last_ = {n, t, value};
    dt_ = t - prev_.t, dn_ = n - prev_.n;
    if (pcrs == 1) first_dt_ = dt_, first_dn_ = dn_;
    ++pcrs;
    return jump;
}

int64_t Timeline::at(int64_t n) const {
    auto run = [this](int64_t dt, int64_t dn, int64_t packets) {
        return dn > 0 && dt > 0 ? muldiv(dt, packets, dn) : muldiv(fallback_num, packets, fallback_den);
    };
    if (pcrs == 0) return run(0, 0, n);
    if (n < first_.n) return first_.t - run(first_dt_, first_dn_, first_.n - n);
    if (pcrs == 1) return first_.t + run(0, 0, n - first_.n);
    if (n > last_.n) return last_.t + run(dt_, dn_, n - last_.n);
    return prev_.t + run(dt_, dn_, n - prev_.n);
}

// ---------------------------------------------------------------- the scheduler

Scheduler::Scheduler(const Config& c) : cfg(c), clock(c.rate) {
    last_cc_.fill(-1);
    // Before the input has two PCRs it is taken to come at the channel's rate.
    tl_.fallback_num = static_cast<int64_t>(clock.num), tl_.fallback_den = static_cast<int64_t>(clock.den);
    if (cfg.start != Mode::undecided) decide(cfg.start);
}

void Scheduler::decide(Mode m) {
    mode = m;
    if (m != Mode::paced) return;
    // The nulls held while undecided go.
    std::erase_if(q_, [](const Held& h) { return pid(h.p.data()) == kNullPid; });
}

void Scheduler::resolve(int64_t up_to) {
    for (; resolved_ < q_.size() && q_[resolved_].n <= up_to; ++resolved_)
        q_[resolved_].t = tl_.at(q_[resolved_].n), q_[resolved_].ready = clock.floor(k_);
}

void Scheduler::resolve_all() { resolve(INT64_MAX); }

Scheduler::TimeBase& Scheduler::base(unsigned id) {
    for (TimeBase& b : bases_)
        if (b.pid == id) return b;
    TimeBase& b = bases_.emplace_back();
    b.pid = id;
    return b;
}

void Scheduler::push(const uint8_t* p) {
    const int64_t n = n_++;
    ++stats.in;
    const unsigned id = pid(p);
    const bool null = id == kNullPid;
    const bool pcr = !null && has_pcr(p);
    if (null) ++stats.in_nulls;
    programmes.packet(p);
    if (mode == Mode::undecided) {
        if (pcr) decide(Mode::paced);
        else if (programmes.complete() && !programmes.any_pcr_pid()) decide(Mode::passed);
    }
    if (mode == Mode::paced && null) return;
    if (q_.size() >= cfg.capacity) {
        ++stats.dropped_full;
        return;
    }
    Held& h = q_.emplace_back();
    std::memcpy(h.p.data(), p, kPacket);
    h.n = n;
    h.arrival = clock.floor(k_);
    if (mode == Mode::undecided && q_.size() >= cfg.decide_packets) decide(Mode::passed);
    if (mode != Mode::paced) return;
    if (pcr && master < 0) master = static_cast<int>(id);
    if (pcr && static_cast<int>(id) == master) {
        h.jump = tl_.pcr(n, get_pcr(p), discontinuity(p));
        if (tl_.pcrs >= 2) resolve(n);
        // Live: where this PCR's time falls against its arrival on the output clock.
        if (cfg.live && anchored_ && resolved_ == q_.size()) {
            const int64_t wait = h.t + d_ - h.arrival;
            if (wait > 2 * cfg.latency || wait < -cfg.max_late) slip(cfg.latency - wait);
        }
    }
    // A master that stays silent too long: its clock runs on at the last rate.
    if (q_.size() - resolved_ > cfg.capacity / 2) resolve_all();
}

void Scheduler::end() { ended_ = true; }

void Scheduler::slip(int64_t by) {
    d_ += by;
    // Moved earlier, what is held is due at once: late, but not for the channel's want of room.
    if (by < 0) slack_ += -by;
    for (TimeBase& b : bases_) b.c = mod(b.c - by, kPcrWrap), b.pending = true;
    ++stats.slips;
}

void Scheduler::emit(Packet& out, const Packet& p, bool filler) {
    out = p;
    const int64_t t = clock.floor(k_);
    ++k_, ++stats.out;
    const unsigned id = pid(p.data());
    if (id == kNullPid) ++stats.out_nulls;
    else last_cc_[id] = static_cast<int8_t>(cc(p.data()));
    if (filler) {
        ++stats.filled;
        busy_ = false;
    } else if (!busy_) {
        busy_ = true, busy_from_ = t;
    }
}

void Scheduler::restamp(Packet& p, const Held& h, int64_t t) {
    const unsigned id = pid(p.data());
    TimeBase& b = base(id);
    const int64_t expect = mod(get_pcr(p.data()) - (h.t + d_), kPcrWrap);
    const bool signalled = discontinuity(p.data());
    if (!b.anchored) {
        b.c = expect, b.anchored = true;
    } else {
        const bool jump =
            static_cast<int>(id) == master ? h.jump : std::llabs(wrap_diff(expect, b.c, kPcrWrap)) > kJump;
        if (signalled || jump) {
            b.c = expect, ++stats.jumps;
            if (!signalled) set_discontinuity(p.data()), ++stats.unsignalled;
        }
    }
    if (b.pending) set_discontinuity(p.data()), b.pending = false;
    set_pcr(p.data(), clock.nearest(k_) + b.c);
    b.last_out = b.last_real = t;
    ++stats.restamped;
}

Pull Scheduler::pull(Packet& out) {
    static const Packet null = null_packet();
    for (;;) {
        if (mode == Mode::undecided && ended_) decide(Mode::passed);
        if (mode == Mode::passed && !q_.empty()) {
            emit(out, q_.front().p, false);
            ++stats.forwarded;
            q_.pop_front();
            return Pull::packet;
        }
        if (mode != Mode::paced) {
            if (ended_) return Pull::done;
            if (!cfg.live) return Pull::need_input;
            emit(out, null, true);
            return Pull::packet;
        }
        if (ended_) {
            resolve_all();
            if (q_.empty()) return Pull::done;
        }
        const int64_t t = clock.floor(k_);
        const bool head_known = resolved_ > 0;
        if (head_known && !anchored_) {
            const Held& h = q_.front();
            d_ = (cfg.live ? h.arrival + cfg.latency : t) - h.t;
            anchored_ = true;
        }
        // A PCR-only packet for a PCR PID whose last PCR is getting old.
        for (TimeBase& b : bases_) {
            if (!b.anchored || t - b.last_real >= kActive || t - b.last_out < cfg.pcr_gap) continue;
            if (head_known && pid(q_.front().p.data()) == b.pid && has_pcr(q_.front().p.data()) &&
                q_.front().t + d_ <= t)
                break;  // its own PCR goes now
            Packet p{};
            p.fill(0xFF);
            p[0] = kSync, p[1] = static_cast<uint8_t>(b.pid >> 8), p[2] = static_cast<uint8_t>(b.pid);
            p[3] = static_cast<uint8_t>(0x20 | (last_cc_[b.pid] & 0x0F));  // adaptation only: the counter stays
            p[4] = 183, p[5] = 0x10;
            if (b.pending) p[5] |= 0x80, b.pending = false;
            set_pcr(p.data(), clock.nearest(k_) + b.c);
            p[10] |= 0x7E;  // reserved bits
            b.last_out = t;
            ++stats.inserted;
            emit(out, p, false);
            return Pull::packet;
        }
        if (!head_known) {
            if (!cfg.live) return Pull::need_input;
            emit(out, null, true);
            return Pull::packet;
        }
        const Held& h = q_.front();
        const int64_t due = h.t + d_;
        if (due > t) {
            emit(out, null, true);
            return Pull::packet;
        }
        // Late for the channel: live, counted from when the packet came and its
        // time was known, whichever is later (a late input is the slips' business).
        const int64_t late = t - (cfg.live ? std::max(due, h.ready) : due);
        if (late <= 0) slack_ = 0;
        if (late > cfg.max_late + slack_ && cfg.drop_late) {
            ++stats.dropped_late;
            q_.pop_front(), --resolved_;
            continue;
        }
        Packet p = h.p;
        if (has_pcr(p.data())) restamp(p, h, t);
        emit(out, p, false);
        if (late > stats.max_late)
            stats.max_late = late, stats.busy_from = busy_from_, stats.busy_due = due, stats.busy_until = t;
        ++stats.forwarded;
        q_.pop_front(), --resolved_;
        return Pull::packet;
    }
}

// ---------------------------------------------------------------- a file played again

void FileFacts::packet(const uint8_t* p) {
    const auto n = static_cast<int64_t>(packets++);
    const unsigned id = pid(p);
    if (id == kNullPid) {
        ++nulls;
        return;
    }
    Counter& c = counters[id];
    if (c.first < 0) c.first = static_cast<int>(cc(p)), c.first_payload = has_payload(p);
    if (has_payload(p)) c.last = static_cast<int>(cc(p));
    if (has_pcr(p)) {
        any_pcr = true;
        if (master_ < 0) master_ = static_cast<int>(id);
        if (static_cast<int>(id) == master_) tl_.pcr(n, get_pcr(p), discontinuity(p));
    }
    const Stamps s = pes_stamps(p);
    if (s.pts >= 0) {
        auto it = std::find_if(pts_.begin(), pts_.end(), [id](const auto& e) { return e.first == id; });
        if (it == pts_.end()) it = pts_.insert(pts_.end(), {id, {}});
        it->second.push_back(get_stamp(p + s.pts));
    }
}

void FileFacts::finish(const SlotClock& fallback) {
    tl_.fallback_num = static_cast<int64_t>(fallback.num), tl_.fallback_den = static_cast<int64_t>(fallback.den);
    span = tl_.at(static_cast<int64_t>(packets)) - tl_.at(0);
    // The presentation span of the stream stamped most often (a video stream,
    // one PES packet a frame; audio often packs several frames in one): from
    // its first to its last time, plus one frame, its smallest step.
    media = 0;
    const auto most = std::max_element(pts_.begin(), pts_.end(),
                                       [](const auto& a, const auto& b) { return a.second.size() < b.second.size(); });
    if (most != pts_.end()) {
        const std::vector<int64_t>& v = most->second;
        std::vector<int64_t> u;  // relative to the first, across the wrap
        for (const int64_t x : v) u.push_back(wrap_diff(x, v[0], kPtsWrap));
        std::sort(u.begin(), u.end());
        u.erase(std::unique(u.begin(), u.end()), u.end());
        int64_t step = 0;
        for (size_t i = 1; i < u.size(); ++i) step = i == 1 ? u[1] - u[0] : std::min(step, u[i] - u[i - 1]);
        if (u.size() >= 2) media = (u.back() - u.front() + step) * 300;
    }
    duration = std::max(span, media);
    duration = (duration + 299) / 300 * 300;
}

unsigned Looper::shift(unsigned id) const {
    const FileFacts::Counter& c = facts->counters[id];
    if (c.last < 0) return 0;
    const int64_t step = c.last - c.first + (c.first_payload ? 1 : 0);
    return static_cast<unsigned>(mod(step * loop, 16));
}

void Looper::apply(uint8_t* p) const {
    if (loop == 0 || pid(p) == kNullPid) return;
    set_cc(p, cc(p) + shift(pid(p)));
    const int64_t by = loop * facts->duration;
    if (has_pcr(p)) set_pcr(p, get_pcr(p) + by);
    const Stamps s = pes_stamps(p);
    if (s.pts >= 0) set_stamp(p + s.pts, get_stamp(p + s.pts) + by / 300);
    if (s.dts >= 0) set_stamp(p + s.dts, get_stamp(p + s.dts) + by / 300);
}

}  // namespace tstiming
