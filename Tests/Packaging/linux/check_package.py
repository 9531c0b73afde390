#!/usr/bin/env python3
"""Checks what is packaged for Linux: units, manual pages, completions and versions."""

import argparse
import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

# What systemd-analyze(1) calls the exposure: 0 is none, 10 is everything.
MOST_EXPOSURE = {"ostravel": 1.9, "ostravel-inspector": 1.2, "ostravel-sidecar": 1.5,
                 "ostravel-monitor": 1.5}
MOST_EXPOSURE_WITH_NETWORK = 2.5
PAGES = {"ostravel-extension": 8, "ostravel-inspector": 8, "ostravel-sidecar": 1,
         "ostravel-monitor": 1, "ostravelctl": 1}
# The exposure that the work of these two requires; linux.md has the reasons.
INSPECTOR_EXPOSURES = {
    "AmbientCapabilities",
    "CapabilityBoundingSet_CAP_DAC_FOWNER_IPC_OWNER",
    "CapabilityBoundingSet_CAP_SYS_PTRACE",
    "DeviceAllow",
    "PrivateUsers",
    "ProtectHome",
    "RestrictAddressFamilies_AF_UNIX",
    "RestrictSUIDSGID",
    "RootDirectoryOrRootImage",
}
EXPOSURES = {
    "AmbientCapabilities",
    "CapabilityBoundingSet_CAP_BPF",
    "CapabilityBoundingSet_CAP_NET_ADMIN",
    "CapabilityBoundingSet_CAP_NET_BIND_SERVICE_BROADCAST_RAW)",
    "DeviceAllow",
    "IPAddressDeny",
    "PrivateNetwork",
    "PrivateUsers",
    "RestrictAddressFamilies_AF_INET_INET6",
    "RestrictAddressFamilies_AF_NETLINK",
    "RestrictAddressFamilies_AF_UNIX",
    "RestrictSUIDSGID",
    "RootDirectoryOrRootImage",
    "SystemCallFilter_privileged",
}
# The longest pause is a minute.
RESTARTED_WITH_PAUSES = (
    "Restart=on-failure\n", "RestartSec=100ms\n", "TimeoutStartSec=90s\n",
    "RuntimeDirectory=%p-restarts\n", "RuntimeDirectoryPreserve=restart\n",
    "ExecStartPre=-/usr/libexec/ostravel/restart-pause wait\n",
    "ExecStopPost=-/usr/libexec/ostravel/restart-pause ended\n")
# Pauses would delay the start of the extension, which waits for it.
STARTED_BY_QUESTIONS = ("Restart=no\n", "Requires=ostravel-inspector.socket\n")
FAILURES = []


def expect(condition, text):
    if not condition:
        FAILURES.append(text)


def run(*command, given=None):
    done = subprocess.run(command, input=given, capture_output=True, text=True, check=False)
    expect(done.returncode == 0, f"{' '.join(command)}: {done.stderr.strip()}")
    return done.stdout


def check_exposures(unit, expected):
    listed = run("systemd-analyze", "security", "--offline=true", "--json=short", str(unit))
    exposed = {item["json_field"] for item in json.loads(listed or "[]")
               if float(item["exposure"] or 0) > 0}
    expect(exposed == expected, f"{unit.name}: {sorted(exposed ^ expected)} are new or gone")


def check_units(folder):
    check_exposures(folder / "ostravel.service", EXPOSURES)
    check_exposures(folder / "ostravel-inspector.service", INSPECTOR_EXPOSURES)
    for name, most in MOST_EXPOSURE.items():
        unit = folder / f"{name}.service"
        output = run("systemd-analyze", "security", "--offline=true", str(unit))
        found = re.search(r"Overall exposure level for .*: ([\d.]+)", output)
        exposure = float(found.group(1)) if found else 10.0
        expect(exposure <= most, f"{unit.name}: the exposure is {exposure}, not at most {most}")
        text = unit.read_text()
        restart = STARTED_BY_QUESTIONS if name == "ostravel-inspector" else RESTARTED_WITH_PAUSES
        for setting in ("Type=notify", "WatchdogSec=", "NoNewPrivileges=yes", "SystemCallFilter=",
                        "ExecStart=/usr/bin/", "StartLimitIntervalSec=0\n", *restart):
            expect(f"\n{setting}" in text, f"{unit.name}: {setting} is missing")
        user = re.search(r"^User=(.*)$", text, re.MULTILINE)
        expect(user and user.group(1) == name, f"{unit.name}: has no user of its own")
        users = (folder / "ostravel.sysusers").read_text()
        expect(f"u {name} " in users, f"{unit.name}: its user is not created")


