/*
 * The command line of live_alsa.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "live_alsa_options.h"

#include "nax_aec.h"

#include <getopt.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const char USAGE[] =
    "Usage: live_alsa [OPTION]... --device DEVICE [OUT.wav]\n"
    "       live_alsa [OPTION]... --mic-device DEVICE --ref-device DEVICE [OUT.wav]\n"
    "Captures microphones and loudspeaker references from ALSA, removes the echo as it\n"
    "comes and writes the cleaned microphones to OUT.wav, plays them, or both. Runs until\n"
    "SIGINT or SIGTERM.\n"
    "\n"
    "Devices (names as for arecord -D: hw:0, plughw:1, a name of asound.conf)\n"
    "  --device DEVICE        all channels, microphones and references\n"
    "  --mic-device DEVICE    the microphones' channels, with --ref-device\n"
    "  --ref-device DEVICE    the references' channels, read in step\n"
    "  --play DEVICE          plays the cleaned microphones\n"
    "  --rate HZ              8000, 16000 (default), 32000 or 48000\n"
    "Channels\n"
    "  --mics N               microphones, 1 (default) or 2\n"
    "  --refs N               references, 1 (default) to 62\n"
    "  --order ORDER          in --device: mics-first (default) or refs-first\n"
    "  --drop N               keep the last N references from the canceller\n"
    "  --remap A[,B]          captured channels, from 0, that are the microphones; those\n"
    "                         of the microphone device come before the other's\n"
    "Delay\n"
    "  --delay SAMPLES        base delay, 0 to 12288 (default 0)\n"
    "  --look-ahead SAMPLES   look-ahead, 0 to 12288 (default 0)\n"
    "  --no-delay-estimation  leave the reference where it is\n"
    "More results\n"
    "  --echo FILE            the echo that was taken out, a channel per microphone (WAV)\n"
    "  --capture FILE         all channels as captured (WAV), for cancel_wav and diagnose_wav\n"
    "Running\n"
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

static void complain_v(const char *subject, const char *format, va_list arguments)
{
    fprintf(stderr, "live_alsa: %s: ", subject);
    vfprintf(stderr, format, arguments);
    fputc('\n', stderr);
}

void complain(const char *subject, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    complain_v(subject, format, arguments);
    va_end(arguments);
}

void fail(int status, const char *subject, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    complain_v(subject, format, arguments);
    va_end(arguments);
    exit(status);
}

static int parse_int(const char *option, const char *text, int low, int high)
{
    char *end;
    const long value = strtol(text, &end, 10);
    if (end == text || *end || value < low || value > high)
        fail(STATUS_USAGE, option, "'%s' is not a number from %d to %d", text, low, high);
    return (int)value;
}

static int parse_rate(const char *text)
{
    const int rate = parse_int("--rate", text, 1, 1000000);
    if (rate != 8000 && rate != 16000 && rate != 32000 && rate != 48000)
        fail(STATUS_USAGE, "--rate", "%d is not 8000, 16000, 32000 or 48000", rate);
    return rate;
}

static double parse_seconds(const char *text)
{
    char *end;
    const double value = strtod(text, &end);
    if (end == text || *end || !(value > 0) || value > 1e6)
        fail(STATUS_USAGE, "--seconds", "'%s' is not a time in seconds, up to 1000000", text);
    return value;
}

static int parse_order(const char *text)
{
    if (!strcmp(text, "mics-first")) return MICS_FIRST;
    if (!strcmp(text, "refs-first")) return REFS_FIRST;
    fail(STATUS_USAGE, "--order", "'%s' is neither mics-first nor refs-first", text);
}

static void parse_remap(struct options *options, const char *text)
{
    char entries[32];
    if (strlen(text) >= sizeof entries)
        fail(STATUS_USAGE, "--remap", "'%s' is not one or two channel numbers", text);
    strcpy(entries, text);
    char *second = strchr(entries, ',');
    if (second) *second++ = '\0';
    const int last = MAX_MICS + MAX_REFS - 1;
    options->remap[0] = (int16_t)parse_int("--remap", entries, 0, last);
    if (second) options->remap[1] = (int16_t)parse_int("--remap", second, 0, last);
    options->remap_count = second ? 2 : 1;
}

static bool same(const char *a, const char *b) { return a && b && !strcmp(a, b); }

/* Ends the program when the options contradict each other. */
static void check(const struct options *options, const char *all, bool order_given)
{
    const int channels = options->mics + options->refs;
    if (all && options->device_count > 0)
        fail(STATUS_USAGE, "--device", "excludes --mic-device and --ref-device");
    if (!all && (!options->device[0] || !options->device[1]))
        fail(STATUS_USAGE, "command line", "needs --device, or --mic-device and --ref-device");
    if (!all && order_given)
        fail(STATUS_USAGE, "--order", "describes --device, but two devices are given");
    if (options->drop > options->refs)
        fail(STATUS_USAGE, "--drop", "%d is more than the %d reference(s)", options->drop,
             options->refs);
    if (options->remap_count > 0 && options->remap_count != options->mics)
        fail(STATUS_USAGE, "--remap", "names %d channel(s) for %d microphone(s)",
             options->remap_count, options->mics);
    if (same(options->echo, options->capture))
        fail(STATUS_USAGE, options->echo, "is already another output");
    for (int m = 0; m < options->remap_count; m++)
        if (options->remap[m] >= channels)
            fail(STATUS_USAGE, "--remap", "channel %d is outside the channels, 0 to %d",
                 options->remap[m], channels - 1);
}

