#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The server of the live page as others see it: curl, Python's own client, openssl, Prometheus' parser, and a check of every
answer by the description of the API; and clients that mean no good, while messages go on arriving."""
import base64
import http.client
import json
import pathlib
import re
import signal
import socket
import ssl
import subprocess
import threading
import time

import jsonschema
from prometheus_client.parser import text_string_to_metric_families

import harness
from harness import EndToEndTest, message, send
from recipe import Recipe

PORT = 15851
WEB = 15852
TOKEN = "a-token-of-these-tests"


def position(latitude, longitude, name=b"UAV"):
    angle = lambda degrees, full: round(degrees / full * (2 ** 31 - 1)).to_bytes(4, "big", signed=True)
    return message((2, (1700000000000000).to_bytes(8, "big")), (3, name), (5, (0x4000).to_bytes(2, "big")),
                   (13, angle(latitude, 90)), (14, angle(longitude, 180)), (15, (0x3000).to_bytes(2, "big")))


class Http(EndToEndTest):
    def serve(self, more="", source="", arguments=(), scheme=None):
        self.encoder(f"[encoder]\nhttp = 127.0.0.1:{WEB}\n{more}\n[udp]\ninput = udp\nport = {PORT}\n{source}", [PORT],
                     arguments=arguments)
        self.context = scheme

        def answers():
            try:
                return self.ask("/healthz")[0] in (200, 503)
            except OSError:
                return False
        self.wait_for(answers, "the server")

    def connect(self):
        timeout = 30 * harness.SLOW
        if self.context:
            return http.client.HTTPSConnection("127.0.0.1", WEB, timeout=timeout, context=self.context)
        return http.client.HTTPConnection("127.0.0.1", WEB, timeout=timeout)

    def ask(self, path, headers=None, method="GET"):
        connection = self.connect()
        try:
            connection.request(method, path, headers=headers or {})
            answer = connection.getresponse()
            return answer.status, answer.headers, answer.read()
        finally:
            connection.close()

    def get(self, path, headers=None):
        status, _, body = self.ask(path, headers)
        self.assertEqual(status, 200, (path, body))
        return json.loads(body)

    def raw(self, data, until_end=True):
        """Sends bytes as they are, and returns all that comes back."""
        with socket.create_connection(("127.0.0.1", WEB), timeout=30 * harness.SLOW) as client:
            client.sendall(data)
            answer = b""
            try:
                while until_end or b"\r\n\r\n" not in answer:
                    piece = client.recv(65536)
                    if not piece:
                        break
                    answer += piece
            except ConnectionResetError:
                pass
            return answer

    def deliver(self, count, name="udp"):
        before = self.arrived(name)
        for i in range(count):
            send(PORT, position(40 + (before + i) % 40, 7))
            self.settle(name, before + i + 1)

    # --- what is told

    def validator(self):
        description = self.get("/api/v1/openapi.json")
        self.assertEqual(description, json.loads((pathlib.Path(harness.options.source) / "docs/openapi.json").read_text()))
        schemas = json.loads(json.dumps(description["components"]["schemas"]))

        def adapt(schema):
            """Turns what OpenAPI 3.0 has of its own into JSON Schema."""
            if isinstance(schema, dict):
                if schema.pop("nullable", False):
                    inner = dict(schema)
                    schema.clear()
                    schema["anyOf"] = [inner, {"type": "null"}]
                for value in list(schema.values()):
                    adapt(value)
            elif isinstance(schema, list):
                for value in schema:
                    adapt(value)
        adapt(schemas)

        def check(path, name, value):
            wanted = {"$ref": f"#/components/schemas/{name}", "components": {"schemas": schemas}}
            jsonschema.Draft7Validator(wanted).validate(value)
            if path:
                shown = description["paths"][path]["get"]["responses"]["200"]["content"]["application/json"]["schema"]
                self.assertEqual(shown["$ref"].rsplit("/", 1)[1], name, path)
        return check

    def test_every_answer_is_as_its_description_says(self):
        self.serve(source="relay1 = 127.0.0.1:15853\nmission_id = M\n")
        send(PORT, b"this is no metadata at all")
        self.settle("udp", 1)
        self.deliver(3)
        check = self.validator()
        self.wait_for(lambda: self.get("/api/v1/sources/udp")["messages"] >= 4, "the statistics")
        api = "/api/v1/"
        check(api + "info", "Info", self.get(api + "info"))
        check(api + "items", "ItemTables", self.get(api + "items"))
        sources = self.get(api + "sources")
        check(api + "sources", "Sources", sources)
        check(api + "sources/{name}", "Source", self.get(api + "sources/udp"))
        last = self.get(api + "sources/udp/last?raw=1")
        check(api + "sources/{name}/last", "Message", last)
        check(api + "sources/{name}/history", "History", self.get(api + "sources/udp/history?item=13,sensor_lon&item=15"))
        check(api + "sources/{name}/track", "Track", self.get(api + "sources/udp/track?seconds=60&points=2"))
        check(api + "log", "Log", self.get(api + "log?level=notice"))
        check(api + "streams", "Streams", self.get(api + "streams"))
        self.wait_for(lambda: last["time_us"] in [each["to_us"] for each in self.get(api + "recordings")["recordings"]],
                      "the recording's index")
        recordings = self.get(api + "recordings")
        check(api + "recordings", "Recordings", recordings)
        check(api + "recordings/{name}", "RecordingPoints", self.get(api + "recordings/udp.klv?points=2"))
        recorded = self.get(api + f"recordings/udp.klv/message?time={2 ** 60}")
        check(api + "recordings/{name}/message", "RecordedMessage", recorded)
        check(None, "Error", json.loads(self.ask(api + "nothing")[2]))
        check(None, "Health", self.get("/healthz"))
        # The numbers are those of the delivered messages.
        self.stop()
        self.assertIn(bytes.fromhex(last["raw"]), (self.folder / "udp.klv").read_bytes())
        self.assertEqual(sources["sources"][0]["name"], "udp")
        self.assertAlmostEqual(recorded["seen"]["platform"]["latitude"], 43, places=5)
        value = {item["tag"]: item["value"] for item in last["items"]}
        self.assertEqual(value[3], "M")

    def test_the_recipe_of_the_page_asks_for_the_last_message(self):
        recipe = Recipe(self, "docs/outputs/http_api.md#1")
        following = Recipe(self, "docs/outputs/http_api.md#2")
        self.encoder_process = recipe.start(0, stdout=subprocess.DEVNULL, stderr=self.output("encoder.err"))
        self.wait_for(lambda: harness.udp_port_open(15000) and "the live page is at" in (self.folder / "encoder.err").read_text(),
                      "the page")
        events = self.folder / "events"
        curl = following.start(0, stdout=self.output(events.name), stderr=subprocess.DEVNULL)
        self.wait_for(lambda: "event: hello" in events.read_text(), "the greeting")
        recipe.run(1)
        self.wait_for(lambda: '"platform":' in recipe.run(2), "the message")
        self.wait_for(lambda: "event: message" in events.read_text(), "an event")
        whole = events.read_text().rpartition("\n\n")[0]
        self.assertLessEqual(set(re.findall(r"^event: (\w+)", whole, re.M)), {"hello", "message"})
        curl.send_signal(signal.SIGINT)
        curl.wait(timeout=30 * harness.SLOW)
        self.encoder_process.send_signal(signal.SIGINT)
        self.assertEqual(self.encoder_process.wait(timeout=30 * harness.SLOW), 0)

    def families(self):
        """The metrics as the parser of Prometheus reads them, by their names."""
        _, headers, body = self.ask("/metrics")
        self.assertEqual(headers["Content-Type"], "text/plain; version=0.0.4; charset=utf-8")
        families = {family.name: family for family in text_string_to_metric_families(body.decode())}
        self.assertTrue(all(family.documentation for family in families.values()))
        self.assertTrue(all(name.startswith("metadata_") for name in families))
        return families

    def test_prometheus_reads_the_metrics(self):
        self.serve()
        self.deliver(5)
        self.wait_for(lambda: self.get("/api/v1/sources/udp")["messages"] == 5, "the statistics")
        families = self.families()
        self.assertEqual(families["metadata_messages"].type, "counter")
        sample = families["metadata_messages"].samples[0]
        self.assertEqual((sample.name, sample.labels, sample.value), ("metadata_messages_total", {"source": "udp"}, 5))
        for name in ("metadata_kernel_drops", "metadata_received_messages", "metadata_source_open", "metadata_page_lag_seconds"):
            self.assertIn(name, families)
        self.assertEqual(families["metadata_source_open"].samples[0].value, 1)

    def test_curl_follows_the_events(self):
        self.serve()
        check = self.validator()
        curl = self.start("curl", "-sN", f"http://127.0.0.1:{WEB}/api/v1/events?source=udp&items=full", "-o", self.folder / "events")
        file = self.folder / "events"
        self.wait_for(lambda: file.exists() and "event: hello" in file.read_text(), "the greeting")
        self.deliver(3)
        self.wait_for(lambda: file.read_text().count("event: message") == 3 and "event: statistics" in file.read_text(), "the events")
        self.stop()
        self.assertEqual(curl.wait(timeout=30 * harness.SLOW), 0, "the server ends what it sends as it should")
        kinds = {"hello": "HelloEvent", "message": "MessageEvent", "statistics": "Sources", "log": "LogLine", "bye": "ByeEvent"}
        ids = []
        for block in file.read_text().split("\n\n"):
            lines = dict(line.split(": ", 1) for line in block.splitlines() if ": " in line)
            if "event" not in lines:
                continue
            ids += [int(lines["id"])] if "id" in lines else []
            data = json.loads(lines["data"])
            check(None, kinds[lines["event"]], data)
        self.assertEqual(ids, sorted(set(ids)))
        self.assertIn('"reason":"the program ends"', file.read_text())

    def test_events_go_on_after_a_broken_connection(self):
        self.serve()
        self.deliver(1)
        first = self.get("/api/v1/sources/udp/last")["id"]
        self.deliver(2)
        last = self.get("/api/v1/sources/udp/last")["id"]
        with socket.create_connection(("127.0.0.1", WEB), timeout=30 * harness.SLOW) as client:
            client.sendall(b"GET /api/v1/events?kind=message HTTP/1.1\r\nHost: localhost\r\nLast-Event-ID: %d\r\n\r\n" % first)
            text = b""
            while b"id: %d\n" % last not in text:
                piece = client.recv(65536)
                self.assertTrue(piece, text)
                text += piece
        self.assertIn(b'"missed":false', text)
        self.assertEqual(text.count(b"event: message"), 2)

    def test_a_stream_is_a_movie_whose_clock_the_messages_have(self):
        self.serve(source=f"[stream flight]\nurl = {self.folder}/flight.ts\n")
        stream = lambda: self.get("/api/v1/streams")["streams"][0]
        self.wait_for(lambda: "mime" in stream() and stream()["frames"] > 0, "the stream", 60)
        self.assertRegex(stream()["mime"], r'^video/mp4; codecs="avc1\.[0-9a-f]{6}"$')
        self.validator()("/api/v1/streams", "Streams", self.get("/api/v1/streams"))
        movie = self.folder / "movie.mp4"
        curl = self.start("curl", "-sN", f"http://127.0.0.1:{WEB}{stream()['url']}", "-o", movie)
        self.wait_for(lambda: movie.exists() and movie.read_bytes().count(b"moof") >= 3, "pieces of the movie", 60)
        before = stream()["clock"]
        self.deliver(1)
        self.wait_for(lambda: self.ask("/api/v1/sources/udp/last")[0] == 200, "the message")
        # The message is of another day, and so has the time of its arrival.
        time_shown = self.get("/api/v1/sources/udp/last")["presentation"]
        self.assertGreaterEqual(time_shown, before)
        self.wait_for(lambda: stream()["clock"] >= time_shown, "the frame of that time", 60)
        self.wait_for(lambda: stream()["messages"] == 1 and stream()["outputs"][0]["bytes"] > 0, "the message in the file")
        self.validator()("/api/v1/streams", "Streams", self.get("/api/v1/streams"))
        self.check_metrics_of_the_stream(stream)
        self.stop()
        self.assertEqual(curl.wait(timeout=30 * harness.SLOW), 0)
        shown = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "stream=codec_name", "-of", "csv=p=0", movie],
                               capture_output=True, text=True, timeout=60 * harness.SLOW)
        self.assertEqual((shown.stdout.strip(), shown.stderr), ("h264", ""))

    def check_metrics_of_the_stream(self, stream):
        before = stream()
        families = self.families()
        after = stream()

        def value(name, **labels):
            found = [sample for sample in families[f"metadata_stream_{name}"].samples if sample.labels == {"stream": "flight", **labels}]
            self.assertEqual(len(found), 1, (name, families[f"metadata_stream_{name}"]))
            return found[0].value
        source = {"source": "udp"}
        output = {"output": "1", "destination": str(self.folder / "flight.ts")}
        self.assertEqual((value("messages"), value("lost_messages")), (1, 0))
        self.assertEqual((value("source_messages", **source), value("source_by_arrival", **source)), (1, 1))
        self.assertEqual((value("output_good", **output), value("output_lost_bytes", **output)), (1, 0))
        for name in ("source_late_messages", "source_offset_seconds", "source_difference_seconds", "source_drift_ratio"):
            self.assertGreaterEqual(value(name, **source), 0, name)
        for name, key in (("frames", "frames"), ("frames_late", "frames_late"), ("clock_seconds", "clock")):
            self.assertTrue(before[key] <= value(name) <= after[key], name)
        self.assertTrue(before["outputs"][0]["bytes"] <= value("output_bytes", **output) <= after["outputs"][0]["bytes"])
        self.assertEqual(families["metadata_stream_frames"].type, "counter")

    # --- who may ask

    def serve_tls(self, more=""):
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
                        "-subj", "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1,DNS:localhost",
                        "-keyout", self.folder / "key.pem", "-out", self.folder / "cert.pem"], check=True, capture_output=True)
        self.serve(f"http_cert = cert.pem\nhttp_key = key.pem\n{more}",
                   scheme=ssl.create_default_context(cafile=self.folder / "cert.pem"))

    def test_a_token_and_tls_keep_others_out(self):
        (self.folder / "token").write_text(TOKEN + "\n")
        self.serve_tls("http_token = token\nhttp_host = camera.example")
        self.assertEqual(self.ask("/api/v1/info")[0], 401)
        self.assertEqual(json.loads(self.ask("/healthz")[2])["reasons"], [])
        bearer = {"Authorization": f"Bearer {TOKEN}"}
        self.assertEqual(self.ask("/api/v1/info", bearer)[0], 200)
        self.assertEqual(self.ask("/api/v1/info", {"Authorization": f"Bearer {TOKEN}x"})[0], 401)
        basic = base64.b64encode(f"a:{TOKEN}".encode()).decode()
        self.assertEqual(self.ask("/api/v1/info", {"Authorization": f"Basic {basic}"})[0], 401)
        status, headers, _ = self.ask("/", {"Accept": "text/html"})
        self.assertEqual((status, headers["Location"]), (303, "/login"))
        self.assertIn(b"<form", self.ask("/login")[2])
        self.assertEqual(self.ask("/login?token=wrong")[0], 401)
        status, headers, _ = self.ask(f"/login?token={TOKEN}")
        self.assertEqual((status, headers["Location"]), (303, "/"))
        cookie = headers["Set-Cookie"]
        for wanted in ("HttpOnly", "SameSite=Strict", "Secure"):
            self.assertIn(wanted, cookie)
        self.assertNotIn(TOKEN, cookie)
        self.assertEqual(self.ask("/", {"Cookie": cookie.split(";")[0], "Accept": "text/html"})[0], 200)
        self.assertEqual(self.ask("/", {**bearer, "Host": "camera.example"})[0], 200)
        self.assertEqual(self.ask("/", {**bearer, "Host": "evil.example"})[0], 403)
        shown = subprocess.run(["openssl", "s_client", "-connect", f"127.0.0.1:{WEB}", "-CAfile", self.folder / "cert.pem",
                                "-verify_return_error", "-tls1_3"], input=b"", capture_output=True, timeout=30 * harness.SLOW)
        self.assertIn(b"Verify return code: 0 (ok)", shown.stdout)
        old = subprocess.run(["openssl", "s_client", "-connect", f"127.0.0.1:{WEB}", "-tls1_1", "-cipher", "ALL:@SECLEVEL=0"],
                             input=b"", capture_output=True, timeout=30 * harness.SLOW)
        self.assertNotEqual(old.returncode, 0)
        self.assertEqual(self.plain_on_tls(), b"")
        self.stop()

    def plain_on_tls(self):
        return self.raw(b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n").replace(b"\x15\x03", b"", 1)[5:]

    def test_answers_carry_the_rules_of_the_page(self):
        self.serve("tiles = https://tiles.example/{z}/{x}/{y}.png")
        for path in ("/", "/api/v1/info", "/nothing", "/metrics"):
            headers = self.ask(path)[1]
            self.assertIn("default-src 'none'", headers["Content-Security-Policy"])
            self.assertIn("https://tiles.example", headers["Content-Security-Policy"])
            self.assertEqual(headers["X-Content-Type-Options"], "nosniff")
            self.assertEqual(headers["Referrer-Policy"], "no-referrer")
            self.assertNotIn("Access-Control-Allow-Origin", headers)
        status, headers, body = self.ask("/")
        self.assertEqual(self.ask("/", {"If-None-Match": headers["ETag"]})[0], 304)
        packed = self.ask("/api/v1/openapi.json", {"Accept-Encoding": "gzip"})
        self.assertEqual(packed[1]["Content-Encoding"], "gzip")
        self.assertLess(len(packed[2]), 20000)
        status, headers, nothing = self.ask("/", method="HEAD")
        self.assertEqual((status, int(headers["Content-Length"]), nothing), (200, len(body), b""))

    def test_only_get_and_head_in_their_strict_form_are_answered(self):
        self.serve()
        host = b"\r\nHost: localhost\r\n\r\n"
        wanted = [(b"POST / HTTP/1.1" + host, 405), (b"OPTIONS * HTTP/1.1" + host, 405), (b"GET / HTTP/9.9" + host, 505),
                  (b"GET / HTTP/1.1\r\n\r\n", 400), (b"GET /\x00 HTTP/1.1" + host, 400), (b"GET /%00 HTTP/1.1" + host, 400),
                  (b"nonsense\r\n\r\n", 400), (b"\x16\x03\x01\x02\x00\x01\x00\x01\r\n\r\n", 400),
                  (b"GET / HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", 413),
                  (b"GET / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 99999999999\r\n\r\n", 413),
                  (b"GET /" + b"a" * 5000 + b" HTTP/1.1" + host, 414),
                  (b"GET / HTTP/1.1\r\nX: " + b"a" * 40000 + host, 431),
                  (b"GET / HTTP/1.1\r\n" + b"A: b\r\n" * 200 + b"Host: localhost\r\n\r\n", 431),
                  (b"GET /../../etc/passwd HTTP/1.1\r\nConnection: close" + host, 404),
                  (b"GET /%2e%2e/%2e%2e/etc/passwd HTTP/1.1\r\nConnection: close" + host, 404),
                  (b"GET //etc/passwd HTTP/1.1\r\nConnection: close" + host, 404),
                  (b"GET /api/v1/recordings/..%2fencoder.ini HTTP/1.1\r\nConnection: close" + host, 404),
                  (b"GET / HTTP/1.1\r\nConnection: close\r\nHost: evil.example\r\n\r\n", 403),
                  (b"GET / HTTP/1.1\r\nConnection: close\r\nHost:\r\n\r\n", 403)]
        for request, status in wanted:
            answer = self.raw(request)
            self.assertEqual(answer.split(b" ")[1:2], [str(status).encode()], (request[:60], answer[:200]))
            json.loads(answer.split(b"\r\n\r\n", 1)[1])
        many = b"bytes=" + b",".join(b"0-" for _ in range(3000))
        answer = self.raw(b"GET /api/v1/openapi.json HTTP/1.1\r\nConnection: close\r\nRange: " + many + host)
        self.assertTrue(answer.startswith(b"HTTP/1.1 200 "), answer[:100])
        two = self.raw(b"GET /healthz HTTP/1.1" + host + b"GET /healthz HTTP/1.1\r\nConnection: close" + host)
        self.assertEqual(two.count(b"HTTP/1.1 200"), 2)
        old = self.raw(b"GET /healthz HTTP/1.0" + host)
        self.assertIn(b"Connection: close", old)
        self.stop()

    # --- bad clients

    def test_a_crowd_is_turned_away_while_messages_go_on(self):
        self.serve()
        clients = []
        self.addCleanup(lambda: [client.close() for client in clients])
        turned = 0
        for i in range(400):
            client = socket.create_connection(("127.0.0.1", WEB), timeout=30 * harness.SLOW)
            clients.append(client)
            if i % 2:
                client.sendall(b"GET /half")  # and never the rest
        self.deliver(5)

        def was_refused(client):
            client.setblocking(False)
            try:
                return client.recv(65536).startswith(b"HTTP/1.1 503")
            except BlockingIOError:
                return False
            except ConnectionResetError:
                return True
        deadline = time.monotonic() + 20 * harness.SLOW
        while turned < 200 and time.monotonic() < deadline:
            turned += sum(was_refused(client) for client in clients)
            time.sleep(0.05)
        self.assertGreaterEqual(turned, 200)
        for client in clients:
            client.close()
        self.wait_for(lambda: self.ask("/healthz")[0] == 200, "room for clients")
        self.deliver(5)
        log = (self.folder / "encoder.err").read_text()
        self.assertLessEqual(log.count("clients of the page"), 3, log)
        self.assertIn("are connected; more are turned away", log)
        counts = self.ask("/metrics")[2].decode()
        self.assertIn("metadata_http_turned_away_total", counts)
        self.stop()
        self.assertEqual(len(self.delivered("udp")), 10)

    def crowd(self, count):
        """Connects clients that say nothing."""
        clients = [socket.create_connection(("127.0.0.1", WEB), timeout=30 * harness.SLOW) for _ in range(count)]
        self.addCleanup(lambda: [client.close() for client in clients])
        return clients

    def test_under_tls_a_crowd_is_turned_away_too(self):
        self.serve_tls()
        clients = self.crowd(400)

        def is_closed(client):
            client.setblocking(False)
            try:
                return client.recv(1) == b""
            except BlockingIOError:
                return False
            except ConnectionResetError:
                return True
        self.wait_for(lambda: sum(is_closed(client) for client in clients) >= 200, "clients that were closed at once")
        for client in clients:
            client.close()

        def is_told():
            """Asks while there is a crowd. There may be no handshake, or the crowd may have gone meanwhile."""
            clients = self.crowd(128)
            try:
                status, headers, body = self.ask("/api/v1/info")
            except (OSError, http.client.HTTPException):
                return False
            finally:
                for client in clients:
                    client.close()
            return status == 503 and headers["Retry-After"] == "5" and b"too many clients" in body
        self.wait_for(is_told, "the answer to a client of too many", 60)

        def has_room():
            try:
                return self.ask("/healthz")[0] == 200
            except (OSError, http.client.HTTPException):
                return False
        self.wait_for(has_room, "room for clients")
        self.deliver(5)
        log = (self.folder / "encoder.err").read_text()
        self.assertLessEqual(log.count("clients of the page"), 3, log)
        self.stop()
        self.assertEqual(len(self.delivered("udp")), 5)

    def test_a_client_that_does_not_read_is_closed_with_one_line(self):
        """Meanwhile another one never ends its request, and is told so."""
        self.serve()
        half = socket.create_connection(("127.0.0.1", WEB), timeout=30 * harness.SLOW)
        self.addCleanup(half.close)
        half.sendall(b"GET /half")
        client = socket.socket()
        self.addCleanup(client.close)
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        client.connect(("127.0.0.1", WEB))
        client.sendall(b"GET /api/v1/events?items=full HTTP/1.1\r\nHost: localhost\r\n\r\n")
        ended = threading.Event()

        def flood():
            name = b"x" * 100
            while not ended.is_set():
                send(PORT, position(1, 2, name))
                time.sleep(0.001)
        thread = threading.Thread(target=flood)
        thread.start()
        try:
            log = self.folder / "encoder.err"
            self.wait_for(lambda: "and is closed" in log.read_text(), "the line", 60)
        finally:
            ended.set()
            thread.join()
        self.assertEqual(log.read_text().count("and is closed"), 1)
        self.assertTrue(half.recv(65536).startswith(b"HTTP/1.1 408 Request Timeout\r\n"))
        self.assertEqual(self.ask("/healthz")[0], 200)
        self.stop()

    def test_hostile_texts_stay_texts(self):
        self.serve()
        send(PORT, position(1, 2, b"</script><img src=x onerror=alert(1)>\x01\x1b[2J\xff\xe2\x80\xae\r\n"))
        self.settle("udp", 1)
        self.wait_for(lambda: self.ask("/api/v1/sources/udp/last")[0] == 200, "the message")
        status, headers, body = self.ask("/api/v1/sources/udp/last")
        self.assertEqual(headers["Content-Type"], "application/json")
        body.decode("utf-8")
        self.assertFalse([byte for byte in body if byte < 0x20])
        value = next(item["value"] for item in json.loads(body)["items"] if item["tag"] == 3)
        self.assertIn("</script><img src=x onerror=alert(1)>", value)

    # --- configuration

    def test_what_cannot_be_served_is_said_in_one_line(self):
        taken = socket.create_server(("127.0.0.1", WEB))
        self.addCleanup(taken.close)
        (self.folder / "short").write_text("short\n")
        config = self.folder / "a.ini"

        def fault(keys, code, *options):
            config.write_text(f"[encoder]\n{keys}\n[udp]\ninput = udp\nport = {PORT}\n")
            done = subprocess.run([harness.options.encoder, config, "--library", harness.options.library, *options],
                                  capture_output=True, text=True, timeout=60 * harness.SLOW)
            self.assertEqual(done.returncode, code, done.stderr)
            lines = [line for line in done.stderr.splitlines() if line.startswith("mdencoder: ")]
            self.assertEqual(len(lines), 1, done.stderr)
            return lines[0]
        here = f"http = 127.0.0.1:{WEB}"
        self.assertIn("the port is in use", fault(here, 1))
        self.assertIn("it is in use", fault(here, 2, "--check"))
        self.assertIn("without an http_token", fault(f"http = 0.0.0.0:{WEB}", 2))
        free = f"http = 127.0.0.1:{WEB + 1}\n"
        for check in ((), ("--check",)):
            self.assertIn("must be a file with a token", fault(free + "http_token = short", 2, *check))
            self.assertIn("http_token", fault(free + "http_token = absent", 2, *check))
            self.assertIn("http_cert", fault(free + "http_cert = absent", 2, *check))


if __name__ == "__main__":
    harness.main()
