#!/usr/bin/env python3
"""The include check rejects what it is there to reject."""

import pathlib
import tempfile
import unittest

import check_includes


class IncludeCheck(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        for header in ("Platform/Interface/Clock.h", "Platform/Linux/Relay/EventLoop.h",
                       "Platform/Simulation/Simulation.h", "Platform/Shared/POSIXClock.h",
                       "Platform/Shared/ICUTextServices.h", "Platform/macOS/MacPlatform.h",
                       "Extension/ProxyTunnelCore/ExtensionLog.h",
                       "Extension/FilterDataProvider/DomainList.h",
                       "Extension/main/CommandLine.h", "Companion/Sidecar/HostPort.h",
                       "Tests/Extension/Support/Bytes.h"):
            self.write(header, "#pragma once\n")

    def write(self, path, text):
        (self.root / path).parent.mkdir(parents=True, exist_ok=True)
        (self.root / path).write_text(text, encoding="utf-8")

    def findings(self, path, *lines):
        self.write(path, "\n".join(lines) + "\n")
        return [str(finding) for finding in check_includes.check(self.root)]

    def assert_accepted(self, path, *lines):
        self.assertEqual(self.findings(path, *lines), [])

    def assert_rejected(self, path, *lines):
        findings = self.findings(path, *lines)
        self.assertEqual(len(findings), 1, findings)
        self.assertTrue(findings[0].startswith(f"{path}:{len(lines)}: "), findings)

    def test_an_untouched_tree_is_clean(self):
        self.assertEqual(check_includes.check(self.root), [])

    def test_the_graph_has_no_cycle(self):
        above = set()
        for room, others in check_includes.ALLOWED_ROOMS.items():
            self.assertLessEqual(others, above, room)
            above.add(room)

    def test_each_room_may_use_itself(self):
        for room in check_includes.ALLOWED_ROOMS:
            self.write(f"{room}/Own.h", "#pragma once\n")
            self.assert_accepted(f"{room}/New.h", f'#include "{room}/Own.h"')

    def test_each_room_may_use_only_what_the_table_allows(self):
        rooms = check_includes.ALLOWED_ROOMS
        rejected = set()
        for room, allowed in rooms.items():
            self.write(f"{room}/Own.h", "#pragma once\n")
            for number, other in enumerate(rooms):
                if other == room:
                    continue
                path = f"{room}/Use{number}.h"
                self.write(path, f'#include "{other}/Own.h"\n')
                if other not in allowed:
                    rejected.add(f"{path}:1: {room} may not include {other}")
        self.assertEqual({str(finding) for finding in check_includes.check(self.root)}, rejected)

    def test_every_source_is_in_a_room(self):
        for folder in ("Companion", "Extension", "Host", "Platform", "Platform/Linux/Other"):
            self.assert_rejected(f"{folder}/New.h", "#pragma once")
            (self.root / folder / "New.h").unlink()

    def test_the_seam_may_not_use_the_core(self):
        self.assert_rejected("Platform/Interface/New.h",
                             '#include "Extension/ProxyTunnelCore/ExtensionLog.h"')

    def test_the_core_may_not_use_the_provider(self):
        self.assert_rejected("Extension/ProxyTunnelCore/New.cpp",
                             '#include "Extension/FilterDataProvider/DomainList.h"')

    def test_the_provider_may_use_the_core(self):
        self.assert_accepted("Extension/FilterDataProvider/New.cpp",
                             '#include "Extension/ProxyTunnelCore/ExtensionLog.h"')

    def test_the_core_may_not_use_a_platform(self):
        for platform in ("Linux/Relay/EventLoop.h", "Simulation/Simulation.h",
                         "Shared/POSIXClock.h", "Shared/ICUTextServices.h",
                         "macOS/MacPlatform.h"):
            self.assert_rejected("Extension/ProxyTunnelCore/New.cpp",
                                 f'#include "Platform/{platform}"')

    def test_the_core_may_use_only_the_text_functions_of_base(self):
        self.write("Base/UTF8.h", "#pragma once\n")
        self.write("Base/FileDescriptor.h", "#pragma once\n")
        self.assert_accepted("Extension/ProxyTunnelCore/New.cpp", '#include "Base/UTF8.h"')
        self.assert_rejected("Extension/ProxyTunnelCore/New.cpp", '#include "Base/FileDescriptor.h"')

    def test_a_platform_may_not_use_another_one(self):
        self.assert_rejected("Platform/Linux/Kernel/New.cpp",
                             '#include "Platform/macOS/MacPlatform.h"')

    def test_a_platform_may_not_use_the_core(self):
        self.assert_rejected("Platform/Linux/Kernel/New.cpp",
                             '#include "Extension/ProxyTunnelCore/ExtensionLog.h"')

    def test_platforms_may_use_the_shared_parts(self):
        for platform in ("Linux", "macOS", "Simulation"):
            self.assert_accepted(f"Platform/{platform}/New.cpp",
                                 '#include "Platform/Shared/POSIXClock.h"',
                                 '#include "Platform/Shared/ICUTextServices.h"')

    def test_the_shared_parts_may_not_use_a_platform(self):
        self.assert_rejected("Platform/Shared/New.cpp",
                             '#include "Platform/Linux/Relay/EventLoop.h"')

    def test_the_companion_stands_alone(self):
        for room in ("Shared", "Sidecar", "Monitor"):
            self.assert_rejected(f"Companion/{room}/New.cpp",
                                 '#include "Platform/Interface/Clock.h"')
            (self.root / f"Companion/{room}/New.cpp").unlink()

    def test_the_companions_may_not_use_each_other(self):
        self.assert_rejected("Companion/Monitor/New.cpp",
                             '#include "Companion/Sidecar/HostPort.h"')

    def test_the_rooms_of_linux_build_on_each_other(self):
        event_loop = '#include "Platform/Linux/Relay/EventLoop.h"'
        self.assert_accepted("Platform/Linux/Interception/New.cpp", event_loop)
        for room in ("Kernel", "Services", "Processes", "Tracing", "Identity"):
            self.assert_rejected(f"Platform/Linux/{room}/New.cpp", event_loop)
            (self.root / f"Platform/Linux/{room}/New.cpp").unlink()

    def test_nothing_may_use_the_programs_or_the_tests(self):
        self.assert_rejected("Platform/Linux/New.cpp", '#include "Extension/main/CommandLine.h"')
        self.assert_rejected("Platform/Linux/New.cpp", '#include "Tests/Extension/Support/Bytes.h"')

    def test_the_programs_may_use_everything(self):
        self.assert_accepted("Extension/main/New.cpp",
                             '#include "Platform/Linux/Relay/EventLoop.h"',
                             '#include "Extension/FilterDataProvider/DomainList.h"')

    def test_includes_are_written_from_the_root(self):
        self.assert_rejected("Platform/Linux/New.cpp", '#include "EventLoop.h"')
        self.assert_rejected("Platform/Linux/New.cpp", '#include "../Interface/Clock.h"')

    def test_a_generated_header_belongs_to_the_room_that_makes_it(self):
        include = '#include "ConnectTracerProgram.h"'
        self.assert_accepted("Platform/Linux/Tracing/New.cpp", include)
        self.assert_rejected("Platform/Linux/Kernel/New.cpp", include)

    def test_the_core_may_not_have_threads_clocks_or_randomness(self):
        for header in ("thread", "future", "condition_variable", "random", "ctime", "time.h",
                       "sys/time.h", "pthread.h"):
            for folder in ("Extension/ProxyTunnelCore", "Extension/FilterDataProvider"):
                self.assert_rejected(f"{folder}/New.cpp", f"#include <{header}>")
                (self.root / folder / "New.cpp").unlink()

    def test_the_core_may_use_the_standard_library(self):
        self.assert_accepted("Extension/ProxyTunnelCore/New.cpp", "#include <chrono>",
                             "#include <mutex>", "#include <atomic>", "#include <jansson.h>")

    def test_the_core_may_not_use_foreign_headers(self):
        for header in ("asio.hpp", "sys/epoll.h", "dispatch/dispatch.h", "unicode/uchar.h"):
            self.assert_rejected("Extension/ProxyTunnelCore/New.cpp", f"#include <{header}>")

    def test_the_core_may_not_read_a_clock(self):
        self.assert_rejected("Extension/ProxyTunnelCore/New.cpp",
                             "auto now = std::chrono::steady_clock::now();")

    def test_the_simulation_has_neither_threads_nor_clocks(self):
        for room in ("Platform/Simulation", "Platform/Simulation/Schedule"):
            self.assert_rejected(f"{room}/New.cpp", "#include <thread>")
            self.assert_rejected(f"{room}/New.cpp",
                                 "auto now = std::chrono::system_clock::now();")
            self.assert_accepted(f"{room}/New.cpp", "#include <random>")

    def test_objective_c_includes_count(self):
        self.assert_rejected("Platform/macOS/New.mm", '#import "Platform/Linux/Relay/EventLoop.h"')

    def test_a_source_includes_its_own_header_first(self):
        own = '#include "Companion/Sidecar/HostPort.h"'
        self.assert_accepted("Companion/Sidecar/HostPort.cpp", "// Why.", own, "#include <string>")
        self.assert_rejected("Companion/Sidecar/HostPort.cpp", "#include <string>")
        self.assertEqual(len(self.findings("Companion/Sidecar/HostPort.cpp", "#include <string>", own)), 1)
        self.assert_rejected("Companion/Sidecar/HostPort.cpp", "int none;")

    def test_objective_c_and_tests_include_their_own_header_too(self):
        self.assert_rejected("Platform/macOS/MacPlatform.mm", "#import <Foundation/Foundation.h>")
        (self.root / "Platform/macOS/MacPlatform.mm").unlink()
        self.assert_rejected("Tests/Extension/Support/Bytes.cpp", "#include <string>")


if __name__ == "__main__":
    unittest.main()
