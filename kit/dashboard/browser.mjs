// A browser to watch a weir with, for the test and the pictures of the dashboard. For a
// network of its own, as weir's port is fixed.
import { spawn } from 'node:child_process';
import { createRequire } from 'node:module';

export const packages = createRequire(new URL('../../build/dashboard/', import.meta.url));
export const pageFile = new URL('../../build/dashboard.html', import.meta.url);
export const stats = 'http://127.0.0.1:7744/stats.json';

export const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

// eventually(WHAT, TRY): until it returns something; what it throws counts as nothing.
export async function eventually(what, attempt, seconds = 20) {
  for (const end = Date.now() + seconds * 1000; Date.now() < end; await sleep(100)) {
    const result = await attempt().catch(() => undefined);
    if (result) return result;
  }
  throw new Error(`waited in vain for ${what}`);
}

export async function startWeir(buffer) {
  const weir = spawn('script/without-reboot', ['build/release/weir', String(buffer)], { stdio: 'ignore' });
  process.on('exit', () => weir.kill('SIGKILL'));
  await eventually('weir', () => fetch(stats));
  return weir;
}

// Debian's Chromium, which must not try to reach anything by itself.
export function startBrowser() {
  return packages('playwright-core').chromium.launch({
    executablePath: '/usr/bin/chromium',
    args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--disable-background-networking',
      '--disable-component-update', '--disable-sync', '--no-first-run'],
  });
}
