// Binding over libspeexdsp's echo canceller: the multidelay block frequency domain
// filter of Soo and Pang (1990) in its alternatively updated variant, with the
// learning rate of Valin (2007, "On adjusting the learning rate in frequency domain
// echo cancellation with double-talk") and a foreground and a background filter.
// docs/experiments.md has the comparisons behind the choices made here.
#include "engines/canceller.h"

#include "kernels/float_mode.h"
#include "kernels/saturate.h"

#include <speex/speex_echo.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

namespace nax::canceller {

// The library runs on quarter frames, with the same filter length: it then adapts four
// times a frame. At 8000 Hz that would cost half as much again; half frames must do.
static constexpr int32_t BLOCKS_PER_FRAME = 4;
static constexpr int32_t MIN_BLOCK = 64; // samples

// More references than any device has; the library computes its sizes in int, and up
// to here they fit.
static constexpr int32_t MAX_SPEAKERS = 1024;

// The library picks the corner of its microphone high-pass from the rate that it is
// told: about 130 Hz at a true 8000 Hz, where it eats near-end speech. Told at least
// this rate it uses the lowest corner; its averaging times, which also follow the
// rate, make no difference that could be measured.
static constexpr int32_t LEAST_RATE_TOLD = 24000;

// The library's first steps are as large as the reference's power over the
// microphone's. With a reference much weaker than the microphone it would hardly
// learn, so the microphone is then attenuated on the way in and amplified on the way
// out, by as many bits as bring their ratio below this one.
static constexpr float WEAK_REF_RATIO = 4; // of powers, 6 dB
static constexpr int32_t MAX_MIC_SHIFT = 2;
static constexpr float POWER_KEEP = 0.9f; // decay per frame of the powers compared
// Where no move of the delay restarts it, it is restarted for that once, as soon as so
// many frames of the reference were heard.
static constexpr int32_t FIRST_FRAMES = 6;
static constexpr float AUDIBLE_POWER = 1000; // -60 dBFS

// A filter whose output is louder than the microphone for so many frames is worse than
// none. The library would restart itself after 50 such blocks, but with a message on
// standard error, from the audio thread.
static constexpr int32_t LOUDER_FRAMES = 4;
static constexpr float LOUDER_MARGIN = 10000; // of mean power; half of the library's

// The library gives a block up, with a message on standard error, when the energy of
// the reference, of its estimate of the echo or of the residual passes 2e9 a sample,
// channels added up, behind its pre-emphasis. Once a frame comes near that by its mean
// power, as square waves do, or a block by its power between samples, references and
// microphones alike are attenuated on the way in, for a while: the library does not
// know of the new scale before its 32 ms of past are over. A sine at full scale has a
// mean power of 5.4e8, uniform noise 7.2e8 between samples.
static constexpr float HOT_FRAME_POWER = 8e8f;
static constexpr float HOT_BLOCK_POWER = 1e9f;
static constexpr int32_t HOT_SHIFT = 2;    // bits
static constexpr int32_t HOT_FRAMES = 625; // 10 s

struct Instance {
    SpeexEchoState *library; // null: pass the microphones through
    int32_t frame_size;
    int32_t block_size; // samples per channel handed to the library at once
    int32_t mics;
    int32_t speakers;
    int32_t first_frames;  // of audible reference until the microphones' scale is chosen
    int32_t hot_frames;    // for which the attenuation stays
    int32_t louder_frames; // in a row
    int32_t mic_shift;     // bits by which the library sees the microphones attenuated
    float mic_power;       // running means over channels and samples
    float ref_power;
    int16_t *mic_block; // block_size x mics, interleaved
    int16_t *ref_block; // block_size x speakers, interleaved
};

// Pass-through instances for when there is no memory for one, never written to: by
// frame size over the smallest one, for one microphone and then for two.
static constexpr int32_t SMALLEST_FRAME = 128;
static constexpr int32_t FRAME_SIZES = 6;
static constexpr int32_t NO_MEMORY_COUNT = 2 * FRAME_SIZES;
using PassThrough = std::array<Instance, NO_MEMORY_COUNT>;
static constexpr PassThrough make_pass_through()
{
    PassThrough table = {};
    for (int32_t i = 0; i < NO_MEMORY_COUNT; i++) {
        table[static_cast<size_t>(i)].frame_size = (1 + i % FRAME_SIZES) * SMALLEST_FRAME;
        table[static_cast<size_t>(i)].mics = 1 + i / FRAME_SIZES;
    }
    return table;
}
static PassThrough no_memory = make_pass_through();

static Instance *pass_through_instance(int32_t frame_size, int32_t mics)
{
    const int32_t i = (mics - 1) * FRAME_SIZES + frame_size / SMALLEST_FRAME - 1;
    return &no_memory[static_cast<size_t>(i)];
}

static int16_t *allocate_block(int32_t block_size, int32_t channels)
{
    return static_cast<int16_t *>(
        calloc(static_cast<size_t>(block_size) * static_cast<size_t>(channels), sizeof(int16_t)));
}

// Whether there is memory for all that the library will ask for. It looks at none of
// its allocations, so room for their sum, rounded up, is tried for in one piece first.
static bool library_fits(int32_t block_size, int32_t filter_length, int32_t mics, int32_t speakers)
{
    constexpr size_t SMALL_RECORDS = 4096; // bytes
    const size_t window = 2 * static_cast<size_t>(block_size);
    const size_t partitions = static_cast<size_t>(filter_length / block_size);
    const size_t m = static_cast<size_t>(mics), k = static_cast<size_t>(speakers);
    const size_t floats = window * (k * (partitions * (2 * m + 1) + 4) + 8 * m + 16);
    void *volatile trial = malloc(floats * sizeof(float) + SMALL_RECORDS);
    free(trial);
    return trial != nullptr;
}

Instance *speex_echo_state_init_mc(int32_t frame_size, int32_t filter_length, int32_t mics,
                                   int32_t speakers, int32_t sample_rate)
{
    Instance *instance = static_cast<Instance *>(calloc(1, sizeof(Instance)));
    if (!instance) return pass_through_instance(frame_size, mics);
    instance->frame_size = frame_size;
    instance->block_size = std::max(frame_size / BLOCKS_PER_FRAME, MIN_BLOCK);
    instance->mics = mics;
    instance->speakers = speakers;
    instance->first_frames = FIRST_FRAMES;
    if (speakers < 1 || speakers > MAX_SPEAKERS) return instance;
    if (!library_fits(instance->block_size, filter_length, mics, speakers)) return instance;

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

static float mean_power(const int16_t *samples, int32_t count)
{
    int64_t sum = 0;
    for (int32_t i = 0; i < count; i++)
        sum += samples[i] * samples[i];
    return static_cast<float>(sum) / static_cast<float>(count);
}

// Running mean of the power of a planar frame. Returns whether the frame is hot.
static bool track_power(const int16_t *samples, int32_t frame_size, int32_t channels, float &power)
{
    const float now = mean_power(samples, frame_size * channels);
    power = POWER_KEEP * power + (1 - POWER_KEEP) * now;
    return now > HOT_FRAME_POWER;
}

// Bits by which the microphones are to be attenuated.
static int32_t wanted_shift(const Instance &instance)
{
    int32_t shift = 0;
    for (float ref = WEAK_REF_RATIO * instance.ref_power;
         instance.mic_power > ref && shift < MAX_MIC_SHIFT; ref *= 4)
        shift++;
    return shift;
}

// Starts the library anew: a filter that learnt another alignment is worse than none.
// With the filter empty the microphones' scale may change as well.
static void restart(Instance &instance)
{
    speex_echo_state_reset(instance.library);
    instance.louder_frames = 0;
    instance.first_frames = 0;
    instance.mic_shift = wanted_shift(instance);
}

// Mean power of the first difference, near enough to the library's pre-emphasis, of an
// interleaved frame. Four sums, because compilers do not reorder a float sum.
static float bright_power(const int16_t *samples, int32_t channels, int32_t count)
{
    float sum[4] = {};
    for (int32_t i = channels; i + 4 <= count; i += 4)
        for (int32_t j = i; j < i + 4; j++) {
            const float difference = static_cast<float>(samples[j] - samples[j - channels]);
            sum[j - i] += difference * difference;
        }
    return (sum[0] + sum[1] + sum[2] + sum[3]) / static_cast<float>(count);
}

// Restarts the library when it adds echo rather than removing it, by the powers before
// and after, summed over the blocks of a frame.
static void watch(Instance &instance, float heard, float left)
{
    const float blocks =
        static_cast<float>(instance.frame_size) / static_cast<float>(instance.block_size);
    const bool louder = left > heard + LOUDER_MARGIN * blocks;
    instance.louder_frames = louder ? instance.louder_frames + 1 : 0;
    if (instance.louder_frames >= LOUDER_FRAMES) restart(instance);
}

// Whether a block of planar channels, frame_size samples apart, is hot.
static bool is_hot(const int16_t *from, int32_t frame_size, int32_t channels, int32_t block_size)
{
    float power = 0;
    for (int32_t c = 0; c < channels; c++)
        power += bright_power(from + c * frame_size, 1, block_size);
    return power > HOT_BLOCK_POWER;
}

// One block of planar channels, frame_size samples apart, to interleaved, divided by
// 2^shift.
static void interleave(const int16_t *from, int32_t frame_size, int32_t channels, int16_t *to,
                       int32_t block_size, int32_t shift)
{
    if (channels == 1) { // apart, so that the compiler may vectorise it
        for (int32_t i = 0; i < block_size; i++)
            to[i] = static_cast<int16_t>(from[i] >> shift);
        return;
    }
    for (int32_t c = 0; c < channels; c++)
        for (int32_t i = 0; i < block_size; i++)
            to[i * channels + c] = static_cast<int16_t>(from[c * frame_size + i] >> shift);
}

static void pass_through(const Instance &instance, const int16_t *mic_frame, int16_t *aec_frame,
                         int16_t *echo_frame)
{
    const int32_t samples = instance.frame_size * instance.mics;
    interleave(mic_frame, instance.frame_size, instance.mics, aec_frame, instance.frame_size, 0);
    memset(echo_frame, 0, static_cast<size_t>(samples) * sizeof *echo_frame);
}

void speex_fast_echo_cancellation(Instance *instance, const int16_t *mic_frame,
                                  const int16_t *ref_frame, int16_t *aec_frame, int16_t *echo_frame,
                                  int32_t delay_changed)
{
    if (!instance) return;
    if (!instance->library) return pass_through(*instance, mic_frame, aec_frame, echo_frame);

    const FlushDenormals flush;
    const int32_t mics = instance->mics;
    const int32_t speakers = instance->speakers;
    const int32_t frame = instance->frame_size;
    const int32_t block = instance->block_size;
    const bool hot_mics = track_power(mic_frame, frame, mics, instance->mic_power);
    const bool hot_refs = track_power(ref_frame, frame, speakers, instance->ref_power);
    const bool first_heard = instance->first_frames > 0 && instance->ref_power > AUDIBLE_POWER &&
                             --instance->first_frames == 0;
    if (delay_changed || (first_heard && wanted_shift(*instance) > 0)) restart(*instance);

    bool hot = hot_mics || hot_refs;
    for (int32_t start = 0; start < frame && !hot; start += block)
        hot = is_hot(mic_frame + start, frame, mics, block) ||
              is_hot(ref_frame + start, frame, speakers, block);
    instance->hot_frames = hot ? HOT_FRAMES : std::max(instance->hot_frames - 1, 0);
    const int32_t ref_shift = instance->hot_frames > 0 ? HOT_SHIFT : 0;
    const int32_t mic_shift = ref_shift + instance->mic_shift;

    float heard = 0, left = 0; // sums over blocks
    for (int32_t start = 0; start < frame; start += block) {
        int16_t *cleaned = aec_frame + start * mics;
        interleave(mic_frame + start, frame, mics, instance->mic_block, block, mic_shift);
        interleave(ref_frame + start, frame, speakers, instance->ref_block, block, ref_shift);
        speex_echo_cancellation(instance->library, instance->mic_block, instance->ref_block,
                                cleaned);
        const float scale = static_cast<float>(1 << (2 * mic_shift));
        heard += scale * bright_power(instance->mic_block, mics, block * mics);
        left += scale * bright_power(cleaned, mics, block * mics);
        for (int32_t i = 0; i < block * mics; i++)
            cleaned[i] = saturate_int16(cleaned[i] * (1 << mic_shift));
    }
    watch(*instance, heard, left);

    interleave(mic_frame, frame, mics, echo_frame, frame, 0);
    for (int32_t i = 0; i < frame * mics; i++)
        echo_frame[i] = saturate_int16(echo_frame[i] - aec_frame[i]);
}

Instance *speex_echo_state_destroy(Instance *instance)
{
    if (!instance || instance == pass_through_instance(instance->frame_size, instance->mics))
        return nullptr;
    if (instance->library) ::speex_echo_state_destroy(instance->library);
    free(instance->mic_block);
    free(instance->ref_block);
    free(instance);
    return nullptr;
}

} // namespace nax::canceller
