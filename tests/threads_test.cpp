// Many states on many threads, created at the same time, and dumps that they share. The
// sanitizers' build looks at all of it.
#include "signals.h"

#include "nax_aec_dump.h"

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>

static constexpr int32_t THREADS = 6;
static constexpr int32_t FRAMES = 60;
static constexpr int32_t LIVES = 2; // states that a thread has one after the other

struct Layout {
    int32_t sample_rate, mics, refs;
};
// Different sizes, so that a block tells by its length whose it is.
static constexpr Layout LAYOUTS[THREADS] = {{8000, 1, 1},  {8000, 2, 1},  {16000, 1, 2},
                                            {16000, 2, 2}, {32000, 1, 1}, {48000, 2, 1}};

// Everything that comes out of the states that a thread has, and the delays.
static std::vector<int32_t> run(const Layout &layout)
{
    const int32_t frame = frame_size(layout.sample_rate);
    const size_t count = static_cast<size_t>(frame * (layout.mics + layout.refs));
    std::vector<int32_t> result;
    for (int32_t life = 0; life < LIVES; life++) {
        const nax_aec_param param = Words{.pos = 0, .model_aec_en = 1};
        const State state(
            nax_aec_state_init(layout.sample_rate, 16, layout.mics, layout.refs, &param));
        Speech far(layout.sample_rate, 5);
        Samples in(count), out(count), echo(static_cast<size_t>(frame * layout.mics));
        for (int32_t n = 0; n < FRAMES; n++) {
            for (int16_t &sample : in)
                sample = to_sample(far.next());
            int32_t delay;
            if (n % 2 == 0) {
                uint8_t *audio = reinterpret_cast<uint8_t *>(in.data());
                delay = nax_aec_byte(state.get(), &audio, out.data(), echo.data(),
                                     static_cast<int32_t>(2 * count), 2);
            } else {
                delay = nax_aec_short(state.get(), in.data(), out.data(), echo.data(),
                                      static_cast<int32_t>(count));
            }
            result.push_back(delay);
            result.insert(result.end(), out.begin(), out.end());
            result.insert(result.end(), echo.begin(), echo.end());
        }
    }
    return result;
}

static std::vector<int32_t> run_quietly(const Layout &layout)
{
    std::vector<int32_t> result;
    standard_error_of([&] { result = run(layout); });
    return result;
}

static std::vector<std::vector<int32_t>> run_all()
{
    std::vector<std::vector<int32_t>> results(THREADS);
    standard_error_of([&] {
        std::vector<std::thread> threads;
        for (size_t i = 0; i < THREADS; i++)
            threads.emplace_back([&results, i] { results[i] = run(LAYOUTS[i]); });
        for (std::thread &thread : threads)
            thread.join();
    });
    return results;
}

TEST(Threads, StatesGiveTheSameSideBySideAsAlone)
{
    const std::vector<std::vector<int32_t>> together = run_all();
    for (size_t i = 0; i < THREADS; i++)
        EXPECT_TRUE(together[i] == run_quietly(LAYOUTS[i])) << i;
}

TEST(Threads, CreationsAtTheSameTimeGiveEveryThreadAStateOfItsOwn)
{
    constexpr size_t CREATORS = 4, ROUNDS = 100;
    std::set<nax_aec_state *> states;
    standard_error_of([&] {
        for (size_t round = 0; round < ROUNDS; round++) {
            std::atomic<size_t> waiting{CREATORS};
            nax_aec_state *created[CREATORS] = {};
            std::vector<std::thread> threads;
            for (nax_aec_state *&state : created)
                threads.emplace_back([&state, &waiting] {
                    const nax_aec_param param = Words{.pos = 1};
                    waiting--;
                    while (waiting > 0)
                        continue;
                    state = nax_aec_state_init(8000, 16, 1, 1, &param);
                });
            for (std::thread &thread : threads)
                thread.join();
            states.insert(created, created + CREATORS);
        }
    });
    EXPECT_EQ(states.size(), CREATORS * ROUNDS);
    for (nax_aec_state *state : states)
        nax_aec_state_destroy(state);
}

TEST(Threads, SharedDumpsHoldEveryBlockAndGiveTheSameAudio)
{
    FILE *dumps = tmpfile();
    ASSERT_NE(dumps, nullptr);
    aec_out = echo_out = dumps;
    const std::vector<std::vector<int32_t>> dumped = run_all();
    aec_out = echo_out = nullptr;
    long expected = 0;
    for (const Layout &layout : LAYOUTS)
        expected += long{LIVES} * (FRAMES / 2) * frame_size(layout.sample_rate) *
                    (2 * layout.mics + layout.refs) * long{sizeof(int16_t)};
    EXPECT_EQ(ftell(dumps), expected);
    fclose(dumps);
    EXPECT_TRUE(dumped == run_all());
}
