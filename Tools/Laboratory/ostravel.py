"""Starts the programs of the system and waits until they are ready.

Each function takes the folder of the programs, further options of the program, and what Program
takes. start replaces Program where the caller tracks what it starts.
"""

import os

from .program import Program

PROGRAMS = ("ostravel-extension", "ostravel-monitor", "ostravel-sidecar")

# Where ostravelctl looks for the extension.
CONTROL_PATH = "/run/ostravel/control.sock"

# The extension has installed its rules.
RULES_ARE_SET = "Rules set successfully"
# The extension has tested a new proxy and begins to send flows to it.
PROXY_IS_USED = "the local proxy is"


def start_monitor(folder, socket_path, *options, start=Program, **how):
    arguments = [os.path.join(folder, "ostravel-monitor"), "--socket", socket_path, *options]
    monitor = start(arguments, **how)
    monitor.expect(monitor.errors, "listening on")
    return monitor


def start_sidecar(folder, *options, start=Program, **how):
    sidecar = start([os.path.join(folder, "ostravel-sidecar"), *options], **how)
    sidecar.expect(sidecar.output, "listening on")
    return sidecar


def start_extension(folder, configuration_path, *options, start=Program, **how):
    if "--control" not in options:
        # Beside the configuration: another instance may run in another network of this machine.
        control = os.path.join(os.path.dirname(configuration_path), "control.sock")
        options = ("--control", control, *options)
    extension = start(
        [os.path.join(folder, "ostravel-extension"), "--log", "stderr",
         "--configuration", configuration_path, *options],
        **how,
    )  # fmt: skip
    extension.expect(extension.errors, RULES_ARE_SET)
    return extension
