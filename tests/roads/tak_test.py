#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Receives Cursor-on-Target as clients and servers of TAK networks send it: from groups and over TCP and TLS, as XML and
as the TAK protocol. The events were written by an independent library (tests/data/make_cot_events.mjs); the server of TLS is
OpenSSL's."""
import pathlib
import re
import signal
import socket
import struct
import subprocess
import threading

import harness
from harness import EndToEndTest, items, source
from recipe import Recipe

EVENTS = pathlib.Path(harness.options.source) / "tests" / "data" / "cot_events"
GROUP = ("239.2.3.1", 15969)
MESH = f"[tak]\nurl = tak://{GROUP[0]}:{GROUP[1]}\ndata = cot\n"
PAIRS = ("level_flight", "southern_bank", "client")


def xml(name):
    return (EVENTS / f"{name}.xml").read_bytes()


def varint(number):
    data = b""
    while number >= 0x80:
        data += bytes([number & 0x7F | 0x80])
        number >>= 7
    return data + bytes([number])


def stream_message(name):
    message = (EVENTS / f"{name}.pb").read_bytes()
    return b"\xBF" + varint(len(message)) + message


def mesh_message(name):
    return b"\xBF\x01\xBF" + (EVENTS / f"{name}.pb").read_bytes()


def send_group(*datagrams, group=GROUP):
    family = socket.AF_INET6 if ":" in group[0] else socket.AF_INET
    with socket.socket(family, socket.SOCK_DGRAM) as sender:
        if family == socket.AF_INET:
            sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton("127.0.0.1"))
        for datagram in datagrams:
            sender.sendto(datagram, group)


def cable(*ends):
    """Makes a cable with two ends on this machine, for link-local addresses."""
    subprocess.run(["ip", "link", "add", ends[0], "type", "veth", "peer", "name", ends[1]], check=True)
    for number, end in enumerate(ends):
        for command in (f"link set {end} addrgenmode none", f"link set {end} up",
                        f"addr add fe80::{number + 1}/64 dev {end} nodad"):
            subprocess.run(["ip", *command.split()], check=True)


class Server:
    """A server of events, which sends each of its clients what it has, and keeps them until it is closed, all but the
    first ones."""

    def __init__(self, data=b"", dropped=0):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.data, self.dropped, self.clients = data, dropped, []
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        while True:
            try:
                client = self.listener.accept()[0]
            except OSError:
                return
            try:
                client.sendall(self.data)
            except OSError:
                pass
            if self.dropped > 0:
                self.dropped -= 1
                client.close()
            else:
                self.clients.append(client)

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        self.listener.close()
        for client in self.clients:
            client.close()


class TakTest(EndToEndTest):
    def errors(self):
        return (self.folder / "encoder.err").read_text()

    def server(self, data=b"", dropped=0):
        server = Server(data, dropped)
        self.addCleanup(server.close)
        return server

    def counts(self, summary, name="tak"):
        return source(summary, name)["tak"]

    def check_pairs(self, packets, names=PAIRS):
        expected = {"level_flight": (45.5017, b"AIRCRAFT-1"), "southern_bank": (-33.8688, b"AIRCRAFT-1"),
                    "client": (45.5, b"CLIENT-AIRCRAFT")}
        self.assertEqual(len(packets), len(names))
        for packet, name in zip(packets, names):
            found = dict(items(packet))
            self.assertAlmostEqual(struct.unpack(">i", found[13])[0] * 180 / 4294967294, expected[name][0], 6)
            self.assertEqual(found[10], expected[name][1])

    def both(self, name):
        return xml(f"{name}_aircraft"), xml(f"{name}_spi")


class Page(TakTest):
    def test_the_page_says_what_works(self):
        encoder = Recipe(self, "docs/sources/tak_network.md#1")
        feeder = Recipe(self, "docs/sources/tak_network.md#2")
        shown = self.folder / "shown"
        self.encoder_process = encoder.start(0, stdout=self.output(shown.name), stderr=self.output("encoder.err"))
        self.wait_for(lambda: harness.udp_port_open(6969), "the port")
        feeder.run(0)
        self.wait_for(lambda: shown.read_text().count(" tak ") == 25, "the rows")
        self.encoder_process.send_signal(signal.SIGINT)
        self.assertEqual(self.encoder_process.wait(timeout=30 * harness.SLOW), 0)


