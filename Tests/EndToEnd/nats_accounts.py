"""Accounts of a NATS server whose users authenticate with a key, made without its own tools.

A key is written as letters and digits: a byte or two for its kind, the 32 bytes of Ed25519 (RFC
8032), and a checksum, in base 32. A claim is a token (RFC 7519) that the key above it has signed:
the operator signs its own and those of the accounts, an account those of its users.
"""

import base64
import json
import subprocess
import time

# The first letter of a key, in its upper five bits.
OPERATOR, ACCOUNT, USER = (14 << 3, 0 << 3, 20 << 3)
SEED = 18 << 3
# What openssl writes before the 32 bytes.
DER_BEFORE_SEED, DER_BEFORE_KEY = 16, 12


def checksum(data):
    """CRC-16 with the polynomial 0x1021, from 0."""
    value = 0
    for byte in data:
        value ^= byte << 8
        for _ in range(8):
            value = ((value << 1) ^ 0x1021 if value & 0x8000 else value << 1) & 0xFFFF
    return value


def encoded(data):
    return base64.b32encode(data + checksum(data).to_bytes(2, "little")).decode().rstrip("=")


def openssl(*arguments):
    return subprocess.run(["openssl", *arguments], capture_output=True, check=True).stdout


def part(value):
    text = value if isinstance(value, bytes) else json.dumps(value).encode()
    return base64.urlsafe_b64encode(text).decode().rstrip("=")


class Key:
    """The key of an operator, an account or a user."""

    def __init__(self, folder, name, kind):
        self._path = f"{folder}/{name}.pem"
        self._message = f"{folder}/{name}.message"
        openssl("genpkey", "-algorithm", "ed25519", "-out", self._path)
        secret = openssl("pkey", "-in", self._path, "-outform", "DER")[DER_BEFORE_SEED:]
        public = openssl("pkey", "-in", self._path, "-pubout", "-outform", "DER")[DER_BEFORE_KEY:]
        self.public = encoded(bytes([kind]) + public)
        self.seed = encoded(bytes([SEED | kind >> 5, (kind & 31) << 3]) + secret)

    def claim(self, about, name, content):
        """A claim of this key about another one."""
        claims = {
            "jti": name, "iat": int(time.time()), "iss": self.public, "name": name,
            "sub": about.public, "nats": content | {"version": 2},
        }  # fmt: skip
        text = f"{part({'typ': 'JWT', 'alg': 'ed25519-nkey'})}.{part(claims)}"
        with open(self._message, "w", encoding="ascii") as file:
            file.write(text)
        signature = openssl(
            "pkeyutl", "-sign", "-rawin", "-inkey", self._path, "-in", self._message
        )
        return f"{text}.{part(signature)}"


# No limit.
ACCOUNT_LIMITS = dict.fromkeys(
    ("subs", "data", "payload", "imports", "exports", "conn", "leaf", "mem_storage",
     "disk_storage", "streams", "consumer"), -1,
) | {"wildcards": True}  # fmt: skip


class Accounts:
    def __init__(self, folder):
        self._folder = folder
        self._account = Key(folder, "account", ACCOUNT)
        operator = Key(folder, "operator", OPERATOR)
        system = Key(folder, "system", ACCOUNT)
        no_streams = ACCOUNT_LIMITS | {"disk_storage": 0, "mem_storage": 0}
        of_system = operator.claim(system, "system", {"type": "account", "limits": no_streams})
        of_account = operator.claim(
            self._account, "fleet", {"type": "account", "limits": ACCOUNT_LIMITS}
        )
        # Of the server.
        self.configuration = f"""
            operator: {operator.claim(operator, "operator", {"type": "operator"})}
            system_account: {system.public}
            resolver: MEMORY
            resolver_preload: {{
              {system.public}: {of_system}
              {self._account.public}: {of_account}
            }}
        """

    def credentials(self, name, publish, subscribe, signer=None):
        """The path of a file that lets its owner publish to and subscribe to these subjects."""
        user = Key(self._folder, name, USER)
        claim = (signer or self._account).claim(user, name, {
            "type": "user", "subs": -1, "data": -1, "payload": -1,
            "pub": {"allow": publish}, "sub": {"allow": subscribe},
        })  # fmt: skip
        path = f"{self._folder}/{name}.creds"
        with open(path, "w", encoding="ascii") as file:
            file.write(
                f"-----BEGIN NATS USER JWT-----\n{claim}\n------END NATS USER JWT------\n\n"
                f"-----BEGIN USER NKEY SEED-----\n{user.seed}\n------END USER NKEY SEED------\n"
            )
        return path
