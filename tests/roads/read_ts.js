// SPDX-License-Identifier: Apache-2.0
// Reads a transport stream with the demultiplexer of mpegts.js, and prints its metadata as lines of JSON.
'use strict';
const fs = require('fs');
const { TSDemuxer, Log } = require(process.argv[2]);

Log.ENABLE_INFO = Log.ENABLE_VERBOSE = Log.ENABLE_DEBUG = false;
const bytes = fs.readFileSync(process.argv[3]);
const stream = bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.length);
const demuxer = new TSDemuxer(TSDemuxer.probe(stream), { isLive: true });
const hex = (data) => Buffer.from(data).toString('hex');
const print = (line) => console.log(JSON.stringify(line));
let frames = 0;
demuxer.onError = (type, info) => print({ error: `${type}: ${info}` });
demuxer.onMediaInfo = () => {};
demuxer.onTrackMetadata = () => {};
demuxer.onDataAvailable = (audio, video) => {
  if (!video) return;
  frames += video.samples.length;
  video.samples.length = video.length = 0;
};
demuxer.onPESPrivateDataDescriptor = demuxer.onPESPrivateData = () => {};
demuxer.onSynchronousKLVMetadata = (klv) =>
  print({ event: 'synchronous', pid: klv.pid, pts: klv.pts,
          units: klv.access_units.map((unit) => ({ sequence: unit.sequence_number, data: hex(unit.data) })) });
demuxer.onAsynchronousKLVMetadata = (klv) => print({ event: 'asynchronous', pid: klv.pid, data: hex(klv.data) });
demuxer.parseChunks(stream, 0);
print({ frames });
