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
};

void ReferenceDeleter::operator()(Reference* r) const { delete r; }

namespace {

std::string_view body(const uint8_t* packet) { return {reinterpret_cast<const char*>(packet) + 1, rs_k - 1}; }

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
    int errors = 0;
    for (uint32_t i = 0; i < rs_n; i++) errors += std::popcount(static_cast<unsigned>(sent[i] ^ p.coded[i]));
    r.counts.packets++;
    r.counts.bits += 8 * rs_n;
    r.counts.errors += static_cast<uint64_t>(errors);
    return errors;
}

const ReferenceCounts& reference_counts(const Reference& r) { return r.counts; }

}  // namespace rx
