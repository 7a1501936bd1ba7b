// build.mjs PACKAGES OUTPUT: inlines everything the page needs into one file.
import { readFileSync, writeFileSync } from 'node:fs';

const [packages, output] = process.argv.slice(2);
const own = (name) => readFileSync(new URL(name, import.meta.url), 'utf8').trimEnd();
const uplot = (name) => readFileSync(`${packages}/uplot/${name}`, 'utf8').trimEnd();
const { version } = JSON.parse(uplot('package.json'));

const parts = {
  'banner': `weir's dashboard, built by script/dashboard from kit/dashboard/; change it there.\n\n` +
    `It contains uPlot ${version}, under this licence:\n\n${uplot('LICENSE')}`,
  'uplot.css': uplot('dist/uPlot.min.css'),
  'uplot.js': uplot('dist/uPlot.iife.min.js'),
  'dashboard.css': own('dashboard.css'),
  'dashboard.js': own('dashboard.js'),
};
for (const [name, text] of Object.entries(parts)) {
  // Either would end the element or comment that the text is put into.
  if (/<\/(script|style)/i.test(text) || (name === 'banner' && text.includes('--'))) {
    throw new Error(`${name} can't be inlined`);
  }
}
const page = own('dashboard.html').replace(/\{\{([a-z.]+)\}\}/g, (all, name) => parts[name] ?? (() => {
  throw new Error(`no such part: ${name}`);
})());
writeFileSync(output, `${page}\n`);
