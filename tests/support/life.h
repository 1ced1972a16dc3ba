// One life of a state, lived by the library over scripted engines and by the model
// (model.h) at once, and compared call by call.
#pragma once

#include <cstdint>
#include <string>

// Where a life's choices come from: a seed (model_test) or a fuzzer's bytes (fuzz).
class Choices {
public:
    virtual ~Choices() = default;
    // A number from low to high, both included.
    virtual int32_t pick(int32_t low, int32_t high) = 0;
    // Whether there are more of them: a life ends with them.
    virtual bool more() = 0;

    bool one_in(int32_t n) { return pick(1, n) == n; }
};

struct Life {
    int64_t calls = 0;
    std::string difference; // the first one, or empty
};

// Creates a state, calls it up to max_calls times and destroys it. Everything that the
// contract allows may happen: results, outputs, what the engines are given, the dumps
// and the messages must be what the model says.
Life live(Choices &choices, int32_t max_calls);
