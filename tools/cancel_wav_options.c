/*
 * The command line of cancel_wav.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "cancel_wav_options.h"

#include <stddef.h>

/* As many channels as libsndfile reads, less the microphones. */
enum { MAX_REFS = 1022 };

const char PROGRAM[] = "cancel_wav";
const char USAGE[] =
    "Usage: cancel_wav [OPTION]... MIC.wav REF.wav OUT.wav\n"
    "       cancel_wav [OPTION]... ALL.wav OUT.wav\n"
    "Removes the echo of the reference from the microphones and writes the cleaned\n"
    "microphones to OUT.wav. Files are 16-bit PCM WAV of 8000, 16000, 32000 or 48000 Hz;\n"
    "ALL.wav holds microphones and references in one file.\n"
    "\n"
    "Channels\n"
    "  --order ORDER          of ALL.wav: mics-first (default) or refs-first: pos\n"
    "  --mics N               microphones in ALL.wav, 1 (default) or 2\n"
    "  --drop N               keep the last N references from the canceller: drop_channel\n"
    "  --remap A[,B]          input channels, from 0, that are the microphones; the\n"
    "                         channels of MIC.wav come before those of REF.wav\n" USAGE_DELAY
    "More results\n"
    "  --echo FILE            the echo that was taken out, a channel per microphone (WAV)\n"
    "  --refs FILE            the references as aligned (WAV)\n"
    "  --delays FILE          the delay applied in each frame (CSV: time_s,delay_samples)\n"
    "  --dump PREFIX          the library's dumps, PREFIX_aec.raw and PREFIX_echo.raw\n"
    "  --quiet                no progress and no figures\n"
    "  --help, --version      print this text or the version\n"
    "\n"
    "Exit status: 0 success, 1 a file is unusable, 2 the command line is.\n";

struct options cancel_wav_options(int argc, char **argv)
{
    struct options options = {0};
    const struct option_rule own[] = {
        {"echo", TEXT, &options.echo, 0, 0},     {"refs", TEXT, &options.refs, 0, 0},
        {"delays", TEXT, &options.delays, 0, 0}, {"dump", TEXT, &options.dump, 0, 0},
        {"quiet", FLAG, &options.quiet, 0, 0},   {NULL, FLAG, NULL, 0, 0}};
    struct words *words = &options.words;
    const int first = parse_options(words, MAX_REFS, own, argc, argv);
    options.in_count = argc - first - 1;
    if (options.in_count < 1 || options.in_count > 2)
        fail(STATUS_USAGE, "command line", "needs MIC.wav REF.wav OUT.wav or ALL.wav OUT.wav");
    for (int i = 0; i < options.in_count; i++)
        options.in[i] = argv[first + i];
    options.out = argv[argc - 1];
    if (options.in_count == 2 && (words->order != NOT_GIVEN || words->mics != NOT_GIVEN))
        fail(STATUS_USAGE, words->order != NOT_GIVEN ? "--order" : "--mics",
             "describes one multi-channel file, but two input files are given");
    if (words->order == NOT_GIVEN) words->order = MICS_FIRST;
    if (words->mics == NOT_GIVEN) words->mics = 1;
    return options;
}
