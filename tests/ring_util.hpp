// Helpers shared by the stage tests: owned vectors, rings of bytes or complex
// cells filled and drained element by element, and a scoped verbosity level.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "frame/params.hpp"
#include "vectors/manage.hpp"

namespace testutil {

// Owns a handle of the given type, created empty, for the duration of a test.
struct Vec {
    dvbVect* v = nullptr;
    explicit Vec(uint32_t type) { EXPECT_EQ(priv_dvbCreateVect(&v, type), 0u); }
    ~Vec() { priv_dvbDestroyVect(&v); }
    Vec(const Vec&) = delete;
    Vec& operator=(const Vec&) = delete;
};

// An owned ring of len elements, empty, whose oldest element will sit at head.
// T is uint8_t for a Symbol ring and dvbComplex for a Complex ring.
template <typename T>
struct Ring {
    static_assert(std::is_same_v<T, uint8_t> || std::is_same_v<T, dvbComplex>);

    dvbVect* v = nullptr;

    explicit Ring(uint32_t len, uint32_t head = 0) {
        if constexpr (std::is_same_v<T, dvbComplex>) {
            priv_dvbCreateVect(&v, Complex);
            dvbConstVect(v, Complex, len, 0.0, 0.0);
        } else {
            priv_dvbCreateVect(&v, Symbol);
            dvbConstVect(v, Symbol, len, 0);
        }
        v->head = head;
        v->fill = 0;
    }
    ~Ring() { priv_dvbDestroyVect(&v); }
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;

    // Element at storage index i (not relative to head).
    T& at(uint32_t i) { return data()[i]; }

    // Appends n elements; a fatal failure if they do not fit.
    void push(const T* b, size_t n) {
        ASSERT_LE(n, size_t{v->len - v->fill});
        for (size_t i = 0; i < n; i++) {
            data()[(v->head + v->fill) % v->len] = b[i];
            v->fill++;
        }
    }
    void push(const std::vector<T>& b) { push(b.data(), b.size()); }
    void push(const T& x) { push(&x, 1); }

    // Removes the oldest element; the ring must not be empty.
    T pop() {
        const T x = data()[v->head];
        dvbRingConsume(v, 1);
        return x;
    }
    // Moves every held element, oldest first, to the end of r.
    void pop_into(std::vector<T>& r) {
        for (; v->fill > 0; v->fill--) {
            r.push_back(data()[v->head]);
            v->head = (v->head + 1) % v->len;
        }
    }
    std::vector<T> pop_all() {
        std::vector<T> r;
        pop_into(r);
        return r;
    }

private:
    T* data() {
        if constexpr (std::is_same_v<T, dvbComplex>)
            return dvbCplx(v);
        else
            return dvbBytes(v);
    }
};

using ByteRing = Ring<uint8_t>;
using CplxRing = Ring<dvbComplex>;

// Sets the global verbosity for a scope and restores the previous level.
struct Verbose {
    uint16_t saved = verbosity;
    explicit Verbose(uint16_t level = 4) { verbosity = level; }
    ~Verbose() { verbosity = saved; }
    Verbose(const Verbose&) = delete;
    Verbose& operator=(const Verbose&) = delete;
};

}  // namespace testutil
