// The decision on the delay (src/engines/delay_decision), driven by what the searches
// would see. At 16000 Hz: a lag is 4 samples, a frame 256.
#include "engines/delay_decision.h"

#include "support.h"

#include "engines/delay_lines.h"

#include <algorithm>
#include <cmath>
#include <utility>

using nax::DELAY_REACH;
using nax::NONE;

namespace {

// What a test says of a sight, by name.
struct Seen {
    int32_t lag = 0;
    float height = 0;
    float rival = 0;
    float followed = 0;
    float path = 0;
    float target = 0;

    operator nax::Sight() const { return {true, lag, height, rival, followed, path, target}; }
};

struct Decision {
    explicit Decision(int32_t base = 0, int32_t decimation = 4, int32_t frame = 256)
    {
        nax::delay_decision_init(record, decimation, frame, base);
    }

    int32_t see(const Seen &seen, int32_t frames = 1)
    {
        for (int32_t n = 0; n < frames; n++)
            nax::decide_on_delay(record, seen, nullptr);
        return record.applied.now;
    }

    // A fine look, in a frame without news.
    int32_t look(const nax::Onset &onset, float coarse_height = 0)
    {
        return nax::decide_on_delay(record, {false, 0, 0, 0, 0, 0, coarse_height}, &onset);
    }

    // Offers one peak to look at, or none. Returns whether evidence starts anew.
    bool aim(int32_t lag = NONE, float height = 0, float followed = 0, int32_t age = 0)
    {
        const nax::Peak peak = {height, lag, age, 1};
        return choose(&peak, lag == NONE ? 0 : 1, followed);
    }

    bool choose(const nax::Peak *peaks, int32_t count, float followed = 0)
    {
        nax::choose_target(record, peaks, count, followed);
        return std::exchange(aims_seen, record.aims) != record.aims;
    }

    nax::DelayDecision record;
    uint32_t aims_seen = 0;
};

// Follows the path at lag 500 and has settled on it.
Decision settled()
{
    Decision decision;
    decision.see({.lag = 500, .height = 9});
    decision.see({.lag = 500, .height = 9, .followed = 10});
    EXPECT_TRUE(decision.aim(NONE, 0, 10));
    decision.look({1, 8, 2000});
    decision.look({3, 8, 2000});
    EXPECT_EQ(decision.record.applied.now, 1964);
    return decision;
}

} // namespace

TEST(DelayDecision, BelievesATallCoarsePeakWithoutARivalAtOnce)
{
    const struct {
        float height, rival;
        int32_t frames;
        bool believed;
    } CASES[] = {
        {8.0f, 0, 1, true},
        {8.0f, 5.7f, 50, false},
        {8.0f, 5.5f, 1, true},
        {7.9f, 0, 50, false},
    };
    for (const auto &[height, rival, frames, believed] : CASES) {
        const int32_t applied =
            Decision().see({.lag = 500, .height = height, .rival = rival}, frames);
        EXPECT_EQ(applied, believed ? 1964 : 0) << height << ", " << rival << ", " << frames;
    }
}

TEST(DelayDecision, CountsOnlySightingsOfTheSameLag)
{
    Decision decision;
    decision.see({.lag = 500, .height = 9});
    const Seen later = {.lag = 600, .height = 9, .followed = 4},
               other = {.lag = 610, .height = 9, .followed = 4};
    for (int32_t n = 0; n < 5; n++) {
        decision.see(later, 3);
        decision.see(other, 3);
    }
    EXPECT_EQ(decision.record.found, 500);
    Seen near_enough = other;
    near_enough.lag += 2;
    decision.see(near_enough);
    EXPECT_EQ(decision.record.found, 612);
}

TEST(DelayDecision, BelievesASurePeakAtOnceThatTheFineLookConfirms)
{
    const struct {
        nax::Onset look;
        bool believed;
    } CASES[] = {{{2, 7.9f, 2000}, false},
                 {{2, 8, 2000}, true},
                 {{3, 3.9f, 2000}, false},
                 {{3, 4, 2000}, true}};
    for (const auto &[look, believed] : CASES) {
        Decision decision;
        EXPECT_TRUE(decision.aim(500, 5));
        decision.look(look);
        EXPECT_EQ(decision.see({.lag = 540, .height = 6.5f}), 0) << "elsewhere";
        EXPECT_EQ(decision.see({.lag = 520, .height = 6.4f}), 0);
        EXPECT_EQ(decision.see({.lag = 520, .height = 6.5f, .rival = 4.6f}), 0);
        EXPECT_EQ(decision.see({.lag = 520, .height = 6.5f}), believed ? 2044 : 0) << look.height;
    }
}

