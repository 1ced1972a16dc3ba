// Decides on a delay from the evidence of cross_spectrum.cpp, and when to ask for it.
// The front end applies a new delay only when it differs from the applied one by more
// than a frame; that rule is repeated here, so that the estimator knows what is
// applied and can reach a nearer delay by two moves.
#include "engines/delay_estimator.h"

#include "engines/cross_spectrum.h"
#include "engines/decimator.h"
#include "kernels/saturate.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace nax {

static constexpr int32_t STATE_WORDS = 28;
static constexpr int32_t REACH = 12288; // samples that the front end can hold back

// Inverse transforms per frame, while there is no answer yet and after. More of them
// find the delay no sooner.
static constexpr int32_t SEARCHING_TRANSFORMS = 3;
static constexpr int32_t HOLDING_TRANSFORMS = 1;

// A peak is believed at once from this height, or when seen twice from the lower one.
// Unrelated signals stay below 6 (docs/experiments.md).
static constexpr float SURE_HEIGHT = 7.0f;
static constexpr float LIKELY_HEIGHT = 6.5f;
static constexpr int32_t LIKELY_SIGHTINGS = 2;
// ... unless a peak elsewhere reaches this share of it: steady tones repeat at every
// period, and say nothing.
static constexpr float RIVAL_SHARE = 0.7f;
// A delay that was found gives way only to one so much taller.
static constexpr float BEAT = 1.4f;
// Peaks within so many lags belong to one echo path: 12 ms.
static constexpr int32_t PATH_LAGS = 48;
// Sightings at one lag after which the applied delay is corrected within its frame:
// soon when the echo comes before the filter, later when only tail is to be won.
static constexpr int32_t LOST_SIGHTINGS = 4;
static constexpr int32_t STUBBORN_SIGHTINGS = 24;
static constexpr int32_t TAIL_SIGHTINGS = 12;
static constexpr int32_t SAME_LAGS = 2;

// The reference is held back by this much less than the first arrival: a real
// loudspeaker's sound begins up to 0.8 ms before its peak, and an alignment that cuts
// it off costs 5 dB. By more where the arrival moved earlier, as a clock that drifts
// will move it on.
static constexpr int32_t MARGIN_LAGS = 4;      // 1 ms
static constexpr int32_t LOST_MARGIN_LAGS = 8; // 2 ms

struct Estimator {
    int32_t enable; // word 0, which the front end reads
    int32_t decimation;
    int32_t frame; // samples per channel
    int32_t mics;
    int32_t refs;
    int32_t base;      // samples that the front end adds to every estimate
    int32_t applied;   // delay that the front end applies, samples
    int32_t pending;   // second of two moves, samples, or NONE
    int32_t found;     // lag of the echo path that is followed, or NONE
    int32_t suspect;   // lag of the latest tallest peak
    int32_t sightings; // of it in a row
    struct Work *work; // null: no memory, no estimate
};
static_assert(sizeof(Estimator) <= STATE_WORDS * sizeof(int32_t));
static constexpr int32_t NONE = -1;

struct Work {
    Decimator ref;
    Decimator mic;
    CrossSpectrum cross;
};

int32_t AEC_DelayInit(int32_t enable, int32_t sample_rate, int32_t half_frame, int32_t mics,
                      int32_t base_delay, int32_t refs, int32_t *state)
{
    Estimator estimator = {};
    estimator.enable = enable;
    estimator.decimation = sample_rate / ESTIMATOR_RATE;
    estimator.frame = 2 * half_frame;
    estimator.mics = mics;
    estimator.refs = refs;
    estimator.base = base_delay;
    estimator.applied = base_delay;
    estimator.pending = NONE;
    estimator.found = NONE;
    estimator.suspect = NONE;

    const bool mixable = refs > 0 && refs <= MAX_MIXED;
    Work *work = mixable ? static_cast<Work *>(calloc(1, sizeof(Work))) : nullptr;
    if (work) {
        decimator_init(work->ref, estimator.decimation);
        decimator_init(work->mic, estimator.decimation);
        if (!cross_spectrum_init(work->cross, REACH / estimator.frame)) {
            cross_spectrum_release(work->cross);
            free(work);
            work = nullptr;
        }
    }
    estimator.work = work;
    memcpy(state, &estimator, sizeof estimator);
    return work ? 0 : -1;
}

int32_t AEC_DelayDestroy(int32_t *state)
{
    Estimator estimator;
    memcpy(&estimator, state, sizeof estimator);
    if (estimator.work) cross_spectrum_release(estimator.work->cross);
    free(estimator.work);
    return 0;
}

