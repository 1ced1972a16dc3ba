// The two debug dumps of nax_aec_byte (nax_aec_dump.h).
#include "scripted_engines.h"

#include "nax_aec_dump.h"

#include <cstdio>
#include <utility>

static constexpr int32_t F = 128; // frame at 8000 Hz

// Size and count of the items of every write to one of the dumps.
static std::vector<std::pair<size_t, size_t>> writes;

extern "C" {
size_t __real_fwrite(const void *data, size_t size, size_t count, FILE *stream);
size_t __wrap_fwrite(const void *data, size_t size, size_t count, FILE *stream)
{
    if (stream != stderr) writes.push_back({size, count});
    return __real_fwrite(data, size, count, stream);
}
}

// Both dumps go to one file, which shows their order as well.
class Dump : public ScriptedTest {
protected:
    void SetUp() override
    {
        ScriptedTest::SetUp();
        file_ = tmpfile();
        ASSERT_NE(file_, nullptr);
    }
    void TearDown() override
    {
        aec_out = nullptr;
        echo_out = nullptr;
        fclose(file_);
    }

    // Runs one frame of in and returns everything in the file.
    Samples run(const State &state, const Samples &in, int32_t len)
    {
        Samples bytes = in;
        uint8_t *audio = reinterpret_cast<uint8_t *>(bytes.data());
        Samples out(in.size(), 0x1111);
        nax_aec_byte(state.get(), &audio, out.data(), echo_.data(), len, 0);
        return content();
    }
    Samples run(const State &state, const Samples &in)
    {
        return run(state, in, static_cast<int32_t>(in.size()) * 2);
    }

    Samples content()
    {
        Samples samples(100000);
        rewind(file_);
        samples.resize(fread(samples.data(), sizeof samples[0], samples.size(), file_));
        fseek(file_, 0, SEEK_END);
        return samples;
    }

    FILE *file_ = nullptr;
    // What is dumped of it when no frame is processed.
    Samples echo_ = Samples(2 * F, 0x7777);
};

static Samples echo_of_call(size_t call, size_t count)
{
    Samples samples;
    for (size_t i = 0; i < count; i++)
        samples.push_back(scripted::echo_sample(call, i));
    return samples;
}

static Samples joined(Samples first, const Samples &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// The converter's answer does not depend on the host in these tests.
static Samples counting_little_endian(size_t count, int32_t first)
{
    Samples samples = counting(count, first);
    uint8_t *bytes = reinterpret_cast<uint8_t *>(samples.data());
    for (size_t i = 0; i < count; i++) {
        const uint16_t value = static_cast<uint16_t>(first + static_cast<int32_t>(i));
        bytes[2 * i] = static_cast<uint8_t>(value & 0xff);
        bytes[2 * i + 1] = static_cast<uint8_t>(value >> 8);
    }
    return samples;
}

TEST_F(Dump, StartsOutOff)
{
    EXPECT_EQ(aec_out, nullptr);
    EXPECT_EQ(echo_out, nullptr);
}

TEST_F(Dump, AecOutHoldsTheSelectedInputMicrophonesFirst)
{
    aec_out = file_;
    const State state = make_state(8000, 1, 2, {.pos = 0, .drop_channel = 1});
    const Samples in = counting(3 * F, 9);
    const Samples dumped = run(state, counting_little_endian(3 * F, 9));
    ASSERT_EQ(dumped.size(), 2u * F);
    for (size_t t = 0; t < F; t++) {
        EXPECT_EQ(dumped[2 * t], in[3 * t + 2]);
        EXPECT_EQ(dumped[2 * t + 1], in[3 * t]);
    }
}

TEST_F(Dump, EchoOutHoldsTheSecondOutput)
{
    echo_out = file_;
    const State state = make_state(8000, 2, 1, {.pos = 1});
    EXPECT_EQ(run(state, Samples(3 * F)), echo_of_call(0, 2 * F));
}

TEST_F(Dump, AppendsABlockPerCallAecOutFirst)
{
    aec_out = file_;
    echo_out = file_;
    const State state = make_state(8000, 1, 1, {.pos = 0});
    run(state, Samples(2 * F, 0x0303));
    const Samples dumped = run(state, Samples(2 * F, 0x0404));
    EXPECT_EQ(dumped, joined(joined(Samples(2 * F, 0x0303), echo_of_call(0, F)),
                             joined(Samples(2 * F, 0x0404), echo_of_call(1, F))));
}

// One item, so that the standard library's lock holds for the whole of it and blocks of
// different states do not tear.
TEST_F(Dump, EveryBlockIsWrittenAsOneItem)
{
    aec_out = file_;
    echo_out = file_;
    const State state = make_state(8000, 2, 3, {.pos = 0, .drop_channel = 1});
    writes.clear();
    run(state, Samples(5 * F));
    EXPECT_EQ(writes, (std::vector<std::pair<size_t, size_t>>{{2 * 4 * F, 1}, {2 * 2 * F, 1}}));
}

TEST_F(Dump, AecOutIsSilentWhenTheInputIsTakenAsItIs)
{
    aec_out = file_;
    const State state = make_state(8000, 1, 1, {.pos = 1});
    EXPECT_EQ(run(state, Samples(2 * F, 77)), Samples(2 * F, 0));
}

TEST_F(Dump, BothAreWrittenWhenThePositionSelectsNoProcessing)
{
    aec_out = file_;
    echo_out = file_;
    const State state = make_state(8000, 1, 2, {.pos = 2, .drop_channel = 1});
    EXPECT_EQ(run(state, Samples(3 * F, 77)), joined(Samples(2 * F, 0), Samples(F, 0x7777)));
}

TEST_F(Dump, BothAreWrittenWhenNaxAecShortFails)
{
    aec_out = file_;
    echo_out = file_;
    scripted::script.converter_surplus = -2 * F - 1;
    const State state = make_state(8000, 1, 1, {.pos = 0});
    Samples dumped;
    standard_error_of([&] { dumped = run(state, Samples(2 * F, 0x0505)); });
    EXPECT_EQ(dumped, joined(Samples(2 * F, 0x0505), Samples(F, 0x7777)));
}

TEST_F(Dump, NothingIsWrittenForARejectedCall)
{
    aec_out = file_;
    echo_out = file_;
    const State state = make_state(8000, 1, 1, {.pos = 0});
    Samples dumped;
    standard_error_of([&] { dumped = run(state, Samples(2 * F), -1); });
    EXPECT_TRUE(dumped.empty());
    standard_error_of([&] { nax_aec_byte(state.get(), nullptr, nullptr, echo_.data(), 4, 0); });
    standard_error_of([&] { dumped = run(nullptr, Samples(2 * F)); });
    EXPECT_TRUE(dumped.empty());
}

TEST_F(Dump, LengthZeroAddsAFrameOfEchoOnly)
{
    aec_out = file_;
    echo_out = file_;
    const State state = make_state(8000, 1, 1, {.pos = 0});
    EXPECT_EQ(run(state, Samples(2 * F), 0), Samples(F, 0x7777));
}

TEST_F(Dump, StaysOpenAfterTheStateIsDestroyed)
{
    aec_out = file_;
    run(make_state(8000, 1, 1, {.pos = 0}), Samples(2 * F, 0x0606));
    EXPECT_EQ(run(make_state(8000, 1, 1, {.pos = 0}), Samples(2 * F, 0x0606)),
              Samples(4 * F, 0x0606));
    EXPECT_EQ(aec_out, file_);
}
