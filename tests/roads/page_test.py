#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The page in Chromium: what it shows is what the program answers, whatever comes from the network."""
import base64
import datetime
import gzip
import http.server
import json
import pathlib
import re
import subprocess
import threading
import urllib.parse
import urllib.request

import harness
from browser import Browser
from harness import EndToEndTest, send
from recipe import Recipe
from selenium.webdriver.common.keys import Keys

PORT = 8080
ADDRESS = f"http://127.0.0.1:{PORT}"
CONFIG = f"""[encoder]
http = 127.0.0.1:{PORT}

[aircraft]
input = udp
port = 15000
family = ipv4
relay1 = 127.0.0.1:15999

[second]
input = udp
port = 15001
family = ipv4
"""
PIXEL = "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNkYPhfDwAChwGA60e6kgAAAABJRU5ErkJggg=="
HOSTILE = ("<img src=x onerror=\"document.title='caught'\">", "\u202eevil\u202c", "</td></table><script>document.title='caught'</script>",
           "&lt;b&gt;", "x" * 1200)  # the last one is nearly as long as a datagram may be


def api(path):
    with urllib.request.urlopen(f"{ADDRESS}/api/v1/{path}", timeout=10 * harness.SLOW) as answer:
        return json.load(answer)


def number(text):
    """The first number of a text of the page."""
    return float(re.search(r"[-−]?[\d.,]*\d", text)[0].replace("−", "-").replace(",", ""))


def is_shown(value, text):
    """Whether a cell shows this value of an item."""
    if isinstance(value, (int, float)):
        return abs(number(text) - value) <= 0.0005 * max(1.0, abs(value) / 1000)
    return str(value) in text


class Page(EndToEndTest):
    @classmethod
    def setUpClass(cls):
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.close)

    def setUp(self):
        super().setUp()
        self.browser.resize(1440, 900)
        self.browser.prefer(color_scheme="light")

    def start_page(self, config=CONFIG, path="/"):
        self.encoder(config, (15000, 15001))
        self.wait_for(self.answers, "the page's address")
        self.browser.open("about:blank")
        self.browser.complaints()
        self.browser.requests()
        self.browser.open(ADDRESS + path)
        self.wait_for(lambda: self.browser.text("#connection") == "Connected", "the page's connection")

    def answers(self):
        try:
            return api("info")["program"] == "mdencoder"
        except OSError:
            return False

    def fly(self, count=20, port=15000, *more):
        self.feed("klv", "--simulate", "--count", count, "--rate", 20, "--udp", f"127.0.0.1:{port}", *more)

    def show(self, name):
        """Chooses a source by its chip."""
        self.assertTrue(self.browser.run(
            "const label = [...document.querySelectorAll('.chip')].find((chip) => chip.innerText.includes(given[0]));"
            "label?.click(); return label !== undefined;", name))
        self.wait_for(lambda: self.browser.text("#detail-name") == name, f"the values of {name}")

    def items(self):
        """Returns the text of each item by its tag, without the elements of sets."""
        return {row[0]: row[2] for row in self.browser.rows("#items", ":not(.element)") if row[0].isdigit()}

    def wait_for_message(self, message):
        """Waits until the items are those of this message, by its time stamp."""
        time = next(item["text"] for item in message["items"] if item["tag"] == 2)[:23].replace("T", " ")
        self.wait_for(lambda: self.items().get("2") == time, f"the message of {time}")

    def map_picture(self):
        return self.browser.run("return [...document.querySelectorAll('.leaflet-overlay-pane .canvas-layer')]"
                                ".map((canvas) => canvas.toDataURL()).join();")

    def faults(self):
        """What axe-core says about the page, without what it calls minor."""
        axe = gzip.decompress((pathlib.Path(harness.options.source) / "tests/data/axe.min.js.gz").read_bytes()).decode()
        self.browser.driver.execute_script(axe)
        result = self.browser.run("const { violations } = await axe.run(document, { resultTypes: ['violations'] });"
                                  "return violations.map(({ id, impact, nodes }) => ({ id, impact, nodes: nodes.map("
                                  "(node) => `${node.html.slice(0, 160)} ${node.failureSummary}`) }));")
        self.assertNotIn("failed", result)
        return [fault for fault in result if fault["impact"] in ("serious", "critical", "moderate")]

    def check_calm(self):
        """No complaint in the console, and no request to anybody else."""
        self.assertEqual(self.browser.complaints(), [])
        addresses = [address for address in self.browser.requests() if not address.startswith(("blob:" + ADDRESS, "data:"))]
        self.assertEqual([address for address in addresses if not address.startswith(ADDRESS + "/")], [])


