// The npm package as scripts/wasm made it, in Node.js and in Chromium, beside the native library.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { after, before, test } from 'node:test';

import { frameSize, load, NaxAec } from '../../build/wasm/package/nax_aec.js';
import { openBrowser, ROOT, serve } from './browser.mjs';
import { levelDb, scene, wavFile, wavSamples } from './signals.mjs';

const CANCEL_WAV = path.join(ROOT, 'build/default/tools/cancel_wav');
// Debian's kissfft relaxes the arithmetic; this one computes what its sources say, as ours does.
const EXACT_KISSFFT = path.join(ROOT, 'build/exact/default');

let folder,
    said = '';
before(async () => {
    folder = mkdtempSync(path.join(tmpdir(), 'nax_aec'));
    const script = path.join(ROOT, 'scripts/exact-kissfft');
    execFileSync(script, [path.join(ROOT, 'build/exact/kissfft'), EXACT_KISSFFT, 'cc']);
    await load(undefined, text => {
        said += text;
    });
});
after(() => rmSync(folder, { recursive: true }));

const interleaved = (...channels) =>
    Int16Array.from(
        { length: channels.length * channels[0].length },
        (_, i) => channels[i % channels.length][Math.floor(i / channels.length)],
    );

function native(mic, ref, rate, channels, ...options) {
    const files = ['mic.wav', 'ref.wav', 'cleaned.wav'].map(name => path.join(folder, name));
    writeFileSync(files[0], wavFile(mic, rate, channels));
    writeFileSync(files[1], wavFile(ref, rate, channels));
    const env = { ...process.env, LD_LIBRARY_PATH: EXACT_KISSFFT };
    execFileSync(CANCEL_WAV, ['--quiet', ...options, ...files], { stdio: 'ignore', env });
    return wavSamples(readFileSync(files[2]));
}

function differences(a, b) {
    assert.equal(a.length, b.length);
    let count = 0,
        largest = 0;
    for (let t = 0; t < a.length; t++) {
        count += a[t] !== b[t];
        largest = Math.max(largest, Math.abs(a[t] - b[t]));
    }
    return { count, largest };
}

const ofSize = (rate, seconds) => Math.floor((seconds * rate) / frameSize(rate)) * frameSize(rate);

for (const rate of [8000, 16000, 32000, 48000]) {
    test(`cancels to the native library's samples at ${rate} Hz`, () => {
        const n = ofSize(rate, 3),
            { mic, ref } = scene({ n, delay: rate / 20, from: 2 * rate });
        const aec = new NaxAec(rate),
            cleaned = aec.process(mic, ref);
        aec.close();
        assert.deepEqual(differences(cleaned, native(mic, ref, rate, 1)), { count: 0, largest: 0 });
    });
}

test("cancels two microphones and two references to the native library's samples", () => {
    const n = ofSize(16000, 3);
    const [a, b] = [1, 2].map(seed => scene({ n, delay: 500 * seed, from: 32000, seed }));
    const mic = interleaved(a.mic, b.mic),
        ref = interleaved(a.ref, b.ref);
    const cleaned = new NaxAec(16000, 2, 2).process(mic, ref);
    assert.deepEqual(differences(cleaned, native(mic, ref, 16000, 2)), { count: 0, largest: 0 });
});

test("suppresses to the native library's samples", () => {
    const n = ofSize(16000, 10),
        { mic, ref } = scene({ n, delay: 1000, from: 112000 });
    const aec = new NaxAec(16000, 1, 1, { suppress: true });
    const late = aec.process(mic, ref).subarray(aec.latency);
    const wanted = native(mic, ref, 16000, 1, '--suppress').subarray(0, late.length);
    assert.deepEqual(differences(late, wanted), { count: 0, largest: 0 });
});

test('takes out the echo, finds its delay and leaves the near end', () => {
    const n = ofSize(16000, 10),
        { mic, ref } = scene({ n, delay: 1000, from: 112000 });
    const delays = new Int32Array(n / 256),
        cleaned = new Int16Array(n);
    new NaxAec(16000, 1, 1, { suppress: true }).process(mic, ref, { cleaned, delays });
    const change = (from, to) => levelDb(cleaned, from, to) - levelDb(mic, from, to);
    assert.ok(change(80000, 112000) < -30, `${change(80000, 112000)} dB of echo`);
    assert.ok(change(120000, n) > -6, `${change(120000, n)} dB of near end`);
    assert.ok(Math.abs(delays.at(-1) - 1000) < 64, `${delays.at(-1)} samples`);
});

test('gives what it took out and what it aligned', () => {
    const n = ofSize(16000, 2),
        { mic, ref } = scene({ n, delay: 0 });
    const into = { cleaned: new Int16Array(n), echo: new Int16Array(n), references: new Int16Array(2 * n) };
    new NaxAec(16000, 1, 2, { delayEstimation: false, dropChannel: 1 }).process(mic, interleaved(ref, ref), into);
    for (let t = 0; t < n; t++) {
        assert.equal(into.echo[t], mic[t] - into.cleaned[t]);
        assert.equal(into.references[2 * t], ref[t]);
        assert.equal(into.references[2 * t + 1], 0);
    }
});

