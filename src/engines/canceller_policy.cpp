#include "engines/canceller_policy.h"

#include <algorithm>

namespace nax::canceller {

// The library's first steps are proportional to the reference's power over the microphone's.
// With a reference much weaker than the microphone it hardly learns. The microphone is then
// attenuated before the library and amplified behind it, by as many bits as bring the ratio of
// powers below this one. The scale changes at a restart only. If the delay does not move, one
// restart is made for the scale after Policy::first_frames of audible reference.
static constexpr float WEAK_REF_RATIO = 4; // of powers, 6 dB
static constexpr int32_t MAX_MIC_SHIFT = 2;
static constexpr float POWER_KEEP = 0.9f;    // decay per frame of the powers compared
static constexpr float AUDIBLE_POWER = 1000; // -60 dBFS

// A filter whose output is louder than the microphone for this many frames in a row is worse
// than none. The library would restart itself after 50 such blocks, with a message on standard
// error from the audio thread.
static constexpr int32_t LOUDER_FRAMES = 4;
static constexpr float LOUDER_MARGIN = 10000; // of mean power; half of the library's

// The library gives a block up, with a message on standard error, when the energy of the
// reference, of its echo estimate or of the residual passes 2e9 a sample. The energies are
// summed over channels and taken behind its pre-emphasis. References and microphones are
// attenuated before the library when a frame comes near that limit by its mean power, as square
// waves do, or when a block does by the power of its first difference. The attenuation stays for
// HOT_FRAMES, because each change of scale spoils the 32 ms of past in the library. A sine at
// full scale has a mean power of 5.4e8, the first difference of uniform noise 7.2e8.
static constexpr float HOT_FRAME_POWER = 8e8f;
static constexpr float HOT_EDGE_POWER = 1e9f;
static constexpr int32_t HOT_SHIFT = 2;    // bits
static constexpr int32_t HOT_FRAMES = 625; // 10 s

static float mean_power(const int16_t *samples, int32_t count)
{
    int64_t sum = 0;
    for (int32_t i = 0; i < count; i++)
        sum += samples[i] * samples[i];
    return static_cast<float>(sum) / static_cast<float>(count);
}

// Compilers do not reorder a float sum. Four sums let them use vector instructions.
float difference_power(const int16_t *samples, int32_t channels, int32_t count)
{
    float sum[4] = {};
    for (int32_t i = channels; i + 4 <= count; i += 4)
        for (int32_t j = i; j < i + 4; j++) {
            const float difference = static_cast<float>(samples[j] - samples[j - channels]);
            sum[j - i] += difference * difference;
        }
    return (sum[0] + sum[1] + sum[2] + sum[3]) / static_cast<float>(count);
}

// Difference power of one block, added up over planar channels that lie frame_size samples
// apart.
static float edge_power(const int16_t *from, int32_t channels, int32_t frame_size,
                        int32_t block_size)
{
    float power = 0;
    for (int32_t c = 0; c < channels; c++)
        power += difference_power(from + c * frame_size, 1, block_size);
    return power;
}

Levels measure_levels(const int16_t *mic_frame, int32_t mics, const int16_t *ref_frame,
                      int32_t speakers, int32_t frame_size, int32_t block_size)
{
    Levels levels = {mean_power(mic_frame, frame_size * mics),
                     mean_power(ref_frame, frame_size * speakers), 0};
    for (int32_t start = 0; start < frame_size; start += block_size)
        levels.edge_power = std::max(
            {levels.edge_power, edge_power(mic_frame + start, mics, frame_size, block_size),
             edge_power(ref_frame + start, speakers, frame_size, block_size)});
    return levels;
}

// Bits by which the microphones are to be attenuated for a weak reference.
static int32_t wanted_shift(const Policy &policy)
{
    int32_t shift = 0;
    for (float ref = WEAK_REF_RATIO * policy.ref_power;
         policy.mic_power > ref && shift < MAX_MIC_SHIFT; ref *= 4)
        shift++;
    return shift;
}

// A restart empties the library's filter, so that the microphones' scale may change with it.
static void note_restart(Policy &policy)
{
    policy.louder_frames = 0;
    policy.first_frames = 0;
    policy.mic_shift = wanted_shift(policy);
}

// Counts audible frames of reference. Returns true in the frame that completes
// Policy::first_frames of them. A restart before that ends the counting.
static bool first_heard(Policy &policy)
{
    return policy.first_frames > 0 && policy.ref_power > AUDIBLE_POWER &&
           --policy.first_frames == 0;
}

Decision decide(Policy &policy, const Levels &levels, bool delay_changed)
{
    policy.mic_power = POWER_KEEP * policy.mic_power + (1 - POWER_KEEP) * levels.mic_power;
    policy.ref_power = POWER_KEEP * policy.ref_power + (1 - POWER_KEEP) * levels.ref_power;
    // A filter that learnt at another delay is worse than an empty one.
    const bool restart = delay_changed || (first_heard(policy) && wanted_shift(policy) > 0);
    if (restart) note_restart(policy);

    const bool hot = std::max(levels.mic_power, levels.ref_power) > HOT_FRAME_POWER ||
                     levels.edge_power > HOT_EDGE_POWER;
    policy.hot_frames = hot ? HOT_FRAMES : std::max(policy.hot_frames - 1, 0);
    const int32_t ref_shift = policy.hot_frames > 0 ? HOT_SHIFT : 0;
    return {restart, ref_shift + policy.mic_shift, ref_shift};
}

bool restart_if_louder(Policy &policy, float heard, float left)
{
    const bool louder = left > heard + LOUDER_MARGIN;
    policy.louder_frames = louder ? policy.louder_frames + 1 : 0;
    if (policy.louder_frames < LOUDER_FRAMES) return false;
    note_restart(policy);
    return true;
}

} // namespace nax::canceller
