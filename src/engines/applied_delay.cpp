#include "engines/applied_delay.h"

#include "engines/delay_lines.h"

#include <algorithm>

namespace nax {

// An echo that arrives less than so much after the delay is late.
static constexpr int32_t LATE_EIGHTHS_MS = 3;

// A delay that is not a whole number of frames is read with a silent end once per lap of the
// line. The silence is shorter when the delay is nearer to the next whole frame, and comes more
// often when the line holds fewer frames. The next shorter whole number of frames has no silence
// and loses tail. It costs less up to this share of a frame: a third at 8 kHz, half at 16, four
// fifths at 48.
static int32_t whole_frame_percent(int32_t decimation)
{
    return decimation <= 2 ? 33 : decimation <= 4 ? 53 : decimation <= 8 ? 67 : 80;
}

void applied_delay_init(AppliedDelay &applied, int32_t decimation, int32_t frame, int32_t base)
{
    applied = {};
    applied.frame = frame;
    applied.percent = whole_frame_percent(decimation);
    applied.base = base;
    applied.now = std::clamp(base, 0, DELAY_REACH);
    applied.second = AppliedDelay::NO_MOVE;
}

int32_t delay_for(const AppliedDelay &applied, int32_t arrival, int32_t margin)
{
    const int32_t quarter_ms = applied.frame / 64;
    const int32_t exact =
        std::clamp(arrival - margin * quarter_ms, 0, longest_served(applied.frame));
    const int32_t past_whole_frame = exact % applied.frame;
    return 100 * past_whole_frame < applied.percent * applied.frame ? exact - past_whole_frame
                                                                    : exact;
}

bool is_late(const AppliedDelay &applied, int32_t arrival)
{
    const int32_t eighth_ms = applied.frame / 128;
    return arrival - applied.now < LATE_EIGHTHS_MS * eighth_ms;
}

bool does_base_serve(const AppliedDelay &applied, int32_t arrival)
{
    return !applied.has_left_base && applied.base > 0 && !is_late(applied, arrival) &&
           arrival - applied.now <= applied.frame;
}

bool is_much_tail(const AppliedDelay &applied, int32_t wanted)
{
    return wanted - applied.now > applied.frame / 2;
}

// The detour differs by more than a frame from both delays and lasts for one frame.
void move_to(AppliedDelay &applied, int32_t wanted)
{
    const int32_t now = applied.now;
    if (wanted == now) return;
    applied.has_left_base = true;
    applied.now = wanted;
    if (is_taken_up(wanted, now, applied.frame)) return;
    const int32_t detour = applied.frame + 1;
    const int32_t above = std::max(wanted, now) + detour;
    const int32_t below = std::min(wanted, now) - detour;
    applied.second = wanted;
    applied.now = above <= longest_served(applied.frame) ? above : below;
}

bool finish_move(AppliedDelay &applied)
{
    if (applied.second == AppliedDelay::NO_MOVE) return false;
    applied.now = applied.second;
    applied.second = AppliedDelay::NO_MOVE;
    return true;
}

} // namespace nax