class Flight(Page):
    def test_the_flight_moves_and_agrees_with_the_answers(self):
        self.start_page()
        self.fly()
        self.wait_for(lambda: "13" in self.items(), "the items of the first messages")
        before = (self.items()["13"], self.map_picture())
        self.fly(30, 15000, "--start", "2024-05-01T12:10:00.00Z")
        self.settle("aircraft", 50)
        last = api("sources/aircraft/last?raw=1")
        self.wait_for_message(last)
        self.assertNotEqual(self.items()["13"], before[0])
        self.wait_for(lambda: self.map_picture() != before[1], "another picture of the map")
        self.check_items(last)
        self.check_sources()
        self.check_calm()

    def check_items(self, last):
        shown = self.items()
        for item in last["items"]:
            tag, value = str(item["tag"]), item.get("value")
            self.assertIn(tag, shown)
            if isinstance(value, list):
                continue
            wanted = item["text"] if isinstance(item.get("text"), str) else value
            if re.match(r"\d{4}-\d\d-\d\dT", str(wanted)):
                wanted = wanted[:23].replace("T", " ")
            if wanted is not None:
                self.assertTrue(is_shown(wanted, shown[tag]), f"item {tag}: {wanted} shown as {shown[tag]}")

    def check_sources(self):
        self.wait_for(lambda: api("sources/aircraft")["messages"] == 50, "the program's count of messages")
        wanted = {source["name"]: source for source in api("sources")["sources"]}

        def rows():
            return {re.split(r"\s", row[0].strip())[0]: row for row in self.browser.rows("#sources")}
        self.wait_for(lambda: number(rows()["aircraft"][3]) == 50, "the count of messages")
        self.assertEqual(set(rows()), set(wanted))
        self.assertIn("no message yet", rows()["second"][1])
        self.assertIn("127.0.0.1:15999", rows()["aircraft"][8])

    def test_the_recipe_of_the_page_shows_a_flight(self):
        recipe = Recipe(self, "docs/outputs/live_page.md#1")
        self.encoder_process = recipe.start(0, stdout=subprocess.DEVNULL, stderr=self.output("encoder.err"))
        self.wait_for(self.answers, "the page's address")
        self.wait_for(lambda: harness.udp_port_open(15000), "the encoder's port")
        self.browser.open(ADDRESS)
        recipe.run(1)
        self.wait_for(lambda: "13" in self.items(), "the items")

    def test_raw_bytes_are_shown_on_demand(self):
        self.start_page()
        self.fly(5)
        self.wait_for(lambda: "13" in self.items(), "the items")
        self.assertNotIn("06 0E 2B 34", self.browser.text("#items"))
        self.browser.click("#raw")
        self.wait_for(lambda: "06 0E 2B 34 02 0B 01 01" in self.browser.text("#items"), "the bytes of the message")
        self.assertNotIn("failed", str(self.browser.run("document.querySelector('#item-filter').value = 'latitude';"
                                                        "document.querySelector('#item-filter').dispatchEvent(new Event('input'));")))
        self.wait_for(lambda: set(self.items()) >= {"13", "23"} and "5" not in self.items(), "the items that were looked for")

    def test_plots_have_what_came_before_the_page(self):
        self.encoder(CONFIG, (15000, 15001))
        self.wait_for(self.answers, "the page's address")
        self.fly(20)
        self.settle("aircraft", 20)
        self.browser.open(ADDRESS)
        self.wait_for(lambda: "13" in self.items(), "the items of a message that came before")
        self.browser.click("#tab-plots")
        wanted = api("sources/aircraft/history?item=15&seconds=600")["series"][0]["points"][-1][1]
        self.wait_for(lambda: re.search(r"\d", self.browser.text(".plot-value") or ""), "a plot")
        self.assertTrue(is_shown(wanted, self.browser.text(".plot-value")), (wanted, self.browser.text(".plot-value")))
        self.browser.click("#tab-sources")


