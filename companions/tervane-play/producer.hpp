// The producer thread: the transmitter's chain run live on transport streams,
// or a finished output played back, converted into the ring of device samples.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "samples.hpp"
#include "settings.hpp"
#include "tstiming.hpp"

namespace play {

// The transport stream source of one branch, re-paced onto the branch's useful
// rate by the timing layer: a file played a number of times (its facts read
// and its schedule checked beforehand), or standard input, timed by its
// arrival on the device's clock.
struct Source {
    FILE* fp = nullptr;
    std::string name;
    bool live = false;  // standard input
    tstiming::FileFacts facts;
    std::unique_ptr<tstiming::Scheduler> sched;
    tstiming::Sync sync;
    long pass = 0;              // the pass over the file being read
    bool ended = false;         // the input has ended: the scheduler has all of it
    bool done = false;          // and everything has gone into the chain
    size_t stretches_told = 0;  // stretches of skipped bytes warned about
    bool told_dropped = false;
};

// What the producer reads: the chain's sources (one, or HP and LP), or the
// samples to play back (a file, or standard input when play_live).
struct Inputs {
    std::vector<Source> sources;
    FILE* play = nullptr;
    bool play_live = false;

    Inputs() = default;
    Inputs(const Inputs&) = delete;
    Inputs& operator=(const Inputs&) = delete;
    ~Inputs();
};

// Opens and checks the inputs before the device is touched, and for live
// mode creates the chain; any error ends the process with status 1.
void open_inputs(const Settings& s, Inputs& in);

// The scale from the chain's samples to the device's: the nominal complex RMS
// of the mode's signal (sqrt(2) times its reference amplitude, over the
// interpolation factor) goes to -backoff dB of full scale.
double level_scale(const Settings& s, double fullscale);

class Producer {
public:
    Producer(const Settings& s, Inputs& in, Ring& ring, Converter& conv, size_t elem)
        : s_(s), in_(in), ring_(ring), conv_(conv), elem_(elem) {}
    std::atomic<long> nulls{0}, loops{0}, dropped{0};
    std::atomic<uint64_t> skipped{0};  // bytes of standard input that were not transport stream packets
    // Why the input could not be played (it is not a transport stream), for
    // the main thread once the producer has finished; empty when it could.
    std::string error;
    std::atomic<uint64_t> limit{UINT64_MAX};  // samples the writer can still take in all

    // Produces until the inputs end, the limit is reached or the ring is stopped;
    // then finishes the ring.
    void run();

private:
    void run_live();
    void run_playback();
    bool feed(Source& src, dvbVect* in);
    bool read_file(Source& src);
    bool read_live(Source& src);
    void count(Source& src);
    size_t read_samples(uint8_t* dst, size_t bytes);

    const Settings& s_;
    Inputs& in_;
    Ring& ring_;
    Converter& conv_;
    size_t elem_;
};

}  // namespace play