// The second move of each pair is the one meant.
TEST(DelayDecision, MovesByLessThanAFrameByADetourOfOneFrame)
{
    Decision decision;
    EXPECT_EQ(decision.see({.lag = 250, .height = 9}), 964);
    EXPECT_EQ(decision.see({.lag = 225, .height = 9, .followed = 8}, 3), 964);
    EXPECT_EQ(decision.see({.lag = 225, .height = 9, .followed = 8}), 964 + 257);
    EXPECT_EQ(decision.see({}), 768);
    EXPECT_EQ(decision.see({.lag = 225, .height = 9, .followed = 9}, 9), 768);
    EXPECT_EQ(decision.see({.lag = 1250, .height = 9, .followed = 2}), 4864);
    EXPECT_EQ(decision.see({.lag = 1250, .height = 9, .followed = 9}), 4864);
    EXPECT_EQ(decision.see({.lag = 75, .height = 9, .followed = 2}), 256);
}

TEST(DelayDecision, StaysWithinTheLineWhateverTheBaseDelayOrTheOnset)
{
    for (const int32_t base : {INT32_MIN, -1000, 0, 100, DELAY_REACH, INT32_MAX}) {
        SCOPED_TRACE(base);
        Decision decision(base, 2, 128);
        const auto expect_within = [](int32_t applied) {
            EXPECT_GE(applied, 0);
            EXPECT_LE(applied, DELAY_REACH);
        };
        expect_within(decision.record.applied.now);
        expect_within(decision.see({}));
        expect_within(decision.see({.lag = 6143, .height = 9}));
        expect_within(decision.see({.lag = 6100, .height = 9}, 30));
        decision.aim();
        for (const int32_t onset : {DELAY_REACH + 111, DELAY_REACH - 40, 0, 5})
            for (int32_t n = 0; n < 30; n++)
                expect_within(decision.look({n, 9, onset}));
    }
    Decision above(0, 2, 128); // an onset that lies past the line's end is served from there
    above.aim(6140, 5);
    for (const int32_t updates : {1, 3})
        above.look({updates, updates == 1 ? 9.0f : 11.0f, DELAY_REACH + 111});
    EXPECT_EQ(above.record.applied.now, DELAY_REACH - 128);
}

TEST(DelayDecision, KeepsABaseDelayThatServes)
{
    const struct {
        int32_t base, lag, applied;
    } CASES[] = {{2000, 502, 2000},  // the echo begins with the filter
                 {2000, 564, 2000},  // ... a whole frame later
                 {2000, 565, 2224},  // ... later than that
                 {2000, 501, 1968}}; // ... before it
    for (const auto &[base, lag, applied] : CASES) {
        Decision decision(base);
        decision.see({.lag = lag, .height = 9});
        EXPECT_EQ(decision.see({}), applied) << lag;
        EXPECT_EQ(decision.record.found, lag);
    }
}

TEST(DelayDecision, LooksFinelyAtFreshPeaksThatAreTallEnough)
{
    EXPECT_FALSE(Decision().aim());
    EXPECT_FALSE(Decision().aim(500, 3.4f));
    EXPECT_FALSE(Decision().aim(500, 5, 0, 11));
    Decision decision;
    EXPECT_TRUE(decision.aim(500, 3.5f, 0, 10));
    EXPECT_EQ(decision.record.target, 500);
    EXPECT_FALSE(decision.aim(530, 5)) << "the same candidate";
    EXPECT_EQ(decision.record.target, 500);
    const nax::Peak peaks[] = {{5, 500, 0, 1}, {7.1f, 900, 0, 1}};
    EXPECT_FALSE(decision.choose(peaks, 2)) << "not so much taller";
    decision.look({6, 4.1f, 2000});
    EXPECT_TRUE(decision.choose(peaks, 2)) << "it had its time";
    EXPECT_EQ(decision.record.target, 900);
}

TEST(DelayDecision, LooksNowhereElseWhileThePathStands)
{
    Decision decision;
    decision.see({.lag = 500, .height = 9});
    EXPECT_TRUE(decision.aim(1500, 8, 4));
    EXPECT_EQ(decision.record.target, 500);
    EXPECT_FALSE(decision.aim(500 + nax::REFLECTION_LAGS, 8, 2));
    EXPECT_FALSE(decision.aim(500 - nax::PATH_LAGS, 8, 2));
    EXPECT_FALSE(decision.aim(1500, 5.3f, 3.9f));
    EXPECT_TRUE(decision.aim(1500, 5.7f, 3.9f));
    EXPECT_EQ(decision.record.target, 1500);
}

