// tervanefake: a SoapySDR TX device module without hardware, for testing tervane-play through
// the real SoapySDR library. It records what the client wrote, consumes the samples in real
// time like a device with a fixed buffer, and reports underflows, injected or real.
//
// Device arguments, all optional (find echoes them all back: the factory caches devices by them):
//   record=PATH          every sample accepted, byte for byte in the stream's format, in order;
//                        the figures of listSensors() also go to PATH + ".status" at closeStream
//                        and at destruction, one "name=value" line each, in listSensors() order
//   native=CF32|CS16|CS8 (CS16) and fullscale=X (32768 CS16, 128 CS8, 1.0 CF32): the native format
//   master_clock=HZ      rates are master_clock / n for integer n >= 1, the nearest taken silently
//   rate_max=HZ          (61.44e6) higher rates are clamped to it
//   pace=1|0             (1) consume samples in real time from a buffer of buffer=N (65536)
//                        samples, draining from activateStream; 0: writes complete at once
//   underflow_at=N       inject one underflow when the count of samples written reaches N
//   underflow_report=status|write|none (status): how underflows are reported: readStreamStatus
//                        returns UNDERFLOW once, or the next writeStream returns UNDERFLOW having
//                        taken nothing, or only the "underflows" sensor counts it
//   status_supported=1|0 (1) 0: readStreamStatus returns NOT_SUPPORTED
//   log_underflow=1|0    (0) log "U" at SSI level for the injected underflow too (real ones always)
//   stall_at=N           once N samples are written the device stops playing: its buffer stays
//                        full, writes time out, and a burst is never played out
//   lose_at=N            once N samples are written the device is lost: every write and status
//                        read fails with SOAPY_SDR_STREAM_ERROR, after an error in the log
//   gains=NAME:MAX/...   (PA:14/VGA:47) the gain elements, RF first, each from 0 to MAX dB
//   antennas=NAME/...    (TX) the antennas, the first one selected
//   fail=make            the factory throws
#include <SoapySDR/Device.hpp>
#include <SoapySDR/Formats.hpp>
#include <SoapySDR/Logger.hpp>
#include <SoapySDR/Registry.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Lock = std::lock_guard<std::mutex>;
using SoapySDR::Kwargs;
constexpr size_t kMtu = 16384;
constexpr const char* kDriver = "tervanefake";

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(std::string(kDriver) + ": " + what); }

std::string arg(const Kwargs& args, const std::string& key, const std::string& fallback) {
    const auto it = args.find(key);
    return it == args.end() ? fallback : it->second;
}

