// Chromium's microphone, fed with a file.
import { execFileSync } from 'node:child_process';
import { writeFileSync } from 'node:fs';
import path from 'node:path';

import { openBrowser, ROOT } from './browser.mjs';
import { random, wavFile, wavSamples } from './signals.mjs';

export const RATE = 16000;
const LATER_S = 0.7; // of the sound in the file, which begins when the microphone is opened: the page
//                      plays up to 0.6 s after that, and the echo must not come before it
const GAIN = 0.3;

/** What the page plays as its microphone hears it, and from talkFrom s on a talker over it. */
export function heardFromPage(sound, seconds, talkFrom) {
    const file = path.join(ROOT, `build/site/sounds/${sound}.flac`);
    const far = wavSamples(execFileSync('flac', ['--silent', '--decode', '--stdout', file], { maxBuffer: 1e8 }));
    const draw = random(1);
    return Int16Array.from({ length: seconds * RATE }, (_, t) => {
        const from = t - LATER_S * RATE;
        const talking = t > talkFrom * RATE && Math.sin(t / 2000) > 0;
        const near = 10 * (draw() - 0.5) + (talking ? 6000 * (draw() - 0.5) : 0);
        return Math.round(near + (from < 0 ? 0 : GAIN * far[Math.floor(from) % far.length]));
    });
}

/** The page in a browser whose microphone hears samples, of which a file is kept in folder. */
export async function openListening(url, folder, samples, options = ['--use-fake-ui-for-media-stream']) {
    const file = path.join(folder, 'microphone.wav');
    writeFileSync(file, wavFile(samples, RATE));
    const browser = await openBrowser(
        '--use-fake-device-for-media-stream',
        `--use-file-for-fake-audio-capture=${file}`,
        ...options,
    );
    const page = await browser.newPage();
    await page.goto(`${url}/`);
    await page.waitForSelector('#listen .track');
    return { browser, page };
}