// What both signals share by chance is as tall at once as ever, and then decays.
TEST(DelayDecision, VerifiesACandidateWhoseHeightGrows)
{
    const struct {
        float first;
        nax::Onset later;
        float coarse_height;
        bool verified;
    } CASES[] = {
        {6.5f, {3, 7.4f, 2000}, 8, false},   {6.5f, {3, 7.5f, 2000}, 8, true},
        {6.5f, {9, 7.4f, 2000}, 8, false},   {6.5f, {2, 9.0f, 2000}, 8, false},
        {5.0f, {3, 6.4f, 2000}, 9, false},   {5.0f, {3, 6.5f, 2000}, 7, false},
        {5.0f, {3, 6.5f, 2000}, 7.3f, true}, {5.0f, {3, 9.8f, 2000}, 0, true},
    };
    for (const auto &[first, later, coarse_height, verified] : CASES) {
        Decision decision;
        decision.aim(500, 5);
        decision.look({1, first, 2000}, coarse_height);
        EXPECT_EQ(decision.look(later, coarse_height), verified ? 1984 : 0)
            << first << ", " << later.height << " after " << later.updates;
        EXPECT_EQ(decision.record.found, verified ? 500 : NONE);
    }
}

TEST(DelayDecision, RefusesACandidateThatStaysLow)
{
    const struct {
        int32_t updates;
        float height;
        bool refused;
    } CASES[] = {{5, 1, false}, {6, 3.9f, true}, {6, 4.1f, false}, {10, 3.9f, true}};
    for (const auto &[updates, height, refused] : CASES) {
        Decision decision;
        decision.aim(500, 5);
        decision.look({1, 4, 2000});
        decision.look({updates, height, 2000});
        decision.aim(510, 9);
        EXPECT_EQ(decision.record.target == NONE, refused) << updates << ", " << height;
        EXPECT_TRUE(decision.aim(600, 5)) << "another";
    }
}

TEST(DelayDecision, GivesARefusedCandidateAnotherChanceAfterEightOthers)
{
    Decision decision;
    for (int32_t n = 0; n <= 8; n++) {
        EXPECT_TRUE(decision.aim(500 + 100 * n, 5));
        decision.look({6, 1, 0});
    }
    decision.aim(600, 5);
    EXPECT_EQ(decision.record.target, NONE);
    EXPECT_TRUE(decision.aim(500, 5));
}

TEST(DelayDecision, LeavesAPathThatHasFallenForOneThatIsMuchTaller)
{
    const struct {
        int32_t lag;
        float height, followed, path;
        int32_t frames;
        bool left;
    } CASES[] = {
        {1250, 9, 5.0f, 5, 1, true},   {1250, 9, 6.1f, 5, 1, true},
        {1250, 12, 7.5f, 5, 1, false}, // it has not fallen
        {1250, 19, 7.5f, 5, 1, true},  {1250, 8, 5.8f, 5, 1, false},
        {1250, 7, 3.9f, 0, 1, true}, // it is lost
        {1250, 7, 4.0f, 0, 14, false}, {600, 9, 4.0f, 4, 3, false},
        {600, 9, 4.0f, 4, 4, true}, // later: a reflection
        {600, 9, 6.4f, 4, 9, false},   {600, 9, 4.0f, 6.4f, 9, false},
        {400, 9, 7.0f, 8, 3, false},   {400, 9, 7.0f, 8, 4, true}, // earlier: its arrival
        {400, 9, 7.0f, 9, 9, false},   {400, 9, 5.0f, 9, 1, true},
        {600, 7, 3.0f, 3, 50, false}, // a reflection of what is lost
        {400, 7, 3.9f, 0, 1, true},
    };
    for (const auto &[lag, height, followed, path, frames, left] : CASES) {
        Decision decision;
        decision.see({.lag = 500, .height = 9});
        decision.see({.lag = 500, .height = 9, .followed = 10});
        decision.see({.lag = lag, .height = height, .followed = followed, .path = path}, frames);
        EXPECT_EQ(decision.record.found, left ? lag : 500)
            << lag << ", " << height << " over " << followed << ", " << path << ", " << frames;
    }
}

