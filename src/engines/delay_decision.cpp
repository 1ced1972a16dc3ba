// docs/experiments.md has the comparisons behind the numbers, and what each of them changes.
#include "engines/delay_decision.h"

#include <algorithm>
#include <cstdlib>

namespace nax {

// Heights are in deviations of what unrelated signals give, which stay below 6.
static constexpr float CERTAIN_HEIGHT = 8; // the coarse search is believed alone
static constexpr float SURE_HEIGHT = 6.5f; // it is believed where the fine look agrees
static constexpr float WEAK_HEIGHT = 4;    // below it nothing stands
static constexpr float CANDIDATE_HEIGHT = 3.5f;
// Steady tones repeat at every period. A peak elsewhere of this share of the height forbids
// a decision.
static constexpr float RIVAL_SHARE = 0.7f;
// A peak elsewhere replaces the path that is followed when it is so much taller. Where that
// path is sure itself the factor is larger, because tones make tall peaks beside it.
static constexpr float BEAT = 1 / RIVAL_SHARE;
static constexpr float TALL_BEAT = 2.5f;
// Sightings in a row after which a peak near the path is believed.
static constexpr int32_t FEW_SIGHTINGS = 4;

// A candidate is verified when the squares of both heights make this sum, the fine evidence
// rests on so many updates, and its height has grown by this factor since the first look. The
// height of an echo grows from look to look. An onset that both signals share by chance is
// over after the first.
static constexpr float VERIFIED_SUM = 95;
static constexpr int32_t LEAST_UPDATES = 3;
static constexpr float GROWTH = 1.15f;
// A candidate that is below WEAK_HEIGHT after so many updates is refused.
static constexpr int32_t REFUSAL_UPDATES = 6;

// Onsets in a row that settle a path, and after which a settled path's delay moves to win tail.
static constexpr int32_t SETTLED_AGREEMENTS = 2;
static constexpr int32_t TAIL_AGREEMENTS = 24;
// Frames after a doubt until the path may be doubted again: one second.
static constexpr int32_t CALM_FRAMES = 60;

// Differences in lags that do not count: between sightings, between candidates or aims, and
// between an onset and the middle of its path.
static constexpr int32_t SAME_LAGS = 2;
static constexpr int32_t SAME_AIM_LAGS = 10;
static constexpr int32_t OFF_CENTRE_LAGS = 2 * SAME_AIM_LAGS;

// The delay is shorter than the arrival by so many quarters of a millisecond. A delay that is
// 0.25 ms too long costs half of what the canceller removes, one that is 2 ms too short 0.3 dB.
// The coarse margin is larger because the coarse search may take a reflection for the arrival.
static constexpr int32_t COARSE_MARGIN = 9;
static constexpr int32_t FINE_MARGIN = 4;

static constexpr int32_t MOST_COUNTED = 1000; // sightings and agreements

void delay_decision_init(DelayDecision &decision, int32_t decimation, int32_t frame, int32_t base)
{
    decision = {};
    applied_delay_init(decision.applied, decimation, frame, base);
    decision.decimation = decimation;
    decision.phase = Phase::SEARCHING;
    decision.found = NONE;
    decision.suspect = NONE;
    decision.target = NONE;
    std::fill_n(decision.refused, DelayDecision::REFUSALS, NONE - PATH_LAGS);
}

bool is_searching(const DelayDecision &decision, float followed)
{
    return decision.found == NONE || followed < WEAK_HEIGHT;
}

bool is_urgent(const DelayDecision &decision)
{
    return decision.phase != Phase::SEARCHING && decision.phase != Phase::SETTLED;
}

static bool is_near(int32_t lag, int32_t other, int32_t spread)
{
    return std::abs(lag - other) <= spread;
}

static int32_t quarter_ms(const DelayDecision &decision) { return decision.applied.frame / 64; }

static void aim(DelayDecision &decision, int32_t lag, Phase phase)
{
    decision.target = lag;
    decision.phase = phase;
    decision.look = {};
    decision.agreements = 0;
    decision.aims++;
}

// Whether a peak is worth a fine look while nothing stands.
static bool is_candidate(const DelayDecision &decision, const Peak &peak, float least)
{
    if (!is_fresh(peak) || peak.height < least) return false;
    const int32_t found = decision.found;
    if (found != NONE && peak.lag >= found - PATH_LAGS && peak.lag <= found + REFLECTION_LAGS)
        return false;
    return std::none_of(decision.refused, decision.refused + DelayDecision::REFUSALS,
                        [&peak](int32_t lag) { return is_near(peak.lag, lag, SAME_AIM_LAGS); });
}

// The tallest candidate, or NONE. The one that is being verified counts for more, and its lag
// stays as it is.
static int32_t best_candidate(const DelayDecision &decision, const Peak *peaks, int32_t count,
                              float least)
{
    const bool undecided =
        decision.phase == Phase::VERIFYING && decision.look.updates < REFUSAL_UPDATES;
    int32_t best = NONE;
    float most_favour = 0;
    for (int32_t p = 0; p < count; p++) {
        if (!is_candidate(decision, peaks[p], least)) continue;
        const bool in_hand = undecided && is_near(peaks[p].lag, decision.target, CANDIDATE_LAGS);
        const float favour = (in_hand ? BEAT : 1) * peaks[p].height;
        if (favour <= most_favour) continue;
        best = in_hand ? decision.target : peaks[p].lag;
        most_favour = favour;
    }
    return best;
}

void choose_target(DelayDecision &decision, const Peak *peaks, int32_t count, float followed)
{
    const int32_t candidate =
        is_searching(decision, followed)
            ? best_candidate(decision, peaks, count, std::max(CANDIDATE_HEIGHT, BEAT * followed))
            : NONE;
    if (candidate != NONE) {
        if (decision.phase != Phase::VERIFYING || decision.target != candidate)
            aim(decision, candidate, Phase::VERIFYING);
    } else if (decision.found == NONE) {
        decision.phase = Phase::SEARCHING;
        decision.target = NONE;
    } else if (decision.phase == Phase::VERIFYING || decision.phase == Phase::SEARCHING ||
               !is_near(decision.found, decision.target, SAME_AIM_LAGS)) {
        aim(decision, decision.found, Phase::SETTLING);
    }
}

// Follows a path from now on; returns the delay wanted for it.
static int32_t follow(DelayDecision &decision, int32_t lag, int32_t arrival, int32_t margin)
{
    decision.found = lag;
    decision.placed = false;
    const AppliedDelay &applied = decision.applied;
    return does_base_serve(applied, arrival) ? applied.now : delay_for(applied, arrival, margin);
}

// The coarse search contradicts a settled path, which is looked at anew. It stays when its onset
// reaches a height again.
static void doubt(DelayDecision &decision, float height)
{
    if (decision.phase != Phase::SETTLED || decision.calm > 0) return;
    decision.phase = Phase::DOUBTED;
    decision.doubted_onset = decision.look.lag;
    decision.doubted_height = height;
    decision.aims++;
}

// Whether the coarse search may be believed about a new path.
static bool is_believable(const DelayDecision &decision, const Sight &sight)
{
    if (sight.height >= CERTAIN_HEIGHT) return true;
    if (sight.height < SURE_HEIGHT) return false;
    const bool confirmed =
        decision.phase == Phase::VERIFYING && is_near(sight.lag, decision.target, CANDIDATE_LAGS) &&
        decision.look.height >=
            (decision.look.updates >= LEAST_UPDATES ? WEAK_HEIGHT : CERTAIN_HEIGHT);
    // A path that is lost does not contradict, but a later peak may be its own reflection.
    const int32_t later = sight.lag - decision.found;
    const bool reflection = later > 0 && later <= REFLECTION_LAGS;
    const bool lost = decision.found != NONE && sight.followed < WEAK_HEIGHT && !reflection;
    return confirmed || lost;
}

static bool beats_path_followed(const DelayDecision &decision, const Sight &sight)
{
    const int32_t later = sight.lag - decision.found;
    if (decision.found == NONE) return true;
    if (std::abs(later) <= REFLECTION_LAGS && decision.sightings >= FEW_SIGHTINGS)
        return sight.height > (later > 0 ? BEAT : 1) * std::max(sight.followed, sight.path);
    if (later > 0 && later <= REFLECTION_LAGS) return false;
    const bool fallen = sight.followed < SURE_HEIGHT;
    return sight.height > (fallen ? BEAT : TALL_BEAT) * sight.followed;
}

// The tallest peak lies elsewhere than the path that is followed. Returns the delay wanted.
static int32_t see_elsewhere(DelayDecision &decision, const Sight &sight)
{
    if (decision.phase == Phase::SETTLED && sight.height >= SURE_HEIGHT &&
        sight.height > sight.followed)
        doubt(decision, WEAK_HEIGHT);
    if (decision.phase == Phase::SETTLED || decision.phase == Phase::DOUBTED ||
        sight.rival >= RIVAL_SHARE * sight.height || !is_believable(decision, sight) ||
        !beats_path_followed(decision, sight))
        return decision.applied.now;
    return follow(decision, sight.lag, sight.lag * decision.decimation, COARSE_MARGIN);
}

// The tallest peak lies in the path that is followed. Once the fine look has settled, it
// decides there. While the lag followed so far stands taller, another peak may come from the
// talker's pitch. Returns the delay wanted.
static int32_t see_within_path(DelayDecision &decision, const Sight &sight)
{
    const AppliedDelay &applied = decision.applied;
    const int32_t arrival = sight.lag * decision.decimation;
    if (sight.rival >= RIVAL_SHARE * sight.height || sight.height < SURE_HEIGHT ||
        sight.height < sight.followed || decision.sightings < FEW_SIGHTINGS)
        return applied.now;
    if (decision.phase == Phase::SETTLED || decision.phase == Phase::DOUBTED) {
        if (sight.lag < decision.found - SAME_AIM_LAGS)
            doubt(decision, is_late(applied, arrival) ? SURE_HEIGHT : WEAK_HEIGHT);
        return applied.now;
    }
    decision.found = sight.lag;
    if (arrival >= applied.now) return applied.now;
    decision.placed = false;
    return delay_for(applied, arrival, COARSE_MARGIN);
}

static int32_t take_sight(DelayDecision &decision, const Sight &sight)
{
    const bool again = decision.suspect != NONE && is_near(sight.lag, decision.suspect, SAME_LAGS);
    decision.sightings = again ? std::min(decision.sightings + 1, MOST_COUNTED) : 1;
    if (!again) decision.suspect = sight.lag;
    const bool same_path = decision.found != NONE && is_near(sight.lag, decision.found, PATH_LAGS);
    return same_path ? see_within_path(decision, sight) : see_elsewhere(decision, sight);
}

// A look at a candidate follows it, refuses it or leaves it as it is. Returns the delay wanted.
static int32_t verify(DelayDecision &decision, const Onset &onset, float coarse_height)
{
    if (onset.updates == 1) decision.first_height = onset.height;
    const float sum = onset.height * onset.height + coarse_height * coarse_height;
    if (onset.updates >= LEAST_UPDATES && onset.height >= GROWTH * decision.first_height &&
        onset.height >= SURE_HEIGHT && sum >= VERIFIED_SUM) {
        aim(decision, decision.target, Phase::SETTLING);
        return follow(decision, decision.target, onset.lag, FINE_MARGIN);
    }
    if (onset.updates >= REFUSAL_UPDATES && onset.height < WEAK_HEIGHT) {
        decision.refused[decision.next_refusal] = decision.target;
        decision.next_refusal = (decision.next_refusal + 1) % DelayDecision::REFUSALS;
    }
    return decision.applied.now;
}

// A look at a path that is doubted. The path stays settled when its onset stands again.
static void resolve_doubt(DelayDecision &decision, const Onset &onset)
{
    if (onset.updates < LEAST_UPDATES) return;
    const bool stands = onset.height >= decision.doubted_height &&
                        is_near(onset.lag, decision.doubted_onset, quarter_ms(decision));
    decision.phase = stands ? Phase::SETTLED : Phase::SETTLING;
    if (!stands) decision.agreements = 0;
    decision.calm = CALM_FRAMES;
}

// A look at the path that is followed puts the delay right by its onset. Returns the delay
// wanted.
static int32_t settle(DelayDecision &decision, const Onset &onset, int32_t before)
{
    const AppliedDelay &applied = decision.applied;
    const bool agrees = decision.agreements > 0 && is_near(onset.lag, before, quarter_ms(decision));
    if (onset.height >= SURE_HEIGHT)
        decision.agreements = agrees ? std::min(decision.agreements + 1, MOST_COUNTED) : 1;
    else if (onset.height < SURE_HEIGHT / 2)
        decision.agreements = 0;
    decision.phase = decision.agreements >= SETTLED_AGREEMENTS ? Phase::SETTLED : Phase::SETTLING;
    if (decision.phase == Phase::SETTLING || onset.height < SURE_HEIGHT) return applied.now;

    // The first time there is no adaptation to lose. Later a move for tail waits, because an
    // onset that comes and goes must not move the delay to and fro.
    const int32_t wanted = delay_for(applied, onset.lag, FINE_MARGIN);
    const bool tail = applied.has_left_base && is_much_tail(applied, wanted) &&
                      (!decision.placed || decision.agreements >= TAIL_AGREEMENTS);
    decision.placed = true;
    const int32_t lag = onset.lag / decision.decimation;
    if (!is_near(lag, decision.found, OFF_CENTRE_LAGS)) decision.found = lag;
    return is_late(applied, onset.lag) || tail ? wanted : applied.now;
}

static int32_t take_look(DelayDecision &decision, const Onset &onset, float coarse_height)
{
    const int32_t before = decision.look.lag;
    decision.look = onset;
    switch (decision.phase) {
    case Phase::SEARCHING: break;
    case Phase::VERIFYING: return verify(decision, onset, coarse_height);
    case Phase::SETTLING:
    case Phase::SETTLED: return settle(decision, onset, before);
    case Phase::DOUBTED: resolve_doubt(decision, onset); break;
    }
    return decision.applied.now;
}

int32_t decide_on_delay(DelayDecision &decision, const Sight &sight, const Onset *onset)
{
    decision.calm = std::max(decision.calm - 1, 0);
    if (finish_move(decision.applied)) return decision.applied.now;
    int32_t wanted = decision.applied.now;
    // The look comes first: it may end a doubt that keeps the coarse search from deciding.
    if (onset) wanted = take_look(decision, *onset, sight.target);
    if (sight.news && wanted == decision.applied.now) wanted = take_sight(decision, sight);
    move_to(decision.applied, wanted);
    return decision.applied.now;
}

} // namespace nax
