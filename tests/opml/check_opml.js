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
function outlines(subs) {
  return (subs || []).map((outline) => ({
    attributes: Object.entries(outline).filter(([name]) => name !== 'subs'),
    children: outlines(outline.subs),
  }));
}

function head(parsed) {
  const result = {};
  for (const name of ['title', 'ownerName', 'ownerEmail']) {
    if (name in parsed) result[name] = parsed[name];
  }
  for (const name of ['dateCreated', 'dateModified']) {
    if (name in parsed) result[name] = Date.parse(parsed[name]);
  }
  if ('expansionState' in parsed) result.expansionState = parsed.expansionState.split(',').map(Number);
  for (const name of ['vertScrollState', 'windowTop', 'windowLeft', 'windowBottom', 'windowRight']) {
    if (name in parsed) result[name] = Number(parsed[name]);
  }
  return result;
}

opml.parse(fs.readFileSync(opmlFile, 'utf8'), (err, theOutline) => {
  if (err) {
    console.error(`${opmlFile}: not read: ${err.message || err}`);
    process.exit(1);
  }
  const actual = {
    head: head(theOutline.opml.head),
    outlines: outlines(theOutline.opml.body.subs),
  };
  // Keys in the description's order, so that equal documents print equally.
  const ordered = { head: {}, outlines: actual.outlines };
  for (const name of Object.keys(expected.head)) if (name in actual.head) ordered.head[name] = actual.head[name];
  for (const name of Object.keys(actual.head)) if (!(name in ordered.head)) ordered.head[name] = actual.head[name];
  const got = JSON.stringify(ordered, null, 1);
  const want = JSON.stringify(expected, null, 1);
  if (got !== want) {
    const lines = [got.split('\n'), want.split('\n')];
    const at = lines[0].findIndex((line, i) => line !== lines[1][i]);
    console.error(`${opmlFile}: differs from ${jsonFile} at line ${at + 1}:`);
    console.error(`  read:     ${lines[0][at]}`);
    console.error(`  expected: ${lines[1][at]}`);
    process.exit(1);
  }
  console.log(`${opmlFile}: the same document`);
});
