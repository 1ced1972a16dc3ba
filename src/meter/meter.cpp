// The calls of nax_meter.h: what each frame shows, kept as slow levels and counts, judged
// and published.
#include "nax_meter.h"

#include "kernels/float_mode.h"
#include "kernels/kernels.h"
#include "meter/levels.h"
#include "meter/published.h"
#include "meter/verdict.h"

#include <algorithm>
#include <cstdlib>

using namespace nax::meter;

static constexpr int32_t MAX_FRAME = 768, MAX_MICS = 2;
static constexpr float FRAME_S = 0.016f;
static constexpr float FAR_POWER = 1e-6f; // -60 dBFS: a recorded reference's noise is below
static constexpr float HEARD_POWER = 1e-6f;

// A microphone, a reference or an output over time.
struct Channel {
    float power;     // of the last second
    int32_t largest; // magnitude seen so far
    float clipped;   // share of samples at it, over ten seconds
};

// Energies of the last two seconds of far end, in pieces of a quarter of a second.
struct Removal {
    static constexpr int32_t PIECES = 8, FRAMES = 16; // 2.05 s
    float mic[PIECES], out[PIECES];
    int32_t frame; // of the piece that is being filled
    int32_t piece;
};

// The returned delay and when it moved.
struct Delay {
    static constexpr int32_t REMEMBERED = 8;
    int32_t now, before; // before: until the last move
    float stood_s;
    float moved_s[REMEMBERED]; // ages of the last moves
};

struct nax_meter_state {
    int32_t frame_size;       // F, samples
    int32_t mics, refs, kept; // M, R, K
    int32_t frames;
    float far_end_s, far_silent_s, heard_s;
    Channel mic[MAX_MICS], out[MAX_MICS], ref[NAX_METER_REFS];
    Removal removal;
    Delay delay;
    Standing standing;
    Published published;
};

static int32_t frame_size_for(int32_t sample_rate)
{
    switch (sample_rate) {
    case 8000: return 128;
    case 16000: return 256;
    case 32000: return 512;
    case 48000: return 768;
    default: return 0;
    }
}

static nax_meter_report report_of(const nax_meter_state &state);

nax_meter_state *nax_meter_state_init(int32_t sample_rate, int32_t num_src_channel,
                                      int32_t num_ref_channel)
{
    const nax::FloatMode mode;
    const int32_t frame_size = frame_size_for(sample_rate);
    if (frame_size == 0 || num_src_channel < 1 || num_src_channel > MAX_MICS ||
        num_ref_channel < 1 || num_ref_channel > INT32_MAX - num_src_channel)
        return nullptr;
    nax_meter_state *state = static_cast<nax_meter_state *>(calloc(1, sizeof *state));
    if (!state) return nullptr;
    state->frame_size = frame_size;
    state->mics = num_src_channel;
    state->refs = state->kept = num_ref_channel;
    std::fill_n(state->delay.moved_s, Delay::REMEMBERED, 1e6f);
    publish(state->published, report_of(*state));
    return state;
}

void nax_meter_state_destroy(nax_meter_state *state) { free(state); }

int32_t nax_meter_drop(nax_meter_state *state, int32_t drop_channel)
{
    if (!state || drop_channel < 0 || drop_channel > state->refs) return -1;
    state->kept = state->refs - drop_channel;
    return 0;
}

