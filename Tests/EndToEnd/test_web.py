"""The monitor's live page in a real browser, and its metrics in a real Prometheus."""

import concurrent.futures
import json
import pathlib
import re
import shutil
import socket
import struct
import time
import urllib.parse
import urllib.request
import uuid

import pytest

from Laboratory.network import THERE4, THERE6
from browser import Browser
from laboratory import CURL, PYTHON, eventually, remote
from origins import tell_peer

PAGE = ("127.0.0.1", 8090)
# Of the processor; a person notices frames that take longer as not smooth.
SLOW_FRAME_SECONDS = 0.05

ROWS = """[...document.querySelectorAll('#table .row')]
  .filter((row) => !row.hidden)
  .map((row) => [...row.children].map((cell) => cell.textContent))"""
SHOWN = "document.getElementById('count').textContent"


def page_of(laboratory, *options):
    """Starts a monitor; returns the address of its page."""
    token = laboratory.path("token")
    pathlib.Path(token).write_text("a-token-for-the-tests\n")
    laboratory.start_monitor(
        "--web", f"{PAGE[0]}:{PAGE[1]}", "--web-token", token,
        "--control", laboratory.control_path, *options,
    )  # fmt: skip
    return f"http://{PAGE[0]}:{PAGE[1]}/?token=a-token-for-the-tests"


@pytest.fixture
def page(laboratory):
    return page_of(laboratory)


def get(laboratory, url):
    def fetch():
        with laboratory.here, urllib.request.urlopen(url, timeout=30) as answer:
            return answer.read().decode()

    with concurrent.futures.ThreadPoolExecutor(1) as thread:
        return thread.submit(fetch).result()


def metrics(laboratory, page):
    return get(laboratory, page.replace("/?", "/metrics?"))


def api(laboratory, page, name):
    return json.loads(get(laboratory, page.replace("/?", f"/api/{name}?")))


class Prometheus:
    """With the packaged configuration, except for its pace. Scrapes the monitor of page_of."""

    def __init__(self, laboratory):
        self._laboratory = laboratory
        packaging = pathlib.Path(__file__).resolve().parents[2] / "Packaging/prometheus"
        self.folder = pathlib.Path(laboratory.path("prometheus"))
        shutil.copytree(packaging, self.folder)
        configuration = (self.folder / "scrape.yml").read_text()
        for packaged, own in (
            ("/etc/prometheus/ostravel-token", laboratory.path("token")),
            ("scrape_interval: 15s", "scrape_interval: 1s"),
        ):
            assert packaged in configuration
            configuration = configuration.replace(packaged, own)
        (self.folder / "scrape.yml").write_text(configuration)
        program = laboratory.start(
            ["prometheus", f"--config.file={self.folder}/scrape.yml",
             f"--storage.tsdb.path={self.folder}/data", "--web.listen-address=127.0.0.1:9090"],
            name="prometheus",
        )  # fmt: skip
        program.expect(program.errors, "Server is ready")

    def ask(self, what):
        answer = json.loads(get(self._laboratory, f"http://127.0.0.1:9090/api/v1/{what}"))
        assert answer["status"] == "success", (what, answer)
        return answer["data"]

    def query(self, text):
        return self.ask("query?query=" + urllib.parse.quote(text))["result"]

    def values(self, text):
        return [float(each["value"][1]) for each in self.query(text)]


def send_events(path, events):
    """Plays the extension."""
    for number, (signal, flow, level, context, numbers, at) in enumerate(events):
        event = {
            "message_id": str(number), "timestamp": at, "logged_at": "", "level": level,
            "type": "extension_proxy_event", "component": "network_extension",
            "current_signal": signal, "code": f"extension.{signal}", "message": signal,
            "flow_id": flow, "context": context,
        }  # fmt: skip
        if numbers:
            event["metrics"] = numbers
        body = json.dumps(event).encode()
        with socket.socket(socket.AF_UNIX) as connection:
            connection.connect(path)
            connection.sendall(struct.pack(">I", len(body)) + body)


def flow_that_ended(application, target, begin):
    flow = str(uuid.uuid4()).upper()
    return [
        ("connect_handshake_started", flow, "info",
         {"app_id": application, "remote": target}, None, begin),
        ("connect_handshake_succeeded", flow, "info",
         {"app_id": application}, {"elapsed_ms": 1.5, "leftover_bytes": 0.0}, begin + 0.0015),
        ("tunnel_closed", flow, "info",
         {"app_id": application, "detail": "eof"}, None, begin + 0.25),
    ]  # fmt: skip


def test_the_page_reports_that_the_proxy_hung(laboratory, page):
    laboratory.serve(80, tell_peer)
    proxy = laboratory.start_local_proxy()
    laboratory.start_extension()
    laboratory.wait_until_proxied()
    with Browser(laboratory.here) as browser:
        browser.open(page)
        browser.wait("document.getElementById('state').dataset.state === 'proxied'")
        assert laboratory.curl(f"http://{THERE4}/").way == "proxied"
        assert laboratory.curl(f"http://[{THERE6}]/").way == "proxied"
        laboratory.events.wait_for_count("tunnel_closed", 3)
        proxy.behave(answer="", then="hold")
        hung_at = time.time()
        assert laboratory.curl(f"http://{THERE4}/").way == "direct"
        laboratory.events.wait("connect_handshake_timed_out")
        browser.wait("document.getElementById('state').dataset.state === 'direct'")
        browser.wait("document.querySelector('#outages .who') !== null")

        outage = browser.run("document.getElementById('outages').innerText")
        assert "Proxy hangs" in outage
        assert "Applications hit: curl (1)" in outage
        assert "No connection was lost." in outage
        begin = time.strftime("%H:%M", time.gmtime(hung_at))
        assert re.search(r"since " + begin, outage) or time.gmtime().tm_sec < 10
        # What the page shows is what was done.
        of_curl = f"{ROWS}.filter((row) => row[2] === 'curl')"
        browser.wait(f"{of_curl}.length >= 3")
        assert [row[2:5] for row in browser.run(of_curl)] == [
            ["curl", remote(THERE4, 80), "timed out"],
            ["curl", remote(THERE6, 80), "closed"],
            ["curl", remote(THERE4, 80), "closed"],
        ]
        assert browser.complaints == []
    text = metrics(laboratory, page)
    assert 'ostravel_flow_failures_total{outcome="timed_out"} 1\n' in text
    assert "ostravel_proxy_outages_total 1\n" in text


