// What a frame costs, as a ratio to the bare canceller library on the same frames.
//
// Each row times two things by turns, a short burst of frames each, so that a change
// of the machine's speed meets both alike:
//   library  nax_aec_short or nax_aec_byte
//   bare     libspeexdsp on whole 16 ms frames, the same channels, the true rate
// "ratio" is library over bare. "over_binding" is library over the bare canceller run as
// the engine runs it, on shorter blocks: what is above 1 there with the estimation off is
// the front end and the binding's own work.
//
// The frames hold speech-like noise with an echo, loud enough to keep everything busy.
#include "nax_aec.h"

#include <benchmark/benchmark.h>
#include <speex/speex_echo.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include <time.h>

namespace {

constexpr int BURST = 25;   // frames timed before the other side has its turn
constexpr int FRAMES = 200; // frames of material, played in a loop

struct Format {
    int rate, mics, refs;
    int frame() const { return rate * 16 / 1000; }
    int channels() const { return mics + refs; }
    int binding_block() const { return std::max(frame() / 4, 64); } // as the binding runs it
};

// Interleaved microphones and references of FRAMES frames.
std::vector<int16_t> make_material(const Format &f)
{
    const int length = FRAMES * f.frame();
    std::mt19937 random(1);
    std::normal_distribution<float> noise(0.0f, 1.0f);
    std::vector<float> ref(static_cast<size_t>(length));
    float low = 0;
    for (int i = 0; i < length; i++) {
        low = 0.8f * low + noise(random);
        const bool talking = i / (f.rate / 2) % 4 != 3; // a pause every two seconds
        ref[static_cast<size_t>(i)] = talking ? 2000 * low : 0;
    }
    const int delay = 5 * f.frame() + f.frame() / 3;
    std::vector<int16_t> all(static_cast<size_t>(length * f.channels()));
    for (int i = 0; i < length; i++) {
        const float echo = i >= delay ? 0.4f * ref[static_cast<size_t>(i - delay)] : 0;
        for (int c = 0; c < f.channels(); c++) {
            const float value =
                c < f.mics ? echo + 20 * noise(random) : ref[static_cast<size_t>(i)];
            all[static_cast<size_t>(i * f.channels() + c)] = static_cast<int16_t>(value);
        }
    }
    return all;
}

// The bare canceller library on blocks of the given size.
class Bare {
public:
    Bare(const Format &f, const std::vector<int16_t> &material, int block)
        : f_(f), block_(block), out_(static_cast<size_t>(f.frame() * f.mics)),
          state_(speex_echo_state_init_mc(block_, 2 * f.frame(), f.mics, f.refs))
    {
        int rate = f.rate;
        speex_echo_ctl(state_, SPEEX_ECHO_SET_SAMPLING_RATE, &rate);
        for (size_t i = 0; i < material.size(); i++)
            (static_cast<int>(i) % f.channels() < f.mics ? mic_ : ref_).push_back(material[i]);
    }
    ~Bare() { speex_echo_state_destroy(state_); }
    Bare(const Bare &) = delete;
    Bare &operator=(const Bare &) = delete;

    void frame(int t)
    {
        for (int i = t * f_.frame(); i < (t + 1) * f_.frame(); i += block_)
            speex_echo_cancellation(state_, &mic_[static_cast<size_t>(i * f_.mics)],
                                    &ref_[static_cast<size_t>(i * f_.refs)], out_.data());
    }

private:
    Format f_;
    int block_;
    std::vector<int16_t> mic_, ref_, out_;
    SpeexEchoState *state_;
};

// A state of the library, fed through either entry point.
class Library {
public:
    Library(const Format &f, const std::vector<int16_t> &material, bool bytes, bool estimate)
        : f_(f), bytes_(bytes), material_(material),
          out_(static_cast<size_t>(f.frame() * f.channels())),
          echo_(static_cast<size_t>(f.frame() * f.mics))
    {
        const nax_aec_param param = {
            bytes ? 0 : 1, 0, estimate ? NAX_AEC_DELAY_ESTIMATION : 0, 0, 0, nullptr};
        state_ = nax_aec_state_init(f.rate, 16, f.mics, f.refs, &param);
        if (bytes) { // references first, as pos 0 has them
            for (size_t i = 0; i < material_.size(); i += static_cast<size_t>(f.channels()))
                for (int c = 0; c < f.channels(); c++)
                    material_[i + static_cast<size_t>(c)] =
                        material[i + static_cast<size_t>((c + f.mics) % f.channels())];
        }
    }
    ~Library() { nax_aec_state_destroy(state_); }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;

    void frame(int t)
    {
        const int samples = f_.frame() * f_.channels();
        int16_t *in = &material_[static_cast<size_t>(t * samples)];
        if (bytes_) {
            uint8_t *audio = reinterpret_cast<uint8_t *>(in);
            nax_aec_byte(state_, &audio, out_.data(), echo_.data(), 2 * samples,
                         NAX_AEC_LITTLE_ENDIAN);
        } else {
            nax_aec_short(state_, in, out_.data(), echo_.data(), samples);
        }
    }

private:
    Format f_;
    bool bytes_;
    std::vector<int16_t> material_, out_, echo_;
    nax_aec_state *state_;
};

// Of this thread's processor time, which other processes do not count towards.
double seconds_now()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

template <typename Side> double seconds_of_burst(Side &side, int start)
{
    const double begin = seconds_now();
    for (int t = 0; t < BURST; t++)
        side.frame((start + t) % FRAMES);
    return seconds_now() - begin;
}

void cost(benchmark::State &bench, Format f, bool bytes, bool estimate)
{
    const std::vector<int16_t> material = make_material(f);
    Library library(f, material, bytes, estimate);
    Bare bare(f, material, f.frame());
    Bare binding(f, material, f.binding_block());
    double library_s = 0, bare_s = 0, binding_s = 0;
    int start = 0, frames = 0;
    for (auto _ : bench) {
        const double burst = seconds_of_burst(library, start);
        bare_s += seconds_of_burst(bare, start);
        binding_s += seconds_of_burst(binding, start);
        library_s += burst;
        bench.SetIterationTime(burst);
        start = (start + BURST) % FRAMES;
        frames += BURST;
    }
    bench.counters["us_per_frame"] = 1e6 * library_s / frames;
    bench.counters["bare_us"] = 1e6 * bare_s / frames;
    bench.counters["ratio"] = library_s / bare_s;
    bench.counters["over_binding"] = library_s / binding_s;
}

} // namespace

int main(int argc, char **argv)
{
    // The library's banner would stand between the rows.
    if (!freopen("/dev/null", "w", stderr)) return 1;
    for (bool estimate : {false, true})
        for (bool bytes : {false, true})
            for (int rate : {8000, 16000, 32000, 48000})
                for (int mics : {1, 2})
                    for (int refs : {1, 2}) {
                        const std::string name =
                            std::string(bytes ? "byte" : "short") + "/" + std::to_string(rate) +
                            "/mics:" + std::to_string(mics) + "/refs:" + std::to_string(refs) +
                            (estimate ? "/estimation" : "/no_estimation");
                        benchmark::RegisterBenchmark(name.c_str(), cost, Format{rate, mics, refs},
                                                     bytes, estimate)
                            ->UseManualTime()
                            ->Unit(benchmark::kMillisecond);
                    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