TEST(DelayDecision, KeepsASettledPathWhoseOnsetStandsWhenItIsDoubted)
{
    Decision decision = settled();
    const Seen rival = {.lag = 1250, .height = 9, .followed = 2};
    EXPECT_EQ(decision.see(rival), 1964);
    EXPECT_TRUE(nax::is_urgent(decision.record));
    EXPECT_TRUE(decision.aim(NONE, 0, 2)) << "evidence anew";
    decision.look({1, 3, 2000}); // too little yet to say
    EXPECT_TRUE(nax::is_urgent(decision.record));
    decision.look({3, 4.5f, 2000});
    EXPECT_EQ(decision.see(rival, 50), 1964);
    EXPECT_FALSE(nax::is_urgent(decision.record)) << "calm for a while";
    EXPECT_EQ(decision.see(rival, 20), 1964);
    EXPECT_TRUE(nax::is_urgent(decision.record));
}

TEST(DelayDecision, LeavesASettledPathWhoseOnsetIsGoneWhenItIsDoubted)
{
    for (const nax::Onset &gone : {nax::Onset{3, 3.9f, 2000}, nax::Onset{3, 9, 2100}}) {
        Decision decision = settled();
        const Seen rival = {.lag = 1250, .height = 9, .followed = 2};
        EXPECT_EQ(decision.see(rival), 1964);
        EXPECT_EQ(decision.look(gone), 1964);
        EXPECT_EQ(decision.see(rival), 4864);
    }
}

TEST(DelayDecision, APeakWithRivalsDoubtsASettledPathAndTakesNothingOver)
{
    Decision decision = settled();
    const Seen one_of_many = {.lag = 1250, .height = 9, .rival = 8.5f, .followed = 2};
    decision.see(one_of_many);
    EXPECT_TRUE(nax::is_urgent(decision.record));
    decision.look({3, 1, 2000});
    EXPECT_EQ(decision.see(one_of_many, 50), 1964);
    EXPECT_EQ(decision.see({.lag = 1250, .height = 9, .followed = 2}), 4864);
}

TEST(DelayDecision, HearsTheFineLookBeforeTheCoarseSearch)
{
    const nax::Sight elsewhere = Seen{.lag = 1250, .height = 9, .followed = 2, .target = 8};
    Decision leaving = settled();
    leaving.see({.lag = 1250, .height = 9, .followed = 2});
    const nax::Onset gone = {3, 1, 2000};
    EXPECT_EQ(nax::decide_on_delay(leaving.record, elsewhere, &gone), 4864);

    Decision verified;
    verified.aim(500, 5);
    verified.look({1, 6, 2000});
    const nax::Onset grown = {3, 8, 2000};
    EXPECT_EQ(nax::decide_on_delay(verified.record, elsewhere, &grown), 1984);
}

TEST(DelayDecision, MovesToAnOnsetThatTheFilterWouldMiss)
{
    const struct {
        int32_t onset, applied, found;
    } CASES[] = {{1969, 1953, 500},
                 {1970, 1964, 500},
                 {2100, 1964, 525},  // within the filter
                 {2208, 2192, 552}}; // half a frame of tail to win
    for (const auto &[onset, applied, found] : CASES) {
        Decision decision;
        decision.see({.lag = 500, .height = 9});
        decision.aim(NONE, 0, 9);
        EXPECT_EQ(decision.look({1, 8, onset}), 1964);
        decision.look({3, 8, onset});
        EXPECT_EQ(decision.see({}), applied) << onset;
        EXPECT_EQ(decision.record.found, found) << onset;
    }
}

// The fewer frames the line holds, the more often a delay between frames is heard.
TEST(DelayDecision, PrefersAWholeNumberOfFramesWhereThatLosesLittleTail)
{
    const struct {
        int32_t decimation, frame, past_whole; // the most that is let go
    } CASES[] = {{2, 128, 42}, {4, 256, 135}, {8, 512, 343}, {12, 768, 614}};
    for (const auto &[decimation, frame, past_whole] : CASES)
        for (const int32_t more : {0, 1}) {
            Decision decision(0, decimation, frame);
            const int32_t exact = 5 * frame + past_whole + more;
            const int32_t onset = exact + 4 * decimation;
            decision.aim(onset / decimation, 5);
            decision.look({1, 8, onset});
            EXPECT_EQ(decision.look({3, 10, onset}), more ? exact : 5 * frame) << frame;
        }
}

