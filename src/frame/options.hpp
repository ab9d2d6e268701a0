// The transmitter's command line: its 25 options, the settings they fill and
// their defaults, for the transmitter and for the companions that take its
// options with the same spellings and meanings.
#pragma once

#include <array>
#include <cstdint>

#include "frame/getopts.hpp"

inline constexpr uint16_t TERVANE_NOPTS = 25;

// The option table, with targets in the settings of params.hpp; -v fills
// *verbosity_arg, a 32-bit value that the caller narrows to the verbosity.
std::array<dvbOption, TERVANE_NOPTS> tervane_options(int32_t* verbosity_arg);
