// The two buffers of nax_aec_byte (src/process/bytes): their sizes, when they are
// allocated, and what happens without memory.
#include "byte_stream.h"
#include "heap_wrap.h"

#include <cstdlib>

using scripted::record;
using scripted::script;
using Lines = std::vector<std::string>;

class ByteBuffers : public ScriptedTest {};

// nax_aec_short reads a whole frame whatever its length says, so neither buffer may
// be shorter than one: a sanitiser build shows it.
TEST_F(ByteBuffers, AcceptsLengthZeroInEveryOrder)
{
    for (const int32_t pos : {0, 1, 2})
        for (const int32_t drop : {0, 1}) {
            Stream stream(2, 2, {.pos = pos, .drop_channel = drop, .model_aec_en = 1});
            EXPECT_EQ(stream.process(0, 0), 0);
            EXPECT_EQ(stream.state->pcm_len, 0);
            EXPECT_EQ(stream.state->frame_count, pos == 2 ? 0 : 1);
            stream.process(); // a whole frame afterwards has room
            EXPECT_EQ(stream.state->pcm_len, F * 4);
        }
}

TEST_F(ByteBuffers, AllocatesOnceInSteadyUse)
{
    Stream stream(2, 2, {.pos = 0, .drop_channel = 1});
    const heap::Noting noting;
    stream.process();
    EXPECT_EQ(journal_of("calloc"), Lines{"calloc " + std::to_string(F * 3 * 2)});
    for (int32_t call = 0; call < 10; call++)
        stream.process();
    EXPECT_EQ(journal_of("calloc").size(), 1u);
    for (const char *call : {"malloc", "realloc", "free"})
        EXPECT_TRUE(journal_of(call).empty()) << call;
}

TEST_F(ByteBuffers, ResizesTheConversionBufferWhenTheLengthChanges)
{
    Stream stream(1, 1, {.pos = 1});
    std::vector<uint8_t> two_frames(static_cast<size_t>(2 * stream.length()));
    Samples out(4 * F);
    uint8_t *audio = two_frames.data();
    const heap::Noting noting;
    nax_aec_byte(stream.state.get(), &audio, out.data(), nullptr, 2 * stream.length(), 0);
    EXPECT_EQ(journal_of("realloc"), Lines{"realloc " + std::to_string(4 * F * 2)});
    EXPECT_EQ(stream.state->pcm_len, 4 * F);
    EXPECT_EQ(record.cancels.size(), 2u);
    stream.process();
    EXPECT_EQ(journal_of("realloc").size(), 2u);
    EXPECT_EQ(journal_of("calloc").size(), 1u) << "the selection keeps its first size";
}

TEST_F(ByteBuffers, TrustsTheConvertersCountAndResizesAgainWhenItDiffers)
{
    script.converter_surplus = -2;
    Stream stream(1, 1, {.pos = 1});
    const heap::Noting noting;
    stream.process();
    EXPECT_EQ(stream.state->pcm_len, 2 * F - 2);
    EXPECT_TRUE(record.cancels.empty()) << "one sample instant short of a frame";
    EXPECT_TRUE(journal_of("realloc").empty());
    stream.process();
    stream.process();
    EXPECT_EQ(journal_of("realloc").size(), 2u);
}

TEST_F(ByteBuffers, TriesAgainAfterAFailedAllocationOfTheSelection)
{
    Stream stream(1, 1, {.pos = 1}); // the order that does not need the selection
    heap::refuse_after = 0;
    stream.process();
    heap::refuse_after = -1;
    EXPECT_EQ(stream.state->sel_buf, nullptr);
    stream.process();
    EXPECT_NE(stream.state->sel_buf, nullptr);
}

TEST_F(ByteBuffers, StoresAFailedResizeUnchecked)
{
    script.converter_writes = false;
    Stream stream(1, 1, {.pos = 1});
    int16_t *refused = stream.state->pcm_buf;
    heap::refuse_after = 0;
    int32_t result = 0;
    EXPECT_EQ(standard_error_of([&] { result = stream.process(stream.length() - 4, 0); }),
              "Error: input audio data is null!");
    heap::refuse_after = -1;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(stream.state->pcm_buf, nullptr);
    free(refused);
}
