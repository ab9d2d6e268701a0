// Shortened RS(204,188) coder: each packet is coded as an RS(255,239) block
// with 51 implied leading zero bytes, which are then dropped.
#include "outer/outer_coder.hpp"

#include "frame/print.hpp"
#include "outer/rs.hpp"
#include "vectors/written.hpp"

namespace {

constexpr uint32_t PKT_IN = TS_PACKET;
constexpr uint32_t PKT_OUT = RS_PACKET;
constexpr uint32_t NPAR = RS_PACKET - TS_PACKET;
constexpr uint32_t GROUP = 4;  // packets coded together

// Packets that cross the end of the input ring, copied out whole.
uint8_t scratch[GROUP][PKT_IN];

}  // namespace

uint32_t rs_short204188(dvbVect* in, dvbVect* out, uint32_t maxlen, FILE* dump) {
    if (in->fill == 0 || out->fill == out->len) return 0;

    const uint32_t npkt = dvbRingUnits(in, PKT_IN, out, PKT_OUT, maxlen, PKT_IN);
    uint32_t r = in->head;
    const uint32_t w0 = dvbRingWritePos(out);
    uint32_t w = w0;

    for (uint32_t p = 0; p < npkt; p += GROUP) {
        const uint32_t m = npkt - p < GROUP ? npkt - p : GROUP;
        const uint8_t* pkt[GROUP];
        uint8_t parity[GROUP][NPAR];
        for (uint32_t k = 0; k < m; k++) {
            pkt[k] = static_cast<const uint8_t*>(dvbRingView(in, r, PKT_IN, scratch[k]));
            r = dvbRingAdvance(r, PKT_IN, in->len);
        }
        rs_parity188(pkt, m, parity);
        for (uint32_t k = 0; k < m; k++) {
            w = dvbRingPut(out, w, pkt[k], PKT_IN);
            w = dvbRingPut(out, w, parity[k], NPAR);
        }
    }

    const uint32_t consumed = PKT_IN * npkt;
    checked_ring_write(out, w0, PKT_OUT * npkt, dump);
    dvbRingConsume(in, consumed);
    out->fill += PKT_OUT * npkt;
    dvbMsgPrint(4, "Outer_coder : %d samples\n", static_cast<int>(consumed));
    return consumed;
}