// Measures a channel of an interleaved buffer and follows it; returns its power.
static float take_in(const nax_meter_state &state, const int16_t *samples, int32_t stride,
                     Channel *channel)
{
    constexpr float KEEP_LEVEL = 0.984f;    // a second
    constexpr float KEEP_CLIPPED = 0.9984f; // ten seconds
    constexpr int32_t LOUD = 1000;          // a quieter peak may be a few steps of a converter
    int16_t planar[MAX_FRAME];
    const int32_t count = state.frame_size;
    nax::copy_channel(samples, stride, planar, 1, count);
    const FrameLevel level = measure_frame(planar, count);
    if (!channel) return level.power;
    channel->power = KEEP_LEVEL * channel->power + (1 - KEEP_LEVEL) * level.power;
    channel->largest = std::max(channel->largest, level.peak);
    const bool at_largest = level.peak >= channel->largest - 1 && level.peak >= LOUD;
    const int32_t clipped = at_largest ? samples_at(planar, count, channel->largest - 1) : 0;
    channel->clipped = KEEP_CLIPPED * channel->clipped +
                       (1 - KEEP_CLIPPED) * static_cast<float>(clipped) / static_cast<float>(count);
    return level.power;
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

static float removed_db(const Removal &removal)
{
    float mic = 0, out = 0;
    for (int32_t i = 0; i < Removal::PIECES; i++) {
        mic += removal.mic[i];
        out += removal.out[i];
    }
    return mic > 0 ? decibels(mic) - decibels(out) : 0.0f;
}

static void take_in(Delay &delay, int32_t now, bool first)
{
    if (first) delay.now = delay.before = now;
    delay.stood_s += FRAME_S;
    for (float &age : delay.moved_s)
        age += FRAME_S;
    if (now == delay.now) return;
    const bool back = now == delay.before && delay.stood_s < 2.5f * FRAME_S;
    if (back) { // no move after all
        std::copy(delay.moved_s + 1, delay.moved_s + Delay::REMEMBERED, delay.moved_s);
        delay.moved_s[Delay::REMEMBERED - 1] = 1e6f;
    } else {
        std::copy_backward(delay.moved_s, delay.moved_s + Delay::REMEMBERED - 1,
                           delay.moved_s + Delay::REMEMBERED);
        delay.moved_s[0] = 0;
    }
    delay.before = delay.now;
    delay.now = now;
    delay.stood_s = 0;
}

static int32_t moves_in_a_minute(const Delay &delay)
{
    return static_cast<int32_t>(std::count_if(delay.moved_s, delay.moved_s + Delay::REMEMBERED,
                                              [](float age) { return age < 60.0f; }));
}

static Evidence evidence_of(const nax_meter_state &state)
{
    Evidence evidence = {};
    evidence.far_end_s = state.far_end_s;
    evidence.far_silent_s = state.far_silent_s;
    evidence.mic_heard_s = state.heard_s;
    evidence.mic_db = -100;
    for (const Channel &mic : state.mic) {
        evidence.mic_db = std::max(evidence.mic_db, decibels(mic.power));
        evidence.clipped = std::max(evidence.clipped, mic.clipped);
    }
    for (const Channel &ref : state.ref)
        evidence.clipped = std::max(evidence.clipped, ref.clipped);
    evidence.removed_db = removed_db(state.removal);
    evidence.delay_moves = moves_in_a_minute(state.delay);
    return evidence;
}

static nax_meter_report report_of(const nax_meter_state &state)
{
    nax_meter_report report = {};
    report.verdict = state.standing.verdict;
    report.frames = state.frames;
    report.verdict_s = state.standing.stood_s;
    report.far_end_s = state.far_end_s;
    for (int32_t m = 0; m < MAX_MICS; m++) {
        report.mic_dbfs[m] = decibels(state.mic[m].power);
        report.out_dbfs[m] = decibels(state.out[m].power);
        report.mic_clipped = std::max(report.mic_clipped, state.mic[m].clipped);
    }
    for (int32_t r = 0; r < NAX_METER_REFS; r++) {
        report.ref_dbfs[r] = decibels(state.ref[r].power);
        report.ref_clipped = std::max(report.ref_clipped, state.ref[r].clipped);
    }
    report.removed_db = removed_db(state.removal);
    report.delay = state.delay.now;
    report.delay_s = state.delay.stood_s;
    report.delay_moves = moves_in_a_minute(state.delay);
    return report;
}

int32_t nax_meter_short(nax_meter_state *state, const int16_t *in, const int16_t *out,
                        int32_t delay)
{
    if (!state || !in || !out) return -1;
    const nax::FloatMode mode;
    const int32_t into = state->mics + state->kept, from = state->mics + state->refs;
    float mic = 0, cleaned = 0, ref = 0;
    for (int32_t m = 0; m < state->mics; m++) {
        mic += take_in(*state, in + m, into, &state->mic[m]);
        cleaned += take_in(*state, out + m, from, &state->out[m]);
    }
    for (int32_t r = 0; r < state->kept; r++)
        ref += take_in(*state, in + state->mics + r, into,
                       r < NAX_METER_REFS ? &state->ref[r] : nullptr);
    const bool far = ref > FAR_POWER;
    if (far) take_in(state->removal, mic, cleaned);
    state->far_end_s += far ? FRAME_S : 0;
    state->far_silent_s = far ? 0 : state->far_silent_s + FRAME_S;
    state->heard_s += mic > HEARD_POWER ? FRAME_S : 0;
    take_in(state->delay, delay, state->frames == 0);
    state->frames = std::min(state->frames, INT32_MAX - 1) + 1;
    settle(state->standing, judged(evidence_of(*state)), FRAME_S);
    publish(state->published, report_of(*state));
    return 0;
}

int32_t nax_meter_read(const nax_meter_state *state, nax_meter_report *report)
{
    if (!state || !report) return -1;
    *report = latest(state->published);
    return 0;
}
