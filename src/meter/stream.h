// What is kept of a stream's frames: slow levels, counts and times.
#pragma once

#include "meter/likeness.h"
#include "meter/time.h"
#include "meter/verdict.h"

#include <cstdint>

namespace nax::meter {

// One frame. Powers are sums over channels, full scale 1.
struct Frame {
    float mic, out, ref;
    int32_t delay; // in samples
};

// Energies of the last two seconds of far end, in pieces of a quarter of a second.
struct Removal {
    static constexpr int32_t PIECES = 8, FRAMES = 16;
    float mic[PIECES], out[PIECES];
    int32_t frame; // of the piece that is being filled
    int32_t piece;
};

struct Delay {
    static constexpr int32_t REMEMBERED = 8;
    int32_t now;               // samples
    int32_t since;             // the frame from which on it has been that
    bool found;                // has moved once
    int32_t last;              // frame of the last move that is not part of another
    int32_t moved[REMEMBERED]; // frames of the moves, latest first, the first of all not counted
    int32_t moves;             // how many of them there are
};

struct Stream {
    int32_t frame_size; // F, samples
    int32_t frames;     // taken in
    int32_t far_end;    // of them of the far end,
    int32_t far_since;  // and since the delay moved
    int32_t far_silent; // since the last of the far end, or since the start
    int32_t mic_dead;   // since a microphone gave anything, or since the start
    int32_t heard;      // frames of microphone well above its own noise
    int32_t unheard;    // since the last of them
    float floor_db;     // the microphone's own noise, dBFS
    float removing;     // share of the last seconds of far end in which anything was removed,
    float sounding;     // and in which the microphone was heard
    Removal removal;
    Delay delay;
    Likeness likeness;
};

// Prepares a zero-filled record.
void stream_init(Stream &stream, int32_t frame_size);

void take_in(Stream &stream, const Frame &frame);

// Over the last two seconds of far end, 0 when there was none.
float removed_db(const Stream &stream);

// Of the delay in the last minute, the first one of all not counted.
int32_t delay_moves(const Stream &stream);

// Everything but Evidence::clipped.
Evidence evidence_of(const Stream &stream);

} // namespace nax::meter
