"""The proxy hung for a while: when, which applications it hit, and that nothing was lost, as a person
finds it out afterwards in the terminal, on the page and with Prometheus."""

import concurrent.futures
import json
import math
import pathlib
import re
import signal
import time
from typing import NamedTuple

import pytest

from Laboratory.lines import GENEROUS_SECONDS
from Laboratory.network import THERE4
from browser import Browser
from laboratory import CURL, eventually, receive_exactly
from origins import tell_peer
from test_web import ROWS, Prometheus, api, metrics, page_of

ECHO_PORT = 8000
NOTHING_LOST = "No connection was lost."


class Hang(NamedTuple):
    began: float  # when the proxy was stopped
    ended: float  # when it went on
    applications: set


def echo(connection, _):
    while data := connection.recv(4096):
        connection.sendall(data)


def say(connection, text):
    connection.sendall(text)
    assert receive_exactly(connection, len(text)) == text


def let_the_proxy_hang(laboratory, later=()):
    """Under traffic of two applications, and then of others whose connections need not wait for it
    any more; returns when new connections are proxied again."""
    laboratory.serve(80, tell_peer)
    laboratory.serve(ECHO_PORT, echo)
    sidecar = laboratory.start_sidecar()
    laboratory.start_extension()
    browser = laboratory.copy_of(CURL, "browser")

    def fetch(program):
        return laboratory.curl(f"http://{THERE4}/", program=program)

    eventually(lambda: fetch(CURL).way == "proxied", "flows are proxied")
    tunnel = laboratory.connect(THERE4, ECHO_PORT)
    say(tunnel, b"before")
    began = time.time()
    sidecar.process.send_signal(signal.SIGSTOP)
    # Together, so that the first one does not warn the other.
    with concurrent.futures.ThreadPoolExecutor() as threads:
        assert {found.way for found in threads.map(fetch, (CURL, browser))} == {"direct"}
    assert all(fetch(program).way == "direct" for program in later)
    ended = time.time()
    sidecar.process.send_signal(signal.SIGCONT)
    eventually(lambda: fetch(CURL).way == "proxied", "flows are proxied again")
    # The open tunnel was only delayed.
    say(tunnel, b"after")
    tunnel.close()
    return Hang(began, ended, {CURL, browser, *later})


def is_of(hang, begin, end):
    """Whether these are the times of the outage: it begins with the first connection after the stop,
    and ends with the first answer afterwards."""
    return hang.began <= begin <= hang.ended <= end + 0.001 and end <= time.time()


def seconds_of(text):
    """Of a time with date and zone."""
    return time.mktime(time.strptime(text[:19], "%Y-%m-%dT%H:%M:%S")) - time.timezone + float(
        text[19:23]
    )


def test_the_terminal_reports_an_outage(laboratory):
    monitor = laboratory.start(
        [laboratory.program_path("ostravel-monitor"), "--socket", laboratory.socket_path,
         "--time", "utc", "--summary"],
        name="ostravel-monitor",
    )  # fmt: skip
    monitor.expect(monitor.errors, "listening on")
    hang = let_the_proxy_hang(laboratory)
    assert monitor.output.wait(lambda line: " error The proxy hangs, since " in line)
    line = monitor.output.wait(lambda line: " info  The proxy hung from " in line)
    begin, end = re.search(r"from (\S+)Z to (\S+)Z \(", line).groups()
    assert is_of(hang, seconds_of(begin), seconds_of(end)), (hang, line)
    told = re.search(r" connections waited for it and then went direct: (.*?)\. ", line).group(1)
    assert {each.split(" (")[0] for each in told.split(", ")} == hang.applications
    assert line.endswith(NOTHING_LOST)
    # And once more at the end.
    assert monitor.stop() == 0
    assert any("The proxy hung from " in line for line in monitor.errors.since())


