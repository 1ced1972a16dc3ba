// Timestamps, gaps, flushes, new formats: audio comes out with the time at which it went in.
#include "gstreamer_fixture.h"

#include <numeric>

namespace {

using GStreamerTiming = GStreamerPlugin;
using Heard = Harnessed::Heard;

constexpr GstClockTime FRAME = 16 * GST_MSECOND;

// Expects each buffer to begin where the one before ends. Returns all samples.
Samples joined(const std::vector<Heard> &buffers)
{
    Samples all;
    for (size_t i = 0; i < buffers.size(); i++) {
        if (i > 0) {
            EXPECT_EQ(buffers[i].pts, buffers[i - 1].pts + buffers[i - 1].duration) << i;
        }
        all.insert(all.end(), buffers[i].samples.begin(), buffers[i].samples.end());
    }
    return all;
}

Samples noise(size_t count, uint32_t seed)
{
    return Noise(seed).frame(static_cast<int32_t>(count), 6000);
}

// A microphone and its reference beside it, at 16 kHz.
static void capture_both(const Harnessed &aec, const char *suppress)
{
    g_object_set(aec.mic->element, "refs", 1, nullptr);
    gst_util_set_object_arg(G_OBJECT(aec.mic->element), "suppress", suppress);
    Harnessed::set_format(aec.mic, 16000, 2);
}

TEST_F(GStreamerTiming, AClickComesOutUnderItsTimestamp)
{
    for (const char *suppress : {"false", "true"}) {
        Harnessed aec;
        g_object_set(aec.mic->element, "refs", 1, nullptr);
        gst_util_set_object_arg(G_OBJECT(aec.mic->element), "suppress", suppress);
        gst_harness_set_upstream_latency(aec.mic, 5 * GST_MSECOND);
        Harnessed::set_format(aec.mic, 16000, 2);
        Samples in(2 * 16000);
        in[2 * 5000] = 20000;
        standard_error_of([&] {
            Harnessed::push(aec.mic, in, 3 * GST_SECOND);
            const auto out = aec.to_end();
            const Samples samples = joined(out);
            const auto click = std::max_element(samples.begin(), samples.end());
            EXPECT_EQ(out.front().pts, 3 * GST_SECOND);
            EXPECT_EQ(click - samples.begin(), 5000) << suppress;
            EXPECT_EQ(samples.size(), 16000u) << suppress;
        });
        EXPECT_EQ(gst_harness_query_latency(aec.mic),
                  5 * GST_MSECOND + (*suppress == 't' ? 2 : 1) * FRAME);
    }
}

TEST_F(GStreamerTiming, AFlushBringsOutNothingOld)
{
    for (const char *suppress : {"false", "true"}) {
        Harnessed aec;
        capture_both(aec, suppress);
        standard_error_of([&] {
            // The last frame is not full when the flush comes.
            Harnessed::push(aec.mic, noise(2 * 256 * 40 + 200, 1), 0);
            for (int frame = *suppress == 't'; frame < 40; frame++)
                aec.pull();
            gst_harness_push_event(aec.mic, gst_event_new_flush_start());
            gst_harness_push_event(aec.mic, gst_event_new_flush_stop(TRUE));
            GstSegment segment;
            gst_segment_init(&segment, GST_FORMAT_TIME);
            gst_harness_push_event(aec.mic, gst_event_new_segment(&segment));
            while (GstBuffer *rest = gst_harness_try_pull(aec.mic))
                gst_buffer_unref(rest);
            Harnessed::push(aec.mic, Samples(2 * 16000), 7 * GST_SECOND);
            const auto out = aec.to_end();
            const Samples samples = joined(out);
            EXPECT_EQ(out.front().pts, 7 * GST_SECOND);
            EXPECT_EQ(samples.size(), 16000u);
            EXPECT_EQ(std::count(samples.begin(), samples.end(), 0), 16000) << suppress;
        });
    }
}

TEST_F(GStreamerTiming, ASeekStartsWhereItWasAskedTo)
{
    const Recording recording = make_recording(RATE, 1, 1, 1.5);
    write_raw(folder + "/all.raw", recording.samples);
    GError *error = nullptr;
    GstElement *pipeline = gst_parse_launch(
        ("filesrc location=" + folder +
         "/all.raw ! rawaudioparse use-sink-caps=false format=pcm pcm-format=s16le "
         "sample-rate=48000 num-channels=2 ! naxaec refs=1 suppress=true name=aec ! fakesink")
            .c_str(),
        &error);
    ASSERT_TRUE(pipeline) << error->message;
    struct Seen {
        size_t samples;
        GstClockTime first;
    } seen = {0, GST_CLOCK_TIME_NONE};
    standard_error_of([&] {
        gst_element_set_state(pipeline, GST_STATE_PAUSED);
        gst_element_get_state(pipeline, nullptr, nullptr, 10 * GST_SECOND);
        EXPECT_TRUE(
            gst_element_seek_simple(pipeline, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, GST_SECOND));
        gst_element_get_state(pipeline, nullptr, nullptr, 10 * GST_SECOND);
        GstElement *aec = gst_bin_get_by_name(GST_BIN(pipeline), "aec");
        GstPad *pad = gst_element_get_static_pad(aec, "src");
        const auto count = [](GstPad *, GstPadProbeInfo *info, gpointer data) {
            Seen *all = static_cast<Seen *>(data);
            GstBuffer *buffer = GST_PAD_PROBE_INFO_BUFFER(info);
            if (all->samples == 0) all->first = GST_BUFFER_PTS(buffer);
            all->samples += gst_buffer_get_size(buffer) / 2;
            return GST_PAD_PROBE_OK;
        };
        // The first buffer is at the sink before the probe is set.
        GstSample *first = nullptr;
        GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "fakesink0");
        if (sink) g_object_get(sink, "last-sample", &first, nullptr);
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, count, &seen, nullptr);
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        GstBus *bus = gst_element_get_bus(pipeline);
        GstMessage *message = gst_bus_timed_pop_filtered(bus, 10 * GST_SECOND, GST_MESSAGE_EOS);
        EXPECT_TRUE(message);
        if (message) gst_message_unref(message);
        gst_element_set_state(pipeline, GST_STATE_NULL);
        if (first) gst_sample_unref(first);
        if (sink) gst_object_unref(sink);
        gst_object_unref(bus);
        gst_object_unref(pad);
        gst_object_unref(aec);
    });
    EXPECT_EQ(seen.first, GST_SECOND + FRAME);
    EXPECT_EQ(seen.samples, recording.instants() - RATE - 768);
    gst_object_unref(pipeline);
}

