/*
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#define _POSIX_C_SOURCE 200809L /* stat */

#include "output.h"

#include "options.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

enum { MAX_FILES = 16 };

void claim(const char *path, bool is_output)
{
    static struct stat used[MAX_FILES];
    static int used_count;
    struct stat now;
    if (stat(path, &now) != 0 || !S_ISREG(now.st_mode)) return;
    for (int i = 0; is_output && i < used_count; i++)
        if (used[i].st_dev == now.st_dev && used[i].st_ino == now.st_ino)
            fail(STATUS_USAGE, path, "is already an input or another output");
    if (used_count < MAX_FILES) used[used_count++] = now;
}

SNDFILE *create_wav(const char *path, int rate, size_t channels)
{
    SF_INFO info = {
        .samplerate = rate, .channels = (int)channels, .format = SF_FORMAT_WAV | SF_FORMAT_PCM_16};
    if (!path) return NULL;
    claim(path, true);
    SNDFILE *file = sf_open(path, SFM_WRITE, &info);
    if (!file) fail_sndfile(path, NULL);
    claim(path, false);
    return file;
}

void fail_sndfile(const char *path, SNDFILE *file)
{
    const char *reason = sf_strerror(file);
    const char *colon = strstr(reason, " : "); /* behind "System error" */
    reason = colon ? colon + 3 : reason;
    const int length = (int)strcspn(reason, ".\n");
    if (strstr(reason, "pipe write")) fail(STATUS_FAILED, path, "is a pipe, which cannot hold WAV");
    if (strstr(reason, "SF_INFO")) fail(STATUS_FAILED, path, "says no rate; mend its header");
    if (strstr(reason, "ormat"))
        fail(STATUS_FAILED, path, "%.*s; convert it, for instance by ffmpeg -i %s OTHER.wav",
             length, reason, path);
    fail(STATUS_FAILED, path, "%.*s", length, reason);
}

void finish_stdout(void)
{
    const int error = fflush(stdout) != 0 ? errno : 0;
    if (error || ferror(stdout))
        fail(STATUS_FAILED, "standard output", "%s", error ? strerror(error) : "cannot be written");
}
