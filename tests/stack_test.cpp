// The stack that the per-frame calls need, libspeexdsp's and kissfft's part included, on the
// smallest thread that the system allows: 16 KiB on x86-64 and 32-bit ARM.
#include "nax_meter.h"
#include "nax_res.h"

#include "signals.h"

#include <limits.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>

// A checker's build keeps more on the stack than the library does.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
static constexpr bool CHECKED = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
static constexpr bool CHECKED = true;
#else
static constexpr bool CHECKED = false;
#endif
#else
static constexpr bool CHECKED = false;
#endif

static constexpr size_t PROMISED = 8 * 1024; // bytes, by the headers
static constexpr uint8_t PAINT = 0xa5;       // of stack that was not used yet
// Bytes; the thread's own record lies in it, too.
static const size_t STACK = static_cast<size_t>(PTHREAD_STACK_MIN);

struct Call {
    int32_t rate, channels;
    Samples frames; // interleaved, one frame after the other
    nax_aec_state *state;
    nax_res_state *suppressor;
    nax_meter_state *meter;
    uint8_t *stack; // lowest address
    size_t used;    // bytes of stack, by the frames
};

static void *run(void *argument)
{
    Call &call = *static_cast<Call *>(argument);
    // What lies between belongs to this function.
    const uintptr_t frame_address = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    const uint8_t *const top = reinterpret_cast<uint8_t *>(frame_address - 512);
    for (volatile uint8_t *byte = call.stack; byte < top; byte++)
        *byte = PAINT;
    const int32_t frame = frame_size(call.rate), samples = 2 * call.channels * frame;
    static Samples out(4 * 768), echo(2 * 768), suppressed(2 * 768);
    for (size_t at = 0; at + static_cast<size_t>(samples) <= call.frames.size();
         at += static_cast<size_t>(samples)) {
        uint8_t *audio = reinterpret_cast<uint8_t *>(call.frames.data() + at);
        const int32_t delay =
            nax_aec_byte(call.state, &audio, out.data(), echo.data(), 2 * samples, 2);
        nax_meter_short(call.meter, reinterpret_cast<int16_t *>(audio), out.data(), delay);
        nax_res_short(call.suppressor, out.data(), echo.data(), suppressed.data());
    }
    const uint8_t *lowest = call.stack;
    while (lowest < top && *lowest == PAINT)
        lowest++;
    call.used = frame_address - reinterpret_cast<uintptr_t>(lowest);
    return nullptr;
}

// Bytes of stack that frames of one format take.
static size_t stack_of_frames(int32_t rate, int32_t channels)
{
    const nax_aec_param param = Words{.pos = 0, .model_aec_en = 1};
    Call call = {rate, channels, {}, nullptr, nullptr, nullptr, nullptr, 0};
    standard_error_of(
        [&] { call.state = nax_aec_state_init(rate, 16, channels, channels, &param); });
    call.suppressor = nax_res_state_init(rate, channels, channels);
    call.meter = nax_meter_state_init(rate, channels, channels);
    Speech far(rate, 3);
    EchoPath path(rate / 50, room_response(rate, 2));
    call.frames.resize(static_cast<size_t>(rate * 2 * channels)); // 1 s: the echo is found
    for (size_t at = 0; at < call.frames.size(); at += static_cast<size_t>(2 * channels)) {
        const double x = far.next(), y = path.next(x);
        std::fill_n(call.frames.begin() + static_cast<ptrdiff_t>(at), channels, to_sample(x));
        std::fill_n(call.frames.begin() + static_cast<ptrdiff_t>(at) + channels, channels,
                    to_sample(y));
    }
    call.stack = static_cast<uint8_t *>(
        mmap(nullptr, STACK, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));

    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, call.stack, STACK);
    pthread_t thread;
    EXPECT_EQ(pthread_create(&thread, &attributes, run, &call), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    munmap(call.stack, STACK);
    nax_res_state_destroy(call.suppressor);
    nax_meter_state_destroy(call.meter);
    nax_aec_state_destroy(call.state);
    return call.used;
}

TEST(Stack, FramesStayWithinWhatTheHeadersPromise)
{
    if (CHECKED) GTEST_SKIP() << "a checker needs stack of its own";
    for (const int32_t rate : RATES)
        for (const int32_t channels : {1, 2}) {
            const size_t used = stack_of_frames(rate, channels);
            EXPECT_GT(used, 1024u) << "nothing was measured";
            EXPECT_LE(used, PROMISED) << rate << " " << channels;
        }
}
