"""Resolvers that run on the machine itself, on 127.0.0.1, and ask another one."""

import pathlib

ADDRESS = "127.0.0.1"


def start_dnsmasq(laboratory, server):
    dnsmasq = laboratory.start(
        ["dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--pid-file", "--no-resolv",
         "--no-hosts", f"--server={server}", f"--listen-address={ADDRESS}", "--bind-interfaces",
         "--user=dnsmasq", "--log-facility=-"]
    )  # fmt: skip
    laboratory.wait_until_listening(laboratory.here, 53)
    return dnsmasq


def start_unbound(laboratory, server):
    configuration = laboratory.path("unbound.conf")
    pathlib.Path(configuration).write_text(f"""
server:
  interface: {ADDRESS}
  access-control: 127.0.0.0/8 allow
  num-threads: 1
  do-daemonize: no
  use-syslog: no
  pidfile: ""
  chroot: ""
  directory: "{laboratory.folder}"
  module-config: "iterator"
remote-control:
  control-enable: no
forward-zone:
  name: "."
  forward-addr: {server}
""")
    unbound = laboratory.start(["unbound", "-d", "-c", configuration])
    laboratory.wait_until_listening(laboratory.here, 53)
    return unbound
