#include "meter/verdict.h"

#include "nax_meter.h"

namespace nax::meter {

static constexpr float DEAD_DB = -80.0f;     // below any microphone's own noise
static constexpr float HEARD_S = 5.0f;       // of sound before a reference is missed
static constexpr float FAR_SILENT_S = 10.0f; // a pause of the far end is shorter
static constexpr float SOUND_DB = -55.0f;    // near end: louder than a quiet room
static constexpr float CLIPPED = 5e-4f;      // share of samples
static constexpr int32_t MOVES = 4;          // of the delay in a minute
static constexpr float REMOVED_DB = 3.0f;
static constexpr float FAR_END_S = 3.0f;

int32_t judged(const Evidence &evidence)
{
    if (evidence.mic_db < DEAD_DB) return NAX_METER_NO_MICROPHONE;
    if (evidence.far_end_s == 0.0f)
        return evidence.mic_heard_s > HEARD_S ? NAX_METER_NO_REFERENCE : NAX_METER_REFERENCE_SILENT;
    if (evidence.clipped > CLIPPED) return NAX_METER_CLIPPED;
    if (evidence.delay_moves > MOVES) return NAX_METER_DELAY_MOVES;
    if (evidence.far_silent_s > FAR_SILENT_S)
        return evidence.mic_db > SOUND_DB ? NAX_METER_NEAR_END_ONLY : NAX_METER_REFERENCE_SILENT;
    if (evidence.removed_db > REMOVED_DB) return NAX_METER_CANCELLING;
    return evidence.far_end_s < FAR_END_S ? NAX_METER_SEARCHING : NAX_METER_NOT_HEARD;
}

void settle(Standing &standing, int32_t judgement, float step_s)
{
    constexpr float SURE_S = 1.0f; // for how long a judgement must be the same
    standing.stood_s += step_s;
    standing.next_s = judgement == standing.next ? standing.next_s + step_s : 0.0f;
    standing.next = judgement;
    if (judgement == standing.verdict || standing.next_s < SURE_S) return;
    standing.verdict = judgement;
    standing.stood_s = 0.0f;
}

} // namespace nax::meter
