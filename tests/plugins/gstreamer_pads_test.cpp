// The reference's pad and probes come and go; states change; streams end in any order.
#include "gstreamer_fixture.h"

#include <condition_variable>
#include <memory>
#include <mutex>

namespace {

using GStreamerPads = GStreamerPlugin;

// A pipeline made from its text, and stopped at the end of the scope.
class Pipeline {
public:
    explicit Pipeline(const std::string &text)
    {
        GError *error = nullptr;
        bin = gst_parse_launch(text.c_str(), &error);
        EXPECT_TRUE(bin && !error) << error->message;
        bus = gst_element_get_bus(bin);
    }
    ~Pipeline()
    {
        gst_element_set_state(bin, GST_STATE_NULL);
        gst_object_unref(bus);
        gst_object_unref(bin);
    }
    Pipeline(const Pipeline &) = delete;
    Pipeline &operator=(const Pipeline &) = delete;

    void play() const { gst_element_set_state(bin, GST_STATE_PLAYING); }

    GstElement *part(const char *name) const
    {
        GstElement *element = gst_bin_get_by_name(GST_BIN(bin), name);
        gst_object_unref(element); // the bin has it
        return element;
    }

    // Waits for the end. Returns "end", "timeout" or the text of the error.
    std::string outcome() const
    {
        GstMessage *message = gst_bus_timed_pop_filtered(
            bus, PATIENCE, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
        if (!message) return "timeout";
        std::string said = "end";
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
            GError *error = nullptr;
            gchar *debug = nullptr;
            gst_message_parse_error(message, &error, &debug);
            said = std::string(error->message) + " " + debug;
            g_free(debug);
            g_error_free(error);
        }
        gst_message_unref(message);
        return said;
    }

    GstElement *bin;
    GstBus *bus;
};

// Counts the buffers that pass a pad. The pad may outlive it.
class Passed {
public:
    explicit Passed(GstPad *pad)
    {
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, note, new Shared(count_),
                          [](gpointer data) { delete static_cast<Shared *>(data); });
    }
    bool wait_for(int buffers)
    {
        std::unique_lock lock(count_->mutex);
        return count_->changed.wait_for(lock, std::chrono::seconds(30),
                                        [&] { return count_->buffers >= buffers; });
    }

private:
    struct Count {
        std::mutex mutex;
        std::condition_variable changed;
        int buffers = 0;
    };
    using Shared = std::shared_ptr<Count>;

    static GstPadProbeReturn note(GstPad *, GstPadProbeInfo *, gpointer data)
    {
        Count &count = **static_cast<Shared *>(data);
        const std::lock_guard lock(count.mutex);
        count.buffers++;
        count.changed.notify_all();
        return GST_PAD_PROBE_OK;
    }

    Shared count_ = std::make_shared<Count>();
};

const char SOURCE[] = "audiotestsrc samplesperbuffer=160 is-live=true ! "
                      "audio/x-raw,format=S16LE,rate=16000,channels=1 ";

TEST_F(GStreamerPads, TheReferenceMayBeReleasedWhileItPlays)
{
    standard_error_of([&] {
        Pipeline live(std::string(SOURCE) + "! naxaec name=aec suppress=true ! fakesink " + SOURCE +
                      "! tee name=played allow-not-linked=true ! fakesink");
        GstElement *aec = live.part("aec"), *played = live.part("played");
        live.play();
        for (int turn = 0; turn < 25; turn++) {
            GstPad *reference = gst_element_request_pad_simple(aec, "reference");
            ASSERT_TRUE(reference);
            EXPECT_FALSE(gst_element_request_pad_simple(aec, "reference"));
            GstPad *branch = gst_element_request_pad_simple(played, "src_%u");
            Passed passed(reference);
            EXPECT_EQ(gst_pad_link(branch, reference), GST_PAD_LINK_OK);
            EXPECT_TRUE(passed.wait_for(1 + turn % 4)) << turn;
            gst_element_release_request_pad(played, branch); // with audio behind it
            gst_element_release_request_pad(aec, reference);
            gst_object_unref(branch);
            gst_object_unref(reference);
        }
        EXPECT_FALSE(gst_bus_pop_filtered(live.bus, GST_MESSAGE_ERROR));
    });
}

TEST_F(GStreamerPads, AReferenceThatNothingIsLinkedToIsNotWaitedFor)
{
    const Recording recording = make_recording(RATE, 1, 1, 0.5);
    const Samples mic = part(recording, 0, 1, recording.instants());
    write_raw(folder + "/mic.raw", mic);
    Pipeline files("filesrc location=" + folder +
                   "/mic.raw ! rawaudioparse use-sink-caps=false "
                   "pcm-format=s16le sample-rate=48000 num-channels=1 ! naxaec name=aec ! "
                   "filesink location=" +
                   folder + "/out.raw");
    GstPad *reference = gst_element_request_pad_simple(files.part("aec"), "reference");
    files.play();
    EXPECT_EQ(files.outcome(), "end");
    EXPECT_TRUE(output() == mic);
    gst_object_unref(reference);
}

