#include "life.h"

#include "heap_wrap.h"
#include "model.h"
#include "scripted_engines.h"

#include "nax_aec_dump.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace {

constexpr int16_t UNTOUCHED = 0x5a5a;
constexpr int32_t MAX_FRAMES = 4; // longest call

// A stream whose content is read at the end. Standard error itself is put aside while
// one is in its place, so that what a sanitiser has to say is still seen.
class Memory {
public:
    Memory() : file_(open_memstream(&text_, &length_)) {}
    ~Memory()
    {
        fclose(file_);
        free(text_);
    }
    Memory(const Memory &) = delete;
    Memory &operator=(const Memory &) = delete;

    FILE *file() { return file_; }
    std::string content()
    {
        fflush(file_);
        return std::string(text_, length_);
    }

private:
    char *text_ = nullptr;
    size_t length_ = 0;
    FILE *file_;
};

class Run {
public:
    explicit Run(Choices &choices) : choices_(choices), front_end_(engines()) {}
    Life run(int32_t max_calls);

private:
    model::Engines engines();
    void create();
    void call_once();
    void call_short(int32_t len);
    void call_bytes(int32_t len);
    void compare_results(int32_t got, int32_t expected);
    void compare_engines();
    void compare_dumps();

    int32_t pick(int32_t low, int32_t high) { return choices_.pick(low, high); }
    int32_t pick_base_delay();
    int32_t pick_estimate();
    int32_t pick_instants();
    Samples samples(size_t count);
    void differ(const std::string &what)
    {
        if (!life_.difference.empty()) return;
        std::ostringstream text;
        text << "call " << life_.calls << " of a state of " << format_.sample_rate << " Hz, M "
             << format_.mics << ", R " << format_.refs << ", D " << words_.drop_channel << ", pos "
             << words_.pos << ", model_aec_en " << words_.model_aec_en << ", delay_len "
             << words_.delay_len << ": " << what;
        life_.difference = text.str();
    }

    Choices &choices_;
    model::FrontEnd front_end_;
    model::Format format_ = {};
    Words words_;
    std::vector<int16_t> table_;
    nax_aec_state *state_ = nullptr;
    int32_t frame_ = 0;
    int32_t applied_ = 0;
    uint32_t content_ = 1; // of the next input
    size_t compared_cancels_ = 0;
    Samples out_, echo_, model_out_, model_echo_;
    Life life_;
};

model::Engines Run::engines()
{
    scripted::reset();
    scripted::script.null_instance = choices_.one_in(20);
    scripted::script.host_order = static_cast<uint32_t>(pick(0, 1));
    scripted::script.converter_surplus = choices_.one_in(10) ? -pick(1, 3) : 0;
    model::Engines engines;
    engines.canceller_exists = !scripted::script.null_instance;
    engines.host_order = scripted::script.host_order;
    engines.converter_surplus = scripted::script.converter_surplus;
    engines.cleaned = scripted::cleaned_sample;
    engines.echo = scripted::echo_sample;
    return engines;
}

int32_t Run::pick_base_delay()
{
    switch (pick(0, 5)) {
    case 0: return pick(1, 2 * frame_);
    case 1: return pick(0, 12288);
    case 2: return pick(12288, 30000);
    case 3: return -pick(1, 30000);
    default: return 0;
    }
}

// Around the borders of what is taken, and far from them.
int32_t Run::pick_estimate()
{
    const int32_t same = std::clamp(applied_, -30000, 30000) - words_.delay_len;
    switch (pick(0, 9)) {
    case 0: return same + frame_ + pick(-1, 2);
    case 1: return same - frame_ - pick(-1, 2);
    case 2: return pick(0, 12288 / frame_) * frame_ - words_.delay_len;
    case 3: return pick(0, 12288) - words_.delay_len;
    case 4: return pick(12288 - 2 * frame_, 14000) - words_.delay_len;
    case 5: return choices_.one_in(10) ? pick(INT32_MIN, INT32_MAX) : -pick(0, 20000);
    default: return same;
    }
}

int32_t Run::pick_instants()
{
    switch (pick(0, 9)) {
    case 0: return pick(0, frame_);
    case 1: return pick(0, MAX_FRAMES * frame_);
    case 2: return pick(1, MAX_FRAMES) * frame_ + pick(-1, 1);
    default: return frame_;
    }
}

