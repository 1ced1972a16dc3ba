// A state that is fed raw bytes, for the tests of nax_aec_byte.
#pragma once

#include "scripted_engines.h"

#include "state/state.h"

inline constexpr int32_t F = 128; // frame at 8000 Hz

inline std::vector<uint8_t> little_endian(const Samples &samples)
{
    std::vector<uint8_t> bytes;
    for (const int16_t sample : samples) {
        bytes.push_back(static_cast<uint8_t>(sample & 0xff));
        bytes.push_back(static_cast<uint8_t>(sample >> 8 & 0xff));
    }
    return bytes;
}

// A state and a frame of counting samples for it.
struct Stream {
    Stream(int32_t mics_, int32_t refs_, const Words &words)
        : mics(mics_), refs(refs_), state(make_state(8000, mics_, refs_, words)),
          samples(counting(static_cast<size_t>(F * (mics + refs)), 500)),
          bytes(little_endian(samples)), audio(bytes.data()), out(samples.size())
    {}

    int32_t length() const { return static_cast<int32_t>(bytes.size()); }
    int32_t process(uint32_t byte_order = NAX_AEC_LITTLE_ENDIAN)
    {
        return process(length(), byte_order);
    }
    int32_t process(int32_t len, uint32_t byte_order)
    {
        audio = bytes.data();
        return nax_aec_byte(state.get(), &audio, out.data(), nullptr, len, byte_order);
    }

    // The samples that *audio points at after a call.
    Samples processed(int32_t count) const
    {
        const int16_t *first = reinterpret_cast<const int16_t *>(audio);
        return Samples(first, first + count);
    }

    // The input with the channels of each sample instant picked by number.
    Samples picked(const std::vector<int32_t> &channels) const
    {
        Samples picked;
        for (int32_t t = 0; t < F; t++)
            for (const int32_t channel : channels)
                picked.push_back(samples[static_cast<size_t>(t * (mics + refs) + channel)]);
        return picked;
    }

    int32_t mics, refs;
    State state;
    Samples samples;
    std::vector<uint8_t> bytes;
    uint8_t *audio;
    Samples out;
};
