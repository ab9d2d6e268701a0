// Element-wise operations on signal vectors.
#pragma once

#include <cstdint>

#include "vectors/manage.hpp"

// Makes dst a copy of src (header fields and elements); head and fill of dst stay.
unsigned dvbCopyVect(dvbVect* dst, const dvbVect* src);

// Element-wise arithmetic over the whole storage (head and fill are ignored) of
// Digital and Real vectors. out must have a's type; it is resized to a's length
// when its own differs. Results: 5 for a null vector, 10 for differing types,
// 8 for differing lengths, 9 for differing accuracies, 1 for other element types.

// flag non-zero: out = a * b; flag 0: out = a / b. Digital is not implemented (2).
unsigned dvbMultVect(dvbVect* out, const dvbVect* a, const dvbVect* b, int flag);
// flag non-zero: out = a + b; flag 0: out = a - b. Digital results wrap within acc bits.
unsigned dvbAddVect(dvbVect* out, const dvbVect* a, const dvbVect* b, int flag);
// out = -a.
unsigned dvbNegVect(dvbVect* out, const dvbVect* a);
// Real: out = 1 / a (IEEE: 0.0 gives an infinity). Digital: floor(2^(acc-1) / a + 0.5),
// saturated to the 32-bit range, so that 0 gives INT32_MAX.
unsigned dvbInvVect(dvbVect* out, const dvbVect* a);
// out = a * c with c rounded to a float; Digital is not implemented (2).
unsigned dvbMultConst(dvbVect* out, const dvbVect* a, double c);
// Digital: out = a + c wrapped within acc bits; a Real vector takes c as a float.
unsigned dvbAddConst(dvbVect* out, const dvbVect* a, int c);
// Real: out = a + c with c rounded to a float. A Digital vector refuses this form (1).
unsigned dvbAddConst(dvbVect* out, const dvbVect* a, double c);

// A double converted to int32, saturating at the ends of the range (NaN gives
// 0), so that extreme values never overflow the conversion.
int32_t dvbSaturateInt(double x);
