// Binding over libspeexdsp's echo canceller: the multidelay block frequency domain
// filter of Soo and Pang (1990) in its alternatively updated variant, with the
// learning rate of Valin (2007, "On adjusting the learning rate in frequency domain
// echo cancellation with double-talk") and a foreground and a background filter.
// docs/experiments.md has the comparisons behind the choices made here.
#include "engines/canceller.h"

#include "engines/canceller_policy.h"
#include "engines/speex_memory.h"
#include "kernels/saturate.h"

#include <speex/speex_echo.h>

#include <algorithm>
#include <cstdlib>

namespace nax::canceller {

// The library runs on blocks of a quarter frame with the same filter length, so that it adapts
// four times a frame. At 8000 Hz that would cost half as much again, so that blocks are half
// frames there.
static constexpr int32_t BLOCKS_PER_FRAME = 4;
static constexpr int32_t MIN_BLOCK = 64; // samples

// The largest number of references for which the library's sizes, which it computes in int,
// do not overflow. No device has as many.
static constexpr int32_t MAX_SPEAKERS = 1024;

// The library chooses the corner of its microphone high-pass by the rate that it is told. At
// 8000 Hz the corner is at about 130 Hz, which takes away near-end speech. From this rate on it
// uses the lowest corner. Its averaging times also follow the rate; they made no difference that
// could be measured.
static constexpr int32_t LEAST_RATE_TOLD = 24000;

struct Instance {
    SpeexEchoState *library; // null: pass the microphones through
    int32_t frame_size;
    int32_t block_size; // samples per channel handed to the library at once
    int32_t mics;
    int32_t speakers;
    int16_t *mic_block; // block_size x mics, interleaved; behind the instance itself
    int16_t *ref_block; // block_size x speakers, interleaved; behind mic_block
    Policy policy;
};

static SpeexEchoState *create_library(const Instance &instance, int32_t filter_length,
                                      int32_t sample_rate)
{
    // Volatile, because a compiler may remove an allocation that nothing uses.
    void *volatile trial =
        malloc(speex_bytes(instance.block_size, filter_length, instance.mics, instance.speakers));
    free(trial);
    if (!trial) return nullptr;

    SpeexEchoState *library = ::speex_echo_state_init_mc(instance.block_size, filter_length,
                                                         instance.mics, instance.speakers);
    int32_t rate_told = std::max(sample_rate, LEAST_RATE_TOLD);
    if (library) speex_echo_ctl(library, SPEEX_ECHO_SET_SAMPLING_RATE, &rate_told);
    return library;
}

Instance *speex_echo_state_init_mc(int32_t frame_size, int32_t filter_length, int32_t mics,
                                   int32_t speakers, int32_t sample_rate)
{
    const bool served = speakers >= 1 && speakers <= MAX_SPEAKERS;
    const int32_t block = std::max(frame_size / BLOCKS_PER_FRAME, MIN_BLOCK);
    const int32_t block_samples = block * (mics + (served ? speakers : 0));
    void *memory =
        calloc(1, sizeof(Instance) + static_cast<size_t>(block_samples) * sizeof(int16_t));
    if (!memory) return nullptr;

    Instance *instance = static_cast<Instance *>(memory);
    int16_t *blocks = reinterpret_cast<int16_t *>(instance + 1);
    *instance = {nullptr, frame_size, block, mics, speakers, blocks, blocks + block * mics, {}};
    if (served) instance->library = create_library(*instance, filter_length, sample_rate);
    return instance;
}

// Interleaves one block of planar channels, which lie frame_size samples apart, and divides it
// by 2^shift.
static void interleave(const int16_t *from, int32_t frame_size, int32_t channels, int16_t *to,
                       int32_t block_size, int32_t shift)
{
    if (channels == 1) { // a loop of its own, which the compiler can vectorise
        for (int32_t i = 0; i < block_size; i++)
            to[i] = static_cast<int16_t>(from[i] >> shift);
        return;
    }
    for (int32_t c = 0; c < channels; c++)
        for (int32_t i = 0; i < block_size; i++)
            to[i * channels + c] = static_cast<int16_t>(from[c * frame_size + i] >> shift);
}

// Cancels a frame block by block. Returns whether the library is to start anew.
static bool cancel_blocks(Instance &instance, const int16_t *mic_frame, const int16_t *ref_frame,
                          int16_t *aec_frame, const Decision &decision)
{
    const int32_t mics = instance.mics, frame = instance.frame_size, block = instance.block_size;
    float heard = 0,
          left = 0; // powers before and after, as the library sees them, summed over blocks
    for (int32_t start = 0; start < frame; start += block) {
        int16_t *cleaned = aec_frame + start * mics;
        interleave(mic_frame + start, frame, mics, instance.mic_block, block, decision.mic_shift);
        interleave(ref_frame + start, frame, instance.speakers, instance.ref_block, block,
                   decision.ref_shift);
        speex_echo_cancellation(instance.library, instance.mic_block, instance.ref_block, cleaned);
        heard += difference_power(instance.mic_block, mics, block * mics);
        left += difference_power(cleaned, mics, block * mics);
        for (int32_t i = 0; i < block * mics; i++)
            cleaned[i] = saturate_int16(cleaned[i] * (1 << decision.mic_shift));
    }
    const float scale =
        static_cast<float>(block << (2 * decision.mic_shift)) / static_cast<float>(frame);
    return restart_if_louder(instance.policy, scale * heard, scale * left);
}

void speex_fast_echo_cancellation(Instance *instance, const int16_t *mic_frame,
                                  const int16_t *ref_frame, int16_t *aec_frame, int16_t *echo_frame,
                                  int32_t delay_changed)
{
    if (!instance) return;
    const int32_t frame = instance->frame_size, mics = instance->mics;
    if (instance->library) {
        const Levels levels = measure_levels(mic_frame, mics, ref_frame, instance->speakers, frame,
                                             instance->block_size);
        const Decision decision = decide(instance->policy, levels, delay_changed != 0);
        if (decision.restart) speex_echo_state_reset(instance->library);
        if (cancel_blocks(*instance, mic_frame, ref_frame, aec_frame, decision))
            speex_echo_state_reset(instance->library);
    } else {
        interleave(mic_frame, frame, mics, aec_frame, frame, 0);
    }

    interleave(mic_frame, frame, mics, echo_frame, frame, 0);
    for (int32_t i = 0; i < frame * mics; i++)
        echo_frame[i] = saturate_int16(echo_frame[i] - aec_frame[i]);
}

Instance *speex_echo_state_destroy(Instance *instance)
{
    if (instance && instance->library) ::speex_echo_state_destroy(instance->library);
    free(instance);
    return nullptr;
}

} // namespace nax::canceller
