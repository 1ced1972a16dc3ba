/*
 * The command line of live_alsa.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "live_alsa_options.h"

#include <math.h>
#include <stddef.h>

static const double FRAME_S = 0.016, ROUNDING = 1e-6; /* so that 1.6 s are 100 frames */

const char PROGRAM[] = "live_alsa";
const char USAGE[] =
    "Usage: live_alsa [OPTION]... --device DEVICE [OUT.wav]\n"
    "  or:  live_alsa [OPTION]... --mic-device DEVICE --ref-device DEVICE [OUT.wav]\n"
    "Captures microphones and loudspeaker references from ALSA, removes the echo as it\n"
    "comes and writes the cleaned microphones to OUT.wav, plays them, or both. Runs until\n"
    "SIGINT or SIGTERM.\n"
    "\n"
    "Devices:\n"
    "  --device DEVICE        all channels, microphones and references; named as for\n"
    "                         arecord -D: hw:0, plughw:1, a name of asound.conf\n"
    "  --mic-device DEVICE    the microphones' channels, with --ref-device\n"
    "  --ref-device DEVICE    the references' channels, read in step\n"
    "  --play DEVICE          plays the cleaned microphones\n"
    "  --rate HZ              8000, 16000 (default), 32000 or 48000\n"
    "Channels:\n"
    "  --mics N               microphones, 1 (default) or 2\n"
    "  --refs N               references, 1 (default) to 62\n"
    "  --order ORDER          in --device: mics-first (default) or refs-first: pos\n"
    "  --drop N               keep the last N references from the canceller: drop_channel\n"
    "  --remap A[,B]          captured channels, from 0, that are the microphones; those\n"
    "                         of the microphone device come before the other's\n" USAGE_DELAY
    "Echo left:\n"
    "  --suppress             suppresses what the canceller leaves, 16 ms later\n"
    "More results:\n"
    "  --echo FILE            the echo that was taken out, a channel per microphone (WAV)\n"
    "  --capture FILE         all channels as captured (WAV), for cancel_wav and diagnose_wav\n"
    "Running:\n"
    "  --frames N             stop after N frames of 16 ms\n"
    "  --seconds S            stop after S seconds of audio\n"
    "  --priority N           of the audio thread under SCHED_FIFO, 1 to 99 (default 70);\n"
    "                         0: an ordinary thread\n"
    "  --quiet                no status line\n"
    "  --help, --version      print this text or the version\n"
    "\n"
    "The status line: time; delay applied to the reference; level of the microphones and\n"
    "of what is left of them; echo removed while a reference is active; samples at full\n"
    "scale, of microphones + references; overruns; share of the frame's 16 ms that the\n"
    "library used, mean/peak.\n"
    "\n"
    "Exit status: 0 success, 1 a device or a file failed, 2 the command line is wrong.\n";

/* Ends the program when the options contradict each other. */
static void check(const struct options *options, const char *all)
{
    const struct words *words = &options->words;
    const int channels = words->mics + options->refs;
    if (!is_supported_rate(options->rate))
        fail(STATUS_USAGE, "--rate", "%d is not 8000, 16000, 32000 or 48000", options->rate);
    if (all && options->device_count > 0)
        fail(STATUS_USAGE, "--device", "excludes --mic-device and --ref-device");
    if (!all && (!options->device[0] || !options->device[1]))
        fail(STATUS_USAGE, "command line", "needs --device, or --mic-device and --ref-device");
    if (!all && words->order != NOT_GIVEN)
        fail(STATUS_USAGE, "--order", "describes --device, but two devices are given");
    if (words->drop > options->refs)
        fail(STATUS_USAGE, "--drop", "%d is more than the %d reference(s)", words->drop,
             options->refs);
    if (words->remap_count > 0 && words->remap_count != words->mics)
        fail(STATUS_USAGE, "--remap", "names %d channel(s) for %d microphone(s)",
             words->remap_count, words->mics);
    for (int m = 0; m < words->remap_count; m++)
        if (words->remap[m] >= channels)
            fail(STATUS_USAGE, "--remap", "channel %d is outside the channels, 0 to %d",
                 words->remap[m], channels - 1);
}

struct options live_alsa_options(int argc, char **argv)
{
    struct options options = {.rate = 16000, .refs = 1, .priority = 70};
    const char *all = NULL;
    double seconds = 0;
    const struct option_rule own[] = {{"device", TEXT, &all, 0, 0},
                                      {"mic-device", TEXT, &options.device[0], 0, 0},
                                      {"ref-device", TEXT, &options.device[1], 0, 0},
                                      {"play", TEXT, &options.play, 0, 0},
                                      {"rate", NUMBER, &options.rate, 1, 1000000},
                                      {"refs", NUMBER, &options.refs, 1, MAX_REFS},
                                      {"echo", TEXT, &options.echo, 0, 0},
                                      {"capture", TEXT, &options.capture, 0, 0},
                                      {"frames", NUMBER, &options.frames, 1, 1000000000},
                                      {"seconds", SECONDS, &seconds, 0, 0},
                                      {"priority", NUMBER, &options.priority, 0, 99},
                                      {"suppress", FLAG, &options.suppress, 0, 0},
                                      {"quiet", FLAG, &options.quiet, 0, 0},
                                      {NULL, FLAG, NULL, 0, 0}};
    const int first = parse_options(&options.words, MAX_REFS, own, argc, argv);
    if (options.words.mics == NOT_GIVEN) options.words.mics = 1;
    options.device_count = (options.device[0] != NULL) + (options.device[1] != NULL);
    check(&options, all);
    if (all) {
        options.device[0] = all;
        options.device_count = 1;
    }
    if (options.words.order == NOT_GIVEN) options.words.order = MICS_FIRST;
    if (argc - first > 1)
        fail(STATUS_USAGE, argv[first + 1], "is one argument too many, see live_alsa --help");
    options.out = argv[first]; /* null after the last */
    if (seconds > 0) {
        const int frames = (int)fmax(1, ceil(seconds / FRAME_S - ROUNDING));
        if (options.frames == 0 || frames < options.frames) options.frames = frames;
    }
    return options;
}