TEST_F(GStreamerPads, AReferenceThatIsUnlinkedIsNotWaitedForAndMayComeBack)
{
    standard_error_of([&] {
        Pipeline pipeline("audiotestsrc samplesperbuffer=160 ! audio/x-raw,format=S16LE,rate=16000,"
                          "channels=1 ! naxaec name=aec ! fakesink name=sink "
                          "audiotestsrc name=played samplesperbuffer=160 ! "
                          "audio/x-raw,format=S16LE,rate=16000,channels=1 ! queue name=branch ! "
                          "aec.reference");
        GstPad *branch = gst_element_get_static_pad(pipeline.part("branch"), "src");
        GstPad *reference = gst_element_get_static_pad(pipeline.part("aec"), "reference");
        GstPad *sink = gst_element_get_static_pad(pipeline.part("sink"), "sink");
        // Unlinked while its audio waits to enter the pad, before anything plays.
        gst_element_set_state(pipeline.bin, GST_STATE_PAUSED);
        gst_element_get_state(pipeline.bin, nullptr, nullptr, PATIENCE);
        gst_pad_unlink(branch, reference);
        Passed out(sink);
        pipeline.play();
        EXPECT_TRUE(out.wait_for(100));
        gst_element_set_state(pipeline.part("played"), GST_STATE_NULL);
        gst_element_set_state(pipeline.part("branch"), GST_STATE_NULL);
        EXPECT_EQ(gst_pad_link(branch, reference), GST_PAD_LINK_OK);
        Passed back(reference);
        gst_element_sync_state_with_parent(pipeline.part("branch"));
        gst_element_sync_state_with_parent(pipeline.part("played"));
        EXPECT_TRUE(back.wait_for(2));
        for (GstPad *pad : {branch, reference, sink})
            gst_object_unref(pad);
    });
}

TEST_F(GStreamerPads, AudioOfTheReferenceBeforeItsFormatIsNoError)
{
    Harnessed aec(true);
    Harnessed::set_format(aec.mic, 16000, 1);
    standard_error_of([&] {
        Harnessed::push(aec.reference, Samples(512), 0);
        Harnessed::push(aec.mic, Samples(512), 0);
        gst_harness_push_event(aec.reference, gst_event_new_eos());
        size_t samples = 0;
        for (const auto &buffer : aec.to_end())
            samples += buffer.samples.size();
        EXPECT_EQ(samples, 512u);
    });
}

TEST_F(GStreamerPads, EndsInAnyOrderEvenWithoutAnyAudio)
{
    for (const bool mics_first : {false, true}) {
        for (const bool audio : {false, true}) {
            Harnessed aec(true);
            GstBus *bus = gst_bus_new();
            gst_element_set_bus(aec.mic->element, bus);
            standard_error_of([&] {
                Harnessed::set_format(aec.mic, 16000, 1);
                Harnessed::set_format(aec.reference, 16000, 1);
                if (audio) Harnessed::push(aec.mic, Samples(1000), 0);
                Harnessed::push(aec.reference, Samples(3000), 0);
                if (!mics_first) gst_harness_push_event(aec.reference, gst_event_new_eos());
                const auto out = aec.to_end();
                size_t samples = 0;
                for (const auto &buffer : out)
                    samples += buffer.samples.size();
                EXPECT_EQ(samples, audio ? 1000u : 0u) << mics_first;
            });
            EXPECT_FALSE(gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR)) << mics_first << audio;
            gst_element_set_bus(aec.mic->element, nullptr);
            gst_object_unref(bus);
        }
    }
}

TEST_F(GStreamerPads, StartsAgainWithOtherSettingsAndRates)
{
    standard_error_of([&] {
        Pipeline pipeline("audiotestsrc name=source ! capsfilter name=format ! "
                          "naxaec name=aec ! fakesink name=sink");
        GstElement *aec = pipeline.part("aec");
        GstPad *sink = gst_element_get_static_pad(pipeline.part("sink"), "sink");
        for (int turn = 0; turn < 12; turn++) {
            const int rates[] = {8000, 16000, 32000, 48000};
            const int refs = turn % 3;
            GstCaps *caps = gst_caps_new_simple("audio/x-raw", "rate", G_TYPE_INT, rates[turn % 4],
                                                "channels", G_TYPE_INT, 1 + refs, nullptr);
            g_object_set(pipeline.part("format"), "caps", caps, nullptr);
            gst_caps_unref(caps);
            g_object_set(aec, "refs", refs, "suppress", turn % 2 == 1, nullptr);
            gst_util_set_object_arg(G_OBJECT(aec), "order", turn % 2 ? "refs-first" : "mics-first");
            gst_element_set_state(pipeline.bin, GST_STATE_PAUSED);
            EXPECT_EQ(gst_element_get_state(pipeline.bin, nullptr, nullptr, 10 * GST_SECOND),
                      GST_STATE_CHANGE_SUCCESS);
            GstCaps *got = gst_pad_get_current_caps(sink);
            int rate = 0, channels = 0;
            const GstStructure *structure = gst_caps_get_structure(got, 0);
            gst_structure_get(structure, "rate", G_TYPE_INT, &rate, "channels", G_TYPE_INT,
                              &channels, nullptr);
            EXPECT_EQ(rate, rates[turn % 4]);
            EXPECT_EQ(channels, 1) << turn;
            gst_caps_unref(got);
            gst_element_set_state(pipeline.bin, turn % 2 ? GST_STATE_READY : GST_STATE_NULL);
        }
        gst_object_unref(sink);
    });
}

