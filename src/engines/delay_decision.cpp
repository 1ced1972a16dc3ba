// docs/experiments.md has the comparisons behind the numbers.
#include "engines/delay_decision.h"

#include <algorithm>
#include <cstdlib>

namespace nax {

// Heights of the coarse search. Unrelated signals stay below 6.
static constexpr float CERTAIN_HEIGHT = 8;   // believed at once
static constexpr float SURE_HEIGHT = 7;      // ... when the fine look does not object
static constexpr float LIKELY_HEIGHT = 6.5f; // ... when seen twice
static constexpr int32_t LIKELY_SIGHTINGS = 2;
static constexpr int32_t STUBBORN_SIGHTINGS = 15; // where nothing is heard above 1 kHz
static constexpr float STANDING_HEIGHT = 4;
static constexpr float CANDIDATE_HEIGHT = 3.5f;
// A peak elsewhere of this share of the height forbids a decision: steady tones repeat
// at every period, and say nothing.
static constexpr float RIVAL_SHARE = 0.7f;
// A path that was found gives way only to one so much taller; to one that may be its
// reflection only when that is seen several times.
static constexpr float BEAT = 1.4f;
static constexpr float TALL_BEAT = 2.5f;    // where it stands as tall as ever: tones have ghosts
static constexpr float FALLEN_SHARE = 0.6f; // of its strongest
static constexpr float STRONGEST_DECAY = 0.995f; // per sight
static constexpr float REFLECTION_BEAT = 2;
static constexpr int32_t REFLECTION_SIGHTINGS = 4;
// Sightings after which the coarse search corrects the delay within the path, as long
// as the fine look has not settled: soon when the echo comes before the filter, later
// when the old lag still stands taller or only tail is to be won.
static constexpr int32_t LOST_SIGHTINGS = 4;
static constexpr int32_t TALLER_SIGHTINGS = 24;
static constexpr int32_t TAIL_SIGHTINGS = 12;
static constexpr int32_t SAME_LAGS = 2;
static constexpr int32_t MOST_COUNTED = 1000; // sightings and agreements

// Heights of the fine look, and how many updates they must rest on.
static constexpr float OBJECTION_HEIGHT = 4; // below it a sure peak has to wait
static constexpr int32_t LEAST_UPDATES = 3;
static constexpr float VERIFIED_HEIGHT = 6.5f;
static constexpr float VERIFIED_SUM = 95; // of the squares of both heights
// An echo goes on and its height grows; an onset that both signals share by chance is over.
static constexpr float GROWTH = 1.15f;
static constexpr float LATER_GROWTH = 1;
static constexpr int32_t LATER_UPDATES = 7;
static constexpr int32_t REFUSAL_UPDATES = 6;
static constexpr float REFUSAL_HEIGHT = 4.5f;
static constexpr float REFUSAL_SLOPE = 0.3f; // per further update
static constexpr float SETTLED_HEIGHT = 6.5f;
static constexpr int32_t SETTLED_AGREEMENTS = 2;
static constexpr int32_t TAIL_AGREEMENTS = 6;
static constexpr int32_t LATER_AGREEMENTS = 24; // where an earlier onset had been seen
// Looks at the path that is followed are urgent until so many did not settle it.
static constexpr int32_t URGENT_UPDATES = 12;
// Decay of the fine evidence per look, at a candidate and at the path that is followed.
static constexpr float VERIFYING_KEEP = 0.97f;
static constexpr float SETTLING_KEEP = 0.93f;
// A doubt is dropped when the onset stands again after so many updates, at the height of
// what so little evidence gives, and not raised again for a second.
static constexpr int32_t DOUBT_UPDATES = 3;
static constexpr float DOUBT_HEIGHT = 4.5f;
static constexpr int32_t CALM_FRAMES = 60;
// Lags by which a refused candidate and the next may differ, by which the path may move
// before the fine look is aimed anew, and by which the onset may leave its middle.
static constexpr int32_t REFUSED_LAGS = 12;
static constexpr int32_t SAME_AIM_LAGS = 8;
static constexpr int32_t OFF_CENTRE_LAGS = 20;
// The candidate in hand counts for so much more than another.
static constexpr float IN_HAND = 1.6f;

// The reference is held back by so much less than the arrival. Held back too much by a
// hair the canceller loses half of what it removes, too little by 2 ms next to nothing,
// and the coarse search may take a reflection for the arrival.
static constexpr int32_t COARSE_MARGIN = 9; // 2.25 ms
static constexpr int32_t FINE_MARGIN = 4;   // 1 ms

void delay_decision_init(DelayDecision &decision, int32_t decimation, int32_t frame, int32_t base)
{
    decision = {};
    applied_delay_init(decision.applied, decimation, frame, base);
    decision.decimation = decimation;
    decision.found = NONE;
    decision.suspect = NONE;
    decision.target = NONE;
    std::fill_n(decision.refused, DelayDecision::REFUSALS, NONE - PATH_LAGS);
}

bool is_searching(const DelayDecision &decision, float followed)
{
    return decision.found == NONE || followed < STANDING_HEIGHT;
}

static bool is_settled(const DelayDecision &decision)
{
    return decision.found != NONE && !decision.verifying &&
           decision.agreements >= SETTLED_AGREEMENTS;
}

bool is_urgent(const DelayDecision &decision)
{
    const bool unsettled = !is_settled(decision) && decision.look.updates < URGENT_UPDATES;
    return decision.target != NONE && (decision.verifying || decision.doubted || unsettled);
}

float look_keep(const DelayDecision &decision)
{
    return decision.verifying ? VERIFYING_KEEP : SETTLING_KEEP;
}

// The coarse search would leave a path that the fine look has settled on: look again.
static void doubt(DelayDecision &decision, bool feared_late)
{
    if (decision.doubted || decision.calm > 0) return;
    decision.doubted = true;
    decision.stale = true;
    decision.stood_at = decision.look.lag;
    decision.feared_late = feared_late;
}

static bool is_near(int32_t lag, int32_t other, int32_t spread)
{
    return std::abs(lag - other) <= spread;
}

// Whether a peak is worth a fine look while nothing stands.
static bool is_candidate(const DelayDecision &decision, const Peak &peak, float least)
{
    if (!is_fresh(peak) || peak.height < least) return false;
    const int32_t found = decision.found;
    if (found != NONE && peak.lag >= found - PATH_LAGS && peak.lag <= found + REFLECTION_LAGS)
        return false;
    return std::none_of(decision.refused, decision.refused + DelayDecision::REFUSALS,
                        [&peak](int32_t lag) { return is_near(peak.lag, lag, REFUSED_LAGS); });
}

static void take_aim(DelayDecision &decision, int32_t lag, bool verifying)
{
    decision.target = lag;
    decision.verifying = verifying;
    decision.look = {};
    decision.agreements = 0;
    decision.doubted = false;
}

bool choose_target(DelayDecision &decision, const Peak *peaks, int32_t count, float followed)
{
    int32_t best = NONE;
    float most_favour = 0;
    if (is_searching(decision, followed)) {
        const float least = std::max(CANDIDATE_HEIGHT, BEAT * followed);
        const bool undecided = decision.verifying && decision.look.updates < REFUSAL_UPDATES;
        for (int32_t p = 0; p < count; p++) {
            if (!is_candidate(decision, peaks[p], least)) continue;
            const bool in_hand =
                undecided && is_near(peaks[p].lag, decision.target, CANDIDATE_LAGS);
            const float favour = (in_hand ? IN_HAND : 1) * peaks[p].height;
            if (favour <= most_favour) continue;
            best = in_hand ? decision.target : peaks[p].lag;
            most_favour = favour;
        }
    }
    const bool stale = decision.stale;
    decision.stale = false;
    const bool verifying = best != NONE;
    const int32_t target = verifying ? best : decision.found;
    if (verifying == decision.verifying &&
        (target == decision.target || (!verifying && decision.target != NONE &&
                                       is_near(target, decision.target, SAME_AIM_LAGS))))
        return stale;
    take_aim(decision, target, verifying);
    return target != NONE;
}

// Follows a path from now on; returns the delay wanted for it.
static int32_t follow(DelayDecision &decision, int32_t lag, int32_t arrival, int32_t margin)
{
    decision.found = lag;
    decision.placed = false;
    decision.strongest = 0;
    const AppliedDelay &applied = decision.applied;
    return does_base_serve(applied, arrival) ? applied.now : delay_for(applied, arrival, margin);
}

// Whether the coarse search may be believed about a new path.
static bool is_believable(const DelayDecision &decision, const Sight &sight)
{
    if (sight.height >= CERTAIN_HEIGHT) return true;
    const bool sure = sight.height >= SURE_HEIGHT ||
                      (sight.height >= LIKELY_HEIGHT && decision.sightings >= LIKELY_SIGHTINGS);
    const bool confirmed =
        decision.verifying && is_near(sight.lag, decision.target, CANDIDATE_LAGS) &&
        (decision.look.updates >= LEAST_UPDATES ? decision.look.height >= OBJECTION_HEIGHT
                                                : decision.look.height >= CERTAIN_HEIGHT);
    // What is no longer heard cannot object, except to its own reflections.
    const int32_t later = sight.lag - decision.found;
    const bool reflection = later > 0 && later <= REFLECTION_LAGS;
    const bool lost = decision.found != NONE && sight.followed < STANDING_HEIGHT && !reflection;
    return sure && (confirmed || lost || decision.sightings >= STUBBORN_SIGHTINGS);
}

static bool beats_path_followed(const DelayDecision &decision, const Sight &sight)
{
    const int32_t later = sight.lag - decision.found;
    if (decision.found == NONE) return true;
    if (std::abs(later) <= REFLECTION_LAGS && decision.sightings >= REFLECTION_SIGHTINGS)
        return sight.height >
               (later > 0 ? REFLECTION_BEAT : 1) * std::max(sight.followed, sight.path);
    if (later > 0 && later <= REFLECTION_LAGS) return false;
    const bool fallen =
        sight.followed < SURE_HEIGHT || sight.followed < FALLEN_SHARE * decision.strongest;
    return sight.height > (fallen ? BEAT : TALL_BEAT) * sight.followed;
}

// Takes up an echo path, or a better place within the one that is followed, from the
// coarse search. Returns the delay wanted for it, or the applied one.
static int32_t decide_coarsely(DelayDecision &decision, const Sight &sight)
{
    const bool seen_before =
        decision.suspect != NONE && is_near(sight.lag, decision.suspect, SAME_LAGS);
    decision.sightings = seen_before ? std::min(decision.sightings + 1, MOST_COUNTED) : 1;
    if (!seen_before) decision.suspect = sight.lag;
    decision.strongest = std::max(sight.followed, STRONGEST_DECAY * decision.strongest);
    const bool same_path = decision.found != NONE && is_near(sight.lag, decision.found, PATH_LAGS);
    if (!same_path && is_settled(decision)) {
        if (sight.height >= LIKELY_HEIGHT && sight.height > sight.followed) doubt(decision, false);
        return decision.applied.now;
    }
    if (sight.rival >= RIVAL_SHARE * sight.height) return decision.applied.now;

    const int32_t arrival = sight.lag * decision.decimation;
    if (!same_path) {
        if (!is_believable(decision, sight) || !beats_path_followed(decision, sight))
            return decision.applied.now;
        return follow(decision, sight.lag, arrival, COARSE_MARGIN);
    }

    // Within the path that is followed the fine look knows better. While the lag followed
    // so far stands taller, an earlier one may be no more than the talker's pitch, unless
    // it stays.
    const bool took_over = sight.height >= sight.followed;
    if (sight.height < SURE_HEIGHT ||
        decision.sightings < (took_over ? LOST_SIGHTINGS : TALLER_SIGHTINGS))
        return decision.applied.now;
    if (is_settled(decision)) {
        if (sight.lag < decision.found - SAME_AIM_LAGS)
            doubt(decision, took_over && is_late(decision.applied, arrival));
        return decision.applied.now;
    }
    decision.found = sight.lag;
    const int32_t wanted = delay_for(decision.applied, arrival, COARSE_MARGIN);
    if (arrival < decision.applied.now) return wanted;
    const bool much_tail = is_much_tail(decision.applied, wanted);
    const bool rough = decision.applied.has_left_base && !decision.placed; // nobody knows better
    return rough && much_tail && decision.sightings >= TAIL_SIGHTINGS ? wanted
                                                                      : decision.applied.now;
}

// A look at a candidate: follow it, turn it down, or look on.
static int32_t verify(DelayDecision &decision, const Onset &onset, float coarse_height)
{
    const float sum = onset.height * onset.height + coarse_height * coarse_height;
    if (onset.updates == 1) decision.first_height = onset.height;
    const float growth = onset.updates < LATER_UPDATES ? GROWTH : LATER_GROWTH;
    const bool grows = onset.height >= growth * decision.first_height;
    if (onset.updates >= LEAST_UPDATES && grows && onset.height >= VERIFIED_HEIGHT &&
        sum >= VERIFIED_SUM) {
        const int32_t lag = decision.target;
        take_aim(decision, lag, false);
        return follow(decision, lag, onset.lag, FINE_MARGIN);
    }
    const float refusal =
        REFUSAL_HEIGHT + REFUSAL_SLOPE * static_cast<float>(onset.updates - REFUSAL_UPDATES);
    if (onset.updates >= REFUSAL_UPDATES && onset.height < refusal) {
        decision.refused[decision.next_refusal] = decision.target;
        decision.next_refusal = (decision.next_refusal + 1) % DelayDecision::REFUSALS;
    }
    return decision.applied.now;
}

// A look at the path that is followed: put the delay right by it.
static int32_t settle(DelayDecision &decision, const Onset &onset, int32_t before)
{
    const int32_t quarter_ms = decision.applied.frame / 64;
    if (decision.doubted) {
        if (onset.updates < DOUBT_UPDATES) return decision.applied.now;
        decision.doubted = false;
        decision.calm = CALM_FRAMES;
        const float least = decision.feared_late ? SETTLED_HEIGHT : DOUBT_HEIGHT;
        const bool stands =
            onset.height >= least && is_near(onset.lag, decision.stood_at, quarter_ms);
        if (!stands) decision.agreements = 0;
        return decision.applied.now;
    }
    if (onset.height < SETTLED_HEIGHT) {
        if (onset.height < SETTLED_HEIGHT / 2) decision.agreements = 0;
        return decision.applied.now;
    }
    const bool same = is_near(onset.lag, before, quarter_ms);
    decision.agreements =
        decision.agreements > 0 && same ? std::min(decision.agreements + 1, MOST_COUNTED) : 1;
    if (!is_settled(decision)) return decision.applied.now;

    const int32_t wanted = delay_for(decision.applied, onset.lag, FINE_MARGIN);
    const int32_t lag = onset.lag / decision.decimation;
    const bool late = is_late(decision.applied, onset.lag);
    const bool much_tail = is_much_tail(decision.applied, wanted);
    // At first there is no adaptation to lose. Later an onset that comes and goes must not
    // move the delay to and fro.
    const bool first = !decision.placed;
    if (first || onset.lag < decision.earliest) decision.earliest = onset.lag;
    decision.placed = true;
    const bool reappeared = onset.lag <= decision.earliest + 4 * quarter_ms;
    const bool tail =
        decision.applied.has_left_base && much_tail &&
        (first || decision.agreements >= (reappeared ? TAIL_AGREEMENTS : LATER_AGREEMENTS));
    if (tail) decision.earliest = onset.lag;
    if (!is_near(lag, decision.found, OFF_CENTRE_LAGS)) decision.found = lag;
    return late || tail ? wanted : decision.applied.now;
}

int32_t decide(DelayDecision &decision, const Sight &sight, const Onset *onset)
{
    decision.calm = std::max(decision.calm - 1, 0);
    if (finish_move(decision.applied)) return decision.applied.now;
    int32_t wanted = decision.applied.now;
    if (onset) { // first, because it may clear the way for the coarse search
        const int32_t before = decision.look.lag;
        decision.look = *onset;
        wanted = decision.verifying ? verify(decision, *onset, sight.target)
                                    : settle(decision, *onset, before);
    }
    if (sight.news && wanted == decision.applied.now) wanted = decide_coarsely(decision, sight);
    move_to(decision.applied, wanted);
    return decision.applied.now;
}

} // namespace nax
