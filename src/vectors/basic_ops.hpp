// Element-wise operations on signal vectors.
#pragma once

#include "vectors/manage.hpp"

// Makes dst a copy of src (header fields and elements); head and fill of dst stay.
unsigned dvbCopyVect(dvbVect* dst, const dvbVect* src);
