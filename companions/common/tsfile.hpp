// Transport streams from files and pipes for the timing layer: reading through
// the packet sync, the warnings for what it skipped, a file's schedule tried
// before anything is sent, and the schedule run over a file played N times.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>

#include "tstiming.hpp"

namespace tstiming {

// Passes a dry run makes over a looped file: enough for the schedule to repeat.
inline constexpr long kDryLoops = 3;

// Reads the input through the packet sync, calling take(packet) for each: a
// file opened afresh, or standard input ("-") as it comes. Fails (status 1)
// when it is not a transport stream: no packet sync in its first MiB, or none
// at all.
void read_packets(const std::string& name, Sync& sync, const std::function<void(const uint8_t*)>& take);

// A warning on standard error for each stretch of bytes the sync skipped.
void warn_skipped(const Sync& sync);

// The scheduler's configuration for a file whose facts are known (checked
// beforehand, so nothing is dropped), or for a pipe (facts null).
Config file_config(Rate rate, const FileFacts* facts);

// Runs the schedule over the input (a file `plays` times, 0 for without end,
// each pass through its looper) and hands each output packet to
// put(packet, scheduler); returns the bytes skipped in the first pass.
template <typename Put>
uint64_t run_schedule(const std::string& name, Scheduler& sch, const FileFacts* facts, long plays, Put&& put) {
    Packet o;
    const auto drain = [&] {
        while (sch.pull(o) == Pull::packet) put(o, sch);
    };
    uint64_t skipped = 0;
    for (long j = 0; plays == 0 || j < plays; ++j) {
        const Looper looper{facts, j};
        Sync sync;
        Packet p;
        read_packets(name, sync, [&](const uint8_t* q) {
            std::memcpy(p.data(), q, kPacket);
            if (facts != nullptr) looper.apply(p.data());
            sch.push(p.data());
            drain();
        });
        if (j == 0 && facts == nullptr) warn_skipped(sync);
        if (j == 0) skipped = sync.skipped;
    }
    sch.end();
    drain();
    return skipped;
}

// A file to be played `loops` times (0: without end) at the channel's rate:
// its facts read, its skipped bytes warned about, and its schedule tried in a
// dry run. Fails (status 1), naming both rates, when the channel cannot carry
// it; `channel` describes the channel in that message.
FileFacts check_file(const std::string& name, Rate rate, long loops, const std::string& channel);

// The channel the parameters describe, in words: mode, constellation, code
// rates, guard interval and spacing.
std::string describe_channel(const dvbt_parms_t& p);

}  // namespace tstiming
