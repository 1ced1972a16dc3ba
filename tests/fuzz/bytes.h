// A fuzzer's bytes as a sequence of choices. When they run out, the rest is the lowest.
#pragma once

#include "life.h"

#include <cstddef>

class Bytes : public Choices {
public:
    Bytes(const uint8_t *data, size_t size) : at_(data), left_(size) {}

    int32_t pick(int32_t low, int32_t high) override
    {
        const uint64_t span = static_cast<uint64_t>(int64_t{high} - low) + 1;
        uint64_t number = 0;
        for (uint64_t room = 1; room < span && left_ > 0; room *= 256, left_--)
            number = number * 256 + *at_++;
        return static_cast<int32_t>(low + static_cast<int64_t>(number % span));
    }
    bool more() override { return left_ > 0; }

private:
    const uint8_t *at_;
    size_t left_;
};
