// Raw bytes through nax_aec_byte (src/process/bytes): conversion, selection and
// failures. Its buffers and the dumps have files of their own.
#include "byte_stream.h"

using scripted::record;
using scripted::script;
using Lines = std::vector<std::string>;

class Bytes : public ScriptedTest {};

TEST_F(Bytes, RefusesANullStateWithItsOwnMessage)
{
    uint8_t byte = 0;
    uint8_t *audio = &byte;
    int32_t result = 0;
    EXPECT_EQ(
        standard_error_of([&] { result = nax_aec_byte(nullptr, &audio, nullptr, nullptr, 0, 0); }),
        "You didn't initialize the nax_aec!");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(audio, &byte);
}

TEST_F(Bytes, RefusesANullAudioAndANegativeLengthWithOneMessage)
{
    Stream stream(1, 1, {.pos = 0});
    int32_t results[2] = {};
    EXPECT_EQ(standard_error_of([&] {
                  results[0] = nax_aec_byte(stream.state.get(), nullptr, nullptr, nullptr, 4, 0);
              }),
              "Error: input audio data is null!");
    EXPECT_EQ(standard_error_of([&] { results[1] = stream.process(-2, 0); }),
              "Error: input audio data is null!");
    EXPECT_EQ(results[0], -1);
    EXPECT_EQ(results[1], -1);
    EXPECT_EQ(stream.audio, stream.bytes.data());
    EXPECT_EQ(stream.state->sel_buf, nullptr);
    EXPECT_EQ(stream.state->frame_count, 0);
    EXPECT_TRUE(record.conversions.empty());
}

TEST_F(Bytes, ReturnsWhatNaxAecShortReturns)
{
    script.estimates = {1000};
    Stream stream(1, 1, {.model_aec_en = 1, .delay_len = 23});
    EXPECT_EQ(stream.process(), 1023);
}

TEST_F(Bytes, HandsByteOrders0And1ThroughUnchanged)
{
    Stream stream(1, 1, {});
    for (const uint32_t order : {0u, 1u}) {
        stream.process(order);
        EXPECT_EQ(record.conversions.back().byte_order, order);
    }
    EXPECT_TRUE(journal_of("nax_bigorsmall").empty());
}

TEST_F(Bytes, AsksForTheHostsOrderAboveOne)
{
    Stream stream(1, 1, {});
    size_t asked = 0;
    for (const uint32_t order : {2u, 255u, static_cast<uint32_t>(-1)}) {
        script.host_order = order % 2;
        stream.process(order);
        EXPECT_EQ(record.conversions.back().byte_order, order % 2);
        EXPECT_EQ(journal_of("nax_bigorsmall").size(), ++asked);
    }
}

TEST_F(Bytes, HandsTheConverterTheCallersBytesAndTheConversionBuffer)
{
    Stream stream(2, 1, {});
    stream.process(1);
    ASSERT_EQ(record.conversions.size(), 1u);
    EXPECT_EQ(record.conversions[0],
              (scripted::Conversion{stream.bytes.data(), stream.state->pcm_buf, F * 3 * 2, 16, 1}));
}

TEST_F(Bytes, CallsItsEnginesInOrder)
{
    Stream stream(1, 1, {.model_aec_en = 1});
    journal.clear();
    stream.process(2);
    EXPECT_EQ(journal, (Lines{"nax_bigorsmall", "nax_bytes2shorts", "AEC_DelayProcess",
                              "speex_fast_echo_cancellation"}));
}

TEST_F(Bytes, TakesMicrophonesFirstAsTheyAreWhenNothingIsDroppedOrRemapped)
{
    Stream stream(2, 2, {.pos = 1});
    stream.process();
    EXPECT_EQ(stream.audio, reinterpret_cast<uint8_t *>(stream.state->pcm_buf));
    EXPECT_EQ(stream.processed(F * 4), stream.samples);
    ASSERT_NE(stream.state->sel_buf, nullptr);
    EXPECT_EQ(Samples(stream.state->sel_buf, stream.state->sel_buf + F * 4), Samples(F * 4, 0));
    ASSERT_EQ(record.cancels.size(), 1u);
    EXPECT_EQ(record.cancels[0].mic[1], stream.samples[4]);
}

