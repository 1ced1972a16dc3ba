// Prints what the library makes of seeded streams, one line each, for scripts/test --armv7
// to compare between processors. With delay estimation off a line holds a hash of all
// samples that came out; with it on, every delay that was applied, and the hash. With the
// argument suppressor a line is of the suppressor behind the canceller and holds the hash of all
// its samples so far at the end of each section.
#include "nax_aec.h"
#include "nax_res.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
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

// A voice of integers only: a sawtooth in syllables of 0.1 to 0.4 s. In each the pitch falls and
// the loudness rises and falls. One syllable in four is silent.
class Voice {
public:
    Voice(int32_t rate, uint32_t seed) : rate_(rate), random_(seed) {}

    int32_t next()
    {
        if (at_ == length_) {
            at_ = 0;
            length_ = rate_ / 10 * static_cast<int32_t>(1 + random_() % 4);
            pitch_ = 90 + static_cast<int32_t>(random_() % 130);
            loudness_ = static_cast<int32_t>(random_() % 4) * 4000;
        }
        const int32_t pitch = pitch_ - 30 * at_ / length_; // Hz
        phase_ = (phase_ + pitch) % rate_;
        const int32_t level = loudness_ * std::min(at_, length_ - at_) / length_;
        at_++;
        low_ += (level * (2 * phase_ - rate_) / rate_ - low_) / 2;
        return low_;
    }

private:
    int32_t rate_;
    std::mt19937 random_;
    int32_t at_ = 0, length_ = 0, pitch_ = 0, loudness_ = 0, phase_ = 0, low_ = 0;
};

struct Section {
    int32_t frames;
    bool far, near, gap;
};
static constexpr Section SECTIONS[] = {
    {60, true, false, false}, // far end alone
    {30, true, true, false},  // double talk
    {55, false, true, false}, // the reference is silent
    {5, false, false, true},  // the device gives zeros, while the call goes on
    {20, true, true, false},  // double talk
    {20, true, false, false}, // far end alone
};

// A voice per reference, whose echo reaches beyond the canceller's 32 ms, a near-end talker and
// the room's noise.
class Call {
public:
    Call(int32_t rate, int32_t mics, int32_t refs)
        : rate_(static_cast<uint32_t>(rate)), mics_(mics), refs_(refs),
          near_(rate, 3), far_{{rate, 1}, {rate, 2}}, played_(2, std::vector<int32_t>(1 << 13))
    {}

    void next(const Section &section, std::vector<int16_t> &frame)
    {
        for (auto sample = frame.begin(); sample != frame.end(); now_++) {
            int32_t heard = static_cast<int32_t>(random_() % 31) - 15;
            const int32_t near = near_.next();
            if (section.near) heard += near;
            int32_t ref[MAX_REFS];
            for (int32_t r = 0; r < refs_; r++) {
                const int32_t far = far_[r].next();
                ref[r] = section.far ? far : 0;
                std::vector<int32_t> &played = played_[static_cast<size_t>(r)];
                played[now_ % played.size()] = ref[r];
                heard += echo(played);
            }
            for (int32_t m = 0; m < mics_; m++)
                *sample++ = static_cast<int16_t>(section.gap ? 0 : heard * (4 - m) / 4);
            for (int32_t r = 0; r < refs_; r++)
                *sample++ = static_cast<int16_t>(section.gap ? 0 : ref[r]);
        }
    }

private:
    static constexpr int32_t MAX_REFS = 2;

    int32_t echo(const std::vector<int32_t> &played) const
    {
        int32_t sum = 0, share = 2;
        for (const uint32_t late_ms : {2u, 17u, 45u, 70u, 95u})
            sum += played[(now_ - late_ms * rate_ / 1000) % played.size()] / share++;
        return sum;
    }

    uint32_t rate_;
    int32_t mics_, refs_;
    Voice near_, far_[MAX_REFS];
    std::vector<std::vector<int32_t>> played_;
    std::mt19937 random_{7};
    uint32_t now_ = 0;
};

void print_suppressed(int32_t rate, int32_t mics, int32_t refs)
{
    const size_t frame = static_cast<size_t>(rate * 16 / 1000);
    const size_t from_mics = frame * static_cast<size_t>(mics);
    std::vector<int16_t> in(from_mics + frame * static_cast<size_t>(refs)), cleaned(in.size());
    std::vector<int16_t> echo(from_mics), out(from_mics);
    const nax_aec_param param = {1, 0, 0, 0, 0, nullptr};
    nax_aec_state *canceller = nax_aec_state_init(rate, 16, mics, refs, &param);
    nax_res_state *suppressor = nax_res_state_init(rate, mics, refs);
    Call call(rate, mics, refs);
    Hash hash;
    printf("%d Hz, %d mics, %d refs, suppressed:", rate, mics, refs);
    for (const Section &section : SECTIONS) {
        for (int32_t t = 0; t < section.frames; t++) {
            call.next(section, in);
            nax_aec_short(canceller, in.data(), cleaned.data(), echo.data(),
                          static_cast<int32_t>(in.size()));
            nax_res_short(suppressor, cleaned.data(), echo.data(), out.data());
            hash.add(out);
        }
        printf(" %016llx", hash.value());
    }
    printf("\n");
    nax_res_state_destroy(suppressor);
    nax_aec_state_destroy(canceller);
}

void print_canceller()
{
    for (const int32_t rate : {8000, 16000, 32000, 48000}) {
        for (const int32_t mics : {1, 2})
            for (const int32_t refs : {1, 2}) {
                print({rate, mics, refs, 0, 0, false}, 1);
                print({rate, mics, refs, refs - 1, 0, true}, 1);
            }
        print({rate, 1, 1, 0, 1, false}, 12);
        print({rate, 2, 2, 1, 1, false}, 12);
    }
}

void print_suppressor()
{
    for (const int32_t mics : {1, 2})
        for (const int32_t refs : {1, 2})
            print_suppressed(8000, mics, refs);
    for (const int32_t rate : {16000, 32000, 48000}) {
        print_suppressed(rate, 1, 2);
        print_suppressed(rate, 2, 1);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (!freopen("/dev/null", "w", stderr)) return 1; // the library's banners
    if (argc > 1 && strcmp(argv[1], "suppressor") == 0)
        print_suppressor();
    else
        print_canceller();
    return 0;
}