test('takes floats, rounds and clips them', () => {
    const n = ofSize(16000, 1),
        { mic, ref } = scene({ n, delay: 300 });
    mic[5] = 32767;
    const floats = samples => Float32Array.from(samples, x => x / 32768);
    const far = floats(ref),
        near = floats(mic);
    near[5] = 1.5;
    const cleaned = new NaxAec(16000).process(near, far);
    assert.ok(cleaned instanceof Float32Array);
    assert.deepEqual(
        Int16Array.from(cleaned, x => x * 32768),
        new NaxAec(16000).process(mic, ref),
    );
});

test('gives the same whether a stream comes frame by frame or at once, into its own arrays', () => {
    const n = ofSize(16000, 2),
        { mic, ref } = scene({ n, delay: 800 });
    const whole = new NaxAec(16000, 1, 1, { suppress: true }).process(mic, ref);
    const aec = new NaxAec(16000, 1, 1, { suppress: true });
    for (let t = 0; t < n; t += 256) {
        const frame = mic.subarray(t, t + 256);
        aec.process(frame, ref.subarray(t, t + 256), { cleaned: frame });
    }
    assert.deepEqual(mic, whole);
});

test('keeps a stream whole while others let the memory grow', () => {
    const n = ofSize(16000, 2),
        { mic, ref } = scene({ n, delay: 800 });
    const whole = new NaxAec(16000).process(mic, ref);
    const aec = new NaxAec(16000),
        cleaned = new Int16Array(n),
        others = [];
    for (let t = 0; t < n; t += 256) {
        others.push(new NaxAec(48000, 2, 8));
        aec.process(mic.subarray(t, t + 256), ref.subarray(t, t + 256), { cleaned: cleaned.subarray(t, t + 256) });
    }
    for (const other of others) other.close();
    assert.deepEqual(cleaned, whole);
});

test('refuses what the library does not serve, and says what it serves', () => {
    for (const format of [[44100], [16000, 3], [16000, 1, 0], [16000, 0, 1]])
        assert.throws(() => new NaxAec(...format), /RangeError: not supported: .*8000, 16000/);
    assert.throws(() => new NaxAec(16000, 1, 1, { dropChannel: 2 }), /dropChannel is 2, not 0 to 1/);
    assert.throws(() => new NaxAec(16000, 1, 1, { delayLen: 12289 }), /delayLen is 12289/);
});

test('refuses audio of another length or type, and a closed canceller', () => {
    const aec = new NaxAec(16000),
        frame = new Int16Array(256);
    assert.throws(() => aec.process(new Int16Array(255), frame), /255 samples, not whole frames of 256/);
    assert.throws(() => aec.process(frame, new Int16Array(512)), /ref has 512 samples, not 256/);
    assert.throws(() => aec.process(new Float64Array(256), frame), /mic is no Int16Array/);
    assert.throws(() => aec.process(frame, frame, { cleaned: new Int16Array(2) }), /cleaned has 2/);
    aec.close();
    aec.close();
    assert.throws(() => aec.process(frame, frame), /closed/);
});

test('reports that it cancels, and why not', () => {
    const n = 748 * 256, // a report is of every fourth frame
        { mic, ref } = scene({ n, delay: 800 });
    const aec = new NaxAec(16000, 1, 2, { meter: true, dropChannel: 1 });
    aec.process(mic, interleaved(ref, ref));
    const { verdict, text, alarm, removedDb, farEndS, refDbfs, micDbfs, delay, frames } = aec.report();
    assert.deepEqual(
        { verdict, alarm, delay, frames },
        { verdict: 'cancelling', alarm: false, delay: aec.delay, frames: n / 256 },
    );
    assert.match(text, /echo/);
    assert.ok(removedDb > 20 && farEndS > 11, `${removedDb} dB in ${farEndS} s`);
    const dbfs = samples => levelDb(samples, n - 16000) - levelDb([32768]);
    assert.ok(Math.abs(micDbfs[0] - dbfs(mic)) < 1 && Math.abs(refDbfs[0] - dbfs(ref)) < 1);
    assert.equal(refDbfs[1], -100);

    const silent = new NaxAec(16000, 1, 1, { meter: true });
    silent.process(new Int16Array(n), ref);
    const report = silent.report();
    assert.deepEqual([report.verdict, report.alarm], ['no-microphone', true]);
    assert.throws(() => new NaxAec(16000).report(), /has no meter/);
});

