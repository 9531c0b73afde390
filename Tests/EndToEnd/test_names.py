"""Which flows have host names, and what the names are used for."""

import json

import pytest

import dns
from Laboratory.network import THERE4, THERE6
from Laboratory.program import as_user
from laboratory import CURL, PYTHON, eventually
from local_resolvers import ADDRESS, start_dnsmasq, start_unbound
from origins import tell_peer

PORT = 80
USER = 5000
OTHER_USER = 5001
THIRD_USER = 5002
# Of the origin, besides THERE4.
OTHERS = [f"198.51.100.{last}" for last in range(20, 30)]
OTHER6 = "2001:db8::20"
PRIVATE = "10.9.8.7"


class Names:
    """A laboratory with a resolver at THERE4, which is the configured one."""

    def __init__(self, laboratory, hosts):
        self.laboratory = laboratory
        laboratory.serve(PORT, tell_peer)
        laboratory.there.run(
            "ip", "-batch", "-",
            given="".join(f"addr add {each}/24 dev there\n" for each in OTHERS)
            + f"addr add {PRIVATE}/32 dev there\naddr add {OTHER6}/64 dev there nodad\n",
        )  # fmt: skip
        laboratory.here.run("ip", "route", "add", f"{PRIVATE}/32", "dev", "here")
        self.configure(THERE4)
        self.resolver = self.resolve(THERE4, hosts)
        self.proxy = None

    def configure(self, server):
        self.laboratory.replace_in_etc("resolv.conf", f"nameserver {server}\n")

    def resolve(self, address, hosts, namespace=None):
        resolver = dns.Resolver(namespace or self.laboratory.there, address, hosts)
        self.laboratory.close_later(resolver.close)
        return resolver

    def start(self, *options, **behaviour):
        self.laboratory.start_monitor()
        self.proxy = self.laboratory.start_local_proxy(**behaviour)
        extension = self.laboratory.start_extension(*options)
        self.laboratory.wait_until_proxied()
        return extension

    def command(self, program, server, way, name, address, *more, script=dns.APPLICATION):
        return [
            self.laboratory.copy_of(PYTHON, program), "-I", "-c", script,
            server, way, name, address, str(PORT), *more,
        ]  # fmt: skip

    def start_application(self, address, name, user):
        """One that has looked the name up and connected, and stays."""
        application = self.laboratory.start(
            self.command("application", THERE4, "udp", name, address, "stay"),
            user=user,
            has_input=True,
        )
        application.expect(application.output, " ")

    def targets(self, address, name="", server=THERE4, way="udp", program="application", user=0):
        """What the proxy is asked for when an application that has looked the name up connects.

        Empty if the connection is direct. Without a name nothing is looked up.
        """
        mark = self.proxy.mark()
        done = self.laboratory.run_application(
            *as_user(user), *self.command(program, server, way, name, address)
        )
        assert done.returncode == 0, done.stderr.decode()
        own_port, _, seen_port = done.stdout.decode().split()
        targets = [request.split()[1] for request in self.proxy.requests(mark)]
        assert (own_port == seen_port) == (targets == []), targets
        return targets


@pytest.fixture
def make_names(laboratory):
    return lambda hosts: Names(laboratory, hosts)


def with_port(*names):
    return [f"{name}:{PORT}" for name in names]


def test_the_lists_of_domains_match_observed_names(make_names):
    exempt, apex, look_alike, exact = "www.apple.com", "apple.com", "notapple.com", "gstatic.com"
    names = make_names(
        {exempt: [OTHERS[0]], apex: [OTHERS[1]], look_alike: [OTHERS[2]], exact: [OTHERS[3]]}
    )
    names.start(hosts={apex: OTHERS[1], look_alike: OTHERS[2]})
    assert names.targets(OTHERS[0], exempt) == []
    # The entry is for subdomains only.
    assert names.targets(OTHERS[1], apex) == with_port(apex)
    assert names.targets(OTHERS[2], look_alike) == with_port(look_alike)
    assert names.targets(OTHERS[3], exact.upper()) == []


