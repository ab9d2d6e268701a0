// Plain models of the coding stages, written from the standard's definitions
// (scrambler, interleaver formulas, code polynomials, Gray labelling), one
// element at a time: the oracles of the chain and kernel tests.
#pragma once

#include <algorithm>
#include <array>
#include <complex>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace models {

using Bytes = std::vector<unsigned char>;
using cd = std::complex<double>;

inline const int kN[] = {1512, 3024, 6048};

// Randomisation with 1 + x^14 + x^15, loaded with 100101010000000 at every
// eighth packet: the first sync byte inverted, the generator's output disabled
// (but running) during the other seven sync bytes.
inline Bytes dispersal(const Bytes& ts) {
    Bytes out(ts.size());
    std::array<int, 15> reg{};
    for (size_t i = 0; i < ts.size(); ++i) {
        const size_t j = i % 1504;
        if (j == 0) {
            reg = {1, 0, 0, 1, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0};
            out[i] = static_cast<unsigned char>(~ts[i]);
            continue;
        }
        int byte = 0;
        for (int b = 0; b < 8; ++b) {
            const int fb = reg[13] ^ reg[14];
            for (int k = 14; k > 0; --k) reg[k] = reg[k - 1];
            reg[0] = fb;
            byte = byte << 1 | fb;
        }
        out[i] = static_cast<unsigned char>(j % 188 == 0 ? ts[i] : ts[i] ^ byte);
    }
    return out;
}

// Branch j of 12 delays by 17 j commutator cycles; the branches start empty (zeros).
inline Bytes outer_interleave(const Bytes& rs) {
    Bytes ci(rs.size(), 0);
    for (size_t i = 0; i < rs.size(); ++i) {
        const size_t o = i + 12 * 17 * (i % 12);
        if (o < ci.size()) ci[o] = rs[i];
    }
    return ci;
}

// Mother code of constraint length 7: X = 171, Y = 133 (octal), taps from the
// newest bit on; the bits of each byte enter most significant first.
inline Bytes encode(const Bytes& ci) {
    const int gx[7] = {1, 1, 1, 1, 0, 0, 1}, gy[7] = {1, 0, 1, 1, 0, 1, 1};
    int d[7] = {};
    Bytes out;
    for (unsigned char byte : ci)
        for (int b = 7; b >= 0; --b) {
            for (int k = 6; k > 0; --k) d[k] = d[k - 1];
            d[0] = (byte >> b) & 1;
            int x = 0, y = 0;
            for (int k = 0; k < 7; ++k) x ^= gx[k] & d[k], y ^= gy[k] & d[k];
            out.push_back(static_cast<unsigned char>(x));
            out.push_back(static_cast<unsigned char>(y));
        }
    return out;
}

// Puncturing patterns of the standard as X and Y rows; X_i before Y_i.
inline Bytes puncture(const Bytes& ve, int rate) {
    const char* X[] = {"1", "10", "101", "10101", "1000101"};
    const char* Y[] = {"1", "11", "110", "11010", "1111010"};
    const size_t period = std::strlen(X[rate]);
    Bytes out;
    for (size_t i = 0; 2 * period * (i + 1) <= ve.size(); ++i)
        for (size_t k = 0; k < period; ++k) {
            if (X[rate][k] == '1') out.push_back(ve[2 * (period * i + k)]);
            if (Y[rate][k] == '1') out.push_back(ve[2 * (period * i + k) + 1]);
        }
    return out;
}

// Demultiplexing onto sub-streams b0..b(v-1), 126-bit block interleavers
// H_e(w) = (w + shift_e) mod 126, y0 the most significant bit of the word.
inline Bytes bit_interleave(const Bytes& hp, const Bytes& lp, int v, bool hier) {
    static const std::map<int, std::vector<int>> nh{{2, {0, 1}}, {4, {0, 2, 1, 3}}, {6, {0, 2, 4, 1, 3, 5}}};
    static const std::map<int, std::vector<int>> lpmap{{4, {2, 3}}, {6, {2, 4, 3, 5}}};
    const int shift[6] = {0, 63, 105, 42, 21, 84};
    const size_t hp_per = hier ? 2 : static_cast<size_t>(v), lp_per = hier ? static_cast<size_t>(v) - 2 : 0;
    size_t blocks = hp.size() / (126 * hp_per);
    if (hier) blocks = std::min(blocks, lp.size() / (126 * lp_per));
    Bytes out;
    for (size_t blk = 0; blk < blocks; ++blk) {
        std::vector<std::array<int, 126>> b(6);
        for (size_t w = 0; w < 126; ++w) {
            const unsigned char* x = &hp[(126 * blk + w) * hp_per];
            if (!hier) {
                for (int i = 0; i < v; ++i) b[nh.at(v)[i]][w] = x[i];
            } else {
                b[0][w] = x[0];
                b[1][w] = x[1];
                for (size_t i = 0; i < lp_per; ++i) b[lpmap.at(v)[i]][w] = lp[(126 * blk + w) * lp_per + i];
            }
        }
        for (int w = 0; w < 126; ++w) {
            int word = 0;
            for (int e = 0; e < v; ++e) word = word << 1 | b[e][(w + shift[e]) % 126];
            out.push_back(static_cast<unsigned char>(word));
        }
    }
    return out;
}

