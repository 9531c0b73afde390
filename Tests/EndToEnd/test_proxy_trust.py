"""What may be the local proxy, for whom, and what happens to connections otherwise."""


import pytest

from Laboratory.network import THERE4
from laboratory import PEER_PORT, PYTHON, eventually, log_lines
from origins import tell_peer

# Ordinary users: one with a name, one without.
NAME, PERSON = "nobody", 65534
OTHER_PERSON = 54321
SYSTEM_USER_NAME, SYSTEM_USER = "proxy", 13
PARENT_PORT = 3128
ORIGIN = f"http://{THERE4}:{PEER_PORT}/"


def start_nginx(laboratory):
    server = 'server { listen 127.0.0.1:8080; location / { return 200 "a web server\\n"; } }'
    return laboratory.run_nginx("web-server", server, laboratory.here, 8080)


def start_python_server(laboratory):
    server = laboratory.start(
        [PYTHON, "-u", "-m", "http.server", "8080", "--bind", "127.0.0.1"], name="web server"
    )
    server.expect(server.output, "Serving HTTP")
    return server


def start_ssh(laboratory):
    def greet(connection, _):
        connection.sendall(b"SSH-2.0-Something\r\n")
        while connection.recv(100):
            pass

    laboratory.serve(8080, greet, namespace=laboratory.here, address="127.0.0.1")


def start_silence(laboratory):
    laboratory.serve(8080, None, namespace=laboratory.here, address="127.0.0.1")


def start_extension(laboratory, start_listener, *options):
    """The extension and a listener; returns when the extension has noticed the listener."""
    laboratory.start_monitor()
    extension = laboratory.start_extension(*options)
    laboratory.events.wait("proxy_unreachable")
    listener = start_listener(laboratory)
    laboratory.events.wait("proxy_recovered")
    return listener, extension


def warnings(extension):
    return [text for _, text in log_lines(extension) if "listens on port 8080" in text]


def way_of(laboratory, user):
    return laboratory.curl(ORIGIN, user=user).way


# name: (what listens, how its answer to CONNECT begins in the log)
NO_PROXIES = {
    "nginx": (start_nginx, "HTTP/1.1 4"),
    "the web server of Python": (start_python_server, "HTTP/1.0 501 Unsupported method"),
    "another protocol": (start_ssh, "SSH-2.0-Something"),
    "silence": (start_silence, "no answer in 2 s"),
}


@pytest.mark.parametrize("name", NO_PROXIES)
def test_a_listener_that_is_not_a_proxy_disturbs_nobody(laboratory, name):
    start, answer = NO_PROXIES[name]
    _, extension = start_extension(laboratory, start)

    def fetch():
        fetched = laboratory.fetch(THERE4, PEER_PORT)
        assert (fetched.way, fetched.repetitions) == ("direct", 0)
        return warnings(extension)

    eventually(fetch, "the log says that it is no proxy")
    for user in (0, SYSTEM_USER, PERSON):
        assert way_of(laboratory, user) == "direct"
    (warning,) = warnings(extension)
    assert ", user root)" in warning
    assert f"does not answer CONNECT as a proxy does: {answer}" in warning
    # Nothing was ever offered.
    assert not any("flow_id" in event for event in laboratory.events.since())


def test_a_web_server_and_a_proxy_may_replace_each_other(laboratory):
    server, extension = start_extension(laboratory, start_python_server)
    eventually(lambda: way_of(laboratory, 0) and warnings(extension), "the log says it")
    server.kill()
    sidecar = laboratory.start_sidecar()
    laboratory.wait_until_proxied()
    sidecar.kill()
    start_python_server(laboratory)
    for _ in range(20):
        assert laboratory.fetch(THERE4, PEER_PORT).status == 0
    eventually(
        lambda: way_of(laboratory, 0) == "direct" and len(warnings(extension)) == 2,
        "the log says it again",
    )


def test_an_ordinary_users_proxy_gets_only_its_connections(laboratory):
    proxy, extension = start_extension(
        laboratory, lambda laboratory: laboratory.start_local_proxy(PERSON)
    )
    eventually(lambda: way_of(laboratory, PERSON) == "proxied", "its own user's are proxied")
    mark = proxy.mark()
    for user in (0, SYSTEM_USER, OTHER_PERSON) * 3:
        assert way_of(laboratory, user) == "direct"
    assert proxy.requests(mark) == []
    (warning,) = warnings(extension)
    assert f"(process {proxy.program.pid}, user {NAME})" in warning
    assert f"name its user with --proxy-user {NAME}" in warning
    assert way_of(laboratory, PERSON) == "proxied"
    assert len(proxy.requests(mark)) == 1


