// The chain of stages: its stream buffers, the per-branch state, the start-up
// of every stage and one pass over the whole chain.
#pragma once

#include <cstdint>

#include "vectors/manage.hpp"

// Clamps packnum to 5..1000 and derives every buffer length from it and from
// the constellation as it stands.
void chain_set_lengths();

// Creates every stream buffer and initialises the stages in chain order, for
// the settled parameters, buffer lengths and the files of the files module.
// A buffer that cannot be allocated ends the process with a message.
void chain_create();

// Calls every stage once, in chain order; returns whether anything moved.
bool chain_pass();

// The same pass without the writing of the samples, for a program that takes
// them from chain_samples() itself; its input rings, chain_input(false) (HP or
// NH) and chain_input(true) (LP), are read from the input files when these are
// open, else filled by that program.
bool chain_pass_to_samples();
dvbVect* chain_input(bool lp);
dvbVect* chain_samples();

// Destroys every stream buffer (the ones never created too).
void chain_destroy();

// The smallest batch whose rings can each hold one OFDM symbol, for the
// constellation requested on the command line (the one the buffers are sized for).
int32_t chain_min_packnum(uint32_t requested_M);
