// Energy dispersal: the transport stream bytes are XORed with the dispersal
// sequence, the first sync byte of every group of 8 packets is inverted and the
// other sync bytes pass unchanged while the sequence runs on.
#include "outer/energy.hpp"

#include <algorithm>
#include <cstring>

#include "frame/print.hpp"
#include "vectors/written.hpp"

namespace {

// dst[i] = src[i] ^ seq[i] for n bytes, eight at a time.
void xor_run(uint8_t* dst, const uint8_t* src, const uint8_t* seq, uint32_t n) {
    uint32_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t x, m;
        std::memcpy(&x, src + i, 8);
        std::memcpy(&m, seq + i, 8);
        x ^= m;
        std::memcpy(dst + i, &x, 8);
    }
    for (; i < n; i++) dst[i] = static_cast<uint8_t>(src[i] ^ seq[i]);
}

// Processes n bytes; the group position p lives in q->head. Position 0 of the
// group is inverted, the other packet starts pass unchanged, and every other
// byte is XORed with the sequence: the bytes between two packet starts go as
// one run (split where a ring ends).
void disperse(dvbVect* in, dvbVect* out, dvbVect* q, uint32_t plen, uint32_t period, uint32_t n, FILE* dump) {
    const uint8_t* src = dvbBytes(in);
    uint8_t* dst = dvbBytes(out);
    const uint8_t* seq = dvbBytes(q);
    uint32_t r = in->head;
    uint32_t w = dvbRingWritePos(out);
    const uint32_t w0 = w;
    uint32_t p = q->head;
    uint32_t k = p % plen;
    for (uint32_t done = 0; done < n;) {
        uint32_t run = 1;
        if (p == 0) {
            dst[w] = static_cast<uint8_t>(~src[r]);
        } else if (k == 0) {
            dst[w] = src[r];
        } else {
            run = std::min({plen - k, period - p, n - done, in->len - r, out->len - w});
            xor_run(dst + w, src + r, seq + p - 1, run);
        }
        done += run;
        p += run;
        k += run;
        r += run;
        w += run;
        if (p == period) p = 0;
        if (k == plen) k = 0;
        if (r == in->len) r = 0;
        if (w == out->len) w = 0;
    }
    q->head = p;
    checked_ring_write(out, w0, n, dump);
    dvbRingConsume(in, n);
    out->fill += n;
}

}  // namespace

int32_t energy_inv(dvbVect* in, dvbVect* out, dvbVect* q, uint32_t maxlen, FILE* dump) {
    if (in->fill == 0 || out->fill == out->len) return 0;
    const uint32_t n = dvbRingUnits(in, 1, out, 1, maxlen, 1);
    disperse(in, out, q, ED_PACKET, ED_GROUP, n, dump);
    dvbMsgPrint(4, "Energy+Inv. : %d samples\n", static_cast<int>(n));
    return static_cast<int32_t>(n);
}

unsigned dvbTSDisperdInvert(dvbVect* in, dvbVect* out, dvbVect* q, uint32_t plen, uint32_t period, uint32_t maxlen,
                            const char* label, FILE* dump, uint32_t* count) {
    // The sequence must cover every position of the period but the first.
    if (in->fill == 0 || out->fill == out->len || plen == 0 || period == 0 || period - 1 > q->len) {
        *count = 0;
        return 1;
    }
    const uint32_t n = dvbRingUnits(in, 1, out, 1, maxlen, 1);
    disperse(in, out, q, plen, period, n, dump);
    dvbMsgPrint(4, "%s => process : %d samples\n", label, static_cast<int>(n));
    *count = n;
    return 0;
}
