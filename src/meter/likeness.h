// How alike the microphone's level is to the reference's, at each distance between them.
//
// Correlation of the changes of two levels from frame to frame, normalised to -1 to 1. An
// echo rises and falls with its reference, wherever it is in time, whatever a room or a
// loudspeaker makes of it; unrelated sounds do so by chance, the less the longer they are
// looked at. Changes serve better than levels: what is slow in speech is alike in any two
// talkers.
#pragma once

#include <cstdint>

namespace nax::meter {

struct Likeness {
    // Distances looked at, in frames by which the microphone is later: 2 s, beyond the longest
    // delay at 8000 Hz (1.5 s); and 0.5 s before the reference.
    static constexpr int32_t LATEST = 127, EARLIEST = -32, DISTANCES = LATEST - EARLIEST + 1;

    float ref[2 * DISTANCES];   // changes of the reference, latest first, kept twice
    float mic[-EARLIEST];       // changes of the microphone that wait for later references
    int32_t at;                 // where the latest of both stand
    float products[DISTANCES];  // means of products; [i] is for a distance of EARLIEST + i
    float ref_power, mic_power; // means of squares of the same frames
    float weight, weight_power; // sums of what the frames weigh, and of that squared
    float last_ref_db, last_mic_db;
    // The distance at which both are most alike, as best_distance left it.
    float best; // -1 to 1
    int32_t distance;
};

// Prepares a zero-filled record.
void likeness_init(Likeness &likeness);

// Forgets what was learnt, for an echo that has moved.
void forget(Likeness &likeness);

// Takes in a frame's powers, full scale 1. Where learn is false the frame only passes.
void take_in(Likeness &likeness, float ref_power, float mic_power, bool learn);

// Looks for the distance at which both are most alike.
void find_best(Likeness &likeness);

// What the best likeness of unrelated sounds stays below in 97 of 100 cases.
float chance(const Likeness &likeness);

} // namespace nax::meter
