// The GStreamer plugin over files: its output, its settings, what it refuses, what it tells.
#include "gstreamer_fixture.h"

namespace {

TEST_F(GStreamerPlugin, GivesTheBytesOfCancelWavWithAReferenceThatEndsEarly)
{
    const Recording recording = make_recording(RATE, 2, 2);
    const size_t end = recording.instants();
    write_raw(folder + "/mic.raw", part(recording, 0, 2, end));
    // The reference is silent from there on.
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

TEST_F(GStreamerPlugin, GivesTheBytesOfCancelWavSuppressedFromBothWirings)
{
    const Recording recording = make_recording(RATE, 2, 2);
    const Samples expected = cancelled(folder, recording, "--suppress");
    write_raw(folder + "/all.raw", recording.samples);
    run(raw_file("all.raw", 4) + "! naxaec refs=2 suppress=true ! filesink location=out.raw");
    EXPECT_TRUE(output() == expected);
    const size_t end = recording.instants();
    write_raw(folder + "/mic.raw", part(recording, 0, 2, end));
    write_raw(folder + "/ref.raw", part(recording, 2, 2, end - RATE + 5));
    run("naxaec suppress=true name=aec ! filesink location=out.raw " +
        raw_file("mic.raw", 2, 3001) + "! aec.sink " + raw_file("ref.raw", 2, 10007) +
        "! aec.reference");
    EXPECT_TRUE(output() == expected);
}

TEST_F(GStreamerPlugin, EndsLikeCancelWavSuppressedWithinAFrameAndBetweenFramesWhileItPlays)
{
    const Recording whole = make_recording(RATE, 1, 1, 3.0);
    for (const size_t instants : {80 * 768u, 80 * 768u + 100, 100 * 768u + 700}) {
        Recording recording = whole;
        recording.samples.resize(2 * instants);
        write_raw(folder + "/all.raw", recording.samples);
        run(raw_file("all.raw", 2) + "! naxaec refs=1 suppress=true ! filesink location=out.raw");
        EXPECT_TRUE(output() == cancelled(folder, recording, "--suppress")) << instants;
    }
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

// The warnings of a pipeline that runs to its end.
static std::vector<std::string> warnings_of(const std::string &pipeline)
{
    GError *error = nullptr;
    GstElement *element = gst_parse_launch(pipeline.c_str(), &error);
    EXPECT_TRUE(element && !error);
    gst_element_set_state(element, GST_STATE_PLAYING);
    GstBus *bus = gst_element_get_bus(element);
    const auto wanted =
        static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR | GST_MESSAGE_WARNING);
    std::vector<std::string> warnings;
    for (bool ended = false; !ended;) {
        GstMessage *message = gst_bus_timed_pop_filtered(bus, PATIENCE, wanted);
        ended = !message || GST_MESSAGE_TYPE(message) != GST_MESSAGE_WARNING;
        EXPECT_TRUE(message && GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR);
        if (!ended) {
            gchar *debug = nullptr;
            gst_message_parse_warning(message, &error, &debug);
            warnings.push_back(std::string(error->message) + " " + debug);
            g_free(debug);
            g_error_free(error);
        }
        if (message) gst_message_unref(message);
    }
    gst_element_set_state(element, GST_STATE_NULL);
    gst_object_unref(bus);
    gst_object_unref(element);
    return warnings;
}

TEST_F(GStreamerPlugin, WarnsOnceOfAProbeThatIsNotThereForASecond)
{
    const auto warnings_after = [&](int32_t samples, const std::string &settings) {
        write_raw(folder + "/mic.raw", Samples(static_cast<size_t>(samples)));
        return warnings_of(raw_file(folder + "/mic.raw", 1) + "! naxaec " + settings +
                           " ! fakesink");
    };
    EXPECT_TRUE(warnings_after(RATE * 9 / 10, "probe=nobody").empty());
    EXPECT_TRUE(warnings_after(RATE * 3, "").empty());
    const std::vector<std::string> warnings = warnings_after(RATE * 3, "probe=nobody");
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_NE(warnings[0].find("does not exist"), std::string::npos) << warnings[0];
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

TEST_F(GStreamerPlugin, TellsTheMetersVerdictByPropertiesAndByAMessageWhenItChanges)
{
    int notified = 0; // also counted while the element stops
    Harnessed aec;
    GstBus *bus = gst_bus_new();
    gst_element_set_bus(aec.mic->element, bus);
    g_object_set(aec.mic->element, "refs", 1, nullptr);
    Harnessed::set_format(aec.mic, 16000, 2);
    g_signal_connect(aec.mic->element, "notify::status",
                     G_CALLBACK(+[](GObject *, GParamSpec *, int *count) { ++*count; }), &notified);
    gchar *before = nullptr;
    g_object_get(aec.mic->element, "status", &before, nullptr);
    EXPECT_EQ(before, nullptr);
    Samples dead = Noise(1).frame(2 * 16000 * 8, 6000); // a reference beside a dead microphone
    for (size_t i = 0; i < dead.size(); i += 2)
        dead[i] = 0;
    standard_error_of([&] {
        Harnessed::push(aec.mic, dead, 0);
        for (int frame = 0; frame < 8 * 16000 / 256; frame++)
            aec.pull();
    });
    std::string said, alarms;
    while (GstMessage *message = gst_bus_pop_filtered(bus, GST_MESSAGE_ELEMENT)) {
        const GstStructure *status = gst_message_get_structure(message);
        EXPECT_TRUE(gst_structure_has_name(status, "naxaec-status"));
        gboolean alarm = FALSE;
        EXPECT_TRUE(gst_structure_get_boolean(status, "alarm", &alarm));
        EXPECT_TRUE(gst_structure_get_string(status, "text"));
        said += std::string(gst_structure_get_string(status, "status")) + (alarm ? "! " : " ");
        gst_message_unref(message);
    }
    EXPECT_EQ(said, "searching no-microphone! ");
    EXPECT_EQ(notified, 2);
    gchar *status = nullptr;
    GstStructure *stats = nullptr;
    g_object_get(aec.mic->element, "status", &status, "stats", &stats, nullptr);
    EXPECT_STREQ(status, "no-microphone");
    EXPECT_STREQ(gst_structure_get_string(stats, "status"), "no-microphone");
    double reference = 0;
    EXPECT_TRUE(gst_structure_get_double(stats, "reference-dbfs", &reference));
    EXPECT_NEAR(reference, -19.5, 1); // uniform noise of 6000 steps
    g_free(status);
    gst_structure_free(stats);
    gst_element_set_bus(aec.mic->element, nullptr);
    gst_object_unref(bus);
}

} // namespace
