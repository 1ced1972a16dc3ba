/*
 * The files that cancel_wav and live_alsa write.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef OUTPUT_H
#define OUTPUT_H

#include <sndfile.h>
#include <stdbool.h>
#include <stddef.h>

/* Refuses a regular file that is already in use, so that no output overwrites an input or
 * another output, and notes it as in use. Links and other spellings of a path do not hide
 * a file. */
void claim(const char *path, bool is_output);

/* Creates a 16-bit WAV file. Returns null for no path; ends the program where that cannot be. */
SNDFILE *create_wav(const char *path, int rate, size_t channels);

/* Ends the program with libsndfile's reason. */
__attribute__((noreturn)) void fail_sndfile(const char *path, SNDFILE *file);

/* Ends the program where standard output could not be written. Call it last. */
void finish_stdout(void);

#endif
