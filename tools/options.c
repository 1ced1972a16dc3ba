/*
 * Command lines by table, over getopt_long.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "options.h"

#include "output.h"

#include <getopt.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* What getopt_long returns for an option: its place among the shared ones, the program's
 * own behind them; apart from the characters by which it reports errors. */
enum { FIRST_OPTION = 256 };
enum { ORDER, MICS, DROP, REMAP, DELAY, LOOK_AHEAD, NO_ESTIMATION, HELP, VERSION, SHARED };

static void complain_v(const char *subject, const char *format, va_list arguments)
{
    fprintf(stderr, "%s: %s: ", PROGRAM, subject);
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

bool is_supported_rate(int rate)
{
    return rate == 8000 || rate == 16000 || rate == 32000 || rate == 48000;
}

static int parse_int(const char *option, const char *text, int low, int high)
{
    char *end;
    const long value = strtol(text, &end, 10);
    if (end == text || *end || value < low || value > high)
        fail(STATUS_USAGE, option, "'%s' is not a number from %d to %d", text, low, high);
    return (int)value;
}

static double parse_seconds(const char *option, const char *text)
{
    char *end;
    const double value = strtod(text, &end);
    if (end == text || *end || !(value > 0) || value > 1e6)
        fail(STATUS_USAGE, option, "'%s' is not a time in seconds, up to 1000000", text);
    return value;
}

static int parse_order(const char *text)
{
    if (!strcmp(text, "mics-first")) return MICS_FIRST;
    if (!strcmp(text, "refs-first")) return REFS_FIRST;
    fail(STATUS_USAGE, "--order", "'%s' is neither mics-first nor refs-first", text);
}

static void parse_remap(struct words *words, const char *text, int last)
{
    char entries[32];
    if (strlen(text) >= sizeof entries)
        fail(STATUS_USAGE, "--remap", "'%s' is not one or two channel numbers", text);
    strcpy(entries, text);
    char *second = strchr(entries, ',');
    if (second) *second++ = '\0';
    words->remap[0] = (int16_t)parse_int("--remap", entries, 0, last);
    if (second) words->remap[1] = (int16_t)parse_int("--remap", second, 0, last);
    words->remap_count = second ? 2 : 1;
}

static void apply_shared(struct words *words, int max_refs, int option, const char *value)
{
    switch (option) {
    case ORDER: words->order = parse_order(value); break;
    case MICS: words->mics = parse_int("--mics", value, 1, MAX_MICS); break;
    case DROP: words->drop = parse_int("--drop", value, 0, max_refs); break;
    case REMAP: parse_remap(words, value, MAX_MICS + max_refs - 1); break;
    case DELAY: words->delay = parse_int("--delay", value, 0, MAX_DELAY); break;
    case LOOK_AHEAD: words->look_ahead = parse_int("--look-ahead", value, 0, MAX_DELAY); break;
    case NO_ESTIMATION: words->estimate = false; break;
    case HELP:
        fputs(USAGE, stdout);
        finish_stdout();
        exit(EXIT_SUCCESS);
    default:
        printf("%s (nax_aec) %d.%d.%d\n", PROGRAM, NAX_AEC_VERSION_MAJOR, NAX_AEC_VERSION_MINOR,
               NAX_AEC_VERSION_PATCH);
        finish_stdout();
        exit(EXIT_SUCCESS);
    }
}

static void apply_own(const struct option_rule *rule, const char *text)
{
    char option[32];
    snprintf(option, sizeof option, "--%s", rule->name);
    switch (rule->kind) {
    case TEXT: *(const char **)rule->value = text; break;
    case NUMBER: *(int *)rule->value = parse_int(option, text, rule->low, rule->high); break;
    case SECONDS: *(double *)rule->value = parse_seconds(option, text); break;
    case FLAG: *(bool *)rule->value = true; break;
    }
}

int parse_options(struct words *words, int max_refs, const struct option_rule *own, int argc,
                  char **argv)
{
    struct option table[64] = {
        [ORDER] = {"order", required_argument, 0, FIRST_OPTION + ORDER},
        [MICS] = {"mics", required_argument, 0, FIRST_OPTION + MICS},
        [DROP] = {"drop", required_argument, 0, FIRST_OPTION + DROP},
        [REMAP] = {"remap", required_argument, 0, FIRST_OPTION + REMAP},
        [DELAY] = {"delay", required_argument, 0, FIRST_OPTION + DELAY},
        [LOOK_AHEAD] = {"look-ahead", required_argument, 0, FIRST_OPTION + LOOK_AHEAD},
        [NO_ESTIMATION] = {"no-delay-estimation", no_argument, 0, FIRST_OPTION + NO_ESTIMATION},
        [HELP] = {"help", no_argument, 0, FIRST_OPTION + HELP},
        [VERSION] = {"version", no_argument, 0, FIRST_OPTION + VERSION}};
    for (int i = 0; own[i].name; i++)
        table[SHARED + i] =
            (struct option){own[i].name, own[i].kind == FLAG ? no_argument : required_argument, 0,
                            FIRST_OPTION + SHARED + i};
    *words = (struct words){.order = NOT_GIVEN, .mics = NOT_GIVEN, .estimate = true};
    int option;
    while ((option = getopt_long(argc, argv, ":", table, NULL)) != -1) {
        if (option == ':') fail(STATUS_USAGE, argv[optind - 1], "needs a value");
        if (option == '?') {
            const char letter[] = {'-', (char)optopt, '\0'};
            if (optopt >= FIRST_OPTION) fail(STATUS_USAGE, argv[optind - 1], "takes no value");
            fail(STATUS_USAGE, optopt ? letter : argv[optind - 1], "no such option, see %s --help",
                 PROGRAM);
        }
        if (option < FIRST_OPTION + SHARED)
            apply_shared(words, max_refs, option - FIRST_OPTION, optarg);
        else
            apply_own(&own[option - FIRST_OPTION - SHARED], optarg);
    }
    return optind;
}

nax_aec_param param_of(const struct words *words)
{
    return (nax_aec_param){
        .pos = words->order,
        .drop_channel = words->drop,
        .model_aec_en = (words->estimate ? NAX_AEC_DELAY_ESTIMATION : 0) |
                        (words->remap_count > 0 ? NAX_AEC_REMAP : 0),
        .delay_len = words->delay,
        .look_ahead = words->look_ahead,
        .array_list = words->remap,
    };
}
