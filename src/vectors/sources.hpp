// Vector generators: naming and linear ramps.
#pragma once

#include <cstdint>

#include "vectors/manage.hpp"

// Copies name into desc when it has at most 15 characters; a longer name leaves
// desc as it is. Returns 0 (6 for a null vector).
unsigned dvbNameVect(dvbVect* v, const char* name);

// Resizes v to n elements and fills it with a ramp from start to end.
// Digital form: integer end points, the accuracy and range to store; element i
// is floor(start + 0.5 + i * step). Also accepted by a Real vector, which then
// takes the end points as doubles and ignores acc and range.
unsigned dvbLinSpaceVect(dvbVect* v, uint32_t n, int start, int end, int acc, double range);
// Real form: end points rounded to floats; element i is i * step + start.
// A Digital vector refuses this form (result 1).
unsigned dvbLinSpaceVect(dvbVect* v, uint32_t n, double start, double end);
