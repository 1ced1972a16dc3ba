// The meter behind the real canceller, as an application has it.
#include "nax_meter.h"

#include "signals.h"

#include <fstream>
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
    EXPECT_EQ(nax_meter_state_init(16000, 1, INT32_MAX), nullptr);
    EXPECT_TRUE(Meter(nax_meter_state_init(16000, 1, INT32_MAX - 1)));
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
    EXPECT_EQ(nax_meter_drop(meter.get(), 0), 0);
    EXPECT_EQ(nax_meter_drop(meter.get(), 2), 0);
    EXPECT_EQ(report_of(meter).frames, 0);
}

TEST(MeterCalls, ThatAreRefusedChangeNothing)
{
    const Meter meter(nax_meter_state_init(16000, 1, 2));
    const Samples in = Noise(1).frame(256 * 2, 8000), out(256 * 3);
    EXPECT_EQ(nax_meter_drop(meter.get(), 1), 0);
    EXPECT_EQ(nax_meter_drop(meter.get(), 3), -1);
    for (int32_t frame = 0; frame < 100; frame++) {
        nax_meter_short(meter.get(), in.data(), out.data(), 7);
        EXPECT_EQ(nax_meter_short(meter.get(), nullptr, out.data(), 9), -1);
        EXPECT_EQ(nax_meter_short(meter.get(), in.data(), nullptr, 9), -1);
    }
    const nax_meter_report report = report_of(meter);
    EXPECT_EQ(report.frames, 100);
    EXPECT_EQ(report.delay, 7);
    EXPECT_GT(report.ref_dbfs[0], -30.0f);
    EXPECT_EQ(report.ref_dbfs[1], -100.0f); // still dropped
    nax_meter_report untouched = report;
    untouched.frames = 4711;
    EXPECT_EQ(nax_meter_read(nullptr, &untouched), -1);
    EXPECT_EQ(untouched.frames, 4711);
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

// A page with a heading of name and text, a cause and a cure for each verdict, in their order.
TEST(MeterTexts, AreTheHeadingsOfThePageThatExplainsThem)
{
    std::ifstream file(TROUBLESHOOTING);
    const std::string page{std::istreambuf_iterator<char>(file), {}};
    size_t at = 0;
    for (int32_t verdict = 0; verdict < NAX_METER_VERDICTS; verdict++) {
        const std::string heading =
            std::string("\n### ") + nax_meter_name(verdict) + ": " + nax_meter_text(verdict) + "\n";
        at = page.find(heading, at);
        ASSERT_NE(at, std::string::npos) << heading;
        const std::string below = page.substr(at, page.find("\n##", at + 1) - at);
        EXPECT_NE(below.find("\n\nCause: "), std::string::npos) << heading;
        EXPECT_NE(below.find("\n\nCure: "), std::string::npos) << heading;
    }
    const size_t next = page.find("\n### ", at + 5);
    EXPECT_EQ(page.compare(next, 26, "\n### How often it is right"), 0) << "a verdict that is none";
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

// A stream at 16000 Hz whose frames are all alike.
class Frames {
public:
    Frames(int32_t mics, int32_t refs)
        : channels_(mics + refs), meter_(nax_meter_state_init(16000, mics, refs))
    {}

    // Goes on for some seconds. sample(channel, i) gives the input, and the output from
    // channel mics + refs on.
    template <typename Sample> nax_meter_report run(double span_s, Sample sample, int32_t delay = 0)
    {
        Samples in, out;
        for (int32_t i = 0; i < 256; i++)
            for (int32_t c = 0; c < channels_; c++) {
                in.push_back(to_sample(sample(c, i)));
                out.push_back(to_sample(sample(channels_ + c, i)));
            }
        for (double t = 0; t < span_s; t += 0.016)
            nax_meter_short(meter_.get(), in.data(), out.data(), delay);
        return report_of(meter_);
    }

private:
    int32_t channels_;
    Meter meter_;
};

static double flat(int32_t i) { return i % 16 < 8 ? 12000 : -12000; }

TEST(MeterReport, ClippingIsThatOfTheChannelThatClipsMostAndNotOfTheOutput)
{
    Noise noise(1);
    for (int32_t clips = 0; clips < 6; clips++) { // 2 microphones, 2 references, 2 outputs
        const nax_meter_report report = Frames(2, 2).run(
            2, [&](int32_t c, int32_t i) { return c == clips ? flat(i) : noise.next(3000); });
        EXPECT_EQ(report.mic_clipped > 0.5f, clips < 2) << clips;
        EXPECT_EQ(report.mic_clipped == 0.0f, clips >= 2) << clips;
        EXPECT_EQ(report.ref_clipped > 0.5f, clips == 2 || clips == 3) << clips;
        EXPECT_EQ(report.ref_clipped == 0.0f, clips != 2 && clips != 3) << clips;
    }
}

TEST(MeterReport, TimesCountFromTheDelaysMoveAndFromTheVerdict)
{
    Frames frames(1, 1);
    const auto dead_microphone = [](int32_t channel, int32_t i) {
        return channel == 1 ? flat(i) / 2 : 0;
    };
    frames.run(4, dead_microphone);
    const nax_meter_report report = frames.run(6, dead_microphone, 512);
    EXPECT_NEAR(report.delay_s, 6, 0.1);
    EXPECT_EQ(report.verdict, NAX_METER_NO_MICROPHONE); // after 5 s and one to be sure
    EXPECT_NEAR(report.verdict_s, 4, 0.1);
}

TEST(MeterReport, AQuietStartIsNotTheNearEndAlone)
{
    const auto silence = [](int32_t, int32_t) { return 0; };
    EXPECT_EQ(Frames(1, 1).run(5, silence).verdict, NAX_METER_REFERENCE_SILENT);
}

TEST(MeterReport, FurtherReferencesAreOfTheFarEndAndHaveNoLevel)
{
    constexpr int32_t REFS = NAX_METER_REFS + 1;
    const nax_meter_report report = Frames(1, REFS).run(
        2, [](int32_t channel, int32_t i) { return channel == REFS ? flat(i) : 0; }, 300);
    EXPECT_NEAR(report.far_end_s, 2, 0.1);
    EXPECT_EQ(report.frames, 124); // reported every 4 frames
    EXPECT_EQ(report.delay, 300);
    for (const float level : report.ref_dbfs)
        EXPECT_EQ(level, -100.0f);
    EXPECT_EQ(report.ref_clipped, 0.0f);
    EXPECT_EQ(report.mic_clipped, 0.0f);
}

// Seconds of a call through the canceller, and what the meter makes of it.
class Call {
public:
    explicit Call(int32_t rate, double noise_peak = 10)
        : frame_(frame_size(rate)), far_(rate, 1), near_(rate * 3 / 5, 2), // of another rhythm
          noise_(3), noise_peak_(noise_peak), meter_(nax_meter_state_init(rate, 1, 1)),
          aec_(make_state(rate, 1, 1, {.pos = 1, .model_aec_en = 1}))
    {}

    // sample(far, near) gives the microphone and the reference of an instant.
    template <typename Sample> int32_t run(double span_s, Sample sample)
    {
        const size_t count = static_cast<size_t>(2 * frame_);
        Samples in(count), out(count), echo(count / 2);
        for (double t = 0; t < span_s; t += 0.016) {
            for (size_t i = 0; i < count; i += 2) {
                const auto [mic, ref] = sample(far_.next(), near_.next());
                in[i] = to_sample(mic + noise_.next(noise_peak_));
                in[i + 1] = to_sample(ref);
            }
            const int32_t delay = nax_aec_short(aec_.get(), in.data(), out.data(), echo.data(),
                                                static_cast<int32_t>(count));
            nax_meter_short(meter_.get(), in.data(), out.data(), delay);
        }
        return report_of(meter_).verdict;
    }
    nax_meter_report report() const { return report_of(meter_); }

private:
    int32_t frame_;
    Speech far_, near_;
    Noise noise_;
    double noise_peak_;
    Meter meter_;
    State aec_;
};

struct Instant {
    double mic, ref;
};

TEST(Meter, SaysThatItCancelsAtEveryRate)
{
    for (const int32_t rate : RATES) {
        Call call(rate);
        EchoPath path(rate / 20);
        EXPECT_EQ(call.run(6,
                           [&](double far, double) {
                               return Instant{path.next(far), far};
                           }),
                  NAX_METER_CANCELLING)
            << rate;
        EXPECT_GT(call.report().removed_db, 6.0f);
        EXPECT_GT(call.report().likeness, 0.5f);
        EXPECT_NEAR(call.report().likeness_ms, 50, 16);
        EXPECT_GT(call.report().delay, 0);
    }
}

TEST(Meter, SaysThatAnEchoOutOfReachIsNotCancelled)
{
    for (const int32_t rate : {8000, 16000}) {
        Call call(rate);
        EchoPath path(13000);
        EXPECT_EQ(call.run(8,
                           [&](double far, double) {
                               return Instant{path.next(far), far};
                           }),
                  NAX_METER_NOT_CANCELLING)
            << rate;
        EXPECT_NEAR(call.report().likeness_ms, 13e6 / rate, 16);
    }
}

TEST(Meter, SaysThatExchangedChannelsDoNotCancel)
{
    Call call(16000);
    EchoPath path(800);
    EXPECT_EQ(call.run(8,
                       [&](double far, double) {
                           return Instant{far, path.next(far)};
                       }),
              NAX_METER_NOT_CANCELLING);
    EXPECT_NEAR(call.report().likeness_ms, -50, 16);
}

TEST(Meter, SaysThatAReferenceIsNotHeardWhoeverTalks)
{
    Call call(16000);
    EXPECT_EQ(call.run(8, [](double far, double) { return Instant{0, far}; }), NAX_METER_NOT_HEARD);
    EXPECT_EQ(call.run(8,
                       [](double far, double near) {
                           return Instant{near, far};
                       }),
              NAX_METER_NOT_HEARD);
}

TEST(Meter, SaysWhatIsMissing)
{
    Call no_reference(16000);
    EXPECT_EQ(no_reference.run(8,
                               [](double far, double) {
                                   return Instant{far, 0};
                               }),
              NAX_METER_NO_REFERENCE);
    Call no_microphone(16000, 2);
    EXPECT_EQ(no_microphone.run(8,
                                [](double far, double) {
                                    return Instant{0, far};
                                }),
              NAX_METER_NO_MICROPHONE);
}

TEST(Meter, SaysThatTheReferenceIsTheMicrophone)
{
    Call call(16000);
    EXPECT_EQ(call.run(8,
                       [](double far, double near) {
                           return Instant{far + near, far + near};
                       }),
              NAX_METER_REFERENCE_IS_MICROPHONE);
}

TEST(Meter, SaysThatTheDelayDoesNotStay)
{
    Call call(16000);
    for (const int32_t late : {800, 1600, 2400})
        call.run(4, [path = EchoPath(late)](double far, double) mutable {
            return Instant{path.next(far), far};
        });
    EXPECT_EQ(call.report().verdict, NAX_METER_DELAY_MOVES);
    EXPECT_EQ(call.report().delay_moves, 2);
}

TEST(Meter, SaysThatAMicrophoneClips)
{
    Call call(16000, 0);
    EchoPath path(800);
    const auto clipped = [&](double far, double) {
        return Instant{std::clamp(path.next(far), -2000.0, 2000.0), far};
    };
    EXPECT_EQ(call.run(6, clipped), NAX_METER_CLIPPED);
    EXPECT_GT(call.report().mic_clipped, 0.01f);
    EXPECT_EQ(call.report().ref_clipped, 0.0f);
}
