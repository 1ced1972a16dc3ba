/*
 * The command line of cancel_wav.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "cancel_wav_options.h"

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

const char PROGRAM[] = "cancel_wav";
const char USAGE[] =
    "Usage: cancel_wav [OPTION]... MIC REF OUT.wav\n"
    "  or:  cancel_wav [OPTION]... ALL OUT.wav\n"
    "  or:  cancel_wav --check [OPTION]... MIC REF\n"
    "  or:  cancel_wav --check [OPTION]... ALL\n"
    "Removes the echo of the reference from the microphones and writes the cleaned\n"
    "microphones to OUT.wav. MIC and REF, or ALL with microphones and references in one\n"
    "file, are sound files of any format and rate that libsndfile reads; results are\n"
    "16-bit WAV. A rate other than 8000, 16000, 32000 or 48000 Hz is brought to the next\n"
    "of these, the reference's to the microphone's.\n"
    "\n"
    "Channels:\n"
    "  --order ORDER          of ALL: mics-first (default) or refs-first: pos\n"
    "  --mics N               microphones in ALL, 1 (default) or 2\n"
    "  --channels MICS:REFS   the input channels to use, from 0, those of REF behind those\n"
    "                         of MIC; for instance 1,2:5\n"
    "  --drop N               keep the last N references from the canceller: drop_channel\n"
    "  --remap A[,B]          channels, from 0, that are the microphones: array_list\n" USAGE_DELAY
    "Echo left:\n"
    "  --suppress             suppresses what the canceller leaves in OUT.wav\n"
    "Does it cancel:\n"
    "  --report               prints levels, echo removed and the verdict each second\n"
    "  --check                writes no OUT.wav; prints the verdict in one line and makes it\n"
    "                         the exit status. The recording should hold ten seconds of far\n"
    "                         end\n"
    "More results:\n"
    "  --echo FILE            the echo that was taken out, a channel per microphone (WAV)\n"
    "  --refs FILE            the references as aligned (WAV)\n"
    "  --input FILE           what the library was given, all channels (WAV)\n"
    "  --delays FILE          the delay applied in each frame (CSV: time_s,delay_samples)\n"
    "  --dump PREFIX          the library's dumps, PREFIX_aec.raw and PREFIX_echo.raw\n"
    "  --quiet                no progress, no notes and no figures\n"
    "  --help, --version      print this text or the version\n"
    "\n"
    "Exit status: 0 success, 1 a file is unusable, 2 the command line is. With --check:\n"
    "0 it cancels, 3 the verdict is an alarm, 4 there was no echo to judge by.\n";

/* Reads numbers between commas, of which the last ends the text. Returns how many. */
static int parse_list(const char *text, int *number, int most)
{
    for (int count = 0; count < most; text++) {
        char *end;
        const long value = strtol(text, &end, 10);
        if (*text < '0' || *text > '9' || value >= MAX_MICS + MAX_REFS) return 0;
        number[count++] = (int)value;
        text = end;
        if (*text == '\0') return count;
        if (*text != ',') return 0;
    }
    return 0;
}

static struct picked parse_channels(const char *text)
{
    struct picked picked = {0};
    char mics[16];
    const char *colon = strchr(text, ':');
    if (colon && (size_t)(colon - text) < sizeof mics) {
        memcpy(mics, text, (size_t)(colon - text));
        mics[colon - text] = '\0';
        picked.mics = parse_list(mics, picked.channel, MAX_MICS);
        picked.refs = parse_list(colon + 1, picked.channel + picked.mics, MAX_REFS);
    }
    if (picked.mics == 0 || picked.refs == 0)
        fail(STATUS_USAGE, "--channels", "'%s' is not MICS:REFS, for instance 0:1 or 1,2:5", text);
    return picked;
}

static void check(const struct options *options)
{
    const struct words *words = &options->words;
    if (options->in_count < 1 || options->in_count > 2)
        fail(STATUS_USAGE, "command line",
             options->check ? "--check needs MIC.wav REF.wav or ALL.wav"
                            : "needs MIC.wav REF.wav OUT.wav or ALL.wav OUT.wav");
    if (options->picked.mics > 0 &&
        (words->order != NOT_GIVEN || words->mics != NOT_GIVEN || words->remap_count > 0))
        fail(STATUS_USAGE, "--channels", "says what --order, --mics and --remap say");
    if (options->in_count == 2 && (words->order != NOT_GIVEN || words->mics != NOT_GIVEN))
        fail(STATUS_USAGE, words->order != NOT_GIVEN ? "--order" : "--mics",
             "describes one multi-channel file, but two input files are given");
}

struct options cancel_wav_options(int argc, char **argv)
{
    struct options options = {0};
    const char *channels = NULL;
    const struct option_rule own[] = {{"echo", TEXT, &options.echo, 0, 0},
                                      {"refs", TEXT, &options.refs, 0, 0},
                                      {"input", TEXT, &options.input, 0, 0},
                                      {"channels", TEXT, &channels, 0, 0},
                                      {"delays", TEXT, &options.delays, 0, 0},
                                      {"dump", TEXT, &options.dump, 0, 0},
                                      {"report", FLAG, &options.report, 0, 0},
                                      {"check", FLAG, &options.check, 0, 0},
                                      {"quiet", FLAG, &options.quiet, 0, 0},
                                      {"suppress", FLAG, &options.suppress, 0, 0},
                                      {NULL, FLAG, NULL, 0, 0}};
    struct words *words = &options.words;
    const int first = parse_options(words, MAX_REFS, own, argc, argv);
    if (channels) options.picked = parse_channels(channels);
    options.in_count = argc - first - !options.check;
    check(&options);
    for (int i = 0; i < options.in_count; i++)
        options.in[i] = argv[first + i];
    if (!options.check) options.out = argv[argc - 1];
    if (words->order == NOT_GIVEN) words->order = MICS_FIRST;
    if (words->mics == NOT_GIVEN) words->mics = 1;
    return options;
}
