#include "meter/levels.h"

#include "meter/loops.h"
#include "meter/time.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <numeric>

namespace nax::meter {

static constexpr int32_t FIRST_FRAMES = 62;    // a second
static constexpr int32_t CLIPPED_FRAMES = 625; // ten seconds
// A quieter peak may be a few steps of a converter.
static constexpr int32_t LEAST_CLIPPED = 256;

static float power_of(const Sums &sums, int32_t count)
{
    constexpr double FULL_SCALE_POWER = 32768.0 * 32768.0;
    const double n = count, mean = sums.sum / n;
    const double power = static_cast<double>(sums.squares) / n - mean * mean;
    return static_cast<float>(std::max(power, 0.0) / FULL_SCALE_POWER);
}

// How many samples stand in runs of three or more of at least this magnitude, a run's ends
// not counted.
static int32_t samples_at(const int16_t *samples, int32_t count, int32_t magnitude)
{
    int32_t found = 0, run = 0;
    for (int32_t i = 0; i < count; i++) {
        run = std::abs(int32_t{samples[i]}) >= magnitude ? run + 1 : 0;
        found += run >= 3;
    }
    return found;
}

float weight_of_new(int32_t frames, int32_t count)
{
    return 1.0f / static_cast<float>(std::min(frames, count - 1) + 1);
}

// Takes in what a frame has of clipped samples, where it sounds at all.
static void clip(Channel &channel, const Sums &sums, const int16_t *samples, int32_t count)
{
    if (sums.peak < LEAST_CLIPPED) return;
    // A single loud sound is forgotten within an hour. Faster, and in steady sound many frames
    // would reach the largest value and be looked through.
    constexpr int32_t FADE_EVERY = 8; // frames, by one
    const int32_t fade = channel.sounding_frames % FADE_EVERY == 0 ? 1 : 0;
    channel.largest = std::max(channel.largest - fade, sums.peak);
    float clipped = 0;
    if (sums.peak >= channel.largest - 1)
        clipped = static_cast<float>(samples_at(samples, count, channel.largest - 1)) /
                  static_cast<float>(count);
    channel.clipped +=
        weight_of_new(channel.sounding_frames, CLIPPED_FRAMES) * (clipped - channel.clipped);
    count_frame(channel.sounding_frames);
}

float power_of(const Channel &channel)
{
    constexpr int32_t PIECE = Channel::PIECE, ALL = Channel::PIECES * PIECE;
    const int32_t since_piece = channel.frames % PIECE; // frames of the piece begun
    const int32_t begun = since_piece == 0 ? PIECE : since_piece;
    const int32_t frames = std::min(channel.frames, ALL - PIECE + begun);
    const float sum = std::accumulate(channel.pieces, channel.pieces + Channel::PIECES, 0.0f);
    return frames == 0 ? 0.0f : sum / static_cast<float>(frames);
}

float clipped_share(const Channel &channel)
{
    return channel.sounding_frames < FIRST_FRAMES ? 0.0f : channel.clipped;
}

float take_in(Channel &channel, const int16_t *samples, int32_t count)
{
    const Sums sums = sum_samples(samples, count);
    const float power = power_of(sums, count);
    float &piece = channel.pieces[channel.frames / Channel::PIECE % Channel::PIECES];
    piece = power + (channel.frames % Channel::PIECE == 0 ? 0.0f : piece);
    count_frame(channel.frames);
    clip(channel, sums, samples, count);
    return power;
}

float decibels(float power)
{
    constexpr float DB_PER_OCTAVE = 3.0102999566f; // 10 log10(2)
    constexpr float LEAST_POWER = 1e-10f, LEAST_DB = -100.0f;
    if (power <= LEAST_POWER) return LEAST_DB;
    uint32_t bits;
    memcpy(&bits, &power, sizeof bits);
    const int32_t exponent = static_cast<int32_t>(bits >> 23) - 127;
    bits = (bits & 0x7fffff) | 0x3f800000;
    float mantissa; // 1 to 2
    memcpy(&mantissa, &bits, sizeof mantissa);
    // log2(1 + u) by the parabola through both ends that errs least, 0.008.
    const float u = mantissa - 1.0f;
    return DB_PER_OCTAVE * (static_cast<float>(exponent) + u * (1.3465f - 0.3465f * u));
}

} // namespace nax::meter
