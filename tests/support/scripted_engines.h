// Engines that do as the test says and remember what they were asked. Linked under
// the real front end in the place of src/engines.
#pragma once

#include "journal.h"
#include "support.h"

#include "engines/canceller.h"

#include <deque>

namespace nax::canceller {
struct Instance {
    int32_t frame_size, filter_length, mics, speakers, sample_rate;
    bool operator==(const Instance &) const = default;
};
} // namespace nax::canceller

namespace scripted {

using nax::canceller::Instance;

struct DelayInit {
    int32_t enable, sample_rate, half_frame, mics, base_delay, refs;
    int32_t *state;
    bool operator==(const DelayInit &) const = default;
};

struct DelayCall {
    const int16_t *mic_frame, *ref_frame;
    int32_t frame_length, frame_count;
    int32_t *state;
    Samples mic, ref; // contents at the call
};

struct CancelCall {
    Instance *instance;
    const int16_t *mic_frame, *ref_frame;
    int16_t *aec_frame, *echo_frame;
    int32_t delay_changed;
    Samples mic, ref; // contents at the call
};

struct Conversion {
    const uint8_t *source;
    int16_t *destination;
    int32_t byte_count, bits_per_sample;
    uint32_t byte_order;
    bool operator==(const Conversion &) const = default;
};

// What the engines answer.
struct Script {
    bool null_instance = false;    // the canceller cannot be created
    std::deque<int32_t> estimates; // one per call; the last one is repeated; none: 0
    uint32_t host_order = 1;       // answer of nax_bigorsmall
    bool converter_writes = true;  // false: the converter leaves its destination alone
    int32_t converter_surplus = 0; // added to the count that the converter returns
    void (*during)() = nullptr;    // called in every call of estimator and canceller
};

// What the engines were asked.
struct Record {
    std::vector<DelayInit> delay_inits;
    std::vector<DelayCall> delay_calls;
    std::vector<int32_t *> delay_destroys;
    std::vector<Instance> canceller_inits;
    std::vector<CancelCall> cancels;
    std::vector<Conversion> conversions;
};

inline Script script;
inline Record record;

// Forgets both, and the journal.
inline void reset()
{
    script = Script();
    record = Record();
    journal.clear();
}

// What the canceller writes on its call-th call, counted from 0, at index i of its
// first and of its second output.
inline int16_t cleaned_sample(size_t call, size_t i)
{
    return static_cast<int16_t>(1 + 5000 * call + i);
}
inline int16_t echo_sample(size_t call, size_t i)
{
    return static_cast<int16_t>(-cleaned_sample(call, i));
}

} // namespace scripted

// Starts every test of a suite from silent engines.
class ScriptedTest : public testing::Test {
protected:
    void SetUp() override { scripted::reset(); }
};
