// Many streams in one process: what a frame costs when 1 to 512 states take turns, on one
// thread and on two, and what memory a state takes. Prints one line per case:
//   rate mics refs states threads us-per-frame bytes-per-state
// The time is the threads' own processor time, so that other programs disturb little but
// the caches, and of three runs the shortest counts.
#include "nax_aec.h"

#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr int FRAMES_OF_MATERIAL = 64;
constexpr int FRAMES_PER_RUN = 2048; // over all states

struct Destroy {
    void operator()(nax_aec_state *state) const { nax_aec_state_destroy(state); }
};
using State = std::unique_ptr<nax_aec_state, Destroy>;

struct Format {
    int rate, mics, refs;
    size_t samples() const { return static_cast<size_t>(rate * 16 / 1000 * (mics + refs)); }
};

double processor_seconds()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

size_t heap_in_use()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// Noise in every channel, the microphones quieter. The streams share it, at different
// places, as only the states are to compete for the caches.
std::vector<int16_t> make_material(const Format &format)
{
    std::mt19937 random(1);
    std::vector<int16_t> all(FRAMES_OF_MATERIAL * format.samples());
    for (size_t i = 0; i < all.size(); i++) {
        const int value = static_cast<int>(random() % 16001) - 8000;
        const bool mic = static_cast<int>(i) % (format.mics + format.refs) < format.mics;
        all[i] = static_cast<int16_t>(mic ? value / 8 : value);
    }
    return all;
}

// Rounds in which each state of the share has one frame.
void run(const Format &format, const std::vector<int16_t> &material, State *states, size_t count,
         size_t rounds, double &seconds)
{
    std::vector<int16_t> out(format.samples()), echo(format.samples());
    const double start = processor_seconds();
    for (size_t round = 0; round < rounds; round++)
        for (size_t s = 0; s < count; s++) {
            const size_t frame = (round + 7 * s) % FRAMES_OF_MATERIAL;
            nax_aec_short(states[s].get(), &material[frame * format.samples()], out.data(),
                          echo.data(), static_cast<int32_t>(format.samples()));
        }
    seconds = processor_seconds() - start;
}

void measure(const Format &format, size_t states, size_t threads)
{
    const std::vector<int16_t> material = make_material(format);
    const nax_aec_param param = {1, 0, NAX_AEC_DELAY_ESTIMATION, 0, 0, nullptr};
    const size_t before = heap_in_use();
    std::vector<State> all(states);
    for (State &state : all)
        state.reset(nax_aec_state_init(format.rate, 16, format.mics, format.refs, &param));
    const size_t bytes = (heap_in_use() - before) / states;

    const size_t rounds = std::max<size_t>(FRAMES_PER_RUN / states, 4);
    double best = 1e9;
    for (int repetition = 0; repetition < 4; repetition++) { // the first one warms up
        std::vector<double> seconds(threads);
        std::vector<std::thread> workers;
        for (size_t t = 0; t < threads; t++) {
            const size_t first = states * t / threads, last = states * (t + 1) / threads;
            workers.emplace_back(run, std::cref(format), std::cref(material), &all[first],
                                 last - first, rounds, std::ref(seconds[t]));
        }
        double total = 0;
        for (size_t t = 0; t < threads; t++) {
            workers[t].join();
            total += seconds[t];
        }
        if (repetition > 0) best = std::min(best, total);
    }
    printf("%d %d %d %zu %zu %.1f %zu\n", format.rate, format.mics, format.refs, states, threads,
           1e6 * best / static_cast<double>(rounds * states), bytes);
}

} // namespace

int main()
{
    if (!freopen("/dev/null", "w", stderr)) return 1; // the library's banners
    for (const Format &format : {Format{16000, 1, 1}, Format{48000, 2, 2}})
        for (const size_t states : {1u, 8u, 64u, 512u})
            for (const size_t threads : {1u, 2u})
                if (states >= threads) measure(format, states, threads);
    return 0;
}
