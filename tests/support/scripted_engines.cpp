#include "scripted_engines.h"

#include "engines/byte_format.h"
#include "engines/delay_estimator.h"
#include "engines/logtab.h"

using scripted::record;
using scripted::script;

static void enter(const char *engine)
{
    journal.push_back(engine);
    if (script.during) script.during();
}

namespace nax {

int32_t nax_logtab_init()
{
    journal.push_back("nax_logtab_init");
    return 0;
}

uint32_t nax_bigorsmall()
{
    journal.push_back("nax_bigorsmall");
    return script.host_order;
}

int32_t nax_bytes2shorts(const uint8_t *source, int16_t *destination, int32_t byte_count,
                         int32_t bits_per_sample, uint32_t byte_order)
{
    journal.push_back("nax_bytes2shorts");
    record.conversions.push_back({source, destination, byte_count, bits_per_sample, byte_order});
    const int32_t high = byte_order == 0 ? 1 : 0;
    for (int32_t j = 0; script.converter_writes && j < byte_count / 2; j++)
        destination[j] =
            static_cast<int16_t>(source[2 * j + high] << 8 | source[2 * j + (1 - high)]);
    return byte_count / 2 + script.converter_surplus;
}

// The estimator's geometry, told at its creation.
static int32_t estimator_mics, estimator_refs;

int32_t AEC_DelayInit(int32_t enable, int32_t sample_rate, int32_t half_frame, int32_t mics,
                      int32_t base_delay, int32_t refs, int32_t *state)
{
    enter("AEC_DelayInit");
    record.delay_inits.push_back({enable, sample_rate, half_frame, mics, base_delay, refs, state});
    estimator_mics = mics;
    estimator_refs = refs > 0 ? refs : 0;
    state[0] = enable;
    return 0;
}

int32_t AEC_DelayProcess(const int16_t *mic_frame, const int16_t *ref_frame, int32_t frame_length,
                         int32_t frame_count, int32_t *state)
{
    enter("AEC_DelayProcess");
    record.delay_calls.push_back({mic_frame, ref_frame, frame_length, frame_count, state,
                                  Samples(mic_frame, mic_frame + frame_length * estimator_mics),
                                  Samples(ref_frame, ref_frame + frame_length * estimator_refs)});
    if (script.estimates.empty()) return 0;
    const int32_t estimate = script.estimates.front();
    if (script.estimates.size() > 1) script.estimates.pop_front();
    return estimate;
}

int32_t AEC_DelayDestroy(int32_t *state)
{
    journal.push_back("AEC_DelayDestroy");
    record.delay_destroys.push_back(state);
    return 0;
}

namespace canceller {

Instance *speex_echo_state_init_mc(int32_t frame_size, int32_t filter_length, int32_t mics,
                                   int32_t speakers, int32_t sample_rate)
{
    enter("speex_echo_state_init_mc");
    const Instance instance = {frame_size, filter_length, mics, speakers, sample_rate};
    record.canceller_inits.push_back(instance);
    return script.null_instance ? nullptr : new Instance(instance);
}

void speex_fast_echo_cancellation(Instance *instance, const int16_t *mic_frame,
                                  const int16_t *ref_frame, int16_t *aec_frame, int16_t *echo_frame,
                                  int32_t delay_changed)
{
    enter("speex_fast_echo_cancellation");
    const size_t call = record.cancels.size();
    record.cancels.push_back(
        {instance, mic_frame, ref_frame, aec_frame, echo_frame, delay_changed, {}, {}});
    if (!instance) return;

    const int32_t mic_samples = instance->frame_size * instance->mics;
    const int32_t ref_samples =
        instance->speakers > 0 ? instance->frame_size * instance->speakers : 0;
    record.cancels.back().mic.assign(mic_frame, mic_frame + mic_samples);
    record.cancels.back().ref.assign(ref_frame, ref_frame + ref_samples);
    for (int32_t i = 0; i < mic_samples; i++) {
        aec_frame[i] = scripted::cleaned_sample(call, static_cast<size_t>(i));
        echo_frame[i] = scripted::echo_sample(call, static_cast<size_t>(i));
    }
}

Instance *speex_echo_state_destroy(Instance *instance)
{
    journal.push_back("speex_echo_state_destroy");
    delete instance;
    return nullptr;
}

} // namespace canceller
} // namespace nax