def test_names_are_seen_in_every_kind_of_answer(make_names):
    hosts = {f"host{index}.example": [OTHERS[index]] for index in range(4)}
    hosts |= {"six.example": [OTHER6], "alias.example": "host3.example"}
    names = make_names(hosts)
    names.resolve(THERE6, hosts)
    names.start(hosts={name: hosts[name][0] for name in hosts} | {"alias.example": OTHERS[3]})
    for program, address, name, server, way in (
        ("udp", OTHERS[0], "host0.example", THERE4, "udp"),
        ("tcp", OTHERS[1], "host1.example", THERE4, "tcp"),
        ("udp6", OTHERS[2], "host2.example", THERE6, "udp"),
        ("tcp6", OTHER6, "six.example", THERE6, "tcp"),
        ("alias", OTHERS[3], "alias.example", THERE4, "udp"),
    ):
        targets = names.targets(address, name, server, way, program)
        assert targets == with_port(name), program


@pytest.mark.parametrize("start_resolver", [start_dnsmasq, start_unbound])
def test_curl_goes_by_the_name_that_libc_has_looked_up(make_names, laboratory, start_resolver):
    """Through a resolver on the machine itself, which asks the one at THERE4."""
    names = make_names(
        {"www.example": [OTHERS[0], OTHER6], "a.example": [OTHERS[1]], "b.example": [OTHERS[1]]}
    )
    names.configure(ADDRESS)
    start_resolver(laboratory, THERE4)
    names.start(
        hosts={"www.example": OTHERS[0], "a.example": OTHERS[1], "b.example": OTHERS[1]}
    )

    def targets(name, user):
        mark = names.proxy.mark()
        command = [*as_user(user), CURL, "-q", "-sS", "--max-time", "30", f"http://{name}:{PORT}/"]
        done = laboratory.run_application(*laboratory.with_etc(*command))
        assert done.returncode == 0, done.stderr.decode()
        return [request.split()[1] for request in names.proxy.requests(mark)]

    assert targets("www.example", USER) == with_port("www.example")
    event = laboratory.events.flow_to(f"www.example:{PORT}")[0]
    assert event["context"] == {"app_id": CURL, "remote": f"www.example:{PORT}"}
    # From the resolver's cache.
    assert targets("www.example", OTHER_USER) == with_port("www.example")
    assert targets("a.example", USER) == with_port("a.example")
    assert targets("b.example", OTHER_USER) == with_port("b.example")
    # The resolver has asked for all of them, but these users have not.
    assert names.targets(OTHERS[0], user=THIRD_USER) == with_port(OTHERS[0])
    assert names.targets(OTHERS[1], user=THIRD_USER) == with_port(OTHERS[1])


def test_an_address_with_several_names_is_called_by_none(make_names):
    names = make_names({"a.example": [THERE4], "b.example": [THERE4]})
    names.start(hosts={"a.example": THERE4, "b.example": THERE4})
    assert names.targets(THERE4, "a.example") == with_port("a.example")
    assert names.targets(THERE4, "b.example") == with_port(THERE4)
    # Each of the others has looked up one of them.
    assert names.targets(THERE4, "b.example", user=USER) == with_port("b.example")
    assert names.targets(THERE4, "a.example", user=OTHER_USER) == with_port("a.example")


def test_names_of_one_application_or_user_are_not_for_others(make_names):
    names = make_names({"mine.example": [THERE4]})
    names.start(hosts={"mine.example": THERE4})
    names.start_application(THERE4, "mine.example", USER)
    assert names.targets(THERE4, user=USER) == with_port("mine.example")
    # The user's until it is known which application has asked.
    eventually(
        lambda: names.targets(THERE4, user=USER, program="other") == with_port(THERE4),
        "the name is the application's",
    )
    assert names.targets(THERE4, user=USER) == with_port("mine.example")
    assert names.targets(THERE4, user=OTHER_USER) == with_port(THERE4)


def test_an_applications_own_resolver_names_its_flows_only(make_names):
    names = make_names({})
    names.resolve(OTHERS[5], {"www.apple.com": [OTHERS[6]]})
    names.start()
    assert names.targets(OTHERS[6], "www.apple.com", server=OTHERS[5], user=USER) == []
    assert names.targets(OTHERS[6], user=OTHER_USER) == with_port(OTHERS[6])
    assert names.targets(OTHERS[6], program="other") == with_port(OTHERS[6])


