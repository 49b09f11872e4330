"""The nats link and credentials files: a user's token (JWT) and seed, checked by a server with an operator."""

from host_fixture import LINK_DOWN
from nats_accounts import ACCOUNT, Accounts, Identity, credentials
from nats_link_case import LINK_UP, OneServerTestCase

# What docs/links.md says that an agent's user needs.
PERMISSIONS = {"pub": {"allow": ["qmlogcache.>", "$JS.API.STREAM.INFO.qmlogcache"]}, "sub": {"allow": ["_INBOX.>"]}}


class CredentialsFileTest(OneServerTestCase):
    def setUp(self):
        super().setUp()
        self.accounts = Accounts(self.dir)
        self.server.kill()
        self.server.configure(self.accounts.server_configuration())
        self.server.start()
        admin, token = self.accounts.make_user("admin")
        self.client = self.connect(self.server, user_key=admin, jwt=token)
        self.client.make_stream()
        self.agent, self.token = self.accounts.make_user("agent", **PERMISSIONS)
        self.file = self.dir / "agent.creds"
        self.file.touch(0o600)
        self.configure(self.server.url, credentials_file=self.file)

    def expect_down(self, reason):
        self.start_host()
        self.wait_for_log(LINK_DOWN)
        self.assertRegex(self.down_reason(), reason)
        self.assertEqual(self.count_log(LINK_UP), 0)

    def expect_up_with_the_right_file(self):
        """What was held meanwhile arrives, without a restart."""
        self.send_lines(["one"])
        self.file.write_text(credentials(self.agent, self.token))
        self.file.chmod(0o600)
        self.wait_for_messages(self.client, ["one"])
        self.assertEqual(self.count_log(LINK_DOWN), 1)
        for file in self.log_dir.iterdir():
            text = file.read_text(errors="replace")
            self.assertNotIn(self.agent.seed, text, file)
            self.assertNotIn(self.token, text, file)
        self.assert_nothing_rejected()

    def test_a_user_of_the_account_delivers_with_the_rights_that_are_documented(self):
        self.file.write_text(credentials(self.agent, self.token))
        self.start_up()
        lines = [f"line {n}" for n in range(300)]
        self.send_lines(lines)
        self.wait_for_messages(self.client, lines)
        self.assertEqual(self.count_log(LINK_DOWN), 0)
        names = [one["authorized_user"] for one in self.server.ask("connz?auth=true")["connections"]]
        self.assertIn(self.agent.public, names)

    def test_a_user_of_a_strange_account_is_refused_until_the_file_is_right(self):
        strange = Identity(self.dir, "strange", ACCOUNT)
        self.file.write_text(credentials(*self.accounts.make_user("intruder", strange)))
        self.expect_down("127.0.0.1:[0-9]+: .*(a|A)uthorization (v|V)iolation")
        self.expect_up_with_the_right_file()

    def test_a_token_with_another_users_seed_is_refused(self):
        other, _ = self.accounts.make_user("other")
        self.file.write_text(credentials(other, self.token))
        self.expect_down("127.0.0.1:[0-9]+: .*(a|A)uthorization (v|V)iolation")
        self.expect_up_with_the_right_file()

    def test_a_file_that_others_may_read_is_not_used(self):
        self.file.write_text(credentials(self.agent, self.token))
        self.file.chmod(0o644)
        self.expect_down("the credentials file .*agent.creds is open to other users: its mode must be 0640 or stricter")
        self.expect_up_with_the_right_file()

    def test_a_file_that_is_missing_is_told(self):
        self.file.unlink()
        self.expect_down("open the credentials file .*agent.creds: No such file")
        self.expect_up_with_the_right_file()

    def test_a_file_with_neither_token_nor_seed_is_told(self):
        self.file.write_text("nothing\n")
        self.expect_down("agent.creds")
        self.expect_up_with_the_right_file()