class Mesh(TakTest):
    def test_xml_and_protobuf_from_a_group_make_the_same_packets(self):
        self.encoder(MESH, ports=[GROUP[1]])
        for name in PAIRS:
            send_group(*self.both(name))
            self.settle("tak", 1 + PAIRS.index(name))
        for name in PAIRS:
            send_group(mesh_message(f"{name}_aircraft"), mesh_message(f"{name}_spi"))
            self.settle("tak", 4 + PAIRS.index(name))
        summary = self.stop()
        packets = self.delivered("tak")
        self.check_pairs(packets, PAIRS + PAIRS)
        for one, other in zip(packets[:3], packets[3:]):
            self.assertEqual(one, other)
        counts = self.counts(summary)
        self.assertEqual((counts["datagrams"], counts["events"], counts["forwarded"]), (12, 12, 12))
        self.assertEqual(source(summary, "tak")["statistics"]["cot"]["converted_messages"], 6)

    def test_several_events_in_one_datagram(self):
        self.encoder(MESH, ports=[GROUP[1]])
        send_group(b"\r\n".join([*self.both("level_flight"), *self.both("southern_bank"), xml("client_ground")]))
        self.settle("tak", 2)
        counts = self.counts(self.stop())
        self.assertEqual((counts["datagrams"], counts["events"], counts["forwarded"], counts["other_kinds"]), (1, 5, 4, 1))
        self.check_pairs(self.delivered("tak"), PAIRS[:2])

    def test_unknown_errors_write_nothing_to_the_log(self):
        self.encoder(MESH, ports=[GROUP[1]])
        for _ in range(20):
            send_group(*self.both("client"))
        self.settle("tak", 20)
        self.stop()
        log = (self.folder / "host.log").read_text()
        self.assertNotIn("out of 0 to 4095 range", log)
        self.assertNotRegex(log, r"COTCONVERTER [0-4]/", "the converter has nothing to complain about")
        found = dict(items(self.delivered("tak")[0]))
        self.assertGreater(struct.unpack(">H", found[45])[0], 65000)
        self.assertEqual(struct.unpack(">H", found[16])[0], round(10.5 * 65535 / 180), "fov, and not vfov or fovBlue")
        self.assertEqual(struct.unpack(">H", found[17])[0], round(5.5 * 65535 / 180))

    def test_a_group_of_ipv6_on_an_interface(self):
        cable("tak0", "tak1")
        self.encoder("[key]\nurl = tak://[ff02::7]:15970\ndata = cot\ninterface = tak0\n"
                     "[scope]\nurl = tak://[ff02::8%tak0]:15970\ndata = cot\n", ports=[15970], only_ipv6=True)
        self.wait_for(lambda: harness.udp_sockets(15970) == 2, "the socket of each")
        scope = socket.if_nametoindex("tak1")
        send_group(*self.both("level_flight"), group=("ff02::7", 15970, 0, scope))
        send_group(*self.both("client"), group=("ff02::8", 15970, 0, scope))
        self.settle("key", 1)
        self.settle("scope", 1)
        self.stop()
        self.check_pairs(self.delivered("key"), PAIRS[:1])
        self.check_pairs(self.delivered("scope"), PAIRS[2:])

    def test_two_groups_on_one_port_do_not_mix(self):
        self.encoder("[one]\nurl = tak://239.2.3.1:15969\ndata = cot\n[two]\nurl = tak://239.2.3.2:15969\ndata = cot\n",
                     ports=[15969])
        self.wait_for(lambda: harness.udp_sockets(15969) == 2, "the socket of each")
        send_group(*self.both("level_flight"), group=("239.2.3.1", 15969))
        send_group(*self.both("client"), group=("239.2.3.2", 15969))
        self.settle("one", 1)
        self.settle("two", 1)
        self.stop()
        self.check_pairs(self.delivered("one"), ("level_flight",))
        self.check_pairs(self.delivered("two"), ("client",))

    def test_hostile_datagrams_cost_themselves_only(self):
        self.encoder(MESH, ports=[GROUP[1]])
        good = xml("level_flight_aircraft")
        hostile = [b"", b"\xBF", b"\xBF\x01\xBF", b"\xBF\x01\xBF" + b"\xFF" * 64, b"\xBF\x02\xBFxx", b"\x47" * 188,
                   good[:-30], good.replace(b'lat="45.5017"', b'lat="nan"'), b"<" * 60000, b"<event>" * 8000,
                   b"<event>" + b"<a/>" * 12000 + b"</event>", b"\xBF\xFF\xFF\xFF\xFF\x0F" + b"x" * 1000,
                   mesh_message("client_spi")[:100], good.replace(b"2024-05-06", b"tomorrow__")]
        send_group(*hostile)
        send_group(*self.both("level_flight"))
        self.settle("tak", 1)
        summary = self.stop()
        self.check_pairs(self.delivered("tak"), PAIRS[:1])
        counts = self.counts(summary)
        self.assertEqual((counts["datagrams"], counts["forwarded"]), (len(hostile) + 2, 2))
        self.assertGreaterEqual(counts["faulty"], 10)
        self.assertLessEqual(self.errors().count("refused"), 1)

    def test_a_relay_back_to_the_group_is_refused(self):
        (self.folder / "loop.ini").write_text(MESH + f"relay1 = {GROUP[0]}:{GROUP[1]}\n")
        result = subprocess.run([harness.options.encoder, self.folder / "loop.ini", "--check-text"], capture_output=True,
                                text=True, timeout=60)
        self.assertEqual(result.returncode, 2)
        self.assertIn("does not lead back to its source", result.stderr)