TEST_F(Bytes, RotatesReferencesFirstEvenWhenNothingIsDroppedOrRemapped)
{
    Stream stream(2, 2, {.pos = 0});
    stream.process();
    EXPECT_EQ(stream.audio, reinterpret_cast<uint8_t *>(stream.state->sel_buf));
    EXPECT_EQ(stream.processed(F * 4), stream.picked({2, 3, 0, 1}));
}

TEST_F(Bytes, DropsTheLastReferences)
{
    Stream refs_first(1, 2, {.pos = 0, .drop_channel = 1});
    refs_first.process();
    EXPECT_EQ(refs_first.processed(F * 2), refs_first.picked({2, 0}));
    EXPECT_EQ(record.cancels.back().mic, refs_first.picked({2}));
    EXPECT_EQ(record.cancels.back().ref, refs_first.picked({0}));

    Stream mics_first(2, 3, {.pos = 1, .drop_channel = 2});
    mics_first.process();
    EXPECT_EQ(mics_first.audio, reinterpret_cast<uint8_t *>(mics_first.state->sel_buf));
    EXPECT_EQ(mics_first.processed(F * 3), mics_first.picked({0, 1, 2}));
}

TEST_F(Bytes, DropsEveryReference)
{
    for (const int32_t pos : {0, 1}) {
        Stream stream(2, 1, {.pos = pos, .drop_channel = 1});
        stream.process();
        EXPECT_EQ(stream.processed(F * 2),
                  pos == 0 ? stream.picked({1, 2}) : stream.picked({0, 1}));
    }
}

TEST_F(Bytes, PicksMicrophonesThroughTheTable)
{
    const int16_t swapped[] = {1, 0};
    Stream mics_first(2, 1, {.pos = 1, .model_aec_en = 2, .array_list = swapped});
    mics_first.process();
    EXPECT_EQ(mics_first.audio, reinterpret_cast<uint8_t *>(mics_first.state->sel_buf));
    EXPECT_EQ(mics_first.processed(F * 3), mics_first.picked({1, 0, 2}));

    const int16_t any[] = {3, 0}; // counted over all channels: the last one, a reference
    Stream refs_first(2, 2, {.pos = 0, .drop_channel = 1, .model_aec_en = 2, .array_list = any});
    refs_first.process();
    EXPECT_EQ(refs_first.processed(F * 3), refs_first.picked({3, 0, 0}));
}

TEST_F(Bytes, ReadsTheTableAtEveryCall)
{
    int16_t table[] = {0};
    Stream stream(1, 1, {.pos = 1, .model_aec_en = 2, .array_list = table});
    stream.process();
    EXPECT_EQ(stream.processed(F * 2), stream.picked({0, 1}));
    table[0] = 1;
    stream.process();
    EXPECT_EQ(stream.processed(F * 2), stream.picked({1, 1}));
}

TEST_F(Bytes, ProcessesNothingAtAnyOtherPosition)
{
    for (const int32_t pos : {2, -1, INT32_MAX}) {
        record = {};
        Stream stream(1, 1, {.pos = pos, .delay_len = 50});
        EXPECT_EQ(stream.process(), 0);
        EXPECT_EQ(stream.audio, stream.bytes.data());
        EXPECT_TRUE(record.cancels.empty());
        EXPECT_EQ(stream.state->frame_count, 0);
        EXPECT_EQ(Samples(stream.state->pcm_buf, stream.state->pcm_buf + F * 2), stream.samples);
        EXPECT_NE(stream.state->sel_buf, nullptr);
    }
}

TEST_F(Bytes, LeavesAnOddByteOut)
{
    Stream stream(1, 1, {.pos = 1});
    EXPECT_EQ(stream.process(stream.length() - 1, 0), 0);
    EXPECT_EQ(stream.state->pcm_len, F * 2 - 1);
    EXPECT_TRUE(record.cancels.empty()) << "less than a frame is not cancelled";
}

TEST_F(Bytes, ReplacesTheInputPointerEvenWhenNaxAecShortFails)
{
    script.converter_surplus = -2 * F - 1;
    Stream stream(1, 1, {.pos = 0});
    int32_t result = 0;
    EXPECT_EQ(standard_error_of([&] { result = stream.process(); }),
              "Error: input audio data is null!");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(stream.audio, reinterpret_cast<uint8_t *>(stream.state->sel_buf));
}
