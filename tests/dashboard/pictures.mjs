// Takes the pictures of docs/: the dashboard over a few minutes in which the
// network becomes slower and faster, and weir does not answer for a moment.
import { pageFile, sleep, startBrowser, startOrigin, startPlayer, startWeir } from './stream.mjs';

const kBuffer = 12 << 20;
const bandwidths = [1.1e6, 2.6e6, 5.2e6];
// For so many seconds, the origin's and the player's bytes a second.
const course = [[40, 1.6e6, 6e5], [35, 5e5, 7e5], [35, 1.9e5, 7e5], [45, 1.5e6, 5e5], [40, 7e5, 7e5], [25, 1.7e6, 5e5]];

const origin = await startOrigin(bandwidths);
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
