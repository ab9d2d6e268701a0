// The player's settings: its own options beside tervane's, read and checked.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace play {

inline constexpr int kDeviceError = 3;  // exit status of every device failure

struct Settings {
    std::string dev;  // SoapySDR device arguments
    std::optional<double> fc, gain, bw, limit;
    double lo = 0, backoff = 12, buf = 0.5;
    double stall = 2;                                   // seconds the device may take no sample before the run ends
    std::vector<std::pair<std::string, double>> gains;  // -ge NAME=DB, in order
    std::string ant;
    long loops = 1;            // plays of the input in all; 0 for no end
    std::string play;          // -play: the file of samples
    bool agi = false;          // -play: big-endian 16-bit I/Q codes
    double rate = 0;           // the device's sample rate
    double L = 1;              // the interpolation factor of the samples
    uint32_t requested_M = 0;  // the constellation asked for, before a hierarchical QPSK becomes 16-QAM
};

// Reads the command line (tervane's options into its own settings, as tervane
// does, the player's into the record), prints the help or the version and
// ends there when asked, and checks the values; any error ends the process
// with status 1. For -play, the format and rate come from the file's SigMF
// metadata when it has some.
Settings read_settings(int argc, char** argv);

}  // namespace play
