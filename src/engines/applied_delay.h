// The delay that the front end applies: which one serves an echo, and how to get there.
#pragma once

#include <cstdint>

namespace nax {

struct AppliedDelay {
    static constexpr int32_t NO_MOVE = -1;

    int32_t frame;      // samples
    int32_t percent;    // share of a frame past a whole one below which the whole one serves
    int32_t base;       // that the front end starts at, samples
    int32_t now;        // samples
    int32_t second;     // of two moves, samples, or NO_MOVE
    bool has_left_base; // since the start
};

// decimation: of the coarse search, samples per lag.
void applied_delay_init(AppliedDelay &applied, int32_t decimation, int32_t frame, int32_t base);

// Delay to apply for an echo that arrives after so many samples: 0 to longest_served. The
// filter loses as much of its tail as the delay falls short of the arrival. That is at least
// the margin, in quarters of a millisecond.
int32_t delay_for(const AppliedDelay &applied, int32_t arrival, int32_t margin);

// Whether the echo arrives before the filter begins, or less than 0.375 ms after that.
bool is_late(const AppliedDelay &applied, int32_t arrival);

// Whether the base delay serves an echo and has not been left so far. It is the caller's wish
// and then stays.
bool does_base_serve(const AppliedDelay &applied, int32_t arrival);

// Whether a move would win more than half a frame of the filter's tail, which is worth its
// adaptation.
bool is_much_tail(const AppliedDelay &applied, int32_t wanted);

// Applies a delay, at once or, where that is too near to be taken up, by a detour of a frame.
void move_to(AppliedDelay &applied, int32_t wanted);

// Makes the second of two moves. Returns false where there is none to make.
bool finish_move(AppliedDelay &applied);

} // namespace nax
