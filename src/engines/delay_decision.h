// Decides on the delay: from the peaks of the coarse search and the onsets of the fine look
// to the delay asked for. All that it remembers is one record; no signal comes in here.
#pragma once

#include "engines/applied_delay.h"
#include "engines/arrival.h"
#include "engines/lag_peaks.h"

#include <cstdint>

namespace nax {

inline constexpr int32_t NONE = -1; // no lag
// Peaks that lie so near to a candidate belong to it: 8 ms.
inline constexpr int32_t CANDIDATE_LAGS = 32;

// What the coarse search sees in a frame. Lags as in lag_peaks.h.
struct Sight {
    bool news;      // whether the tallest peak was transformed in this frame
    int32_t lag;    // of the tallest peak
    float height;   // of the tallest peak
    float rival;    // height of the tallest one elsewhere
    float followed; // height at the path that is followed; 0: none is
    float path;     // height of the tallest peak within that path
    float target;   // height of the tallest peak around the target
};

// What the fine look is used for.
//
//   from               to         when
//   any                VERIFYING  nothing stands and there is a candidate
//   VERIFYING          SEARCHING  there is no candidate left and no path is followed
//   any                SETTLING   a path is taken up, or the aim moves to where it has gone
//   SETTLING           SETTLED    two onsets in a row agree
//   SETTLED            SETTLING   the onset is lost
//   SETTLED            DOUBTED    the coarse search contradicts the path
//   DOUBTED            SETTLED    its onset stands again
//   DOUBTED            SETTLING   it does not; the coarse search decides again
enum class Phase {
    SEARCHING, // nothing is looked at: there is neither a path nor a candidate
    VERIFYING, // a candidate is looked at: no path is followed, or one that hardly stands
    SETTLING,  // the path that is followed is looked at, and its onset is not certain yet
    SETTLED,   // its onset is certain
    DOUBTED,   // its onset was certain and is looked at anew
};

struct DelayDecision {
    static constexpr int32_t REFUSALS = 8;

    AppliedDelay applied;
    int32_t decimation; // samples per lag
    Phase phase;
    int32_t found;     // lag of the echo path that is followed, or NONE
    int32_t suspect;   // lag of the latest tallest peak
    int32_t sightings; // of it in a row

    int32_t target;            // lag that is looked at finely, or NONE
    uint32_t aims;             // times that fine evidence was begun anew
    Onset look;                // the latest at the target; no updates: there is none
    float first_height;        // of the first look at it
    int32_t agreements;        // onsets in a row that agreed
    bool placed;               // the delay in use has been put right by the fine look
    int32_t doubted_onset;     // onset that has to stand again
    float doubted_height;      // that it has to reach
    int32_t calm;              // frames until the path may be doubted again
    int32_t refused[REFUSALS]; // candidates that the fine look turned down, a ring
    int32_t next_refusal;
};

void delay_decision_init(DelayDecision &decision, int32_t decimation, int32_t frame, int32_t base);

// Whether evidence must count for long: nothing is followed, or it hardly stands.
bool is_searching(const DelayDecision &decision, float followed);

// Chooses the lag to look at finely: a candidate out of count peaks, or the path that is
// followed. Where that is another one than before, aims counts on.
void choose_target(DelayDecision &decision, const Peak *peaks, int32_t count, float followed);

// Whether the next look at the target is awaited.
bool is_urgent(const DelayDecision &decision);

// Takes in what was seen in a frame, onset null when there was no fine look, and returns the
// delay in samples that the front end shall apply in it: 0 to longest_served, or the base delay.
int32_t decide_on_delay(DelayDecision &decision, const Sight &sight, const Onset *onset);

} // namespace nax
