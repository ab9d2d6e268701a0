// tervane-play: streams a DVB-T signal to an SDR transmitter through SoapySDR.
//
// Live mode runs the transmitter's chain in-process on a transport stream (a
// file, looped on request, or standard input, where null packets fill in when
// nothing is waiting) and sends its samples in real time. Playback mode (-play)
// sends a finished tervane output. Either way the samples are scaled so that
// their nominal complex RMS sits -bo dB below the device's full scale and
// converted here to the device's native format (samples.hpp).
//
// Threads: a producer runs the chain (single-threaded, as always) into a ring
// of device-format samples of -buf seconds, filled before the stream starts;
// the main thread owns the device stream and writes from that ring.
#include <cmath>
#include <cstdio>
#include <thread>

#include "companion.hpp"
#include "device.hpp"
#include "producer.hpp"
#include "settings.hpp"
#include "stream.hpp"

int main(int argc, char** argv) {
    companion::start("tervane-play");
    play::install_signal_handlers();
    const play::Settings s = play::read_settings(argc, argv);
    play::Inputs in;
    play::open_inputs(s, in);

    play::Device d;
    play::device_open(d, s);
    std::fprintf(stderr, "%s: %s, %s full scale %g, %.3f Hz, back-off %.1f dB\n", companion::prog(),
                 d.dev->getHardwareKey().c_str(), d.format.name.c_str(), d.format.fullscale, s.rate, s.backoff);

    play::Ring ring(std::max<size_t>(static_cast<size_t>(std::ceil(s.buf * s.rate)), d.mtu), d.format.size);
    play::Converter conv(d.format, play::level_scale(s, d.format.fullscale), s.lo, s.rate);
    play::Producer prod(s, in, ring, conv, d.format.size);
    const uint64_t to_send = s.limit ? static_cast<uint64_t>(std::llround(*s.limit * s.rate)) : UINT64_MAX;
    prod.limit = to_send;
    std::thread producer([&] { prod.run(); });

    play::Stats st;
    const std::string failure = play::stream(d, ring, conv, s, to_send, st);
    ring.stop();
    producer.join();
    d.close();
    if (!prod.error.empty()) companion::fail("%s", prod.error.c_str());
    play::print_summary(st, conv, prod);
    if (!failure.empty()) companion::fail_status(play::kDeviceError, "stream failure: %s", failure.c_str());
    return 0;
}
