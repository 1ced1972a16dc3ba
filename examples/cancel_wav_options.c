/*
 * The command line of cancel_wav.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "cancel_wav_options.h"

#include "nax_aec.h"

#include <getopt.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const char USAGE[] =
    "Usage: cancel_wav [OPTION]... MIC.wav REF.wav OUT.wav\n"
    "       cancel_wav [OPTION]... ALL.wav OUT.wav\n"
    "Removes the echo of the reference from the microphones and writes the cleaned\n"
    "microphones to OUT.wav. Files are 16-bit PCM WAV of 8000, 16000, 32000 or 48000 Hz;\n"
    "ALL.wav holds microphones and references in one file.\n"
    "\n"
    "Channels\n"
    "  --order ORDER          of ALL.wav: mics-first (default) or refs-first\n"
    "  --mics N               microphones in ALL.wav, 1 (default) or 2\n"
    "  --drop N               keep the last N references from the canceller\n"
    "  --remap A[,B]          input channels, from 0, that are the microphones; the\n"
    "                         channels of MIC.wav come before those of REF.wav\n"
    "Delay\n"
    "  --delay SAMPLES        base delay, 0 to 12288 (default 0)\n"
    "  --look-ahead SAMPLES   look-ahead, 0 to 12288 (default 0)\n"
    "  --no-delay-estimation  leave the reference where it is\n"
    "More results\n"
    "  --echo FILE            the echo that was taken out, a channel per microphone (WAV)\n"
    "  --refs FILE            the references as aligned (WAV)\n"
    "  --delays FILE          the delay applied in each frame (CSV: time_s,delay_samples)\n"
    "  --dump PREFIX          the library's dumps, PREFIX_aec.raw and PREFIX_echo.raw\n"
    "  --quiet                no progress and no figures\n"
    "  --help, --version      print this text or the version\n"
    "\n"
    "Exit status: 0 success, 1 a file is unusable, 2 the command line is.\n";

void fail(int status, const char *subject, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    fprintf(stderr, "cancel_wav: %s: ", subject);
    vfprintf(stderr, format, arguments);
    fputc('\n', stderr);
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

static void parse_remap(struct options *options, const char *text)
{
    char entries[32];
    if (strlen(text) >= sizeof entries)
        fail(STATUS_USAGE, "--remap", "'%s' is not one or two channel numbers", text);
    strcpy(entries, text);
    char *second = strchr(entries, ',');
    if (second) *second++ = '\0';
    options->remap[0] = (int16_t)parse_int("--remap", entries, 0, MAX_CHANNELS - 1);
    if (second) options->remap[1] = (int16_t)parse_int("--remap", second, 0, MAX_CHANNELS - 1);
    options->remap_count = second ? 2 : 1;
}

static int parse_order(const char *text)
{
    if (!strcmp(text, "mics-first")) return MICS_FIRST;
    if (!strcmp(text, "refs-first")) return REFS_FIRST;
    fail(STATUS_USAGE, "--order", "'%s' is neither mics-first nor refs-first", text);
}

static void print_version(void)
{
    printf("cancel_wav (nax_aec) %d.%d.%d\n", NAX_AEC_VERSION_MAJOR, NAX_AEC_VERSION_MINOR,
           NAX_AEC_VERSION_PATCH);
    exit(EXIT_SUCCESS);
}

static void apply_option(struct options *options, int option, const char *value)
{
    switch (option) {
    case 'o':
        options->order = parse_order(value);
        options->order_given = true;
        break;
    case 'm':
        options->mics = parse_int("--mics", value, 1, MAX_MICS);
        options->mics_given = true;
        break;
    case 'd': options->drop = parse_int("--drop", value, 0, MAX_CHANNELS); break;
    case 'r': parse_remap(options, value); break;
    case 'l': options->delay = parse_int("--delay", value, 0, MAX_DELAY); break;
    case 'a': options->look_ahead = parse_int("--look-ahead", value, 0, MAX_DELAY); break;
    case 'n': options->estimate = false; break;
    case 'E': options->echo = value; break;
    case 'R': options->refs = value; break;
    case 'L': options->delays = value; break;
    case 'D': options->dump = value; break;
    case 'q': options->quiet = true; break;
    case 'h': fputs(USAGE, stdout); exit(EXIT_SUCCESS);
    default: print_version();
    }
}

struct options parse_options(int argc, char **argv)
{
    static const struct option table[] = {{"order", required_argument, 0, 'o'},
                                          {"mics", required_argument, 0, 'm'},
                                          {"drop", required_argument, 0, 'd'},
                                          {"remap", required_argument, 0, 'r'},
                                          {"delay", required_argument, 0, 'l'},
                                          {"look-ahead", required_argument, 0, 'a'},
                                          {"no-delay-estimation", no_argument, 0, 'n'},
                                          {"echo", required_argument, 0, 'E'},
                                          {"refs", required_argument, 0, 'R'},
                                          {"delays", required_argument, 0, 'L'},
                                          {"dump", required_argument, 0, 'D'},
                                          {"quiet", no_argument, 0, 'q'},
                                          {"help", no_argument, 0, 'h'},
                                          {"version", no_argument, 0, 'v'},
                                          {0, 0, 0, 0}};
    struct options options = {.order = MICS_FIRST, .mics = 1, .estimate = true};
    int option;
    while ((option = getopt_long(argc, argv, ":", table, NULL)) != -1) {
        if (option == ':') fail(STATUS_USAGE, argv[optind - 1], "needs a value");
        if (option == '?')
            fail(STATUS_USAGE, argv[optind - 1], "no such option, see cancel_wav --help");
        apply_option(&options, option, optarg);
    }
    options.in_count = argc - optind - 1;
    if (options.in_count < 1 || options.in_count > 2)
        fail(STATUS_USAGE, "command line", "needs MIC.wav REF.wav OUT.wav or ALL.wav OUT.wav");
    for (int i = 0; i < options.in_count; i++)
        options.in[i] = argv[optind + i];
    options.out = argv[argc - 1];
    if (options.in_count == 2 && (options.order_given || options.mics_given))
        fail(STATUS_USAGE, options.order_given ? "--order" : "--mics",
             "describes one multi-channel file, but two input files are given");
    return options;
}
