// How much of the sound in each band is the near-end talker, judged by a neural network.
#pragma once

#include "suppressor/loops.h"
#include "suppressor/presence_weights.h"
#include "suppressor/reference.h"

namespace nax::res {

// What the network sees of a frame. Means are powers over each band.
struct Evidence {
    const Comparison *comparison; // means of cleaned microphone, removed echo, microphone
    const float *coherence;       // of cleaned with raw microphone, per band
    const Reference *reference;
    const float *residual_mean; // of the residual echo
    const float *noise_mean;    // of the microphone's noise
    const float *cleaned_power; // per bin
    const float *echo_power;    // of the removed echo, per bin
};

struct Presence {
    int8_t inputs[PADDED_INPUTS]; // features of the frame, 1 is INPUT_ONE
    float state[HIDDEN];          // of the recurrent layer
    // The result: share of the near end in the amplitude, 0 (echo) to 1 (talker).
    float talker[MAX_BANDS];
};

// Takes in one frame. presence begins zero-filled.
void presence_update(Presence &presence, const Bands &bands, const Evidence &evidence);

// The parts of it, for tests: the features, the network's outputs for given features, and each
// band's share from those of all bands.
void find_features(const Bands &bands, const Evidence &evidence, int8_t *inputs);
void run_network(const int8_t *inputs, float *state, float *outputs);
void decide(const Bands &bands, float *talker);

} // namespace nax::res