TEST_F(GStreamerPads, TakesTheReferenceFromAProbeInAnotherPipeline)
{
    const Recording recording = make_recording(RATE, 1, 1, 1.5);
    const char caps[] = "audio/x-raw,format=S16LE,layout=interleaved,rate=48000,channels=1";
    GstHarness *play = gst_harness_new("naxechoprobe");
    gst_object_set_name(GST_OBJECT(play->element), "loudspeaker");
    GstHarness *mic = gst_harness_new_with_padnames("naxaec", "sink", "src");
    g_object_set(mic->element, "probe", "loudspeaker", nullptr);
    gst_harness_set_src_caps_str(play, caps);
    gst_harness_set_src_caps_str(mic, caps);
    // Blocks of 20 ms; playback is a block ahead of the capture.
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
        // The last frame is not full and does not come out.
        for (size_t frame = 0; frame + 2 < blocks * 960 / 768; frame++)
            gst_buffer_unref(gst_harness_pull(mic));
    });
    int delay = 0;
    g_object_get(mic->element, "echo-removed", &removed, "applied-delay", &delay, nullptr);
    EXPECT_GT(removed, 3.0) << delay;
    gst_harness_teardown(mic);
    gst_harness_teardown(play);
}

TEST_F(GStreamerPads, TheProbeKeepsWhatWasPrerolledBeforeItsTimeIsKnown)
{
    Harnessed aec;
    GstHarness *play = gst_harness_new("naxechoprobe");
    gst_object_set_name(GST_OBJECT(play->element), "prerolled");
    g_object_set(aec.mic->element, "probe", "prerolled", nullptr);
    Harnessed::set_format(play, 16000, 1);
    Harnessed::set_format(aec.mic, 16000, 1);
    const Samples sound = Noise(1).frame(16000, 6000);
    double removed = 0;
    standard_error_of([&] {
        Harnessed::push(play, sound, 0);
        for (GstElement *element : {play->element, aec.mic->element})
            gst_element_set_base_time(element, 10 * GST_SECOND);
        gst_harness_push_upstream_event(play, gst_event_new_latency(20 * GST_MSECOND));
        Harnessed::push(aec.mic, sound, 20 * GST_MSECOND);
        for (int frame = 0; frame < 60; frame++)
            aec.pull();
    });
    g_object_get(aec.mic->element, "echo-removed", &removed, nullptr);
    EXPECT_GT(removed, 3.0); // 0 where nothing was played
    gst_harness_teardown(play);
}

TEST_F(GStreamerPads, FollowsTheProbeOfItsNameThatPlays)
{
    const auto add_probe = [](bool plays) {
        GstHarness *probe = gst_harness_new("naxechoprobe");
        gst_object_set_name(GST_OBJECT(probe->element), "one_of_two");
        if (plays) Harnessed::set_format(probe, 16000, 1);
        return probe;
    };
    Harnessed aec;
    GstHarness *silent = add_probe(false), *playing = add_probe(true), *newer = add_probe(false);
    g_object_set(aec.mic->element, "probe", "one_of_two", "delay", 77, "delay-estimation", FALSE,
                 nullptr);
    Harnessed::set_format(aec.mic, 16000, 1);
    const auto applied_delay = [&] {
        int delay = 0;
        g_object_get(aec.mic->element, "applied-delay", &delay, nullptr);
        return delay;
    };
    standard_error_of([&] {
        Harnessed::push(aec.mic, Samples(512), 0);
        aec.pull(), aec.pull();
        EXPECT_EQ(applied_delay(), 77); // of a canceller, so there is one
        // The probe goes while it is used: the canceller stays, and its reference is silent.
        gst_harness_teardown(playing);
        Harnessed::push(aec.mic, Samples(512), 32 * GST_MSECOND);
        aec.pull(), aec.pull();
        EXPECT_EQ(applied_delay(), 77);
        g_object_set(aec.mic->element, "probe", nullptr, nullptr);
        Harnessed::push(aec.mic, Samples(512), 64 * GST_MSECOND);
        aec.pull(), aec.pull();
    });
    EXPECT_EQ(applied_delay(), 0); // none
    gst_harness_teardown(silent);
    gst_harness_teardown(newer);
}

} // namespace
