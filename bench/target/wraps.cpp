// Stands between the library's blocks (--wrap): changes the region around each call, and
// notes the heap that each block takes at creation.
#include "wraps.h"

#include "engines/canceller.h"
#include "engines/delay_estimator.h"
#include "process/alignment.h"
#include "regions.h"

#include <malloc.h>
#include <speex/speex_echo.h>

#include <cstdlib>

HeapParts heap_parts;

size_t heap_in_use()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

template <typename Call> static auto within(Region region, Region after, Call call)
{
    enter(region);
    const auto result = call();
    enter(after);
    return result;
}

template <typename Call> static auto noting_heap(size_t &sum, Call call)
{
    const size_t before = heap_in_use();
    const auto result = call();
    sum += heap_in_use() - before;
    return result;
}

static Region outside_short = OUTSIDE;

// Each pair below is declared under the names that the linker's option makes.
#define REAL(symbol) __asm__("__real_" symbol)
#define WRAP(symbol) __asm__("__wrap_" symbol)

#define BYTE "nax_aec_byte"
int32_t real_byte(nax_aec_state *, uint8_t **, int16_t *, int16_t *, int32_t, uint32_t) REAL(BYTE);
int32_t wrap_byte(nax_aec_state *, uint8_t **, int16_t *, int16_t *, int32_t, uint32_t) WRAP(BYTE);
int32_t wrap_byte(nax_aec_state *state, uint8_t **audio, int16_t *out, int16_t *echo, int32_t len,
                  uint32_t byte_order)
{
    outside_short = BYTES;
    const int32_t result =
        within(BYTES, OUTSIDE, [=] { return real_byte(state, audio, out, echo, len, byte_order); });
    outside_short = OUTSIDE;
    return result;
}

#define SHORT "nax_aec_short"
int32_t real_short(nax_aec_state *, const int16_t *, int16_t *, int16_t *, int32_t) REAL(SHORT);
int32_t wrap_short(nax_aec_state *, const int16_t *, int16_t *, int16_t *, int32_t) WRAP(SHORT);
int32_t wrap_short(nax_aec_state *state, const int16_t *in, int16_t *out, int16_t *echo,
                   int32_t len)
{
    return within(SPLIT, outside_short, [=] { return real_short(state, in, out, echo, len); });
}

#define ALIGN "_ZN3nax15align_referenceER13nax_aec_state"
nax::Alignment real_align(nax_aec_state &) REAL(ALIGN);
nax::Alignment wrap_align(nax_aec_state &) WRAP(ALIGN);
nax::Alignment wrap_align(nax_aec_state &state)
{
    return within(ALIGNMENT, SPLIT, [&] { return real_align(state); });
}

#define ESTIMATE "_ZN3nax16AEC_DelayProcessEPKsS1_iiPi"
int32_t real_estimate(const int16_t *, const int16_t *, int32_t, int32_t, int32_t *) REAL(ESTIMATE);
int32_t wrap_estimate(const int16_t *, const int16_t *, int32_t, int32_t, int32_t *) WRAP(ESTIMATE);
int32_t wrap_estimate(const int16_t *mic, const int16_t *ref, int32_t length, int32_t count,
                      int32_t *state)
{
    return within(ESTIMATOR, ALIGNMENT,
                  [=] { return real_estimate(mic, ref, length, count, state); });
}

#define CANCEL "_ZN3nax9canceller28speex_fast_echo_cancellationEPNS0_8InstanceEPKsS4_PsS5_i"
using nax::canceller::Instance;
void real_cancel(Instance *, const int16_t *, const int16_t *, int16_t *, int16_t *, int32_t)
    REAL(CANCEL);
void wrap_cancel(Instance *, const int16_t *, const int16_t *, int16_t *, int16_t *, int32_t)
    WRAP(CANCEL);
void wrap_cancel(Instance *instance, const int16_t *mic, const int16_t *ref, int16_t *aec,
                 int16_t *echo, int32_t delay_changed)
{
    enter(BINDING);
    real_cancel(instance, mic, ref, aec, echo, delay_changed);
    enter(JOIN);
}

#define SPEEX "speex_echo_cancellation"
void real_speex(SpeexEchoState *, const int16_t *, const int16_t *, int16_t *) REAL(SPEEX);
void wrap_speex(SpeexEchoState *, const int16_t *, const int16_t *, int16_t *) WRAP(SPEEX);
void wrap_speex(SpeexEchoState *state, const int16_t *mic, const int16_t *ref, int16_t *out)
{
    enter(LIBRARY);
    real_speex(state, mic, ref, out);
    enter(BINDING);
}

#define MAKE_CANCELLER "_ZN3nax9canceller24speex_echo_state_init_mcEiiiii"
Instance *real_make_canceller(int32_t, int32_t, int32_t, int32_t, int32_t) REAL(MAKE_CANCELLER);
Instance *wrap_make_canceller(int32_t, int32_t, int32_t, int32_t, int32_t) WRAP(MAKE_CANCELLER);
Instance *wrap_make_canceller(int32_t frame, int32_t filter, int32_t mics, int32_t refs,
                              int32_t rate)
{
    return noting_heap(heap_parts.canceller,
                       [=] { return real_make_canceller(frame, filter, mics, refs, rate); });
}

static bool making_estimator;

#define MAKE_ESTIMATOR "_ZN3nax13AEC_DelayInitEiiiiiiPi"
int32_t real_make_estimator(int32_t, int32_t, int32_t, int32_t, int32_t, int32_t, int32_t *)
    REAL(MAKE_ESTIMATOR);
int32_t wrap_make_estimator(int32_t, int32_t, int32_t, int32_t, int32_t, int32_t, int32_t *)
    WRAP(MAKE_ESTIMATOR);
int32_t wrap_make_estimator(int32_t enable, int32_t rate, int32_t half_frame, int32_t mics,
                            int32_t base, int32_t refs, int32_t *state)
{
    making_estimator = true;
    const int32_t result = noting_heap(heap_parts.estimator, [=] {
        return real_make_estimator(enable, rate, half_frame, mics, base, refs, state);
    });
    making_estimator = false;
    return result;
}

// The delay lines are the only buffers of their size but for the estimator's own.
#define CALLOC "calloc"
void *real_calloc(size_t, size_t) REAL(CALLOC);
void *wrap_calloc(size_t, size_t) WRAP(CALLOC);
void *wrap_calloc(size_t count, size_t size)
{
    size_t other = 0;
    const bool line = size == sizeof(int16_t) && count >= 12288 && !making_estimator;
    return noting_heap(line ? heap_parts.lines : other, [=] { return real_calloc(count, size); });
}
