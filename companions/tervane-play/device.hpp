// The SoapySDR transmitter: opened and set up as the settings ask, its
// stream in the device's native format, closed on every way out.
#pragma once

#include <SoapySDR/Device.hpp>
#include <atomic>
#include <string>

#include "samples.hpp"
#include "settings.hpp"

namespace play {

struct Device {
    SoapySDR::Device* dev = nullptr;
    SoapySDR::Stream* stream = nullptr;
    bool active = false;
    Format format;
    size_t mtu = 0;  // samples a write takes at most

    Device() = default;
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;
    ~Device() { close(); }
    // Deactivates and closes the stream and releases the device; quiet.
    void close();
};

// Underflows the driver has logged ("U" markers), counted by the log handler
// that device_open installs.
extern std::atomic<long> g_log_underflows;

// Opens the device and sets it up: the sample rate (refused unless the device
// gives it within 1 ppm), the filter after it, antenna, gains, frequency, and
// the stream in the native format. Any failure closes the device and ends
// the process with status 3, naming the step.
void device_open(Device& d, const Settings& s);

}  // namespace play