// Delay to apply for an echo path that begins at a lag. The filter loses tail by as
// much as the delay falls short of the path; a delay that is not a whole number of
// frames is read with a silent end once per lap of the line, shorter the nearer the
// delay comes to the next whole frame. Half a frame is where the two cost the same.
static int32_t delay_for(const Estimator &estimator, int32_t lag, int32_t margin_lags)
{
    const int32_t exact = std::max(0, lag - margin_lags) * estimator.decimation;
    const int32_t past_whole_frame = exact % estimator.frame;
    return past_whole_frame < estimator.frame / 2 ? exact - past_whole_frame : exact;
}

// Takes up an echo path, or a better place within the one that is followed. Returns
// the delay wanted for it, or the applied one.
static int32_t decide(Estimator &estimator, const CrossSpectrum &cross)
{
    const Peak *top = tallest_peak(cross);
    if (!top || top->age > 0) return estimator.applied; // nothing new

    const bool seen_before = std::abs(top->lag - estimator.suspect) <= SAME_LAGS;
    estimator.sightings = seen_before ? estimator.sightings + 1 : 1;
    if (!seen_before) estimator.suspect = top->lag;
    if (tallest_rival(cross, top->lag, PATH_LAGS) >= RIVAL_SHARE * top->height)
        return estimator.applied;

    const bool same_path =
        estimator.found != NONE && std::abs(top->lag - estimator.found) <= PATH_LAGS;
    if (!same_path) {
        const bool sure = top->height >= SURE_HEIGHT ||
                          (top->height >= LIKELY_HEIGHT && estimator.sightings >= LIKELY_SIGHTINGS);
        if (!sure) return estimator.applied;
        if (estimator.found != NONE && top->height <= BEAT * height_at(cross, estimator.found))
            return estimator.applied;
        estimator.found = top->lag;
        return delay_for(estimator, top->lag, MARGIN_LAGS);
    }

    // Within the path that is followed. While the lag followed so far stands taller, an
    // earlier one may be no more than the talker's pitch, unless it stays.
    const bool took_over = height_at(cross, top->lag) >= height_at(cross, estimator.found);
    if (top->height < SURE_HEIGHT ||
        estimator.sightings < (took_over ? LOST_SIGHTINGS : STUBBORN_SIGHTINGS))
        return estimator.applied;
    estimator.found = top->lag;
    if (top->lag * estimator.decimation < estimator.applied)
        return delay_for(estimator, top->lag, LOST_MARGIN_LAGS);
    const int32_t wanted = delay_for(estimator, top->lag, MARGIN_LAGS);
    const bool much_tail = wanted - estimator.applied > estimator.frame / 2;
    return estimator.sightings >= TAIL_SIGHTINGS && much_tail ? wanted : estimator.applied;
}

// Asks for a delay. One that is too near to be taken up needs a detour by more than a
// frame from both, for a single frame.
static void move_to(Estimator &estimator, int32_t wanted)
{
    const int32_t detour = estimator.frame + 1;
    if (wanted == estimator.applied) return;
    if (std::abs(wanted - estimator.applied) >= detour) {
        estimator.applied = wanted;
        return;
    }
    const int32_t above = std::max(wanted, estimator.applied) + detour;
    const int32_t below = std::min(wanted, estimator.applied) - detour;
    estimator.pending = wanted;
    estimator.applied = above <= REACH ? above : below;
}

int32_t AEC_DelayProcess(const int16_t *mic_frame, const int16_t *ref_frame, int32_t, int32_t,
                         int32_t *state)
{
    Estimator estimator;
    memcpy(&estimator, state, sizeof estimator);
    estimator.applied = std::clamp(estimator.applied, 0, REACH);
    if (Work *work = estimator.work) {
        float ref[HOP], mic[HOP];
        decimate(work->ref, ref_frame, estimator.refs, ref);
        decimate(work->mic, mic_frame, estimator.mics, mic);
        const bool news = cross_spectrum_update(work->cross, ref, mic);
        if (estimator.pending != NONE) {
            estimator.applied = estimator.pending;
            estimator.pending = NONE;
        } else if (news) {
            cross_spectrum_search(work->cross, estimator.found == NONE ? SEARCHING_TRANSFORMS
                                                                       : HOLDING_TRANSFORMS);
            move_to(estimator, decide(estimator, work->cross));
        }
    }
    memcpy(state, &estimator, sizeof estimator);
    return saturate_int32(int64_t{estimator.applied} - estimator.base);
}

} // namespace nax
