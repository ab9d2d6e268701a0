// Processor time (user plus system) of the process, in microseconds held on 32 bits.
#include "frame/time.hpp"

#include <sys/resource.h>

#include <cstdint>

namespace {

uint32_t timeclocks = 0;

uint32_t usage_micros() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    const auto sec = static_cast<uint32_t>(ru.ru_utime.tv_sec) + static_cast<uint32_t>(ru.ru_stime.tv_sec);
    const auto usec = static_cast<uint32_t>(ru.ru_utime.tv_usec) + static_cast<uint32_t>(ru.ru_stime.tv_usec);
    return sec * 1000000u + usec;
}

}  // namespace

double dvbTic() {
    timeclocks = usage_micros();
    return 0.0;
}

double dvbToc() {
    const uint32_t diff = usage_micros() - timeclocks;
    return static_cast<double>(static_cast<float>(diff) / 1000000.0f);
}
