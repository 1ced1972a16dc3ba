// Log table engine: a process-wide table for a cheap base-2 logarithm, and levels in dB by it.
#pragma once

#include <cstdint>

namespace nax {

// Fills the table. It may be called any number of times and from several threads at once: every
// call writes the same values. Returns 0. Real time: yes.
int32_t nax_logtab_init();

// Base-2 logarithm of a positive, finite, normal number. Error at most
// LOG2_MAX_ERROR. Needs nax_logtab_init first.
float log2_approx(float value);

// 10 log10(power), in dB; -100 dB for a power below 1e-10.
float level_db(float power);

inline constexpr float LOG2_MAX_ERROR = 2.0e-5f;

} // namespace nax