class Video(Page):
    def behind(self):
        """Returns how many milliseconds the shown message is away from the shown frame, or None."""
        found = re.match(r"Message (\d+)\s*ms", self.browser.text("#video-note") or "")
        return int(found[1]) if found else None

    def test_the_values_are_those_of_the_shown_frame(self):
        self.start_page(CONFIG + f"\n[stream flight]\nurl = {self.folder}/flight.ts\nsize = 320x180\n")
        flight = self.start(harness.options.feed, "klv", "--simulate", "--rate", 20, "--duration", 300 * harness.SLOW, "--udp",
                            "127.0.0.1:15000", stderr=subprocess.DEVNULL)
        self.wait_for(lambda: self.browser.run("return document.querySelector('#video').currentTime;") > 0.5, "the video", 40)
        self.wait_for(lambda: self.behind() is not None and self.behind() <= 100, "a message at the time of the frame", 40)
        self.wait_for(lambda: self.lag() > 0.2, "values that are as old as the frame")
        self.browser.click("#of-frame")
        flight.kill()
        flight.wait()
        self.drain(15000)
        self.wait_for(lambda: self.lag() == 0, "the values of the last message")
        self.check_calm()

    def lag(self):
        """Returns how many seconds the shown message is older than the last one."""
        last = next(item["text"] for item in api("sources/aircraft/last")["items"] if item["tag"] == 2)
        shown = self.items().get("2") or last[:23]
        moments = [datetime.datetime.fromisoformat(text[:23].replace("T", " ")) for text in (last, shown)]
        return (moments[0] - moments[1]).total_seconds()


class Trouble(Page):
    def test_a_restart_of_the_program_is_survived(self):
        self.start_page()
        self.fly(10)
        self.wait_for(lambda: "13" in self.items(), "the items")
        self.stop()
        self.encoder_process = None
        self.wait_for(lambda: "Connection lost" in (self.browser.text("#notice") or ""), "the notice")
        self.assertEqual(self.browser.text("#connection"), "Connection lost")
        self.browser.complaints()  # the console tells each attempt
        self.encoder(CONFIG, (15000, 15001))
        self.wait_for(lambda: self.browser.text("#connection") == "Connected", "another connection", 40)
        self.assertIsNone(self.browser.text("#notice"))
        self.browser.complaints()
        self.fly(7, 15000, "--start", "2024-05-01T12:20:00.00Z")
        self.settle("aircraft", 7)
        last = api("sources/aircraft/last")
        self.wait_for_message(last)
        self.check_calm()

    def test_hostile_texts_are_shown_as_text(self):
        self.start_page()
        title = self.browser.run("return document.title;")
        scripts = self.browser.run("return document.scripts.length;")
        for text in HOSTILE:
            wanted = "".join(c if c < "\x7f" else "".join(f"\\x{byte:02X}" for byte in c.encode()) for c in text)[:200]
            send(15000, self.long_message(text.encode()))
            self.wait_for(lambda: self.items().get("10", "").startswith(wanted), f"the text {wanted[:30]}")
        self.assertEqual(self.browser.run("return document.title;"), title)
        self.assertEqual(self.browser.run("return document.querySelectorAll('#items img, #items script, #items b').length;"), 0)
        self.assertEqual(self.browser.run("return document.scripts.length;"), scripts)
        self.assertTrue(self.browser.run("return document.documentElement.scrollWidth <= innerWidth;"))
        self.check_calm()

    @staticmethod
    def long_message(text):
        """A UAS Local Set whose item 10 is this text."""
        size = bytes([len(text)]) if len(text) < 128 else b"\x82" + len(text).to_bytes(2, "big")
        body = b"\x02\x08" + (1700000000000000).to_bytes(8, "big") + b"\x0a" + size + text + b"\x01\x02"
        start = harness.KEY + b"\x82" + (len(body) + 2).to_bytes(2, "big") + body
        return start + harness.checksum(start).to_bytes(2, "big")

    def test_a_page_without_sources_and_messages_says_so(self):
        self.start_page()
        self.assertEqual(self.browser.text("#items-empty"), "No message received yet.")
        self.assertEqual(self.browser.text("#map-empty"), "No position received yet.")
        self.check_calm()


