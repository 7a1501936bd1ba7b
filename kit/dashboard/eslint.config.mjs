// What script/check javascript holds the dashboard, its tests and the adapter to.
import { createRequire } from 'node:module';

const packages = createRequire(new URL('../../build/dashboard/', import.meta.url));
const globals = packages('globals');

export default [
  packages('@eslint/js').configs.recommended,
  // The tests hand functions over to the browser.
  { files: ['**/*.mjs'], languageOptions: { globals: { ...globals.node, ...globals.browser } } },
  {
    files: ['kit/dashboard/*.js'],
    languageOptions: { sourceType: 'script', globals: { ...globals.browser, uPlot: 'readonly' } },
  },
  // What njs 0.7 knows.
  {
    files: ['kit/adapter/*.js'],
    languageOptions: { globals: { ngx: 'readonly', crypto: 'readonly', Buffer: 'readonly' } },
    rules: {
      'no-restricted-syntax': [
        'error', 'ArrayPattern', 'ClassDeclaration', 'ClassExpression', 'ForOfStatement', 'ObjectPattern',
        'CallExpression > AwaitExpression.arguments',
      ],
    },
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
