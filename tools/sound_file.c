/*
 * Reading over libsndfile, other rates over libsamplerate, which pulls the file through a
 * callback.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#define _POSIX_C_SOURCE 200809L /* stat */

#include "sound_file.h"

#include "options.h"
#include "output.h"

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

enum { PIECE = 4096 };                          /* sample instants */
enum { LOWEST_HZ = 1000, HIGHEST_HZ = 768000 }; /* a rate beyond is a header's fault */
enum { HEADER_SLACK = 8 };                      /* bytes that careless writers count twice */
enum { LENGTH_NOT_KNOWN = 0x7ffff000 };         /* bytes: from here on, a recorder's placeholder */
enum { CONVERTER = SRC_SINC_MEDIUM_QUALITY };   /* 121 dB, nine tenths of the band */

int library_rate(int rate)
{
    return rate <= 8000 ? 8000 : rate <= 16000 ? 16000 : rate <= 32000 ? 32000 : 48000;
}

void sound_open(struct sound_file *sound, const char *path)
{
    SF_INFO info = {0};
    struct stat found;
    if (stat(path, &found) == 0) { /* libsndfile would only miss its format */
        if (S_ISDIR(found.st_mode)) fail(STATUS_FAILED, path, "Is a directory");
        if (S_ISREG(found.st_mode) && found.st_size == 0) fail(STATUS_FAILED, path, "is empty");
    }
    *sound = (struct sound_file){.path = path, .file = sf_open(path, SFM_READ, &info)};
    if (!sound->file) fail_sndfile(path, NULL);
    if (info.samplerate < LOWEST_HZ || info.samplerate > HIGHEST_HZ)
        fail(STATUS_FAILED, path, "says %d Hz, which no recording has; mend its header",
             info.samplerate);
    if (info.frames <= 0) fail(STATUS_FAILED, path, "holds no samples");
    sound->channels = info.channels;
    sound->file_rate = sound->rate = info.samplerate;
    sound->length = sound->left = info.frames;
    sound->taken = calloc((size_t)PIECE * (size_t)info.channels, sizeof *sound->taken);
    if (!sound->taken) fail(STATUS_FAILED, path, "needs more memory than there is");
}

/* libsndfile takes the length that a file has. Where its header says another, libsndfile's log
 * holds "ANNOUNCED (should be HELD)", both in bytes, for each part of the file. */
void sound_note_cut_short(const struct sound_file *sound)
{
    char log[8192] = "";
    sf_command(sound->file, SFC_GET_LOG_INFO, log, sizeof log);
    static const char BETWEEN[] = " (should be ";
    for (const char *at = log; (at = strstr(at, ": ")); at++) {
        char *end;
        const unsigned long long announced = strtoull(at + 2, &end, 10);
        if (end == at + 2 || strncmp(end, BETWEEN, sizeof BETWEEN - 1) != 0) continue;
        const unsigned long long held = strtoull(end + sizeof BETWEEN - 1, NULL, 10);
        if (announced <= held + HEADER_SLACK || announced >= LENGTH_NOT_KNOWN) continue;
        complain(sound->path, "is cut short: %llu of the %llu bytes that its header announces",
                 held, announced);
        return;
    }
}

/* The next piece of the file, of at most count sample instants. */
static long take(struct sound_file *sound, long count)
{
    if (count > PIECE) count = PIECE;
    if (count > sound->left) count = (long)sound->left;
    if (count > 0 && sf_readf_float(sound->file, sound->taken, count) != count)
        fail(STATUS_FAILED, sound->path, "ends before its header says");
    sound->left -= count;
    return count;
}

static long pull(void *context, float **data)
{
    struct sound_file *sound = context;
    *data = sound->taken;
    return take(sound, PIECE);
}

void sound_convert(struct sound_file *sound, int rate)
{
    if (rate == sound->file_rate) return;
    int error = 0;
    sound->converter = src_callback_new(pull, CONVERTER, sound->channels, &error, sound);
    if (!sound->converter)
        fail(STATUS_FAILED, sound->path, "cannot be brought to %d Hz: %s", rate,
             src_strerror(error));
    sound->rate = rate;
    sound->length = (sf_count_t)((double)sound->length * rate / sound->file_rate);
    if (sound->length == 0) fail(STATUS_FAILED, sound->path, "holds no samples");
}

static int16_t to_int16(struct sound_file *sound, float sample)
{
    if (isnan(sample)) fail(STATUS_FAILED, sound->path, "holds samples that are not numbers");
    if (fabsf(sample) > 1) sound->cut_off++;
    return (int16_t)lrintf(fmaxf(-32768, fminf(32767, sample * 32768)));
}

void sound_read(struct sound_file *sound, int16_t *to, int count)
{
    const size_t width = (size_t)sound->channels;
    while (count > 0) {
        const long wanted = count < PIECE ? count : PIECE;
        float converted[PIECE];
        float *from = sound->taken;
        long got;
        if (sound->converter) {
            const long room = (long)(PIECE / width);
            got = src_callback_read(sound->converter, (double)sound->rate / sound->file_rate,
                                    wanted < room ? wanted : room, converted);
            from = converted;
        } else {
            got = take(sound, wanted);
        }
        if (got <= 0) break;
        for (size_t i = 0; i < (size_t)got * width; i++)
            *to++ = to_int16(sound, from[i]);
        count -= (int)got;
    }
    memset(to, 0, (size_t)count * width * sizeof *to);
}

void sound_close(struct sound_file *sound)
{
    if (sound->converter) src_delete(sound->converter);
    sf_close(sound->file);
    free(sound->taken);
}
