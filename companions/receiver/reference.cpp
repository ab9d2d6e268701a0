// Placing decoded packets in the stream sent and counting their bit errors.
#include "receiver/reference.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "receiver/rs.hpp"

namespace rx {

struct Reference {
    std::vector<uint8_t> bytes;
    uint32_t packets = 0;
    // Packets by their bytes after the sync byte.
    std::unordered_multimap<std::string_view, uint32_t> index;
    bool placed = false;
    uint32_t last = 0;
    ReferenceCounts counts;
    // Positions in the decoder's output of the bit errors not yet counted in
    // events, and of the last error counted.
    std::vector<uint64_t> pending;
    int64_t last_error = -1;
};

void ReferenceDeleter::operator()(Reference* r) const { delete r; }

namespace {

std::string_view body(const uint8_t* packet) { return {reinterpret_cast<const char*>(packet) + 1, rs_k - 1}; }

// Counts the events of the pending errors before position bound (all with
// bound < 0) and keeps the others.
void count_events(Reference& r, int64_t bound) {
    std::sort(r.pending.begin(), r.pending.end());
    size_t k = 0;
    for (; k < r.pending.size() && (bound < 0 || r.pending[k] < static_cast<uint64_t>(bound)); k++) {
        const auto v = static_cast<int64_t>(r.pending[k]);
        if (r.last_error < 0 || v - r.last_error >= static_cast<int64_t>(event_gap)) r.counts.events++;
        r.last_error = v;
    }
    r.pending.erase(r.pending.begin(), r.pending.begin() + static_cast<ptrdiff_t>(k));
}

}  // namespace

ReferencePtr reference_create(std::span<const uint8_t> ts) {
    ReferencePtr r(new Reference);
    r->packets = static_cast<uint32_t>(std::min<size_t>(ts.size() / rs_k, UINT32_MAX));
    r->bytes.assign(ts.begin(), ts.begin() + static_cast<ptrdiff_t>(size_t{r->packets} * rs_k));
    r->index.reserve(r->packets);
    for (uint32_t i = 0; i < r->packets; i++) r->index.emplace(body(r->bytes.data() + size_t{i} * rs_k), i);
    return r;
}

int reference_compare(Reference& r, const Packet& p) {
    const bool next_exists = r.placed && r.last + 1 < r.packets;
    const uint32_t next = r.placed ? r.last + 1 : 0;
    int64_t at = -1;
    if (p.ok && p.ts.size() == rs_k) {
        const std::string_view key = body(p.ts.data());
        if (next_exists && body(r.bytes.data() + size_t{next} * rs_k) == key) {
            at = next;
        } else {
            // The first match after the expected place, else the first of all.
            int64_t after = -1;
            auto [b, e] = r.index.equal_range(key);
            for (auto it = b; it != e; ++it) {
                const int64_t i = it->second;
                if (i >= next && (after < 0 || i < after)) after = i;
                if (at < 0 || i < at) at = i;
            }
            if (after >= 0) at = after;
        }
    } else if (next_exists) {
        at = next;
    }
    if (at < 0 || p.coded.size() != rs_n) {
        r.counts.unplaced++;
        return -1;
    }
    r.placed = true;
    r.last = static_cast<uint32_t>(at);
    std::array<uint8_t, 204> sent;
    std::copy_n(r.bytes.begin() + at * rs_k, rs_k, sent.begin());
    sent[0] = 0x47;
    disperse(std::span<uint8_t, 188>(sent.data(), rs_k), static_cast<uint32_t>(at % 8));
    rs_encode(std::span<const uint8_t, 188>(sent.data(), rs_k), std::span<uint8_t, 16>(sent.data() + rs_k, 16));
    // Byte i of a codeword passes branch i mod 12 of the outer interleaver,
    // which delays it by (i mod 12) x 204 bytes: its place in the decoder's output.
    int errors = 0;
    for (uint32_t i = 0; i < rs_n; i++) {
        const unsigned diff = sent[i] ^ p.coded[i];
        if (diff == 0) continue;
        errors += std::popcount(diff);
        const uint64_t byte = static_cast<uint64_t>(at) * rs_n + i + (i % 12) * rs_n;
        for (int b = 0; b < 8; b++)
            if ((diff >> (7 - b)) & 1u) r.pending.push_back(8 * byte + static_cast<uint64_t>(b));
    }
    // Packets that come later in order place their errors after this one's
    // start: the errors before it are final (a margin of twelve packets
    // leaves room for a packet placed again, as a repeat may be).
    count_events(r, 8 * (static_cast<int64_t>(at) * rs_n - 12 * int64_t{rs_n}));
    r.counts.packets++;
    r.counts.bits += 8 * rs_n;
    r.counts.errors += static_cast<uint64_t>(errors);
    return errors;
}

const ReferenceCounts& reference_counts(Reference& r) {
    count_events(r, -1);
    return r.counts;
}

}  // namespace rx
