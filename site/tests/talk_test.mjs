// The page's third part in Chromium, whose microphone hears what the page plays, later and less
// loud, and after a while a talker over it. NAX_AEC_TALK_S=60 listens for a minute.
import assert from 'node:assert/strict';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { after, before, test } from 'node:test';

import axe from 'axe-core';

import { ROOT, serve } from './browser.mjs';
import { heardFromPage, openListening, RATE } from './microphone.mjs';
import { random } from './signals.mjs';

const LISTENED_S = Number(process.env.NAX_AEC_TALK_S ?? 12);
const TALK_FROM_S = LISTENED_S + 3;
const REMOVED_DB = 15;

let folder, site;

before(async () => {
    folder = mkdtempSync(path.join(tmpdir(), 'nax_aec'));
    site = await serve(path.join(ROOT, 'build/site'));
});
after(() => {
    site.close();
    rmSync(folder, { recursive: true });
});

const talkWith = (samples, options) => openListening(site.url, folder, samples, options);
const played = (sound, seconds) => heardFromPage(sound, seconds, TALK_FROM_S);

const status = page => page.textContent('#talk [role=status]');
const said = (page, pattern) =>
    page.waitForFunction(
        ([source]) => new RegExp(source).test(document.querySelector('#talk [role=status]').textContent),
        [pattern.source],
    );
const reports = page => page.evaluate(() => ({ ...document.querySelector('#talk').dataset }));
const listened = (page, seconds) =>
    page.waitForFunction(s => Number(document.querySelector('#talk').dataset.seconds) >= s, seconds, { timeout: 0 });

test('cancels what it plays, then records ten seconds and compares', async t => {
    const { browser, page } = await talkWith(played('music', LISTENED_S + 30));
    try {
        await page.selectOption('#talk select', 'music');
        await page.click('#talk .start');
        await listened(page, LISTENED_S);
        const { removed, suppressed, late, verdict } = await reports(page);
        t.diagnostic(
            `${LISTENED_S} s: ${Number(removed).toFixed(1)} dB removed, ${Number(suppressed).toFixed(1)} dB with the ` +
                `suppressor, ${late} frames took too long, delay ${await page.textContent('#talk .delay')}`,
        );
        assert.ok(removed > REMOVED_DB, `${removed} dB removed`);
        assert.equal(verdict, 'cancelling');
        assert.match(await page.textContent('#talk .verdict'), /The echo is being cancelled/);
        await page.evaluate(axe.source);
        assert.deepEqual(
            (await page.evaluate(() => globalThis.axe.run())).violations.map(({ id }) => id),
            [],
        );

        await page.click('#talk .record');
        await said(page, /Recorded/);
        assert.equal(await page.locator('#talk .track').count(), 3);
        assert.match(await page.textContent('#talk .clock'), /of 10\.0 s/);
        await page.click('#talk .play');
        await page.waitForFunction(() => parseFloat(document.querySelector('#talk .clock').textContent) > 0.1);
    } finally {
        await browser.close();
    }
});

test('counts the frames that take too long', async () => {
    const { browser, page } = await talkWith(played('speech', 20));
    try {
        const code = readFileSync(path.join(ROOT, 'build/site/talk_worklet.js'), 'utf8');
        const slow = 'for (const from = Date.now(); this.frames % 50 === 49 && Date.now() - from < 40;);';
        site.instead['/talk_worklet.js'] = code.replace(
            'this.aec.process(this.mic',
            `${slow} this.aec.process(this.mic`,
        );
        await page.click('#talk .start');
        await page.waitForFunction(() => document.querySelector('#talk').dataset.late >= 3);
    } finally {
        delete site.instead['/talk_worklet.js'];
        await browser.close();
    }
});