def test_flows_are_searched_filtered_and_opened(laboratory, page):
    now = time.time()
    send_events(laboratory.socket_path, [
        *flow_that_ended(CURL, "example.org:443", now - 3),
        *flow_that_ended(PYTHON, "<img src=x onerror=alert(1)>:443", now - 2),
        ("connect_handshake_started", "F", "info", {"app_id": CURL, "remote": "no.example:80"},
         None, now - 1),
        ("connect_handshake_rejected", "F", "error",
         {"app_id": CURL, "status_line": "HTTP/1.1 403 Forbidden"}, None, now),
    ])  # fmt: skip
    with Browser(laboratory.here, dark=True) as browser:
        browser.open(page)
        browser.wait(f"{ROWS}.length === 3")
        # By keyboard alone.
        browser.press("/")
        browser.type("CURL example.org")
        browser.wait(f"{SHOWN} === '1 of 3 flows'")
        browser.press("Escape")
        browser.wait(f"{SHOWN} === '3 flows'")
        browser.run("document.getElementById('table').focus()")
        browser.press("ArrowDown")
        browser.press("Enter")
        browser.wait("document.querySelectorAll('#flow-steps li').length === 2")
        life = browser.run("document.getElementById('flow').innerText")
        assert "HTTP/1.1 403 Forbidden" in life
        assert "no.example:80" in life
        browser.press("Escape")
        browser.wait("!document.getElementById('flow').open")
        # No text of a flow becomes a part of the page.
        assert browser.run("document.images.length") == 0
        browser.run("""(() => { const select = document.getElementById('outcome');
            select.value = 'bad'; select.dispatchEvent(new Event('change')); })()""")
        browser.wait(f"{SHOWN} === '1 of 3 flows'")
        # A narrow screen needs no sideways scrolling.
        browser.resize(400, 800)
        assert browser.run("document.documentElement.scrollWidth") <= 400
        assert browser.complaints == []


def test_ten_thousand_flows_do_not_slow_the_page(laboratory, page):
    now = time.time()
    events = []
    for number in range(10_000):
        begin = now - 600 + number * 0.06
        events.append(
            ("connect_handshake_started", f"FLOW-{number}", "info",
             {"app_id": f"/usr/bin/program-{number % 50}", "remote": f"host-{number}.example:443"},
             None, begin)
        )  # fmt: skip
    send_events(laboratory.socket_path, events)
    with Browser(laboratory.here) as browser:
        browser.open(page)
        browser.wait(f"{SHOWN} === '10,000 flows'")
        assert browser.run("document.querySelectorAll('#table .row').length") < 100
        # Scrolls from end to end and searches.
        frames = 120
        before = browser.seconds_used()
        browser.run("""(async () => {
            const table = document.getElementById('table');
            const search = document.getElementById('search');
            const frame = () => new Promise((done) => requestAnimationFrame(done));
            for (let count = 0; count < %d; ++count) {
              table.scrollTop = (count %% 60) / 60 * table.scrollHeight;
              if (count %% 20 === 0) {
                search.value = count %% 40 ? 'program-7' : '';
                search.dispatchEvent(new Event('input'));
              }
              await frame();
            }
        })()""" % frames)
        used = browser.seconds_used() - before
        print(f"{used / frames * 1000:.1f} ms of the processor for each frame")
        assert used / frames < SLOW_FRAME_SECONDS
        browser.run("document.getElementById('search').value = 'host-4242.'")
        browser.run("document.getElementById('search').dispatchEvent(new Event('input'))")
        browser.wait(f"{SHOWN} === '1 of 10,000 flows'")
        assert browser.complaints == []


def test_prometheus_finds_what_was_counted(laboratory, page):
    now = time.time()
    for _ in range(5):
        send_events(laboratory.socket_path, flow_that_ended(CURL, "example.org:443", now))
    eventually(lambda: "ostravel_flows_total 5\n" in metrics(laboratory, page), "five flows")
    checked = laboratory.run_application(
        "promtool", "check", "metrics", given=metrics(laboratory, page).encode()
    )
    assert (checked.returncode, checked.stdout, checked.stderr) == (0, b"", b"")
    prometheus = Prometheus(laboratory)
    checked = laboratory.run_application(
        "promtool", "test", "rules", str(prometheus.folder / "alerts-test.yml")
    )
    assert checked.returncode == 0, checked.stdout + checked.stderr
    eventually(lambda: prometheus.values("ostravel_flows_total") == [5.0], "a scrape")
    assert prometheus.values("ostravel_handshake_duration_seconds_count") == [5.0]
    assert prometheus.values("sum(ostravel_flow_failures_total)") == [0.0]
