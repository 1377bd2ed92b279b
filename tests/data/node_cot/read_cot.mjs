// SPDX-License-Identifier: Apache-2.0
// Reads Cursor-on-Target events, one in each file, with an independent library, and prints each as a line of GeoJSON:
//
//   node reader.mjs FILE...    as tests/data/node_cot/make bundles it
//
// A file is an XML event, or a datagram of the TAK protocol with its header of three bytes.
import fs from 'node:fs';
import { CoTParser } from '@tak-ps/node-cot';

for (const file of process.argv.slice(2)) {
  const bytes = fs.readFileSync(file);
  const isTak = bytes[0] === 0xbf && bytes[1] === 1 && bytes[2] === 0xbf;
  const cot = isTak ? await CoTParser.from_proto(bytes.subarray(3)) : await CoTParser.from_xml(bytes.toString());
  console.log(JSON.stringify(await CoTParser.to_geojson(cot)));
}
