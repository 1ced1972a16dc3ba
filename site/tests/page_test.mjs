// The page as scripts/site made it, in Chromium: its three parts, by mouse and by keyboard.
import assert from 'node:assert/strict';
import { mkdtempSync, readdirSync, readFileSync, rmSync, statSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { after, afterEach, before, test } from 'node:test';

import axe from 'axe-core';

import { load, NaxAec } from '../../build/wasm/package/nax_aec.js';
import { openBrowser, ROOT, serve } from './browser.mjs';
import { levelDb, random, scene, wavFile, wavSamples } from './signals.mjs';

const SITE = path.join(ROOT, 'build/site');
const DESKTOP = { width: 1100, height: 900 },
    PHONE = { width: 360, height: 740 };
const MOST_WITHOUT_SOUNDS = 400e3,
    MOST = 8e6; // bytes

let folder,
    site,
    browser,
    page,
    errors = [];

before(async () => {
    folder = mkdtempSync(path.join(tmpdir(), 'nax_aec'));
    site = await serve(SITE);
    browser = await openBrowser();
    await load();
});
after(async () => {
    await browser.close();
    site.close();
    rmSync(folder, { recursive: true });
});
afterEach(async () => {
    await page?.close();
    page = null;
    assert.deepEqual(errors, []);
});

async function open(options = { viewport: DESKTOP }, name = '') {
    errors = [];
    page = await browser.newPage(options);
    page.on('pageerror', error => errors.push(error.message));
    page.on('console', message => message.type() === 'error' && errors.push(message.text()));
    page.on(
        'request',
        request =>
            /^(data|blob):/.test(request.url()) ||
            request.url().startsWith(site.url) ||
            errors.push(`asks for ${request.url()}`),
    );
    await page.goto(`${site.url}/${name}`);
    if (!name) await page.waitForSelector('#listen .track');
}

const text = selector => page.textContent(selector);

async function findings() {
    await page.evaluate(axe.source);
    const { violations } = await page.evaluate(() => globalThis.axe.run());
    return violations.flatMap(({ id, nodes }) => nodes.map(({ html }) => `${id}: ${html}`));
}

const overflow = () => page.evaluate(() => document.documentElement.scrollWidth - document.documentElement.clientWidth);

function sizes(folder) {
    return readdirSync(folder, { recursive: true, withFileTypes: true })
        .filter(entry => entry.isFile())
        .reduce((sum, { parentPath, path: old, name }) => sum + statSync(path.join(parentPath ?? old, name)).size, 0);
}

test('is small', () => {
    const sounds = sizes(path.join(SITE, 'sounds')),
        all = sizes(SITE);
    assert.ok(
        all - sounds <= MOST_WITHOUT_SOUNDS && all <= MOST,
        `${all - sounds} bytes without sounds, ${all} with them`,
    );
});

test('says how it was made, with commits and versions', async () => {
    await open(undefined, 'about.html');
    const all = await text('main');
    assert.match(all, /commit [0-9a-f]{7}/);
    for (const name of ['libspeexdsp', 'WebRTC of today', 'emscripten', 'wavesurfer.js', 'uPlot'])
        assert.match(all, new RegExp(`${name}.*\\d+\\.\\d+`));
    assert.ok(!all.includes('@'.concat('VERSIONS')));
    assert.deepEqual(await findings(), []);
});

for (const [name, viewport] of Object.entries({ desktop: DESKTOP, phone: PHONE }))
    test(`gives axe nothing to find and fits a ${name}`, async () => {
        await open({ viewport });
        assert.deepEqual(await findings(), []);
        await clean(recording());
        assert.deepEqual(await findings(), []);
        assert.ok((await overflow()) <= 0, `${await overflow()} pixels too wide`);
    });

// Listen

test('shows what the recogniser understood in six scenes of six systems', async () => {
    await open();
    const scenes = JSON.parse(readFileSync(path.join(SITE, 'sounds/scenes.json'))).scenes;
    assert.equal(scenes.length, 6);
    for (const { id, said, tracks } of scenes) {
        await page.selectOption('#listen select', id);
        assert.equal(await page.locator('#listen .track').count(), 6);
        for (const [i, { heard }] of tracks.entries()) {
            const right = heard.filter((word, k) => word === said[k].word).length;
            const words = page.locator('#listen .track').nth(i).locator('.words');
            assert.match(await words.textContent(), new RegExp(`Understood ${right} of ${said.length}:`));
            assert.equal(await words.locator('.right').count(), right);
            assert.equal(await words.locator('.wrong').count(), said.length - right);
        }
    }
});

const seconds = async () => parseFloat(await text('#listen .clock'));
const playsTo = from =>
    page.waitForFunction(t => parseFloat(document.querySelector('#listen .clock').textContent) > t, from);

test('plays, goes on where it was when switched, pauses at a second click', async t => {
    await open();
    await page.evaluate(() => {
        const start = AudioBufferSourceNode.prototype.start;
        AudioBufferSourceNode.prototype.start = function (...when) {
            globalThis.heard ??= performance.now() + 1000 * this.context.baseLatency;
            return start.apply(this, when);
        };
        document.querySelector('#listen .play').addEventListener(
            'click',
            () => {
                globalThis.clicked ??= performance.now();
            },
            { capture: true },
        );
    });
    await page.click('#listen .play');
    await playsTo(0.3);
    t.diagnostic(`first sound ${(await page.evaluate('heard - clicked')).toFixed(0)} ms after the click`);
    const before = await seconds();
    await page.check('#listen input[value="4"]');
    await playsTo(before);
    assert.equal(await text('#listen .play'), 'Pause');
    await page.click('#listen .play');
    const paused = await seconds();
    assert.equal(await text('#listen .play'), 'Play');
    await page.click('#listen .play');
    await playsTo(paused);
});

test('is heard: the selected track at its level, the others not', async () => {
    await open();
    await page.evaluate(() => {
        // what goes to the loudspeaker goes through an analyser
        const connect = AudioNode.prototype.connect;
        AudioNode.prototype.connect = function (to, ...rest) {
            if (!(to instanceof AudioDestinationNode)) return connect.call(this, to, ...rest);
            globalThis.tap ??= new AnalyserNode(this.context, { fftSize: 8192 });
            connect.call(this, globalThis.tap);
            return connect.call(this, to, ...rest);
        };
    });
    const levelAt = time =>
        // of the half second before, taken in the page, which is not late
        page.evaluate(
            time =>
                new Promise(resolve => {
                    const watch = setInterval(() => {
                        if (parseFloat(document.querySelector('#listen .clock').textContent) < time) return;
                        clearInterval(watch);
                        const samples = new Float32Array(globalThis.tap.fftSize);
                        globalThis.tap.getFloatTimeDomainData(samples);
                        resolve(10 * Math.log10(samples.reduce((sum, x) => sum + x * x, 1e-12) / samples.length));
                    }, 10);
                }),
            time,
        );
    await page.fill('#listen input[type=range]', '1.4');
    await page.click('#listen .play');
    const microphone = await levelAt(2.4);
    await page.fill('#listen input[type=range]', '1.4');
    await page.check('#listen input[value="5"]'); // the near end alone, silent until second 3
    const near = await levelAt(2.4);
    assert.ok(microphone > -40 && near < -50, `${microphone} and ${near} dBFS`);
});

test('can be used by keyboard alone', async () => {
    await open();
    await page.locator('#listen select').focus();
    await page.keyboard.press('Tab');
    await page.keyboard.press('ArrowDown');
    assert.ok(await page.locator('#listen input[value="1"]').isChecked());
    await page.keyboard.press('Tab');
    await page.keyboard.press('Space');
    await playsTo(0.2);
    await page.keyboard.press('Enter');
    assert.equal(await text('#listen .play'), 'Play');
    await page.keyboard.press('Tab');
    await page.keyboard.press('End');
    assert.equal(await seconds(), 11);
    await page.keyboard.press('ArrowLeft');
    assert.equal(await seconds(), 10.9);
});

test('stops one player when another begins, and when the scene changes', async () => {
    await open();
    await clean(recording());
    await page.click('#listen .play');
    await playsTo(0.1);
    await page.click('#recording .play');
    await page.waitForFunction(() => document.querySelector('#recording .play').textContent === 'Pause');
    assert.equal(await text('#listen .play'), 'Play');
    assert.ok((await seconds()) < 11);
    await page.click('#listen .play');
    await playsTo(0.1);
    await page.selectOption('#listen select', 'music');
    assert.equal(await text('#listen .play'), 'Play');
});

test('says so when a sound cannot be loaded', async () => {
    await open();
    await page.route('**/*_near.flac', route => route.fulfill({ status: 500 }));
    await page.check('#listen input[value="5"]');
    await page.click('#listen .play');
    await page.waitForSelector('#listen .comparison .problem:not(:empty)');
    assert.match(await text('#listen .comparison .problem'), /cannot be played.*500/);
    errors = errors.filter(error => !error.includes('500'));
});

// Your recording

const recording = options => ({ ...scene({ n: 128000, delay: 1000, from: 96000, ...options }), rate: 16000 });

/** Has the page clean a recording; gives what the status line says in the end. */
async function clean({ mic, ref, rate, channels = 1 }, files = {}) {
    const inputs = { mic: wavFile(mic, rate, channels), ref: wavFile(ref, rate, channels), ...files };
    for (const name of ['mic', 'ref'])
        await page.setInputFiles(`input[name=${name}]`, {
            name: `${name}.wav`,
            mimeType: 'audio/wav',
            buffer: Buffer.from(inputs[name]),
        });
    await page.click('#recording [type=submit]');
    return ended();
}

async function ended() {
    await page.waitForFunction(() =>
        /Done|silent|not a sound|needed|served|failed|Choose/.test(
            document.querySelector('#recording [role=status]').textContent,
        ),
    );
    return text('#recording [role=status]');
}

const reported = () => text('#recording .results');

test("cleans the visitor's recording to the package's samples, and gives delay and parameters", async t => {
    await open();
    t.diagnostic(await clean(recording()));
    assert.match(await reported(), /Delay found: (9\d\d|10\d\d) samples, 6\d ms/);
    assert.match(await reported(), /The echo is being cancelled/);
    assert.match(await reported(), /\.delay_len = (9\d\d|10\d\d),.*nax_aec_state_init\(16000, 16, 1, 1, &param\)/s);
    const [download] = await Promise.all([page.waitForEvent('download'), page.click('text=Save suppressed.wav')]);
    const saved = wavSamples(readFileSync(await download.path())),
        { mic, ref } = recording();
    const late = new NaxAec(16000, 1, 1, { suppress: true }).process(mic, ref);
    assert.equal(saved.length, mic.length);
    assert.deepEqual(saved.subarray(0, mic.length - 256), late.subarray(256));
});

test('says how much it removed', async () => {
    await open();
    const { mic, ref, rate } = recording(); // over a quarter of it the near end talks
    await clean({ mic, ref, rate });
    const [, cancelled, suppressed] = (await reported()).match(
        /\(median\): (\d+) dB by the canceller, (\d+) dB with the suppressor/,
    );
    const removed = options => {
        const aec = new NaxAec(rate, 1, 1, options);
        const cleaned = aec.process(mic, ref).subarray(aec.latency);
        const steps = Array.from({ length: mic.length / 4000 - 1 }, (_, i) => [4000 * i, 4000 * (i + 1)]);
        const sorted = steps.map(step => levelDb(mic, ...step) - levelDb(cleaned, ...step)).sort((a, b) => a - b);
        return sorted[sorted.length >> 1];
    };
    for (const [shown, options] of [
        [cancelled, {}],
        [suppressed, { suppress: true }],
    ])
        assert.ok(Math.abs(shown - removed(options)) < 2, `${shown} dB, not ${removed(options)}`);
});

test('compares what it cleaned, by player and by charts', async () => {
    await open();
    await clean(recording());
    assert.equal(await page.locator('#recording .track').count(), 5);
    assert.match(await page.getAttribute('#recording .chart', 'aria-label'), /Removed while.*nax_aec \d+ dB/);
    await page.click('#recording .play');
    await page.waitForFunction(() => parseFloat(document.querySelector('#recording .clock').textContent) > 0.2);
});

test('cleans a minute in few seconds', async t => {
    await open();
    t.diagnostic(await clean(recording({ n: 960000, from: 480000 })));
    assert.match(await reported(), /Delay found: (9\d\d|10\d\d) samples/);
});

test('takes 44.1 kHz', async () => {
    await open();
    await clean({ ...scene({ n: 44100 * 8, delay: 4410 }), rate: 44100 });
    assert.match(await reported(), /Delay found: 1[56]\d\d samples, (9\d|10\d) ms/);
});

test('takes two microphones and two references, and uses a doubled channel once', async () => {
    const [a, b] = [1, 2].map(seed => recording({ seed }));
    const both = (x, y) => Int16Array.from({ length: 2 * x.length }, (_, i) => (i % 2 ? y : x)[i >> 1]);
    await open();
    await clean({ mic: both(a.mic, b.mic), ref: both(a.ref, b.ref), rate: 16000, channels: 2 });
    assert.match(await reported(), /nax_aec_state_init\(16000, 16, 2, 2, &param\)/);
    await clean({ mic: both(a.mic, a.mic), ref: both(a.ref, a.ref), rate: 16000, channels: 2 });
    assert.match(
        await reported(),
        /Both channels of the microphone are the same.*Both channels of the reference are the same/,
    );
    assert.match(await reported(), /nax_aec_state_init\(16000, 16, 1, 1, &param\)/);
});

test('says what is wrong with files that it cannot use', async () => {
    await open();
    const good = recording(),
        silence = new Int16Array(good.mic.length),
        short = { mic: good.mic.subarray(0, 9000), ref: good.ref };
    await page.click('#recording [type=submit]');
    assert.match(await ended(), /Choose both files/);
    assert.match(await clean(good, { mic: Buffer.from('This is no sound.') }), /mic\.wav is not a sound file/);
    assert.match(await clean(good, { ref: Buffer.alloc(0) }), /ref\.wav is not a sound file/);
    assert.match(await clean({ ...good, mic: silence }), /microphone file is silent/);
    assert.match(await clean({ ...good, ref: silence }), /reference file is silent/);
    assert.match(await clean({ ...good, ...short }), /0\.6 s long; 2 s are needed/);
    assert.match(await clean(good), /Done/);
});

test('says what is wrong with a recording that does not cancel', async () => {
    await open();
    const good = recording(),
        draw = random(7),
        room = good.mic.map(() => 40 * (draw() - 0.5));
    await clean({ ...good, mic: good.mic.subarray(0, 96000) });
    assert.match(await reported(), /The reference is 2\.0 s longer than the microphone/);
    await clean({ rate: 16000, mic: room, ref: good.ref });
    assert.match(
        await reported(),
        /No delay was found.*the microphone does not hear it.*whether the reference is the right file/s,
    );
    await clean(recording({ delay: 14000, from: 128000 }));
    assert.match(
        await reported(),
        /The echo is there and is not cancelled.*come 8\d\d ms after the reference; at this rate 752 ms/s,
    );
    await clean({ rate: 16000, mic: good.ref, ref: good.mic });
    assert.match(await reported(), /come \d+ ms before the reference: .* the files are swapped/);
    const clipped = good.mic.map(x => Math.max(-2000, Math.min(2000, x)) * 16);
    await clean({ rate: 16000, mic: clipped, ref: good.ref });
    assert.match(await reported(), /clips/);
});

test('gives up a run when another is begun', async () => {
    await open();
    const long = recording({ n: 960000 });
    await page.setInputFiles('input[name=mic]', {
        name: 'm.wav',
        mimeType: 'audio/wav',
        buffer: Buffer.from(wavFile(long.mic, 16000)),
    });
    await page.setInputFiles('input[name=ref]', {
        name: 'r.wav',
        mimeType: 'audio/wav',
        buffer: Buffer.from(wavFile(long.ref, 16000)),
    });
    await page.click('#recording [type=submit]');
    await page.click('#recording [type=submit]');
    assert.match(await clean(recording()), /Done: 8\.0 s/);
    assert.equal(await page.locator('#recording .track').count(), 5);
});

test('takes two dropped files, the reference by its name', async () => {
    await open();
    const { mic, ref } = recording();
    await page.evaluate(
        ([mic, ref]) => {
            const files = new DataTransfer();
            files.items.add(new File([Uint8Array.from(ref)], 'my_reference.wav'));
            files.items.add(new File([Uint8Array.from(mic)], 'microphone.wav'));
            document
                .querySelector('.drop')
                .dispatchEvent(new DragEvent('drop', { dataTransfer: files, bubbles: true, cancelable: true }));
        },
        [[...wavFile(mic, 16000)], [...wavFile(ref, 16000)]],
    );
    await page.click('#recording [type=submit]');
    await ended();
    assert.match(await reported(), /The echo is being cancelled/);
});
