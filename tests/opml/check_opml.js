// Reads an OPML file with the "opml" package from the npm registry, an
// OPML parser independent of this library, and compares what it finds with
// the description the sample program wrote next to the file.
//   node check_opml.js <file.opml> <file.json>
'use strict';
const fs = require('fs');
const opml = require('opml');

const [opmlFile, jsonFile] = process.argv.slice(2);
const expected = JSON.parse(fs.readFileSync(jsonFile, 'utf8'));

// The parser's tree in the terms of the description: attributes in document
// order as [name, value] pairs, sub-outlines as children.
const outlines = (subs) => (subs || []).map((outline) => ({
  attributes: Object.entries(outline).filter(([name]) => name !== 'subs'),
  children: outlines(outline.subs),
}));

// The header fields that the writer writes, in the description's order and
// then any others: dates as instants, numbers as numbers.
const numbers = ['vertScrollState', 'windowTop', 'windowLeft', 'windowBottom', 'windowRight'];
const fields = ['title', 'dateCreated', 'dateModified', 'ownerName', 'ownerEmail', 'expansionState', ...numbers];
function head(parsed) {
  const result = {};
  for (const name of [...Object.keys(expected.head), ...fields]) {
    if (!(name in parsed) || name in result) continue;
    const value = parsed[name];
    if (name.startsWith('date')) result[name] = Date.parse(value);
    else if (name === 'expansionState') result[name] = value.split(',').map(Number);
    else result[name] = numbers.includes(name) ? Number(value) : value;
  }
  return result;
}

opml.parse(fs.readFileSync(opmlFile, 'utf8'), (err, theOutline) => {
  if (err) {
    console.error(`${opmlFile}: not read: ${err.message || err}`);
    process.exit(1);
  }
  const got = JSON.stringify({ head: head(theOutline.opml.head), outlines: outlines(theOutline.opml.body.subs) }, null, 1);
  const want = JSON.stringify(expected, null, 1);
  if (got !== want) {
    const [a, b] = [got.split('\n'), want.split('\n')];
    const at = a.findIndex((line, i) => line !== b[i]);
    console.error(`${opmlFile}: differs from ${jsonFile} at line ${at + 1}:\n  read:     ${a[at]}\n  expected: ${b[at]}`);
    process.exit(1);
  }
  console.log(`${opmlFile}: the same document`);
});
