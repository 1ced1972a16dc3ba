// The calls of nax_meter.h: each frame's channels to levels, the levels to the stream's
// record, judged and published.
#include "nax_meter.h"

#include "kernels/float_mode.h"
#include "kernels/kernels.h"
#include "kernels/rates.h"
#include "meter/levels.h"
#include "meter/published.h"
#include "meter/stream.h"
#include "meter/verdict.h"

#include <algorithm>
#include <cstdlib>

using namespace nax::meter;

static constexpr int32_t MAX_MICS = 2;
static constexpr int32_t REPORT_EVERY = 4; // frames

struct nax_meter_state {
    int32_t frame_size;       // F, samples
    int32_t mics, refs, kept; // M, R, K
    // As many as are reported.
    Channel mic[MAX_MICS], out[MAX_MICS], ref[NAX_METER_REFS];
    Stream stream;
    Standing standing;
    Published published;
};

// The report, its levels still powers: in decibels they are wanted when somebody reads.
static nax_meter_report report_of(const nax_meter_state &state)
{
    const Stream &stream = state.stream;
    nax_meter_report report = {};
    report.frames = stream.frames;
    report.far_end_s = seconds(stream.far_end);
    for (int32_t m = 0; m < state.mics; m++) {
        report.mic_dbfs[m] = power_of(state.mic[m]);
        report.out_dbfs[m] = power_of(state.out[m]);
        report.mic_clipped = std::max(report.mic_clipped, clipped_share(state.mic[m]));
    }
    for (int32_t r = 0; r < std::min(state.kept, NAX_METER_REFS); r++) {
        report.ref_dbfs[r] = power_of(state.ref[r]);
        report.ref_clipped = std::max(report.ref_clipped, clipped_share(state.ref[r]));
    }
    report.removed_db = removed_db(stream);
    report.delay = stream.delay.now;
    report.delay_s = seconds(stream.frames - stream.delay.since);
    report.delay_moves = delay_moves(stream);
    report.likeness = stream.likeness.best;
    report.likeness_ms = 1e3f * FRAME_S * static_cast<float>(stream.likeness.distance);
    return report;
}

// Judges what is known and publishes it.
static void report(nax_meter_state &state)
{
    nax_meter_report report = report_of(state);
    Evidence evidence = evidence_of(state.stream);
    evidence.clipped = std::max(report.mic_clipped, report.ref_clipped);
    settle(state.standing, judged(evidence), state.stream.frames);
    report.verdict = state.standing.verdict;
    report.verdict_s = seconds(state.stream.frames - state.standing.since);
    publish(state.published, report);
}

nax_meter_state *nax_meter_state_init(int32_t sample_rate, int32_t num_src_channel,
                                      int32_t num_ref_channel)
{
    const nax::FloatMode mode;
    if (!nax::is_served(sample_rate) || num_src_channel < 1 || num_src_channel > MAX_MICS ||
        num_ref_channel < 1 || num_ref_channel > INT32_MAX - num_src_channel)
        return nullptr;
    nax_meter_state *state = static_cast<nax_meter_state *>(calloc(1, sizeof *state));
    if (!state) return nullptr;
    state->frame_size = nax::frame_size_of(sample_rate);
    state->mics = num_src_channel;
    state->refs = state->kept = num_ref_channel;
    stream_init(state->stream, state->frame_size);
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

// Takes a channel out of an interleaved buffer and in; returns its power.
static float take_in(const nax_meter_state &state, Channel &channel, const int16_t *samples,
                     int32_t stride)
{
    int16_t planar[nax::MAX_FRAME];
    nax::copy_channel(samples, stride, planar, 1, state.frame_size);
    return take_in(channel, planar, state.frame_size);
}

int32_t nax_meter_short(nax_meter_state *state, const int16_t *in, const int16_t *out,
                        int32_t delay)
{
    if (!state || !in || !out) return -1;
    const nax::FloatMode mode;
    const int32_t mics = state->mics, into = mics + state->kept, from = mics + state->refs;
    Frame frame = {0, 0, 0, delay};
    for (int32_t m = 0; m < mics; m++) {
        frame.mic += take_in(*state, state->mic[m], in + m, into);
        frame.out += take_in(*state, state->out[m], out + m, from);
    }
    for (int32_t r = 0; r < state->kept; r++) {
        Channel further = {};
        Channel &channel = r < NAX_METER_REFS ? state->ref[r] : further;
        frame.ref += take_in(*state, channel, in + mics + r, into);
    }
    take_in(state->stream, frame);
    if (state->stream.frames % REPORT_EVERY == 0) report(*state);
    return 0;
}

int32_t nax_meter_read(const nax_meter_state *state, nax_meter_report *report)
{
    if (!state || !report) return -1;
    *report = latest(state->published);
    for (float &level : report->mic_dbfs)
        level = decibels(level);
    for (float &level : report->out_dbfs)
        level = decibels(level);
    for (float &level : report->ref_dbfs)
        level = decibels(level);
    return 0;
}