def check_page_socket(folder):
    """The service has no network; only this socket can be reached from outside."""
    text = (folder / "ostravel-page.socket").read_text()
    expect(re.findall(r"^ListenStream=(.*)$", text, re.MULTILINE) == ["127.0.0.1:8090"],
           "ostravel-page.socket: listens elsewhere than on 127.0.0.1:8090")
    service = re.search(r"^Service=(.*)$", text, re.MULTILINE).group(1)
    expect("PrivateNetwork=yes" in (folder / service).read_text(), f"{service}: has a network")


def check_inspector(folder):
    """Who asks and who is asked agree on the socket, which is nobody else's."""
    socket = (folder / "ostravel-inspector.socket").read_text()
    path = re.search(r"^ListenSequentialPacket=(.*)$", socket, re.MULTILINE).group(1)
    for setting in ("SocketUser=ostravel", "SocketMode=0600", "FlushPending=yes",
                    "TriggerLimitIntervalSec=0"):
        expect(f"\n{setting}\n" in socket, f"ostravel-inspector.socket: {setting} is missing")
    extension = (folder / "ostravel.service").read_text()
    expect(f"--inspector {path}\n" in extension, "ostravel.service: asks on another socket")
    expect("ostravel-inspector.socket" in extension, "ostravel.service: does not want the socket")
    inspector = (folder / "ostravel-inspector.service").read_text()
    expect("PrivateNetwork=yes" in inspector, "ostravel-inspector.service: has a network")


def check_publishing(folder):
    """The drop-in that gives the monitor a network leaves it its other restrictions."""
    unit = (folder / "ostravel-monitor.service").read_text()
    drop_in = (folder / "ostravel-monitor-publish.conf").read_text()
    settings = dict(re.findall(r"^(\w+)=(.*)$", drop_in, re.MULTILINE))
    expect(set(settings) == {"PrivateNetwork", "RestrictAddressFamilies", "ProcSubset"},
           f"ostravel-monitor-publish.conf: sets {sorted(settings)}")
    with tempfile.TemporaryDirectory() as name:
        combined = pathlib.Path(name, "ostravel-monitor.service")
        combined.write_text(unit.replace("[Install]", drop_in + "\n[Install]"))
        output = run("systemd-analyze", "security", "--offline=true", str(combined))
    found = re.search(r"Overall exposure level for .*: ([\d.]+)", output)
    expect(found and float(found.group(1)) <= MOST_EXPOSURE_WITH_NETWORK,
           f"ostravel-monitor with a network: {output[-200:]}")


# Of Grafana 9.
PANELS = {"stat", "state-timeline", "timeseries", "table"}
UNITS = {"short", "s", "Bps", "cps", "dateTimeAsIsoNoDateIfToday"}


def check_dashboard(root):
    """What Grafana would refuse or show wrongly; that each query finds data is tested elsewhere."""
    text = (root / "Packaging/prometheus/dashboard.json").read_text()
    dashboard = json.loads(text)
    variables = {each["name"] for each in dashboard["templating"]["list"]}
    used = set(re.findall(r"\$\{?(\w+)", text))
    expect({name for name in used if not name.startswith("__")} == variables,
           f"dashboard.json: variables {sorted(used)}, defined {sorted(variables)}")
    panels = dashboard["panels"]
    expect(len({panel["id"] for panel in panels}) == len(panels),
           "dashboard.json: two panels have the same number")
    taken = set()
    for panel in panels:
        name = f"dashboard.json, {panel['title']}"
        expect(panel["type"] in PANELS, f"{name}: unknown type {panel['type']}")
        unit = panel["fieldConfig"]["defaults"]["unit"]
        expect(unit in UNITS, f"{name}: unknown unit {unit}")
        place = panel["gridPos"]
        cells = {(place["x"] + column, place["y"] + row)
                 for column in range(place["w"]) for row in range(place["h"])}
        expect(place["x"] + place["w"] <= 24, f"{name}: is wider than the dashboard")
        expect(not cells & taken, f"{name}: covers another panel")
        taken |= cells
        references = [target["refId"] for target in panel["targets"]]
        expect(references and len(set(references)) == len(references),
               f"{name}: its queries have the names {references}")
        for target in panel["targets"]:
            expect(target["datasource"] == panel["datasource"] ==
                   {"type": "prometheus", "uid": "${datasource}"}, f"{name}: another data source")
            selectors = re.findall(r"\bostravel_\w+(\{[^}]*\})?", target["expr"])
            expect(all(selector == '{instance=~"$instance"}' for selector in selectors),
                   f"{name}: {target['expr']} is about other machines as well")


