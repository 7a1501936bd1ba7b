// A real weir that streams from an origin whose speed can be set, and a browser
// to watch it with. For a network of its own, as the ports are fixed.
import { spawn } from 'node:child_process';
import { readFileSync } from 'node:fs';
import http from 'node:http';
import { createRequire } from 'node:module';
import { once } from 'node:events';

export const packages = createRequire(new URL('../../build/dashboard/', import.meta.url));
export const pageFile = new URL('../../build/dashboard.html', import.meta.url);
export const stats = 'http://127.0.0.1:7744/stats.json';

const kSegmentSeconds = 2;
const kSegments = 1000;
const kTicks = 20; // pieces a second

export const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

// eventually(WHAT, TRY): until it returns something; what it throws counts as nothing.
export async function eventually(what, attempt, seconds = 20) {
  for (const end = Date.now() + seconds * 1000; Date.now() < end; await sleep(100)) {
    const result = await attempt().catch(() => undefined);
    if (result) return result;
  }
  throw new Error(`waited in vain for ${what}`);
}

// Serves the page, and a video in variants of the given bits a second.
export async function startOrigin(bandwidths) {
  const origin = { rate: 1e6 }; // bytes a second
  const at = 'http://127.0.0.1:8080';
  const master = bandwidths.map((each) => `#EXT-X-STREAM-INF:BANDWIDTH=${each}\n${at}/${each}/list\n`);
  const list = (bandwidth) => Array.from({ length: kSegments }, (_, index) =>
    `#EXTINF:${kSegmentSeconds},\n${at}/${bandwidth}/${index + 1}.ts\n`);
  const head = `#EXTM3U\n#EXT-X-TARGETDURATION:${kSegmentSeconds}\n#EXT-X-MEDIA-SEQUENCE:1\n`;
  const server = http.createServer(async (request, response) => {
    const [, bandwidth, name] = request.url.split('/');
    let body = `#EXTM3U\n${master.join('')}`;
    if (request.url === '/') body = readFileSync(pageFile);
    else if (name === 'list') body = `${head}${list(bandwidth).join('')}#EXT-X-ENDLIST\n`;
    else if (name) body = Buffer.alloc(Math.round(bandwidth * kSegmentSeconds / 8), 'G');
    response.setHeader('Content-Length', Buffer.byteLength(body));
    if (request.url === '/') response.setHeader('Content-Type', 'text/html');
    for (let sent = 0; name?.endsWith('.ts') && sent < body.length && !response.destroyed;) {
      const piece = Math.ceil(origin.rate / kTicks);
      response.write(body.subarray(sent, sent += piece));
      await sleep(1000 / kTicks);
    }
    response.end(name?.endsWith('.ts') ? undefined : body);
  });
  server.listen(8080, '127.0.0.1');
  await once(server, 'listening');
  return Object.assign(origin, { url: `${at}/`, master: `${at}/master.m3u8` });
}

export async function startWeir(buffer) {
  const weir = spawn('script/without-reboot', ['build/release/weir', String(buffer)], { stdio: 'ignore' });
  process.on('exit', () => weir.kill('SIGKILL'));
  await eventually('weir', () => fetch(stats));
  return weir;
}

// Reads a stream at a rate of bytes a second, which can be changed, until it is stopped.
export function startPlayer(master, rate) {
  const player = { rate };
  const request = http.get(`http://127.0.0.1:7744/stream?url=${encodeURIComponent(master)}`, async (response) => {
    try {
      for await (const piece of response) await sleep(piece.length / player.rate * 1000);
    } catch { /* stopped, or weir is gone */ }
  });
  request.on('error', () => {});
  player.stop = () => request.destroy();
  return player;
}

// Debian's Chromium, which must not try to reach anything by itself.
export function startBrowser() {
  return packages('playwright-core').chromium.launch({
    executablePath: '/usr/bin/chromium',
    args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--disable-background-networking',
      '--disable-component-update', '--disable-sync', '--no-first-run'],
  });
}
