// Reads an OPML file with the "opml" package from the npm registry, an
// OPML parser independent of this library, and compares what it finds with
// the description the sample program wrote next to the file: a line with
// the header's text fields, then one line per outline with its attributes
// in document order, indented two blanks per level.
//   node check_opml.js <file.opml> <description.txt>
'use strict';
const fs = require('fs');
const opml = require('opml');

const [opmlFile, descriptionFile] = process.argv.slice(2);
const pairs = (entries) => entries.map(([name, value]) => `${name}="${value}"`).join(' ');
const tree = (subs, depth) => (subs || []).map((outline) => ' '.repeat(2 * depth) +
  pairs(Object.entries(outline).filter(([name]) => name !== 'subs')) + '\n' + tree(outline.subs, depth + 1)).join('');

opml.parse(fs.readFileSync(opmlFile, 'utf8'), (err, theOutline) => {
  if (err) {
    console.error(`${opmlFile}: not read: ${err.message || err}`);
    process.exit(1);
  }
  const { head, body } = theOutline.opml;
  const fields = ['title', 'ownerName', 'ownerEmail'].filter((name) => name in head);
  const got = pairs(fields.map((name) => [name, head[name]])) + '\n' + tree(body.subs, 0);
  const want = fs.readFileSync(descriptionFile, 'utf8');
  if (got !== want) {
    const [a, b] = [got.split('\n'), want.split('\n')];
    const at = a.findIndex((line, i) => line !== b[i]);
    console.error(`${opmlFile}: differs from ${descriptionFile} at line ${at + 1}:`);
    console.error(`  read:     ${JSON.stringify(a[at])}\n  expected: ${JSON.stringify(b[at])}`);
    process.exit(1);
  }
  console.log(`${opmlFile}: the same document`);
});
