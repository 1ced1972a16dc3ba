/**
 * @file
 * The two debug dumps of nax_aec_byte.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 *
 * Both variables start out null, which means off. An application turns a dump on
 * by storing a stream that it opened for writing, and off by storing null again;
 * it closes what it opened, after the last call that may write to it. They are
 * shared by all states of the process, and each call of nax_aec_byte that passes
 * its argument checks appends one block to each open stream: headerless signed
 * 16-bit samples in host byte order, aec_out first. Nothing is flushed and write
 * errors are ignored. An open dump makes nax_aec_byte write to a file on the
 * audio thread: for debugging only.
 */
#ifndef NAX_AEC_DUMP_H
#define NAX_AEC_DUMP_H

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The interleaved input of the canceller: M microphones, then K references not
 * yet aligned, len / 2 - F x D samples a call. (When pos is 1, nothing is dropped
 * and no table is given, or when pos is neither 0 nor 1, no such selection is made
 * and the dump holds zeros.)
 */
extern FILE *aec_out;

/**
 * F x M samples a call of the caller's echo buffer, which must not be null while
 * this stream is open.
 */
extern FILE *echo_out;

#ifdef __cplusplus
}
#endif

#endif