TEST_F(GStreamerTiming, AGapIsSilenceOfItsLengthAlsoAtTheEnd)
{
    for (const char *suppress : {"false", "true"}) {
        Harnessed aec;
        capture_both(aec, suppress);
        standard_error_of([&] {
            // 0.1 s each: sound, gap event, sound, no buffer and no event, sound, gap event.
            const GstClockTime tenth = GST_SECOND / 10;
            Harnessed::push(aec.mic, noise(3200, 1), 0);
            gst_harness_push_event(aec.mic, gst_event_new_gap(tenth, tenth));
            Harnessed::push(aec.mic, noise(3200, 2), 2 * tenth);
            Harnessed::push(aec.mic, noise(3200, 3), 4 * tenth, GST_BUFFER_FLAG_DISCONT);
            gst_harness_push_event(aec.mic, gst_event_new_gap(5 * tenth, tenth));
            const auto out = aec.to_end();
            const Samples samples = joined(out);
            ASSERT_EQ(samples.size(), 9600u) << suppress;
            EXPECT_EQ(out.front().pts, 0u);
            const auto loud = [&](size_t at) {
                return std::any_of(&samples[at], &samples[at] + 400,
                                   [](int16_t sample) { return std::abs(sample) > 1000; });
            };
            EXPECT_TRUE(loud(800) && loud(3600) && loud(7200)) << suppress;
            EXPECT_FALSE(loud(2400) || loud(5200) || loud(9000)) << suppress;
        });
    }
}

TEST_F(GStreamerTiming, ANewFormatOfTheMicrophonesLosesNothing)
{
    for (const char *suppress : {"false", "true"}) {
        Harnessed aec(true);
        gst_util_set_object_arg(G_OBJECT(aec.mic->element), "suppress", suppress);
        Harnessed::set_format(aec.mic, 16000, 2);
        Harnessed::set_format(aec.reference, 16000, 1);
        standard_error_of([&] {
            // The reference is one buffer. The microphones change within a frame, twice.
            Harnessed::push(aec.reference, noise(16000, 9), 0);
            gst_harness_push_event(aec.reference, gst_event_new_eos());
            Harnessed::push(aec.mic, noise(2 * 4000, 1), 0);
            Harnessed::set_format(aec.mic, 16000, 1);
            Harnessed::push(aec.mic, noise(4000, 2), GST_SECOND / 4);
            Harnessed::set_format(aec.mic, 16000, 2);
            Harnessed::push(aec.mic, noise(2 * 4000, 3), GST_SECOND / 2);
            const auto out = aec.to_end();
            EXPECT_EQ(joined(out).size(), 2u * 4000 + 4000 + 2 * 4000) << suppress;
            EXPECT_EQ(out.front().pts, 0u);
        });
    }
}

TEST_F(GStreamerTiming, BothPadsMayChangeTheirRate)
{
    Harnessed aec(true);
    Harnessed::set_format(aec.mic, 16000, 1);
    Harnessed::set_format(aec.reference, 16000, 1);
    standard_error_of([&] {
        for (GstHarness *harness : {aec.reference, aec.mic})
            Harnessed::push(harness, noise(4000, 1), 0);
        for (int frame = 0; frame < 15; frame++)
            aec.pull();
        for (GstHarness *harness : {aec.mic, aec.reference}) {
            Harnessed::set_format(harness, 48000, 1);
            Harnessed::push(harness, noise(12000, 2), GST_SECOND / 4);
        }
        gst_harness_push_event(aec.reference, gst_event_new_eos());
        EXPECT_EQ(joined(aec.to_end()).size(), 4000u - 15 * 256 + 12000);
    });
}