class Sensors(Page):
    """Two sources see the same three sensors of Cursor-on-Target, and each accepts another one of them."""
    NAMES = ("SENSOR-1", "SENSOR-2", "SENSOR-3")
    CONFIG = f"[encoder]\nhttp = 127.0.0.1:{PORT}\n" + "".join(
        f"[{name}]\ninput = udp\nport = {port}\nfamily = ipv4\ndata = cot\ncot_sensor = {sensor}\ncot_discovery = yes\n"
        for name, port, sensor in (("east", 15000, "SENSOR-1"), ("west", 15001, "SENSOR-2")))

    def send_events(self):
        """Sends events again and again until the test ends, because sensors are forgotten that are not seen."""
        events = pathlib.Path(harness.options.source) / "tests" / "data" / "cot_events"
        aircraft = (events / "level_flight_aircraft.xml").read_bytes()
        spi = (events / "level_flight_spi.xml").read_bytes()
        first, second, third = (spi.replace(b"SENSOR-1", name.encode()).replace(b'lat="45.5117"', b'lat="45.%d117"' % (5 + number))
                                for number, name in enumerate(self.NAMES))
        ended = threading.Event()

        def run():
            while not ended.wait(0.2):
                for event in (second, third, aircraft, first):
                    send(15000, event)
                for event in (first, third, aircraft, second):
                    send(15001, event)
        thread = threading.Thread(target=run)
        thread.start()
        self.addCleanup(thread.join)
        self.addCleanup(ended.set)

    def entries(self, source):
        """Returns what the table shows of a source's sensors: whether there is a button, and the text."""
        return self.browser.run(
            "const row = [...document.querySelectorAll('#sources tbody tr')].find((row) => row.innerText.includes(given[0]));"
            "return [...(row?.querySelectorAll('.sensors li') ?? [])].map((entry) =>"
            "[entry.querySelector('button').checkVisibility(), entry.innerText.replace(/\\s+/g, ' ').trim()]);", source)

    def watch_names(self):
        """Lets the page note where the map shows names, from the middle of the map."""
        self.browser.run(
            "window.shown = {}; const draw = CanvasRenderingContext2D.prototype.fillText;"
            "CanvasRenderingContext2D.prototype.fillText = function (text, x, y) {"
            "const { width, height } = this.canvas.style; window.shown[text] = [x - parseFloat(width) / 2, y - parseFloat(height) / 2];"
            "return draw.call(this, text, x, y); };")

    def test_sensors_are_on_the_map_and_in_the_table(self):
        self.start_page(self.CONFIG)
        self.watch_names()
        self.send_events()
        button = "Show on the map: {} 45.{}1170° N 73.55730° W"
        wanted = [[True, button.format("SENSOR-1", 5)], [True, button.format("SENSOR-2", 6)], [False, "SENSOR-3"]]
        for source in ("east", "west"):
            self.wait_for(lambda: sorted(self.entries(source)) == sorted(wanted), f"the sensors of {source}")
        names = {sensor["uid"]: sensor.get("place", {}).get("latitude") for sensor in api("sources/west")["sensors"]}
        self.assertEqual(set(names), set(self.NAMES))
        self.assertAlmostEqual(names["SENSOR-1"], 45.5117, 5)
        self.assertIsNone(names["SENSOR-3"])
        self.wait_for(lambda: {"SENSOR-1", "SENSOR-2"} <= set(self.browser.run("return window.shown;")), "the names on the map")
        self.assertNotIn("SENSOR-3", self.browser.run("return window.shown;"))
        self.check_a_sensor_is_chosen_by_keyboard()
        self.check_the_legend_names_the_symbol()
        self.assertEqual(self.faults(), [])
        self.check_calm()

    def check_a_sensor_is_chosen_by_keyboard(self):
        self.browser.run("window.shown = {};"
                         "[...document.querySelectorAll('.sensors button')].find((button) => button.innerText.includes('SENSOR-2')).focus();")
        self.browser.press(Keys.ENTER)

        def is_in_the_middle():
            place = self.browser.run("return window.shown['SENSOR-2'] ?? null;")
            return place is not None and max(abs(place[0]), abs(place[1])) < 60
        self.wait_for(is_in_the_middle, "the map at the sensor's place")
        self.assertEqual(self.browser.run("return document.querySelector('#follow').getAttribute('aria-pressed');"), "false")
        self.wait_for(lambda: "SENSOR-2" in self.browser.run("return document.querySelector('#announcer').textContent;"), "the announcement")

    def check_the_legend_names_the_symbol(self):
        symbol = "#legend li:last-child"
        self.assertIsNone(self.browser.text(symbol))
        self.browser.run("document.querySelector('#legend summary').focus();")
        self.browser.press(Keys.ENTER)
        self.wait_for(lambda: self.browser.text(symbol) == "What a sensor of Cursor-on-Target looks at", "the legend")


