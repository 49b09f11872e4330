"""The nats link and credentials, TLS, and servers that hang or talk nonsense."""

import re
import socket
import ssl
import subprocess
import threading

from certificates import make_authority, make_certificate
from host_fixture import LINK_DOWN, wait_until
from nats_link_case import LINK_UP, NatsLinkTestCase, OneServerTestCase
from nats_server import NatsServer
from ports import free_ports


class CredentialsTest(OneServerTestCase):
    def secret(self, name, text):
        file = self.dir / name
        file.touch(0o600)
        file.write_text(text + "\n")
        return file

    def restart_server(self, extra):
        self.server.kill()
        self.server.configure(extra)
        self.server.start()

    def test_a_token_that_is_wrong_is_an_outage_until_it_is_right(self):
        self.restart_server("authorization { token: secret-one }")
        client = self.connect(self.server, auth_token="secret-one")
        client.make_stream()
        token = self.secret("token", "secret-two")
        self.configure(self.server.url, token_file=token)
        self.start_host()
        self.wait_for_log(LINK_DOWN)
        self.assertRegex(self.down_reason(), "Authorization|authorization|auth")
        self.send_lines(["one"])
        token.write_text("secret-one\n")
        self.wait_for_messages(client, ["one"])
        self.assertEqual(self.stop_host(), 0)
        for file in self.log_dir.iterdir():
            self.assertNotIn("secret-", file.read_text(errors="replace"), file)
        self.assert_nothing_rejected()

    def test_a_user_and_a_password_are_used_and_what_the_user_may_not_do_is_told(self):
        users = """authorization { users: [
          { user: admin, password: secret }
          { user: agent, password: secret, permissions: { publish: %s, subscribe: "_INBOX.>" } } ] }"""
        self.restart_server(users % '[ "qmlogcache.>", "$JS.API.STREAM.INFO.qmlogcache" ]')
        client = self.connect(self.server, user="admin", **{"pass": "secret"})
        client.make_stream()
        password = self.secret("password", "secret")
        self.configure(self.server.url, user="agent", password_file=password, timeout_ms=1000)
        self.start_up()
        self.send_lines(["one"])
        self.wait_for_messages(client, ["one"])
        self.restart_server(users % '"$JS.API.STREAM.INFO.qmlogcache"')
        self.wait_for_log(LINK_UP, 2)
        downs = self.count_log(LINK_DOWN)
        self.send_lines(["two"])
        self.wait_for_log("ermissions Violation")
        self.assertGreater(self.count_log(LINK_DOWN), downs)
        self.assert_nothing_rejected()
        self.stop_host()
        password.chmod(0o644)
        downs = self.count_log(LINK_DOWN)
        self.start_host()
        self.wait_for_log(LINK_DOWN, downs + 1)
        self.assertIn("is open to other users: its mode must be 0640 or stricter", self.down_reason(downs))


