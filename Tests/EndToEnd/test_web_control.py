"""What the live page learns from the extension itself."""

from Laboratory.network import THERE4
from browser import Browser
from laboratory import CURL, eventually, remote
from origins import tell_peer
from test_web import ROWS, metrics, page  # noqa: F401

VPN = "com.mullvad.vpn"


def test_the_page_shows_decisions_and_bytes(laboratory, page):
    laboratory.serve(80, tell_peer)
    vpn_client = laboratory.copy_of(CURL, "vpn-client")
    laboratory.register({vpn_client: VPN})
    laboratory.start_sidecar()
    laboratory.start_extension("--control", laboratory.path("control.sock"))
    laboratory.wait_until_proxied()
    assert laboratory.curl(f"http://{THERE4}/").way == "proxied"
    assert laboratory.curl(f"http://{THERE4}/", program=vpn_client).way == "direct"
    with Browser(laboratory.here) as browser:
        browser.open(page)
        target = remote(THERE4, 80)
        browser.wait(f"""{ROWS}.some((row) => row[2] === '{VPN}'
            && row[4] === 'direct: exempt application')""")
        # The bytes of a flow that events reported as well: one row.
        browser.wait(f"""{ROWS}.filter((row) => row[2] === 'curl' && row[3] === '{target}'
            && row[4] === 'closed' && row[7] !== '').length === 1""")
        browser.wait("document.getElementById('sentence').textContent.includes('proxied')")
        browser.wait("!document.getElementById('extension-section').hidden")
        assert browser.complaints == []
    # Their number varies: the local proxy's own connections are left alone as well.
    for sample in (
        "ostravel_extension_up 1",
        "ostravel_proxying 1",
        'ostravel_decisions_total{action="direct",reason="exempt_application"} ',
        "ostravel_events_lost_total 0",
    ):
        # The monitor asks once a second.
        eventually(lambda sample=sample: sample in metrics(laboratory, page), sample)