def test_a_page_that_is_opened_later_reports_an_outage(laboratory):
    page = page_of(laboratory)
    hang = let_the_proxy_hang(laboratory, [laboratory.copy_of(CURL, "updater")])
    eventually(
        lambda: any("end" in outage for outage in api(laboratory, page, "state")["outages"]),
        "the end of the outage",
    )
    state = api(laboratory, page, "state")
    (outage,) = state["outages"]
    assert is_of(hang, outage["begin"], outage["end"]), (hang, outage)
    # The time lines begin before it.
    assert state["samples"][0][0] < hang.began
    with Browser(laboratory.here) as browser:
        browser.open(page)
        browser.wait("document.querySelector('#outages .who') !== null")
        text = browser.run("document.getElementById('outages').innerText")
        assert "Proxy hung" in text
        assert time.strftime("%H:%M:%S – ", time.gmtime(outage["begin"])) in text
        names = {pathlib.Path(application).name for application in hang.applications}
        who = re.search(r"Applications hit: (.*)", text).group(1)
        assert {each.split(" (")[0] for each in who.split(", ")} == names
        assert NOTHING_LOST in text
        browser.wait("document.getElementById('loss').textContent.includes('No event was lost.')")
        browser.wait("document.getElementById('state').dataset.state === 'proxied'")
        # Which flows these were.
        browser.run("""(() => { const select = document.getElementById('outcome');
            select.value = 'timed out'; select.dispatchEvent(new Event('change')); })()""")
        browser.wait(f"{ROWS}.length >= 2")
        assert {"curl", "browser"} <= {row[2] for row in browser.run(ROWS)} <= names
        assert browser.complaints == []


def test_prometheus_reports_an_outage(laboratory):
    # There is no server to publish to, but its metrics exist.
    page = page_of(laboratory, "--application-metrics", "--publish", "nats://127.0.0.1:1",
                   "--spool", laboratory.path("spool"))  # fmt: skip
    prometheus = Prometheus(laboratory)
    hang = let_the_proxy_hang(laboratory)
    eventually(lambda: prometheus.values("max_over_time(ostravel_proxy_outage[1h])") == [1.0],
               "the outage")  # fmt: skip
    eventually(lambda: prometheus.values("ostravel_proxy_outage") == [0.0], "its end")
    (begin,) = prometheus.values("ostravel_last_proxy_outage_begin_timestamp_seconds")
    (end,) = prometheus.values("ostravel_last_proxy_outage_end_timestamp_seconds")
    assert is_of(hang, begin, end), (hang, begin, end)
    hit = prometheus.query("ostravel_last_proxy_outage_flows")
    assert {each["metric"]["application"] for each in hit} == hang.applications
    assert prometheus.values("ostravel_proxy_outage_direct_flows_total >= 2") != []
    assert prometheus.values("ostravel_proxy_outage_lost_flows_total") == [0.0]
    assert prometheus.values("ostravel_events_lost_total") == [0.0]
    check_what_is_packaged(prometheus, metrics(laboratory, page))


# As Grafana replaces them.
VARIABLES = {"$instance": "127.0.0.1:8090", "$__rate_interval": "1m", "$__range": "5m"}


def check_what_is_packaged(prometheus, scraped):
    """Every query of the dashboard finds data, in series that have the labels of its legend; those of
    the alert rules work. All are about metrics that are there."""
    dashboard = json.loads((prometheus.folder / "dashboard.json").read_text())
    targets = [target for panel in dashboard["panels"] for target in panel["targets"]]
    assert len(targets) > 15
    queries = []
    for target in targets:
        query = target["expr"]
        for variable, value in VARIABLES.items():
            query = query.replace(variable, value)
        # Rates need two scrapes.
        series = eventually(lambda query=query: prometheus.query(query), f"data for {query}")
        labels = set(re.findall(r"{{(\w+)}}", target["legendFormat"]))
        for each in series:
            assert labels <= set(each["metric"]), (query, each)
            assert math.isfinite(float(each["value"][1])), (query, each)
        queries.append(query)
    for group in prometheus.ask("rules")["groups"]:
        for rule in group["rules"]:
            # Fails if the query does.
            prometheus.query(rule["query"])
            assert rule["health"] in ("ok", "unknown"), rule
            queries.append(rule["query"])
    (variable,) = (each for each in dashboard["templating"]["list"] if each["name"] == "instance")
    metric, label = re.fullmatch(
        r"label_values\((\w+), (\w+)\)", variable["query"]["query"]
    ).groups()
    assert [each["metric"][label] for each in prometheus.query(metric)] == [VARIABLES["$instance"]]
    rules = (prometheus.folder / "alerts.yml").read_text()
    names = set(re.findall(r"^(ostravel_\w+)", scraped, re.MULTILINE))
    used = set(re.findall(r"\bostravel_\w+", " ".join([rules, metric, *queries])))
    assert used <= names, used - names


@pytest.fixture(autouse=True)
def utc(monkeypatch):
    """The local time zone of the tests that compare times."""
    monkeypatch.setenv("TZ", "UTC")
    time.tzset()
