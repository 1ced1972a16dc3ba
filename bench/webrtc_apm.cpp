// The echo canceller of webrtc-audio-processing 0.3 over whole recordings, for
// comparison by bench/quality, which compiles this file into a shared object.
//
// The delay-agnostic mode finds the delay, the extended filter covers a longer echo
// path. Its suppressor cannot be switched off: what it removes is more than a linear
// filter can, at the near end's expense.
#include <webrtc/modules/audio_processing/include/audio_processing.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace {

// Interleaved int16 of one chunk to planar float of full scale 1, and back.
struct Planar {
    Planar(int channels, int size) : samples(channels, std::vector<float>(size))
    {
        for (auto &channel : samples)
            pointers.push_back(channel.data());
    }
    void read(const int16_t *from)
    {
        for (size_t c = 0; c < samples.size(); c++)
            for (size_t i = 0; i < samples[c].size(); i++)
                samples[c][i] = from[i * samples.size() + c] / 32768.0f;
    }
    void write(int16_t *to) const
    {
        for (size_t c = 0; c < samples.size(); c++)
            for (size_t i = 0; i < samples[c].size(); i++) {
                const float scaled = samples[c][i] * 32768.0f;
                to[i * samples.size() + c] = static_cast<int16_t>(scaled < -32768  ? -32768
                                                                  : scaled > 32767 ? 32767
                                                                                   : scaled);
            }
    }
    std::vector<std::vector<float>> samples;
    std::vector<float *> pointers;
};

} // namespace

// count x mics and count x refs interleaved samples in, count x mics out. What is left
// over after the last whole chunk of 10 ms stays as it is. Returns 0, or the library's
// error.
extern "C" int webrtc_apm(int rate, int count, int mics, int refs, const int16_t *mic,
                          const int16_t *ref, int16_t *cleaned)
{
    webrtc::Config config;
    config.Set<webrtc::DelayAgnostic>(new webrtc::DelayAgnostic(true));
    config.Set<webrtc::ExtendedFilter>(new webrtc::ExtendedFilter(true));
    std::unique_ptr<webrtc::AudioProcessing> apm(webrtc::AudioProcessing::Create(config));
    apm->echo_cancellation()->Enable(true);
    apm->echo_cancellation()->enable_drift_compensation(false);

    const webrtc::StreamConfig capture(rate, mics), render(rate, refs);
    const int chunk = rate / 100;
    Planar near(mics, chunk), far(refs, chunk);
    for (int start = 0; start + chunk <= count; start += chunk) {
        far.read(ref + start * refs);
        near.read(mic + start * mics);
        int error =
            apm->ProcessReverseStream(far.pointers.data(), render, render, far.pointers.data());
        apm->set_stream_delay_ms(0);
        if (!error)
            error =
                apm->ProcessStream(near.pointers.data(), capture, capture, near.pointers.data());
        if (error) return error;
        near.write(cleaned + start * mics);
    }
    return 0;
}