class Stream(TakTest):
    def config(self, port, scheme="tcp", more=""):
        return f"[tak]\nurl = {scheme}://127.0.0.1:{port}\ndata = cot\n{more}"

    def test_xml_and_protobuf_over_tcp(self):
        data = b'<?xml version="1.0"?>\n'
        for name in PAIRS:
            data += b"".join(self.both(name)) + xml("client_ground")
            data += stream_message(f"{name}_aircraft") + stream_message(f"{name}_spi")
        self.encoder(self.config(self.server(data).port))
        self.settle("tak", 6)
        summary = self.stop()
        packets = self.delivered("tak")
        self.check_pairs(packets[::2])
        for one, other in zip(packets[::2], packets[1::2]):
            self.assertEqual(one, other)
        counts = self.counts(summary)
        self.assertEqual((counts["bytes"], counts["events"], counts["other_kinds"]), (len(data), 15, 3))
        self.assertEqual(source(summary, "tak")["state"], "open")

    def test_a_burst_waits_for_the_library(self):
        pairs = 2000
        self.encoder(self.config(self.server(b"".join(self.both("level_flight")) * pairs).port))
        self.settle("tak", pairs, 60)
        summary = self.stop()
        self.assertEqual(source(summary, "tak")["messages"], pairs)
        self.assertEqual(source(summary, "tak")["kernel_drops"], 0)

    def test_the_server_may_be_away_and_come_back(self):
        server = self.server(b"".join(self.both("level_flight")), dropped=1)
        self.encoder(self.config(server.port))
        self.settle("tak", 2, 30)
        self.wait_for(lambda: "source tak is open after" in self.errors(), "the line that it is back")
        summary = self.stop()
        self.assertGreaterEqual(self.counts(summary)["connections"], 2)
        self.assertIn(f"source tak waits: tcp://127.0.0.1:{server.port}: the server ended the connection", self.errors())

    def test_nobody_listens(self):
        server = Server()
        server.close()
        self.encoder(self.config(server.port))
        self.wait_for(lambda: "Connection refused" in self.errors(), "the line")
        summary = self.stop()
        self.assertEqual(self.errors().count("Connection refused"), 1, self.errors())
        self.assertEqual(source(summary, "tak")["state"], "cut off")

    def test_without_retry_a_stream_that_ends_is_a_failure(self):
        self.encoder(self.config(self.server(b"".join(self.both("level_flight")), dropped=1).port, more="retry = no\n"))
        self.settle("tak", 1)
        self.wait_for(lambda: "it is not tried again" in self.errors(), "the line")
        self.assertEqual(self.counts(self.stop(expected=1))["connections"], 1)

    def test_hostile_bytes_cost_themselves_only(self):
        good = b"".join(self.both("level_flight"))
        data = (b"HTTP/1.1 200 OK\r\n\r\n" + good[:100] + b"<event " + b"x" * 200000 + b"<event>" * 20000 +
                b"\x00" * 1000 + good + b"\xBF\x80\x80\x10" + b"y" * (4 << 16) + good)
        self.encoder(self.config(self.server(data).port))
        self.settle("tak", 1)
        summary = self.stop()
        self.assertGreaterEqual(self.counts(summary)["faulty"], 3)
        self.assertLessEqual(self.errors().count("refused"), 1)


