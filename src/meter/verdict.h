// What the slow levels and counts of a stream mean: pure functions.
#pragma once

#include <cstdint>

namespace nax::meter {

// What is known of a stream at one moment. Seconds are of audio.
struct Evidence {
    float far_end_s;     // far end since the start
    float far_silent_s;  // since the last far end, or since the start
    float mic_db;        // loudest level of a microphone in the last seconds, dBFS
    float mic_heard_s;   // how long, since the start, a microphone heard anything
    float removed_db;    // over the last two seconds of far end
    float clipped;       // largest share of any channel's samples, 0 to 1
    int32_t delay_moves; // in the last minute
};

// The verdict that the evidence alone gives, one of NAX_METER_*.
int32_t judged(const Evidence &evidence);

// The verdict that stands.
struct Standing {
    int32_t verdict;
    float stood_s; // for how long
    int32_t next;  // what was judged last,
    float next_s;  // and for how long without a break
};

// Takes in what was judged, step_s after the last.
void settle(Standing &standing, int32_t judgement, float step_s);

} // namespace nax::meter
