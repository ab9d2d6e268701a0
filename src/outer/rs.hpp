// GF(256) arithmetic and the systematic Reed-Solomon RS(255,239, t = 8) encoder
// that the shortened RS(204,188) outer code is built on.
#pragma once

#include <cstdint>

// Field polynomial x^8 + x^4 + x^3 + x^2 + 1, coefficient of x^i at index i.
extern const int32_t Pp[9];
// Alpha_to[i] = alpha^i (i = 0..254), Alpha_to[255] = 0.
extern int32_t Alpha_to[256];
// Index_of[v] = log_alpha(v) (v = 1..255); Index_of[0] = 255 stands for log(0).
extern int32_t Index_of[256];
// Logarithms of the 17 generator polynomial coefficients, x^0 first.
extern int32_t Gg[17];

// Builds Alpha_to and Index_of.
void generate_gf();
// Builds Gg (roots alpha^0 .. alpha^15); needs the field tables.
void gen_poly();
// Builds the field tables and the generator polynomial.
void init_rs();

// Parity of one RS(255,239) block: data[i] is the coefficient of x^(i+16), bb[j]
// receives the coefficient of x^j of the remainder of data(x) x^16 / g(x).
// Always returns 0.
int encode_rs(const uint8_t* data, uint8_t* bb);

// The 16 parity bytes of each of count 188-byte packets of the shortened
// RS(204,188) code, in transmission order (parity[k][0] follows byte 187 of
// packet k): the same bytes encode_rs gives for the packet, reversed and padded
// with 51 zeros, in the order the coder appends them.
void rs_parity188(const uint8_t* const* pkt, uint32_t count, uint8_t (*parity)[16]);
