// The part that the plugins share: frames out of buffers of any size, and settings.
#include "signals.h"

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

// Exchanges noise in pieces of a size. Returns the microphones that came out.
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

// One microphone that hears its reference late, and noise of the room at -70 dBFS.
struct Room {
    Room(int rate, int delay)
        : seconds_long(static_cast<size_t>(rate)), played(rate, 1), path(delay, {0.4, -0.2, 0.1})
    {}

    // Runs some seconds, in which the loudspeaker may be silent. Returns the echo removed in dB.
    double run(framer *framer, size_t seconds, bool silent = false)
    {
        double heard = 0, left = 0;
        for (size_t t = 0; t < seconds * seconds_long; t++) {
            const double reference = silent ? 0 : played.next();
            framer_in(framer)[0] = to_sample(path.next(reference) + noise.next(15));
            framer_in(framer)[1] = to_sample(reference);
            heard += framer_in(framer)[0] * framer_in(framer)[0];
            left += framer_out(framer)[0] * framer_out(framer)[0];
            framer_advance(framer, 1);
        }
        return 10 * std::log10(heard / left);
    }

    size_t seconds_long; // samples
    Speech played;
    EchoPath path;
    Noise noise{3};
};

// Feeds silence. Returns how many samples that came out are not 0, aligned references counted.
size_t sounding_in_silence(framer *framer, size_t instants)
{
    size_t sounding = 0;
    for (size_t t = 0; t < instants; t++) {
        std::fill_n(framer_in(framer), framer->selected, int16_t{0});
        for (size_t m = 0; m < framer->mics; m++)
            sounding += framer_out(framer)[m] != 0;
        for (size_t c = 0; c < framer->channels; c++)
            sounding += framer->out[framer->at * framer->channels + c] != 0;
        framer_advance(framer, 1);
    }
    return sounding;
}

TEST(Framer, StartsAgainInSilenceWithNothingOfBeforeForTwoSeconds)
{
    for (const int rate : {8000, 16000, 32000, 48000})
        for (const int delay : {640, 11520}) {
            settings wanted = DEFAULT_SETTINGS;
            wanted.suppress = true;
            wanted.delay = delay;
            const Framer made = make_framer(wanted, rate);
            Room(rate, delay + 100).run(made.get(), 2);
            for (int t = 0; t < 1000; t++) { // ends with a step of full scale, within a frame
                framer_in(made.get())[0] = -32768;
                framer_in(made.get())[1] = 0;
                framer_advance(made.get(), 1);
            }
            framer_restart(made.get());
            EXPECT_EQ(framer_room(made.get()), made->size);
            EXPECT_EQ(sounding_in_silence(made.get(), 2 * static_cast<size_t>(rate)), 0u)
                << rate << ", delay " << delay;
        }
}

TEST(Framer, StartsAgainWithWhatItLearntAboutTheRoom)
{
    for (const int rate : {16000, 48000}) {
        double removed[2];
        for (const bool restart : {false, true}) {
            const Framer made = make_framer(DEFAULT_SETTINGS, rate);
            Room room(rate, rate / 25);
            room.run(made.get(), 4);
            if (restart) framer_restart(made.get());
            room.run(made.get(), 1, true); // what was played before the restart fades away
            removed[restart] = room.run(made.get(), 1);
        }
        EXPECT_GT(removed[true], removed[false] - 3) << rate;
    }
}

TEST(Framer, MetersTheCancellerAndNotTheSilenceOfARestart)
{
    settings wanted = DEFAULT_SETTINGS;
    wanted.refs = 2; // the meter must know the dropped one
    wanted.drop = 1;
    const Framer made = make_framer(wanted, 16000);
    Room room(16000, 640);
    room.run(made.get(), 6);
    nax_meter_report before, after;
    ASSERT_EQ(nax_meter_read(made->meter, &before), 0);
    EXPECT_EQ(before.verdict, NAX_METER_CANCELLING);
    EXPECT_NEAR(before.frames, 6 * 16000 / 256, 3); // brought up to date every four frames
    EXPECT_EQ(before.delay, made->delay);
    EXPECT_GT(before.removed_db, 10);
    framer_restart(made.get());
    nax_meter_read(made->meter, &after);
    EXPECT_EQ(after.frames, before.frames);
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
