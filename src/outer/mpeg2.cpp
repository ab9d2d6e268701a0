// Transport stream file input: raw bytes into the stream's input ring.
#include "outer/mpeg2.hpp"

#include "frame/print.hpp"

uint32_t read_mpeg(FILE* fp, dvbVect* ts, uint32_t maxlen) {
    if (ts->fill == ts->len) return 0;
    uint32_t n = dvbRingFree(ts);
    if (maxlen < n) n = maxlen;
    size_t count = 0;
    if (n > 0 && fp != nullptr) {
        const uint32_t w = dvbRingWritePos(ts);
        const uint32_t first = ts->len - w < n ? ts->len - w : n;
        count = std::fread(dvbBytes(ts) + w, 1, first, fp);
        // The second piece is read even when the first came back short.
        if (n > first) count += std::fread(dvbBytes(ts), 1, n - first, fp);
    }
    ts->fill += static_cast<uint32_t>(count);
    dvbMsgPrint(4, "MPEG-2_read : %d samples\n", static_cast<int>(count));
    return static_cast<uint32_t>(count);
}
