// Decides on the delay: from the peaks of the coarse search and the onsets of the fine
// look to the delay asked for. Pure functions of what was seen and of a small record;
// no signal comes in here.
#pragma once

#include "engines/applied_delay.h"
#include "engines/arrival.h"
#include "engines/lag_peaks.h"

#include <cstdint>

namespace nax {

inline constexpr int32_t NONE = -1; // no lag
// Candidates that lie so near are looked at as one: 8 ms.
inline constexpr int32_t CANDIDATE_LAGS = 32;

// What the coarse search sees in a frame. Lags as in lag_peaks.h.
struct Sight {
    bool news;      // whether the tallest peak was looked at in this frame
    int32_t lag;    // of the tallest peak
    float height;   // of the tallest peak
    float rival;    // height of the tallest one elsewhere
    float followed; // height at the path that is followed; 0: none is
    float path;     // height of the tallest peak within that path
    float target;   // height of the tallest peak around the target
};

struct DelayDecision {
    static constexpr int32_t REFUSALS = 8;

    AppliedDelay applied;
    int32_t decimation; // samples per lag
    int32_t found;      // lag of the echo path that is followed, or NONE
    float strongest;    // decaying peak of its height
    int32_t suspect;    // lag of the latest tallest peak
    int32_t sightings;  // of it in a row

    int32_t target;            // lag that is looked at finely, or NONE
    bool verifying;            // the target is a candidate and not the path that is followed
    Onset look;                // the latest at the target; no updates: there is none
    float first_height;        // of the first look at it
    int32_t earliest;          // onset that it was settled at first
    int32_t agreements;        // onsets of the path followed that agreed in a row
    bool placed;               // the fine look has settled since that path was taken up
    bool doubted;              // the coarse search would leave that path
    bool stale;                // the fine evidence is to be gathered anew
    int32_t stood_at;          // onset that it was settled at then
    bool feared_late;          // the doubt says that the echo lies before the filter
    int32_t calm;              // frames until it may be doubted again
    int32_t refused[REFUSALS]; // candidates that the fine look turned down, a ring
    int32_t next_refusal;
};

void delay_decision_init(DelayDecision &decision, int32_t decimation, int32_t frame, int32_t base);

// Whether evidence must count for long: nothing is followed, or it hardly stands.
bool is_searching(const DelayDecision &decision, float followed);

// Picks the lag to look at finely, out of count peaks. Returns whether evidence for it is
// to be gathered anew.
bool choose_target(DelayDecision &decision, const Peak *peaks, int32_t count, float followed);

// Whether the next look at the target is awaited.
bool is_urgent(const DelayDecision &decision);

// Decay of the fine evidence per look at the target.
float look_keep(const DelayDecision &decision);

// Takes in what was seen in a frame, onset null when there was no fine look, and
// returns the delay in samples that the front end shall apply in it: 0 to longest_served, or the base delay.
int32_t decide(DelayDecision &decision, const Sight &sight, const Onset *onset);

} // namespace nax
