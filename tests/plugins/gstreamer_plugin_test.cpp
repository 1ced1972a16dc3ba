// The GStreamer plugin in pipelines over files and in a harness. PLUGIN is its file.
#include "recording.h"

#include <gst/check/gstharness.h>
#include <gst/gst.h>

#include <cstring>

namespace {

constexpr int RATE = 48000;

class GStreamerPlugin : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        setenv("GST_REGISTRY_FORK", "no", 1);
        gst_init(nullptr, nullptr);
        GError *error = nullptr;
        GstPlugin *plugin = gst_plugin_load_file(PLUGIN, &error);
        ASSERT_TRUE(plugin) << error->message;
        gst_object_unref(plugin);
    }

    void SetUp() override
    {
        GstElementFactory *parser = gst_element_factory_find("rawaudioparse");
        if (!parser) GTEST_SKIP() << "GStreamer's base plugins are not here";
        gst_object_unref(parser);
        folder = fresh_folder();
    }

    void TearDown() override
    {
        if (!folder.empty() && !HasFailure()) std::filesystem::remove_all(folder);
    }

    // Neighbouring channels of a recording, up to a sample instant.
    static Samples part(const Recording &recording, size_t first, size_t count, size_t end)
    {
        Samples samples;
        for (size_t t = 0; t < end; t++)
            for (size_t c = first; c < first + count; c++)
                samples.push_back(recording.samples[t * recording.channels() + c]);
        return samples;
    }

    static std::string raw_file(const std::string &name, size_t channels, int block_bytes = 4096)
    {
        return "filesrc location=" + name + " blocksize=" + std::to_string(block_bytes) +
               " ! rawaudioparse use-sink-caps=false format=pcm pcm-format=s16le sample-rate=" +
               std::to_string(RATE) + " num-channels=" + std::to_string(channels) + " ";
    }

    // Runs a pipeline, whose files are in the test's folder, to its end.
    void run(const std::string &pipeline, const std::string &expected_error = "")
    {
        const auto here = std::filesystem::current_path();
        std::filesystem::current_path(folder);
        GError *error = nullptr;
        GstElement *element = gst_parse_launch(pipeline.c_str(), &error);
        std::filesystem::current_path(here);
        ASSERT_TRUE(element && !error) << error->message;
        std::filesystem::current_path(folder);
        standard_error_of([&] {
            gst_element_set_state(element, GST_STATE_PLAYING);
            GstBus *bus = gst_element_get_bus(element);
            GstMessage *message = gst_bus_timed_pop_filtered(
                bus, 20 * GST_SECOND,
                static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
            std::string said = message ? "" : "timeout";
            if (message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
                gchar *debug = nullptr;
                gst_message_parse_error(message, &error, &debug);
                said = std::string(error->message) + " " + debug;
                g_free(debug);
                g_error_free(error);
            }
            if (expected_error.empty())
                EXPECT_EQ(said, "");
            else
                EXPECT_NE(said.find(expected_error), std::string::npos) << said;
            if (message) gst_message_unref(message);
            gst_element_set_state(element, GST_STATE_NULL);
            gst_object_unref(bus);
            gst_object_unref(element);
        });
        std::filesystem::current_path(here);
    }

    Samples output() const
    {
        const std::string bytes = contents(folder + "/out.raw");
        Samples samples(bytes.size() / 2);
        std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
        return samples;
    }

    std::string folder;
};

const char OUT[] = "naxaec name=aec ! filesink location=out.raw ";

TEST_F(GStreamerPlugin, GivesTheBytesOfCancelWavWithAReferenceThatEndsEarly)
{
    const Recording recording = make_recording(RATE, 2, 2);
    const size_t end = recording.instants();
    write_raw(folder + "/mic.raw", part(recording, 0, 2, end));
    // What follows in the reference is silence anyway.
    write_raw(folder + "/ref.raw", part(recording, 2, 2, end - RATE + 5));
    run(OUT + raw_file("mic.raw", 2, 3001) + "! aec.sink " + raw_file("ref.raw", 2, 10007) +
        "! aec.reference");
    EXPECT_TRUE(output() == cancelled(folder, recording));
}

TEST_F(GStreamerPlugin, EndsWithTheMicrophonesWhenTheReferenceGoesOn)
{
    const Recording recording = make_recording(RATE, 1, 1);
    const size_t end = recording.instants() - RATE;
    write_raw(folder + "/mic.raw", part(recording, 0, 1, end));
    write_raw(folder + "/ref.raw", part(recording, 1, 1, recording.instants()));
    run(OUT + raw_file("mic.raw", 1) + "! aec.sink " + raw_file("ref.raw", 1) + "! aec.reference");
    Samples expected = cancelled(folder, recording);
    expected.resize(end - end % 768); // the last frame holds what came after, there
    Samples out = output();
    EXPECT_EQ(out.size(), end);
    out.resize(expected.size());
    EXPECT_TRUE(out == expected);
}

