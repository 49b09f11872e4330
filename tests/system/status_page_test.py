"""The status page in a real browser: what it says, how it fits, what it asks for."""

import signal

from browser import Browser
from host_fixture import wait_until
from status_test_case import StatusTestCase

OVERFLOWING = """
const width = document.documentElement.clientWidth;
const inside = (element) => element.closest('.scroll, .unseen') !== null;
return [document.documentElement.scrollWidth - width,
  ...[...document.querySelectorAll('body *')]
    .filter((element) => !inside(element) && element.getBoundingClientRect().right > width + 1)
    .map((element) => element.outerHTML.slice(0, 80))];
"""
THE_PAGE = """
return [location.href, document.readyState, document.visibilityState, document.body.innerText.slice(0, 300),
  performance.getEntriesByType('resource').map((entry) => [entry.name, entry.duration, entry.responseStatus])];
"""
WIDTHS = ((1280, 900), (768, 1024), (360, 740), (320, 600))


class StatusPageTest(StatusTestCase):
    def setUp(self):
        super().setUp()
        self.browser = Browser()
        self.addCleanup(self.browser.close)
        self.browser.resize(1280, 900)
        self.start_host()
        self.wait_for_status(lambda now: now["link"]["up"], "the link to be up")

    def open_page(self):
        self.browser.complaints()
        self.browser.requested()
        self.browser.open(f"{self.url}/")

    def wait_for_text(self, selector, text):
        try:
            wait_until(lambda: text in self.browser.text(selector), f"{text!r} in {selector}")
        except AssertionError as error:
            raise AssertionError(f"{error}; {self.browser.run(THE_PAGE)} {self.browser.complaints()}") from error

    def assert_nothing_overflows(self):
        for width, height in WIDTHS:
            for dark in (False, True):
                self.browser.resize(width, height, dark)
                overflow, *elements = self.browser.run(OVERFLOWING)
                self.assertEqual((overflow, elements), (0, []), f"at {width} pixels")

    def assert_kept_to_itself(self):
        self.assertEqual(self.browser.complaints(), [])
        requested = self.browser.requested()
        self.assertTrue(requested)
        self.assertEqual([url for url in requested if not url.startswith((f"{self.url}/", "data:"))], [])

    def test_a_fresh_host_says_what_to_do(self):
        self.open_page()
        self.wait_for_text("#summary", "no records yet")
        self.wait_for_text("#details", "No records have come in since the start. Try one: echo hello | qmsend")
        self.assertEqual(self.browser.text("#figure-held"), "0")
        self.assert_nothing_overflows()
        self.assert_kept_to_itself()

    def test_shows_an_outage_in_words_numbers_and_charts(self):
        away = self.take_link_down()
        self.send_records("low", 1150)
        self.send_records("real", 54)
        self.open_page()
        self.wait_for_text("#summary", "1,204 records held, oldest")
        self.assertTrue(self.browser.text("#summary").startswith("Link down for "))
        self.wait_for_text("#details", "The link is down: ")
        self.assertEqual(self.browser.text("#figure-held"), "1,204")
        rows = self.browser.text("#priorities").split("\n")
        self.assertEqual([row.split("\t") for row in rows], [
            ["Real-time", "54", "0", "0", "54"],
            ["High", "0", "0", "0", "0"],
            ["Normal", "0", "0", "0", "0"],
            ["Low", "1,150", "0", "0", "1,150"],
        ])
        self.wait_for_text("#chart-held .legend", "Low 1,150")
        self.wait_for_text("#shaded", "the link was down")
        self.assertGreater(self.browser.run("return document.querySelectorAll('#chart-rates .band').length"), 0)
        self.assert_nothing_overflows()
        self.bring_link_up(away)
        self.wait_for_text("#summary", "no records held")
        self.assertTrue(self.browser.text("#summary").startswith("Link up for "))
        self.wait_for_text("#priorities-sum", "1,204\t1,204\t0\t0")
        self.assert_kept_to_itself()

    def test_every_picture_has_words_and_a_table(self):
        self.send_records("high", 12)
        self.open_page()
        self.wait_for_text("#chart-held .legend", "High")
        wait_until(lambda: len(self.pictures()) == 3, "three pictures")
        for words in ("Records a second over the last 10 min: Coming in", "Held records by priority over the last 10 min:",
                      "Size of the cache files over the last 10 min:"):
            self.assertTrue(any(name.startswith(words) for name in self.pictures()), (words, self.pictures()))
        self.assertEqual(len(self.browser.accessible_names("heading")), 9)
        for chart in ("rates", "held", "sizes"):
            self.browser.run(f"document.querySelector('#chart-{chart} summary').click()")
            self.wait_for_text(f"#chart-{chart} tbody", "now")
        self.assert_nothing_overflows()

    def pictures(self):
        return [name for name in self.browser.accessible_names("image") if name]

    def test_the_day_can_be_chosen_with_the_keyboard(self):
        self.open_page()
        self.wait_for_text("#chart-rates svg", "10 min ago")
        self.browser.run("document.querySelector('input[name=span]').focus()")
        self.browser.press("\ue014")  # the right arrow
        self.wait_for_text("#chart-rates svg", "24 h ago")
        self.assert_kept_to_itself()

    def test_a_page_that_is_come_back_to_shows_the_span_that_is_chosen(self):
        self.open_page()
        self.wait_for_text("#chart-rates svg", "10 min ago")
        self.browser.run("document.querySelector('input[value=\"?span=day\"]').click()")
        self.wait_for_text("#chart-rates svg", "24 h ago")
        self.browser.run("location.href = '/metrics'")
        wait_until(lambda: "qmhost_link_up" in self.browser.text("body"), "another page")
        self.browser.run("history.back()")
        self.wait_for_text("#chart-rates svg", "ago")
        chosen = self.browser.run("return document.querySelector('input[name=span]:checked').value")
        self.wait_for_text("#chart-rates svg", "24 h ago" if chosen else "10 min ago")

    def test_a_screen_reader_hears_of_changes_and_not_of_seconds(self):
        self.open_page()
        self.wait_for_text("#spoken", "Link up")
        self.browser.run(
            "window.spoken = []; new MutationObserver(() => window.spoken.push(document.querySelector('#spoken').textContent))"
            ".observe(document.querySelector('#spoken'), {childList: true, characterData: true, subtree: true});"
        )
        before = self.browser.text("#summary")
        wait_until(lambda: self.browser.text("#summary") != before, "the seconds to pass")
        self.take_link_down()
        self.wait_for_text("#summary", "Link down")
        spoken = self.browser.run("return window.spoken")
        self.assertEqual(len(spoken), 1, spoken)
        self.assertTrue(spoken[0].startswith("Link down"), spoken)

    def test_says_when_the_host_does_not_answer(self):
        self.send_records("low", 3)
        self.open_page()
        self.wait_for_text("#figure-held", "0")
        self.host.send_signal(signal.SIGSTOP)
        try:
            wait_until(lambda: self.browser.text("#silence"), "the page to tell of the silence")
            self.assertRegex(self.browser.text("#silence"),
                             r"^No answer from qmhost for \d+ s; figures are from \d\d:\d\d:\d\d\.$")
            self.assertIn("Link up", self.browser.text("#summary"))
        finally:
            self.host.send_signal(signal.SIGCONT)
        wait_until(lambda: not self.browser.text("#silence"), "the page to have answers again")