TEST_F(GStreamerTiming, StopsWithAReasonWhereTheRatesDiffer)
{
    for (const bool later : {false, true}) {
        Harnessed aec(true);
        GstBus *bus = gst_bus_new();
        gst_element_set_bus(aec.mic->element, bus);
        Harnessed::set_format(aec.mic, 16000, 1);
        Harnessed::set_format(aec.reference, later ? 16000 : 8000, 1);
        GstMessage *message = nullptr;
        standard_error_of([&] {
            Harnessed::push(aec.reference, noise(8000, 1), 0);
            Harnessed::push(aec.mic, noise(4000, 2), 0);
            if (later) {
                Harnessed::set_format(aec.mic, 48000, 1);
                Harnessed::push(aec.mic, noise(48000, 2), GST_SECOND / 4);
            }
            message = gst_bus_timed_pop_filtered(bus, 10 * GST_SECOND, GST_MESSAGE_ERROR);
        });
        ASSERT_TRUE(message) << later;
        GError *error = nullptr;
        gchar *debug = nullptr;
        gst_message_parse_error(message, &error, &debug);
        EXPECT_STREQ(error->message, "Microphones and reference differ in rate.");
        EXPECT_TRUE(std::strstr(debug, later ? "48000 and 16000 Hz" : "16000 and 8000 Hz"))
            << debug;
        g_free(debug);
        g_error_free(error);
        gst_message_unref(message);
        gst_element_set_bus(aec.mic->element, nullptr);
        gst_object_unref(bus);
    }
}

TEST_F(GStreamerTiming, BeginsWithTheMicrophonesWhenTheReferenceBeginsBeforeOrBehind)
{
    for (const GstClockTime begins : {GstClockTime(0), GstClockTime(GST_SECOND / 2)}) {
        Harnessed aec(true);
        Harnessed::set_format(aec.reference, 16000, 1);
        standard_error_of([&] {
            Harnessed::push(aec.reference, noise(16000, 1), begins);
            Harnessed::set_format(aec.mic, 16000, 1);
            Harnessed::push(aec.mic, noise(8000, 2), GST_SECOND / 4);
            gst_harness_push_event(aec.reference, gst_event_new_eos());
            const auto out = aec.to_end();
            EXPECT_EQ(out.front().pts, GST_SECOND / 4);
            EXPECT_EQ(joined(out).size(), 8000u);
        });
    }
}

TEST_F(GStreamerTiming, LateMicrophonesAreWaitedForALateReferenceIsNot)
{
    Harnessed aec(true);
    for (GstHarness *harness : {aec.mic, aec.reference}) {
        gst_harness_use_testclock(harness);
        Harnessed::set_format(harness, 16000, 1);
    }
    GstTestClock *clock = gst_harness_get_testclock(aec.mic);
    gst_element_set_clock(aec.mic->element, GST_CLOCK(clock));
    standard_error_of([&] {
        for (GstHarness *harness : {aec.reference, aec.mic})
            Harnessed::push(harness, noise(256, 1), 0);
        EXPECT_EQ(aec.pull().pts, 0u);
        Harnessed::push(aec.reference, noise(256, 2), FRAME);
        GstClockID wait = nullptr;
        gst_test_clock_wait_for_next_pending_id(clock, &wait);
        EXPECT_GT(gst_clock_id_get_time(wait), 10 * FRAME); // not 3, as the latency says
        gst_clock_id_unref(wait);
        Harnessed::push(aec.mic, noise(256, 3), FRAME);
        const Heard late = aec.pull();
        EXPECT_EQ(late.pts, FRAME);
        EXPECT_GT(*std::max_element(late.samples.begin(), late.samples.end()), 1000);
        Harnessed::push(aec.mic, noise(256, 4), 2 * FRAME);
        gst_harness_wait_for_clock_id_waits(aec.mic, 1, 10);
        gst_harness_crank_single_clock_wait(aec.mic);
        EXPECT_EQ(aec.pull().pts, 2 * FRAME);
    });
    gst_object_unref(clock);
}

TEST_F(GStreamerTiming, TheSuppressorMayBeTurnedOnAndOff)
{
    Harnessed aec;
    g_object_set(aec.mic->element, "refs", 1, nullptr);
    Harnessed::set_format(aec.mic, 16000, 2);
    std::vector<Heard> out;
    standard_error_of([&] {
        for (int turn = 0; turn < 4; turn++) {
            g_object_set(aec.mic->element, "suppress", turn % 2 == 1, nullptr);
            Harnessed::push(aec.mic, noise(2 * 4000, 1),
                            static_cast<GstClockTime>(turn) * GST_SECOND / 4);
            // 15 frames went in. The last may be held, and one of before may come out first.
            for (int frame = 0; frame < 14; frame++)
                out.push_back(aec.pull());
        }
        const auto rest = aec.to_end();
        out.insert(out.end(), rest.begin(), rest.end());
    });
    EXPECT_EQ(out.front().pts, 0u);
    EXPECT_EQ(joined(out).size(), 16000u);
}

} // namespace
