// The meter on any format, frames and delays: bounds and arithmetic, and a report within its
// limits whenever it is read.
#include "nax_meter.h"

#include "bytes.h"
#include "support.h"

#include <cstdlib>
#include <memory>
#include <vector>

namespace {

// A frame of one kind or another, of extremes above all.
void fill(Choices &choices, std::vector<int16_t> &samples, uint32_t &content)
{
    const int32_t kind = choices.pick(0, 3), shift = choices.pick(0, 16);
    for (int16_t &sample : samples) {
        content = content * 1664525 + 1013904223;
        const int32_t noise = static_cast<int16_t>(content >> 16);
        sample = kind == 0   ? INT16_MIN
                 : kind == 1 ? static_cast<int16_t>(noise < 0 ? INT16_MIN : INT16_MAX)
                             : static_cast<int16_t>(noise >> shift);
    }
}

// A number, and within bounds.
bool is_within(float value, float low, float high) { return value >= low && value <= high; }

bool is_sound(const nax_meter_report &report, int32_t frames)
{
    bool sound = nax_meter_name(report.verdict) && report.frames <= frames &&
                 report.frames > frames - 4 && is_within(report.removed_db, -130, 130) &&
                 is_within(report.mic_clipped, 0, 1) && is_within(report.ref_clipped, 0, 1) &&
                 is_within(report.likeness, -1, 1) && is_within(report.likeness_ms, -512, 2032) &&
                 report.delay_moves >= 0 && report.delay_moves <= 8;
    for (const float level : report.mic_dbfs)
        sound = sound && is_within(level, -100, 0.1f);
    for (const float level : report.out_dbfs)
        sound = sound && is_within(level, -100, 0.1f);
    for (const float level : report.ref_dbfs)
        sound = sound && is_within(level, -100, 0.1f);
    const auto seconds = static_cast<float>(report.frames) * 0.016f;
    for (const float time : {report.verdict_s, report.far_end_s, report.delay_s})
        sound = sound && is_within(time, 0, seconds + 0.1f);
    return sound;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Bytes choices(data, size);
    const int32_t rate = RATES[choices.pick(0, 3)];
    const int32_t mics = choices.pick(1, 2), refs = choices.pick(1, 10);
    const int32_t drop = choices.pick(0, refs);
    const size_t frame = static_cast<size_t>(frame_size(rate));
    const std::unique_ptr<nax_meter_state, decltype(&nax_meter_state_destroy)> state(
        nax_meter_state_init(rate, mics, refs), nax_meter_state_destroy);
    if (!state || nax_meter_drop(state.get(), drop) != 0) abort();
    // To the sample, so that a step beyond is seen.
    std::vector<int16_t> in(frame * static_cast<size_t>(mics + refs - drop));
    std::vector<int16_t> out(frame * static_cast<size_t>(mics + refs));
    uint32_t content = 1;
    for (int32_t t = 1; t <= 2000 && choices.more(); t++) {
        fill(choices, in, content);
        fill(choices, out, content);
        const int32_t delay =
            choices.pick(0, 3) == 0 ? choices.pick(INT32_MIN, INT32_MAX) : choices.pick(0, 2) * 256;
        nax_meter_report report;
        if (nax_meter_short(state.get(), in.data(), out.data(), delay) != 0) abort();
        if (nax_meter_read(state.get(), &report) != 0 || !is_sound(report, t)) abort();
    }
    return 0;
}
