// Checks that docs/troubleshooting.md lists every error of the client libraries and the tools, except
// those of the viewer's page. Also checks that the sources contain each error of the sections
// "In the client libraries" and "In the tools" of that document.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import { test } from 'node:test';

const root = new URL('..', import.meta.url);
const read = (path) => fs.readFileSync(new URL(path, root), 'utf8');
const filesIn = (folder, end) => fs.readdirSync(new URL(folder, root))
  .filter((name) => name.endsWith(end)).map((name) => folder + name);

// `soak` is left out because it is for developers, `report` because its strings are not errors.
const cpp = [...filesIn('client/', '.cpp'), ...filesIn('tools/', '.cpp'),
  ...filesIn('tools/viewer/', '.cpp'), 'src/mp4/movie_recovery.cpp', 'src/mp4/staging_movie.cpp']
  .filter((path) => !/soak|report/.test(path));
const sources = [...cpp, ...filesIn('client/node/src/', '.ts')].map(read)
  .map((text) => text.replace(/^ *\/\/.*/gm, '') // comments
    .replace(/"\s*\n\s*"|(['`]) \+\s+\1/g, '')); // a string in several lines

const strings = /"((?:[^"\\\n]|\\.)*)"|'((?:[^'\\\n]|\\.)*)'|`([^`]*)`/g;
const stringsIn = (text) => [...text.matchAll(strings)].map(([, ...kinds]) => kinds.join(''));

// The strings that are thrown, and those that begin like a sentence.
const errors = sources.flatMap((text) => [
  ...[...text.matchAll(/\b(?:throw |\w*[Ee]rror\(|abandon\w*\(|(?:problem|message) = |words: )[^;]*;/g)]
    .flatMap(([statement]) => stringsIn(statement)),
  ...stringsIn(text.replace(/std::printf\([^;]*;/g, '')).filter((found) =>
    /^[A-Z][A-Z_a-z]* [a-z]/.test(found) && !found.startsWith('Trying')),
]);

const unescaped = (text) => text.replace(/\\(["'])/g, '$1');
// Splits a text at its variable parts, which `changes` matches. Returns the constant parts between
// them, except those of fewer than two words.
const partsOf = (text, changes) => unescaped(text).split(changes).map((part) => part.trim())
  .filter((part) => /\w \w/.test(part));

const page = read('docs/troubleshooting.md');

test('troubleshooting.md lists every error of the sources', () => {
  assert.ok(errors.length > 80, `${errors.length}`);
  const parts = errors.flatMap((text) => partsOf(text, /\$\{[^}]*\}|%\w+|\\n/));
  assert.deepEqual(parts.filter((part) => !page.includes(part)), []);
});

test('the sources have each error of troubleshooting.md', () => {
  const all = sources.map(unescaped).join();
  const sections = page.split(/^## /m).filter((section) => /^In the /.test(section));
  const words = sections.flatMap((section) => [...section.matchAll(/^\| (.*?) \|/gm)])
    .flatMap(([, cell]) => [...cell.matchAll(/`([^`]+)`/g)].map(([, text]) => text));
  assert.ok(words.length > 60, `${words.length}`);
  const parts = words.flatMap((text) => partsOf(text, /\.\.\.|: /));
  assert.deepEqual(parts.filter((part) => !all.includes(part)), []);
});