class Tls(TakTest):
    def setUp(self):
        super().setUp()
        self.make_authority("ca")
        self.make_authority("other")
        self.make_certificate("server", "ca", "DNS:localhost,IP:127.0.0.1")
        self.make_certificate("client", "ca", "DNS:client")

    def openssl(self, *arguments, **more):
        return subprocess.run(["openssl", *[str(word) for word in arguments]], check=True, capture_output=True,
                              cwd=self.folder, timeout=60, **more)

    def make_authority(self, name):
        self.openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "30",
                     "-subj", f"/CN={name}", "-keyout", f"{name}.key", "-out", f"{name}.pem")

    def make_certificate(self, name, authority, names, *validity):
        self.openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", f"/CN={name}",
                     "-keyout", f"{name}.key", "-out", f"{name}.csr")
        (self.folder / "names.ext").write_text(f"subjectAltName={names}\n")
        self.openssl("x509", "-req", "-in", f"{name}.csr", "-CA", f"{authority}.pem", "-CAkey", f"{authority}.key",
                     "-CAcreateserial", "-extfile", "names.ext", "-out", f"{name}.pem", *(validity or ("-days", "30")))

    def tls_server(self, certificate="server", *arguments):
        """Starts OpenSSL's server, which sends each client what is written to the pipe."""
        with socket.create_server(("127.0.0.1", 0)) as probe:
            port = probe.getsockname()[1]
        process = self.start("openssl", "s_server", "-accept", f"127.0.0.1:{port}", "-cert", f"{certificate}.pem", "-key",
                             f"{certificate}.key", "-quiet", *arguments, cwd=self.folder, stdin=subprocess.PIPE,
                             stdout=subprocess.DEVNULL, stderr=self.output("s_server.err"))
        self.addCleanup(process.stdin.close)
        self.wait_for(lambda: f":{port:04X} 00000000:0000 0A" in pathlib.Path("/proc/net/tcp").read_text(), "the server")
        return port, process

    def config(self, port, more="", host="localhost"):
        return f"[tak]\nurl = tls://{host}:{port}\ndata = cot\ntls_ca = ca.pem\n{more}"

    def deliver(self, port, process, more="", host="localhost"):
        self.encoder(self.config(port, more, host))
        self.wait_for(lambda: f":{port:04X} 01" in pathlib.Path("/proc/net/tcp").read_text(), "the connection")
        process.stdin.write(b"".join(self.both("level_flight")) + stream_message("client_aircraft") +
                            stream_message("client_spi"))
        process.stdin.flush()
        self.settle("tak", 2)
        self.stop()
        self.check_pairs(self.delivered("tak"), ("level_flight", "client"))

    def refused(self, port, text, more="", host="localhost"):
        """Runs until the line has come, and checks that it is one line although the connection is tried again."""
        self.encoder(self.config(port, more, host))
        self.wait_for(lambda: text in self.errors(), text)
        summary = self.stop()
        lines = [line for line in self.errors().splitlines() if "waits" in line]
        self.assertEqual(len(lines), 1, lines)
        self.assertRegex(lines[0], rf"source tak waits: tls://{re.escape(host)}:{port}: .*{re.escape(text)}")
        self.assertEqual(source(summary, "tak")["messages"], 0)

    def test_events_over_tls_with_the_certificate_of_an_authority(self):
        self.deliver(*self.tls_server())

    def test_an_address_in_the_certificate(self):
        self.deliver(*self.tls_server(), host="127.0.0.1")

    def test_a_client_certificate_as_pem(self):
        self.deliver(*self.tls_server("server", "-Verify", "1", "-verify_return_error", "-CAfile", "ca.pem"),
                     more="tls_certificate = client.pem\ntls_key = client.key\n")

    def test_a_client_certificate_as_pkcs12(self):
        self.openssl("pkcs12", "-export", "-in", "client.pem", "-inkey", "client.key", "-out", "client.p12", "-passout",
                     "pass:secret")
        self.deliver(*self.tls_server("server", "-Verify", "1", "-verify_return_error", "-CAfile", "ca.pem"),
                     more="tls_certificate = client.p12\ntls_password = secret\n")

    def test_no_client_certificate(self):
        port, _ = self.tls_server("server", "-Verify", "1", "-verify_return_error", "-CAfile", "ca.pem")
        self.refused(port, "certificate required")

    def test_a_certificate_that_has_expired(self):
        self.make_certificate("old", "ca", "DNS:localhost", "-days", "-1")
        port, _ = self.tls_server("old")
        self.refused(port, "the server's certificate is refused: certificate has expired")

    def test_a_certificate_for_another_name(self):
        self.make_certificate("elsewhere", "ca", "DNS:elsewhere.example")
        port, process = self.tls_server("elsewhere")
        self.refused(port, "the server's certificate is refused: hostname mismatch")
        self.encoder_process = None
        self.deliver(port, process, more="tls_name = elsewhere.example\n")

    def test_an_unknown_authority(self):
        self.make_certificate("foreign", "other", "DNS:localhost")
        port, _ = self.tls_server("foreign")
        self.refused(port, "the server's certificate is refused: unable to get local issuer certificate")

    def test_a_server_that_does_not_speak_tls(self):
        self.refused(self.server(xml("level_flight_aircraft")).port, "TLS: wrong version number")

    def test_files_that_cannot_be_used_are_named(self):
        for more, text in (("tls_certificate = client.key\n", "tls_certificate = .*client.key: no start line"),
                           ("tls_certificate = absent.pem\n", "tls_certificate = .*absent.pem: No such file or directory"),
                           ("tls_certificate = client.pem\ntls_key = server.key\n", "tls_key = .*: key values mismatch")):
            (self.folder / "tls.ini").write_text(self.config(8089, more))
            result = subprocess.run([harness.options.encoder, self.folder / "tls.ini", "--check", "--library",
                                     harness.options.library], capture_output=True, text=True, timeout=60)
            self.assertEqual(result.returncode, 2)
            self.assertRegex(result.stderr, r"\[tak\] " + text)


harness.main()
