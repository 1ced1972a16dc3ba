// The front end a second time, as plainly as it can be put, to compare the library
// with (life.h). It is written from the behaviour and shares no code with the library:
// nothing is planned ahead, every sample is picked by its number, and the reference's
// whole past is kept.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace model {

using Samples = std::vector<int16_t>;

struct Format {
    int32_t sample_rate, bits_per_sample, mics, refs;
};

struct Parameters {
    int32_t order, drop, switches, base_delay, look_ahead;
    const int16_t *table;
};

// What the engines around the front end answer.
struct Engines {
    int32_t estimate = 0;          // of the delay estimator, at its next call
    uint32_t host_order = 0;       // of the byte-order query
    int32_t converter_surplus = 0; // added to the count that the converter returns
    bool canceller_exists = true;  // false: the canceller writes nothing
    // What the canceller writes on its call-th call, at index i of each output.
    int16_t (*cleaned)(size_t call, size_t i) = nullptr;
    int16_t (*echo)(size_t call, size_t i) = nullptr;
};

// What an engine was given for a frame.
struct Given {
    Samples mic, ref; // planar
    int32_t number;   // estimator: the frame count; canceller: whether the delay changed
};

class FrontEnd {
public:
    explicit FrontEnd(const Engines &engines_) : engines(engines_) {}

    // The calls of nax_aec.h. A buffer that is null is skipped; create returns whether
    // there is a state, and without one the others refuse.
    bool create(const Format &format, const Parameters &parameters);
    int32_t process(const int16_t *in, Samples *out, Samples *echo, int32_t len);
    int32_t process_bytes(const uint8_t *bytes, Samples *out, Samples *echo, int32_t len,
                          uint32_t byte_order);

    // The longest call of process_bytes that the buffer sized by its first call serves.
    int32_t longest_bytes(int32_t limit) const;

    Engines engines;
    bool dumping_aec = false, dumping_echo = false;

    // What comes of the calls.
    std::string messages;
    Samples aec_dump, echo_dump;
    std::vector<Given> to_estimator, to_canceller;
    const Samples *processed = nullptr; // by the last process_bytes; null: *audio stays

private:
    int32_t align(Samples &ref, int32_t &delay_changed);
    int16_t line(size_t ref, int64_t position) const;
    void convert(const uint8_t *bytes, int32_t len, uint32_t byte_order);
    void select(int32_t instants);

    bool created_ = false;
    Format format_ = {};
    Parameters parameters_ = {};
    int32_t frame_ = 0, kept_ = 0, channels_ = 0, given_channels_ = 0;
    int32_t calls_ = 0;
    size_t cancel_calls_ = 0;
    int32_t applied_ = 0;
    std::vector<Samples> past_; // of each kept reference, from the first frame on
    Samples cleaned_, echo_;    // the canceller's last outputs
    Samples converted_, selected_;
};

} // namespace model