TEST_F(GStreamerPlugin, TakesReferencesFromTheMicrophonesPadAndTheSettingsOfTheTools)
{
    const Recording recording = make_recording(RATE, 2, 2);
    write_raw(folder + "/all.raw", recording.samples);
    run("naxaec refs=2 order=refs-first drop=1 delay=512 delay-estimation=false remap=3,1 name=aec"
        " ! filesink location=out.raw " +
        raw_file("all.raw", 4) + "! aec.sink");
    EXPECT_TRUE(output() ==
                cancelled(folder, recording,
                          "--order refs-first --drop 1 --delay 512 --no-delay-estimation "
                          "--remap 3,1"));
}

TEST_F(GStreamerPlugin, SuppressesWhatIsLeftAFrameLater)
{
    const Recording recording = make_recording(RATE, 1, 1);
    write_raw(folder + "/all.raw", recording.samples);
    run(raw_file("all.raw", 2) + "! naxaec refs=1 suppress=true ! filesink location=out.raw");
    EXPECT_TRUE(output() == suppressed(recording));
}

TEST_F(GStreamerPlugin, PassesAudioThroughWithoutAReference)
{
    const Recording recording = make_recording(RATE, 2, 2, 0.5);
    const Samples mic = part(recording, 0, 2, recording.instants());
    write_raw(folder + "/mic.raw", mic);
    run(raw_file("mic.raw", 2) + "! naxaec ! filesink location=out.raw");
    EXPECT_TRUE(output() == mic);
    run(raw_file("mic.raw", 2) + "! naxaec probe=nobody ! filesink location=out.raw");
    EXPECT_TRUE(output() == mic);
}

TEST_F(GStreamerPlugin, StopsWithAReasonWhereItCannotServe)
{
    const Recording recording = make_recording(RATE, 2, 2, 0.1);
    write_raw(folder + "/all.raw", recording.samples);
    const std::string all = raw_file("all.raw", 4) + "! naxaec ";
    run(all + "refs=4 ! fakesink", "4 channels leave no microphone beside 4 references");
    run(all + "refs=1 ! fakesink", "there must be 1 or 2 microphones");
    run(all + "refs=2 drop=3 ! fakesink", "drop is more than refs");
}

TEST_F(GStreamerPlugin, TellsDelayAndEchoRemovedAndNotifiesOfChanges)
{
    const Recording recording = make_recording(RATE, 1, 1);
    GstHarness *mic = gst_harness_new_with_padnames("naxaec", "sink", "src");
    GstHarness *ref = gst_harness_new_with_element(mic->element, "reference", nullptr);
    const char caps[] = "audio/x-raw,format=S16LE,layout=interleaved,rate=48000,channels=1";
    gst_harness_set_src_caps_str(mic, caps);
    gst_harness_set_src_caps_str(ref, caps);
    int changes = 0;
    g_signal_connect(mic->element, "notify::applied-delay",
                     G_CALLBACK(+[](GObject *, GParamSpec *, int *count) { ++*count; }), &changes);
    const auto push = [&](GstHarness *harness, size_t channel) {
        const Samples samples = part(recording, channel, 1, recording.instants());
        GstBuffer *buffer = gst_buffer_new_memdup(samples.data(), samples.size() * 2);
        GST_BUFFER_PTS(buffer) = 0;
        gst_harness_push(harness, buffer);
    };
    standard_error_of([&] {
        push(ref, 1);
        push(mic, 0);
        for (int frame = 0; frame < 80; frame++)
            gst_buffer_unref(gst_harness_pull(mic));
    });
    int delay = 0;
    double removed = 0;
    g_object_get(mic->element, "applied-delay", &delay, "echo-removed", &removed, nullptr);
    EXPECT_GT(delay, 960); // the echo is 1920 samples late and a little more
    EXPECT_LE(delay, 1920);
    EXPECT_GE(changes, 1);
    EXPECT_GT(removed, 3.0);
    gst_harness_teardown(ref);
    gst_harness_teardown(mic);
}

