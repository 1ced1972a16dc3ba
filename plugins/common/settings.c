/*
 * Settings from texts.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "settings.h"

#include <stdlib.h>
#include <string.h>

const struct settings DEFAULT_SETTINGS = {
    .mics = 1, .refs = 1, .mics_first = true, .delay_estimation = true};

/* Reads a number. Returns the place of the first character behind it, or null. */
static const char *read_number(const char *text, int low, int high, int *value)
{
    char *end;
    const long number = strtol(text, &end, 10);
    if (end == text || number < low || number > high) return NULL;
    *value = (int)number;
    return end;
}

static bool set_number(const char *text, int low, int high, int *value)
{
    const char *end = read_number(text, low, high, value);
    return end && !*end;
}

static bool set_switch(const char *text, bool *value)
{
    static const char *const words[][2] = {
        {"yes", "no"}, {"true", "false"}, {"on", "off"}, {"1", "0"}};
    for (size_t i = 0; i < sizeof words / sizeof words[0]; i++)
        for (int no = 0; no < 2; no++)
            if (!strcmp(text, words[i][no])) {
                *value = !no;
                return true;
            }
    return false;
}

static bool set_order(const char *text, bool *mics_first)
{
    *mics_first = !strcmp(text, "mics-first");
    return *mics_first || !strcmp(text, "refs-first");
}

static bool set_remap(const char *text, struct settings *settings)
{
    settings->remap_count = 0;
    if (!*text) return true;
    while (settings->remap_count < MAX_MICS) {
        int *entry = &settings->remap[settings->remap_count++];
        text = read_number(text, 0, MAX_CHANNELS - 1, entry);
        if (!text || !*text) return text != NULL;
        if (*text++ != ',') return false;
    }
    return false;
}

const char *settings_set(struct settings *settings, const char *name, const char *text)
{
    if (!strcmp(name, "mics"))
        return set_number(text, 1, MAX_MICS, &settings->mics) ? NULL : "is not 1 or 2";
    if (!strcmp(name, "refs"))
        return set_number(text, 1, MAX_REFS, &settings->refs) ? NULL
                                                              : "is not a number from 1 to 30";
    if (!strcmp(name, "order"))
        return set_order(text, &settings->mics_first) ? NULL
                                                      : "is neither mics-first nor refs-first";
    if (!strcmp(name, "drop"))
        return set_number(text, 0, MAX_REFS, &settings->drop) ? NULL
                                                              : "is not a number from 0 to 30";
    if (!strcmp(name, "delay"))
        return set_number(text, 0, MAX_DELAY, &settings->delay)
                   ? NULL
                   : "is not a number of samples from 0 to 12288";
    if (!strcmp(name, "delay-estimation"))
        return set_switch(text, &settings->delay_estimation) ? NULL : "is neither yes nor no";
    if (!strcmp(name, "suppress"))
        return set_switch(text, &settings->suppress) ? NULL : "is neither yes nor no";
    if (!strcmp(name, "remap"))
        return set_remap(text, settings) ? NULL : "is not one or two channels from 0, as in 1,0";
    return "is no setting";
}

const char *settings_check(const struct settings *settings)
{
    if (settings->drop > settings->refs) return "drop is more than refs";
    if (settings->remap_count > 0 && settings->remap_count != settings->mics)
        return "remap does not name as many channels as mics says";
    for (int m = 0; m < settings->remap_count; m++)
        if (settings->remap[m] >= settings->mics + settings->refs)
            return "remap names a channel beyond the microphones and references";
    return NULL;
}
