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

// The header's text fields.
const head = (parsed) => Object.fromEntries(['title', 'ownerName', 'ownerEmail']
  .filter((name) => name in parsed).map((name) => [name, parsed[name]]));

opml.parse(fs.readFileSync(opmlFile, 'utf8'), (err, theOutline) => {
  if (err) {
    console.error(`${opmlFile}: not read: ${err.message || err}`);
    process.exit(1);
  }
  const { head: parsedHead, body } = theOutline.opml;
  const got = JSON.stringify({ head: head(parsedHead), outlines: outlines(body.subs) }, null, 1);
  const want = JSON.stringify(expected, null, 1);
  if (got !== want) {
    const [a, b] = [got.split('\n'), want.split('\n')];
    const at = a.findIndex((line, i) => line !== b[i]);
    console.error(`${opmlFile}: differs from ${jsonFile} at line ${at + 1}:`);
    console.error(`  read:     ${a[at]}\n  expected: ${b[at]}`);
    process.exit(1);
  }
  console.log(`${opmlFile}: the same document`);
});