double number(const Kwargs& args, const std::string& key, double fallback) {
    const std::string text = arg(args, key, "");
    if (text.empty()) return fallback;
    size_t used = 0;
    double value = 0;
    try {
        value = std::stod(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != text.size() || !std::isfinite(value) || value < 0) fail("bad value for " + key + ": " + text);
    return value;
}

std::string show(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

void check(int dir, size_t ch) {
    if (dir != SOAPY_SDR_TX || ch != 0) fail("TX channel 0 only");
}

// The words of a "/"-separated list.
std::vector<std::string> words(const std::string& text) {
    std::vector<std::string> out;
    for (size_t p = 0; p <= text.size();) {
        const size_t e = std::min(text.find('/', p), text.size());
        out.push_back(text.substr(p, e - p));
        p = e + 1;
    }
    return out;
}

struct Gain {
    std::string name;
    double max, value = 0;
};

void checkRf(const std::string& name) {
    if (name != "RF") fail("no frequency element " + name);
}

class FakeDevice : public SoapySDR::Device {
public:
    explicit FakeDevice(const Kwargs& args)
        : native_(arg(args, "native", "CS16")),
          masterClock_(number(args, "master_clock", 0)),
          rateMax_(number(args, "rate_max", 61.44e6)),
          capacity_(number(args, "buffer", 65536)),
          underflowAt_(number(args, "underflow_at", -1)),
          stallAt_(number(args, "stall_at", -1)),
          loseAt_(number(args, "lose_at", -1)),
          report_(arg(args, "underflow_report", "status")),
          recordPath_(arg(args, "record", "")),
          pace_(arg(args, "pace", "1") != "0"),
          statusSupported_(arg(args, "status_supported", "1") != "0"),
          logInjected_(arg(args, "log_underflow", "0") == "1"),
          antennas_(words(arg(args, "antennas", "TX"))),
          antenna_(antennas_.front()) {
        for (const std::string& g : words(arg(args, "gains", "PA:14/VGA:47"))) {
            const size_t colon = g.find(':');
            if (colon == std::string::npos) fail("bad gains entry " + g);
            gains_.push_back({g.substr(0, colon), number({{"max", g.substr(colon + 1)}}, "max", 0)});
        }
        if (native_ != "CF32" && native_ != "CS16" && native_ != "CS8") fail("bad native format " + native_);
        fullScale_ = number(args, "fullscale", native_ == "CS16" ? 32768 : native_ == "CS8" ? 128 : 1.0);
        if (report_ != "status" && report_ != "write" && report_ != "none") fail("bad underflow_report " + report_);
        if (capacity_ < 1 || capacity_ > 1e9 || capacity_ != std::floor(capacity_)) fail("bad buffer");
        if (underflowAt_ != std::floor(underflowAt_)) fail("bad underflow_at");
        if (stallAt_ != std::floor(stallAt_) || loseAt_ != std::floor(loseAt_)) fail("bad stall_at or lose_at");
        if (!(rateMax_ > 0)) fail("bad rate_max");
        rate_ = takeRate(1e6);
        if (!recordPath_.empty() && !(record_ = std::fopen(recordPath_.c_str(), "wb")))
            fail("cannot write " + recordPath_);
    }
    ~FakeDevice() override {
        Lock lock(mutex_);
        if (record_) std::fclose(record_);
        writeStatus();
    }

    std::string getDriverKey() const override { return kDriver; }
    std::string getHardwareKey() const override { return kDriver; }
    size_t getNumChannels(const int dir) const override { return dir == SOAPY_SDR_TX ? 1 : 0; }

    std::vector<std::string> getStreamFormats(int dir, size_t ch) const override {
        check(dir, ch);
        return {SOAPY_SDR_CF32, SOAPY_SDR_CS16, SOAPY_SDR_CS8};
    }
    std::string getNativeStreamFormat(int dir, size_t ch, double& fullScale) const override {
        check(dir, ch);
        fullScale = fullScale_;
        return native_;
    }
    SoapySDR::Stream* setupStream(int dir, const std::string& format, const std::vector<size_t>& channels,
                                  const Kwargs&) override {
        check(dir, channels.empty() ? 0 : channels[0]);
        if (channels.size() > 1) fail("one channel only");
        if (format != SOAPY_SDR_CF32 && format != SOAPY_SDR_CS16 && format != SOAPY_SDR_CS8)
            fail("unsupported stream format " + format);
        Lock lock(mutex_);
        if (open_) fail("a stream is already set up");
        open_ = true;
        format_ = format;
        elemSize_ = SoapySDR::formatToSize(format);
        return handle();
    }
    void closeStream(SoapySDR::Stream* stream) override {
        Lock lock(mutex_);
        own(stream);
        drain(Clock::now());
        open_ = active_ = false;
        ++closed_;
        if (record_) std::fflush(record_);
        writeStatus();
        wake_.notify_all();
    }
    size_t getStreamMTU(SoapySDR::Stream* stream) const override {
        Lock lock(mutex_);
        own(stream);
        return kMtu;
    }
    int activateStream(SoapySDR::Stream* stream, const int, const long long, const size_t) override {
        Lock lock(mutex_);
        own(stream);
        active_ = true;
        ++activated_;
        last_ = Clock::now();
        wake_.notify_all();
        return 0;
    }
    int deactivateStream(SoapySDR::Stream* stream, const int, const long long) override {
        Lock lock(mutex_);
        own(stream);
        drain(Clock::now());
        active_ = false;
        level_ = 0;  // what was not played out yet is dropped, as on hardware
        dry_ = true;
        ++deactivated_;
        wake_.notify_all();
        return 0;
    }

    // Takes at most the MTU, and with pacing waits until the buffer has room for the whole
    // of that; numElems 0 with END_BURST just ends the burst.
    int writeStream(SoapySDR::Stream* stream, const void* const* buffs, const size_t numElems, int& flags,
                    const long long, const long timeoutUs) override {
        std::unique_lock<std::mutex> lock(mutex_);
        own(stream);
        const auto deadline = Clock::now() + std::chrono::microseconds(timeoutUs);
        const bool endBurst = flags & SOAPY_SDR_END_BURST;
        flags = 0;
        for (;;) {
            const auto now = Clock::now();
            drain(now);
            inject();
            if (lost()) return SOAPY_SDR_STREAM_ERROR;
            if (writeUnderflows_ > 0) {
                --writeUnderflows_;
                return SOAPY_SDR_UNDERFLOW;
            }
            size_t want = std::min({numElems, kMtu, size_t(capacity_)});
            if (underflowAt_ >= 0 && !injected_) want = size_t(std::min(double(want), underflowAt_ - samples_));
            for (const double at : {stallAt_, loseAt_})
                if (at > samples_) want = size_t(std::min(double(want), at - samples_));
            const double room = capacity_ - level_;
            if ((!pace_ && !stalled()) || room >= double(want)) {
                accept(buffs[0], want, endBurst && want == numElems);
                return int(want);
            }
            if (now >= deadline) return SOAPY_SDR_TIMEOUT;
            auto until = deadline;
            if (active_) until = std::min(until, now + seconds((double(want) - room) / rate_));
            wake_.wait_until(lock, until);
        }
    }

    // Underflows first, then the end of a burst once played out; waits up to timeoutUs for either.
    int readStreamStatus(SoapySDR::Stream* stream, size_t& chanMask, int& flags, long long&,
                         const long timeoutUs) override {
        std::unique_lock<std::mutex> lock(mutex_);
        own(stream);
        if (!statusSupported_) return SOAPY_SDR_NOT_SUPPORTED;
        const auto deadline = Clock::now() + std::chrono::microseconds(timeoutUs);
        for (;;) {
            const auto now = Clock::now();
            drain(now);
            chanMask = 1;
            flags = 0;
            if (lost()) return SOAPY_SDR_STREAM_ERROR;
            if (statusUnderflows_ > 0) {
                --statusUnderflows_;
                return SOAPY_SDR_UNDERFLOW;
            }
            if (playedOut_) {
                playedOut_ = false;
                flags = SOAPY_SDR_END_BURST;
                return 0;
            }
            if (now >= deadline) return SOAPY_SDR_TIMEOUT;
            auto until = deadline;
            if (active_ && pace_ && !dry_) until = std::min(until, now + seconds(level_ / rate_));
            wake_.wait_until(lock, until);
        }
    }

    std::vector<std::string> listAntennas(int dir, size_t ch) const override {
        check(dir, ch);
        return antennas_;
    }
    void setAntenna(int dir, size_t ch, const std::string& name) override {
        check(dir, ch);
        if (std::find(antennas_.begin(), antennas_.end(), name) == antennas_.end()) fail("no antenna " + name);
        Lock lock(mutex_);
        antenna_ = name;
    }
    std::string getAntenna(int dir, size_t ch) const override {
        check(dir, ch);
        Lock lock(mutex_);
        return antenna_;
    }

    std::vector<std::string> listGains(int dir, size_t ch) const override {
        check(dir, ch);
        std::vector<std::string> names;
        for (const Gain& g : gains_) names.push_back(g.name);
        return names;
    }
    // The overall gain goes to the last element (the baseband's) first, what exceeds its range to the one before.
    void setGain(int dir, size_t ch, double value) override {
        check(dir, ch);
        Lock lock(mutex_);
        for (auto g = gains_.rbegin(); g != gains_.rend(); ++g) {
            g->value = std::clamp(value, 0.0, g->max);
            value -= g->value;
        }
    }
    void setGain(int dir, size_t ch, const std::string& name, double value) override {
        check(dir, ch);
        Lock lock(mutex_);
        Gain& g = gains_[gainAt(name)];
        g.value = std::clamp(value, 0.0, g.max);
    }
    double getGain(int dir, size_t ch) const override {
        check(dir, ch);
        Lock lock(mutex_);
        return totalGain();
    }
    double getGain(int dir, size_t ch, const std::string& name) const override {
        check(dir, ch);
        Lock lock(mutex_);
        return gains_[gainAt(name)].value;
    }
    SoapySDR::Range getGainRange(int dir, size_t ch) const override {
        check(dir, ch);
        double top = 0;
        for (const Gain& g : gains_) top += g.max;
        return {0, top};
    }
    SoapySDR::Range getGainRange(int dir, size_t ch, const std::string& name) const override {
        check(dir, ch);
        return {0, gains_[gainAt(name)].max};
    }

    std::vector<std::string> listFrequencies(int dir, size_t ch) const override {
        check(dir, ch);
        return {"RF"};
    }
    void setFrequency(int dir, size_t ch, double hz, const Kwargs&) override {
        check(dir, ch);
        Lock lock(mutex_);
        frequency_ = hz;
    }
    void setFrequency(int dir, size_t ch, const std::string& name, double hz, const Kwargs& args) override {
        checkRf(name);
        setFrequency(dir, ch, hz, args);
    }
    double getFrequency(int dir, size_t ch) const override {
        check(dir, ch);
        Lock lock(mutex_);
        return frequency_;
    }
    double getFrequency(int dir, size_t ch, const std::string& name) const override {
        checkRf(name);
        return getFrequency(dir, ch);
    }
    SoapySDR::RangeList getFrequencyRange(int dir, size_t ch) const override {
        check(dir, ch);
        return {{1e6, 6e9}};
    }
    SoapySDR::RangeList getFrequencyRange(int dir, size_t ch, const std::string& name) const override {
        checkRf(name);
        return getFrequencyRange(dir, ch);
    }

    void setSampleRate(int dir, size_t ch, double rate) override {
        check(dir, ch);
        if (!(rate > 0) || !std::isfinite(rate)) fail("bad rate " + show(rate));
        Lock lock(mutex_);
        drain(Clock::now());
        rate_ = takeRate(rate);
        rateSeq_ = ++seq_;
    }
    double getSampleRate(int dir, size_t ch) const override {
        check(dir, ch);
        Lock lock(mutex_);
        return rate_;
    }
    SoapySDR::RangeList getSampleRateRange(int dir, size_t ch) const override {
        check(dir, ch);
        return {{1, takeRate(rateMax_)}};
    }
    void setBandwidth(int dir, size_t ch, double hz) override {
        check(dir, ch);
        Lock lock(mutex_);
        bandwidth_ = hz;
        bandwidthSeq_ = ++seq_;
    }
    double getBandwidth(int dir, size_t ch) const override {
        check(dir, ch);
        Lock lock(mutex_);
        return bandwidth_;
    }

    // What the device saw.
    using SoapySDR::Device::listSensors;
    using SoapySDR::Device::readSensor;
    std::vector<std::string> listSensors() const override {
        Lock lock(mutex_);
        std::vector<std::string> names;
        for (const auto& [name, value] : figures()) names.push_back(name);
        return names;
    }
    std::string readSensor(const std::string& key) const override {
        Lock lock(mutex_);
        for (const auto& [name, value] : figures())
            if (name == key) return value;
        fail("no sensor " + key);
    }

private:
    static SoapySDR::Stream* handle() { return reinterpret_cast<SoapySDR::Stream*>(&handleTag_); }
    static Clock::duration seconds(double s) {
        return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(std::max(s, 0.0)));
    }
    void own(SoapySDR::Stream* stream) const {
        if (stream != handle() || !open_) fail("not an open stream");
    }
    // The rate taken for the one asked: clamped, then the nearest master_clock / n.
    double takeRate(double rate) const {
        if (masterClock_ <= 0) return std::min(rate, rateMax_);
        return masterClock_ / std::max({1.0, std::round(masterClock_ / rate), std::ceil(masterClock_ / rateMax_)});
    }

    bool stalled() const { return stallAt_ >= 0 && samples_ >= stallAt_; }
    // Lost once lose_at samples are written; says so in the log once.
    bool lost() {
        if (loseAt_ < 0 || samples_ < loseAt_) return false;
        if (!lostLogged_) SoapySDR::log(SOAPY_SDR_ERROR, "tervanefake: device lost (lose_at)");
        lostLogged_ = true;
        return true;
    }
    // Plays the buffer out at the sample rate up to now. Running dry within a burst is an
    // underflow (once per dry spell); after the end of a burst it completes the burst. A
    // stalled device plays nothing: without pacing its buffer counts as full.
    void drain(Clock::time_point now) {
        if (stalled()) {
            if (!pace_) level_ = capacity_;
            last_ = now;
            return;
        }
        if (active_ && pace_ && !dry_) {
            level_ = std::max(level_ - std::chrono::duration<double>(now - last_).count() * rate_, 0.0);
            if (level_ == 0) {
                dry_ = true;
                if (inBurst_) underflow(true);
                else playedOut_ = true;
            }
        }
        last_ = now;
    }
    void underflow(bool log) {
        ++underflows_;
        if (report_ == "status") ++statusUnderflows_;
        if (report_ == "write") ++writeUnderflows_;
        if (log) SoapySDR::log(SOAPY_SDR_SSI, "U");
        wake_.notify_all();
    }
    // The injected underflow, once the count reaches underflow_at (writes are cut to stop there).
    void inject() {
        if (underflowAt_ < 0 || injected_ || samples_ < underflowAt_) return;
        injected_ = true;
        underflow(logInjected_);
    }
    void accept(const void* buff, size_t n, bool endsBurst) {
        if (record_ && n > 0 && std::fwrite(buff, elemSize_, n, record_) != n) fail("cannot write " + recordPath_);
        samples_ += double(n);
        if (pace_) level_ += double(n);
        if (pace_ && n > 0) dry_ = false;
        inject();
        inBurst_ = !endsBurst;
        if (endsBurst) {
            ++burstsEnded_;
            if ((!pace_ || dry_) && !stalled()) playedOut_ = true;
        }
        wake_.notify_all();
    }
    // The sensors' names and values, in order (the mutex held).
    std::vector<std::pair<std::string, std::string>> figures() const {
        const auto count = [](long n) { return std::to_string(n); };
        std::vector<std::pair<std::string, std::string>> f{
            {"samples", show(samples_)}, {"bursts_ended", count(burstsEnded_)}, {"underflows", count(underflows_)},
            {"rate", show(rate_)},       {"frequency", show(frequency_)},       {"bandwidth", show(bandwidth_)},
            {"gain", show(totalGain())}};
        for (const Gain& g : gains_) f.emplace_back("gain_" + g.name, show(g.value));
        f.insert(f.end(), {{"antenna", antenna_},
                           {"format", format_},
                           {"bandwidth_after_rate", bandwidthSeq_ > rateSeq_ ? "1" : "0"},
                           {"activated", count(activated_)},
                           {"deactivated", count(deactivated_)},
                           {"closed", count(closed_)}});
        return f;
    }
    // Written under a temporary name first, so that a reader never sees half a file.
    void writeStatus() const {
        if (recordPath_.empty()) return;
        const std::string path = recordPath_ + ".status", temp = path + ".tmp";
        std::FILE* file = std::fopen(temp.c_str(), "w");
        if (!file) return;
        for (const auto& [name, value] : figures()) std::fprintf(file, "%s=%s\n", name.c_str(), value.c_str());
        if (std::fclose(file) == 0) std::rename(temp.c_str(), path.c_str());
    }

    static inline char handleTag_ = 0;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    const std::string native_;
    const double masterClock_, rateMax_, capacity_, underflowAt_, stallAt_, loseAt_;
    const std::string report_, recordPath_;
    const bool pace_, statusSupported_, logInjected_;
    double fullScale_ = 0;
    std::FILE* record_ = nullptr;
    std::string format_;
    size_t elemSize_ = 4;
    bool open_ = false, active_ = false, dry_ = true, inBurst_ = false, playedOut_ = false, injected_ = false,
         lostLogged_ = false;
    double level_ = 0, samples_ = 0;         // samples in the buffer, samples written in all
    Clock::time_point last_ = Clock::now();  // when the buffer was last drained
    long burstsEnded_ = 0, underflows_ = 0, statusUnderflows_ = 0, writeUnderflows_ = 0;
    long activated_ = 0, deactivated_ = 0, closed_ = 0, seq_ = 0, rateSeq_ = 0, bandwidthSeq_ = 0;
    double rate_ = 0, frequency_ = 0, bandwidth_ = 0;
    std::vector<std::string> antennas_;
    std::string antenna_;
    std::vector<Gain> gains_;
    size_t gainAt(const std::string& name) const {
        for (size_t i = 0; i < gains_.size(); ++i)
            if (gains_[i].name == name) return i;
        fail("no gain element " + name);
    }
    double totalGain() const {
        double sum = 0;
        for (const Gain& g : gains_) sum += g.value;
        return sum;
    }
};

SoapySDR::KwargsList findFake(const Kwargs& args) {
    const auto driver = args.find("driver");
    if (driver != args.end() && driver->second != kDriver) return {};
    Kwargs found = args;
    found["driver"] = kDriver;
    return {found};
}

SoapySDR::Device* makeFake(const Kwargs& args) {
    if (arg(args, "fail", "") == "make") fail("device error (fail=make)");
    return new FakeDevice(args);
}

const SoapySDR::Registry registerFake(kDriver, &findFake, &makeFake, SOAPY_SDR_ABI_VERSION);

}  // namespace