test('stops at a second click, at once too, and when the page is hidden', async () => {
    const { browser, page } = await talkWith(played('speech', 20));
    try {
        await page.evaluate(() => {
            globalThis.tracks = [];
            const allowed = new Promise(resolve => {
                globalThis.allow = resolve;
            });
            const get = navigator.mediaDevices.getUserMedia.bind(navigator.mediaDevices);
            navigator.mediaDevices.getUserMedia = async (...wanted) => {
                const stream = await get(...wanted);
                await allowed; // by the visitor, who has clicked again meanwhile
                globalThis.tracks.push(...stream.getTracks());
                return stream;
            };
        });
        await page.click('#talk .start');
        await page.click('#talk .start');
        assert.equal(await status(page), 'Stopped.');
        await page.evaluate(() => globalThis.allow());
        await page.waitForFunction(() => globalThis.tracks[0]?.readyState === 'ended');
        await page.click('#talk .start');
        await listened(page, 0.5);
        await page.evaluate(() => {
            Object.defineProperty(document, 'hidden', { value: true, configurable: true });
            document.dispatchEvent(new Event('visibilitychange'));
        });
        assert.equal(await status(page), 'Stopped, because the page was hidden.');
        assert.equal(await page.textContent('#talk .start'), 'Start');
        assert.ok(await page.isDisabled('#talk .record'));
        await page.evaluate(() => Object.defineProperty(document, 'hidden', { value: false, configurable: true }));
        await page.click('#talk .start');
        await said(page, /Listening/);
    } finally {
        await browser.close();
    }
});

test('says that the microphone hears nothing of what is played', async () => {
    const draw = random(3); // a quiet room: a headset
    const { browser, page } = await talkWith(Int16Array.from({ length: 20 * RATE }, () => 20 * (draw() - 0.5)));
    try {
        await page.click('#talk .start');
        await page.waitForFunction(() => document.querySelector('#talk').dataset.verdict === 'not-heard');
        assert.match(await page.textContent('#talk .verdict'), /headset/);
    } finally {
        await browser.close();
    }
});

test('says that a silent microphone is silent', async () => {
    const { browser, page } = await talkWith(new Int16Array(20 * RATE));
    try {
        await page.click('#talk .start');
        await page.waitForFunction(() => document.querySelector('#talk').dataset.verdict === 'no-microphone');
        assert.match(await page.textContent('#talk .verdict.problem'), /No sound comes from the microphone/);
    } finally {
        await browser.close();
    }
});

test('says when the microphone is refused, and when it goes away', async () => {
    const { browser, page } = await talkWith(played('speech', 20), []);
    try {
        await page.click('#talk .start'); // headless, nobody can allow it
        await said(page, /refused/);
        await page.context().grantPermissions(['microphone']);
        await page.evaluate(() => {
            const get = navigator.mediaDevices.getUserMedia.bind(navigator.mediaDevices);
            navigator.mediaDevices.getUserMedia = async (...wanted) => (globalThis.stream = await get(...wanted));
        });
        await page.click('#talk .start');
        await said(page, /Listening/);
        await page.evaluate(() => globalThis.stream.getAudioTracks()[0].dispatchEvent(new Event('ended')));
        assert.equal(await status(page), 'Stopped: the microphone is gone.');
    } finally {
        await browser.close();
    }
});

test('warns of a headset and of processing that cannot be switched off', async () => {
    const { browser, page } = await talkWith(played('speech', 20));
    try {
        await page.evaluate(() => {
            const settings = MediaStreamTrack.prototype.getSettings;
            MediaStreamTrack.prototype.getSettings = function () {
                return { ...settings.call(this), echoCancellation: true };
            };
            Object.defineProperty(MediaStreamTrack.prototype, 'label', { get: () => 'USB Headset' });
        });
        await page.click('#talk .start');
        await page.waitForSelector('#talk .warnings li:nth-child(2)');
        assert.match(
            await page.textContent('#talk .warnings'),
            /echoCancellation cannot be switched off.*headset.*nothing to cancel/s,
        );
    } finally {
        await browser.close();
    }
});
