"""What applications notice of attacking neighbours and of unresponsive peers."""

import pytest

from Laboratory.network import THERE4
import neighbours
import torture
from neighbours import Application

# On a busy machine, connections come in bursts, and those that exceed a user's share of the pending
# handshakes go direct.
NEARLY_ALL = 0.9
# Less than the second after which TCP sends a first packet again. On a busy machine, the scheduler
# alone takes a while. Benchmarks/torture measures the slowdown, on a quiet machine.
SOON_SECONDS = 0.9
ATTACK_SECONDS = 4

# Must not run in parallel with another attack or with a test that uses every processor.
pytestmark = pytest.mark.xdist_group("processors")


@pytest.fixture
def neighbourhood(laboratory):
    neighbours.prepare(laboratory)
    return laboratory


def check_others_are_served(attacked, proxied_share):
    for connections in attacked:
        assert connections.failed == 0 and connections.reset == 0, str(attacked)
        assert connections.p99 < SOON_SECONDS, str(attacked)
    assert attacked.idle.proxied_share > NEARLY_ALL, str(attacked)
    assert attacked.during.count > 0
    assert attacked.during.proxied_share >= proxied_share, str(attacked)


def test_a_user_who_dials_dead_hosts_disturbs_nobody_else(neighbourhood):
    _, extension = neighbours.start_quiet_system(neighbourhood)
    attacked = torture.attack(
        neighbourhood,
        lambda: neighbours.dial_dead_hosts(neighbourhood, extension),
        # Includes at least one deadline.
        seconds=8,
    )
    # An expired deadline closes the gate for everybody, until the next probe.
    check_others_are_served(attacked, proxied_share=0.5)


def test_a_user_who_floods_hosts_disturbs_nobody_else(neighbourhood):
    _, extension = neighbours.start_quiet_system(neighbourhood)
    attacked = torture.attack(
        neighbourhood, lambda: neighbours.flood_hosts(neighbourhood, extension), ATTACK_SECONDS
    )
    check_others_are_served(attacked, proxied_share=0)


def test_stalled_readers_of_one_user_leave_descriptors_to_others(neighbourhood):
    """The user wants more tunnels than there are descriptors for."""
    descriptors, readers = 1500, 1500
    _, extension = neighbours.start_quiet_system(
        neighbourhood, prefix=("prlimit", f"--nofile={descriptors}")
    )
    attacked = torture.attack(
        neighbourhood,
        lambda: neighbours.stall_readers(neighbourhood, extension, readers),
        ATTACK_SECONDS,
    )
    check_others_are_served(attacked, proxied_share=NEARLY_ALL)


def test_programs_on_a_hung_file_system_disturb_nobody_else(neighbourhood):
    _, extension = neighbours.start_quiet_system(neighbourhood)
    attacked = torture.attack(
        neighbourhood,
        lambda: neighbours.run_hanging_programs(neighbourhood, extension),
        ATTACK_SECONDS,
    )
    check_others_are_served(attacked, proxied_share=NEARLY_ALL)


@pytest.mark.parametrize(
    "mode",
    [
        "give_up",
        "give_up_hosts",
        "reset_connections",
        "end_processes",
        "share_a_port",
        "send_datagrams",
        "send_datagrams_from_a_shared_port",
        "connect_to_listeners",
    ],
)
def test_a_user_who_misuses_sockets_disturbs_nobody_else(neighbourhood, mode):
    neighbours.start_quiet_system(neighbourhood)
    attacked = torture.attack(
        neighbourhood, lambda: neighbours.misuse_sockets(neighbourhood, mode), seconds=1.5
    )
    check_others_are_served(attacked, proxied_share=0)


def test_datagrams_count_against_their_users_offers(neighbourhood):
    _, extension = neighbours.start_quiet_system(neighbourhood)
    torture.attack(
        neighbourhood,
        lambda: neighbours.misuse_sockets(neighbourhood, "send_datagrams_from_a_shared_port"),
        seconds=1.5,
    )
    extension.expect(extension.errors, "reason=offer_share")


def test_with_a_silent_proxy_every_connection_succeeds(neighbourhood):
    connections = torture.connect_to_silent_proxy(neighbourhood, 200, rate=2000)
    assert connections.count == 200
    assert connections.failed == 0 and connections.reset == 0, str(connections)
    assert connections.direct == 200
    # Some have waited for the deadline, most have not.
    assert connections.p50 < 1 and connections.slowest < 8, str(connections)


def test_an_unread_log_and_a_stopped_monitor_have_no_effect(neighbourhood):
    unread = torture.connect_unread(neighbourhood, seconds=8, rate=torture.RATE)
    for connections in (unread.first, unread.second):
        assert connections.failed == 0 and connections.reset == 0, str(unread)
        assert connections.proxied_share > NEARLY_ALL, str(unread)
        assert connections.count > 100, str(unread)
        assert connections.p99 < SOON_SECONDS, str(unread)


def test_two_users_are_served_while_a_third_dials_dead_hosts(neighbourhood):
    """The share that one user cannot take is available to all others together."""
    _, extension = neighbours.start_quiet_system(neighbourhood)
    attacker = neighbours.dial_dead_hosts(neighbourhood, extension)
    applications = [
        Application(neighbourhood, 50, user=user, host=THERE4)
        for user in (neighbours.VICTIM, neighbours.VICTIM + 1000)
    ]
    torture.pause(ATTACK_SECONDS)
    for application in applications:
        connections = application.end()
        assert connections.failed == 0 and connections.reset == 0, str(connections)
        assert connections.proxied > 0, str(connections)
    attacker.close()
