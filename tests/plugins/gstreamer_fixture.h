// Pipelines and harnesses with the GStreamer plugin, whose file is PLUGIN.
#pragma once

#include "recording.h"

#include <gst/check/gstharness.h>
#include <gst/gst.h>

#include <cstring>

constexpr int RATE = 48000;
constexpr GstClockTime PATIENCE = 120 * GST_SECOND; // in an emulator

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

    // Copies neighbouring channels of a recording, up to a sample instant.
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

    // Runs a pipeline to its end, with the test's folder as the current one.
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
                bus, PATIENCE, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
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

inline const char OUT[] = "naxaec name=aec ! filesink location=out.raw ";

// A naxaec whose pads the test feeds: the microphones' and, where asked for, the reference's.
class Harnessed {
public:
    explicit Harnessed(bool with_reference = false)
        : mic(gst_harness_new_with_padnames("naxaec", "sink", "src"))
    {
        if (with_reference)
            reference = gst_harness_new_with_element(mic->element, "reference", nullptr);
    }
    ~Harnessed()
    {
        if (reference) gst_harness_teardown(reference);
        gst_harness_teardown(mic);
    }
    Harnessed(const Harnessed &) = delete;
    Harnessed &operator=(const Harnessed &) = delete;

    static void set_format(GstHarness *harness, int rate, int channels)
    {
        const std::string caps =
            "audio/x-raw,format=S16LE,layout=interleaved,rate=" + std::to_string(rate) +
            ",channels=" + std::to_string(channels) +
            (channels > 1 ? ",channel-mask=(bitmask)0" : "");
        gst_harness_set_src_caps_str(harness, caps.c_str());
    }

    static void push(GstHarness *harness, const Samples &samples, GstClockTime pts,
                     GstBufferFlags flags = {})
    {
        GstBuffer *buffer = gst_buffer_new_memdup(samples.data(), samples.size() * 2);
        GST_BUFFER_PTS(buffer) = pts;
        gst_buffer_set_flags(buffer, flags);
        gst_harness_push(harness, buffer);
    }

    struct Heard {
        GstClockTime pts, duration;
        Samples samples;
    };

    Heard pull() const { return heard(gst_harness_pull(mic)); }

    // Ends the microphones and returns the buffers that are left.
    std::vector<Heard> to_end() const
    {
        gst_harness_push_event(mic, gst_event_new_eos());
        for (bool end = false; !end;) {
            GstEvent *event = gst_harness_pull_event(mic);
            if (!event) return {};
            end = GST_EVENT_TYPE(event) == GST_EVENT_EOS;
            gst_event_unref(event);
        }
        std::vector<Heard> all;
        while (GstBuffer *buffer = gst_harness_try_pull(mic))
            all.push_back(heard(buffer));
        return all;
    }

    GstHarness *const mic;
    GstHarness *reference = nullptr;

private:
    static Heard heard(GstBuffer *buffer)
    {
        if (!buffer) return {};
        Heard result = {GST_BUFFER_PTS(buffer), GST_BUFFER_DURATION(buffer),
                        Samples(gst_buffer_get_size(buffer) / 2)};
        gst_buffer_extract(buffer, 0, result.samples.data(), result.samples.size() * 2);
        gst_buffer_unref(buffer);
        return result;
    }
};
