// Cleans a whole recording, out of the way of the page. Gets { mic, ref, rate, mics, refs },
// interleaved floats; posts { progress } from 0 to 1, then the results, or { failed }.
import { load, NaxAec } from './nax_aec.js';

const PIECE_FRAMES = 250; // 4 s between reports of progress

self.onmessage = async ({ data: { mic, ref, rate, mics, refs } }) => {
    try {
        await load();
        const aec = new NaxAec(rate, mics, refs, { suppress: true, meter: true });
        const frame = aec.frameSize,
            frames = Math.ceil(mic.length / mics / frame) + 1; // one for the suppressor
        const filled = (audio, channels) => {
            const whole = new Float32Array(frames * frame * channels);
            whole.set(audio.subarray(0, Math.min(audio.length, whole.length)));
            return whole;
        };
        const near = filled(mic, mics),
            far = filled(ref, refs);
        const suppressed = new Float32Array(near.length),
            echo = new Float32Array(near.length);
        const delays = new Int32Array(frames),
            verdicts = new Map();
        for (let i = 0; i < frames; i += PIECE_FRAMES) {
            const end = Math.min(frames, i + PIECE_FRAMES);
            const part = (audio, channels) => audio.subarray(i * frame * channels, end * frame * channels);
            aec.process(part(near, mics), part(far, refs), {
                cleaned: part(suppressed, mics),
                echo: part(echo, mics),
                delays: delays.subarray(i, end),
            });
            const { verdict, text, alarm } = aec.report();
            verdicts.set(verdict, { verdict, text, alarm });
            postMessage({ progress: end / frames });
        }
        const report = aec.report();
        aec.close();
        const n = mic.length,
            late = frame * mics;
        const cancelled = near.map((x, t) => x - echo[t]).subarray(0, n);
        postMessage({
            cancelled,
            suppressed: suppressed.subarray(late, late + n),
            echo: echo.subarray(0, n),
            delays,
            report,
            alarms: [...verdicts.values()].filter(({ alarm }) => alarm),
        });
    } catch (error) {
        postMessage({ failed: error.message });
    }
};
