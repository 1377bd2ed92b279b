#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""mdencoder --check refuses each of a table of wrong configurations in one line, accepts the right ones, and changes
nothing. The test runs in namespaces of its own, where it can take away what a machine usually has."""
import fcntl
import json
import os
import pathlib
import shutil
import socket
import subprocess
import sys

if os.environ.get("CHECK_TEST_INSIDE") is None:
    os.environ["CHECK_TEST_INSIDE"] = "yes"
    os.execvp("unshare", ["unshare", "--mount", "--propagation", "private", sys.executable, *sys.argv])

import harness
from harness import EndToEndTest

GRID = "/usr/share/vendor/data"
PORT, USED, SHARED, ONLY6, DUAL = 15721, 15722, 15723, 15724, 15725
RAW = f"/tmp/rawudp_{PORT}.txt"
UDP = f"[u]\ninput = udp\nport = {PORT}\n"
COT = f"[c]\ninput = udp\nport = {PORT}\ndata = cot\n"
SERIAL = "[s]\ninput = serial\ndevice = @PTY@\n"
VIDEO = "[v]\ninput = video\n"
HOST = "[encoder]\nhost_config = host.ini\n"
# Without any capability, so that the files' rights hold for root too.
POWERLESS = ["setpriv", "--bounding-set=-all", "--inh-caps=-all"]


def net(*commands):
    """A network of its own, after these commands."""
    return ["unshare", "--net", "sh", "-c", "; ".join([*commands, 'exec "$@"']), "net"]


def mounted(command):
    return ["unshare", "--mount", "--propagation", "private", "sh", "-c", command + ' && exec "$@"', "mount"]


class Wrong:
    """A configuration, what its complaint must contain, and how it is run. @F@ is the folder, @PTY@ a serial device."""

    def __init__(self, config, *said, host=None, prefix=(), arguments=(), files=None):
        self.config, self.said, self.host = config, said, host
        self.prefix, self.arguments, self.files = prefix, arguments, files or {}


def udp(*keys):
    return UDP + "".join(key + "\n" for key in keys)


def encoder(*keys):
    return "[encoder]\n" + "".join(key + "\n" for key in keys)


LINES = [
    Wrong("", "there is no source"),
    Wrong("port = 1\n", 'key "port" stands before the first [section]'),
    Wrong("[u]\nnonsense\n", "line 2: neither [section] nor key = value"),
    Wrong(udp(f"port = {PORT}"), f"[u] port = {PORT}: given twice"),
    Wrong("[u]\nkeep_tags = " + "1" * 200 + "\n", "line 2: line too long"),
    Wrong("[u]\ninput = udp\0\n", "contains a zero byte"),
    Wrong("[u\ninput = udp\n", "line 1: neither [section]"),
    Wrong("[Encoder]\nformat = json\n" + UDP, "[Encoder] format = json: unknown key"),
    Wrong("[encoder]\nport = 1\n" + UDP, "[encoder] port = 1: unknown key"),
    Wrong("[a b]\ninput = video\n", "[a b] must be a source name of up to 49 letters"),
    Wrong("[]\ninput = video\n", 'key "input" stands before the first [section]'),
    Wrong("[.hidden]\ninput = video\n", "[.hidden] must be a source name"),
    Wrong("[" + "x" * 50 + "]\ninput = video\n", "line 1: name of a section too long, at most 49 characters"),
    Wrong("[a/b]\ninput = video\n", "[a/b] must be a source name"),
    Wrong("[u] input = udp\n" + UDP, "line 1: text behind [section]"),
]

VALUES = [
    Wrong("[u]\nport = 1\n", "[u] input is missing"),
    Wrong("[u]\ninput = tcp\n", '[u] input must be one of serial, udp, video, not "tcp"'),
    Wrong("[u]\ninput = udp\n", "[u] port is missing"),
    Wrong("[u]\ninput = udp\nport = 0\n", "[u] port must be a whole number from 1 to 65535"),
    Wrong("[u]\ninput = udp\nport = 65536\n", "[u] port must be"),
    Wrong("[u]\ninput = udp\nport = -1\n", "[u] port must be"),
    Wrong("[u]\ninput = udp\nport = 5000.0\n", "[u] port must be"),
    Wrong("[u]\ninput = udp\nport =\n", "[u] port must be"),
    Wrong(udp("data = xml"), "[u] data must be one of klv, cot"),
    Wrong(udp("index = x"), "[u] index must be a whole number"),
    Wrong(udp("family = inet"), "[u] family must be one of any, ipv4, ipv6"),
    Wrong(udp("address = localhost"), "[u] address must be"),
    Wrong(udp("address = 10.0.0.256"), "[u] address must be"),
    Wrong(udp("address = ff02::1"), "[u] address must be"),
    Wrong(udp("family = ipv6", "address = 10.0.0.1"), "[u] address must be"),
    Wrong(udp("family = ipv4", "address = fd00::1"), "[u] address must be"),
    Wrong(udp("capture = maybe"), "[u] capture must be yes or no"),
    Wrong(udp("capture = yes", "capture_limit_kb = -1"), "[u] capture_limit_kb must be"),
    Wrong(udp("capture_limit_kb = 5"), "[u] capture_limit_kb is allowed only with capture = yes"),
    Wrong(udp("prot = 5000"), 'unknown key, did you mean "port"?'),
    Wrong(udp("baud = 9600"), "[u] baud is allowed only with input = serial"),
    Wrong(udp("device = /dev/ttyS0"), "[u] device is allowed only with input = serial"),
    Wrong(udp("interface = 1"), "[u] interface must be an interface that is up, not \"1\""),
    Wrong(udp("cot_sensor = EO"), "[u] cot_sensor is allowed only with data = cot"),
    Wrong(COT + "cot_delta_ms = 2147484\n", "[c] cot_delta_ms must be a whole number from 0 to 2147483"),
    Wrong(COT + "cot_delta_ms = 0.5\n", "[c] cot_delta_ms must be"),
    Wrong(COT + "cot_sensor = " + "x" * 32 + "\n", "[c] cot_sensor must be 1 to 31 characters long"),
    Wrong(COT + "cot_discovery = 2\n", "[c] cot_discovery must be yes or no"),
    Wrong(SERIAL + "baud = 115201\n", "[s] baud must be one of 50, 75,", 'not "115201"'),
    Wrong(SERIAL + "baud = 0\n", "[s] baud must be"),
    Wrong(SERIAL + "parity = mark\n", "[s] parity must be one of none, odd, even"),
    Wrong(SERIAL + "flow = rts\n", "[s] flow must be one of none, hardware, software"),
    Wrong(SERIAL + "stop = 1.5\n", "[s] stop must be one of 1, 2"),
    Wrong(SERIAL + "bits = 9\n", "[s] bits must be a whole number from 5 to 8"),
    Wrong(VIDEO + "interface = 4\n", "[v] interface must be a whole number from 0 to 3"),
    Wrong(VIDEO + "decimation = -1\n", "[v] decimation must be"),
    Wrong(VIDEO + "data = cot\n", "[v] data must be klv with input = video"),
    Wrong(udp("relay1 = 10.0.0.1"), "[u] relay1 must be HOST:PORT"),
    Wrong(udp("relay1 = host/x:5000"), "[u] relay1 must be"),
    Wrong(udp("relay1 = ::1:5000"), "[u] relay1 must be"),
    Wrong(udp("relay1 = 127.0.0.1:5000 ttl=256"), "[u] relay1 must be"),
    Wrong(udp("relay1 = [::1]:5000 tos=follow"), "[u] relay1 must be"),
    Wrong(udp("relay9 = 127.0.0.1:5000"), "[u] relay9 = 127.0.0.1:5000: unknown key"),
    Wrong(udp("mission_id = " + "x" * 128), "[u] mission_id must be 1 to 127 characters long"),
    Wrong(udp("classification = public"), "[u] classification must be one of unclassified"),
    Wrong(udp("classification = secret"), "[u] classifying_country must be a country code of three letters"),
    Wrong(udp("classification = secret", "classifying_country = US1"), "[u] classifying_country must be"),
    Wrong(udp("object_country = USA"), "[u] object_country is allowed only with a classification"),
    Wrong(udp("keep_tags = 128"), "[u] keep_tags must be a list of tags 0 to 127"),
    Wrong(udp("keep_tags = sensor_latitude_of"), "[u] keep_tags must be"),
    Wrong(udp("keep_security_tags = 32"), "[u] keep_security_tags must be"),
    Wrong(encoder("format = xml") + UDP, "[encoder] format must be one of table, json, csv, none"),
    Wrong(encoder("queue = 0") + UDP, "[encoder] queue must be a whole number from 1 to 1000000"),
    Wrong(encoder("duration = forever") + UDP, "[encoder] duration must be a number"),
    Wrong(encoder("status_interval = -1") + UDP, "[encoder] status_interval must be"),
    Wrong(encoder("log_level = 9") + UDP, "[encoder] log_level must be a whole number from 0 to 8"),
    Wrong(encoder("log_levels = METADATALIB") + UDP, "[encoder] log_levels must be a list of MODULE:LEVEL"),
    Wrong(encoder("log_levels =") + UDP, "[encoder] log_levels must be a list of MODULE:LEVEL"),
    Wrong(encoder("capabilities = cot") + UDP, "[encoder] capabilities must be a list with ipv4 or ipv6"),
    Wrong(encoder("capabilities = ipv5") + UDP, "[encoder] capabilities must be a list of cot, ipv4 and ipv6"),
    Wrong(encoder("heights = none") + UDP, "[encoder] heights must be one of required, optional"),
    Wrong(encoder("extended_tags = perhaps") + UDP, "[encoder] extended_tags must be yes or no"),
    Wrong(UDP, "[encoder] queue must be", arguments=["--queue", "many"]),
]

SENSE = [
    Wrong(UDP + f"[w]\ninput = udp\nport = {PORT}\n", f"[w] port must be a port of its own, or one of other groups, and [u] has {PORT}"),
    Wrong(SERIAL + "[t]\ninput = serial\n", "[t] input = serial is allowed for one source only"),
    Wrong(encoder("capabilities = ipv4") + udp("family = ipv6"), "[u] family = ipv6 is allowed only with ipv6"),
    Wrong(encoder("capabilities = ipv6") + udp("address = 10.0.0.1"), "only with ipv4 among the capabilities"),
    Wrong(encoder("capabilities = ipv4") + COT, "[c] data = cot is allowed only with cot"),
    Wrong(udp(f"relay1 = 127.0.0.1:{PORT}"), f"[u] -> 127.0.0.1:{PORT} -> [u]"),
    Wrong(udp("relay1 = 127.0.0.1:9", "relay2 = 127.0.0.1:9 ttl=3"), "[u] relay2 must be a destination of its own",
          "relay1 has it"),
    Wrong(encoder("stream_header = yes") + UDP, "[encoder] stream_header must be no without output_dir"),
    Wrong(encoder("live = yes", "status_interval = 0") + UDP, "[encoder] live must be no with status_interval = 0"),
    Wrong(encoder("messages = 3", "messages_each = 4") + UDP, "[encoder] messages_each must be at most messages = 3"),
    Wrong(encoder("log_levels = METADATALIBB:5") + UDP, '[encoder] log_levels must be', 'did you mean "METADATALIB"?'),
    Wrong(encoder("log_levels = HOST:5, HOST:6") + UDP, "[encoder] log_levels must be one level for each module"),
    Wrong(udp("capture = yes", "capture_limit_kb = 0"), "[u] capture_limit_kb must be 1 or more"),
    Wrong(COT + "cot_discovery = yes\n", "[c] cot_discovery must be no without cot_sensor"),
    Wrong(SERIAL + "bits = 7\n", "[s] bits must be 8"),
    Wrong(SERIAL + "flow = software\n", "[s] flow must be none or hardware"),
    Wrong(udp("address = 0.0.0.0"), "[u] address must be an address that a sender can have", "every sender"),
    Wrong(udp("address = 255.255.255.255"), "[u] address must be an address that a sender can have"),
    Wrong(udp("address = ::"), "[u] address must be an address that a sender can have"),
    Wrong(udp("address = ::ffff:10.0.0.1"), "[u] address must be an address that a sender can have"),
    Wrong(udp("classification = secret", "classifying_country = USA", "object_country = 840"),
          "[u] object_country must be country codes of letters"),
    Wrong(udp("index = 7") + f"[w]\ninput = udp\nport = {PORT + 10}\nindex = 7\n", "[w] index must be a number of its own",
          "[u] has it"),
    Wrong(VIDEO + "capture = yes\n[w]\ninput = video\ncapture = yes\n", "[w] capture must be yes for one video"),
]

FILES = [
    Wrong(encoder("output_dir = file") + UDP, "[encoder] output_dir must be a folder", "is not a folder",
          files={"file": ""}),
    Wrong(encoder("output_dir = file/below") + UDP, "[encoder] output_dir must be a folder", files={"file": ""}),
    Wrong(encoder("output_dir = closed/new") + UDP, "[encoder] output_dir must be a folder", "Permission denied",
          prefix=POWERLESS),
    Wrong(encoder("output_dir = closed") + UDP, "[encoder] output_dir", "Permission denied", prefix=POWERLESS),
    Wrong(encoder("output_dir = /proc/new") + UDP, "[encoder] output_dir must be a folder", prefix=POWERLESS),
    Wrong(udp("output = nowhere/u.klv"), "[u] output must be a file that can be written", "No such file or directory"),
    Wrong(udp("output = closed/u.klv"), "[u] output must be", "Permission denied", prefix=POWERLESS),
    Wrong(udp("output = closed"), "[u] output must be", "it is a folder"),
    Wrong(udp("output = u/"), "[u] output must be", "it names a folder"),
    Wrong(udp("output = link"), "[u] output must be", "it is a symbolic link"),
    Wrong(udp("output = fifo"), "[u] output must be", "it is not a regular file"),
    Wrong(udp("output = readonly.klv"), "[u] output must be", "Permission denied", prefix=POWERLESS),
    Wrong(udp("output = full/u.klv"), "[u] output must be", "No space left on device",
          prefix=mounted("mount -t tmpfs -o size=4k tmpfs full && { head -c 9000 /dev/zero >full/x 2>/dev/null; true; }")),
    Wrong(udp("output = full/u.klv"), "[u] output must be", "Read-only file system",
          prefix=mounted("mount -t tmpfs -o ro tmpfs full")),
    Wrong(udp("output = x.klv") + f"[w]\ninput = udp\nport = {PORT + 10}\noutput = x.klv\n",
          "[w] output must be a file of its own, and [u] has"),
    Wrong(udp("output = x.klv") + f"[w]\ninput = udp\nport = {PORT + 10}\noutput = open/up/x.klv\n",
          "must be a file of its own", "[u] output"),
    Wrong(udp("output = one.klv") + f"[w]\ninput = udp\nport = {PORT + 10}\noutput = hard.klv\n",
          "[w] output must be a file of its own", "[u] output"),
    Wrong(encoder("output_dir = open") + udp("output = open/w.klv") + f"[w]\ninput = udp\nport = {PORT + 10}\n",
          "must be a file of its own"),
    Wrong(encoder("stats_file = s.json") + udp("output = s.json"), "[u] output must be a file of its own",
          "[encoder] stats_file"),
    Wrong(encoder("summary = s.json", "stats_file = s.json") + UDP, "[encoder] summary must be a file of its own"),
    Wrong(encoder("stats_json = s.json", "summary = ./s.json") + UDP, "[encoder] summary must be a file of its own"),
    Wrong(encoder("summary = check.ini") + UDP, "[encoder] summary must be a file of its own", "this configuration"),
    Wrong(encoder("host_config = host.ini", "stats_json = host.ini") + UDP, "must be a file of its own",
          "[encoder] host_config", host=""),
    Wrong(HOST + udp("output = host.log"), "[u] output must be a file of its own", "[log] file",
          host="[log]\nfile = host.log\n"),
    Wrong(udp(f"output = {GRID}/ww15mgh.grd"), "[u] output must be a file of its own", "the geoid grid"),
    Wrong(encoder("output_dir = new", "summary = new") + UDP, "must be a file of its own"),
    Wrong(encoder("output_dir = new") + udp("output = new"), "[u] output must be a file of its own"),
    Wrong(HOST + VIDEO + "output = camera\n", "must be a file of its own", host="[capture0]\nkind = socket\npath = camera\n"),
    Wrong(HOST + VIDEO + "output = flight.ts\n", "[v] output must be a file of its own", "[capture0] path",
          host="[capture0]\nkind = media\npath = flight.ts\n"),
    Wrong(encoder("summary = nowhere/s.json") + UDP, "[encoder] summary must be a file that can be written"),
    Wrong(encoder("summary = open") + UDP, "[encoder] summary must be", "it is a folder"),
    Wrong(encoder("summary = /dev/null") + UDP, "[encoder] summary must be", "it is not a regular file"),
    Wrong(encoder("stats_json = closed/s.json") + UDP, "[encoder] stats_json must be", prefix=POWERLESS),
    Wrong(encoder("stats_file = closed/s.json") + UDP, "[encoder] stats_file must be", prefix=POWERLESS),
    Wrong(encoder("stats_file = s.json") + UDP, "[encoder] stats_file must be a file of statistics", files={"s.json": "{"}),
    Wrong(encoder("stats_file = s.json") + UDP, "[encoder] stats_file must be a file of statistics", files={"s.json": ""}),
    Wrong(encoder("stats_file = s.json") + UDP, "[encoder] stats_file must be a file of statistics", files={"s.json": "[]"}),
    Wrong(encoder("stats_file = s.json") + UDP, "rx_bytes is not a whole number", files={"s.json": json.dumps(
        {"sources": [{"name": "u", "input": "udp", "data": "klv", "statistics": {"rx_bytes": "x"}}]})}),
    Wrong(encoder("stats_file = s.json") + UDP, "[encoder] stats_file must be a file of statistics of these sources",
          files={"s.json": json.dumps({"sources": [{"name": "v", "input": "udp", "data": "klv"}]})}),
    Wrong(udp("capture = yes"), "[u] capture must be a file that can be written", RAW,
          prefix=["sh", "-c", f'mkdir {RAW} && "$@"; code=$?; rmdir {RAW}; exit $code', "folder"]),
    Wrong(encoder("library = nothing.so") + UDP, "[encoder] library must be a file that can be read"),
    Wrong(encoder("library = text.so") + UDP, "[encoder] library must be the metadata library", files={"text.so": "text"}),
    Wrong(encoder("library = other.so") + UDP, "[encoder] library must be the metadata library"),
    Wrong(encoder("library = libmetadata_lib.so.2.0.0") + UDP, "[encoder] library must be version 1",
          "it is version 2.0.0"),
    Wrong(UDP + "[stream s]\nurl = nowhere/s.ts\n", "[stream s] url must be a file that can be written", "No such file"),
    Wrong(UDP + "[stream s]\nurl2 = check.ini\n", "[stream s] url2 must be a file of its own", "this configuration"),
    Wrong(UDP + "[stream s]\nvideo = nothing.mp4\n", "[stream s] video must be a file that can be read", "No such file"),
    Wrong(UDP + "[stream s]\nvideo = https://camera/v.ts\ntls_ca = no.pem\n", "[stream s] tls_ca must be a file that can be read",
          "No such file"),
    Wrong("[u]\nurl = https://camera/v.ts\ntls_ca = no.pem\n", "[u] tls_ca must be a file that can be read", "No such file"),
    Wrong(UDP + "[stream s]\nvideo = v.mp4\ntls_ca = ca.pem\n", "[stream s] tls_ca is allowed only with video = https://"),
    Wrong(UDP + "[stream s]\nhls = check.ini\n", "[stream s] hls must be a file that can be written"),
    Wrong(UDP + f"[stream s]\nurl = udp://127.0.0.1:{PORT}\n", "[stream s] url must be a place that does not lead back"),
    Wrong(COT, "[c] data = cot needs the geoid grid", "make_geoid_grid", prefix=mounted(f"mount -t tmpfs tmpfs {GRID}")),
]

HOSTS = [
    Wrong(HOST + UDP, "host.ini"),
    Wrong(HOST + UDP, "host.ini:2: unknown section [logs]", host="[logs]\nlevel = 1\n"),
    Wrong(HOST + UDP, "host.ini:2: level must be a whole number from 0 to 8", host="[log]\nlevel = 9\n"),
    Wrong(HOST + UDP, "host.ini:2: [log] has no key", host="[log]\nlvl = 1\n"),
    Wrong(HOST + UDP, "host.ini:2: kind must be one of none, media, anc, socket", host="[capture0]\nkind = hdmi\n"),
    Wrong(HOST + UDP, "host.ini: [capture0] kind = media needs the key path", host="[capture0]\nkind = media\n"),
    Wrong(HOST + UDP, "host.ini: [capture1] kind = anc needs the key port", host="[capture1]\nkind = anc\n"),
    Wrong(HOST + UDP, "host.ini: [log] level.METADATALIBX must be", "did you mean", host="[log]\nlevel.METADATALIBX = 5\n"),
    Wrong(HOST + UDP, "host.ini: [log] file must be a file that can be written", prefix=POWERLESS,
          host="[log]\nfile = closed/host.log\n"),
    Wrong(HOST + UDP, "host.ini: [serial] /dev/ttyS9 must be given for /dev/ttyPS0", host="[serial]\n/dev/ttyS9 = x\n"),
    Wrong(HOST + UDP, "host.ini: [files] /etc/other.ini must be given for /etc/hostos.ini",
          host="[files]\n/etc/other.ini = x\n"),
    Wrong(HOST + UDP, "host.ini: [files] /etc/hostos.ini must be a file that can be read",
          host="[files]\n/etc/hostos.ini = nothing.ini\n"),
    Wrong(HOST + UDP, "host.ini: [network] multicast interface must be an interface that is up", "No such device",
          host="[network]\nmulticast interface = eth99\n"),
    Wrong(HOST + UDP, "host.ini: [network] multicast interface must be", "it is down",
          host="[network]\nmulticast interface = down0\n"),
    Wrong(encoder("host_config = folder.d") + UDP, "folder.d"),
    Wrong(HOST + UDP, "host.ini: [log] level = 5: given twice", host="[log]\nlevel = 4\nlevel = 5\n"),
    Wrong(HOST + UDP, "host.ini: [capture0] loop must be left out with kind = anc",
          host="[capture0]\nkind = anc\nport = 15730\nloop = yes\n"),
    Wrong(HOST + UDP, "host.ini: [capture2] path must be left out with kind = none", host="[capture2]\npath = x.ts\n"),
]

DEVICES = [
    Wrong("[s]\ninput = serial\ndevice = /dev/ttyUSB99\n", "[s] device must be a serial device", "No such file"),
    Wrong("[s]\ninput = serial\n", '[s] device must be a serial device', '"/dev/ttyPS0"'),
    Wrong("[s]\ninput = serial\ndevice = file\n", "[s] device must be", "it is not a serial device", files={"file": ""}),
    Wrong("[s]\ninput = serial\ndevice = /dev/null\n", "[s] device must be", "it is not a serial device"),
    Wrong("[s]\ninput = serial\ndevice = open\n", "[s] device must be", "it is not a serial device"),
    Wrong("[s]\ninput = serial\ndevice = link\n", "[s] device must be", "No such file or directory"),
    Wrong("[s]\ninput = serial\ndevice = @CLOSED@\n", "[s] device must be", "Permission denied", prefix=POWERLESS),
    Wrong("[s]\ninput = serial\ndevice = @LOCKED@\n", "[s] device must be", "it is in use"),
    Wrong(HOST + "[s]\ninput = serial\n", "host.ini: [serial] /dev/ttyPS0 must be a serial device",
          host="[serial]\n/dev/ttyPS0 = /dev/ttyUSB98\n"),
    Wrong(SERIAL + "output = @PTY@\n", "[s] output must be"),
    Wrong(VIDEO, "[v] interface must be a video input with a capture", "[capture0]"),
    Wrong(HOST + VIDEO + "interface = 2\n", "[v] interface must be a video input with a capture", "[capture2]",
          host="[capture0]\nkind = anc\nport = 15730\n"),
    Wrong(HOST + VIDEO, "host.ini: [capture0] path must be a file that can be read", "No such file",
          host="[capture0]\nkind = media\npath = nothing.ts\n"),
    Wrong(HOST + VIDEO, "host.ini: [capture0] path must be a KLV file, or a media file or URL", host="[capture0]\nkind = media\npath = host.ini\n"),
    Wrong(HOST + VIDEO, "host.ini: [capture0] path must be a KLV file, or a media file or URL", "unknown protocol",
          host="[capture0]\nkind = media\npath = smoke://a/b\n"),
    Wrong(HOST + VIDEO, "host.ini: [capture0] path must be a path at which a socket can be made", "No such file",
          host="[capture0]\nkind = socket\npath = nowhere/socket\n"),
    Wrong(HOST + VIDEO, "host.ini: [capture0] path must be", "longer than 107 characters",
          host="[capture0]\nkind = socket\npath = " + "x" * 150 + "\n"),
    Wrong(HOST + VIDEO, "host.ini: [capture0] path must be", "another kind of file",
          host="[capture0]\nkind = socket\npath = good.json\n"),
    Wrong(HOST + VIDEO, "host.ini: [capture0] path must be", "it is in use",
          host="[capture0]\nkind = socket\npath = socket\n"),
    Wrong(HOST + VIDEO, "host.ini: [capture0] path must be", "Permission denied", prefix=POWERLESS,
          host="[capture0]\nkind = socket\npath = closed/socket\n"),
    Wrong(HOST + VIDEO, "host.ini: [capture0] address must be an IPv4 group",
          host="[capture0]\nkind = anc\nport = 15730\naddress = 10.0.0.1\n"),
    Wrong(HOST + VIDEO, "host.ini: [capture0] port must be a port that no other program has",
          host=f"[capture0]\nkind = anc\nport = {USED}\n"),
    Wrong(HOST + UDP + VIDEO, "[capture0] port must be a port of its own",
          host=f"[capture0]\nkind = anc\nport = {PORT}\n"),
    Wrong(HOST + VIDEO + "[w]\ninput = video\ninterface = 1\n", "[capture1] port must be a port of its own",
          host="[capture0]\nkind = anc\nport = 15730\n[capture1]\nkind = anc\nport = 15730\n"),
]

NETWORK = [
    Wrong(f"[u]\ninput = udp\nport = {USED}\n", "[u] port must be a port that no other program has", "it is in use"),
    Wrong(f"[u]\ninput = udp\nport = {ONLY6}\nfamily = ipv6\n", "[u] port must be a port that no other"),
    Wrong(f"[u]\ninput = udp\nport = {USED}\naddress = 239.1.1.1\n", "[u] port must be a port that no other program has"),
    Wrong(f"[u]\ninput = udp\nport = {DUAL}\nfamily = ipv4\n", "[u] port must be a port that no other program has"),
    Wrong("[u]\ninput = udp\nport = 514\n", "[u] port must be a port that this user may open", prefix=POWERLESS),
    Wrong(udp("family = ipv6"), "[u] family must be any or ipv4 on this machine", prefix=net()),
    Wrong(udp("address = 239.1.1.1"), "[u] address must be a group for which", "Network is unreachable",
          prefix=net("ip link set lo up")),
    Wrong(udp("relay1 = 10.9.9.9:5000"), "[u] relay1 must be a destination that can be sent to",
          "Network is unreachable", prefix=net("ip link set lo up")),
    Wrong(udp("relay3 = [fd99::1]:5000"), "[u] relay3 must be a destination that can be sent to", prefix=net()),
    Wrong(udp("relay1 = 127.255.255.255:5000"), "[u] relay1 must be a destination that can be sent to"),
    Wrong(udp("relay1 = 255.255.255.255:5000"), "[u] relay1 must be a destination that can be sent to"),
    Wrong(udp("relay1 = 0.0.0.0:5000"), "[u] relay1 must be the address of a receiver"),
    Wrong(udp("relay1 = [::]:5000"), "[u] relay1 must be the address of a receiver"),
]

# Each of these must pass.
RIGHT = [
    (UDP, ""),
    (udp("address = 239.1.2.3", "relay1 = 127.0.0.1:9", "relay2 = [::1]:9 ttl=3"), ""),
    (f"[u]\ninput = udp\nport = {SHARED}\naddress = 239.1.2.3\n", ""),  # a port of groups, which another program has
    (udp("family = ipv6", "address = fd00::1"), ""),
    (f"[u]\ninput = udp\nport = {ONLY6}\nfamily = ipv4\n", ""),
    (HOST + UDP, "[capture0]\nkind = media\npath = unused.ts\n"),
    (COT + "cot_sensor = EO\ncot_discovery = yes\ncot_delta_ms = 0\n", ""),
    (SERIAL + "baud = 230400\nparity = even\nflow = hardware\nstop = 2\n", ""),
    (HOST + "[s]\ninput = serial\n", "[serial]\n/dev/ttyPS0 = @PTY@\n"),
    (encoder("output_dir = new/folder", "stream_header = yes") + UDP, ""),
    (encoder("output_dir = open", "stats_file = s.json", "summary = t.json", "stats_json = /dev/null") + UDP, ""),
    (encoder("stats_file = good.json") + UDP, ""),
    (udp("output = one.klv", "capture = yes", "keep_tags = 2, 13-15", "mission_id = M"), ""),
    (udp("output = /dev/../" + "@F@/u.klv"), ""),
    (HOST + VIDEO + "[w]\ninput = video\ndecimation = 3\n", "[capture0]\nkind = media\npath = flight.ts\nloop = yes\n"),
    (HOST + VIDEO, "[capture0]\nkind = media\npath = udp://127.0.0.1:15731\n"),
    (HOST + VIDEO, "[capture0]\nkind = socket\npath = stale\n"),
    (HOST + VIDEO, "[capture0]\nkind = anc\nport = 15730\naddress = 239.4.4.4\n"),
    (HOST + UDP, "[log]\nfile = logs/host.log\nlevel.HOST = 3\n[network]\nmulticast interface = lo\n"),
    (encoder("log_levels = METADATALIB:5, COTCONVERTER:4", "live = yes", "format = none") + UDP, ""),
    (encoder("heights = optional", "library = " + harness.options.library) + COT, ""),
    (udp("classification = secret", "classifying_country = USA", "object_country = USA;DEU"), ""),
]


class Check(EndToEndTest):
    @classmethod
    def setUpClass(cls):
        subprocess.run(["ip", "link", "add", "down0", "type", "bridge"], check=True, capture_output=True)
        # What a check must not change: sockets and devices of another program.
        cls.held = []
        for family, port in ((socket.AF_INET, USED), (socket.AF_INET6, ONLY6), (socket.AF_INET6, DUAL)):
            held = socket.socket(family, socket.SOCK_DGRAM)
            if family == socket.AF_INET6:
                held.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, int(port == ONLY6))
            held.bind(("", port))
            cls.held.append(held)
        shared = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        shared.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        shared.bind(("", SHARED))
        cls.held.append(shared)
        cls.devices = {}
        for name in ("@PTY@", "@LOCKED@", "@CLOSED@"):
            _, slave = os.openpty()
            cls.devices[name] = os.ttyname(slave)
            if name == "@LOCKED@":
                fcntl.flock(slave, fcntl.LOCK_EX)
            if name == "@CLOSED@":
                os.fchmod(slave, 0)

    def setUp(self):
        super().setUp()
        for folder in ("open", "full", "folder.d"):
            (self.folder / folder).mkdir()
        (self.folder / "closed").mkdir(mode=0o500)
        (self.folder / "link").symlink_to("nothing")
        (self.folder / "open" / "up").symlink_to("..")
        os.mkfifo(self.folder / "fifo")
        (self.folder / "readonly.klv").touch(mode=0o400)
        (self.folder / "one.klv").write_text("")
        os.link(self.folder / "one.klv", self.folder / "hard.klv")
        for name in ("socket", "stale"):
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as local:
                local.bind(str(self.folder / name))
                if name == "socket":
                    self.local = local.dup()
        self.addCleanup(self.local.close)
        (self.folder / "other.so").symlink_to("/lib/x86_64-linux-gnu/libm.so.6")
        for library in pathlib.Path("/lib").glob("*/libm.so.6"):
            (self.folder / "other.so").unlink()
            (self.folder / "other.so").symlink_to(library)
        shutil.copy(harness.options.library, self.folder / "libmetadata_lib.so.2.0.0")
        self.feed("ts", "--output", self.folder / "flight.ts", "--duration", "1")
        statistics = {"rx_bytes": 1, "rx_ok_messages": 1, "rx_corrupt_messages": 0, "sender": "", "relays": [],
                      "ttl": {"updates": 0, "last_update_uptime_s": 0}, "tos": {"updates": 0, "last_update_uptime_s": 0}}
        (self.folder / "good.json").write_text(json.dumps(
            {"sources": [{"name": "u", "input": "udp", "data": "klv", "statistics": statistics}]}))

    def fill(self, text):
        for name, device in self.devices.items():
            text = text.replace(name, device)
        return text.replace("@F@", str(self.folder))

    def check(self, config, host_text, prefix=(), arguments=()):
        (self.folder / "host.ini").unlink(missing_ok=True)
        if host_text is not None:
            (self.folder / "host.ini").write_text(self.fill(host_text))
        (self.folder / "check.ini").write_text(self.fill(config))
        library = [] if "library = " in config else ["--library", harness.options.library]
        before = self.contents()
        done = subprocess.run([*prefix, harness.options.encoder, self.folder / "check.ini", "--check", *library, *arguments],
                              capture_output=True, text=True, timeout=60, stdin=subprocess.DEVNULL, cwd=self.folder)
        self.assertEqual(self.contents(), before, "a check changes nothing")
        return done

    def contents(self):
        return {str(path): (path.lstat().st_mode, path.lstat().st_size, path.lstat().st_mtime_ns)
                for path in self.folder.rglob("*")}

    def expect_refusals(self, table):
        for wrong in table:
            with self.subTest(config=wrong.config, host=wrong.host, prefix=wrong.prefix):
                for name, text in wrong.files.items():
                    (self.folder / name).write_text(text)
                done = self.check(wrong.config, wrong.host, wrong.prefix, wrong.arguments)
                for name in wrong.files:
                    (self.folder / name).unlink()
                self.assertEqual((done.returncode, done.stdout), (2, ""), done.stderr)
                self.assertEqual(len(done.stderr.splitlines()), 1, done.stderr)
                self.assertTrue(done.stderr.startswith("mdencoder: "), done.stderr)
                for text in wrong.said:
                    self.assertIn(text, done.stderr)

    def test_lines(self):
        self.expect_refusals(LINES)

    def test_values(self):
        self.expect_refusals(VALUES)

    def test_sense(self):
        self.expect_refusals(SENSE)

    def test_files(self):
        self.expect_refusals(FILES)

    def test_hosts(self):
        self.expect_refusals(HOSTS)

    def test_devices(self):
        self.expect_refusals(DEVICES)

    def test_network(self):
        self.expect_refusals(NETWORK)

    def test_the_table_is_long(self):
        tables = (LINES, VALUES, SENSE, FILES, HOSTS, DEVICES, NETWORK)
        self.assertGreaterEqual(sum(len(table) for table in tables), 150)

    def test_right_ones_pass(self):
        for config, host_text in RIGHT:
            with self.subTest(config=config, host=host_text):
                done = self.check(config, host_text or None)
                self.assertEqual((done.returncode, done.stderr), (0, ""))
                self.assertRegex(done.stdout, r"^.*/check\.ini: OK, [12] sources?\n$")

    def test_the_text_alone_needs_no_machine(self):
        config = HOST + udp("output = nowhere/u.klv", "relay1 = 10.9.9.9:1") + "[s]\ninput = serial\n" + VIDEO
        self.assertEqual(self.check(config, "", arguments=[]).returncode, 2)
        (self.folder / "host.ini").write_text("")
        done = subprocess.run([harness.options.encoder, self.folder / "check.ini", "--check-text"], capture_output=True,
                              text=True, timeout=60)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertIn("OK, 3 sources", done.stdout)


harness.main()
