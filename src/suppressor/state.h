// The record of one audio stream.
#pragma once

#include "nax_res.h"
#include "suppressor/coherence.h"
#include "suppressor/gain.h"
#include "suppressor/noise.h"
#include "suppressor/presence.h"
#include "suppressor/reference.h"
#include "suppressor/residual.h"
#include "suppressor/spectra.h"

namespace nax::res {

// Two consecutive frames of a channel.
struct Window {
    int16_t samples[2 * MAX_FRAME];
};

struct Microphone {
    Window cleaned, echo;
    Noise noise;
    Residual residual;
    Coherence coherence;
    Presence presence;
    Gain gain;
    float left_over[MAX_FRAME];
    int16_t frame[MAX_FRAME]; // output
};

} // namespace nax::res

struct nax_res_state {
    int32_t frame_size; // F, samples
    int32_t mics, refs; // M, R
    nax::res::Bands bands;
    nax::res::Spectra spectra;
    nax::res::Reference reference;
    nax::res::Window *ref_windows;     // R of them
    nax::res::Microphone *microphones; // M of them
    // Scratch.
    nax::res::Complex spectrum[nax::res::MAX_BINS], echo_spectrum[nax::res::MAX_BINS];
    float cleaned_power[nax::res::MAX_BINS], echo_power[nax::res::MAX_BINS];
};