TEST_F(GStreamerPlugin, KeepsTimestampsAndReportsAFrameOfLatency)
{
    GstHarness *mic = gst_harness_new_with_padnames("naxaec", "sink", "src");
    gst_harness_set_src_caps_str(
        mic, "audio/x-raw,format=S16LE,layout=interleaved,rate=16000,channels=1");
    gst_harness_set_upstream_latency(mic, 5 * GST_MSECOND);
    GstBuffer *buffer = gst_buffer_new_allocate(nullptr, 16000, nullptr);
    gst_buffer_memset(buffer, 0, 0, 16000);
    GST_BUFFER_PTS(buffer) = 3 * GST_SECOND;
    gst_harness_push(mic, buffer);
    buffer = gst_harness_pull(mic);
    EXPECT_EQ(GST_BUFFER_PTS(buffer), 3 * GST_SECOND);
    EXPECT_EQ(GST_BUFFER_DURATION(buffer), 16 * GST_MSECOND);
    EXPECT_EQ(gst_buffer_get_size(buffer), 512u);
    gst_buffer_unref(buffer);
    EXPECT_EQ(gst_harness_query_latency(mic), 21 * GST_MSECOND);
    gst_harness_teardown(mic);
}

TEST_F(GStreamerPlugin, TakesTheReferenceFromAProbeInAnotherPipeline)
{
    const Recording recording = make_recording(RATE, 1, 1, 1.5);
    const char caps[] = "audio/x-raw,format=S16LE,layout=interleaved,rate=48000,channels=1";
    GstHarness *play = gst_harness_new("naxechoprobe");
    gst_object_set_name(GST_OBJECT(play->element), "loudspeaker");
    GstHarness *mic = gst_harness_new_with_padnames("naxaec", "sink", "src");
    g_object_set(mic->element, "probe", "loudspeaker", nullptr);
    gst_harness_set_src_caps_str(play, caps);
    gst_harness_set_src_caps_str(mic, caps);
    // In blocks of 20 ms, the playback a block ahead of the capture.
    const Samples heard = part(recording, 0, 1, recording.instants());
    const Samples played = part(recording, 1, 1, recording.instants());
    const auto push = [](GstHarness *harness, const Samples &samples, size_t block) {
        GstBuffer *buffer = gst_buffer_new_memdup(&samples[block * 960], 1920);
        GST_BUFFER_PTS(buffer) = GST_SECOND + block * 20 * GST_MSECOND;
        gst_harness_push(harness, buffer);
    };
    const size_t blocks = recording.instants() / 960;
    double removed = 0;
    standard_error_of([&] {
        push(play, played, 0);
        for (size_t block = 0; block + 1 < blocks; block++) {
            push(play, played, block + 1);
            push(mic, heard, block);
        }
        // A frame less than went in: the last is not full.
        for (size_t frame = 0; frame + 2 < blocks * 960 / 768; frame++)
            gst_buffer_unref(gst_harness_pull(mic));
    });
    int delay = 0;
    g_object_get(mic->element, "echo-removed", &removed, "applied-delay", &delay, nullptr);
    EXPECT_GT(removed, 3.0) << delay;
    gst_harness_teardown(mic);
    gst_harness_teardown(play);
}

TEST_F(GStreamerPlugin, GoesOnAfterAFlushAndInAnotherFormat)
{
    GstHarness *mic = gst_harness_new_with_padnames("naxaec", "sink", "src");
    g_object_set(mic->element, "refs", 1, nullptr);
    const auto frames_of = [&](int rate, size_t frames) {
        const std::string caps = "audio/x-raw,format=S16LE,layout=interleaved,channels=2,"
                                 "channel-mask=(bitmask)0,rate=" +
                                 std::to_string(rate);
        gst_harness_set_src_caps_str(mic, caps.c_str());
        const size_t bytes = static_cast<size_t>(rate) * 16 / 1000 * frames * 4;
        GstBuffer *buffer = gst_buffer_new_allocate(nullptr, bytes, nullptr);
        gst_buffer_memset(buffer, 0, 1, bytes);
        GST_BUFFER_PTS(buffer) = 0;
        gst_harness_push(mic, buffer);
        buffer = gst_harness_pull(mic);
        EXPECT_EQ(gst_buffer_get_size(buffer), static_cast<size_t>(rate) * 16 / 1000 * 2) << rate;
        gst_buffer_unref(buffer);
    };
    standard_error_of([&] {
        frames_of(16000, 3);
        for (const int rate : {16000, 8000}) {
            gst_harness_push_event(mic, gst_event_new_flush_start());
            gst_harness_push_event(mic, gst_event_new_flush_stop(TRUE));
            GstSegment segment;
            gst_segment_init(&segment, GST_FORMAT_TIME);
            gst_harness_push_event(mic, gst_event_new_segment(&segment));
            while (GstBuffer *rest = gst_harness_try_pull(mic))
                gst_buffer_unref(rest);
            frames_of(rate, 3);
        }
    });
    gst_harness_teardown(mic);
}

} // namespace