Samples Run::samples(size_t count)
{
    Samples samples(count);
    for (int16_t &sample : samples) {
        content_ = content_ * 1664525 + 1013904223;
        sample = static_cast<int16_t>(content_ >> 16);
    }
    return samples;
}

void Run::create()
{
    format_ = {RATES[pick(0, 3)], 16, pick(1, 2), choices_.one_in(8) ? pick(4, 9) : pick(1, 3)};
    if (choices_.one_in(30)) format_.sample_rate = pick(-1, 96000);
    if (choices_.one_in(60)) format_.bits_per_sample = pick(-1, 33);
    if (choices_.one_in(60)) format_.mics = pick(-1, 4);
    if (choices_.one_in(60)) format_.refs = pick(-1, 1);
    frame_ = frame_size(std::max(format_.sample_rate, 8000));

    const int32_t channels = std::max(1, format_.mics + format_.refs);
    for (int32_t m = 0; m < format_.mics; m++)
        table_.push_back(static_cast<int16_t>(pick(0, channels - 1)));
    words_.pos = choices_.one_in(12) ? pick(-1, 5) : pick(0, 1);
    words_.drop_channel = choices_.one_in(2) ? pick(0, std::max(0, format_.refs)) : 0;
    words_.model_aec_en = pick(0, 3) + 4 * pick(-1, 1);
    words_.delay_len = pick_base_delay();
    words_.look_ahead = pick(-100, 2000);
    words_.array_list = table_.data();
    applied_ = words_.delay_len;

    const nax_aec_param param = words_;
    heap::live.clear();
    {
        const heap::Noting noting;
        state_ = nax_aec_state_init(format_.sample_rate, format_.bits_per_sample, format_.mics,
                                    format_.refs, &param);
    }
    // The record that is left behind at a rate that is not supported.
    const std::map<void *, std::string> left = heap::live;
    for (const auto &[block, name] : left)
        if (!state_) free(block);
    const bool expected =
        front_end_.create(format_, {words_.pos, words_.drop_channel, words_.model_aec_en,
                                    words_.delay_len, words_.look_ahead, words_.array_list});
    if (expected != (state_ != nullptr)) differ("only one of the two was created");
}

void Run::call_once()
{
    const int32_t channels = std::max(1, format_.mics + format_.refs);
    scripted::script.estimates = {pick_estimate()};
    front_end_.engines.estimate = scripted::script.estimates.front();

    int32_t len = pick_instants() * channels;
    if (choices_.one_in(10)) len += pick(0, channels - 1);
    if (choices_.one_in(40)) len = -pick(1, 1000);
    const size_t frames = static_cast<size_t>(std::max(0, len) / channels / frame_ + 1);
    const size_t mics = static_cast<size_t>(std::max(1, format_.mics));
    out_.assign(frames * static_cast<size_t>(frame_ * channels), UNTOUCHED);
    echo_.assign(frames * static_cast<size_t>(frame_) * mics, UNTOUCHED);
    model_out_ = out_;
    model_echo_ = echo_;
    if (pick(0, 1) == 0)
        call_short(len);
    else
        call_bytes(len);
    if (out_ != model_out_) differ("out");
    if (echo_ != model_echo_) differ("echo");
    compare_engines();
    life_.calls++;
}

void Run::compare_results(int32_t got, int32_t expected)
{
    if (got != expected)
        differ("result " + std::to_string(got) + " instead of " + std::to_string(expected));
    if (front_end_.to_estimator.size() > 0) applied_ = expected;
}

void Run::call_short(int32_t len)
{
    // One frame whatever the length says, to the sample.
    const int32_t given = std::max(1, format_.mics + format_.refs - words_.drop_channel);
    const Samples in = samples(static_cast<size_t>(frame_ * given));
    const int16_t *first = choices_.one_in(60) ? nullptr : in.data();
    const bool with_out = !choices_.one_in(8);
    const bool with_echo = !choices_.one_in(4);
    compare_results(nax_aec_short(state_, first, with_out ? out_.data() : nullptr,
                                  with_echo ? echo_.data() : nullptr, len),
                    front_end_.process(first, with_out ? &model_out_ : nullptr,
                                       with_echo ? &model_echo_ : nullptr, len));
}

