// The estimator put together. Each frame: both signals to 4 kHz, evidence, peaks, a fine look
// where one is due, the decision.
#include "engines/delay_estimator.h"

#include "engines/arrival.h"
#include "engines/cross_spectrum.h"
#include "engines/decimator.h"
#include "engines/delay_decision.h"
#include "engines/delay_lines.h"
#include "engines/lag_peaks.h"
#include "kernels/saturate.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace nax {

// Inverse transforms per frame while nothing is followed or what is followed hardly stands,
// and otherwise. More of them find the delay no sooner.
static constexpr int32_t SEARCHING_TRANSFORMS = 3;
static constexpr int32_t HOLDING_TRANSFORMS = 1;

// Frames from one fine look to the next: on average at a settled path, on average where looks
// are urgent, and at least. Neighbouring frames share half of their samples, so two looks in a
// row tell little more than one.
static constexpr int32_t SETTLED_PERIOD = 12;
static constexpr int32_t URGENT_PERIOD = 4;
static constexpr int32_t HURRY_PERIOD = 2;
// Urgent looks take from a credit of so many. While looks are urgent the credit grows by a frame's
// share in every frame, otherwise in every sixth one.
static constexpr int32_t LOOKS_AHEAD = 24;
static constexpr int32_t CREDIT_PERIOD = 6;
// The rest of a frame costs least at 8000 Hz, so looks are rarer there.
static constexpr int32_t NARROW_SETTLED_PERIOD = 18;
static constexpr int32_t NARROW_URGENT_PERIOD = 6;

struct Estimator {
    int32_t enable;    // word 0, which the front end reads
    int32_t base;      // samples that the front end adds to every estimate
    int32_t applied;   // delay that the front end applies, samples
    struct Work *work; // null: no memory, no estimate
};
static_assert(sizeof(Estimator) <= DELAY_STATE_WORDS * sizeof(int32_t), "it lives in the words");

struct Work {
    int32_t frame; // samples per channel
    int32_t mics;
    int32_t refs;
    int32_t settled_period;
    int32_t urgent_period;
    float followed; // latest height at the path that is followed
    int32_t tick;   // frames
    int32_t rested; // frames since the last fine look, at most HURRY_PERIOD
    uint32_t aims;  // the decision's, at the latest look
    int32_t credit; // frames' worth of looks in a hurry
    Decimator ref;
    Decimator mic;
    CrossSpectrum cross;
    LagPeaks peaks;
    Arrival arrival;
    DelayDecision decision;
    int16_t mono_ref[HOP * MAX_DECIMATION]; // this frame, its channels mixed
    int16_t mono_mic[HOP * MAX_DECIMATION];
};

static void release(Work *work)
{
    if (!work) return;
    cross_spectrum_release(work->cross);
    lag_peaks_release(work->peaks);
    arrival_release(work->arrival);
    free(work);
}

static Work *allocate_work(int32_t sample_rate, int32_t frame)
{
    Work *work = static_cast<Work *>(calloc(1, sizeof(Work)));
    if (!work) return nullptr;
    const int32_t partitions = DELAY_REACH / frame;
    const bool complete = cross_spectrum_init(work->cross, partitions) &&
                          lag_peaks_init(work->peaks, partitions) &&
                          arrival_init(work->arrival, sample_rate, frame, DELAY_REACH);
    if (complete) return work;
    release(work);
    return nullptr;
}

int32_t AEC_DelayInit(int32_t enable, int32_t sample_rate, int32_t half_frame, int32_t mics,
                      int32_t base_delay, int32_t refs, int32_t *state)
{
    const int32_t frame = 2 * half_frame;
    const bool mixable = refs > 0 && refs <= MAX_MIXED;
    Work *work = mixable ? allocate_work(sample_rate, frame) : nullptr;
    if (work) {
        const bool narrow = sample_rate < FINE_RATE;
        const int32_t decimation = sample_rate / ESTIMATOR_RATE;
        work->frame = frame;
        work->mics = mics;
        work->refs = refs;
        work->settled_period = narrow ? NARROW_SETTLED_PERIOD : SETTLED_PERIOD;
        work->urgent_period = narrow ? NARROW_URGENT_PERIOD : URGENT_PERIOD;
        work->credit = LOOKS_AHEAD * work->urgent_period;
        decimator_init(work->ref, decimation);
        decimator_init(work->mic, decimation);
        delay_decision_init(work->decision, decimation, frame, base_delay);
    }
    const Estimator estimator = {enable, base_delay, std::clamp(base_delay, 0, DELAY_REACH), work};
    memcpy(state, &estimator, sizeof estimator);
    return work ? 0 : -1;
}