@pytest.mark.parametrize("answer", ["HTTP/1.1 200 OK\r\n\r\n", "HTTP/1.1 403 No\r\n\r\n"], ids=["accepts", "refuses"])
def test_an_answer_counts_only_while_the_proxy_listens(laboratory, answer):
    """Otherwise it could come from a program that has taken over the port since the offer."""
    proxy, _ = laboratory.start_system(laboratory.start_local_proxy)
    laboratory.serve(80, tell_peer)
    proxy.behave(answer=answer, closes=True, then="hold")
    mark = proxy.mark()
    assert laboratory.fetch(THERE4, 80).way == "direct"
    assert len(proxy.requests(mark)) == 1


@pytest.mark.parametrize("name, user", [(NAME, PERSON), (str(OTHER_PERSON), OTHER_PERSON)])
def test_a_named_users_proxy_gets_everybodys_connections(laboratory, name, user):
    _, extension = start_extension(
        laboratory,
        lambda laboratory: laboratory.start_sidecar(user=user),
        "--proxy-user", SYSTEM_USER_NAME, "--proxy-user", name,
    )  # fmt: skip
    laboratory.wait_until_proxied()
    for each in (0, SYSTEM_USER, PERSON, OTHER_PERSON):
        assert way_of(laboratory, each) == "proxied"
    assert warnings(extension) == []


def test_a_system_users_proxy_gets_everybodys_connections(laboratory):
    _, extension = start_extension(
        laboratory, lambda laboratory: laboratory.start_tinyproxy(user=SYSTEM_USER)
    )
    laboratory.wait_until_proxied()
    for user in (0, SYSTEM_USER, PERSON):
        assert way_of(laboratory, user) == "proxied"
    assert warnings(extension) == []


@pytest.mark.parametrize("name", ["no such user", "", "-1", "4294967295", "12x"])
def test_an_unknown_proxy_user_is_an_error(laboratory, name):
    done = laboratory.run_application(
        laboratory.program_path("ostravel-extension"), f"--proxy-user={name}"
    )
    assert done.returncode == 2
    (line,) = done.stderr.decode().splitlines()
    assert line.startswith("ostravel-extension: ")
    assert "--proxy-user" in line and name in line


@pytest.mark.parametrize("parent", ["tinyproxy", "sidecar"])
@pytest.mark.parametrize("users", [(0, PERSON), (SYSTEM_USER, 0), (PERSON, PERSON)])
def test_a_chain_of_two_programs_is_one_proxy(laboratory, parent, users):
    front_user, parent_user = users

    def start_chain(laboratory):
        if parent == "tinyproxy":
            laboratory.start_tinyproxy(PARENT_PORT, user=parent_user)
        else:
            laboratory.start_sidecar("--listen", f"127.0.0.1:{PARENT_PORT}", user=parent_user)
        # From the first connection on, which is the trial.
        return laboratory.start_local_proxy(front_user, through=PARENT_PORT)

    front, extension = start_extension(laboratory, start_chain, "--proxy-user", NAME)
    laboratory.wait_until_proxied()
    assert len(front.reports("tried")) == 1
    mark = front.mark()
    for _ in range(5):
        assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"
    # In a loop, the second program's connections would be requested as well.
    assert len(front.requests(mark)) == 5
    assert warnings(extension) == []


def test_a_proxy_that_begins_to_forward_does_not_loop(laboratory):
    """The trial has found the dialler, and later another program dials."""
    laboratory.start_sidecar("--listen", f"127.0.0.1:{PARENT_PORT}")
    front, _ = start_extension(laboratory, lambda _: laboratory.start_local_proxy())
    laboratory.wait_until_proxied()
    front.behave(through=PARENT_PORT)
    for _ in range(5):
        mark = front.mark()
        assert laboratory.fetch(THERE4, PEER_PORT).way == "proxied"
        # The second program's connection is requested twice, and then recognised.
        assert len(front.requests(mark)) <= 3


@pytest.mark.parametrize("status", ["403 Forbidden", "407 Proxy Authentication Required"])
def test_a_proxy_may_refuse_the_trial(laboratory, status):
    laboratory.start_monitor()
    proxy = laboratory.start_local_proxy()
    proxy.behave(answer=f"HTTP/1.1 {status}\r\n\r\n", then="end")
    laboratory.start_extension()
    eventually(
        lambda: laboratory.fetch(THERE4, PEER_PORT) and proxy.reports("tried"), "it is tried"
    )
    proxy.behave()
    laboratory.wait_until_proxied()
    assert len(proxy.reports("tried")) == 1


def test_a_listener_becomes_the_proxy_when_it_begins_to_answer(laboratory):
    laboratory.start_monitor()
    proxy = laboratory.start_local_proxy()
    proxy.behave(answer="", then="end")
    extension = laboratory.start_extension()
    eventually(
        lambda: laboratory.fetch(THERE4, PEER_PORT).way == "direct" and warnings(extension),
        "the log says that it does not answer",
    )
    proxy.behave()
    laboratory.wait_until_proxied()
    assert len(warnings(extension)) == 1
