// The part that all plugins share: frames out of buffers of any size, and settings.
#include "support.h"

#include <algorithm>

extern "C" {
#include "framer.h"
}

#include <algorithm>

namespace {

struct Destroy {
    void operator()(framer *made) const { framer_destroy(made); }
};
using Framer = std::unique_ptr<framer, Destroy>;

Framer make_framer(const settings &wanted, int rate)
{
    framer *made = nullptr;
    standard_error_of([&] { made = framer_create(&wanted, rate); });
    return Framer(made);
}

// Exchanges noise in pieces of a size; all microphones that came out.
Samples exchange(framer *framer, size_t instants, size_t piece)
{
    Noise noise(7);
    Samples out;
    for (size_t done = 0, count; done < instants; done += count) {
        count = std::min({piece, instants - done, framer_room(framer)});
        for (size_t i = 0; i < count * framer->selected; i++)
            framer_in(framer)[i] = static_cast<int16_t>(noise.next(5000.0));
        for (size_t t = 0; t < count; t++)
            for (size_t m = 0; m < framer->mics; m++)
                out.push_back(framer_out(framer)[t * framer->stride + m]);
        framer_advance(framer, count);
    }
    return out;
}

TEST(Framer, GivesTheSameForEverySizeOfPieceOneFrameLate)
{
    settings wanted = DEFAULT_SETTINGS;
    wanted.mics = wanted.refs = 2;
    const Samples whole = exchange(make_framer(wanted, 8000).get(), 1000, 128);
    EXPECT_EQ(Samples(whole.begin(), whole.begin() + 256), Samples(256));
    EXPECT_NE(whole[256], 0);
    for (const size_t piece : {1u, 100u, 129u, 1000u})
        EXPECT_TRUE(exchange(make_framer(wanted, 8000).get(), 1000, piece) == whole) << piece;
}

TEST(Framer, NamesTheChannelsOfEitherOrderAndOfATable)
{
    settings wanted = DEFAULT_SETTINGS;
    wanted.mics = 2;
    wanted.refs = 3;
    wanted.drop = 1;
    const auto sources = [&] {
        const Framer made = make_framer(wanted, 16000);
        return std::vector<int>(made->source, made->source + made->selected);
    };
    EXPECT_EQ(sources(), (std::vector<int>{0, 1, 2, 3}));
    wanted.mics_first = false;
    EXPECT_EQ(sources(), (std::vector<int>{3, 4, 0, 1}));
    EXPECT_EQ(settings_set(&wanted, "remap", "4,2"), nullptr);
    EXPECT_EQ(sources(), (std::vector<int>{4, 2, 0, 1}));
}

TEST(Framer, RefusesOtherRatesWithoutAWord)
{
    framer *made = nullptr;
    const std::string said =
        standard_error_of([&] { made = framer_create(&DEFAULT_SETTINGS, 44100); });
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(said, "");
}

TEST(Framer, StartsAgainWithSilenceAndAWholeFrame)
{
    const Framer made = make_framer(DEFAULT_SETTINGS, 8000);
    exchange(made.get(), 300, 50);
    framer_restart(made.get());
    EXPECT_EQ(framer_room(made.get()), 128u);
    EXPECT_EQ(exchange(made.get(), 128, 128), Samples(128));
}

TEST(Settings, ReadsEveryOneAndSaysWhatIsWrong)
{
    const char *const right[][2] = {{"mics", "2"},      {"refs", "4"},
                                    {"drop", "1"},      {"order", "refs-first"},
                                    {"delay", "12288"}, {"delay-estimation", "no"},
                                    {"remap", "5,0"},   {"suppress", "yes"}};
    settings read = DEFAULT_SETTINGS;
    for (const auto &[name, text] : right)
        EXPECT_EQ(settings_set(&read, name, text), nullptr) << name;
    EXPECT_EQ(settings_check(&read), nullptr);
    EXPECT_EQ(read.mics, 2);
    EXPECT_EQ(read.refs, 4);
    EXPECT_EQ(read.drop, 1);
    EXPECT_FALSE(read.mics_first);
    EXPECT_EQ(read.delay, 12288);
    EXPECT_FALSE(read.delay_estimation);
    EXPECT_EQ(read.remap_count, 2);
    EXPECT_EQ(read.remap[0], 5);
    EXPECT_TRUE(read.suppress);

    const char *const wrong[][2] = {
        {"mics", "3"},      {"refs", "0"},     {"drop", "-1"},    {"order", "any"},
        {"delay", "12289"}, {"delay", "1 ms"}, {"delay", ""},     {"delay-estimation", "maybe"},
        {"remap", "1,2,3"}, {"remap", "1;2"},  {"suppress", "2"}, {"channels", "2"}};
    for (const auto &[name, text] : wrong)
        EXPECT_NE(settings_set(&read, name, text), nullptr) << name << " " << text;
}

TEST(Settings, ChecksWhatDependsOnEachOther)
{
    settings wanted = DEFAULT_SETTINGS;
    wanted.drop = 2;
    EXPECT_STREQ(settings_check(&wanted), "drop is more than refs");
    wanted = DEFAULT_SETTINGS;
    EXPECT_EQ(settings_set(&wanted, "remap", "0,1"), nullptr);
    EXPECT_NE(settings_check(&wanted), nullptr);
    EXPECT_EQ(settings_set(&wanted, "remap", "2"), nullptr);
    EXPECT_NE(settings_check(&wanted), nullptr);
    EXPECT_EQ(settings_set(&wanted, "remap", "1"), nullptr);
    EXPECT_EQ(settings_check(&wanted), nullptr);
}

} // namespace