int32_t AEC_DelayDestroy(int32_t *state)
{
    Estimator estimator;
    memcpy(&estimator, state, sizeof estimator);
    release(estimator.work);
    return 0;
}

// Whether a fine look is due in this frame.
static bool is_look_due(Work &work)
{
    const int32_t most = LOOKS_AHEAD * work.urgent_period;
    const bool urgent = is_urgent(work.decision);
    work.tick = (work.tick + 1) % (work.settled_period * CREDIT_PERIOD);
    if (urgent || work.tick % CREDIT_PERIOD == 0) work.credit = std::min(work.credit + 1, most);
    work.rested = std::min(work.rested + 1, HURRY_PERIOD);
    if (!urgent) return work.decision.target != NONE && work.tick % work.settled_period == 0;
    return work.credit >= work.urgent_period &&
           work.rested >= (work.decision.phase == Phase::DOUBTED ? 1 : HURRY_PERIOD);
}

// Looks finely at the target. Returns whether there is an onset to decide on. There is one after
// every other look, because the transform back costs half as much as a look.
static bool look(Work &work, Onset &onset)
{
    choose_target(work.decision, work.peaks.peaks, work.peaks.partitions, work.followed);
    if (work.aims != work.decision.aims)
        arrival_aim(work.arrival, work.decision.target * work.decision.decimation);
    work.aims = work.decision.aims;
    if (!is_look_due(work) || !arrival_update(work.arrival)) return false;
    if (is_urgent(work.decision)) work.credit -= work.urgent_period;
    work.rested = 0;
    if (work.arrival.updates % 2 == 0) return false;
    onset = arrival_onset(work.arrival);
    return true;
}

static void take_in(Work &work, const int16_t *mic_frame, const int16_t *ref_frame)
{
    float slow_ref[HOP], slow_mic[HOP];
    mix_to_mono(ref_frame, work.refs, work.frame, work.mono_ref);
    mix_to_mono(mic_frame, work.mics, work.frame, work.mono_mic);
    arrival_listen(work.arrival, work.mono_ref, work.mono_mic);
    decimate(work.ref, work.mono_ref, slow_ref);
    decimate(work.mic, work.mono_mic, slow_mic);

    const DelayDecision &decision = work.decision;
    const Memory memory = is_searching(decision, work.followed) ? Memory::LONG : Memory::SHORT;
    Sight sight = {};
    Onset onset;
    bool looked = false;
    if (cross_spectrum_update(work.cross, slow_ref, slow_mic, memory)) {
        lag_peaks_search(work.peaks, work.cross,
                         memory == Memory::LONG ? SEARCHING_TRANSFORMS : HOLDING_TRANSFORMS);
        if (const Peak *top = tallest_peak(work.peaks); top && top->age == 0) {
            work.followed =
                decision.found == NONE ? 0 : height_at(work.peaks, work.cross, decision.found);
            sight.news = true;
            sight.followed = work.followed;
            sight.lag = top->lag;
            sight.height = top->height;
            sight.rival = tallest_rival(work.peaks, work.cross, top->lag);
            sight.path = tallest_within(work.peaks, decision.found, PATH_LAGS);
        }
        looked = look(work, onset);
        sight.target = tallest_within(work.peaks, decision.target, CANDIDATE_LAGS);
    }
    decide_on_delay(work.decision, sight, looked ? &onset : nullptr);
}

int32_t AEC_DelayProcess(const int16_t *mic_frame, const int16_t *ref_frame, int32_t, int32_t,
                         int32_t *state)
{
    Estimator estimator;
    memcpy(&estimator, state, sizeof estimator);
    if (Work *work = estimator.work) {
        take_in(*work, mic_frame, ref_frame);
        estimator.applied = work->decision.applied.now;
    }
    memcpy(state, &estimator, sizeof estimator);
    return saturate_int32(int64_t{estimator.applied} - estimator.base);
}

} // namespace nax