void Run::call_bytes(int32_t len)
{
    int32_t bytes = 2 * len;
    if (choices_.one_in(8)) bytes += 1;
    bytes = front_end_.longest_bytes(bytes);
    // At any alignment, and not a byte longer than it says.
    const size_t offset = static_cast<size_t>(pick(0, 1));
    const Samples content = samples(static_cast<size_t>(std::max(0, bytes) / 2 + 1));
    const size_t size = offset + static_cast<size_t>(std::max(0, bytes));
    const std::unique_ptr<uint8_t[]> input(new uint8_t[size]);
    for (size_t i = offset; i < size; i++)
        input[i] = static_cast<uint8_t>(content[(i - offset) / 2] >> (i % 2 ? 8 : 0));
    const uint32_t byte_order = static_cast<uint32_t>(choices_.one_in(4) ? pick(-2, 3) : 0);
    const bool with_audio = !choices_.one_in(60);
    const bool with_out = !choices_.one_in(8);
    const bool with_echo = front_end_.dumping_echo || !choices_.one_in(4);

    uint8_t *const begin = input.get() + offset;
    uint8_t *audio = begin;
    compare_results(
        nax_aec_byte(state_, with_audio ? &audio : nullptr, with_out ? out_.data() : nullptr,
                     with_echo ? echo_.data() : nullptr, bytes, byte_order),
        front_end_.process_bytes(with_audio ? begin : nullptr, with_out ? &model_out_ : nullptr,
                                 with_echo ? &model_echo_ : nullptr, bytes, byte_order));
    if (!front_end_.processed) {
        if (audio != begin) differ("*audio was changed");
        return;
    }
    const int32_t given = format_.mics + format_.refs - words_.drop_channel;
    const int32_t instants = std::max(frame_, bytes / 2 / (format_.mics + format_.refs));
    const int16_t *got = reinterpret_cast<const int16_t *>(audio);
    if (!std::equal(got, got + instants * given, front_end_.processed->begin()))
        differ("the samples that *audio names");
}

void Run::compare_engines()
{
    auto &calls = scripted::record.delay_calls;
    if (calls.size() != front_end_.to_estimator.size()) return differ("calls of the estimator");
    for (size_t i = 0; i < calls.size(); i++) {
        const model::Given &given = front_end_.to_estimator[i];
        if (calls[i].mic != given.mic || calls[i].ref != given.ref) differ("the estimator's frame");
        if (calls[i].frame_count != given.number) differ("the estimator's frame count");
    }
    calls.clear();
    front_end_.to_estimator.clear();

    // The canceller's calls are counted by the script, so they stay; their frames go.
    auto &cancels = scripted::record.cancels;
    const auto &expected = front_end_.to_canceller;
    if (cancels.size() - compared_cancels_ != expected.size())
        return differ("calls of the canceller");
    for (size_t i = 0; i < expected.size(); i++, compared_cancels_++) {
        scripted::CancelCall &call = cancels[compared_cancels_];
        const bool exists = call.instance != nullptr;
        if (exists && (call.mic != expected[i].mic || call.ref != expected[i].ref))
            differ("the canceller's frame");
        if (call.delay_changed != expected[i].number) differ("delay_changed");
        call.mic = Samples();
        call.ref = Samples();
    }
    front_end_.to_canceller.clear();
    scripted::record.conversions.clear();
    journal.clear();
}

std::string bytes_of(const Samples &samples)
{
    return std::string(reinterpret_cast<const char *>(samples.data()),
                       samples.size() * sizeof(int16_t));
}

Life Run::run(int32_t max_calls)
{
    Memory messages, aec_dump, echo_dump;
    FILE *const standard_error = stderr;
    stderr = messages.file();
    if (front_end_.dumping_aec = choices_.one_in(3); front_end_.dumping_aec)
        aec_out = aec_dump.file();
    if (front_end_.dumping_echo = choices_.one_in(3); front_end_.dumping_echo)
        echo_out = echo_dump.file();

    create();
    while (life_.calls < max_calls && life_.difference.empty() && choices_.more())
        call_once();
    nax_aec_state_destroy(state_);

    stderr = standard_error;
    aec_out = nullptr;
    echo_out = nullptr;
    if (messages.content() != front_end_.messages) differ("messages");
    if (aec_dump.content() != bytes_of(front_end_.aec_dump)) differ("the dump aec_out");
    if (echo_dump.content() != bytes_of(front_end_.echo_dump)) differ("the dump echo_out");
    if (state_ && !heap::live.empty()) differ("a block is left over");
    return life_;
}

} // namespace

Life live(Choices &choices, int32_t max_calls) { return Run(choices).run(max_calls); }
