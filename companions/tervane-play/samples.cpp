#include "samples.hpp"

#include <SoapySDR/Formats.hpp>
#include <numbers>

namespace play {

Format Format::make(const std::string& native, double fs) {
    Format f;
    f.kind = native == SOAPY_SDR_CS8 ? CS8 : native == SOAPY_SDR_CS16 ? CS16 : CF32;
    f.name = f.kind == CS8 ? SOAPY_SDR_CS8 : f.kind == CS16 ? SOAPY_SDR_CS16 : SOAPY_SDR_CF32;
    f.fullscale = fs > 0 ? fs : (f.kind == CS8 ? 128 : f.kind == CS16 ? 32768 : 1);
    if (f.kind != CF32) {
        const double top = f.kind == CS8 ? 127 : 32767;
        f.size = f.kind == CS8 ? 2 : 4;
        f.lo = std::max(-std::floor(f.fullscale), -top - 1);
        f.hi = std::min(std::floor(f.fullscale) - 1, top);
    } else {
        f.lo = -f.fullscale;
        f.hi = f.fullscale;
    }
    return f;
}

void Format::measure(const uint8_t* src, size_t n, double& peak, double& power) const {
    double p = 0, e = 0;
    if (kind == CF32) {
        for (size_t i = 0; i < n; ++i) {
            float v;
            std::memcpy(&v, src + 4 * i, sizeof v);
            p = std::max(p, double{std::fabs(v)}), e += double{v} * v;
        }
    } else {
        int64_t top = 0, sum = 0;
        for (size_t i = 0; i < n; ++i) {
            int16_t v = 0;
            if (kind == CS8) v = static_cast<int8_t>(src[i]);
            else std::memcpy(&v, src + 2 * i, sizeof v);
            top = std::max<int64_t>(top, v < 0 ? -v : v), sum += int64_t{v} * v;
        }
        p = static_cast<double>(top), e = static_cast<double>(sum);
    }
    peak = std::max(peak, p / fullscale);
    power += e / (fullscale * fullscale);
}

Converter::Converter(const Format& f, double k, double lo_hz, double rate) : f_(f), k_(k), step_(-lo_hz / rate) {
    const double a = 2 * std::numbers::pi * step_;
    wr_ = std::cos(a), wi_ = std::sin(a);
}

void Converter::convert(const dvbComplex* x, size_t n, uint8_t* dst) {
    switch (f_.kind) {
    case Format::CF32: convert_as<Format::CF32>(x, n, dst); break;
    case Format::CS16: convert_as<Format::CS16>(x, n, dst); break;
    case Format::CS8: convert_as<Format::CS8>(x, n, dst); break;
    }
}

template <Format::Kind K>
void Converter::convert_as(const dvbComplex* x, size_t n, uint8_t* dst) {
    const size_t half = f_.size / 2;
    long clips = 0;
    for (size_t i = 0; i < n; ++i, dst += f_.size) {
        double re = double{x[i].re} * k_, im = double{x[i].im} * k_;
        if (step_ != 0) {
            if (left_ == 0) {
                const double a = 2 * std::numbers::pi * phase_;
                pr_ = std::cos(a), pi_ = std::sin(a);
                phase_ += step_ * kBlock;
                phase_ -= std::floor(phase_);
                left_ = kBlock;
            }
            const double r2 = re * pr_ - im * pi_;
            im = re * pi_ + im * pr_;
            re = r2;
            const double p2 = pr_ * wr_ - pi_ * wi_;
            pi_ = pr_ * wi_ + pi_ * wr_;
            pr_ = p2;
            --left_;
        }
        clips += f_.put<K>(re, dst) + f_.put<K>(im, dst + half);
    }
    clipped += clips;
}

bool Ring::push(const uint8_t* src, size_t n) {
    std::unique_lock<std::mutex> lock(m_);
    while (n > 0) {
        room_.wait(lock, [&] { return stop_ || fill_ < cap_; });
        if (stop_) return false;
        const size_t tail = (head_ + fill_) % cap_;
        const size_t k = std::min({n, cap_ - fill_, cap_ - tail});
        std::memcpy(&data_[tail * size_], src, k * size_);
        fill_ += k;
        src += k * size_;
        n -= k;
        ready_.notify_all();
    }
    return true;
}

size_t Ring::pop(uint8_t* dst, size_t n, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_);
    ready_.wait_for(lock, timeout, [&] { return fill_ > 0 || done_ || stop_; });
    size_t got = 0;
    while (got < n && fill_ > 0) {
        const size_t k = std::min({n - got, fill_, cap_ - head_});
        std::memcpy(dst + got * size_, &data_[head_ * size_], k * size_);
        head_ = (head_ + k) % cap_;
        fill_ -= k;
        got += k;
    }
    room_.notify_all();
    return got;
}

bool Ring::wait_full(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_);
    return ready_.wait_for(lock, timeout, [&] { return fill_ == cap_ || done_ || stop_; });
}

void Ring::finish() {
    std::lock_guard<std::mutex> l(m_);
    done_ = true;
    ready_.notify_all();
}

void Ring::stop() {
    std::lock_guard<std::mutex> l(m_);
    stop_ = true;
    room_.notify_all();
    ready_.notify_all();
}

bool Ring::stopped() {
    std::lock_guard<std::mutex> l(m_);
    return stop_;
}

bool Ring::drained() {
    std::lock_guard<std::mutex> l(m_);
    return done_ && fill_ == 0;
}

size_t Ring::fill() {
    std::lock_guard<std::mutex> l(m_);
    return fill_;
}

}  // namespace play
