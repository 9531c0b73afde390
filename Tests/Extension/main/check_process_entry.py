#!/usr/bin/env python3
"""Runs the process entry with a stand-in for the system and the property list that is shipped."""

import argparse
import os
import subprocess
import sys

EXPECTED = """principal class OVPacketTunnelProvider
started without error
stopped
OstravelProxy: init()
OstravelProxy: Starting Proxy provider...
OstravelProxy: Rules summary included=32 excluded=2 httpsOnly=false
OstravelProxy: Rules set successfully
OstravelProxy: Stopping Proxy
"""


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--program", required=True)
    parser.add_argument("--information", required=True)
    arguments = parser.parse_args()
    # The first probe connects, which must not reach a program of this machine.
    ended = subprocess.run(["unshare", "--net", arguments.program], text=True, timeout=60,
                           capture_output=True,
                           env={**os.environ, "STANDIN_INFO_PLIST": arguments.information})
    if ended.returncode != 0 or not ended.stdout.startswith(EXPECTED):
        sys.exit(f"exit status {ended.returncode}\n{ended.stdout}{ended.stderr}")


if __name__ == "__main__":
    main()
