// The meter behind the real canceller, as an application has it.
#include "nax_meter.h"

#include "signals.h"

#include <set>

struct ReleaseMeter {
    void operator()(nax_meter_state *state) const { nax_meter_state_destroy(state); }
};
using Meter = std::unique_ptr<nax_meter_state, ReleaseMeter>;

static nax_meter_report report_of(const Meter &meter)
{
    nax_meter_report report;
    EXPECT_EQ(nax_meter_read(meter.get(), &report), 0);
    return report;
}

TEST(MeterCreation, RefusesFormatsThatTheCancellerDoesNotServe)
{
    for (const auto &[rate, mics, refs] :
         {std::tuple{44100, 1, 1}, {16000, 0, 1}, {16000, 3, 1}, {16000, 1, 0}})
        EXPECT_EQ(nax_meter_state_init(rate, mics, refs), nullptr);
    nax_meter_state_destroy(nullptr);
}

TEST(MeterCreation, ReportsNothingBeforeTheFirstFrame)
{
    const Meter meter(nax_meter_state_init(16000, 1, 1));
    const nax_meter_report report = report_of(meter);
    EXPECT_EQ(report.verdict, NAX_METER_SEARCHING);
    EXPECT_EQ(report.frames, 0);
    EXPECT_EQ(report.mic_dbfs[0], -100.0f);
    EXPECT_EQ(report.ref_dbfs[0], -100.0f);
}

TEST(MeterCalls, RefuseNullPointersAndReferencesThatAreNotThere)
{
    const Meter meter(nax_meter_state_init(16000, 1, 2));
    const Samples frame(256 * 3);
    nax_meter_report report;
    EXPECT_EQ(nax_meter_short(nullptr, frame.data(), frame.data(), 0), -1);
    EXPECT_EQ(nax_meter_short(meter.get(), nullptr, frame.data(), 0), -1);
    EXPECT_EQ(nax_meter_short(meter.get(), frame.data(), nullptr, 0), -1);
    EXPECT_EQ(nax_meter_read(nullptr, &report), -1);
    EXPECT_EQ(nax_meter_read(meter.get(), nullptr), -1);
    EXPECT_EQ(nax_meter_drop(nullptr, 0), -1);
    EXPECT_EQ(nax_meter_drop(meter.get(), 3), -1);
    EXPECT_EQ(nax_meter_drop(meter.get(), -1), -1);
    EXPECT_EQ(nax_meter_drop(meter.get(), 2), 0);
    EXPECT_EQ(report_of(meter).frames, 0);
}

TEST(MeterTexts, AreThereForEveryVerdictAndDiffer)
{
    std::set<std::string> names, texts;
    for (int32_t verdict = 0; verdict < NAX_METER_VERDICTS; verdict++) {
        names.insert(nax_meter_name(verdict));
        texts.insert(nax_meter_text(verdict));
        EXPECT_EQ(nax_meter_is_alarm(verdict), verdict >= NAX_METER_NO_MICROPHONE);
    }
    EXPECT_EQ(names.size(), size_t{NAX_METER_VERDICTS});
    EXPECT_EQ(texts.size(), size_t{NAX_METER_VERDICTS});
    for (const int32_t other : {-1, NAX_METER_VERDICTS}) {
        EXPECT_EQ(nax_meter_name(other), nullptr);
        EXPECT_EQ(nax_meter_text(other), nullptr);
        EXPECT_EQ(nax_meter_is_alarm(other), 0);
    }
}

// Levels by channel: 2 microphones, 3 references, the last of them dropped.
TEST(MeterLevels, AreThoseOfEachChannel)
{
    for (const int32_t rate : RATES) {
        constexpr int32_t MICS = 2, REFS = 3, KEPT = 2;
        const double peaks[] = {1000, 2000, 4000, 8000}, out_peaks[] = {100, 200};
        const Meter meter(nax_meter_state_init(rate, MICS, REFS));
        EXPECT_EQ(nax_meter_drop(meter.get(), REFS - KEPT), 0);
        Noise noise(1);
        Samples in, out;
        for (int32_t i = 0; i < frame_size(rate); i++) {
            for (const double peak : peaks)
                in.push_back(to_sample(noise.next(peak)));
            for (const double peak : out_peaks)
                out.push_back(to_sample(noise.next(peak)));
            out.insert(out.end(), REFS, INT16_MAX);
        }
        for (int32_t frame = 0; frame < 500; frame++)
            nax_meter_short(meter.get(), in.data(), out.data(), 7);
        const nax_meter_report report = report_of(meter);
        const auto expected = [](double peak) { return 20 * std::log10(peak / 32768) - 4.77; };
        for (int32_t m = 0; m < MICS; m++) {
            EXPECT_NEAR(report.mic_dbfs[m], expected(peaks[m]), 0.6);
            EXPECT_NEAR(report.out_dbfs[m], expected(out_peaks[m]), 0.6);
        }
        for (int32_t r = 0; r < KEPT; r++)
            EXPECT_NEAR(report.ref_dbfs[r], expected(peaks[MICS + r]), 0.6);
        EXPECT_EQ(report.ref_dbfs[KEPT], -100.0f);
        EXPECT_NEAR(report.removed_db, 20.0, 0.6);
        EXPECT_EQ(report.frames, 500);
        EXPECT_NEAR(report.far_end_s, 8.0, 0.01);
        EXPECT_EQ(report.delay, 7);
        EXPECT_NEAR(report.delay_s, 8.0, 0.01);
        EXPECT_EQ(report.delay_moves, 0);
    }
}
