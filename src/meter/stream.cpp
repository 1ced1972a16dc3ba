#include "meter/stream.h"

#include "meter/levels.h"

#include <algorithm>

namespace nax::meter {

static constexpr float FAR_POWER = 1e-6f; // -60 dBFS: a recorded reference's noise is below

void stream_init(Stream &stream, int32_t frame_size)
{
    stream.frame_size = frame_size;
    stream.unheard = INT32_MAX;
    likeness_init(stream.likeness);
}

static void take_in(Removal &removal, float mic, float out)
{
    if (removal.frame == 0) removal.mic[removal.piece] = removal.out[removal.piece] = 0;
    removal.mic[removal.piece] += mic;
    removal.out[removal.piece] += out;
    if (++removal.frame < Removal::FRAMES) return;
    removal.frame = 0;
    removal.piece = (removal.piece + 1) % Removal::PIECES;
}

float removed_db(const Stream &stream)
{
    float mic = 0, out = 0;
    for (int32_t i = 0; i < Removal::PIECES; i++) {
        mic += stream.removal.mic[i];
        out += stream.removal.out[i];
    }
    return mic > 0 ? decibels(mic) - decibels(out) : 0.0f;
}

// A correction shows as moves in neighbouring frames, out and back, and what has just been
// found may be corrected: moves within half a second are one. Returns whether the delay moved
// at all.
static bool take_in(Delay &delay, int32_t samples, int32_t frame)
{
    constexpr int32_t ONE_MOVE = 31; // frames
    const bool moved = samples != delay.now && frame > 0;
    delay.now = samples;
    if (!moved) return false;
    delay.since = frame;
    if (delay.found && frame - delay.last <= ONE_MOVE) return true;
    delay.last = frame;
    if (delay.found) {
        std::copy_backward(delay.moved, delay.moved + Delay::REMEMBERED - 1,
                           delay.moved + Delay::REMEMBERED);
        delay.moved[0] = frame;
        delay.moves = std::min(delay.moves + 1, Delay::REMEMBERED);
    }
    delay.found = true;
    return true;
}

static int32_t moves_within(const Stream &stream, float span_s)
{
    const int32_t *moved = stream.delay.moved;
    return static_cast<int32_t>(
        std::count_if(moved, moved + stream.delay.moves,
                      [&](int32_t frame) { return seconds(stream.frames - frame) < span_s; }));
}

int32_t delay_moves(const Stream &stream)
{
    constexpr float MINUTE_S = 60.0f;
    return moves_within(stream, MINUTE_S);
}

// Whether the microphone gave anything at all, and anything but its own noise.
static void hear(Stream &stream, float power)
{
    constexpr float DEAD_DB = -80.0f;      // below any microphone's own noise
    constexpr float RISE_DB = 0.005f;      // of the noise per frame, 0.3 dB a second: no word does
    constexpr float OVER_NOISE_DB = 10.0f; // the pauses of speech in a room are below it
    constexpr float LEAST_DB = -60.0f;
    const float db = decibels(power);
    count_frame(stream.mic_dead);
    if (db > DEAD_DB) stream.mic_dead = 0;
    stream.floor_db = stream.frames == 0 ? db : std::min(db, stream.floor_db + RISE_DB);
    count_frame(stream.unheard);
    if (db <= std::max(stream.floor_db + OVER_NOISE_DB, LEAST_DB)) return;
    count_frame(stream.heard);
    stream.unheard = 0;
}

static void take_in_far_end(Stream &stream, const Frame &frame)
{
    constexpr int32_t REMOVING_FRAMES = 250; // four seconds
    constexpr float REMOVED = 1.41f;         // a power, 1.5 dB: by chance it is less
    constexpr float UNHEARD_POWER = 1e-7f;   // -70 dBFS: nothing to remove
    take_in(stream.removal, frame.mic, frame.out);
    const bool removed = frame.mic + UNHEARD_POWER > REMOVED * (frame.out + UNHEARD_POWER);
    const float weight = weight_of_new(stream.far_end, REMOVING_FRAMES);
    stream.removing += weight * ((removed ? 1.0f : 0.0f) - stream.removing);
    stream.sounding += weight * ((stream.unheard == 0 ? 1.0f : 0.0f) - stream.sounding);
    count_frame(stream.far_end);
    count_frame(stream.far_since);
}

void take_in(Stream &stream, const Frame &frame)
{
    constexpr int32_t FIND_EVERY = 16; // frames
    const bool far = frame.ref > FAR_POWER;
    hear(stream, frame.mic);
    count_frame(stream.far_silent);
    if (far) {
        take_in_far_end(stream, frame);
        stream.far_silent = 0;
    }
    if (take_in(stream.delay, frame.delay, stream.frames)) {
        forget(stream.likeness); // where the echo was says nothing about where it is
        stream.far_since = 0;
    }
    // Where a reference was heard of late, up to the latest echo that is looked for.
    const bool learn = stream.far_end > 0 && stream.far_silent < Likeness::DISTANCES;
    take_in(stream.likeness, frame.ref, frame.mic, learn);
    if (stream.frames % FIND_EVERY == 0) find_best(stream.likeness);
    count_frame(stream.frames);
}

Evidence evidence_of(const Stream &stream)
{
    constexpr float LONG_S = 600.0f;
    Evidence evidence = {};
    evidence.far_end_s = seconds(stream.far_end);
    evidence.far_since_s = seconds(stream.far_since);
    evidence.far_silent_s = seconds(stream.far_silent);
    evidence.mic_dead_s = seconds(stream.mic_dead);
    evidence.heard_s = seconds(stream.heard);
    evidence.unheard_s = seconds(stream.unheard);
    evidence.removed_db = removed_db(stream);
    evidence.removing = stream.removing;
    evidence.sounding = stream.sounding;
    evidence.found = stream.delay.found;
    evidence.delay_moves = delay_moves(stream);
    evidence.delay_moves_long = moves_within(stream, LONG_S);
    evidence.likeness = stream.likeness.best;
    evidence.chance = chance(stream.likeness);
    evidence.distance = stream.likeness.distance;
    evidence.applied = static_cast<float>(stream.delay.now) / static_cast<float>(stream.frame_size);
    return evidence;
}

} // namespace nax::meter
