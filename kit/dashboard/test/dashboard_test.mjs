// The dashboard in Chromium, opened from disk and from a web server at once: before a weir that has
// not streamed and dies, and then before figures as it may answer them, which change, stand still,
// fail to come and come again.
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import http from 'node:http';
import net from 'node:net';
import { eventually, packages, pageFile, sleep, startBrowser, startWeir, stats }
  from '../browser.mjs';

const axe = readFileSync(packages.resolve('axe-core/axe.min.js'), 'utf8');
const names = ['last_chunk_speed', 'avg_speed', 'selected_profile', 'cbuff_size'];
const url = 'http://127.0.0.1:8080/';

// Answers with the head that weir has in a transcript: `values` are those of the figures by name.
function startFigures() {
  const transcript = readFileSync('tests/transcripts/SessionOfALiveChannel.txt', 'latin1');
  const head = /got \/stats\.json: (.*?) \|\| /.exec(transcript)[1].replaceAll(' | ', '\r\n');
  const figures = { values: {}, silent: false, sockets: [] };
  figures.change = () => names.forEach((name, index) => {
    figures.values[name] = (figures.values[name] ?? 0) % 5000 + 100 * (index + 1);
  });
  names.forEach((name) => { figures.values[name] = 0; });
  const server = net.createServer((socket) => {
    figures.sockets.push(socket);
    socket.on('error', () => {});
    socket.once('data', () => figures.silent
      || socket.end(`${head}\r\n\r\n${JSON.stringify(figures.values)}\n`));
  });
  figures.start = () => server.listen(7744, '127.0.0.1');
  figures.stop = () => {
    server.close();
    figures.sockets.forEach((socket) => socket.destroy());
  };
  figures.start();
  return figures;
}

// What a page asked for and complained about.
async function open(browser, address, options) {
  const page = await browser.newPage(options);
  const seen = { page, asked: new Set(), complaints: [], waiting: 0, mostWaiting: 0, tops: new Set() };
  page.on('request', (request) => {
    seen.asked.add(request.url());
    seen.mostWaiting = Math.max(seen.mostWaiting, ++seen.waiting);
  });
  page.on('requestfinished', () => --seen.waiting);
  page.on('requestfailed', () => --seen.waiting);
  page.on('pageerror', (error) => seen.complaints.push(String(error)));
  page.on('console', (message) => {
    // That a connection fails the browser says by itself, and no page can keep it from that.
    if (!message.text().includes('net::ERR_')) seen.complaints.push(message.text());
  });
  await page.goto(address);
  return seen;
}

const says = (seen, text) => eventually(`"${text}"`, async () =>
  (await seen.page.innerText('#state')).includes(text), 30);
const figures = ({ page }) => Promise.all(names.map((name) => page.innerText(`#${name}`)));

// The columns of pixels of a chart in which a line of that colour is to be seen.
const drawn = ({ page }, chart, colour) => page.evaluate(([selector, name]) => {
  const canvas = document.querySelector(`${selector} canvas`);
  // Read from a copy: reading from the chart's own makes the browser complain.
  const { width, height } = canvas;
  const copy = Object.assign(document.createElement('canvas'), { width, height });
  const pen = copy.getContext('2d', { willReadFrequently: true });
  pen.fillStyle = getComputedStyle(document.documentElement).getPropertyValue(name);
  pen.fillRect(0, 0, 1, 1);
  const wanted = pen.getImageData(0, 0, 1, 1).data;
  pen.clearRect(0, 0, width, height);
  pen.drawImage(canvas, 0, 0);
  const { data } = pen.getImageData(0, 0, width, height);
  const columns = new Set();
  for (let at = 0; at < data.length; at += 4) {
    if ([0, 1, 2].every((part) => Math.abs(data[at + part] - wanted[part]) < 12)) columns.add(at / 4 % width);
  }
  return [...columns].sort((left, right) => left - right);
}, [chart, colour]);
const lines = [['#speed', '--last'], ['#speed', '--average'], ['#speed', '--variant'], ['#buffer', '--fill']];

// Nothing to be scrolled sideways, nothing moved, and nothing that axe has to complain about.
async function isInShape(seen) {
  const [overflow, top] = await seen.page.evaluate(() => [
    document.documentElement.scrollWidth - innerWidth, document.querySelector('#buffer').getBoundingClientRect().top]);
  assert.ok(overflow <= 0, `${overflow} pixels too wide`);
  seen.tops.add(top);
  assert.equal(seen.tops.size, 1, `the page jumped: ${[...seen.tops]}`);
  await seen.page.evaluate(axe);
  const { violations } = await seen.page.evaluate(() => axe.run());
  assert.deepEqual(violations.map(({ id, nodes }) => [id, nodes.map((node) => node.failureSummary)]), []);
}

http.createServer((_, response) => {
  response.setHeader('Content-Type', 'text/html');
  response.end(readFileSync(pageFile));
}).listen(8080, '127.0.0.1');
const browser = await startBrowser();
const weir = await startWeir(1 << 22);
const wide = await open(browser, `${pageFile.href}#127.0.0.1`, { viewport: { width: 1100, height: 800 } });
const phone = await open(browser, url, { viewport: { width: 320, height: 640 }, colorScheme: 'dark' });
const pages = [wide, phone];
const all = (action) => Promise.all(pages.map(action));

await all((seen) => says(seen, 'No stream yet'));
weir.kill('SIGSTOP');
await all((seen) => says(seen, 'within 1.5 s'));
weir.kill('SIGKILL');
await all((seen) => says(seen, 'failed'));

const scripted = startFigures();
await all((seen) => says(seen, 'Back since'));
const changing = setInterval(() => scripted.change(), 500);
await all((seen) => says(seen, 'Streaming'));
await all(isInShape);
await all(async (seen) => {
  for (const [chart, colour] of lines) {
    const before = await drawn(seen, chart, colour);
    await eventually(`${colour} to grow`, async () => (await drawn(seen, chart, colour)).length > before.length);
  }
});

clearInterval(changing);
await all((seen) => eventually('the figures', async () =>
  String(await figures(seen)) === String(names.map((name) => scripted.values[name].toLocaleString('en')))));
await all((seen) => says(seen, 'Unchanged'));
await all(async (seen) => {
  const over = seen.page.locator('#speed .u-over');
  await over.hover({ position: { x: (await over.boundingBox()).width - 5, y: 50 } });
  const legend = await seen.page.locator('.u-series:not(:first-child) .u-value').allInnerTexts();
  assert.deepEqual(legend, await figures(seen), 'the lines are not those of the figures');
});
await all(isInShape);

scripted.silent = true;
await all((seen) => says(seen, 'Not reachable'));
await sleep(2000);
scripted.stop();
await all((seen) => says(seen, 'failed'));
await all(async (seen) => assert.deepEqual(await figures(seen), ['–', '–', '–', '–']));
await all(isInShape);

scripted.silent = false;
scripted.start();
setInterval(() => scripted.change(), 500);
await all((seen) => says(seen, 'Streaming'));
await all((seen) => says(seen, 'Back since'));
await all(isInShape);
for (const seen of pages) {
  await eventually('a gap in the line where weir was away', async () => {
    const columns = await drawn(seen, '#buffer', '--fill');
    return columns.some((column, index) => column - columns[index - 1] > 8);
  });
  assert.deepEqual(seen.complaints, []);
  assert.equal(seen.mostWaiting, 1, 'requests pile up');
}
assert.deepEqual([...wide.asked], [pageFile.href, stats]);
assert.deepEqual([...phone.asked], [url, stats]);
await browser.close();
console.log('the dashboard shows what weir does');
process.exit(0);
