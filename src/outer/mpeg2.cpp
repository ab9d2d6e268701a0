// Transport stream file input: raw bytes into the stream's input ring.
#include "outer/mpeg2.hpp"

#include "frame/print.hpp"

uint32_t read_mpeg(FILE* fp, dvbVect* ts, uint32_t maxlen) {
    if (ts->fill == ts->len) return 0;
    const uint32_t n = dvbRingUnits(nullptr, 1, ts, 1, maxlen, 1);
    const size_t count = n > 0 && fp != nullptr ? dvbRingRead(fp, ts, dvbRingWritePos(ts), n) : 0;
    ts->fill += static_cast<uint32_t>(count);
    dvbMsgPrint(4, "MPEG-2_read : %d samples\n", static_cast<int>(count));
    return static_cast<uint32_t>(count);
}
