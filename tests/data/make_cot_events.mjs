// Makes the event pairs in tests/data/cot_events/ with an independent Cursor-on-Target library, as XML and as messages of
// the TAK protocol without a header:
//
//   npm install @tak-ps/node-cot && node make_cot_events.mjs OUTPUT_FOLDER
//
// The files are kept in the tree, so that the tests need neither node nor a network.
import fs from 'node:fs';
import path from 'node:path';
import CoT from '@tak-ps/node-cot';

const folder = process.argv[2];

function event(type, uid, time, point, detail) {
  return {
    event: {
      _attributes: {
        version: '2.0', uid, type, how: 'm-g',
        time, start: time, stale: new Date(new Date(time).getTime() + 60000).toISOString(),
      },
      point: { _attributes: point },
      detail,
    },
  };
}

const pairs = [
  { name: 'level_flight', course: '87.5', speed: '61.2', pitch: '2.25', roll: '-3.5', lat: 45.5017, lon: -73.5673, hae: 1250.5 },
  { name: 'southern_bank', course: '271.25', speed: '88', pitch: '-1.5', roll: '22.75', lat: -33.8688, lon: 151.2093, hae: 3400.25 },
];

for (const pair of pairs) {
  const time = '2024-05-06T07:08:09.000Z';
  const aircraft = event('a-f-A-M-F-Q', 'AIRCRAFT-1', time,
    { lat: String(pair.lat), lon: String(pair.lon), hae: String(pair.hae), ce: '9.9', le: '9.9' },
    {
      contact: { _attributes: { callsign: 'HAWK 1' } },
      track: { _attributes: { course: pair.course, speed: pair.speed } },
      attitude: { _attributes: { pitch: pair.pitch, roll: pair.roll, yaw: '0.0' } },
    });
  const spi = event('b-m-p-s-p-i', 'SENSOR-1', time,
    { lat: String(pair.lat + 0.01), lon: String(pair.lon + 0.01), hae: '35.5', ce: '10', le: '10' },
    {
      sensor: { _attributes: { model: 'EO', fov: '12.5', vfov: '7.5', azimuth: '100.25', elevation: '-30.5', roll: '0', range: '4321' } },
      link: { _attributes: { uid: 'AIRCRAFT-1', relation: 'p-p', type: 'a-f-A-M-F-Q' } },
    });
  for (const [role, raw] of [['aircraft', aircraft], ['spi', spi]]) {
    const cot = new CoT(raw);
    fs.writeFileSync(path.join(folder, `${pair.name}_${role}.xml`), cot.to_xml());
    fs.writeFileSync(path.join(folder, `${pair.name}_${role}.pb`), cot.to_proto());
  }
}

// What a map client sends: unknown errors, attributes in any order, and details that nobody converts.
const clientTime = '2024-05-06T07:08:10.250Z';
const unknown = { lat: '45.5', lon: '-73.5', hae: '1000', ce: '9999999.0', le: '9999999.0' };
const clientDetail = {
  takv: { _attributes: { os: '31', version: '4.8.1', device: 'MAKER MODEL', platform: 'CLIENT' } },
  contact: { _attributes: { endpoint: '*:-1:stcp', callsign: 'HAWK 2' } },
  uid: { _attributes: { Droid: 'HAWK 2' } },
  precisionlocation: { _attributes: { altsrc: 'GPS', geopointsrc: 'GPS' } },
  __group: { _attributes: { role: 'Team Member', name: 'Cyan' } },
  status: { _attributes: { battery: '87' } },
};
const client = {
  aircraft: event('a-f-A-M-F-Q', 'CLIENT-AIRCRAFT', clientTime, unknown,
    { ...clientDetail, track: { _attributes: { speed: '31.5', course: '123.25' } },
      attitude: { _attributes: { yaw: '0', roll: '1.5', pitch: '-2.5' } } }),
  spi: event('b-m-p-s-p-i', 'CLIENT-SENSOR', clientTime, unknown,
    { ...clientDetail, sensor: { _attributes: { vfov: '5.5', fovBlue: '1.0', fov: '10.5', elevation: '-20', roll: '0',
      range: '2500', azimuth: '200', type: 'r-e', model: 'roll cam' } } }),
  ground: event('a-f-G-U-C', 'CLIENT-GROUND', clientTime, unknown, clientDetail),
};
for (const [role, raw] of Object.entries(client)) {
  const cot = new CoT(raw);
  fs.writeFileSync(path.join(folder, `client_${role}.xml`), cot.to_xml());
  fs.writeFileSync(path.join(folder, `client_${role}.pb`), cot.to_proto());
}
