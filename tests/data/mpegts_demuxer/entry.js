// SPDX-License-Identifier: Apache-2.0
// What the tests use of mpegts.js, which offers players only.
export { default as TSDemuxer } from 'mpegts.js/src/demux/ts-demuxer';
export { default as Log } from 'mpegts.js/src/utils/logger.js';