class Everybody(Page):
    def test_everybody_can_use_it(self):
        self.start_page()
        self.fly(5)
        self.fly(5, 15001)
        self.wait_for(lambda: "13" in self.items(), "the items")
        for check in (self.check_axe_finds_no_fault_in_light_and_dark, self.check_the_page_is_operated_by_keyboard,
                      self.check_no_width_needs_scrolling_to_the_side, self.check_the_theme_can_be_chosen):
            with self.subTest(check.__name__):
                check()

    def check_axe_finds_no_fault_in_light_and_dark(self):
        for scheme in ("light", "dark"):
            self.browser.prefer(color_scheme=scheme)
            for tab in ("sources", "plots", "log"):
                self.browser.click(f"#tab-{tab}")
                self.assertEqual(self.faults(), [], f"{scheme}, {tab}")
        self.browser.click("#tab-sources")
        self.browser.prefer(color_scheme="light")

    def check_the_theme_can_be_chosen(self):
        ground = "return getComputedStyle(document.body).backgroundColor;"
        light = self.browser.run(ground)
        self.browser.click("#theme")
        self.assertEqual(self.browser.run(ground), light)
        self.browser.click("#theme")
        self.assertNotEqual(self.browser.run(ground), light)
        self.browser.open(ADDRESS)
        self.assertNotEqual(self.browser.run(ground), light)
        self.browser.click("#theme")
        self.assertEqual(self.browser.run(ground), light)

    def check_the_page_is_operated_by_keyboard(self):
        self.show("aircraft")
        self.browser.run("document.querySelector('input[name=source]:checked').focus();")
        self.browser.press(Keys.ARROW_RIGHT)
        self.wait_for(lambda: self.browser.text("#detail-name") == "second", "the other source")
        self.browser.run("document.querySelector('#tab-sources').focus();")
        self.browser.press(Keys.ARROW_RIGHT)
        self.wait_for(lambda: self.browser.text("#panel-plots") is not None, "the plots")
        self.browser.press(Keys.HOME)
        self.wait_for(lambda: self.browser.text("#panel-sources") is not None, "the sources")
        unseen = self.browser.run(
            "const found = []; for (const element of document.querySelectorAll('button, select, input, a, [tabindex=\"0\"]')) {"
            "if (!element.checkVisibility() || element.disabled || element.tabIndex < 0) continue; element.focus();"
            "if (document.activeElement !== element) found.push(element.outerHTML.slice(0, 120)); } return found;")
        self.assertEqual(unseen, [])

    def check_no_width_needs_scrolling_to_the_side(self):
        for width in (320, 360, 820, 1100, 1440):
            self.browser.resize(width, 800)
            for tab in ("plots", "log", "sources"):
                self.browser.click(f"#tab-{tab}")
                self.assertLessEqual(self.browser.run("return document.documentElement.scrollWidth;"), width, f"{width}, {tab}")
            sides = self.browser.run("return ['#map', '#detail', '.dock'].map((name) => {"
                                     "const box = document.querySelector(name).getBoundingClientRect(); return [box.width, box.height]; });")
            self.assertTrue(all(wide > 250 and high > 150 for wide, high in sides), f"{width}: {sides}")


