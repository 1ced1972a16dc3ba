// Processor time a second of audio of the WebAssembly package, in Node.js and in Chromium,
// beside the native library, by turns in one run, the least of several rounds:
//
//   scripts/wasm && cmake --preset default && cmake --build --preset default --target stream_cost
//   node site/cost.mjs
import { execFileSync } from 'node:child_process';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';

import { load, NaxAec } from '../build/wasm/package/nax_aec.js';
import { openBrowser, ROOT, serve } from './tests/browser.mjs';
import { scene } from './tests/signals.mjs';

const ROUNDS = 9,
    SECONDS = 20,
    RATES = [16000, 48000];

// ms for each second of audio, since the whole is seldom left alone by other programs.
function times(rate, mic, ref, suppress) {
    const aec = new NaxAec(rate, 1, 1, { suppress }),
        piece = Math.round(rate / aec.frameSize) * aec.frameSize;
    const taken = [];
    for (let t = 0; t + piece <= mic.length; t += piece) {
        const begun = performance.now();
        aec.process(mic.subarray(t, t + piece), ref.subarray(t, t + piece));
        taken.push(((performance.now() - begun) * rate) / piece);
    }
    aec.close();
    return taken;
}

// The same in the page, the audio of each rate handed over once.
async function setUp(audio) {
    const { load, NaxAec } = await import('/nax_aec.js');
    await load();
    globalThis.NaxAec = NaxAec;
    globalThis.audio = audio.map(pair => pair.map(samples => Int16Array.from(samples)));
}

const mean = numbers => numbers.reduce((sum, x) => sum + x, 0) / numbers.length;

async function main() {
    const folder = mkdtempSync(path.join(tmpdir(), 'nax_aec')),
        file = path.join(folder, 'both.raw');
    await load();
    const audio = RATES.map(rate => {
        const n = Math.floor((SECONDS * rate) / 768) * 768,
            { mic, ref } = scene({ n, delay: 1000, from: n / 2 });
        return [mic, ref];
    });
    const site = await serve(path.join(ROOT, 'build/wasm/package')),
        browser = await openBrowser();
    const page = await browser.newPage();
    await page.goto(`${site.url}/README.md`);
    await page.evaluate(
        setUp,
        audio.map(pair => pair.map(samples => [...samples])),
    );

    console.log('| ms a second of audio | rate | native | Node.js | Chromium | Chromium against native |');
    console.log('| --- | ---: | ---: | ---: | ---: | ---: |');
    for (const [index, rate] of RATES.entries()) {
        const [mic, ref] = audio[index];
        writeFileSync(
            file,
            Int16Array.from({ length: 2 * mic.length }, (_, i) => (i % 2 ? ref : mic)[i >> 1]),
        );
        const least = {};
        const note = (name, taken) => {
            least[name] = taken.map((ms, i) => Math.min(ms, least[name]?.[i] ?? Infinity));
        };
        const stream = path.join(ROOT, 'build/default/bench/stream_cost');
        for (let round = 0; round < ROUNDS; round++) {
            const words = execFileSync(stream, [`${rate}`, file], {
                encoding: 'utf8',
                stdio: ['ignore', 'pipe', 'ignore'],
            }).split(/\s+/);
            for (const suppress of [false, true]) {
                const native = words[words.indexOf(suppress ? 'suppressed' : 'library') + 1];
                note(`native ${suppress}`, [(1000 * native * rate) / mic.length]);
                note(`node ${suppress}`, times(rate, mic, ref, suppress));
                note(`page ${suppress}`, await page.evaluate(`(${times})(${rate}, ...audio[${index}], ${suppress})`));
            }
        }
        for (const suppress of [false, true]) {
            const [native, node, chromium] = ['native', 'node', 'page'].map(name => mean(least[`${name} ${suppress}`]));
            console.log(
                `| ${suppress ? 'nax_aec and nax_res' : 'nax_aec'} | ${rate / 1000} kHz | ` +
                    `${[native, node, chromium, chromium / native].map(x => x.toFixed(2)).join(' | ')} |`,
            );
        }
    }
    await browser.close();
    site.close();
    rmSync(folder, { recursive: true });
}

await main();
