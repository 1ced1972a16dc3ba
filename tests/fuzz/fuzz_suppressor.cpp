// The suppressor on any format and any frames: bounds, arithmetic, and that a microphone
// passes to the sample once the references have been silent for a while.
#include "nax_res.h"

#include "bytes.h"
#include "support.h"

#include <cstdlib>
#include <memory>
#include <vector>

namespace {

// A frame of one kind or another, of extremes above all.
void fill(Choices &choices, std::vector<int16_t> &samples, uint32_t &content)
{
    const int32_t kind = choices.pick(0, 5), shift = choices.pick(0, 15);
    for (int16_t &sample : samples) {
        content = content * 1664525 + 1013904223;
        const int16_t noise = static_cast<int16_t>(content >> 16);
        sample = kind == 0   ? int16_t{0}
                 : kind == 1 ? INT16_MIN
                 : kind == 2 ? INT16_MAX
                 : kind == 3 ? static_cast<int16_t>(noise < 0 ? INT16_MIN : INT16_MAX)
                             : static_cast<int16_t>(noise >> shift);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Bytes choices(data, size);
    const int32_t rate = RATES[choices.pick(0, 3)];
    const int32_t mics = choices.pick(1, 2), refs = choices.pick(1, 4);
    const size_t frame = static_cast<size_t>(frame_size(rate));
    const std::unique_ptr<nax_res_state, decltype(&nax_res_state_destroy)> state(
        nax_res_state_init(rate, mics, refs), nax_res_state_destroy);
    if (!state) abort();
    // To the sample, so that a step beyond is seen.
    std::vector<int16_t> aec(frame * static_cast<size_t>(mics + refs));
    std::vector<int16_t> echo(frame * static_cast<size_t>(mics)), out(echo.size()), before;
    uint32_t content = 1;
    for (int32_t t = 0; t < 500 && choices.more(); t++) {
        fill(choices, aec, content);
        fill(choices, echo, content);
        if (nax_res_short(state.get(), aec.data(), echo.data(), out.data()) != 0) abort();
    }

    for (int32_t t = 0; t < 120; t++) { // two seconds of a talker and nothing played
        fill(choices, aec, content);
        for (size_t i = 0; i < aec.size(); i++) {
            content = content * 1664525 + 1013904223;
            const bool mic = i % static_cast<size_t>(mics + refs) < static_cast<size_t>(mics);
            aec[i] =
                mic ? static_cast<int16_t>(static_cast<int16_t>(content >> 16) >> 3) : int16_t{0};
        }
        fill(choices, echo, content);
        nax_res_short(state.get(), aec.data(), echo.data(), out.data());
        if (t > 60)
            for (size_t i = 0; i < out.size(); i++)
                if (out[i] != before[i]) abort();
        before.clear();
        for (size_t i = 0; i < aec.size(); i++)
            if (i % static_cast<size_t>(mics + refs) < static_cast<size_t>(mics))
                before.push_back(aec[i]);
    }
    return 0;
}
