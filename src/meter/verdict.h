// What the slow levels and counts of a stream mean: pure functions.
#pragma once

#include <cstdint>

namespace nax::meter {

// What is known of a stream at one moment. Seconds are of audio.
struct Evidence {
    float far_end_s;          // far end since the start
    float far_since_s;        // far end since the delay moved, or since the start
    float far_silent_s;       // since the last of it, or since the start
    float mic_dead_s;         // since any microphone gave anything
    float heard_s;            // of microphone above its own noise, since the start
    float unheard_s;          // since the last of it
    float clipped;            // largest share of a channel's samples, 0 to 1
    float removed_db;         // over the last two seconds of far end
    float removing;           // share of the last seconds of far end in which anything was removed
    float sounding;           // and in which the microphone was heard
    bool found;               // the delay has moved at least once
    int32_t delay_moves;      // in the last minute, the first one of all not counted
    int32_t delay_moves_long; // in the last ten minutes
    float likeness;           // of the levels of microphone and reference, -1 to 1,
    float chance;             // what it is in unrelated sounds,
    int32_t distance;         // and where it is: by how many frames the microphone is later
    float applied;            // the applied delay, in frames
};

// The verdict that the evidence alone gives, one of NAX_METER_*, or UNDECIDED: the one that
// stands is as good as any.
inline constexpr int32_t UNDECIDED = -1;
int32_t judged(const Evidence &evidence);

// The verdict that stands. Times are numbers of frames.
struct Standing {
    static constexpr int32_t REMEMBERED = 4;
    int32_t verdict;
    int32_t since;               // when it began to stand
    int32_t next;                // what was judged last,
    int32_t next_since;          // and since when without a break
    int32_t changed[REMEMBERED]; // when the verdict changed, latest first
    int32_t changes;             // how many of them there are
};

// Takes in what was judged after so many frames.
void settle(Standing &standing, int32_t judgement, int32_t frames);

} // namespace nax::meter
