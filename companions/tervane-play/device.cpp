#include "device.hpp"

#include <SoapySDR/Errors.hpp>
#include <SoapySDR/Formats.hpp>
#include <SoapySDR/Logger.hpp>
#include <cmath>
#include <cstdio>
#include <vector>

#include "companion.hpp"

namespace play {

std::atomic<long> g_log_underflows{0};

namespace {

// The highest master clock the common SDRs run at (the LMS7002M's and the
// AD936x's 61.44 MHz): the refused-rate message suggests a multiple of the
// rate up to it.
constexpr double kHighestMasterClock = 61.44e6;

// Driver messages: "U" markers are underflows; warnings and worse go to stderr.
void on_log(const SoapySDRLogLevel level, const char* message) {
    if (level == SOAPY_SDR_SSI) {
        for (const char* c = message; *c != '\0'; ++c)
            if (*c == 'U') g_log_underflows.fetch_add(1);
        return;
    }
    if (level <= SOAPY_SDR_WARNING) std::fprintf(stderr, "%s: [driver] %s\n", companion::prog(), message);
}

[[noreturn]] void fail(Device& d, const char* what, const std::string& why) {
    d.close();
    companion::fail_status(kDeviceError, "%s: %s", what, why.c_str());
}

}  // namespace

void Device::close() {
    try {
        if (active) dev->deactivateStream(stream);
        if (stream != nullptr) dev->closeStream(stream);
    } catch (const std::exception&) {}
    active = false;
    stream = nullptr;
    if (dev != nullptr) SoapySDR::Device::unmake(dev);
    dev = nullptr;
}

void device_open(Device& d, const Settings& s) {
    SoapySDR::registerLogHandler(&on_log);
    try {
        d.dev = SoapySDR::Device::make(s.dev);
    } catch (const std::exception& e) {
        companion::fail_status(kDeviceError, "can't open the device \"%s\": %s", s.dev.c_str(), e.what());
    }
    const char* step = "setting the sample rate";
    try {
        d.dev->setSampleRate(SOAPY_SDR_TX, 0, s.rate);
        const double got = d.dev->getSampleRate(SOAPY_SDR_TX, 0);
        if (std::fabs(got - s.rate) > 1e-6 * s.rate) {
            d.close();
            companion::fail_status(kDeviceError,
                                   "the device gave %.3f Hz for the %.3f Hz asked (%.1f ppm off, more than 1 ppm): "
                                   "try another interpolation (-I 1x, 2x or 4x) or, on a device that has one, "
                                   "a master clock in -dev that the rate divides (e.g. master_clock_rate=%.3f)",
                                   got, s.rate, (got - s.rate) / s.rate * 1e6,
                                   s.rate * std::max(1.0, std::floor(kHighestMasterClock / s.rate)));
        }
        step = "setting the bandwidth";
        if (s.bw) d.dev->setBandwidth(SOAPY_SDR_TX, 0, *s.bw);
        step = "setting the antenna";
        if (!s.ant.empty()) d.dev->setAntenna(SOAPY_SDR_TX, 0, s.ant);
        step = "setting the gain";
        if (s.gain) d.dev->setGain(SOAPY_SDR_TX, 0, *s.gain);
        for (const auto& [name, db] : s.gains) d.dev->setGain(SOAPY_SDR_TX, 0, name, db);
        step = "tuning";
        if (s.fc) d.dev->setFrequency(SOAPY_SDR_TX, 0, *s.fc + s.lo);
        step = "setting up the stream";
        double fs = 0;
        const std::string native = d.dev->getNativeStreamFormat(SOAPY_SDR_TX, 0, fs);
        d.format = Format::make(native, fs);
        d.stream = d.dev->setupStream(SOAPY_SDR_TX, d.format.name, std::vector<size_t>{0});
    } catch (const std::exception& e) {
        fail(d, step, e.what());
    }
    try {
        d.mtu = d.dev->getStreamMTU(d.stream);
    } catch (const std::exception&) {}
    if (d.mtu == 0) d.mtu = 8192;
}

}  // namespace play