// A peak within the path, earlier and taller than what is followed, doubts it. Where that
// peak lies before the filter the onset has to stand taller, too.
TEST(DelayDecision, LooksAgainWhenAnEarlierPeakStaysWithinASettledPath)
{
    for (const auto &[height, moved] : {std::pair{6.4f, true}, {6.5f, false}}) {
        SCOPED_TRACE(height);
        Decision decision = settled();
        const Seen earlier = {.lag = 480, .height = 9, .followed = 8};
        decision.see(earlier, 3);
        EXPECT_FALSE(nax::is_urgent(decision.record));
        EXPECT_EQ(decision.see(earlier), 1964);
        EXPECT_TRUE(nax::is_urgent(decision.record));
        decision.look({3, height, 2000});
        EXPECT_EQ(decision.see(earlier, 2), moved ? 1792 : 1964);
    }
    Decision decision = settled();
    decision.see({.lag = 492, .height = 9, .followed = 8}, 50); // hardly earlier
    EXPECT_FALSE(nax::is_urgent(decision.record));
    decision.see({.lag = 480, .height = 9, .followed = 9.5f}, 50); // not as tall
    EXPECT_FALSE(nax::is_urgent(decision.record));
    decision.record.applied.now = 1792; // the earlier peak lies within the filter
    decision.see({.lag = 480, .height = 9, .followed = 8}, 4);
    EXPECT_EQ(decision.record.phase, nax::Phase::DOUBTED);
    decision.look({3, 4, 2000});
    EXPECT_EQ(decision.record.phase, nax::Phase::SETTLED);
}

TEST(DelayDecision, MovesForTailAloneWhenItIsSureThatNoOnsetIsEarlier)
{
    Decision rough;
    EXPECT_EQ(rough.see({.lag = 490, .height = 9}), 1792);
    EXPECT_EQ(rough.see({.lag = 530, .height = 9, .followed = 8}, 50), 1792) << "not looked at";

    Decision placed = settled();
    for (int32_t updates = 4; updates < 4 + 23; updates++)
        EXPECT_EQ(placed.look({updates, 8, 2208}), 1964);
    placed.look({27, 8, 2208});
    EXPECT_EQ(placed.see({}), 2192);

    Decision misled = settled(); // by the coarse search, away from an onset that comes back
    misled.see({.lag = 480, .height = 9, .followed = 8}, 4);
    misled.look({3, 4, 2000});
    EXPECT_EQ(misled.see({.lag = 480, .height = 9, .followed = 8}, 2), 1792);
    EXPECT_EQ(misled.look({4, 8, 2000}), 1792);
    misled.look({5, 8, 2000});
    EXPECT_EQ(misled.see({}), 1984);
}

TEST(DelayDecision, IsInAHurryUntilItHasSettled)
{
    Decision decision;
    EXPECT_FALSE(nax::is_urgent(decision.record)) << "nothing to look at";
    EXPECT_TRUE(nax::is_searching(decision.record, 9));
    decision.aim(500, 5);
    EXPECT_TRUE(nax::is_urgent(decision.record));
    decision.see({.lag = 500, .height = 9});
    decision.aim(NONE, 0, 9);
    EXPECT_FALSE(nax::is_searching(decision.record, 4));
    EXPECT_TRUE(nax::is_searching(decision.record, 3.9f));
    EXPECT_TRUE(nax::is_urgent(decision.record));
    decision.look({1, 8, 2000});
    EXPECT_TRUE(nax::is_urgent(decision.record));
    decision.look({3, 8, 2000});
    EXPECT_FALSE(nax::is_urgent(decision.record));
}

// Scripts of evidence: what the searches see of a situation, and what must not come of it.
// Heights lie well above or below what decides, so that numbers may change.

namespace {

// A frame of a script: the coarse search sees, the estimator aims, the fine look answers.
struct Script {
    explicit Script(int32_t base = 0) : decision(base) {}

    // Frames in which the tallest peak is seen every third frame, and an onset in each of them
    // whose number of updates goes on where the aim stays.
    void play(int32_t frames, const Seen &seen, nax::Onset onset = {0, 0, 0})
    {
        const nax::Peak peaks[] = {{seen.height, seen.lag, 0, 1},
                                   {seen.rival, seen.lag + 700, 0, 1}};
        for (int32_t n = 0; n < frames; n++) {
            if (decision.choose(peaks, 2, seen.followed)) updates = 0;
            const bool aimed =
                onset.height > 0 && std::abs(decision.record.target * 4 - onset.lag) <= 24 * 4;
            const nax::Onset look = {updates += 1, aimed ? onset.height : 2.0f,
                                     aimed ? onset.lag : decision.record.target * 4};
            nax::Sight sight = seen;
            sight.news = n % 3 == 0;
            sight.target = seen.height;
            const bool looks = decision.record.target != NONE && n % 2 == 0;
            const int32_t applied =
                nax::decide_on_delay(decision.record, sight, looks ? &look : nullptr);
            lowest = std::min(lowest, applied);
            highest = std::max(highest, applied);
        }
    }

