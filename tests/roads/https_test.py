#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Servers of https:// whose certificates fit, and others: sources, the video of streams, inspect and decode take the first
kind only, and say in one line why they do not take the second."""
import functools
import http.server
import json
import ssl
import subprocess
import threading

import harness
import ts_reader
from harness import EndToEndTest, message, options, send, source

GOOD, WRONG, PLAIN = 15832, 15833, 15835
UNKNOWN = "the server's certificate is not valid, or not signed by a known authority"
STRANGE = "the server's certificate is that of another host"


class Files(http.server.SimpleHTTPRequestHandler):
    """Serves the files of a folder and leads to other servers, and says nothing."""

    def do_GET(self):
        ways = {"/plain": f"http://127.0.0.1:{PLAIN}", "/elsewhere": f"https://127.0.0.1:{WRONG}",
                "/here": f"https://127.0.0.1:{GOOD}"}
        if self.path not in ways:
            super().do_GET()
            return
        self.send_response(302)
        self.send_header("Location", ways[self.path] + "/flight.ts")
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *_):
        pass


class Https(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.feed("ts", "--output", self.folder / "flight.ts", "--duration", "2", "--rate", "20")
        self.certificate("good", "IP:127.0.0.1")
        self.certificate("wrong", "DNS:elsewhere.test")
        self.serve(GOOD, "good")
        self.serve(WRONG, "wrong")

    def certificate(self, name, host):
        """Makes a key and a certificate that is its own authority."""
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
                        "-subj", f"/CN={host}", "-addext", f"subjectAltName={host}", "-keyout", self.folder / f"{name}.key",
                        "-out", self.folder / f"{name}.pem"], check=True, capture_output=True)

    def serve(self, port, name=None):
        server = http.server.ThreadingHTTPServer(("127.0.0.1", port), functools.partial(Files, directory=self.folder))
        if name:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(self.folder / f"{name}.pem", self.folder / f"{name}.key")
            server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)
        server.handle_error = lambda *_: None  # of clients that do not like the certificate
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)

    def errors(self):
        return (self.folder / "encoder.err").read_text()

    def look(self, command, url, *words, expected, before=()):
        done = subprocess.run([*before, options.encoder, command, url, "--format", "json", *map(str, words)],
                              capture_output=True, text=True, timeout=60 * harness.SLOW, cwd=self.folder)
        self.assertEqual(done.returncode, expected, done.stdout + done.stderr)
        return done

    def refused(self, url, reason, *words):
        for command in ("inspect", "decode"):
            done = self.look(command, url, *words, expected=1)
            self.assertEqual((done.stderr, done.stdout), (f"mdencoder: {url}: {reason}\n", ""), command)

    def test_sources(self):
        url = f"https://127.0.0.1:{GOOD}/flight.ts"
        wrong = f"https://127.0.0.1:{WRONG}/flight.ts"
        self.encoder(f"[cam]\nurl = {url}\ntls_ca = good.pem\n[stranger]\nurl = {url}\n"
                     f"[wrong]\nurl = {wrong}\ntls_ca = wrong.pem\n[gone]\nurl = {url}\ntls_ca = gone.pem\n")
        self.settle("cam", 40, 60)
        for name, peer, reason in (("stranger", url, UNKNOWN), ("wrong", wrong, STRANGE),
                                   ("gone", url, f"the authorities in {self.folder}/gone.pem cannot be read: "
                                                 "No such file or directory")):
            self.wait_for(lambda: f"mdencoder: source {name} waits: cannot open {peer}: {reason}\n" in self.errors(),
                          f"the line of {name}", 60)
        summary = self.stop()
        raw = self.folder / "raw.klv"
        subprocess.run(["ffmpeg", "-v", "error", "-i", self.folder / "flight.ts", "-map", "0:d", "-c", "copy", "-f", "data", raw],
                       check=True)
        self.assertEqual(self.delivered("cam")[:40], harness.split_messages(raw.read_bytes()))
        self.assertEqual([source(summary, name)["messages"] for name in ("stranger", "wrong", "gone")], [0, 0, 0])
        for name in ("stranger", "wrong", "gone"):
            self.assertEqual(self.errors().count(f"source {name} "), 1)

    def test_looking(self):
        good, wrong = f"https://127.0.0.1:{GOOD}/flight.ts", f"https://127.0.0.1:{WRONG}/flight.ts"
        report = self.look("inspect", good, "--tls-ca", "good.pem", expected=0)
        self.assertEqual(json.loads(report.stdout)["messages"], 40)
        rows = self.look("decode", good, "--tls-ca", "good.pem", expected=0)
        self.assertEqual(rows.stdout.count("\n"), 40)
        self.refused(good, UNKNOWN)
        self.refused(good, UNKNOWN, "--tls-ca", "wrong.pem")
        self.refused(wrong, STRANGE, "--tls-ca", "wrong.pem")
        for words in ((good, "--tls-ca", "gone.pem"), ("flight.ts", "--tls-ca", "good.pem"),
                      (f"http://127.0.0.1:{PLAIN}/", "--tls-ca", "good.pem")):
            for command in ("inspect", "decode"):
                self.assertIn("--tls-ca", self.look(command, *words, expected=2).stderr)

    def test_without_a_file_the_authorities_are_those_of_the_system(self):
        system = ["unshare", "--mount", "--propagation", "private", "sh", "-c",
                  "mount -t tmpfs none /etc/ssl/certs && cp good.pem /etc/ssl/certs/ca-certificates.crt && exec \"$@\"", "sh"]
        self.look("inspect", f"https://127.0.0.1:{GOOD}/flight.ts", expected=0, before=system)

    def test_a_server_leads_to_others_with_certificates_only(self):
        self.serve(PLAIN)
        url = f"https://127.0.0.1:{GOOD}"
        self.look("inspect", f"{url}/here", "--tls-ca", "good.pem", expected=0)
        self.refused(f"{url}/plain", "the server leads to an address without TLS", "--tls-ca", "good.pem")
        self.refused(f"{url}/elsewhere", UNKNOWN, "--tls-ca", "good.pem")

    def test_the_video_of_streams(self):
        subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=s=160x120:r=25", "-t", "2", "-c:v", "libx264",
                        "-g", "10", "-bf", "0", self.folder / "video.ts"], check=True)
        url = f"https://127.0.0.1:{GOOD}/video.ts"
        self.encoder("[a]\ninput = udp\nport = 15801\n"
                     f"[stream good]\nvideo = {url}\ntls_ca = good.pem\nurl = good.ts\n"
                     f"[stream stranger]\nvideo = {url}\nurl = stranger.ts\n"
                     f"[stream wrong]\nvideo = https://127.0.0.1:{WRONG}/video.ts\ntls_ca = wrong.pem\nurl = wrong.ts\n", [15801])
        line = "mdencoder: stream {}: the video https://127.0.0.1:{}/video.ts cannot be opened: {}; messages go on without pictures\n"
        for name, port, reason in (("stranger", GOOD, UNKNOWN), ("wrong", WRONG, STRANGE)):
            self.wait_for(lambda: line.format(name, port, reason) in self.errors(), f"the line of {name}", 60)
        for name in ("good", "stranger", "wrong"):
            send(15801, message((2, bytes(8))))
            size = 50000 if name == "good" else 20000
            path = self.folder / f"{name}.ts"
            self.wait_for(lambda: path.exists() and path.stat().st_size > size, f"a stream of {name}", 60)
        self.stop()
        frames = {name: len(ts_reader.Stream((self.folder / f"{name}.ts").read_bytes()).of(0x100))
                  for name in ("good", "stranger", "wrong")}
        self.assertGreater(frames["good"], 10)
        self.assertEqual((frames["stranger"], frames["wrong"]), (0, 0))


if __name__ == "__main__":
    harness.main()
