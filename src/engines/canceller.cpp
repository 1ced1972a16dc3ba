// Binding over libspeexdsp's echo canceller: the multidelay block frequency domain
// filter of Soo and Pang (1990) in its alternatively updated variant, with the
// learning rate of Valin (2007, "On adjusting the learning rate in frequency domain
// echo cancellation with double-talk") and a foreground and a background filter.
#include "engines/canceller.h"

#include "engines/float_mode.h"
#include "engines/saturate.h"

#include <speex/speex_echo.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace nax::canceller {

// The library runs on blocks shorter than a frame, with the same filter length: it
// then adapts several times a frame. docs/experiments.md has the comparison.
static constexpr int32_t BLOCKS_PER_FRAME = 4;

// The library picks the corner of its microphone high-pass from the rate that it is
// told: about 130 Hz at a true 8000 Hz, where it eats near-end speech. Told at least
// this rate it uses the lowest corner; its averaging times, which also follow the
// rate, make no difference that could be measured.
static constexpr int32_t LEAST_RATE_TOLD = 24000;

struct Instance {
    SpeexEchoState *library; // null: pass the microphones through
    int32_t block_size;      // samples per channel handed to the library at once
    int32_t mics;
    int32_t speakers;
    int16_t *mic_block; // block_size x mics, interleaved
    int16_t *ref_block; // block_size x speakers, interleaved
};

static int16_t *allocate_block(int32_t block_size, int32_t channels)
{
    return static_cast<int16_t *>(
        calloc(static_cast<size_t>(block_size) * static_cast<size_t>(channels), sizeof(int16_t)));
}

Instance *speex_echo_state_init_mc(int32_t frame_size, int32_t filter_length, int32_t mics,
                                   int32_t speakers, int32_t sample_rate)
{
    Instance *instance = static_cast<Instance *>(calloc(1, sizeof(Instance)));
    if (!instance) return nullptr;

    instance->block_size = frame_size / BLOCKS_PER_FRAME;
    instance->mics = mics;
    instance->speakers = speakers;
    if (speakers < 1) return instance;

    instance->mic_block = allocate_block(instance->block_size, mics);
    instance->ref_block = allocate_block(instance->block_size, speakers);
    if (!instance->mic_block || !instance->ref_block) return instance;

    instance->library =
        ::speex_echo_state_init_mc(instance->block_size, filter_length, mics, speakers);
    int32_t rate_told = std::max(sample_rate, LEAST_RATE_TOLD);
    if (instance->library)
        speex_echo_ctl(instance->library, SPEEX_ECHO_SET_SAMPLING_RATE, &rate_told);
    return instance;
}

// One block of planar channels, frame_size samples apart, to interleaved.
static void interleave(const int16_t *from, int32_t frame_size, int32_t channels, int16_t *to,
                       int32_t block_size)
{
    for (int32_t c = 0; c < channels; c++)
        for (int32_t i = 0; i < block_size; i++)
            to[i * channels + c] = from[c * frame_size + i];
}

void speex_fast_echo_cancellation(Instance *instance, const int16_t *mic_frame,
                                  const int16_t *ref_frame, int16_t *aec_frame, int16_t *echo_frame,
                                  int32_t delay_changed)
{
    if (!instance) return;

    const FlushDenormals flush;
    const int32_t mics = instance->mics;
    const int32_t block = instance->block_size;
    const int32_t frame = block * BLOCKS_PER_FRAME;
    if (!instance->library) {
        interleave(mic_frame, frame, mics, aec_frame, frame);
        memset(echo_frame, 0, static_cast<size_t>(frame * mics) * sizeof *echo_frame);
        return;
    }
    // A filter that learnt another alignment is worse than none.
    if (delay_changed) speex_echo_state_reset(instance->library);
    for (int32_t start = 0; start < frame; start += block) {
        int16_t *cleaned = aec_frame + start * mics;
        int16_t *echo = echo_frame + start * mics;
        interleave(mic_frame + start, frame, mics, instance->mic_block, block);
        interleave(ref_frame + start, frame, instance->speakers, instance->ref_block, block);
        speex_echo_cancellation(instance->library, instance->mic_block, instance->ref_block,
                                cleaned);
        for (int32_t i = 0; i < block * mics; i++)
            echo[i] = saturate_int16(instance->mic_block[i] - cleaned[i]);
    }
}

Instance *speex_echo_state_destroy(Instance *instance)
{
    if (!instance) return nullptr;
    if (instance->library) ::speex_echo_state_destroy(instance->library);
    free(instance->mic_block);
    free(instance->ref_block);
    free(instance);
    return nullptr;
}

} // namespace nax::canceller
