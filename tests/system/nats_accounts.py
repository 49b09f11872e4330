"""Operator, accounts and users of a nats-server, with keys and tokens (JWT) as they are in use, made with the openssl
command line."""

import base64
import json
import subprocess
import time

# What a key is for: the first byte before it is encoded.
SEED = 18 << 3
OPERATOR, ACCOUNT, USER = 14 << 3, 0, 20 << 3


def _openssl(*arguments):
    return subprocess.run(["openssl", *map(str, arguments)], check=True, capture_output=True, timeout=60).stdout


def _crc16(data):
    """CRC-16/XMODEM."""
    crc = 0
    for byte in data:
        crc ^= byte << 8
        for _ in range(8):
            crc = (crc << 1 ^ (0x1021 if crc & 0x8000 else 0)) & 0xFFFF
    return crc


def _key_text(data):
    return base64.b32encode(data + _crc16(data).to_bytes(2, "little")).decode().rstrip("=")


def _token_part(data):
    return base64.urlsafe_b64encode(data).decode().rstrip("=")


class Identity:
    """A key pair of the Ed25519 kind, with its texts."""

    def __init__(self, directory, name, kind):
        self.name = name
        self._file = directory / f"{name}.key"
        self._file.write_bytes(_openssl("genpkey", "-algorithm", "ed25519"))
        # The raw key is at the end of either form.
        private = _openssl("pkey", "-in", self._file, "-outform", "DER")[-32:]
        public = _openssl("pkey", "-in", self._file, "-pubout", "-outform", "DER")[-32:]
        self.public = _key_text(bytes([kind]) + public)
        self.seed = _key_text(bytes([SEED | kind >> 5, (kind & 31) << 3]) + private)

    def issue(self, subject, claims):
        """A token about another identity, or itself."""
        body = {"jti": subject.public, "iat": int(time.time()), "iss": self.public, "sub": subject.public,
                "name": subject.name, "nats": {"version": 2, **claims}}
        text = ".".join(_token_part(json.dumps(part).encode())
                        for part in ({"typ": "JWT", "alg": "ed25519-nkey"}, body))
        return f"{text}.{self.sign(text.encode())}"

    def sign(self, data):
        message = self._file.with_suffix(".message")
        message.write_bytes(data)
        return _token_part(_openssl("pkeyutl", "-sign", "-inkey", self._file, "-rawin", "-in", message))


class Accounts:
    """An operator with a system account and one account, which may use JetStream."""

    def __init__(self, directory):
        self._directory = directory
        self._operator = Identity(directory, "operator", OPERATOR)
        self._system = Identity(directory, "system", ACCOUNT)
        self._account = Identity(directory, "account", ACCOUNT)

    def server_configuration(self):
        limits = {"subs": -1, "data": -1, "payload": -1, "imports": -1, "exports": -1, "conn": -1, "leaf": -1,
                  "wildcards": True}
        storage = {"mem_storage": -1, "disk_storage": -1, "streams": -1, "consumer": -1}
        operator = self._operator.issue(self._operator, {"type": "operator", "system_account": self._system.public})
        system = self._operator.issue(self._system, {"type": "account", "limits": limits})
        account = self._operator.issue(self._account, {"type": "account", "limits": {**limits, **storage}})
        return (f"operator: {operator}\nsystem_account: {self._system.public}\nresolver: MEMORY\n"
                f"resolver_preload: {{ {self._system.public}: {system}\n {self._account.public}: {account} }}\n")

    def make_user(self, name, account=None, **permissions):
        """A user of the account, or of another one: its key, and the token that the account has issued."""
        user = Identity(self._directory, name, USER)
        claims = {"type": "user", "subs": -1, "data": -1, "payload": -1, **permissions}
        return user, (account or self._account).issue(user, claims)


def credentials(user, token):
    """The text of a credentials file."""
    return (f"-----BEGIN NATS USER JWT-----\n{token}\n------END NATS USER JWT------\n\n"
            f"-----BEGIN USER NKEY SEED-----\n{user.seed}\n------END USER NKEY SEED------\n")
