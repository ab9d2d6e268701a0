// Reed-Solomon RS(204,188) encoding and decoding (syndromes, Berlekamp-Massey,
// Chien search, Forney) and the energy dispersal sequence.
#include "receiver/rs.hpp"

#include <bit>

namespace rx {

namespace {

struct Field {
    std::array<uint8_t, 512> exp{};  // alpha^i, twice over so that sums of two logarithms need no reduction
    std::array<int, 256> log{};      // log[0] is never used
};

constexpr Field field = [] {
    Field f;
    unsigned v = 1;
    for (int i = 0; i < 255; i++) {
        f.exp[i] = f.exp[i + 255] = static_cast<uint8_t>(v);
        f.log[v] = i;
        v <<= 1;
        if (v & 0x100u) v ^= 0x11Du;
    }
    f.exp[510] = f.exp[0], f.exp[511] = f.exp[1];
    return f;
}();

constexpr uint8_t mul(uint8_t a, uint8_t b) { return a == 0 || b == 0 ? 0 : field.exp[field.log[a] + field.log[b]]; }
constexpr uint8_t inv(uint8_t a) { return field.exp[255 - field.log[a]]; }

// Multiplication by alpha^j, j = 0..15, for the syndromes' Horner steps.
constexpr auto times_alpha = [] {
    std::array<std::array<uint8_t, 256>, 16> t{};
    for (unsigned j = 0; j < 16; j++)
        for (unsigned v = 0; v < 256; v++) t[j][v] = mul(static_cast<uint8_t>(v), field.exp[j]);
    return t;
}();

// The generator polynomial, coefficient of x^j at index j.
constexpr auto generator = [] {
    std::array<uint8_t, 17> g{};
    g[0] = 1;
    for (unsigned i = 0; i < 16; i++) {
        // g(x) = g(x) (x + alpha^i)
        for (unsigned j = i + 1; j > 0; j--) g[j] = static_cast<uint8_t>(g[j - 1] ^ mul(g[j], field.exp[i]));
        g[0] = mul(g[0], field.exp[i]);
    }
    return g;
}();

std::array<uint8_t, 16> syndromes(std::span<const uint8_t, 204> c) {
    std::array<uint8_t, 16> s{};
    for (uint32_t i = 0; i < rs_n; i++)
        for (unsigned j = 0; j < 16; j++) s[j] = static_cast<uint8_t>(times_alpha[j][s[j]] ^ c[i]);
    return s;
}

}  // namespace

namespace {

// Division by the generator, a byte at a time: the 16-byte remainder as two
// words (byte j the coefficient of x^j), and the multiples of the generator's
// lower 16 coefficients by every feedback byte.
struct Remainder {
    uint64_t hi = 0, lo = 0;
};

constexpr auto feedback = [] {
    std::array<Remainder, 256> t{};
    for (unsigned f = 0; f < 256; f++)
        for (unsigned j = 0; j < 16; j++) {
            const uint64_t v = mul(static_cast<uint8_t>(f), generator[j]);
            if (j < 8) t[f].lo |= v << (8 * j);
            else t[f].hi |= v << (8 * (j - 8));
        }
    return t;
}();

Remainder divide(std::span<const uint8_t> bytes) {
    Remainder r;
    for (uint8_t b : bytes) {
        const Remainder& f = feedback[b ^ (r.hi >> 56)];
        r.hi = (r.hi << 8 | r.lo >> 56) ^ f.hi;
        r.lo = r.lo << 8 ^ f.lo;
    }
    return r;
}

}  // namespace

void rs_encode(std::span<const uint8_t, 188> packet, std::span<uint8_t, 16> parity) {
    const Remainder r = divide(packet);
    for (unsigned j = 0; j < 8; j++) {
        parity[j] = static_cast<uint8_t>(r.hi >> (56 - 8 * j));
        parity[8 + j] = static_cast<uint8_t>(r.lo >> (56 - 8 * j));
    }
}

RsResult rs_decode(std::span<uint8_t, 204> c) {
    // A codeword is a multiple of the generator; only the others need syndromes.
    const Remainder rem = divide(c);
    if (rem.hi == 0 && rem.lo == 0) return {true, 0, 0};
    const std::array<uint8_t, 16> s = syndromes(c);
    bool clean = true;
    for (uint8_t v : s) clean = clean && v == 0;
    if (clean) return {true, 0, 0};

    // Berlekamp-Massey: the shortest error locator lambda that generates the syndromes.
    std::array<uint8_t, 17> lambda{1}, prev{1}, tmp{};
    unsigned L = 0, shift = 1;
    uint8_t last = 1;
    for (unsigned r = 0; r < 16; r++) {
        uint8_t delta = s[r];
        for (unsigned i = 1; i <= L; i++) delta ^= mul(lambda[i], s[r - i]);
        if (delta == 0) {
            shift++;
            continue;
        }
        const uint8_t f = mul(delta, inv(last));
        tmp = lambda;
        for (unsigned i = 0; i + shift <= 16; i++) lambda[i + shift] ^= mul(f, prev[i]);
        if (2 * L <= r) {
            L = r + 1 - L, prev = tmp, last = delta, shift = 1;
        } else {
            shift++;
        }
    }
    if (L > rs_t) return {};

    // Omega(x) = S(x) lambda(x) mod x^16, for the error values.
    std::array<uint8_t, 16> omega{};
    for (unsigned i = 0; i < 16; i++)
        for (unsigned j = 0; j <= i && j <= L; j++) omega[i] ^= mul(lambda[j], s[i - j]);

    // Chien search over the 204 positions: the byte at index i is the
    // coefficient of x^p, p = 203 - i, in error when lambda(alpha^-p) = 0.
    std::array<uint8_t, 204> fixed;
    std::copy(c.begin(), c.end(), fixed.begin());
    RsResult res{true, 0, 0};
    unsigned roots = 0;
    for (unsigned p = 0; p < rs_n && roots < L; p++) {
        const unsigned xinv = (255 - p) % 255;  // log of alpha^-p
        uint8_t val = 0, deriv = 0;
        for (unsigned i = 0; i <= L; i++) {
            const uint8_t term = lambda[i] == 0 ? 0 : field.exp[(field.log[lambda[i]] + xinv * i) % 255];
            val ^= term;
            if (i & 1) deriv ^= lambda[i] == 0 ? 0 : field.exp[(field.log[lambda[i]] + xinv * (i - 1)) % 255];
        }
        if (val != 0) continue;
        roots++;
        uint8_t om = 0;
        for (unsigned i = 0; i < 16; i++) om ^= omega[i] == 0 ? 0 : field.exp[(field.log[omega[i]] + xinv * i) % 255];
        if (deriv == 0) return {};
        // e = X omega(X^-1) / lambda'(X^-1), X = alpha^p (the first root is alpha^0).
        const uint8_t e = mul(mul(field.exp[p], om), inv(deriv));
        if (e == 0) return {};
        fixed[rs_n - 1 - p] ^= e;
        res.bytes++;
        res.bits += std::popcount(static_cast<unsigned>(e));
    }
    if (roots != L) return {};
    const std::array<uint8_t, 16> check = syndromes(fixed);
    for (uint8_t v : check)
        if (v != 0) return {};
    std::copy(fixed.begin(), fixed.end(), c.begin());
    return res;
}

const std::array<uint8_t, 1504>& dispersal_sequence() {
    static const std::array<uint8_t, 1504> seq = [] {
        std::array<uint8_t, 1504> q{};
        uint32_t r = 0xA9;
        for (uint32_t i = 0; i < 1504 * 8; i++) {
            const uint32_t b = static_cast<uint32_t>(std::popcount(r & 0x6000u) & 1);
            q[i / 8] = static_cast<uint8_t>(q[i / 8] | b << (7 - i % 8));
            r = r << 1 | b;
        }
        return q;
    }();
    return seq;
}

void disperse(std::span<uint8_t, 188> packet, uint32_t g) {
    const std::array<uint8_t, 1504>& q = dispersal_sequence();
    if (g == 0) packet[0] = static_cast<uint8_t>(~packet[0]);
    const uint32_t base = (g % 8) * rs_k;
    for (uint32_t k = 1; k < rs_k; k++) packet[k] ^= q[base + k - 1];
}

}  // namespace rx