def test_what_an_unknown_service_looks_up_names_everybodys_flows(make_names, laboratory):
    """But only what it has asked the configured resolver."""
    names = make_names({"service.example": [OTHERS[0]]})
    names.resolve(OTHERS[5], {"own.example": [OTHERS[1]]})
    names.start(hosts={"service.example": OTHERS[0], "own.example": OTHERS[1]})
    # A program without a file has no identifier.
    script = "import os, sys\nos.unlink(sys.executable)\n" + dns.APPLICATION
    for server, name, address in (
        (OTHERS[5], "own.example", OTHERS[1]),
        (THERE4, "service.example", OTHERS[0]),
    ):
        done = laboratory.run_application(
            *names.command("service", server, "udp", name, address, script=script)
        )
        assert done.returncode == 0, done.stderr.decode()
    eventually(
        lambda: names.targets(OTHERS[0], user=USER) == with_port("service.example"),
        "the name is the machine's",
    )
    assert names.targets(OTHERS[1], user=USER) == with_port(OTHERS[1])


def test_a_name_that_moves_to_the_local_network_names_nothing(make_names):
    answers = [[OTHERS[0]], [PRIVATE]]
    names = make_names({"rebind.example": lambda: answers.pop(0)})
    names.start(hosts={"rebind.example": OTHERS[0]})
    assert names.targets(OTHERS[0], "rebind.example") == with_port("rebind.example")
    assert names.targets(PRIVATE, "rebind.example") == with_port(PRIVATE)
    assert names.targets(OTHERS[0]) == with_port(OTHERS[0])


@pytest.mark.parametrize("status", [502, 503, 504])
def test_a_proxy_that_cannot_resolve_is_asked_for_the_address(make_names, status):
    names = make_names({"far.example": [THERE4], "six.example": [THERE6]})
    extension = names.start(unresolved=f"HTTP/1.1 {status} Sorry\r\n\r\n")
    # Within the same flow, and from then on at once.
    assert names.targets(THERE4, "far.example") == with_port("far.example", THERE4)
    assert names.targets(THERE4) == with_port(THERE4)
    assert names.targets(THERE6, "six.example") == with_port("six.example", f"[{THERE6}]")
    extension.expect(extension.errors, "The proxy cannot resolve a name")


def test_a_refusal_by_name_is_not_circumvented(make_names, laboratory):
    names = make_names({"denied.example": [THERE4]})
    names.start(unresolved="HTTP/1.1 403 Forbidden\r\n\r\n")
    done = laboratory.run_application(
        PYTHON, "-I", "-c", dns.APPLICATION, THERE4, "udp", "denied.example", THERE4, str(PORT)
    )
    assert b"ConnectionRefusedError" in done.stderr
    assert [request.split()[1] for request in names.proxy.requests()][-1:] == with_port(
        "denied.example"
    )


def test_names_can_be_used_for_decisions_only(make_names):
    names = make_names({"www.apple.com": [OTHERS[0]], "www.example": [OTHERS[1]]})
    names.start("--names", "decide")
    assert names.targets(OTHERS[0], "www.apple.com") == []
    assert names.targets(OTHERS[1], "www.example") == with_port(OTHERS[1])


def test_names_can_be_left_unobserved(make_names, laboratory):
    names = make_names({"www.apple.com": [OTHERS[0]]})
    names.start("--names", "off")
    assert names.targets(OTHERS[0], "www.apple.com") == with_port(OTHERS[0])
    assert "ostravel-names" not in laboratory.here.run("nft", "list", "ruleset")


def test_decisions_show_the_address_and_the_name(make_names, laboratory):
    names = make_names({"host.example": [OTHERS[0]]})
    names.start(hosts={"host.example": OTHERS[0]})
    assert names.targets(OTHERS[0], "host.example") == with_port("host.example")
    shown = laboratory.control("flows").stdout
    # In columns.
    assert f" {OTHERS[0]}:{PORT} (host.example) " in " ".join(shown.split()), shown
    assert names.targets(OTHERS[1]) == with_port(OTHERS[1])
    lines = laboratory.control("--json", "flows").stdout.splitlines()
    # The proxy's own connection to the same destination may be among them.
    flows = {
        flow["destination"]: flow.get("host")
        for flow in map(json.loads, lines)
        if flow["action"] == "proxied"
    }
    assert flows[f"{OTHERS[0]}:{PORT}"] == "host.example"
    assert flows[f"{OTHERS[1]}:{PORT}"] is None
    status = laboratory.asked("status")
    assert status["names"]["use"] == "connect" and status["names"]["known"] >= 1
    assert status["identifiers"]["processes"] >= 1