    void expect_serves(int32_t arrival) const
    {
        EXPECT_LE(decision.record.applied.now, arrival);
        EXPECT_GE(decision.record.applied.now, arrival - 256 * 9 / 8);
    }

    Decision decision;
    int32_t updates = 0, lowest = INT32_MAX, highest = 0; // delays applied
};

Script settled_script()
{
    Script script;
    script.play(60, {.lag = 500, .height = 14, .followed = 14, .path = 14}, {1, 12, 2000});
    script.expect_serves(2000);
    EXPECT_EQ(script.decision.record.phase, nax::Phase::SETTLED);
    script.lowest = script.highest = script.decision.record.applied.now;
    return script;
}

} // namespace

TEST(DelayDecisionScript, AnEchoThatFadesWhileAReflectionStaysKeepsItsPath)
{
    Script script = settled_script();
    for (float height = 14; height > 5; height -= 0.5f)
        script.play(9, {.lag = 560, .height = 9, .followed = height, .path = height}, {1, 9, 2000});
    script.expect_serves(2000);
    EXPECT_EQ(script.lowest, script.highest) << "it moved meanwhile";
}

TEST(DelayDecisionScript, ATonesRepetitionsMoveNothing)
{
    Script searching;
    for (int32_t n = 0; n < 100; n++) // every period as tall as the others
        searching.play(3, {.lag = 300 + 160 * (n % 5), .height = 20, .rival = 19});
    EXPECT_EQ(searching.highest, 0);

    Script script = settled_script();
    for (int32_t n = 0; n < 100; n++)
        script.play(
            3, {.lag = 300 + 160 * (n % 5), .height = 20, .rival = 19, .followed = 18, .path = 18},
            {1, 8, 2000});
    EXPECT_EQ(script.lowest, script.highest);
}

// The old path's evidence decays, the new one's grows slowly because somebody talks.
TEST(DelayDecisionScript, AJumpInDoubleTalkIsFollowedOnceTheNewPathGrows)
{
    Script script = settled_script();
    for (int32_t n = 0; n < 20; n++) {
        const float old_height = 10.0f * std::pow(0.8f, static_cast<float>(n));
        script.play(
            3, {.lag = 1250, .height = 4 + 0.3f * static_cast<float>(n), .followed = old_height},
            {1, 5 + 0.5f * static_cast<float>(n), 5000});
    }
    script.expect_serves(5000);
}

// The second path comes 60 ms after the first and is as strong.
TEST(DelayDecisionScript, TwoEqualPathsAreNotFollowedInTurn)
{
    Script script = settled_script();
    for (int32_t n = 0; n < 100; n++) {
        const bool later = n % 2;
        script.play(3,
                    {.lag = later ? 740 : 500,
                     .height = later ? 12.0f : 11.5f,
                     .rival = 11.5f,
                     .followed = 11.5f,
                     .path = 11.5f},
                    {1, 9, 2000});
    }
    EXPECT_EQ(script.lowest, script.highest);
}

// Both signals begin abruptly at the same time, by chance.
TEST(DelayDecisionScript, AnOnsetThatBothSignalsShareIsNotFollowed)
{
    Script script;
    script.play(2, {.lag = 900, .height = 6}, {1, 11, 3600});
    for (float height = 11; height > 2; height -= 0.7f)
        script.play(4, {.lag = 900, .height = std::min(height, 6.0f)}, {1, height, 3600});
    EXPECT_EQ(script.highest, 0);
}

TEST(DelayDecisionScript, AWeakEchoThatBothSearchesSeeIsFollowed)
{
    Script script;
    for (float height = 3.6f; height < 6; height += 0.1f)
        script.play(3, {.lag = 900, .height = height}, {1, 2 * height - 3, 3600});
    script.expect_serves(3600);
}

TEST(DelayDecisionScript, AnEchoThatVanishesLeavesTheDelayWhereItIs)
{
    Script script = settled_script();
    for (int32_t n = 0; n < 200; n++)
        script.play(3, {.lag = 37 * n % 3000, .height = 4.5f, .rival = 4, .followed = 1}, {});
    EXPECT_EQ(script.lowest, script.highest);
}
