// What is judged of which evidence, and how a verdict settles.
#include "meter/verdict.h"

#include "meter/time.h"
#include "nax_meter.h"

#include <gtest/gtest.h>

#include <functional>

namespace nax::meter {

// Ten seconds of far end, whose echo is found two frames late and removed.
static Evidence healthy()
{
    Evidence e = {};
    e.far_end_s = e.far_since_s = e.heard_s = 10;
    e.removed_db = 12;
    e.removing = 0.6f;
    e.sounding = 0.7f;
    e.found = true;
    e.likeness = 0.6f;
    e.chance = 0.2f;
    e.distance = 2;
    e.applied = 2.2f;
    return e;
}

struct Case {
    const char *what;
    std::function<void(Evidence &)> change;
    int32_t verdict;
};

static const Case CASES[] = {
    {"nothing changed", [](Evidence &) {}, NAX_METER_CANCELLING},
    {"a start", [](Evidence &e) { e = {}; }, NAX_METER_SEARCHING},
    {"two seconds of far end, found", [](Evidence &e) { e.far_end_s = e.far_since_s = 2; },
     NAX_METER_CANCELLING},
    {"two seconds of far end, nothing removed",
     [](Evidence &e) { e.far_end_s = e.far_since_s = 2, e.removing = 0; }, NAX_METER_SEARCHING},
    {"both talk: little is removed, now and then",
     [](Evidence &e) { e.removing = 0.15f, e.removed_db = 0.2f, e.likeness = 0.1f; },
     NAX_METER_CANCELLING},
    {"the delay of the start fits", [](Evidence &e) { e.found = false, e.applied = 0; },
     NAX_METER_CANCELLING},

    {"no sound at all for long",
     [](Evidence &e) { e = {}, e.mic_dead_s = e.far_silent_s = e.unheard_s = 31; },
     NAX_METER_NO_MICROPHONE},
    {"no sound at all for a while: the microphone may be gated",
     [](Evidence &e) { e = {}, e.mic_dead_s = e.far_silent_s = e.unheard_s = 20; },
     NAX_METER_REFERENCE_SILENT},
    {"the microphone is muted", [](Evidence &e) { e.mic_dead_s = 6; }, NAX_METER_NO_MICROPHONE},
    {"the microphone is muted for a moment", [](Evidence &e) { e.mic_dead_s = 4; },
     NAX_METER_CANCELLING},

    {"everything falls silent at once, as on hold",
     [](Evidence &e) { e.far_silent_s = e.mic_dead_s = 7; }, NAX_METER_CANCELLING},
    {"the far end is gone, and later the microphone is gated",
     [](Evidence &e) { e.far_silent_s = 20, e.mic_dead_s = 10, e.unheard_s = 20; },
     NAX_METER_REFERENCE_SILENT},

    {"nothing was ever played, a quiet room",
     [](Evidence &e) { e = {}, e.far_silent_s = 20, e.unheard_s = 20; },
     NAX_METER_REFERENCE_SILENT},
    {"nothing was ever played, the microphone hears something",
     [](Evidence &e) { e = {}, e.far_silent_s = 20, e.heard_s = 3; }, NAX_METER_NO_REFERENCE},
    {"a pause of the far end", [](Evidence &e) { e.far_silent_s = 9; }, NAX_METER_CANCELLING},
    {"the far end is gone, somebody talks",
     [](Evidence &e) { e.far_silent_s = 11, e.unheard_s = 2; }, NAX_METER_NEAR_END_ONLY},
    {"the far end is gone and nobody talks",
     [](Evidence &e) { e.far_silent_s = 11, e.unheard_s = 11; }, NAX_METER_REFERENCE_SILENT},

    {"clipped", [](Evidence &e) { e.clipped = 0.001f; }, NAX_METER_CLIPPED},
    {"hardly clipped", [](Evidence &e) { e.clipped = 0.0004f; }, NAX_METER_CANCELLING},
    {"the delay moved once more", [](Evidence &e) { e.delay_moves = 1; }, NAX_METER_CANCELLING},
    {"samples are lost", [](Evidence &e) { e.delay_moves = 2; }, NAX_METER_DELAY_MOVES},
    {"the delay moved twice in ten minutes", [](Evidence &e) { e.delay_moves_long = 2; },
     NAX_METER_CANCELLING},
    {"clocks drift", [](Evidence &e) { e.delay_moves_long = 3; }, NAX_METER_DELAY_MOVES},
    {"the reference is the microphone",
     [](Evidence &e) { e.likeness = 0.99f, e.distance = 0, e.removed_db = 30; },
     NAX_METER_REFERENCE_IS_MICROPHONE},
    {"an echo like its reference",
     [](Evidence &e) { e.likeness = 0.9f, e.distance = 0, e.applied = 0, e.removed_db = 30; },
     NAX_METER_CANCELLING},

    {"an echo beyond the reach",
     [](Evidence &e) { e.removing = 0.1f, e.found = false, e.applied = 0, e.distance = 60; },
     NAX_METER_NOT_CANCELLING},
    {"an echo before its reference",
     [](Evidence &e) { e.removing = 0.3f, e.found = false, e.applied = 0, e.distance = -6; },
     NAX_METER_NOT_CANCELLING},
    {"a tune that repeats: like itself elsewhere, and removed",
     [](Evidence &e) { e.removing = 0.7f, e.distance = 60; }, NAX_METER_CANCELLING},
    {"an echo that is late and whose reference is as late, less removed",
     [](Evidence &e) { e.removing = 0.35f, e.distance = 60, e.applied = 60.2f; },
     NAX_METER_CANCELLING},
    {"an echo where it should be, and nothing removed", [](Evidence &e) { e.removing = 0.05f; },
     NAX_METER_NOT_CANCELLING},
    {"an echo where it should be, below the noise of the room",
     [](Evidence &e) { e.removing = 0.02f, e.sounding = 0; }, NAX_METER_NOT_HEARD},
    {"an echo where it should be, and less removed than before",
     [](Evidence &e) { e.removing = 0.09f; }, UNDECIDED},
    {"the delay moved a second ago", [](Evidence &e) { e.removing = 0, e.far_since_s = 1; },
     UNDECIDED},

    {"headphones",
     [](Evidence &e) { e.removing = 0, e.found = false, e.applied = 0, e.likeness = 0.15f; },
     NAX_METER_NOT_HEARD},
    {"a reference of something else, removed now and then by chance",
     [](Evidence &e) { e.removing = 0.15f, e.found = false, e.applied = 0, e.likeness = 0.15f; },
     NAX_METER_NOT_HEARD},
    {"the loudspeaker is switched off",
     [](Evidence &e) { e.removing = 0.02f, e.likeness = 0.1f, e.sounding = 0.2f; },
     NAX_METER_NOT_HEARD},
    {"the loudspeaker was switched off four seconds ago",
     [](Evidence &e) {
         e.removing = 0.02f, e.likeness = 0.1f, e.sounding = 0.2f, e.far_since_s = 4;
     },
     UNDECIDED},
    {"no echo is found, and a little is removed",
     [](Evidence &e) { e.removing = 0.09f, e.likeness = 0.1f, e.sounding = 0.2f; }, UNDECIDED},
    {"samples are lost all the time: the echo is nowhere for long",
     [](Evidence &e) { e.removing = 0.02f, e.likeness = 0.1f; }, NAX_METER_NOT_CANCELLING},
    {"both talk for long", [](Evidence &e) { e.removing = 0.06f, e.likeness = 0.1f; }, UNDECIDED},
};

TEST(Verdict, OfEveryCaseIsThatOfTheTable)
{
    for (const Case &one : CASES) {
        Evidence evidence = healthy();
        one.change(evidence);
        EXPECT_EQ(judged(evidence), one.verdict) << one.what;
    }
}

class Settling : public testing::Test {
protected:
    // Lets a judgement come for some seconds; returns the verdict that stands then.
    int32_t after(int32_t judgement, float span_s)
    {
        for (const int32_t end = frames_ + static_cast<int32_t>(span_s / FRAME_S); frames_ < end;)
            settle(standing_, judgement, ++frames_);
        return standing_.verdict;
    }
    float stood_s() const { return seconds(frames_ - standing_.since); }

private:
    Standing standing_ = {};
    int32_t frames_ = 0;
};

TEST_F(Settling, ChangesWhenAJudgementLastsForASecond)
{
    EXPECT_EQ(after(NAX_METER_CANCELLING, 0.9f), NAX_METER_SEARCHING);
    EXPECT_EQ(after(NAX_METER_NOT_HEARD, 0.2f), NAX_METER_SEARCHING);
    EXPECT_EQ(after(NAX_METER_CANCELLING, 0.9f), NAX_METER_SEARCHING);
    EXPECT_EQ(after(NAX_METER_CANCELLING, 0.2f), NAX_METER_CANCELLING);
    EXPECT_LT(stood_s(), 0.2f);
    EXPECT_EQ(after(UNDECIDED, 5.1f), NAX_METER_CANCELLING);
    EXPECT_GT(stood_s(), 5.0f);
}

TEST_F(Settling, ChangesNoMoreThanFourTimesInAnyMinute)
{
    Standing standing = {};
    int32_t last = standing.verdict, frame = 0;
    std::vector<int32_t> changes;
    for (; seconds(frame) < 300; frame++) {
        settle(standing, 1 + frame / 80 % 2, frame); // another one every 1.3 s
        if (standing.verdict != last) changes.push_back(frame);
        last = standing.verdict;
    }
    EXPECT_GE(changes.size(), size_t{16});
    for (size_t i = 4; i < changes.size(); i++)
        EXPECT_GE(seconds(changes[i] - changes[i - 4]), 60.0f);
}

} // namespace nax::meter