// H(q): the register R' with its mode's feedback, permuted into R, the toggle
// bit on top; candidates beyond Nmax are dropped.
inline std::vector<int> symbol_permutation(int mode) {
    const int Nr = 11 + mode, Nmax = kN[mode];
    const std::vector<std::vector<int>> perm{
        {4, 3, 9, 6, 2, 8, 1, 5, 7, 0}, {6, 3, 0, 9, 4, 2, 1, 8, 5, 10, 7}, {7, 1, 4, 2, 9, 6, 8, 10, 0, 3, 11, 5}};
    const std::vector<std::vector<int>> taps{{0, 3}, {0, 2}, {0, 1, 4, 6}};
    std::vector<int> R(static_cast<size_t>(Nr - 1), 0), H;
    for (int i = 0; i < (1 << Nr); ++i) {
        if (i == 2) R[0] = 1;
        if (i > 2) {
            int fb = 0;
            for (int t : taps[static_cast<size_t>(mode)]) fb ^= R[static_cast<size_t>(t)];
            R.erase(R.begin());
            R.push_back(fb);
        }
        int h = (i % 2) << (Nr - 1);
        for (int j = 0; j < Nr - 1; ++j)
            h |= R[static_cast<size_t>(j)] << perm[static_cast<size_t>(mode)][static_cast<size_t>(j)];
        if (h < Nmax) H.push_back(h);
    }
    return H;
}

// Even blocks: output H(q) is input q; odd blocks the inverse. Blocks are
// numbered from first on.
inline Bytes symbol_interleave(const Bytes& bi, int hmode, int first = 0) {
    const std::vector<int> H = symbol_permutation(hmode);
    const size_t N = H.size();
    Bytes out(bi.size() / N * N);
    for (size_t blk = 0; blk < bi.size() / N; ++blk)
        for (size_t q = 0; q < N; ++q) {
            const size_t h = static_cast<size_t>(H[q]);
            if ((blk + static_cast<size_t>(first)) % 2 == 0) out[blk * N + h] = bi[blk * N + q];
            else out[blk * N + q] = bi[blk * N + h];
        }
    return out;
}

// Gray-labelled axis levels: the sign bit first, then the magnitude bits; the
// outermost level carries all zeros. Hierarchy moves each level out by alpha - 1.
inline std::vector<cd> constellation(int v, int alpha) {
    const int m = v / 2, d = alpha == 0 ? 0 : alpha - 1;
    auto level = [&](int bits) {
        int k = 0;
        for (int g = bits; g != 0; g >>= 1) k ^= g;  // inverse Gray code
        const int l = (1 << m) - 1 - 2 * k;
        return l + (l > 0 ? d : -d);
    };
    std::vector<cd> pts;
    double E = 0;
    for (int word = 0; word < (1 << v); ++word) {
        int re = 0, im = 0;
        for (int i = 0; i < m; ++i) {
            re = re << 1 | ((word >> (v - 1 - 2 * i)) & 1);
            im = im << 1 | ((word >> (v - 2 - 2 * i)) & 1);
        }
        pts.emplace_back(level(re), level(im));
        E += std::norm(pts.back());
    }
    for (cd& p : pts) p /= std::sqrt(E / static_cast<double>(pts.size()));
    return pts;
}

// The static echo channels of the receiver tests, F1 (ricean: a direct path
// 10 dB above the echoes) and P1: the response at f Hz above the lowest
// carrier, where the echoes' phases hold; the paths normalised to unit power.
inline cd echo_response(double f, bool ricean) {
    static constexpr double rho[20] = {0.057662, 0.176809, 0.407163, 0.303585, 0.258782, 0.061831, 0.150340,
                                       0.051534, 0.185074, 0.400967, 0.295723, 0.350825, 0.262909, 0.225894,
                                       0.170996, 0.149723, 0.240140, 0.116587, 0.221155, 0.259730};
    static constexpr double tau[20] = {1.003019, 5.422091, 0.518650, 2.751772, 0.602895, 1.016585, 0.143556,
                                       0.153832, 3.324866, 1.935570, 0.429948, 3.228872, 0.848831, 0.073883,
                                       0.203952, 0.194207, 0.924450, 1.381320, 0.640512, 1.368671};
    static constexpr double theta[20] = {4.855121, 3.419109, 5.864470, 2.215894, 3.758058, 5.430202, 3.952093,
                                         1.093586, 5.775198, 0.154459, 5.928383, 3.053023, 0.628578, 2.128544,
                                         1.099463, 3.462951, 3.664773, 2.833799, 3.334290, 0.393889};
    double sum2 = 0;
    for (double r : rho) sum2 += r * r;
    cd h = ricean ? std::sqrt(10 * sum2) : 0.0;
    for (int i = 0; i < 20; ++i)
        h += rho[i] * std::polar(1.0, -theta[i] - 2 * 3.14159265358979323846 * f * tau[i] * 1e-6);
    return h / std::sqrt((ricean ? 11 : 1) * sum2);
}

}  // namespace models
