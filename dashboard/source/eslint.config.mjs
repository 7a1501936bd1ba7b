// What script/check javascript holds the dashboard and its tests to.
import { createRequire } from 'node:module';

const packages = createRequire(new URL('../../build/dashboard/', import.meta.url));
const globals = packages('globals');

export default [
  packages('@eslint/js').configs.recommended,
  // The tests hand functions over to the browser.
  { files: ['**/*.mjs'], languageOptions: { globals: { ...globals.node, ...globals.browser } } },
  {
    files: ['**/*.js'],
    languageOptions: { sourceType: 'script', globals: { ...globals.browser, uPlot: 'readonly' } },
  },
  {
    rules: {
      'eqeqeq': ['error', 'always', { null: 'ignore' }],
      'no-shadow': 'error',
      'no-var': 'error',
      'prefer-const': 'error',
      'no-implicit-globals': 'off',
    },
  },
];
