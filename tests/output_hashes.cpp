// Prints what the library makes of seeded streams, one line each, for scripts/test --armv7
// to compare between processors. With delay estimation off a line holds a hash of all
// samples that came out; with it on, every delay that was applied, and the hash.
#include "nax_aec.h"

#include <cstdio>
#include <random>
#include <vector>

namespace {

struct Stream {
    int32_t rate, mics, refs, dropped, estimate;
    bool bytes;
};

class Hash {
public:
    template <typename T> void add(const std::vector<T> &values)
    {
        for (const T value : values)
            state_ = (state_ ^ static_cast<uint64_t>(value)) * 0x100000001b3; // FNV-1a
    }
    unsigned long long value() const { return state_; }

private:
    uint64_t state_ = 0xcbf29ce484222325;
};

// Integers only: noise in bursts of 0.1 to 0.5 s, its echo, which moves after six seconds,
// and a near end that comes and goes.
class Scene {
public:
    explicit Scene(const Stream &stream) : stream_(stream), past_(1 << 15) {}

    void next(std::vector<int16_t> &frame)
    {
        const int32_t channels =
            stream_.mics + stream_.refs - (stream_.bytes ? 0 : stream_.dropped);
        for (size_t i = 0; i < frame.size(); i += static_cast<size_t>(channels), now_++) {
            if (left_-- == 0) {
                left_ = stream_.rate / 10 * static_cast<int32_t>(1 + random_() % 5);
                loudness_ = static_cast<int32_t>(random_() % 4) * 2000;
            }
            const int32_t far = noise(loudness_);
            past_[now_ % past_.size()] = static_cast<int16_t>(far);
            const uint32_t rate = static_cast<uint32_t>(stream_.rate);
            const uint32_t delay = now_ < 6 * rate ? rate / 10 : rate / 5;
            const int32_t near = now_ / rate % 4 == 3 ? noise(1500) : noise(15);
            for (int32_t c = 0; c < channels; c++) {
                const bool mic = stream_.bytes ? c >= stream_.refs : c < stream_.mics;
                const int32_t echo = (past(delay) * 13 - past(delay + 9) * 7) / (c % 2 ? 40 : 32);
                frame[i + static_cast<size_t>(c)] =
                    static_cast<int16_t>(mic ? echo + near : far / (1 + (c + stream_.bytes) % 2));
            }
        }
    }

private:
    int32_t noise(int32_t limit)
    {
        return limit ? static_cast<int32_t>(random_() % (2 * static_cast<uint32_t>(limit))) - limit
                     : 0;
    }
    int32_t past(uint32_t samples) const { return past_[(now_ - samples) % past_.size()]; }

    Stream stream_;
    std::mt19937 random_{7};
    std::vector<int16_t> past_;
    uint32_t now_ = 0;
    int32_t left_ = 0, loudness_ = 0;
};

void print(const Stream &stream, int32_t seconds)
{
    const size_t frame = static_cast<size_t>(stream.rate * 16 / 1000);
    const size_t mics = static_cast<size_t>(stream.mics);
    const size_t full = frame * (mics + static_cast<size_t>(stream.refs));
    const size_t fed = stream.bytes ? full : full - frame * static_cast<size_t>(stream.dropped);
    std::vector<int16_t> in(fed), out(full), echo(frame * mics);
    const int32_t pos = stream.bytes ? 0 : 1;
    const nax_aec_param param = {pos, stream.dropped, stream.estimate, 0, 0, nullptr};
    nax_aec_state *state = nax_aec_state_init(stream.rate, 16, stream.mics, stream.refs, &param);
    Scene scene(stream);
    Hash hash;
    std::vector<int32_t> delays;
    for (int32_t t = 0; t < seconds * 1000 / 16; t++) {
        scene.next(in);
        const int32_t len = static_cast<int32_t>(full);
        uint8_t *audio = reinterpret_cast<uint8_t *>(in.data());
        const int32_t delay = stream.bytes
                                  ? nax_aec_byte(state, &audio, out.data(), echo.data(), 2 * len,
                                                 t % 2 ? NAX_AEC_BIG_ENDIAN : NAX_AEC_LITTLE_ENDIAN)
                                  : nax_aec_short(state, in.data(), out.data(), echo.data(), len);
        hash.add(out);
        hash.add(echo);
        if (delays.empty() || delays.back() != delay) delays.push_back(delay);
    }
    nax_aec_state_destroy(state);

    printf("%d Hz, %d mics, %d refs, %d dropped, estimation %s, %s:", stream.rate, stream.mics,
           stream.refs, stream.dropped, stream.estimate ? "on" : "off",
           stream.bytes ? "bytes" : "samples");
    for (const int32_t delay : delays)
        printf(" %d", delay);
    printf(", %016llx\n", hash.value());
}

} // namespace

int main()
{
    if (!freopen("/dev/null", "w", stderr)) return 1; // the library's banners
    for (const int32_t rate : {8000, 16000, 32000, 48000}) {
        for (const int32_t mics : {1, 2})
            for (const int32_t refs : {1, 2}) {
                print({rate, mics, refs, 0, 0, false}, 1);
                print({rate, mics, refs, refs - 1, 0, true}, 1);
            }
        print({rate, 1, 1, 0, 1, false}, 12);
        print({rate, 2, 2, 1, 1, false}, 12);
    }
    return 0;
}
