#!/usr/bin/env python3
"""Runs the host application on a stand-in for a Mac, whose state is a property list.

Tests/StandInMac/StandInMac.h says what the list may contain.
"""

import argparse
import os
import pathlib
import plistlib
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

PROGRAMS = None
EXTENSION = "com.ostravel.desktop.extension"
INVALID, DISCONNECTED, CONNECTING, CONNECTED, REASSERTING, DISCONNECTING = range(6)
OUR_VERSION = {"shortVersion": "0.2.0", "version": "2"}
INSTALLED = {**OUR_VERSION, "enabled": True}
OLDER = {"shortVersion": "0.1.0", "version": "1", "enabled": True}
# For what waits for half a minute: it passes in one second.
HURRIED = 30


def configuration(status=DISCONNECTED, socket=None, **other):
    """What the host application saves."""
    saved = {"identifier": "1", "localizedDescription": "Ostravel", "enabled": True,
             "serverAddress": "127.0.0.1", "providerBundleIdentifier": EXTENSION,
             "status": status, **other}
    if socket is not None:
        saved["providerConfiguration"] = {"monitoringSocketPath": socket}
    return saved


def failure(text, domain="NEVPNErrorDomain", code=5):
    described = {"domain": domain, "code": code}
    return described if text is None else {**described, "text": text}


