// The delay that is applied (src/engines/applied_delay) for arrivals by hand.
#include "engines/applied_delay.h"

#include "support.h"

#include "engines/delay_lines.h"

using nax::AppliedDelay;
using nax::DELAY_REACH;

static AppliedDelay applied_at(int32_t rate, int32_t base = 0)
{
    AppliedDelay applied;
    nax::applied_delay_init(applied, rate / 4000, rate * 2 / 125, base);
    return applied;
}

TEST(AppliedDelay, IsAWholeNumberOfFramesWhereThatCostsLessTail)
{
    const struct {
        int32_t rate, past_whole_frame; // the first sample instant that is kept
    } CASES[] = {{8000, 43}, {16000, 136}, {32000, 344}, {48000, 615}};
    for (const auto &[rate, kept] : CASES) {
        SCOPED_TRACE(rate);
        const AppliedDelay applied = applied_at(rate);
        const int32_t whole = 2 * applied.frame, margin = 4, ms = rate / 1000;
        EXPECT_EQ(nax::delay_for(applied, whole + ms, margin), whole);
        EXPECT_EQ(nax::delay_for(applied, whole + ms + kept - 1, margin), whole);
        EXPECT_EQ(nax::delay_for(applied, whole + ms + kept, margin), whole + kept);
        EXPECT_EQ(nax::delay_for(applied, whole + 2 * ms + kept, 2 * margin), whole + kept);
        EXPECT_EQ(nax::delay_for(applied, 5, margin), 0);
        EXPECT_EQ(nax::delay_for(applied, DELAY_REACH + 100 * ms, margin),
                  DELAY_REACH - applied.frame);
    }
}

TEST(AppliedDelay, IsLateForAnEchoBeforeTheFilterOrInItsFirstThreeEighthsOfAMillisecond)
{
    AppliedDelay applied = applied_at(16000);
    applied.now = 1000;
    EXPECT_TRUE(nax::is_late(applied, 900));
    EXPECT_TRUE(nax::is_late(applied, 1005));
    EXPECT_FALSE(nax::is_late(applied, 1006));
}

TEST(AppliedDelay, TakesMoreThanHalfAFrameForMuchTail)
{
    AppliedDelay applied = applied_at(16000);
    applied.now = 1000;
    EXPECT_FALSE(nax::is_much_tail(applied, 1128));
    EXPECT_TRUE(nax::is_much_tail(applied, 1129));
    EXPECT_FALSE(nax::is_much_tail(applied, 600));
}

TEST(AppliedDelay, KeepsABaseDelayThatServesUntilItHasBeenLeft)
{
    AppliedDelay applied = applied_at(16000, 1000);
    EXPECT_TRUE(nax::does_base_serve(applied, 1006));
    EXPECT_TRUE(nax::does_base_serve(applied, 1256));
    EXPECT_FALSE(nax::does_base_serve(applied, 1257)); // more than a frame of tail
    EXPECT_FALSE(nax::does_base_serve(applied, 1005)); // late
    nax::move_to(applied, 3000);
    EXPECT_FALSE(nax::does_base_serve(applied, 3100));
    EXPECT_FALSE(nax::does_base_serve(applied_at(16000), 100)) << "nobody asked for one";
}

TEST(AppliedDelay, MovesAtOnceWhereTheFrontEndTakesItUpAndElseByADetourWithinTheLine)
{
    const struct {
        int32_t from, to, first;
    } CASES[] = {{1000, 1257, 1257},
                 {1000, 1256, 1513},
                 {1000, 900, 1257},
                 {1000, 1000, 1000},
                 {DELAY_REACH - 256, DELAY_REACH - 257, DELAY_REACH - 514},
                 {DELAY_REACH - 600, DELAY_REACH - 512, DELAY_REACH - 857}};
    for (const auto &[from, to, first] : CASES) {
        SCOPED_TRACE(to);
        AppliedDelay applied = applied_at(16000, from);
        nax::move_to(applied, to);
        EXPECT_EQ(applied.now, first);
        EXPECT_EQ(nax::finish_move(applied), first != to);
        EXPECT_EQ(applied.now, to);
        EXPECT_FALSE(nax::finish_move(applied));
        EXPECT_EQ(applied.has_left_base, from != to);
    }
}
