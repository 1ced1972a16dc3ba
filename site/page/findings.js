// What is wrong with a recording, and what its parameters are: pure functions.

const FRAME_S = 0.016;
const SILENT_DBFS = -80;
const SHORTEST_S = 2;
const LONGEST_S = 900; // more would need more memory than a phone's browser gives
const SETTLED = 0.5; // share of the frames, the last ones, in which the delay has been found

/** What each verdict of the meter asks for. */
const CURES = {
    'no-microphone': 'Check that the right file is the microphone and that its level is not 0.',
    'no-reference': 'Check that the right file is the reference.',
    'not-heard': 'See whether the reference is the right file, and whether the loudspeaker was on.',
    'not-cancelling': 'Check that the files are not swapped and begin at the same moment.',
    'reference-is-microphone': 'Check that the reference is what is played, not what a microphone heard.',
    clipped: 'Lower the level of the microphone or of what is played.',
    'delay-moves': 'Look for samples that the recording lost, or for two clocks.',
};

/** Before it is cleaned: why a recording cannot be judged, or null. Levels in dBFS. */
export function unusable({ seconds, micDbfs, refDbfs }) {
    if (seconds < SHORTEST_S) return `The recording is ${seconds.toFixed(1)} s long; ${SHORTEST_S} s are needed.`;
    if (seconds > LONGEST_S) return `The recording is longer than ${LONGEST_S / 60} minutes. Choose a part of it.`;
    if (micDbfs < SILENT_DBFS) return 'The microphone file is silent. Nothing can be cleaned.';
    if (refDbfs < SILENT_DBFS) return 'The reference file is silent. Without what was played no echo can be found.';
    return null;
}

/** The delay in samples that stood longest in the settled part, or null where there is none. */
export function settledDelay(delays) {
    const counts = new Map();
    for (const delay of delays.slice(Math.floor(delays.length * SETTLED)))
        counts.set(delay, (counts.get(delay) ?? 0) + 1);
    return [...counts].reduce((best, entry) => (entry[1] > best[1] ? entry : best), [null, 0])[0];
}

/** What is worth knowing: [{ text, alarm }], the first the verdict. */
export function findings({
    report,
    alarms,
    longestMs,
    micSeconds,
    refSeconds,
    sameMics,
    sameRefs,
    micSilent,
    refSilent,
}) {
    const found = [said(report.text, report)];
    for (const { verdict, text } of alarms)
        if (verdict !== report.verdict) found.push(said(`for some time ${text}`, { verdict, alarm: true }));
    if (report.verdict === 'not-cancelling') found.push({ alarm: true, text: distance(report.likenessMs, longestMs) });
    if (Math.abs(micSeconds - refSeconds) > FRAME_S) {
        const [longer, shorter] = micSeconds > refSeconds ? ['microphone', 'reference'] : ['reference', 'microphone'];
        found.push({
            alarm: false,
            text:
                `The ${longer} is ${Math.abs(micSeconds - refSeconds).toFixed(1)} s longer ` +
                `than the ${shorter}; what is more is left out.`,
        });
    }
    if (sameMics) found.push({ alarm: false, text: 'Both channels of the microphone are the same; one is used.' });
    if (sameRefs) found.push({ alarm: false, text: 'Both channels of the reference are the same; one is used.' });
    if (micSilent) found.push({ alarm: true, text: 'One channel of the microphone is silent.' });
    if (refSilent) found.push({ alarm: true, text: 'One channel of the reference is silent.' });
    return found;
}

/** Where the echo seems to be when it is not cancelled. */
function distance(ms, longestMs) {
    const where = `The echo seems to come ${Math.abs(ms).toFixed(0)} ms ${ms < 0 ? 'before' : 'after'} the reference`;
    if (ms < 0) return `${where}: the microphone file begins too late, or the files are swapped.`;
    return ms > longestMs ? `${where}; at this rate ${longestMs.toFixed(0)} ms are served.` : `${where}.`;
}

/** A verdict as a sentence, and what to do about it. */
function said(text, { verdict, alarm }) {
    return { text: `${text[0].toUpperCase()}${text.slice(1)}. ${CURES[verdict] ?? ''}`.trim(), alarm };
}

/** The parameters of a product with this delay, as C. */
export function parameters(rate, mics, refs, delay) {
    const line = `.delay_len = ${delay},`.padEnd(44);
    return `const nax_aec_param param = {
    .pos = 1,                                   /* microphones first */
    .model_aec_en = NAX_AEC_DELAY_ESTIMATION,
    ${line}/* ${((1000 * delay) / rate).toFixed(0)} ms: where the search starts */
};
nax_aec_state *state = nax_aec_state_init(${rate}, 16, ${mics}, ${refs}, &param);
nax_res_state *suppressor = nax_res_state_init(${rate}, ${mics}, ${refs});`;
}