struct options parse_options(int argc, char **argv)
{
    static const struct option table[] = {{"device", required_argument, 0, 'A'},
                                          {"mic-device", required_argument, 0, 'M'},
                                          {"ref-device", required_argument, 0, 'R'},
                                          {"play", required_argument, 0, 'P'},
                                          {"rate", required_argument, 0, 'f'},
                                          {"mics", required_argument, 0, 'm'},
                                          {"refs", required_argument, 0, 'k'},
                                          {"order", required_argument, 0, 'o'},
                                          {"drop", required_argument, 0, 'd'},
                                          {"remap", required_argument, 0, 'r'},
                                          {"delay", required_argument, 0, 'l'},
                                          {"look-ahead", required_argument, 0, 'a'},
                                          {"no-delay-estimation", no_argument, 0, 'n'},
                                          {"echo", required_argument, 0, 'E'},
                                          {"capture", required_argument, 0, 'C'},
                                          {"frames", required_argument, 0, 'N'},
                                          {"seconds", required_argument, 0, 'S'},
                                          {"priority", required_argument, 0, 'p'},
                                          {"quiet", no_argument, 0, 'q'},
                                          {"help", no_argument, 0, 'h'},
                                          {"version", no_argument, 0, 'v'},
                                          {0, 0, 0, 0}};
    struct options options = {
        .rate = 16000, .mics = 1, .refs = 1, .order = MICS_FIRST, .priority = 70, .estimate = true};
    const char *all = NULL;
    bool order_given = false;
    int option;
    while ((option = getopt_long(argc, argv, ":", table, NULL)) != -1) {
        switch (option) {
        case 'A': all = optarg; break;
        case 'M': options.device[0] = optarg; break;
        case 'R': options.device[1] = optarg; break;
        case 'P': options.play = optarg; break;
        case 'f': options.rate = parse_rate(optarg); break;
        case 'm': options.mics = parse_int("--mics", optarg, 1, MAX_MICS); break;
        case 'k': options.refs = parse_int("--refs", optarg, 1, MAX_REFS); break;
        case 'o':
            options.order = parse_order(optarg);
            order_given = true;
            break;
        case 'd': options.drop = parse_int("--drop", optarg, 0, MAX_REFS); break;
        case 'r': parse_remap(&options, optarg); break;
        case 'l': options.delay = parse_int("--delay", optarg, 0, MAX_DELAY); break;
        case 'a': options.look_ahead = parse_int("--look-ahead", optarg, 0, MAX_DELAY); break;
        case 'n': options.estimate = false; break;
        case 'E': options.echo = optarg; break;
        case 'C': options.capture = optarg; break;
        case 'N': options.frames = parse_int("--frames", optarg, 1, 1000000000); break;
        case 'S': options.seconds = parse_seconds(optarg); break;
        case 'p': options.priority = parse_int("--priority", optarg, 0, 99); break;
        case 'q': options.quiet = true; break;
        case 'h': fputs(USAGE, stdout); exit(EXIT_SUCCESS);
        case 'v':
            printf("live_alsa (nax_aec) %d.%d.%d\n", NAX_AEC_VERSION_MAJOR, NAX_AEC_VERSION_MINOR,
                   NAX_AEC_VERSION_PATCH);
            exit(EXIT_SUCCESS);
        case ':': fail(STATUS_USAGE, argv[optind - 1], "needs a value");
        default: fail(STATUS_USAGE, argv[optind - 1], "no such option, see live_alsa --help");
        }
    }
    options.device_count = (options.device[0] != NULL) + (options.device[1] != NULL);
    check(&options, all, order_given);
    if (all) {
        options.device[0] = all;
        options.device_count = 1;
    }
    if (argc - optind > 1)
        fail(STATUS_USAGE, argv[optind + 1], "is one argument too many, see live_alsa --help");
    options.out = argv[optind]; /* null after the last */
    if (same(options.out, options.echo) || same(options.out, options.capture))
        fail(STATUS_USAGE, options.out, "is already another output");
    if (options.seconds > 0) {
        const long frames = (long)(options.seconds / 0.016 + 0.999); /* whole frames, rounded up */
        if (options.frames == 0 || frames < options.frames) options.frames = frames;
    }
    return options;
}
