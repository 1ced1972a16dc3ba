// Debian's Chromium, headless, and a static server.
import { createReadStream, statSync } from 'node:fs';
import { createServer } from 'node:http';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

import { chromium } from 'playwright-core';

export const ROOT = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '../..');

const TYPES = {
    '.css': 'text/css',
    '.flac': 'audio/flac',
    '.html': 'text/html',
    '.js': 'text/javascript',
    '.json': 'application/json',
    '.wasm': 'application/wasm',
};

/** Serves a folder; gives its url, how to close it and `instead`, texts to send instead of the files of these paths. */
export async function serve(folder) {
    const instead = {};
    const server = createServer((request, response) => {
        const name = decodeURIComponent(new URL(request.url, 'http://x').pathname).replace(/\/$/, '/index.html');
        const file = path.join(folder, name),
            info = statSync(file, { throwIfNoEntry: false });
        if (!info?.isFile()) return response.writeHead(404).end();
        response.writeHead(200, { 'Content-Type': TYPES[path.extname(file)] ?? 'text/plain' });
        if (instead[name]) return response.end(instead[name]);
        createReadStream(file).pipe(response);
    });
    await new Promise(resolve => server.listen(0, '127.0.0.1', resolve));
    return { url: `http://127.0.0.1:${server.address().port}`, instead, close: () => server.close() };
}

/** Starts the browser, in a new profile that playwright makes and removes. */
export function openBrowser(...options) {
    return chromium.launch({
        executablePath: '/usr/bin/chromium',
        args: [
            '--no-sandbox',
            '--disable-gpu',
            '--disable-quic',
            '--no-first-run',
            '--disable-background-networking',
            '--disable-component-update',
            '--disable-sync',
            '--autoplay-policy=no-user-gesture-required',
            ...options,
        ],
    });
}
