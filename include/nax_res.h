/**
 * @file
 * A residual echo suppressor to run behind nax_aec.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 *
 * @par What it does
 * A linear canceller leaves what its filter cannot explain: the room's late tail, what a
 * loudspeaker distorts, all of the echo until it has converged. This library attenuates
 * that, frequency by frequency, in the output of nax_aec_short, so that a listener at the
 * far end hears the near-end talker and the noise of the room, and no echo. It learns by
 * itself how much echo the canceller leaves; there is nothing to set. While nothing is
 * played the microphones pass unchanged.
 *
 * It is a library of its own, libnax_res, of the same version as nax_aec, of which it
 * needs nothing but the signals.
 *
 * @par What it refuses to do
 * Formats that nax_aec does not serve. It reduces no noise, changes no level and cancels
 * no echo: without a canceller in front it would have to choose between the echo and the
 * near end where both are as loud.
 *
 * @par Legal formats
 * @code{.unparsed}
 *   sample_rate  frame_size F  delay added
 *     8000 Hz       128        128 samples
 *    16000 Hz       256        256
 *    32000 Hz       512        512
 *    48000 Hz       768        768, always one frame of 16 ms
 *
 *   M microphones (num_src_channel): 1 or 2
 *   R references (num_ref_channel): 1 or more, dropped ones counted
 * @endcode
 * All buffers are interleaved 16-bit samples in host byte order and hold, for each sample
 * instant, one sample per channel. Counts are in samples.
 *
 * @par Use
 * @code{.c}
 *   nax_aec_short(aec, in, cleaned, echo, F * (M + R));
 *   nax_res_short(res, cleaned, echo, out);
 * @endcode
 *
 * @par Threads
 * The library starts no thread, takes no lock and keeps nothing outside its states. A
 * state is used by one thread at a time; different states may run, and be created, on
 * different threads. Real-time use is stated call by call.
 *
 * @par Messages
 * None.
 */
#ifndef NAX_RES_H
#define NAX_RES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The state of one audio stream. Opaque; made by nax_res_state_init and released by
 * nax_res_state_destroy.
 */
typedef struct nax_res_state nax_res_state;

/**
 * Creates the state of one audio stream.
 *
 * @param sample_rate      8000, 16000, 32000 or 48000, in Hz.
 * @param num_src_channel  M, 1 or 2.
 * @param num_ref_channel  R, 1 or more: the same as for nax_aec_state_init, so with the
 *                         references that are dropped there.
 * @return the new state, which the caller releases by nax_res_state_destroy, or null when
 * the format is not supported or memory is short.
 *
 * Everything that a state needs is allocated here: 46 to 72 KB by rate, 52 KB a
 * microphone, 3 KB a reference.
 *
 * Threads: any.
 *
 * Real time: no, it allocates.
 */
nax_res_state *nax_res_state_init(int32_t sample_rate, int32_t num_src_channel,
                                  int32_t num_ref_channel);

/**
 * Suppresses the echo left in one frame.
 *
 * @param state  from nax_res_state_init.
 * @param aec    F x (M + R) samples, the output out of nax_aec_short: the cleaned
 *               microphones, then the aligned references, zeros for dropped ones.
 * @param echo   F x M samples, its output echo: what was taken out of each microphone.
 * @param out    room for F x M samples: the microphones of the frame before this one,
 *               suppressed. The first call gives silence.
 * @return 0, or -1 when any argument is null; then nothing is read or written.
 *
 * Call it once per frame, with the outputs of every frame in turn: nax_aec_short must be
 * given buffers for both. Where the echo stopped or the canceller started anew, no call is
 * needed: the suppressor follows within a second. After a gap in the audio go on likewise,
 * or begin with a new state.
 *
 * Aliasing: out may be the same buffer as echo or as aec, since both are read before it is
 * written.
 *
 * Threads: one at a time per state.
 *
 * Real time: yes, no allocation, no lock, no system call. The floating-point mode is as
 * before when it returns.
 */
int32_t nax_res_short(nax_res_state *state, const int16_t *aec, const int16_t *echo, int16_t *out);

/**
 * Releases a state and everything that it owns.
 *
 * @param state  the state; null is accepted and does nothing.
 *
 * Threads: not while another thread uses the state.
 *
 * Real time: no, it frees.
 */
void nax_res_state_destroy(nax_res_state *state);

#ifdef __cplusplus
}
#endif

#endif
