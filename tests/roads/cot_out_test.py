#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Events of Cursor-on-Target as others read them: valid by a schema, over a group and to a server, and converted back by
the library."""
import contextlib
import json
import pathlib
import socket
import struct
import subprocess
import tarfile
import time
import xml.etree.ElementTree

import harness
from harness import EndToEndTest, send, source
from recipe import Recipe


def angle(degrees, full, size):
    return round(degrees / full * (2 ** (8 * size - 1) - 1)).to_bytes(size, "big", signed=True)


def unsigned(value, low, high, size):
    return round((value - low) / (high - low) * (2 ** (8 * size) - 1)).to_bytes(size, "big")


MESSAGE = harness.message(
    (2, (1700000000000000).to_bytes(8, "big")), (5, unsigned(90, 0, 360, 2)), (6, angle(4, 20, 2)), (7, angle(-3, 50, 2)),
    (10, b"UAV <1> & \"2\""), (11, b"EO"), (13, angle(46.5, 90, 4)), (14, angle(7.25, 180, 4)),
    (15, unsigned(1500, -900, 19000, 2)), (16, unsigned(6, 0, 180, 2)), (17, unsigned(4, 0, 180, 2)),
    (18, unsigned(40, 0, 360, 4)), (19, angle(-30, 180, 4)), (21, unsigned(4000, 0, 5000000, 4)),
    (23, angle(46.6, 90, 4)), (24, angle(7.3, 180, 4)), (25, unsigned(600, -900, 19000, 2)))


class CotOut(EndToEndTest):
    def check_event(self, data):
        """Checks an event by the schema, and returns it."""
        schema = pathlib.Path(harness.options.source) / "tests/data/cot_event.xsd"
        done = subprocess.run(["xmllint", "--noout", "--nonet", "--schema", schema, "-"], input=data, capture_output=True)
        self.assertEqual(done.returncode, 0, done.stderr)
        return xml.etree.ElementTree.fromstring(data)

    def receiver(self, port, group=None):
        listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(listener.close)
        listener.bind((group or "127.0.0.1", port))
        if group:
            listener.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                                struct.pack("4s4s", socket.inet_aton(group), socket.inet_aton("127.0.0.1")))
        listener.settimeout(60 * harness.SLOW)
        return listener

    def start_source(self, url, more=""):
        self.encoder(f"[udp]\ninput = udp\nport = 15821\nfamily = ipv4\ncot_out = {url}\ncot_out_rate = 20\n"
                     f"cot_out_uid = ME\n{more}", [15821])

    def test_the_recipe_of_the_page_feeds_map_clients(self):
        listener = self.receiver(6969, "239.2.3.1")
        recipe = Recipe(self, "docs/outputs/cot.md#1")
        events = []
        # On a busy machine the messages may come all at once, so that a run ends before its first events are due.
        for _ in range(5):
            self.encoder_process = recipe.start(0, stdout=subprocess.DEVNULL, stderr=self.output("encoder.err"))
            self.wait_for(lambda: harness.udp_port_open(15000), "the port")
            recipe.run(1)
            self.assertEqual(self.encoder_process.wait(timeout=60 * harness.SLOW), 0)
            listener.settimeout(0.1)
            with contextlib.suppress(TimeoutError):
                while len(events) < 2:
                    events.append(self.check_event(listener.recv(65536)))
            if len(events) == 2:
                break
        self.assertEqual([event.get("uid") for event in events], ["SIM-7", "SIM-7-SPI"])
        for event in events:
            self.assertAlmostEqual(float(event.find("point").get("lat")), 46.4, delta=0.2)

    def test_events_say_what_the_message_says(self):
        listener = self.receiver(15822)
        self.start_source("udp://localhost:15822", "cot_out_type = a-n-A\n")
        send(15821, MESSAGE)
        platform, spi = self.check_event(listener.recv(65536)), self.check_event(listener.recv(65536))
        self.assertEqual((platform.get("type"), spi.get("type")), ("a-n-A", "b-m-p-s-p-i"))
        self.assertEqual(platform.find("detail/contact").get("callsign"), 'UAV <1> & "2"')
        wanted = {"azimuth": 130, "elevation": -26, "fov": 6, "vfov": 4, "range": 4000}
        for name, value in wanted.items():
            self.assertAlmostEqual(float(platform.find("detail/sensor").get(name)), value, delta=0.01, msg=name)
        self.assertAlmostEqual(float(platform.find("point").get("lat")), 46.5, places=6)
        # The geoid lies about 50 m above the ellipsoid in Switzerland.
        self.assertAlmostEqual(float(platform.find("point").get("hae")), 1550, delta=5)
        self.assertAlmostEqual(float(spi.find("point").get("hae")), 650, delta=5)
        self.assertAlmostEqual(float(spi.find("point").get("lon")), 7.3, places=6)
        self.assertEqual(spi.find("detail/link").get("uid"), "ME")
        listener.settimeout(0.5)
        self.assertRaises(TimeoutError, listener.recv, 1)  # one message, one pair
        summary = self.stop()
        self.assertEqual(source(summary, "udp")["cot_out"], {"events": 2, "lost": 0})

    def test_the_library_converts_the_events_back(self):
        self.start_source("udp://127.0.0.1:15823",
                          "[back]\ninput = udp\nport = 15823\nfamily = ipv4\ndata = cot\n")
        self.wait_for(lambda: harness.udp_port_open(15823), "the second port")
        send(15821, MESSAGE)
        self.settle("back", 1)
        self.stop()
        sent, back = dict(harness.items(MESSAGE)), dict(harness.items(self.delivered("back")[0]))
        # The heights are those above the sea again, to which the geoid was added and from which it was subtracted.
        for tag, size in ((13, 4), (14, 4), (15, 2), (23, 4), (24, 4), (25, 2), (6, 2), (16, 2)):
            first, second = (int.from_bytes(each[tag], "big", signed=True) for each in (sent, back))
            self.assertAlmostEqual(first, second, delta=8, msg=tag)
        self.assertEqual(back[10], b"ME")

    def test_a_server_that_goes_and_comes_back_gets_events_again(self):
        listener = socket.create_server(("127.0.0.1", 15824))
        self.addCleanup(listener.close)
        listener.settimeout(60 * harness.SLOW)
        self.start_source("tcp://127.0.0.1:15824")
        for _ in range(2):
            peer, _ = listener.accept()
            with peer:
                peer.sendall(b"<event/>" * 1000)  # what others say is read and dropped
                peer.settimeout(0.1)
                text = b""
                deadline = time.monotonic() + 60 * harness.SLOW
                while text.count(b"</event>") < 4 and time.monotonic() < deadline:
                    send(15821, MESSAGE)
                    try:
                        text += peer.recv(65536)
                    except TimeoutError:
                        pass
                events = [b"<?xml" + part for part in text.split(b"<?xml")[1:] if part.endswith(b"</event>")]
                self.assertTrue(text.startswith(b"<?xml"))
                self.assertGreaterEqual(len(events), 3)
                for event in events:
                    self.check_event(event)
        self.stop()
        lines = (self.folder / "encoder.err").read_text()
        self.assertIn("the events of udp cannot be sent to tcp://127.0.0.1:15824: ", lines)
        self.assertIn("the events of udp are sent to tcp://127.0.0.1:15824 again", lines)

    def test_another_library_reads_the_events_in_both_forms(self):
        """@tak-ps/node-cot, which is in the tree as a bundle."""
        with tarfile.open(pathlib.Path(harness.options.source) / "tests/data/node_cot/reader.tar.gz") as bundle:
            bundle.extractall(self.folder / "node_cot")
        for number, scheme in enumerate(("udp", "tak")):
            with self.subTest(scheme=scheme):
                listener = self.receiver(15828 + number)
                self.start_source(f"{scheme}://127.0.0.1:{15828 + number}")
                send(15821, MESSAGE)
                files = [self.folder / f"{scheme}{number}" for number in range(2)]
                for file in files:
                    file.write_bytes(listener.recv(65536))
                self.stop()
                done = subprocess.run(["node", self.folder / "node_cot/lib/reader.mjs", *files], capture_output=True, text=True,
                                      timeout=120 * harness.SLOW)
                self.assertEqual(done.returncode, 0, done.stderr)
                platform, spi = (json.loads(line) for line in done.stdout.splitlines())
                self.assertEqual((platform["id"], spi["id"]), ("ME", "ME-SPI"))
                self.assertEqual(platform["properties"]["callsign"], 'UAV <1> & "2"')
                self.assertAlmostEqual(platform["geometry"]["coordinates"][0], 7.25, places=5)
                self.assertAlmostEqual(platform["geometry"]["coordinates"][1], 46.5, places=5)
                self.assertAlmostEqual(platform["geometry"]["coordinates"][2], 1550, delta=5)
                self.assertAlmostEqual(platform["properties"]["sensor"]["azimuth"], 130, delta=0.01)
                self.assertAlmostEqual(spi["geometry"]["coordinates"][0], 7.3, places=5)

    def certificates(self):
        """Makes an authority, and certificates of it for a server and a client."""
        run = lambda *command: subprocess.run(command, cwd=self.folder, check=True, capture_output=True)  # noqa: E731
        key = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes")
        run("openssl", "req", "-x509", *key, "-days", "2", "-subj", "/CN=authority", "-keyout", "ca.key", "-out", "ca.pem")
        for name, use in (("server", "subjectAltName=IP:127.0.0.1"), ("client", "extendedKeyUsage=clientAuth")):
            run("openssl", "req", *key, "-subj", f"/CN={name}", "-addext", use, "-keyout", f"{name}.key", "-out",
                f"{name}.csr")
            run("openssl", "x509", "-req", "-in", f"{name}.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-days", "2",
                "-copy_extensions", "copy", "-out", f"{name}.pem")

    def test_a_server_of_tls_gets_events_from_a_client_that_it_knows(self):
        self.certificates()
        server = self.start("openssl", "s_server", "-accept", "127.0.0.1:15826", "-cert", "server.pem", "-key", "server.key",
                            "-CAfile", "ca.pem", "-Verify", "1", "-verify_return_error", "-quiet", cwd=self.folder,
                            stdin=subprocess.PIPE, stdout=self.output("server.out"), stderr=self.output("server.err"))
        self.addCleanup(server.stdin.close)
        keys = "tls_ca = ca.pem\ntls_certificate = client.pem\ntls_key = client.key\n"
        self.start_source("tls://127.0.0.1:15826", keys)
        received = self.folder / "server.out"

        def arrived():
            send(15821, MESSAGE)
            return received.read_bytes().count(b"</event>") >= 4

        self.wait_for(arrived, "events", 60)
        self.stop()
        events = [b"<?xml" + part for part in received.read_bytes().split(b"<?xml")[1:] if part.endswith(b"</event>")]
        for event in events[:4]:
            self.check_event(event)
        self.assertNotIn("cannot be sent", (self.folder / "encoder.err").read_text().split("again")[-1])

    def test_a_server_whose_certificate_does_not_fit_gets_nothing(self):
        self.certificates()
        server = self.start("openssl", "s_server", "-accept", "127.0.0.1:15827", "-cert", "server.pem", "-key", "server.key",
                            "-quiet", cwd=self.folder, stdin=subprocess.PIPE, stdout=self.output("server.out"),
                            stderr=self.output("server.err"))
        self.addCleanup(server.stdin.close)
        self.start_source("tls://127.0.0.1:15827", "tls_ca = ca.pem\ntls_name = elsewhere.test\n")
        wanted = "cannot be sent to tls://127.0.0.1:15827: the server's certificate is refused: "
        self.wait_for(lambda: wanted in (self.folder / "encoder.err").read_text(), "the line", 60)
        send(15821, MESSAGE)
        self.settle("udp", 1)
        summary = self.stop()
        self.assertEqual((self.folder / "server.out").read_bytes(), b"")
        self.assertEqual(source(summary, "udp")["cot_out"]["events"], 0)
        self.assertEqual((self.folder / "encoder.err").read_text().count("cannot be sent"), 1)

    def test_events_that_would_come_back_are_refused(self):
        (self.folder / "loop.ini").write_text("[t]\ndata = cot\nurl = tak://239.2.3.1:6969\ncot_out = udp://239.2.3.1:6969\n")
        for arguments in ((), ("--check",)):
            done = subprocess.run([harness.options.encoder, self.folder / "loop.ini", *arguments], capture_output=True,
                                  text=True, timeout=60 * harness.SLOW)
            self.assertEqual(done.returncode, 2)
            self.assertIn("[t] -> udp://239.2.3.1:6969 -> [t]", done.stderr)

    def test_a_peer_that_never_comes_holds_nothing_up(self):
        # Nobody answers for 192.0.2.1, and nobody knows the name.
        for url in ("tcp://127.0.0.1:15825", "udp://name.invalid:1", "udp://192.0.2.1:5"):
            self.start_source(url)
            for _ in range(20):
                send(15821, MESSAGE)
            self.settle("udp", 20)
            begin = time.monotonic()
            summary = self.stop()
            self.assertLess(time.monotonic() - begin, 3 * harness.SLOW)
            self.assertEqual(len(self.delivered("udp")), 20)
            self.assertEqual(source(summary, "udp")["cot_out"]["events"], 0)
            self.assertLessEqual((self.folder / "encoder.err").read_text().count("cannot be sent"), 1)


if __name__ == "__main__":
    harness.main()
