// What the per-frame calls may do on an audio thread: nothing that could block. A child
// process makes its states and signals, then forbids itself every system call but the
// one that ends it, and every call of the heap and of a mutex, and processes frames. The
// library is the shared one, over the real libspeexdsp.
#include "nax_res.h"

#include "signals.h"

#include <dlfcn.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>

// A sanitiser's run-time library has its own heap and makes calls of its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITISED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SANITISED 1
#endif
#endif

static constexpr int WENT_TO_THE_HEAP = 3, TOOK_A_LOCK = 4;
static bool on_audio_thread; // from here on a call of heap or mutex ends the process

[[noreturn]] static void leave(int status)
{
    for (;;)
        syscall(SYS_exit_group, status);
}

// Stand in for the C library's functions for the whole process, its shared libraries
// included.
#ifndef SANITISED
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);

void *malloc(size_t size)
{
    if (on_audio_thread) leave(WENT_TO_THE_HEAP);
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    if (on_audio_thread) leave(WENT_TO_THE_HEAP);
    return __libc_calloc(count, size);
}

void *realloc(void *block, size_t size)
{
    if (on_audio_thread) leave(WENT_TO_THE_HEAP);
    return __libc_realloc(block, size);
}

void free(void *block)
{
    if (on_audio_thread) leave(WENT_TO_THE_HEAP);
    __libc_free(block);
}

int pthread_mutex_lock(pthread_mutex_t *mutex)
{
    if (on_audio_thread) leave(TOOK_A_LOCK);
    static const auto lock =
        reinterpret_cast<int (*)(pthread_mutex_t *)>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    return lock(mutex);
}
}
#endif

// Kills this process at any system call but exit and exit_group. Returns false where the
// system has no such filter, an emulator for instance.
static bool forbid_system_calls()
{
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
    };
    const sock_fprog filter = {sizeof program / sizeof *program, program};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter, 0, 0) == 0;
}

static constexpr int NO_FILTER = 5;

// How a child ends that prepares freely, then acts under the ban.
template <typename Prepare> static int ends_with(Prepare prepare)
{
    const pid_t child = fork();
    if (child == 0) {
        auto act = prepare();
        if (!forbid_system_calls()) leave(NO_FILTER);
        on_audio_thread = true;
        leave(act());
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

class AudioThread : public testing::Test {
protected:
    void SetUp() override
    {
#ifdef SANITISED
        GTEST_SKIP() << "a sanitiser's run-time library allocates and makes system calls";
#endif
        const int status = ends_with([] { return [] { return 0; }; });
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
            GTEST_SKIP() << "system calls cannot be forbidden here (emulation, or no seccomp)";
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
        // The first call of nax_aec_byte allocates once.
        process(state.get(), bytes, in.data(), out.data(), echo.data(), count);
        return [=, of = state.release(), in = std::move(in), out = std::move(out),
                echo = std::move(echo)]() mutable {
            int32_t moves = 0, delay = 0;
            for (int32_t t = 0; t < FRAMES; t++) {
                int16_t *frame = &in[static_cast<size_t>(t * count)];
                const int32_t now = process(of, bytes, frame, out.data(), echo.data(), count);
                nax_res_short(suppressor, out.data(), echo.data(), echo.data());
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