class TlsTest(NatsLinkTestCase):
    def setUp(self):
        super().setUp()
        self.authority = make_authority(self.dir, "authority")
        self.server = None
        self.addCleanup(lambda: self.server is None or self.server.stop())

    def serve(self, authority, alternative_name="IP:127.0.0.1", clients=None):
        certificate, key = make_certificate(self.dir, "server", authority, alternative_name)
        verify = f'ca_file: "{clients}", verify: true' if clients else ""
        self.server = NatsServer(self.dir, extra=f'tls {{ cert_file: "{certificate}", key_file: "{key}", {verify} }}')
        self.server.start()

    def url(self):
        return f"tls://127.0.0.1:{self.server.port}"

    def expect_down(self, reason):
        self.start_host()
        self.wait_for_log(LINK_DOWN)
        self.assertRegex(self.down_reason(), reason)
        self.wait_for_connections(0)

    def wait_for_connections(self, count):
        """The host's, which end soon, are counted for a moment."""
        wait_until(lambda: (self.server.ask("varz") or {}).get("connections") == count, f"{count} connections")

    def test_a_server_of_the_configured_authority_gets_records_of_an_agent_with_a_certificate(self):
        self.serve(self.authority, clients=self.authority[0])
        certificate, key = make_certificate(self.dir, "agent", self.authority)
        self.configure(self.url(), ca_file=self.authority[0], client_cert=certificate, client_key=key)
        context = ssl.create_default_context(cafile=self.authority[0])
        context.load_cert_chain(certificate, key)
        client = self.connect(self.server, tls=context)
        client.make_stream()
        self.start_up()
        lines = [f"line {n}" for n in range(300)]
        self.send_lines(lines)
        self.wait_for_messages(client, lines)
        self.assert_nothing_rejected()
        # Without a certificate the server refuses it.
        self.stop_host()
        self.configure(self.url(), ca_file=self.authority[0])
        downs = self.count_log(LINK_DOWN)
        self.start_host()
        self.wait_for_log(LINK_DOWN, downs + 1)
        self.wait_for_connections(1)

    def test_a_server_of_an_unknown_authority_gets_nothing(self):
        self.serve(make_authority(self.dir, "other"))
        self.configure(self.url(), ca_file=self.authority[0])
        self.expect_down("SSL")

    def test_a_server_of_another_name_gets_nothing(self):
        self.serve(self.authority, alternative_name="IP:127.0.0.2,DNS:other.example")
        self.configure(self.url(), ca_file=self.authority[0])
        self.expect_down("SSL|mismatch")

    def test_a_server_without_tls_gets_nothing(self):
        self.server = NatsServer(self.dir)
        self.server.start()
        self.configure(self.url(), ca_file=self.authority[0])
        self.expect_down("[Ss]ecure")

    def expect_passphrase_told(self, certificate, **keys):
        self.serve(self.authority, clients=self.authority[0])
        self.configure(self.url(), ca_file=self.authority[0], client_cert=certificate, **keys)
        file = keys.get("client_key", certificate)
        self.expect_down(f"^tls://127.0.0.1:[0-9]+: the key in {re.escape(str(file))} has a passphrase$")
        self.assertEqual(self.stop_host(), 0)

    def encrypt(self, key, *form):
        encrypted = self.dir / "encrypted.key"
        subprocess.run(["openssl", *form, "-aes256", "-passout", "pass:x", "-in", key, "-out", encrypted], check=True,
                       capture_output=True)
        return encrypted

    def test_a_key_that_is_encrypted_is_told_and_nobody_is_asked(self):
        certificate, key = make_certificate(self.dir, "agent", self.authority)
        self.expect_passphrase_told(certificate, client_key=self.encrypt(key, "pkey"))

    def test_a_key_of_the_older_form_in_the_certificates_file_is_told_likewise(self):
        certificate, key = make_certificate(self.dir, "agent", self.authority)
        both = self.dir / "both.pem"
        both.write_bytes(certificate.read_bytes() + self.encrypt(key, "ec").read_bytes())
        self.assertIn("Proc-Type: 4,ENCRYPTED", both.read_text())
        self.expect_passphrase_told(both)


class HangingServerTest(OneServerTestCase):
    INFO = (b'INFO {"server_id":"x","version":"2.9.0","headers":true,"proto":1,"max_payload":1000000,'
            b'"tls_required":%s}\r\n')

    def serve(self, greeting):
        """Takes connections, says this, and nothing more."""
        listener = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(listener.close)
        taken = []
        self.addCleanup(lambda: [connection.close() for connection in taken])

        def run():
            while True:
                try:
                    taken.append(listener.accept()[0])
                    taken[-1].sendall(greeting)
                except OSError:
                    return

        threading.Thread(target=run, daemon=True).start()
        return f"nats://127.0.0.1:{listener.getsockname()[1]}"

    def test_servers_that_say_nothing_more_or_nonsense_are_given_up_and_the_next_one_is_asked(self):
        client = self.make_stream()
        greetings = [b"", self.INFO % b"false", self.INFO % b"true", b"HTTP/1.1 400 Bad\r\n\r\n",
                     b"INFO {" + b"x" * 100000, b"INFO " + b"[" * 20000 + b"\r\n"]
        bad = [self.serve(greeting) for greeting in greetings] + [f"nats://127.0.0.1:{free_ports(1)[0]}"]
        self.configure(", ".join(bad), connect_timeout_ms=200)
        self.start_host()
        self.wait_for_log(LINK_DOWN)
        for url in bad:
            self.assertIn(url + ": ", self.down_reason())
        for url in bad[:3]:
            self.assertIn(url + ": the server did not answer in time", self.down_reason())
        self.assertEqual(self.stop_host(), 0)
        self.configure(", ".join([*bad, self.server.url]), connect_timeout_ms=200)
        self.start_host()
        self.send_lines(["one"])
        self.wait_for_messages(client, ["one"])
