// The library's cost on the device, for the counting plugin and scripts/cost. Prints what
// each of the plugin's rows stands for, and the heap that each state takes.
#include "nax_aec.h"
#include "nax_meter.h"
#include "nax_res.h"

#include "kernels/kernels.h"
#include "regions.h"
#include "wraps.h"

#include <cstdio>
#include <random>
#include <vector>

namespace {

// Frames before the counting begins: enough for the delay to be found and the filter to
// have begun to adapt, so that nothing is at rest.
constexpr int WARM_UP = 80;
constexpr int COUNTED = 40; // rows of one frame each

uint32_t next_row;

struct Format {
    int32_t rate, mics, refs;
    int32_t frame() const { return rate * 16 / 1000; }
    int32_t channels() const { return mics + refs; }
};

// Seeded noise as the reference and its echo, eight frames late.
class Material {
public:
    explicit Material(const Format &format)
        : format_(format), far_(static_cast<size_t>(8 * format.frame()))
    {}

    void next(std::vector<int16_t> &frame)
    {
        for (size_t i = 0; i < frame.size(); i += static_cast<size_t>(format_.channels())) {
            const int32_t late = far_[at_];
            const int32_t far = static_cast<int32_t>(random_() % 16001) - 8000;
            far_[at_] = static_cast<int16_t>(far);
            at_ = (at_ + 1) % far_.size();
            for (int32_t c = 0; c < format_.channels(); c++) {
                const int32_t noise = static_cast<int32_t>(random_() % 41) - 20;
                frame[i + static_cast<size_t>(c)] =
                    static_cast<int16_t>(c < format_.mics ? late * 3 / 8 + noise : far);
            }
        }
    }

private:
    Format format_;
    std::mt19937 random_{1};
    std::vector<int16_t> far_;
    size_t at_ = 0;
};

void count_frames(const Format &format, bool estimate, bool bytes)
{
    const nax_aec_param param = {1, 0, estimate ? NAX_AEC_DELAY_ESTIMATION : 0, 0, 0, nullptr};
    const nax_aec_param refs_first = {0, 0, param.model_aec_en, 0, 0, nullptr};
    const int32_t samples = format.frame() * format.channels();
    std::vector<int16_t> in(static_cast<size_t>(samples)), out(in.size()), echo(in.size());
    Material material(format);

    heap_parts = {};
    const size_t before = heap_in_use();
    nax_aec_state *state =
        nax_aec_state_init(format.rate, 16, format.mics, format.refs, bytes ? &refs_first : &param);
    const size_t whole = heap_in_use() - before;
    nax_res_state *suppressor = nax_res_state_init(format.rate, format.mics, format.refs);
    const size_t of_suppressor = heap_in_use() - before - whole;
    nax_meter_state *meter = nax_meter_state_init(format.rate, format.mics, format.refs);
    const size_t of_meter = heap_in_use() - before - whole - of_suppressor;
    for (int frame = 0; frame < WARM_UP + COUNTED; frame++) {
        material.next(in);
        if (frame == WARM_UP) print_row(UINT32_MAX); // what came before is not counted
        if (bytes) {
            uint8_t *audio = reinterpret_cast<uint8_t *>(in.data());
            nax_aec_byte(state, &audio, out.data(), echo.data(), 2 * samples, NAX_AEC_BIG_ENDIAN);
        } else {
            const int32_t delay = nax_aec_short(state, in.data(), out.data(), echo.data(), samples);
            enter(METER);
            nax_meter_short(meter, in.data(), out.data(), delay);
            enter(SUPPRESSOR);
            nax_res_short(suppressor, out.data(), echo.data(), echo.data());
            enter(OUTSIDE);
        }
        if (frame < WARM_UP) continue;
        printf("row %u frame %d %d %d %s %s\n", next_row, format.rate, format.mics, format.refs,
               estimate ? "on" : "off", bytes ? "byte" : "short");
        print_row(next_row++);
    }
    const size_t with_bytes = heap_in_use() - before - of_suppressor - of_meter;
    nax_res_state_destroy(suppressor);
    nax_meter_state_destroy(meter);
    nax_aec_state_destroy(state);
    printf("heap %d %d %d %s %s %zu %zu %zu %zu %zu %zu %zu\n", format.rate, format.mics,
           format.refs, estimate ? "on" : "off", bytes ? "byte" : "short",
           whole - heap_parts.lines - heap_parts.estimator - heap_parts.canceller, heap_parts.lines,
           heap_parts.estimator, heap_parts.canceller, with_bytes - whole, of_suppressor, of_meter);
}

template <typename Call> void count_kernel(const char *name, const char *variant, Call call)
{
    print_row(UINT32_MAX);
    enter(LIBRARY);
    call();
    enter(OUTSIDE);
    printf("row %u kernel %s %s\n", next_row, name, variant);
    print_row(next_row++);
}

// Each inner loop on what a frame at 16000 Hz gives it.
struct Kernels {
    nax::FirDecimate *fir_decimate;
    nax::AverageCross *average_cross;
    nax::SpectrumEnergy *spectrum_energy;
    nax::SwapBytes *swap_bytes;
    nax::CopyChannel *copy_channel;
};

void count_kernels(const char *variant, const Kernels &kernels)
{
    static int16_t in[1024], out[1024];
    static float floats[6][64], decimated[64];
    const auto copy = [&](int32_t from, int32_t to) {
        kernels.copy_channel(in, from, out, to, 256);
    };
    count_kernel("decimation", variant,
                 [&] { kernels.fir_decimate(in, in + 512, 48, 4, decimated, 64); });
    count_kernel("cross-spectrum average", variant, [&] {
        kernels.average_cross(floats[0], floats[1], floats[2], floats[3], floats[4], floats[5],
                              0.9f, 52);
    });
    count_kernel("spectrum energy", variant,
                 [&] { decimated[0] = kernels.spectrum_energy(floats[0], floats[1], 52); });
    count_kernel("byte swap", variant,
                 [&] { kernels.swap_bytes(reinterpret_cast<const uint8_t *>(in), out, 1024); });
    count_kernel("de-interleave 2 channels", variant, [&] { copy(2, 1), copy(2, 1); });
    count_kernel("de-interleave 3 channels", variant, [&] { copy(3, 1), copy(3, 1), copy(3, 1); });
    count_kernel("de-interleave 4 channels", variant,
                 [&] { copy(4, 1), copy(4, 1), copy(4, 1), copy(4, 1); });
    count_kernel("interleave 2 channels", variant, [&] { copy(1, 2), copy(1, 2); });
    count_kernel("interleave 3 channels", variant, [&] { copy(1, 3), copy(1, 3), copy(1, 3); });
    count_kernel("interleave 4 channels", variant,
                 [&] { copy(1, 4), copy(1, 4), copy(1, 4), copy(1, 4); });
}

} // namespace

int main()
{
    namespace scalar = nax::scalar;
    namespace neon = nax::neon;
    if (!freopen("/dev/null", "w", stderr)) return 1; // the library's banners
    count_kernels("scalar", {scalar::fir_decimate, scalar::average_cross, scalar::spectrum_energy,
                             scalar::swap_bytes, scalar::copy_channel});
    if (nax::processor_has_neon())
        count_kernels("NEON", {neon::fir_decimate, neon::average_cross, neon::spectrum_energy,
                               neon::swap_bytes, neon::copy_channel});
    for (const int32_t rate : {8000, 16000, 32000, 48000})
        for (const int32_t mics : {1, 2})
            for (const int32_t refs : {1, 2}) {
                count_frames({rate, mics, refs}, false, true);
                count_frames({rate, mics, refs}, true, false);
            }
    return 0;
}
