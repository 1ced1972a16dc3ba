#include "model.h"

#include <algorithm>
#include <limits>

namespace model {

static constexpr int64_t LINE = 12288; // samples that the reference can be held back by
static constexpr int32_t LAST_CALL = 16384;

static int32_t frame_of(int32_t sample_rate)
{
    if (sample_rate == 8000) return 128;
    if (sample_rate == 16000) return 256;
    if (sample_rate == 32000) return 512;
    if (sample_rate == 48000) return 768;
    return 0;
}

bool FrontEnd::create(const Format &format, const Parameters &parameters)
{
    if (format.bits_per_sample != 16 || format.mics < 1 || format.refs < 1) {
        messages += "LOG (nax_aec_state_init(): ,122), Error: ";
        messages += std::to_string(format.sample_rate) + " SampleRate, ";
        messages += std::to_string(format.bits_per_sample) + " bits_persample, ";
        messages += std::to_string(format.mics) + " num_src_channel and ";
        messages += std::to_string(format.refs) + " num_ref_channel cann't be supported\n";
        return false;
    }
    if (format.mics > 2) {
        messages += "LOG (nax_aec_state_init(): ,142), Error: The number of mic is ";
        messages += std::to_string(format.mics) + ", exceed the limited 2 microphones! \n";
        return false;
    }
    frame_ = frame_of(format.sample_rate);
    if (frame_ == 0) {
        messages += "Not Support Sampling_rate\n";
        return false;
    }
    messages +=
        "LOG (nax_aec_state_init(): ,270), AEC-RELEASE-VERSION 2.0,RELEASE DATE 2022-02-28\n\n";
    messages += "LOG (nax_aec_state_init(): ,275), This AEC version is used for no more than 2 "
                "microphones!\n\n";
    created_ = true;
    format_ = format;
    parameters_ = parameters;
    kept_ = format.refs - parameters.drop;
    channels_ = format.mics + format.refs;
    given_channels_ = format.mics + kept_;
    applied_ = parameters.base_delay;
    past_.resize(static_cast<size_t>(kept_));
    cleaned_.resize(static_cast<size_t>(frame_ * format.mics));
    echo_ = cleaned_;
    converted_.resize(static_cast<size_t>(frame_ * channels_));
    return true;
}

// What stands in a delay line: the latest sample that was due there. Past LINE lies
// what is never written.
int16_t FrontEnd::line(size_t ref, int64_t position) const
{
    const Samples &past = past_[ref];
    const int64_t length = static_cast<int64_t>(past.size());
    if (position >= LINE) return 0;
    const int64_t lap = (length - 1 - position) / LINE;
    const int64_t time = position + lap * LINE;
    return position < length ? past[static_cast<size_t>(time)] : int16_t{0};
}

int32_t FrontEnd::align(Samples &ref, int32_t &delay_changed)
{
    const size_t frame = static_cast<size_t>(frame_);
    const int64_t now = past_.empty() ? 0 : static_cast<int64_t>(past_[0].size());
    for (size_t k = 0; k < past_.size(); k++)
        for (size_t i = 0; i < frame; i++)
            past_[k].push_back(ref[k * frame + i]);

    int64_t delay = applied_;
    const int64_t wanted = int64_t{engines.estimate} + parameters_.base_delay;
    if (wanted > delay + frame_ || wanted < delay - frame_) {
        delay = wanted;
        delay_changed = 1;
    }
    delay = std::min(delay, LINE);

    int64_t from = now % LINE - delay;
    if (from < 0) from += LINE;
    for (size_t k = 0; k < past_.size(); k++)
        for (size_t i = 0; i < frame; i++)
            ref[k * frame + i] = line(k, from + static_cast<int64_t>(i));

    applied_ = static_cast<int32_t>(std::max<int64_t>(delay, std::numeric_limits<int32_t>::min()));
    return applied_;
}

int32_t FrontEnd::process(const int16_t *in, Samples *out, Samples *echo, int32_t len)
{
    if (!created_) {
        messages += "You didn't initlize the nax_aec!";
        return -1;
    }
    if (in == nullptr || len < 0) {
        messages += "Error: input audio data is null!";
        return -1;
    }
    Given given;
    for (int32_t m = 0; m < format_.mics; m++)
        for (int32_t i = 0; i < frame_; i++)
            given.mic.push_back(in[i * given_channels_ + m]);
    for (int32_t k = 0; k < kept_; k++)
        for (int32_t i = 0; i < frame_; i++)
            given.ref.push_back(in[i * given_channels_ + format_.mics + k]);

    if (calls_ < LAST_CALL) calls_++;
    int32_t delay = parameters_.base_delay;
    int32_t delay_changed = 0;
    if (parameters_.switches % 2 != 0) {
        given.number = calls_;
        to_estimator.push_back(given);
        delay = align(given.ref, delay_changed);
    }

    given.number = delay_changed;
    const size_t mics = static_cast<size_t>(format_.mics);
    const size_t kept = static_cast<size_t>(kept_);
    const size_t channels = static_cast<size_t>(channels_);
    const size_t frame = static_cast<size_t>(frame_);
    const size_t frames = static_cast<size_t>(len / channels_ / frame_);
    for (size_t n = 0; n < frames; n++) {
        to_canceller.push_back(given);
        for (size_t i = 0; engines.canceller_exists && i < cleaned_.size(); i++) {
            cleaned_[i] = engines.cleaned(cancel_calls_, i);
            echo_[i] = engines.echo(cancel_calls_, i);
        }
        cancel_calls_++;
        for (size_t i = 0; i < frame; i++) {
            for (size_t c = 0; out != nullptr && c < channels; c++) {
                int16_t sample = 0;
                if (c < mics)
                    sample = cleaned_[i * mics + c];
                else if (c < mics + kept)
                    sample = given.ref[(c - mics) * frame + i];
                (*out)[(n * frame + i) * channels + c] = sample;
            }
            for (size_t m = 0; echo != nullptr && m < mics; m++)
                (*echo)[(n * frame + i) * mics + m] = echo_[i * mics + m];
        }
    }
    return delay;
}

void FrontEnd::convert(const uint8_t *bytes, int32_t len, uint32_t byte_order)
{
    const size_t count = static_cast<size_t>(len / 2);
    if (converted_.size() < count) converted_.resize(count);
    for (size_t j = 0; j < count; j++) {
        const int32_t first = bytes[2 * j];
        const int32_t second = bytes[2 * j + 1];
        converted_[j] =
            static_cast<int16_t>(byte_order == 0 ? second * 256 + first : first * 256 + second);
    }
}

void FrontEnd::select(int32_t instants)
{
    for (int32_t t = 0; t < instants; t++)
        for (int32_t c = 0; c < given_channels_; c++) {
            int32_t from = c;
            if (c < format_.mics) {
                if (parameters_.order == 0) from = format_.refs + c;
                if (parameters_.switches & 2) from = parameters_.table[c];
            } else if (parameters_.order == 0) {
                from = c - format_.mics;
            }
            selected_[static_cast<size_t>(t * given_channels_ + c)] =
                converted_[static_cast<size_t>(t * channels_ + from)];
        }
}

int32_t FrontEnd::process_bytes(const uint8_t *bytes, Samples *out, Samples *echo, int32_t len,
                                uint32_t byte_order)
{
    processed = nullptr;
    if (!created_) {
        messages += "You didn't initialize the nax_aec!";
        return -1;
    }
    if (bytes == nullptr || len < 0) {
        messages += "Error: input audio data is null!";
        return -1;
    }
    const int32_t count = len / 2;
    const int32_t selected_count = count - frame_ * parameters_.drop;
    convert(bytes, len, byte_order > 1 ? engines.host_order : byte_order);
    if (selected_.empty())
        selected_.resize(static_cast<size_t>(std::max(selected_count, frame_ * given_channels_)));

    int32_t result = 0;
    if (parameters_.order == 0 || parameters_.order == 1) {
        const bool as_it_is =
            parameters_.order == 1 && parameters_.drop == 0 && (parameters_.switches & 2) == 0;
        if (!as_it_is) select(count / channels_);
        processed = as_it_is ? &converted_ : &selected_;
        result = process(processed->data(), out, echo, count + engines.converter_surplus);
    }
    if (dumping_aec && selected_count > 0)
        aec_dump.insert(aec_dump.end(), selected_.begin(), selected_.begin() + selected_count);
    if (dumping_echo)
        echo_dump.insert(echo_dump.end(), echo->begin(), echo->begin() + frame_ * format_.mics);
    return result;
}

int32_t FrontEnd::longest_bytes(int32_t limit) const
{
    if (selected_.empty()) return limit;
    const int32_t room = static_cast<int32_t>(selected_.size());
    const int32_t by_selection = room / given_channels_ * channels_ + channels_ - 1;
    const int32_t by_dump = room + frame_ * parameters_.drop;
    return std::min(limit, 2 * std::min(by_selection, by_dump) + 1);
}

} // namespace model
