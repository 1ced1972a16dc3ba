// The README's pictures of the page's three parts, docs/site_*.png: scripts/site && node site/screenshots.mjs
import { execFileSync } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';

import { ROOT, serve } from './tests/browser.mjs';
import { heardFromPage, openListening, RATE } from './tests/microphone.mjs';
import { wavFile } from './tests/signals.mjs';

const taken = [];
function picture(page, part) {
    taken.push(path.join(ROOT, `docs/site_${part}.png`));
    return page.locator(`#${part}`).screenshot({ path: taken.at(-1) });
}

const folder = mkdtempSync(path.join(tmpdir(), 'nax_aec'));
const site = await serve(path.join(ROOT, 'build/site'));
const { browser, page } = await openListening(site.url, folder, heardFromPage('speech', 60, 12));
await page.setViewportSize({ width: 760, height: 900 });

await page.check('#listen input[value="4"]');
await page.click('#listen .play');
await page.waitForFunction(() => parseFloat(document.querySelector('#listen .clock').textContent) > 5);
await page.click('#listen .play');
await picture(page, 'listen');

const file = (name, buffer) =>
    page.setInputFiles(`input[name=${name}]`, { name: `${name}.flac`, mimeType: '', buffer });
await file('mic', Buffer.from(wavFile(heardFromPage('speech', 15, 9), RATE)));
await file('ref', readFileSync(path.join(ROOT, 'build/site/sounds/speech.flac')));
await page.click('#recording [type=submit]');
await page.waitForSelector('#recording .chart canvas');
await page.check('#recording input[value="2"]');
await page.waitForTimeout(500);
await picture(page, 'recording');

await page.click('#talk .start');
await page.waitForFunction(() => document.querySelector('#talk').dataset.seconds > 10);
await picture(page, 'talk');

await browser.close();
site.close();
rmSync(folder, { recursive: true });

// With fewer colours they are a third of the size.
const quantise =
    'import sys\nfrom PIL import Image\nfor f in sys.argv[1:]: Image.open(f).convert("RGB").quantize(96).save(f, optimize=True)';
execFileSync('/usr/bin/python3', ['-c', quantise, ...taken]);
