// Creation, report and teardown over the real engines with any words at all, extreme
// ones above all; and a few frames where the words keep to the contract.
#include "bytes.h"
#include "heap_wrap.h"

#include "nax_aec.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace {

int32_t pick_word(Choices &choices)
{
    constexpr int32_t EXTREMES[] = {INT32_MIN, INT32_MIN + 1, -65536, -1,       0, 1,
                                    2,         12288,         65536,  INT32_MAX};
    switch (choices.pick(0, 3)) {
    case 0: return EXTREMES[choices.pick(0, std::size(EXTREMES) - 1)];
    case 1: return choices.pick(INT32_MIN, INT32_MAX);
    case 2: return choices.pick(-3000, 3000);
    default: return choices.pick(0, 3);
    }
}

int32_t pick_one(Choices &choices, std::initializer_list<int32_t> usual)
{
    const int32_t kind = choices.pick(-1, static_cast<int32_t>(usual.size()) - 1);
    return kind < 0 ? pick_word(choices) : *(usual.begin() + kind);
}

// Loud and soft noise, silence, the largest squares and single impulses, by frame.
void fill(Choices &choices, std::vector<int16_t> &samples)
{
    const int32_t kind = choices.pick(0, 4);
    uint32_t noise = static_cast<uint32_t>(choices.pick(0, 255)) + 1;
    for (size_t i = 0; i < samples.size(); i++) {
        noise = noise * 1664525 + 1013904223;
        const int16_t loud = static_cast<int16_t>(noise >> 16);
        const int16_t kinds[] = {0, loud, static_cast<int16_t>(loud / 10000),
                                 static_cast<int16_t>(i / 16 % 2 ? INT16_MAX : INT16_MIN),
                                 static_cast<int16_t>(i == 7 ? INT16_MIN : 0)};
        samples[i] = kinds[kind];
    }
}

void process(Choices &choices, nax_aec_state *state, size_t frame, size_t mics, size_t refs,
             size_t kept)
{
    std::vector<int16_t> in(frame * (mics + refs)), out(in.size()), echo(frame * mics);
    const int32_t len = static_cast<int32_t>(in.size());
    for (int32_t call = 0; call < 60 && choices.more(); call++) {
        fill(choices, in);
        if (choices.pick(0, 1) == 0) {
            // No sample more than a frame needs.
            const std::vector<int16_t> exact(in.begin(),
                                             in.begin() + static_cast<long>(frame * (mics + kept)));
            nax_aec_short(state, exact.data(), out.data(), echo.data(), len);
        } else {
            uint8_t *audio = reinterpret_cast<uint8_t *>(in.data());
            nax_aec_byte(state, &audio, out.data(), echo.data(), 2 * len, 2);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Bytes choices(data, size);
    const int32_t rate = pick_one(choices, {8000, 16000, 32000, 48000});
    const int32_t bits = pick_one(choices, {16, 16, 16});
    const int32_t mics = pick_one(choices, {1, 2, 1});
    const int32_t refs = pick_one(choices, {1, 2, 4, 1024});
    const int16_t table[] = {static_cast<int16_t>(choices.pick(0, 1)),
                             static_cast<int16_t>(choices.pick(0, 1))};
    nax_aec_param param = {.pos = pick_one(choices, {0, 1}),
                           .drop_channel = pick_one(choices, {0, 1}),
                           .model_aec_en = pick_one(choices, {0, 1, 2, 3}),
                           .delay_len = pick_one(choices, {0, 100}),
                           .look_ahead = pick_one(choices, {0, 1}),
                           .array_list = table};

    nax_aec_param_printf(0, 0, &param);
    // Absurd sizes are refused, as by an allocator that hands out only what it has.
    heap::limit = int64_t{64} << 20;
    heap::refusals = 0;
    heap::live.clear();
    heap::noting = rate != 8000 && rate != 16000 && rate != 32000 && rate != 48000;
    nax_aec_state *state = nax_aec_state_init(rate, bits, mics, refs, &param);
    heap::noting = false;

    // Without memory for its own buffers a state cannot be used.
    const bool whole = heap::refusals == 0;
    if (state && whole && refs <= 8 && param.drop_channel >= 0 && param.drop_channel <= refs)
        process(choices, state, static_cast<size_t>(rate / 125 * 2), static_cast<size_t>(mics),
                static_cast<size_t>(refs), static_cast<size_t>(refs - param.drop_channel));
    nax_aec_state_destroy(state);

    // The record that is left behind at a rate that is not supported.
    const std::map<void *, std::string> left = heap::live;
    for (const auto &[block, name] : left)
        free(block);
    if (heap::used != 0) abort(); // something was not released
    return 0;
}
