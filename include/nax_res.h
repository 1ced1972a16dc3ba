/**
 * @file
 * A residual echo suppressor to run behind nax_aec.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 *
 * @par What it does
 * A linear canceller leaves the echo that its filter cannot model: the room's late
 * reverberation, the distortion of a loudspeaker, and all of the echo until it has
 * converged. This library attenuates that residual echo, frequency by frequency, in the
 * output of nax_aec_short. A listener at the far end then hears the near-end talker and
 * the noise of the room. The library estimates the residual echo while it runs. A neural
 * network of 40,000 weights, which is part of the library, judges how much of each
 * frequency band is the near-end talker. There is nothing to set, to load or to train.
 * While nothing is played, the microphones pass unchanged.
 *
 * It is a library of its own, libnax_res, of the same version as nax_aec. It uses only the
 * signals of nax_aec.
 *
 * @par What it refuses to do
 * Formats that nax_aec does not serve. It reduces no noise, controls no level and cancels
 * no echo. Without a canceller in front it could only mute echo and near end together.
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
 * The library starts no thread, takes no lock and writes to nothing outside its states. A
 * state may be used by one thread at a time. Different states may be created and run on
 * different threads at the same time. Each call says whether it is fit for real-time use.
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
 * The state of one audio stream. Opaque. nax_res_state_init creates it and
 * nax_res_state_destroy releases it.
 */
typedef struct nax_res_state nax_res_state;

/**
 * Creates the state of one audio stream.
 *
 * @param sample_rate      8000, 16000, 32000 or 48000, in Hz.
 * @param num_src_channel  M, 1 or 2.
 * @param num_ref_channel  R, 1 or more. The same as for nax_aec_state_init: dropped
 *                         references are counted.
 * @return the new state, which the caller releases by nax_res_state_destroy, or null when
 * the format is not supported or memory is short.
 *
 * All memory of a state is allocated here: 46 to 72 KB depending on the rate, 50 KB per
 * microphone and 3 KB per reference. The weights of the network, 45 KB, are constants that
 * all states of all processes share.
 *
 * Threads: any.
 *
 * Real time: no, it allocates.
 */
nax_res_state *nax_res_state_init(int32_t sample_rate, int32_t num_src_channel,
                                  int32_t num_ref_channel);

/**
 * Suppresses the residual echo of one frame.
 *
 * @param state  from nax_res_state_init.
 * @param aec    F x (M + R) samples, the output out of nax_aec_short: the cleaned
 *               microphones, then the aligned references, zeros for dropped ones.
 * @param echo   F x M samples, the output echo of nax_aec_short: the echo that was removed
 *               from each microphone.
 * @param out    F x M samples are written: the suppressed microphones of the frame before
 *               this one. The first call writes silence.
 * @return 0, or -1 when any argument is null; then nothing is read or written.
 *
 * Call it once per frame, for every frame and in order. nax_aec_short must be given
 * buffers for both outputs. When the echo stops or the canceller restarts, nothing needs
 * to be done: the suppressor follows within a second. After a gap in the audio continue
 * with the same state or create a new one.
 *
 * Aliasing: out may be the same buffer as echo or as aec. Both are read completely before
 * out is written.
 *
 * Threads: one at a time per state.
 *
 * Real time: yes. No allocation, no lock, no system call, less than 8 KB of stack. The
 * floating-point mode is restored on return.
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
