// Shortened RS(204,188) coder: each packet is coded as an RS(255,239) block
// with 51 implied leading zero bytes, which are then dropped.
#include "outer/outer_coder.hpp"

#include "frame/print.hpp"
#include "outer/rs.hpp"

namespace {

constexpr uint32_t PKT_IN = 188;
constexpr uint32_t PKT_OUT = 204;
constexpr uint32_t NPAR = 16;

// One block: bytes 0..187 the packet in reverse order, 188..238 always zero,
// 239..254 the parity.
uint8_t codeword[255];

}  // namespace

uint32_t rs_short204188(dvbVect* in, dvbVect* out, uint32_t maxlen, FILE* dump) {
    if (in->fill == 0 || out->fill == out->len) return 0;

    const uint32_t npkt = dvbRingUnits(in, PKT_IN, out, PKT_OUT, maxlen, PKT_IN);
    uint32_t r = in->head;
    uint32_t w = dvbRingWritePos(out);
    uint8_t pkt[PKT_OUT];

    for (uint32_t p = 0; p < npkt; p++) {
        r = dvbRingGet(in, r, pkt, PKT_IN);
        for (uint32_t k = 0; k < PKT_IN; k++) codeword[PKT_IN - 1 - k] = pkt[k];
        encode_rs(codeword, codeword + 239);
        for (uint32_t m = 0; m < NPAR; m++) pkt[PKT_IN + m] = codeword[254 - m];
        w = dvbRingPut(out, w, pkt, PKT_OUT);
        if (dump != nullptr) std::fwrite(pkt, 1, PKT_OUT, dump);
    }

    const uint32_t consumed = PKT_IN * npkt;
    dvbRingConsume(in, consumed);
    out->fill += PKT_OUT * npkt;
    dvbMsgPrint(4, "Outer_coder : %d samples\n", static_cast<int>(consumed));
    return consumed;
}