class Settings(Page):
    def test_own_tiles_are_shown_and_asked_for_at_their_server_alone(self):
        asked = []

        class Tiles(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                asked.append(self.path)
                self.send_response(200)
                self.send_header("Content-Type", "image/png")
                self.end_headers()
                self.wfile.write(base64.b64decode(PIXEL))

            def log_message(self, *_):
                pass
        with http.server.ThreadingHTTPServer(("127.0.0.1", 8090), Tiles) as server:
            threading.Thread(target=server.serve_forever, daemon=True).start()
            self.addCleanup(server.shutdown)
            self.start_page(CONFIG.replace("[aircraft]", "tiles = http://127.0.0.1:8090/{z}/{x}/{y}.png\n"
                                           "tiles_attribution = <b>Own</b> tiles\n[aircraft]", 1))
            self.wait_for(lambda: self.browser.run("return document.querySelectorAll('img.leaflet-tile-loaded').length > 3;"),
                          "the tiles")
            self.assertIn("<b>Own</b> tiles", self.browser.text(".leaflet-control-attribution"))
            others = {urllib.parse.urlsplit(address).netloc for address in self.browser.requests()
                      if address.startswith("http") and not address.startswith(ADDRESS + "/")}
            self.assertEqual(others, {"127.0.0.1:8090"})
            self.assertTrue(all(re.fullmatch(r"/\d+/\d+/\d+\.png", path) for path in asked), asked)
            self.browser.click("#tiles")
            self.assertEqual(self.browser.run("return document.querySelectorAll('img.leaflet-tile').length;"), 0)
            self.browser.click("#tiles")
            self.assertEqual(self.browser.complaints(), [])

    def test_a_token_opens_the_page(self):
        token = "a-token-of-the-test-0123456789"
        (self.folder / "token").write_text(token + "\n")
        config = CONFIG.replace("[aircraft]", f"http_token = {self.folder}/token\n[aircraft]", 1)
        self.encoder(config, (15000, 15001))
        self.wait_for(self.is_healthy, "the page's address")
        self.browser.open(f"{ADDRESS}/login?token={token}")
        self.wait_for(lambda: self.browser.text("#connection") == "Connected", "the page's connection")
        self.fly(5)
        self.wait_for(lambda: "13" in self.items(), "the items")
        self.browser.driver.delete_all_cookies()
        self.browser.open(ADDRESS)
        self.wait_for(lambda: self.browser.text("#connection") is None, "the answer without a token")

    @staticmethod
    def is_healthy():
        try:
            with urllib.request.urlopen(f"{ADDRESS}/healthz", timeout=10 * harness.SLOW):
                return True
        except OSError:
            return False

    def test_warnings_of_the_log_are_counted_until_they_are_seen(self):
        self.start_page(CONFIG + "\n[line]\ninput = serial\ndevice = /dev/there-is-none\n")
        self.wait_for(lambda: "waiting" in (self.browser.text("#sources") or ""), "the state of the line")
        self.browser.click("#tab-log")
        self.wait_for(lambda: "there-is-none" in (self.browser.text("#log") or ""), "the line of the log")
        self.browser.click("#tab-sources")
        self.assertIsNone(self.browser.text("#log-count"))
        self.check_calm()


class Recordings(Page):
    def test_a_recording_is_replayed_with_a_slider(self):
        self.start_page()
        self.fly(60)
        self.settle("aircraft", 60)
        self.browser.run("document.querySelector('input[name=mode][value=recording]').click();")
        self.wait_for(lambda: self.browser.run("return !document.querySelector('#play').disabled;"), "the recording")
        name = self.browser.run("return document.querySelector('#recording').value;")
        first = api(f"recordings/{urllib.parse.quote(name)}?points=5")["points"][0]["seen"]["platform"]["latitude"]
        self.wait_for(lambda: is_shown(first, self.items().get("13", "-1")), "the first message")
        self.browser.run("const slider = document.querySelector('#moment'); slider.value = 1000;"
                         "slider.dispatchEvent(new Event('input'));")
        last = api("sources/aircraft/last")["seen"]["platform"]["latitude"]
        self.wait_for(lambda: is_shown(last, self.items().get("13", "-1")), "the last message")
        self.browser.run("document.querySelector('input[name=mode][value=live]').click();")
        self.wait_for(lambda: self.browser.text("#replay") is None, "the live view")
        self.check_calm()


if __name__ == "__main__":
    harness.main()