class HostCase(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.state_path = self.folder / "mac.plist"
        self.speed = 1
        self.given(extensions=[INSTALLED], configurations=[configuration()])

    def given(self, **state):
        """The state of the Mac; whatever is not given is unset."""
        self.write({"carried": OUR_VERSION, **state})

    def write(self, state):
        # In one step, as the program may be reading.
        new = self.folder / "new.plist"
        new.write_bytes(plistlib.dumps(state))
        new.rename(self.state_path)

    def state(self):
        return plistlib.loads(self.state_path.read_bytes())

    def environment(self):
        # The program exits in the middle of its work, with everything alive: a leak search of
        # AddressSanitizer would mean nothing at that moment.
        return {**os.environ, "STANDIN_MAC": str(self.state_path), "STANDIN_SPEED": str(self.speed),
                "ASAN_OPTIONS": "detect_leaks=0"}

    def run_program(self, program, *arguments):
        self.ended = subprocess.run([program, *arguments], capture_output=True, timeout=60,
                                    env=self.environment())
        self.output = self.ended.stdout.decode()
        self.errors = self.ended.stderr.decode()
        return self.ended.returncode

    def host(self, *arguments):
        return self.run_program(PROGRAMS.program, *arguments)

    def expect(self, arguments, status=0, output="", errors=""):
        """Runs the command and compares everything that can be seen of it."""
        result = self.host(*arguments.split())
        self.assertEqual((result, self.output, self.errors), (status, output, errors))

    def only_configuration(self):
        saved = self.state()["configurations"]
        self.assertEqual(len(saved), 1, saved)
        return saved[0]

    def socket(self):
        return self.only_configuration().get("providerConfiguration", {}).get(
            "monitoringSocketPath")


OUT_OF_REACH = ("note: an extension in the sandbox reaches only sockets in "
                "/Library/Application Support/Ostravel/\n")
STARTED = "extension activated\nproxy starting\nproxy running\n"
RESTARTED = "extension activated\nproxy restarting\nproxy starting\nproxy running\n"


class ActivateTest(HostCase):
    def test_first_activation_installs_configures_and_starts(self):
        self.given()
        self.expect("activate", output=STARTED)
        self.assertEqual(self.state()["extensions"], [INSTALLED])
        expected = configuration(CONNECTED)
        saved = self.only_configuration()
        self.assertEqual({**saved, "identifier": "1"}, expected)
        self.assertEqual(self.state()["calls"], ["activate", "loadAll", "save", "load", "start"])

    def test_waits_for_the_users_approval(self):
        self.given(approval="needed")
        with subprocess.Popen([PROGRAMS.program, "activate"], text=True, env=self.environment(),
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as host:
            try:
                self.assertEqual(host.stdout.readline(),
                                 "waiting for you to allow the extension in the system's settings\n")
                waiting = self.state()
                self.assertEqual(waiting["extensions"], [{**OUR_VERSION, "awaitingApproval": True}])
                self.assertNotIn("configurations", waiting)
                self.write({**waiting, "approval": "given"})
                self.assertEqual(host.stdout.read(), STARTED)
                self.assertEqual(host.wait(60), 0)
            finally:
                host.kill()
        self.assertEqual(self.state()["extensions"], [INSTALLED])

    def test_a_refused_approval_is_reported(self):
        self.given(approval="given", failures={"activate": failure(
            "Request canceled by user", "OSSystemExtensionErrorDomain", 11)})
        self.expect("activate", status=1, errors="ostravel-host: cannot activate the extension: "
                    "Request canceled by user (OSSystemExtensionErrorDomain 11)\n")
        self.assertNotIn("configurations", self.state())

    def test_replaces_an_older_version_and_restarts_the_proxy(self):
        self.given(extensions=[OLDER], configurations=[configuration(CONNECTED)])
        self.expect("activate",
                    output="replacing version 0.1.0 (1) with 0.2.0 (2)\n" + RESTARTED)
        self.assertEqual(self.state()["extensions"], [INSTALLED])
        self.assertEqual(self.state()["calls"],
                         ["activate", "loadAll", "save", "load", "stop", "start"])
        self.assertEqual(self.only_configuration(), configuration(CONNECTED))

    def test_replaces_the_same_version_in_developer_mode(self):
        self.given(extensions=[INSTALLED], replacementTold=True)
        self.expect("activate", output="replacing version 0.2.0 (2) with 0.2.0 (2)\n" + STARTED)

    def test_versions_may_be_missing(self):
        self.given(extensions=[{"enabled": True}])
        self.expect("activate", output="replacing version ? (?) with 0.2.0 (2)\n" + STARTED)

    def test_what_runs_unchanged_is_left_alone(self):
        for socket in None, "/tmp/events":
            with self.subTest(socket=socket):
                self.given(extensions=[INSTALLED],
                           configurations=[configuration(CONNECTED, socket)])
                option = " --monitoring-socket " + socket if socket else ""
                self.expect("activate" + option, output=(OUT_OF_REACH if socket else "") +
                            "extension activated\nproxy running\n")
                self.assertEqual(self.state()["calls"], ["activate", "loadAll", "save", "load"])
                self.assertEqual(self.only_configuration(), configuration(CONNECTED, socket))

    def test_what_has_stopped_is_started(self):
        for status in DISCONNECTED, INVALID:
            with self.subTest(status=status):
                self.given(extensions=[INSTALLED], configurations=[configuration(status)])
                self.expect("activate", output=STARTED)
                self.assertEqual(self.only_configuration(), configuration(CONNECTED))

    def test_what_was_disabled_in_the_settings_is_enabled(self):
        self.given(extensions=[INSTALLED], configurations=[configuration(enabled=False)])
        self.expect("activate", output=STARTED)
        self.assertEqual(self.only_configuration(), configuration(CONNECTED))

    def test_a_restart_of_the_mac_comes_first(self):
        self.given(rebootNeeded=True)
        self.expect("activate", output="restart this Mac, then activate again\n")
        self.assertNotIn("configurations", self.state())

    def test_a_configuration_for_something_else_is_taken_over(self):
        self.given(configurations=[configuration(providerBundleIdentifier="com.example.old",
                                                 serverAddress="", enabled=False)])
        self.expect("activate", output=STARTED)
        self.assertEqual(self.only_configuration(), configuration(CONNECTED))

    def test_of_several_configurations_the_extensions_own_is_used(self):
        other = configuration(identifier="0", providerBundleIdentifier="com.example.old")
        self.given(configurations=[other, configuration()])
        self.expect("activate", output=STARTED)
        self.assertEqual(self.state()["configurations"], [other, configuration(CONNECTED)])

    def test_activating_twice_makes_one_configuration(self):
        self.given()
        self.expect("activate", output=STARTED)
        self.expect("activate", output="extension activated\nproxy running\n")
        self.only_configuration()


class MonitoringSocketTest(HostCase):
    def test_the_sandbox_can_reach_the_default(self):
        self.given()
        self.expect("activate --monitoring-socket", output=STARTED)
        self.assertEqual(self.socket(), "/Library/Application Support/Ostravel/monitoring.sock")

    def test_is_written_into_the_configuration(self):
        self.given()
        self.expect("activate --monitoring-socket /tmp/events", output=OUT_OF_REACH + STARTED)
        self.assertEqual(self.socket(), "/tmp/events")

    def test_activating_without_it_removes_it_and_restarts_the_proxy(self):
        self.given(extensions=[INSTALLED], configurations=[configuration(CONNECTED, "/tmp/events")])
        self.expect("activate", output=RESTARTED)
        self.assertEqual(self.only_configuration(), configuration(CONNECTED))

    def test_a_new_one_is_used_at_once(self):
        for earlier in None, "/tmp/earlier":
            with self.subTest(earlier=earlier):
                self.given(extensions=[INSTALLED],
                           configurations=[configuration(CONNECTED, earlier)])
                self.expect("activate --monitoring-socket /tmp/events", output=OUT_OF_REACH + RESTARTED)
                self.assertEqual(self.socket(), "/tmp/events")

    def test_a_value_that_is_not_text_counts_as_none(self):
        odd = configuration(CONNECTED, providerConfiguration={"monitoringSocketPath": 7})
        self.given(extensions=[INSTALLED], configurations=[odd])
        self.expect("status", output="extension: version 0.2.0 (2), enabled\nproxy: running\n")
        self.expect("activate --monitoring-socket /tmp/events", output=OUT_OF_REACH + RESTARTED)
        self.assertEqual(self.socket(), "/tmp/events")

    def test_the_longest_path_that_fits_is_taken(self):
        # Bytes count, not characters.
        longest = "/" + "\u00e9" * 51
        self.given()
        self.expect("activate --monitoring-socket " + longest, output=OUT_OF_REACH + STARTED)
        self.assertEqual(self.socket(), longest)

    def test_a_path_that_cannot_work_is_refused_first(self):
        for path, reason in (
                (b"events", '"events" is not an absolute path'),
                (b"", '"" is not an absolute path'),
                (b"/" + b"a" * 103, '"/' + "a" * 103 + '" has 104 bytes; '
                 "a socket's path has at most 103"),
                ("/é".encode() * 35, '"' + "/é" * 35 + '" has 105 bytes; '
                 "a socket's path has at most 103"),
                (b"/tmp/\xff\n", r'"/tmp/\xff\n" is not UTF-8')):
            with self.subTest(path=path):
                self.assertEqual(self.host("activate", "--monitoring-socket", path), 2)
                self.assertEqual(self.output, "")
                self.assertEqual(self.errors.splitlines()[0],
                                 "ostravel-host: --monitoring-socket: " + reason)
                self.assertNotIn("calls", self.state())


class StartTest(HostCase):
    def test_a_proxy_that_stops_again_has_failed(self):
        for starting in "stops", "disappears":
            with self.subTest(starting=starting):
                self.given(starting=starting)
                self.expect("activate", status=1, output="extension activated\nproxy starting\n",
                            errors="ostravel-host: the proxy has stopped instead of starting; "
                            "the extension's log may say why\n")

    def test_a_proxy_that_hangs_is_given_half_a_minute(self):
        self.speed = HURRIED
        self.given(starting="hangs")
        begin = time.monotonic()
        self.expect("activate", status=1, output="extension activated\nproxy starting\n",
                    errors="ostravel-host: the proxy does not run after 30 seconds: "
                    "it is starting\n")
        self.assertGreaterEqual(time.monotonic() - begin, 30 / HURRIED)

    def test_a_proxy_may_start_without_a_notification(self):
        self.speed = HURRIED
        self.given(starting="runsUnnotified")
        self.expect("activate", output=STARTED)

    def test_a_proxy_that_is_already_starting_is_awaited(self):
        self.speed = HURRIED
        for status, name in (CONNECTING, "starting"), (REASSERTING, "restarting"):
            with self.subTest(status=status):
                self.given(extensions=[INSTALLED], configurations=[configuration(status)])
                self.expect("activate", status=1, output="extension activated\n",
                            errors="ostravel-host: the proxy does not run after 30 seconds: "
                            f"it is {name}\n")
                self.assertNotIn("start", self.state()["calls"])

    def test_waiting_for_a_proxy_to_stop_is_limited(self):
        self.speed = HURRIED
        self.given(extensions=[OLDER], stopping="hangs", configurations=[configuration(CONNECTED)])
        self.expect("activate", status=1,
                    output="replacing version 0.1.0 (1) with 0.2.0 (2)\nextension activated\n"
                    "proxy restarting\n",
                    errors="ostravel-host: the proxy does not run after 30 seconds: "
                    "it is stopping\n")
        self.given(extensions=[INSTALLED], configurations=[configuration(DISCONNECTING)])
        self.expect("activate", status=1, output="extension activated\n",
                    errors="ostravel-host: the proxy does not run after 30 seconds: "
                    "it is stopping\n")

    def test_each_failing_step_is_named_with_the_systems_reason(self):
        for call, what, begin in (
                ("loadAll", "load the configuration", "extension activated\n"),
                ("save", "save the configuration", "extension activated\n"),
                ("load", "load the configuration", "extension activated\n"),
                ("start", "start the proxy", "extension activated\n"),
                ("activate", "activate the extension", "")):
            for text, told in ("No \u2013 not today", "No \u2013 not today"), (
                    None, "the system gives no reason"):
                with self.subTest(call=call, text=text):
                    self.given(failures={call: failure(text, "Some\u00d6ne", -7)})
                    self.expect("activate", status=1, output=begin,
                                errors=f"ostravel-host: cannot {what}: {told} (Some\u00d6ne -7)\n")


class DeactivateTest(HostCase):
    REMOVED = "configuration removed\nextension deactivated\n"

    def test_removes_configuration_and_extension(self):
        for status in range(6):
            with self.subTest(status=status):
                self.given(extensions=[INSTALLED], configurations=[configuration(status)])
                self.expect("deactivate", output=self.REMOVED)
                self.assertEqual(self.state()["extensions"], [])
                self.assertEqual(self.state()["configurations"], [])
                self.assertEqual(self.state()["calls"], ["loadAll", "stop", "remove", "deactivate"])

    def test_works_without_a_configuration(self):
        self.given(extensions=[INSTALLED])
        self.expect("deactivate", output="extension deactivated\n")
        self.assertEqual(self.state()["extensions"], [])

    def test_removes_every_configuration(self):
        self.given(extensions=[INSTALLED], configurations=[
            configuration(), configuration(identifier="2", providerBundleIdentifier="other")])
        self.expect("deactivate", output="configuration removed\n" + self.REMOVED)
        self.assertEqual(self.state()["configurations"], [])

    def test_a_restart_of_the_mac_finishes_it(self):
        self.given(extensions=[INSTALLED], configurations=[configuration()], rebootNeeded=True)
        self.expect("deactivate", output="configuration removed\nrestart this Mac to finish\n")
        self.assertEqual(self.state()["extensions"], [{**INSTALLED, "uninstalling": True}])

    def test_there_may_be_nothing_to_deactivate(self):
        self.given()
        self.expect("deactivate", status=1,
                    errors="ostravel-host: cannot deactivate the extension: Extension not found "
                    "(OSSystemExtensionErrorDomain 4)\n")

    def test_a_failure_is_reported_with_the_systems_reason(self):
        self.given(extensions=[INSTALLED], configurations=[configuration()],
                   failures={"deactivate": failure("Authorization required",
                                                   "OSSystemExtensionErrorDomain", 13)})
        self.expect("deactivate", status=1, output="configuration removed\n",
                    errors="ostravel-host: cannot deactivate the extension: "
                    "Authorization required (OSSystemExtensionErrorDomain 13)\n")

    def test_the_extension_goes_even_when_the_configuration_stays(self):
        for call, what in ("remove", "remove the configuration"), (
                "loadAll", "load the configuration"):
            with self.subTest(call=call):
                self.given(extensions=[INSTALLED], configurations=[configuration()],
                           failures={call: failure("Permission denied")})
                self.expect("deactivate", status=1, output="extension deactivated\n",
                            errors=f"ostravel-host: cannot {what}: Permission denied "
                            "(NEVPNErrorDomain 5)\n")
                self.assertEqual(self.state()["extensions"], [])
                self.only_configuration()


class StatusTest(HostCase):
    def test_nothing_is_there(self):
        self.given()
        self.expect("status", output="extension: not activated\nproxy: not configured\n")

    def test_shows_whether_the_proxy_runs(self):
        for status, text in ((INVALID, "not configured"), (DISCONNECTED, "stopped"),
                             (CONNECTING, "starting"), (CONNECTED, "running"),
                             (REASSERTING, "restarting"), (DISCONNECTING, "stopping"),
                             (9, "in an unknown state")):
            with self.subTest(status=status):
                self.given(extensions=[INSTALLED], configurations=[configuration(status)])
                before = self.state()
                self.expect("status",
                            output=f"extension: version 0.2.0 (2), enabled\nproxy: {text}\n")
                self.assertEqual(self.state(), {**before, "calls": ["properties", "loadAll"]})

    def test_shows_every_version_of_the_extension(self):
        self.given(extensions=[{**OLDER, "enabled": False, "uninstalling": True},
                               {**OUR_VERSION, "awaitingApproval": True}, {}])
        self.expect("status", output="extension: version 0.1.0 (1), being removed\n"
                    "extension: version 0.2.0 (2), waiting for approval\n"
                    "extension: version ? (?)\n"
                    "proxy: not configured\n")

    def test_shows_the_monitoring_socket_and_what_is_disabled(self):
        self.given(configurations=[configuration(socket="/tmp/\u00e9v\u00e9nements",
                                                 enabled=False)])
        self.expect("status", output="extension: not activated\n"
                    "proxy: stopped, disabled in the settings\n"
                    "monitoring socket: /tmp/\u00e9v\u00e9nements\n")

    def test_macos_11_does_not_list_extensions(self):
        self.given(systemVersion=11, extensions=[INSTALLED],
                   configurations=[configuration(CONNECTED)])
        self.expect("status", output="extension: see systemextensionsctl list\nproxy: running\n")

    def test_ends_by_its_deadline_when_answers_are_missing(self):
        self.speed = HURRIED
        for call, output in (("properties", ""), ("foundProperties", ""),
                             ("loadAll", "extension: version 0.2.0 (2), enabled\n")):
            with self.subTest(call=call):
                self.given(extensions=[INSTALLED], configurations=[configuration(CONNECTED)],
                           unanswered=[call])
                self.expect("status", status=1, output=output,
                            errors="ostravel-host: the system has not answered after 10 seconds\n")

    def test_failures_are_reported_with_the_systems_reason(self):
        self.given(failures={"properties": failure("Not now", "OSSystemExtensionErrorDomain", 1)})
        self.expect("status", status=1, errors="ostravel-host: cannot ask for the extension's "
                    "state: Not now (OSSystemExtensionErrorDomain 1)\n")
        self.given(failures={"loadAll": failure("Permission denied")})
        self.expect("status", status=1, output="extension: not activated\n",
                    errors="ostravel-host: cannot load the configuration: Permission denied "
                    "(NEVPNErrorDomain 5)\n")


class CommandLineTest(HostCase):
    def test_help_is_on_the_standard_output(self):
        self.assertEqual(self.host("--help"), 0)
        self.assertTrue(self.output.startswith("usage: ostravel-host activate "), self.output)
        self.assertEqual(self.errors, "")

    def test_nonsense_is_reported_with_the_usage(self):
        for arguments, reason in (
                ([], "a command is missing"),
                (["install"], 'there is no command "install"'),
                ([b"\xe9\x01"], r'there is no command "\xe9\x01"'),
                (["activate", "now"], 'unexpected argument "now"'),
                (["activate", "--monitoring-socket", "/a", "/b"], 'unexpected argument "/b"'),
                (["deactivate", "now"], 'unexpected argument "now"'),
                (["status", "--monitoring-socket", "/a"],
                 'unexpected argument "--monitoring-socket"'),
                (["--help", "me"], 'unexpected argument "me"')):
            with self.subTest(arguments=arguments):
                self.assertEqual(self.host(*arguments), 2)
                self.assertEqual(self.output, "")
                first, second = self.errors.splitlines()[:2]
                self.assertEqual(first, "ostravel-host: " + reason)
                self.assertTrue(second.startswith("usage: ostravel-host activate "), second)
                self.assertNotIn("calls", self.state())

    def test_outside_of_its_application_it_does_nothing(self):
        outside = self.folder / "ostravel-host"
        shutil.copy(PROGRAMS.program, outside)
        for command in "activate", "deactivate", "status":
            with self.subTest(command=command):
                self.assertEqual(self.run_program(outside, command), 1)
                self.assertEqual(self.errors, "ostravel-host: has to be run where it is in its "
                                 "application\n")
                self.assertNotIn("calls", self.state())


class StandInTest(HostCase):
    """The rules that the host application follows are really checked."""

    def break_rule(self, name):
        result = self.run_program(PROGRAMS.rule_breaker, name)
        return self.output.strip() if result == 0 else self.errors.strip()

    def test_broken_rules_are_noticed(self):
        self.given(extensions=[OLDER], systemVersion=11)
        for rule, outcome in (
                ("delegate-released", "BROKEN RULE: the delegate of a request has to be kept"),
                ("replacement-refused", "OSSystemExtensionErrorDomain 11"),
                ("other-extension", "OSSystemExtensionErrorDomain 4"),
                ("no-identifier", "BROKEN RULE: a request needs an identifier and a queue"),
                ("unknown-request", "BROKEN RULE: this system has no requests for properties"),
                ("saved-before-loaded", "NEVPNErrorDomain 4"),
                ("started-before-loaded", "NEVPNErrorDomain 4"),
                ("no-address", "NEVPNErrorDomain 1"),
                ("no-provider", "NEVPNErrorDomain 1"),
                ("removed-unsaved", "NEVPNErrorDomain 1"),
                ("other-queue", "BROKEN RULE: managers are used on the main queue")):
            with self.subTest(rule=rule):
                self.assertEqual(self.break_rule(rule), outcome)


def main():
    global PROGRAMS
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--program", required=True, help="the host application")
    parser.add_argument("--rule-breaker", required=True)
    PROGRAMS, remaining = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *remaining])


if __name__ == "__main__":
    main()
