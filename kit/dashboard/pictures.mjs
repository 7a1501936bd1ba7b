// Takes the pictures of docs/: the dashboard over a few minutes in which the
// network becomes slower and faster, and weir does not answer for a moment.
import http from 'node:http';
import { once } from 'node:events';
import { pageFile, sleep, startBrowser, startWeir } from './browser.mjs';

const kBuffer = 12 << 20;
const bandwidths = [1.1e6, 2.6e6, 5.2e6];
// For so many seconds, the origin's and the player's bytes a second.
const course = [[40, 1.6e6, 6e5], [35, 5e5, 7e5], [35, 1.9e5, 7e5], [45, 1.5e6, 5e5], [40, 7e5, 7e5], [25, 1.7e6, 5e5]];
const kSegmentSeconds = 2;
const kSegments = 1000;
const kTicks = 20; // pieces a second

// Serves a video in variants of these bandwidths.
async function startOrigin() {
  const origin = { rate: 1e6 }; // bytes a second
  const at = 'http://127.0.0.1:8080';
  const master = bandwidths.map((each) => `#EXT-X-STREAM-INF:BANDWIDTH=${each}\n${at}/${each}/list\n`);
  const list = (bandwidth) => Array.from({ length: kSegments }, (_, index) =>
    `#EXTINF:${kSegmentSeconds},\n${at}/${bandwidth}/${index + 1}.ts\n`);
  const head = `#EXTM3U\n#EXT-X-TARGETDURATION:${kSegmentSeconds}\n#EXT-X-MEDIA-SEQUENCE:1\n`;
  const server = http.createServer(async (request, response) => {
    const [, bandwidth, name] = request.url.split('/');
    let body = `#EXTM3U\n${master.join('')}`;
    if (name === 'list') body = `${head}${list(bandwidth).join('')}#EXT-X-ENDLIST\n`;
    else if (name) body = Buffer.alloc(Math.round(bandwidth * kSegmentSeconds / 8), 'G');
    response.setHeader('Content-Length', Buffer.byteLength(body));
    for (let sent = 0; name?.endsWith('.ts') && sent < body.length && !response.destroyed;) {
      const piece = Math.ceil(origin.rate / kTicks);
      response.write(body.subarray(sent, sent += piece));
      await sleep(1000 / kTicks);
    }
    response.end(name?.endsWith('.ts') ? undefined : body);
  });
  server.listen(8080, '127.0.0.1');
  await once(server, 'listening');
  return Object.assign(origin, { master: `${at}/master.m3u8` });
}

// Reads a stream at a rate of bytes a second, which can be changed, until it is stopped.
function startPlayer(master, rate) {
  const player = { rate };
  http.get(`http://127.0.0.1:7744/stream?url=${encodeURIComponent(master)}`, async (response) => {
    try {
      for await (const piece of response) await sleep(piece.length / player.rate * 1000);
    } catch { /* weir is gone */ }
  });
  return player;
}

const origin = await startOrigin();
const weir = await startWeir(kBuffer);
const browser = await startBrowser();
const views = [
  ['docs/dashboard.png', { viewport: { width: 1000, height: 790 } }],
  ['docs/dashboard-phone.png', { viewport: { width: 360, height: 790 }, colorScheme: 'dark' }],
];
for (const view of views) {
  view.push(await browser.newPage(view[1]));
  await view[2].goto(pageFile.href);
}
const player = startPlayer(origin.master, 1e6);
for (const [seconds, rate, eaten] of course) {
  origin.rate = rate;
  player.rate = eaten;
  await sleep(seconds * 1000);
}
weir.kill('SIGSTOP');
await sleep(5000);
weir.kill('SIGCONT');
await sleep(15000);
for (const [path, , page] of views) await page.screenshot({ path, fullPage: true });
await browser.close();
process.exit(0);
