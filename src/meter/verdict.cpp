#include "meter/verdict.h"

#include "meter/time.h"
#include "nax_meter.h"

#include <algorithm>

namespace nax::meter {

// What the rules ask for. Tuned on half of 49 recordings, healthy and with one fault each,
// and tried on the other half by bench/meter.
static constexpr float DEAD_S = 5.0f;    // a microphone that is muted for a moment is not dead,
static constexpr float GATED_S = 30.0f;  // nor one that gives nothing in a room where nothing is
static constexpr float MISSED_S = 2.0f;  // of sound, before a reference is missed
static constexpr float PAUSE_S = 10.0f;  // a shorter silence of the far end is a pause
static constexpr float FIRST_S = 3.0f;   // of far end, before an alarm is sounded
static constexpr float UNHEARD_S = 5.0f; // of far end, before it is said that nobody hears it
static constexpr float CLIPPED = 5e-4f;  // share of samples
static constexpr int32_t MOVES = 1;      // of the delay in a minute: one step may be wanted
static constexpr int32_t MOVES_LONG = 2; // in ten minutes: clocks 100 ppm apart make four
static constexpr float COPY = 0.97f;     // likeness; of an echo it is 0.9 at most
static constexpr float COPY_REMOVED_DB = 15.0f;
// Shares of the far end in which anything was removed. Of unrelated sounds it is below 0.1 in
// nine of ten cases, and 0.3 in the others; of an echo above 0.17 but in one of fifty.
static constexpr float REMOVING = 0.1f, REMOVING_UNKNOWN = 0.3f, REMOVING_ASIDE = 0.4f;
static constexpr float HARDLY = 0.08f, HARDLY_UNKNOWN = 0.2f, NOTHING = 0.04f;
// Shares of the far end in which the microphone hears more than its noise.
static constexpr float SOUNDING = 0.4f; // the near end talks less
static constexpr float IN_NOISE = 0.1f;

// Whether the canceller's filter, which begins at the applied delay and is two frames long,
// reaches what is heard. Levels tell a distance to a frame; a room's tail makes it longer.
static bool is_in_reach(const Evidence &e)
{
    const float later = static_cast<float>(e.distance) - e.applied;
    return later > -1.5f && later < 4.5f;
}

// Nothing was ever played, or not of late.
static int32_t judged_in_silence(const Evidence &e)
{
    if (e.far_silent_s < FIRST_S) return NAX_METER_SEARCHING;
    if (e.far_end_s == 0.0f && e.heard_s > MISSED_S) return NAX_METER_NO_REFERENCE;
    return e.unheard_s < PAUSE_S ? NAX_METER_NEAR_END_ONLY : NAX_METER_REFERENCE_SILENT;
}

// What becomes of the echo.
static int32_t judged_by_echo(const Evidence &e)
{
    const bool present = e.likeness > e.chance, in_reach = is_in_reach(e);
    const bool known = e.found || (present && in_reach); // there is an echo where it is looked for
    const bool aside = present && !in_reach;
    const float removing = aside ? REMOVING_ASIDE : known ? REMOVING : REMOVING_UNKNOWN;
    if (e.removing > removing) return NAX_METER_CANCELLING;
    if (e.far_end_s < FIRST_S) return NAX_METER_SEARCHING;
    if (e.far_since_s < FIRST_S) return UNDECIDED;
    if (aside) return NAX_METER_NOT_CANCELLING;
    // Where it is looked for, an echo below the room's noise is none that anybody hears.
    if (present && e.removing < HARDLY)
        return e.sounding < IN_NOISE ? NAX_METER_NOT_HEARD : NAX_METER_NOT_CANCELLING;
    const bool hardly = e.removing < (known ? HARDLY : HARDLY_UNKNOWN);
    if (present || !hardly || e.far_since_s < UNHEARD_S) return UNDECIDED;
    if (!e.found || e.sounding < SOUNDING) return NAX_METER_NOT_HEARD;
    // What is heard where an echo was found before is most likely still one.
    return e.removing < NOTHING ? NAX_METER_NOT_CANCELLING : UNDECIDED;
}

int32_t judged(const Evidence &e)
{
    const bool played = e.far_end_s > 0.0f && e.far_silent_s < e.mic_dead_s;
    if (e.mic_dead_s > (played ? DEAD_S : GATED_S)) return NAX_METER_NO_MICROPHONE;
    if (e.clipped > CLIPPED) return NAX_METER_CLIPPED;
    if (e.far_end_s == 0.0f || e.far_silent_s > PAUSE_S) return judged_in_silence(e);
    if (e.likeness > COPY && e.distance == 0 && e.removed_db > COPY_REMOVED_DB &&
        e.far_end_s > FIRST_S)
        return NAX_METER_REFERENCE_IS_MICROPHONE;
    if (e.delay_moves > MOVES || e.delay_moves_long > MOVES_LONG) return NAX_METER_DELAY_MOVES;
    return judged_by_echo(e);
}

void settle(Standing &standing, int32_t judgement, int32_t frames)
{
    constexpr float SURE_S = 1.0f; // for how long a judgement must be the same
    constexpr float MINUTE_S = 60.0f;
    if (judgement == UNDECIDED) judgement = standing.verdict;
    if (judgement != standing.next) standing.next_since = frames;
    standing.next = judgement;
    if (judgement == standing.verdict || seconds(frames - standing.next_since) < SURE_S) return;
    // Not more often than four times a minute, whatever happens.
    const int32_t fourth = standing.changed[Standing::REMEMBERED - 1];
    if (standing.changes == Standing::REMEMBERED && seconds(frames - fourth) < MINUTE_S) return;
    std::copy_backward(standing.changed, standing.changed + Standing::REMEMBERED - 1,
                       standing.changed + Standing::REMEMBERED);
    standing.changed[0] = standing.since = frames;
    standing.changes = std::min(standing.changes + 1, Standing::REMEMBERED);
    standing.verdict = judgement;
}

} // namespace nax::meter
