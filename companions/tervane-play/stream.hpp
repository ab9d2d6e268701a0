// The writer: the device's stream fed from the ring in real time, its
// underflows and late deliveries counted, a status line once a second, and
// the summary at the end.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "device.hpp"
#include "producer.hpp"
#include "samples.hpp"

namespace play {

using Clock = std::chrono::steady_clock;

struct Stats {
    uint64_t samples = 0;  // sent to the device
    long status_underflows = 0, late = 0;
    double peak = 0, power = 0;  // of the I/Q values sent, relative to full scale
    Clock::time_point start = Clock::now(), end = start;
};

// SIGINT, SIGTERM and SIGHUP end the run cleanly: installed before any thread starts.
void install_signal_handlers();

// Waits for the ring to fill, then streams from it until the producer is
// done, to_send samples have gone or a signal came, ends the burst and waits
// until the device has played it out; after a signal, all of that within
// about a second. Returns the stream's failure, if any: an error of the
// driver (a device lost), or a device that took no sample for the stall time.
std::string stream(Device& d, Ring& ring, const Converter& conv, const Settings& s, uint64_t to_send, Stats& st);

// The summary line on standard output.
void print_summary(const Stats& st, const Converter& conv, const Producer& prod);

}  // namespace play