def check_options(program, root):
    """Every option is in the manual page and in each completion, and nothing else is."""
    name = program.name
    text = run(str(program), "--help")
    for command in re.findall(r"^  ([a-z]+) ", text.partition("Subcommands:")[2], re.MULTILINE):
        text += run(str(program), command, "--help")
    options = set(re.findall(r"(--[a-z][a-z-]*)", text))
    # Other programs' options that the help text mentions.
    options -= {"--user"}
    page = (root / f"Documentation/man/{name}.{PAGES[name]}.scd").read_text()
    completions = root / "Packaging/completions"
    texts = {
        "manual page": set(re.findall(r"\*(--[a-z-]+)\*", page)),
        "bash": set(re.findall(r"(--[a-z-]+)", (completions / "bash" / name).read_text())),
        "zsh": set(re.findall(r"(--[a-z-]+)", (completions / "zsh" / f"_{name}").read_text())),
        "fish": {"--" + option for option in re.findall(
            r" -l ([a-z-]+)", (completions / "fish" / f"{name}.fish").read_text())},
    }
    for where, described in texts.items():
        expect(options == described,
               f"{name}, {where}: {sorted(options ^ described)} are only in one of the two")
    # Every program has this one, which has a letter as well.
    expect("{-h,--help}" in (completions / f"zsh/_{name}").read_text(),
           f"{name}, zsh: -h is not completed")
    expect(" -s h -l help " in (completions / f"fish/{name}.fish").read_text(),
           f"{name}, fish: -h is not completed")
    expect(re.search(r"\B-h,--help\b", text), f"{name}: it has no option -h")
    synopsis = set(re.findall(r"--[a-z-]+", page.partition("# SYNOPSIS")[2].partition("\n# ")[0]))
    expect(options - synopsis <= {"--help", "--version"} and synopsis <= options,
           f"{name}, synopsis: {sorted(options ^ synopsis)} are only in one of the two")
    for choices in re.findall(r":\{([a-z,]+)\}", text):
        for place in (page, *((completions / path).read_text() for path in (
                f"bash/{name}", f"zsh/_{name}", f"fish/{name}.fish"))):
            expect(all(re.search(rf"\b{choice}\b", place) for choice in choices.split(",")),
                   f"{name}: one of {choices} is not described or completed")
    for command in re.findall(r"^  ([a-z]+) ", text.partition("Subcommands:")[2], re.MULTILINE):
        for place in ("bash/ostravelctl", "zsh/_ostravelctl", "fish/ostravelctl.fish"):
            expect(re.search(rf"\b{command}\b", (completions / place).read_text()),
                   f"{place}: {command} is not completed")
        expect(f"\n*{command}*" in page, f"{name}: {command} is not in the manual page")
    check_offers(program, completions)
    manual = run("scdoc", given=page)
    expect(manual.startswith(".\\\" Generated by scdoc"), f"{name}: the manual page is empty")


def offered_by_bash(completions, words):
    """What the shell offers for the last word."""
    name = words[0]
    listed = run("bash", "-c", (
        'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); '
        f'_{name.replace("-", "_")} "$1" "${{COMP_WORDS[-1]}}" "${{COMP_WORDS[-2]}}"; '
        'printf "%s\\n" "${COMPREPLY[@]}"'
    ), "bash", str(completions / "bash" / name), *words)  # fmt: skip
    return set(listed.split())


def offered_by_fish(completions, words):
    listed = run("fish", "--no-config", "-c", 'source $argv[1]; complete -C "$argv[2]"',
                 str(completions / f"fish/{words[0]}.fish"), " ".join(words))
    return {line.split("\t")[0] for line in listed.splitlines()}


