// The second part: the visitor's own recording.
import { channelsOf, decibels, decode, interleave, powers, Unusable, wavFile } from './audio.js';
import { Comparison, element } from './comparison.js';
import { findings, parameters, settledDelay, unusable } from './findings.js';

const STEP_S = 0.25; // of the charts
const FAR_END = 1e-6; // mean power above which the reference counts as playing, -60 dBFS
const MOST_MICS = 2;
const LONGEST_DELAY = 12288,
    FRAME_MS = 16; // samples, less a frame

export class Recording {
    #host;
    #comparison;
    #worker;
    #saved = [];

    constructor(host) {
        this.#host = host;
        this.#comparison = new Comparison(host.querySelector('.comparison'));
        host.querySelector('form').addEventListener('submit', event => {
            event.preventDefault();
            this.#run();
        });
        this.#takeDrops(host.querySelector('.drop'));
    }

    // Two files dropped anywhere on the form; one dropped on an input is the browser's matter.
    #takeDrops(form) {
        form.addEventListener('dragover', event => event.preventDefault());
        form.addEventListener('drop', event => {
            if (event.target.matches('input[type=file]')) return;
            event.preventDefault();
            const files = [...event.dataTransfer.files];
            const isRef = ({ name }) => /ref|lpb|loop|far|speaker|play/i.test(name);
            files.sort((a, b) => isRef(a) - isRef(b));
            for (const [i, input] of [...form.querySelectorAll('input[type=file]')].entries()) {
                if (!files[i]) continue;
                const list = new DataTransfer();
                list.items.add(files[i]);
                input.files = list.files;
            }
        });
    }

    #say(text, isProblem = false) {
        const status = this.#host.querySelector('[role=status]');
        status.textContent = text;
        status.classList.toggle('problem', isProblem);
    }

    /** Cleans what is chosen; a run before that has not ended is given up. */
    async #run() {
        this.#worker?.terminate();
        this.#comparison.close();
        this.#results.replaceChildren();
        this.#bar.hidden = false;
        this.#bar.value = 0;
        const worker = (this.#worker = new Worker('recording_worker.js', { type: 'module' }));
        try {
            const begun = performance.now(),
                input = await this.#input();
            if (worker !== this.#worker) return;
            this.#say('Cleaning …');
            const result = await cleaned(worker, input, share => {
                this.#bar.value = share;
            });
            if (worker !== this.#worker) return;
            this.#show(input, result);
            this.#say(
                `Done: ${input.seconds.toFixed(1)} s of sound in ${((performance.now() - begun) / 1000).toFixed(1)} s.`,
            );
        } catch (error) {
            if (worker !== this.#worker) return;
            this.#say(error instanceof Unusable ? error.message : `It failed: ${error.message}`, true);
        }
        worker.terminate();
        this.#bar.hidden = true;
    }

    get #bar() {
        return this.#host.querySelector('progress');
    }
    get #results() {
        return this.#host.querySelector('.results');
    }

    // The audio of the chosen files, and what was noticed on the way.
    async #input() {
        const rate = Number(this.#host.querySelector('select').value);
        const [micFile, refFile] = [...this.#host.querySelectorAll('input[type=file]')].map(({ files }) => files[0]);
        if (!micFile || !refFile) throw new Unusable('Choose both files: the microphone and the reference.');
        this.#say('Reading …');
        const [mic, ref] = await Promise.all(
            [micFile, refFile].map(async file => decode(await file.arrayBuffer(), rate, file.name)),
        );
        if (!same(mic) && mic.length > MOST_MICS)
            throw new Unusable(`${micFile.name} has ${mic.length} channels; 1 or 2 microphones are served.`);
        const mics = same(mic) ? mic.slice(0, 1) : mic,
            refs = same(ref) ? ref.slice(0, 1) : ref;
        const n = Math.min(mic[0].length, ref[0].length),
            seconds = n / rate;
        const level = samples => decibels(powers(samples.subarray(0, n), n)[0] ?? 0);
        const micDbfs = mics.map(level),
            refDbfs = refs.map(level);
        const problem = unusable({ seconds, micDbfs: Math.max(...micDbfs), refDbfs: Math.max(...refDbfs) });
        if (problem) throw new Unusable(problem);
        return {
            rate,
            n,
            seconds,
            mics,
            refs,
            micSeconds: mic[0].length / rate,
            refSeconds: ref[0].length / rate,
            sameMics: same(mic),
            sameRefs: same(ref),
            micSilent: Math.min(...micDbfs) < -80,
            refSilent: Math.min(...refDbfs) < -80,
        };
    }

    #show(input, result) {
        const { rate, mics, refs, n } = input;
        const delay = settledDelay(result.delays);
        const outputs = {
            mic: mics.map(samples => samples.subarray(0, n)),
            cancelled: channelsOf(result.cancelled, mics.length),
            suppressed: channelsOf(result.suppressed, mics.length),
            echo: channelsOf(result.echo, mics.length),
        };
        const list = findings({ ...input, ...result, longestMs: 1000 * (LONGEST_DELAY / rate) - FRAME_MS }).map(
            ({ text, alarm }) => element('li', alarm ? { class: 'alarm' } : {}, text),
        );
        const isFound = result.report.verdict === 'cancelling';
        const ms = ((1000 * delay) / rate).toFixed(0);
        const [byAec, byBoth] = [outputs.cancelled, outputs.suppressed].map(output =>
            removedMostly(outputs.mic, output, refs, rate),
        );
        const found =
            (isFound ? `Delay found: ${delay} samples, ${ms} ms. ` : 'No delay was found. ') +
            `Removed while the far end is active (median): ${byAec} dB by the canceller, ${byBoth} dB with the suppressor.`;
        this.#results.replaceChildren(
            element('h3', {}, 'What was found'),
            element('p', { class: 'figures' }, found),
            element('ul', { class: 'findings' }, ...list),
            element('h3', {}, 'The parameters in C'),
            element(
                'pre',
                { tabindex: 0, role: 'region', 'aria-label': 'Parameters in C' },
                element('code', {}, parameters(rate, mics.length, refs.length, isFound ? delay : 0)),
            ),
            element('p', { class: 'save' }, ...this.#downloads(outputs, rate)),
            element('h3', {}, 'Compare'),
        );
        const tracks = [
            ['Microphone', 'as it was recorded', outputs.mic],
            ['nax_aec', 'the canceller alone', outputs.cancelled],
            ['nax_aec and nax_res', 'the canceller and the suppressor', outputs.suppressed],
            ['Echo', 'what the canceller took out', outputs.echo],
            ['Reference', 'what was played', refs.slice(0, 2).map(samples => samples.subarray(0, n))],
        ].map(([name, note, channels]) => ({ name, note, channels }));
        this.#comparison.show({
            tracks,
            duration: n / rate,
            rate,
            charts: chartsOf(outputs, refs, result.delays, rate),
        });
    }

    #downloads(outputs, rate) {
        this.#saved.forEach(URL.revokeObjectURL);
        this.#saved = [];
        return [
            ['suppressed', 'cleaned and suppressed'],
            ['cancelled', 'cleaned by the canceller alone'],
        ].flatMap(([key, text]) => {
            const url = URL.createObjectURL(wavFile(outputs[key], rate));
            this.#saved.push(url);
            return [element('a', { href: url, download: `${key}.wav` }, `Save ${key}.wav`), ` (${text}) `];
        });
    }
}

