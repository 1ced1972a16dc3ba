// What the per-frame calls may do on an audio thread: nothing that could block, see
// support/audio_thread.h. The library is the shared one, over the real libspeexdsp.
#include "nax_meter.h"
#include "nax_res.h"

#include "audio_thread.h"
#include "signals.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

class AudioThread : public testing::Test {
protected:
    void SetUp() override
    {
        if (no_ban_here()) GTEST_SKIP() << no_ban_here();
    }
};

// The ban works, or the tests below would prove nothing.
TEST_F(AudioThread, EndsAtASystemCallAnAllocationAndALock)
{
    int status = ends_with([] { return [] { return static_cast<int>(syscall(SYS_getppid)); }; });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSYS);

    status = ends_with([] { return [] { return malloc(1) == nullptr ? 0 : 1; }; });
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == WENT_TO_THE_HEAP);

    status = ends_with([] {
        return [] {
            pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
            return pthread_mutex_lock(&mutex);
        };
    });
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == TOOK_A_LOCK);
}

struct Format {
    int32_t sample_rate, mics, refs, model_aec_en;
};

// A thousand frames of a call: late echo that moves every 250 frames, a pause in it.
static Samples material(const Format &format, int32_t frames)
{
    const int32_t frame = frame_size(format.sample_rate);
    Speech far(format.sample_rate, 1), near(format.sample_rate, 2);
    EchoPath path(2 * frame);
    Samples samples;
    for (int32_t t = 0; t < frames; t++) {
        if (t % 250 == 249) path = EchoPath((t / 250 + 3) * 2 * frame);
        const bool pause = t % 400 >= 350;
        for (int32_t i = 0; i < frame; i++) {
            const int16_t played = to_sample(pause ? 0.0 : far.next());
            const double talker = t % 300 >= 200 ? near.next() : 0.0;
            const int16_t heard = to_sample(path.next(played) + talker);
            samples.insert(samples.end(), static_cast<size_t>(format.mics), heard);
            samples.insert(samples.end(), static_cast<size_t>(format.refs), played);
        }
    }
    return samples;
}

static int32_t process(nax_aec_state *state, bool bytes, int16_t *in, int16_t *out, int16_t *echo,
                       int32_t count)
{
    if (!bytes) return nax_aec_short(state, in, out, echo, count);
    uint8_t *audio = reinterpret_cast<uint8_t *>(in);
    return nax_aec_byte(state, &audio, out, echo, 2 * count, 2);
}

// How a child ends that processes a thousand frames under the ban; with status 0 when
// the delay moved, as it must where it is estimated.
static int process_under_the_ban(const Format &format, bool bytes)
{
    constexpr int32_t FRAMES = 1000;
    const int32_t count = frame_size(format.sample_rate) * (format.mics + format.refs);
    return ends_with([&] {
        Samples in = material(format, FRAMES);
        Samples out(static_cast<size_t>(count)), echo(out.size());
        State state = make_state(format.sample_rate, format.mics, format.refs,
                                 {.pos = 1, .model_aec_en = format.model_aec_en});
        nax_res_state *suppressor =
            nax_res_state_init(format.sample_rate, format.mics, format.refs);
        nax_meter_state *meter = nax_meter_state_init(format.sample_rate, format.mics, format.refs);
        // The first call of nax_aec_byte allocates once.
        process(state.get(), bytes, in.data(), out.data(), echo.data(), count);
        return [=, of = state.release(), in = std::move(in), out = std::move(out),
                echo = std::move(echo)]() mutable {
            int32_t moves = 0, delay = 0;
            for (int32_t t = 0; t < FRAMES; t++) {
                int16_t *frame = &in[static_cast<size_t>(t * count)];
                const int32_t now = process(of, bytes, frame, out.data(), echo.data(), count);
                nax_res_short(suppressor, out.data(), echo.data(), echo.data());
                nax_meter_report report;
                nax_meter_short(meter, frame, out.data(), now);
                nax_meter_read(meter, &report);
                nax_meter_text(report.verdict);
                if (now != delay) moves++;
                delay = now;
            }
            return format.model_aec_en == 0 || moves > 2 ? 0 : 1;
        };
    });
}

TEST_F(AudioThread, ProcessesAThousandFramesWithoutASystemCallALockOrTheHeap)
{
    for (const int32_t sample_rate : RATES)
        for (const auto &[mics, refs] : {std::pair{1, 1}, {2, 1}, {1, 2}, {2, 2}})
            for (const int32_t model_aec_en : {0, 1})
                for (const bool bytes : {false, true}) {
                    const Format format = {sample_rate, mics, refs, model_aec_en};
                    const int status = process_under_the_ban(format, bytes);
                    SCOPED_TRACE(testing::Message()
                                 << sample_rate << " Hz, " << mics << " microphones, " << refs
                                 << " references, estimation " << model_aec_en
                                 << (bytes ? ", bytes" : ", samples"));
                    ASSERT_TRUE(WIFEXITED(status)) << "ended at a system call";
                    EXPECT_EQ(WEXITSTATUS(status), 0);
                }
}