def options_of(*command):
    """The options that a program lists as its own, or those of one of its commands."""
    return set(re.findall(r"^  (?:-\w,)?(--[a-z][a-z-]*)", run(*command, "--help"), re.MULTILINE))


def check_offers(program, completions):
    """The shells offer the options that the program, or its command, takes in this place."""
    name = program.name
    listed = run(str(program), "--help").partition("Subcommands:")[2]
    commands = set(re.findall(r"^  ([a-z]+) ", listed, re.MULTILINE))
    options = options_of(str(program))
    for command in (None, *sorted(commands)):
        words = [name, command] if command else [name]
        taken = options | options_of(str(program), command) if command else options
        for shell, offered_by in (("bash", offered_by_bash), ("fish", offered_by_fish)):
            # fish also offers the form with an equals sign where the value may be missing.
            offered = {word for word in offered_by(completions, [*words, "--"])
                       if word.startswith("--") and not word.endswith("=")}
            expect(offered == taken,
                   f"{' '.join(words)}, {shell}: {sorted(offered ^ taken)} "
                   "are only in one of the two")
            if commands and command is None:
                expect(commands <= offered_by(completions, [*words, ""]),
                       f"{name}, {shell}: not all of {sorted(commands)} are offered")


def check_kernel_programs(root, folder):
    """Two builds in different folders are identical only if nothing tells where they were."""
    programs = list(folder.glob("Platform/Linux/Tracing/*.bpf.o"))
    expect(programs, "the kernel programs are not found")
    for program in programs:
        expect(bytes(root) not in program.read_bytes(),
               f"{program.name} has the path of its source")


def check_catalogue(root):
    """Each kind of log line has one explanation, and each of them is about a line that exists."""
    catalogue = root / "Packaging/journal/ostravel.catalog"
    table = root / "Platform/Linux/Services/LogCatalogue.cpp"
    entries = re.findall(r'\{((?:\s*"[^"]*")+),\s*"([0-9a-f]{32})"\}', table.read_text())
    explained = re.findall(r"^-- ([0-9a-f]{32})$", catalogue.read_text(), re.MULTILINE)
    expect(entries, "the table of log lines is not found")
    expect(sorted(explained) == sorted({identifier for _, identifier in entries}),
           "the catalogue and the table of log lines differ")
    # As the compiler joins them.
    sources = "".join(
        re.sub(r'"\s*"', "", path.read_text(encoding="utf-8"))
        for folder in ("Extension", "Platform") for path in (root / folder).rglob("*.[ch]*")
        if path != table)
    for text, _ in entries:
        line = "".join(re.findall(r'"([^"]*)"', text))
        expect(f'"{line}"' in sources, f"there is no such log line: {line}")
    with tempfile.TemporaryDirectory() as folder:
        installed = pathlib.Path(folder, "usr/lib/systemd/catalog")
        installed.mkdir(parents=True)
        pathlib.Path(folder, "var/lib/systemd/catalog").mkdir(parents=True)
        shutil.copy(catalogue, installed)
        run("journalctl", f"--root={folder}", "--update-catalog")
        listed = run("journalctl", f"--root={folder}", "--list-catalog")
        expect(all(identifier in listed for identifier in explained),
               "journalctl does not understand the catalogue")


def check_versions(root):
    project = re.search(r"project\(ostravel VERSION ([\d.]+)", (root / "CMakeLists.txt").read_text())
    package = re.match(r"ostravel \(([\d.]+)", (root / "Packaging/debian/changelog").read_text())
    expect(project.group(1) == package.group(1),
           f"the project is {project.group(1)}, the package {package.group(1)}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--root", type=pathlib.Path, required=True)
    parser.add_argument("programs", type=pathlib.Path, nargs="+")
    arguments = parser.parse_args()
    check_units(arguments.root / "Packaging/debian")
    check_page_socket(arguments.root / "Packaging/debian")
    check_inspector(arguments.root / "Packaging/debian")
    check_publishing(arguments.root / "Packaging/debian")
    check_dashboard(arguments.root)
    for program in arguments.programs:
        check_options(program, arguments.root)
    check_kernel_programs(arguments.root, arguments.programs[0].parent.parent)
    check_catalogue(arguments.root)
    check_versions(arguments.root)
    for failure in FAILURES:
        print(failure, file=sys.stderr)
    return 1 if FAILURES else 0


if __name__ == "__main__":
    sys.exit(main())