/** Whether all channels hold the same samples. */
function same(channels) {
    return channels.length > 1 && channels.slice(1).every(samples => samples.every((x, t) => x === channels[0][t]));
}

/** The worker's results. */
function cleaned(worker, { mics, refs, n, rate }, onProgress) {
    return new Promise((resolve, reject) => {
        worker.onmessage = ({ data }) => {
            if (data.failed) reject(new Error(data.failed));
            else if (data.progress) onProgress(data.progress);
            else resolve(data);
        };
        worker.onerror = event => reject(new Error(event.message ?? 'the worker could not be started'));
        const mic = interleave(mics, n),
            ref = interleave(refs, n);
        worker.postMessage({ mic, ref, rate, mics: mics.length, refs: refs.length }, [mic.buffer, ref.buffer]);
    });
}

// Sums over channels of the powers in each STEP_S.
function stepPowers(channels, rate) {
    return channels
        .map(samples => powers(samples, STEP_S * rate))
        .reduce((sums, row) => sums.map((x, i) => x + row[i]));
}

/** Energy removed in dB in each STEP_S of far end, null where there is none. */
function removedOverTime(mic, output, refs, rate) {
    const [before, after, far] = [mic, output, refs].map(channels => stepPowers(channels, rate));
    return before.map((power, i) => (far[i] > FAR_END ? decibels(power, after[i]) : null));
}

/** Its median, which a near end that talks less than half of the time leaves alone. */
function removedMostly(...audio) {
    const sorted = removedOverTime(...audio)
        .filter(Number.isFinite)
        .sort((a, b) => a - b);
    return (sorted[sorted.length >> 1] ?? 0).toFixed(0);
}

function chartsOf(outputs, refs, delays, rate) {
    const line = (name, track, output) => ({
        name,
        track,
        values: removedOverTime(outputs.mic, output, refs, rate),
    });
    const lines = [line('nax_aec', 3, outputs.cancelled), line('nax_aec and nax_res', 4, outputs.suppressed)];
    return [
        {
            title: 'Removed while the far end is active',
            unit: 'dB',
            times: lines[0].values.map((_, i) => (i + 0.5) * STEP_S),
            lines,
        },
        {
            title: 'Delay applied',
            unit: 'ms',
            times: Array.from(delays, (_, i) => i * 0.016),
            lines: [{ name: 'delay', track: 3, values: Array.from(delays, delay => (1000 * delay) / rate) }],
        },
    ];
}