test("reads the meter's report where the header has it", () => {
    const header = readFileSync(path.join(ROOT, 'include/nax_meter.h'), 'utf8').replace(/\/\*.*?\*\//gs, '');
    const fields = header
        .match(/typedef struct nax_meter_report \{(.*?)\}/s)[1]
        .trim()
        .split(/;\s*/)
        .filter(Boolean);
    assert.deepEqual(fields, [
        'int32_t verdict',
        'int32_t frames',
        'float verdict_s',
        'float far_end_s',
        'float mic_dbfs[2]',
        'float out_dbfs[2]',
        'float ref_dbfs[NAX_METER_REFS]',
        'float mic_clipped',
        'float ref_clipped',
        'float removed_db',
        'int32_t delay',
        'float delay_s',
        'int32_t delay_moves',
        'float likeness',
        'float likeness_ms',
    ]);
    assert.match(header, /NAX_METER_REFS 8/);
});

test("passes on the libraries' messages", () => {
    said = '';
    new NaxAec(16000);
    assert.match(said, /AEC-RELEASE-VERSION 2\.0/);
});

test('has types that fit its use', () => {
    const file = path.join(folder, 'use.mts');
    writeFileSync(
        file,
        `import { load, start, frameSize, NaxAec, type Report } from '${ROOT}/build/wasm/package/nax_aec.js';
        const module: WebAssembly.Module = await load(new URL('x:'), (text: string) => {});
        start(module);
        const aec = new NaxAec(16000, 1, 1, { suppress: true, delayEstimation: true, meter: true, delayLen: 0,
                                                  dropChannel: 0 });
        const a: Float32Array = aec.process(new Float32Array(256), new Int16Array(256));
        const b: Int16Array = aec.process(a, a, { cleaned: new Int16Array(frameSize(16000)), delays: new Int32Array(1) });
        aec.process(b, b, { echo: b, references: a });
        const report: Report = aec.report();
        const n: number = report.removedDb + aec.delay + aec.latency + aec.frameSize + aec.kept;
        aec.close();`,
    );
    const tsc = path.join(ROOT, 'site/node_modules/typescript/bin/tsc');
    const compiler = ['--strict', '--noEmit', '--target', 'es2022', '--module', 'nodenext', '--lib', 'es2022,dom'];
    execFileSync(process.execPath, [tsc, ...compiler, file], { stdio: ['ignore', 'inherit', 'inherit'] });
});

test('packs what it needs and nothing else, under the version of the header', () => {
    const names = execFileSync('tar', ['-tzf', `${ROOT}/build/wasm/nax-aec-${headerVersion()}.tgz`], {
        encoding: 'utf8',
    });
    assert.deepEqual(
        names
            .trim()
            .split('\n')
            .map(name => name.replace('package/', ''))
            .sort(),
        ['LICENSE', 'LICENSE.dependencies', 'README.md', 'nax_aec.d.ts', 'nax_aec.js', 'nax_aec.wasm', 'package.json'],
    );
});

function headerVersion() {
    const header = readFileSync(path.join(ROOT, 'include/nax_aec.h'), 'utf8');
    return ['MAJOR', 'MINOR', 'PATCH'].map(part => header.match(`VERSION_${part} (\\d+)`)[1]).join('.');
}

test('gives in Chromium the samples that it gives in Node.js, in an AudioWorklet, too', async () => {
    const site = await serve(path.join(ROOT, 'build/wasm/package')),
        browser = await openBrowser();
    try {
        const n = ofSize(16000, 4),
            { mic, ref } = scene({ n, delay: 1000, from: 48000 });
        const expected = new NaxAec(16000, 1, 1, { suppress: true }).process(mic, ref);
        const page = await browser.newPage();
        await page.goto(`${site.url}/README.md`);
        const results = await page.evaluate(inBrowser, [[...mic], [...ref]]);
        for (const [place, samples] of Object.entries(results))
            assert.deepEqual(Int16Array.from(samples), expected, place);
    } finally {
        await browser.close();
        site.close();
    }
});

// Runs in the page: the audio through a canceller there and in an AudioWorklet.
async function inBrowser([mic, ref]) {
    const { load, NaxAec } = await import('/nax_aec.js');
    const module = await load(),
        audio = [Int16Array.from(mic), Int16Array.from(ref)];
    const page = new NaxAec(16000, 1, 1, { suppress: true }).process(...audio);
    const code = `import { start, NaxAec } from '${location.origin}/nax_aec.js';
        registerProcessor('nax', class extends AudioWorkletProcessor {
            constructor({ processorOptions: { module, audio } }) {
                super();
                start(module);
                this.port.postMessage(new NaxAec(16000, 1, 1, { suppress: true }).process(...audio));
            }
            process() { return false; }
        });`;
    const context = new OfflineAudioContext(1, 128, 16000);
    await context.audioWorklet.addModule(URL.createObjectURL(new Blob([code], { type: 'text/javascript' })));
    const node = new AudioWorkletNode(context, 'nax', { processorOptions: { module, audio } });
    const worklet = await new Promise(resolve => {
        node.port.onmessage = event => resolve(event.data);
    });
    return { page: [...page], worklet: [...worklet] };
}
