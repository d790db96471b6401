#!/usr/bin/python3
"""The collector's page in a real headless Chromium, with the SDK's example host sending.

usage: page_test.py NORV_COLLECTOR NORV_EXAMPLE_HOST
"""
import os
import re
import subprocess
import sys
import tempfile
import threading
import unittest
import urllib.error
import urllib.request

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

COLLECTOR, HOST = sys.argv[1], sys.argv[2]


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.TemporaryDirectory()
        cls.collector = subprocess.Popen(
            [COLLECTOR, "serve", "--port", "0", "--db", os.path.join(cls.work.name, "c.sqlite")],
            stdout=subprocess.PIPE, text=True)
        cls.url = re.search(r"http://[\d.:]+", cls.collector.stdout.readline()).group(0)
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage"):
            options.add_argument(argument)
        cls.browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()
        cls.collector.terminate()
        cls.collector.wait()
        cls.collector.stdout.close()
        cls.work.cleanup()

    def open_live(self, query=""):
        self.browser.get(self.url + "/" + query)
        self.until(lambda: self.text("live") == "live" and self.text("next"))

    def until(self, condition):
        return WebDriverWait(self.browser, 15).until(lambda _: condition())

    def text(self, element_id):
        return self.browser.find_element(By.ID, element_id).text

    def rows(self):
        return [row.text for row in self.browser.find_elements(By.CSS_SELECTOR, "#rows tr.event")]

    def post(self, body, headers={}):
        """The status the event was answered with."""
        try:
            request = urllib.request.Request(self.url + "/api/v3/saveEvent", body.encode(), headers)
            return urllib.request.urlopen(request).status
        except urllib.error.HTTPError as error:
            return error.code

    def control(self, path, body):
        request = urllib.request.Request(self.url + path, body.encode(), {"Content-Type": "application/json"})
        urllib.request.urlopen(request).read()

    def cells(self, selector):
        return [cell.text for cell in self.browser.find_elements(By.CSS_SELECTOR, selector)]

    def counts(self):
        # Read in one step: the page rebuilds the table as events arrive.
        return dict(self.browser.execute_script(
            "return [...document.querySelectorAll('#counts tr:not(.zero)')]"
            ".map((row) => [row.cells[0].textContent, row.cells[1].textContent])"))

    def run_host(self):
        environment = dict(os.environ, XDG_DATA_HOME=os.path.join(self.work.name, "data"))
        return subprocess.run(
            [HOST, "--url", self.url + "/api/v3/saveEvent", "--events", "app-open", "--wait", "1"],
            env=environment, capture_output=True, text=True, timeout=60, check=True).stdout

    def test_events_from_the_sdk_appear_without_a_reload(self):
        self.open_live()
        before = len(self.rows())
        self.run_host()
        rows = self.until(lambda: self.rows() if len(self.rows()) >= before + 2 else None)
        self.assertRegex(rows[0], r"Page Open\s*7\s+Dashboard\s")
        self.assertRegex(rows[1], r"App Open\s*2\s+open\s")
        # Loaded afresh, the page shows the same rows, newest first, each once.
        self.open_live()
        self.until(lambda: self.rows() == rows)

    def test_a_list_that_follows_prints_an_event_that_arrives_after_it_starts(self):
        follow = subprocess.Popen([COLLECTOR, "list", "--follow", "--db", os.path.join(self.work.name, "c.sqlite"),
                                   "--type", "Page Open"], stdout=subprocess.PIPE, text=True)
        timer = threading.Timer(15, follow.kill)
        timer.start()
        try:
            self.assertTrue(follow.stdout.readline().startswith("ID "))
            self.post("type=7&pageName=Followed&device_uuid=FOLLOW")
            self.post("type=2&username=NotAPage&device_uuid=FOLLOW")
            line = next((line for line in follow.stdout if "FOLLOW" in line), "")
            self.assertIn("Followed", line)
        finally:
            timer.cancel()
            follow.kill()
            follow.wait()

    def test_rows_tell_events_apart_and_an_opened_row_shows_each_pair_once(self):
        for body in ("type=7&pageName=Caf%C3%A9&device_uuid=GLANCE-1",
                     "type=15&parameters=user=bob&error=wrong password&device_uuid=GLANCE-1",
                     "type=23&deviceCustomName=Till 3&device_uuid=GLANCE-1",
                     "type=23&deviceCustomName=Other&device_uuid=ELSEWHERE"):
            self.post(body)
        self.open_live("?device=GLANCE")
        self.until(lambda: len(self.rows()) == 3)
        self.assertEqual(self.cells("#rows td.summary"), ["Till 3", "wrong password · user=bob", "Café"])
        self.assertEqual(self.cells("#rows td.type"), ["Device custom name 23", "User can not login 15", "Page Open 7"])
        self.browser.find_elements(By.CSS_SELECTOR, "#rows tr.event")[2].click()
        keys = self.cells("#rows tr.body td.key")
        self.assertEqual(keys, ["type", "pageName", "device_uuid", "answer"])
        # The text as sent stands beside a value only where decoding changed it.
        self.assertEqual(self.cells("#rows tr.body td.sent"), ["", "Caf%C3%A9", "", ""])
        self.assertEqual(self.cells("#rows tr.body td.value")[1], "Café")
        # The counts are those of the filtered view, and the type filter offers every type the
        # SDK sends, received or not.
        self.until(lambda: self.counts().get("All events") == "3")
        self.assertEqual(self.counts().get("Device custom name"), "1")
        options = self.cells("#type option")
        self.assertIn("Location service status (18)", options)
        self.assertIn("Onesignal player id (22)", options)
        self.assertEqual(len(options), 18)

    def test_counts_chart_and_download_follow_live_events_and_the_filters(self):
        self.open_live("?device=CHART")
        self.control("/control/refuse", '{"status": 503, "count": 1}')
        self.assertEqual(self.post("type=7&pageName=Refused&device_uuid=CHART"), 503)
        self.post("type=7&pageName=Kept&device_uuid=CHART")
        self.post("type=7&pageName=Elsewhere&device_uuid=OTHER")
        self.until(lambda: len(self.rows()) == 2 and self.counts().get("All events") == "2")
        self.assertEqual(self.counts().get("Answered 503"), "1")
        self.assertEqual(self.counts().get("Answered 200"), "1")
        self.until(lambda: self.browser.find_elements(By.CSS_SELECTOR, "#rate rect.refused"))
        self.assertGreaterEqual(len(self.browser.find_elements(By.CSS_SELECTOR, "#rate rect:not(.refused)")), 1)
        link = self.browser.find_element(By.ID, "exportCsv").get_attribute("href")
        self.assertEqual(link, self.url + "/api/export?device=CHART&format=csv")

    def test_repeats_of_an_idempotency_key_are_counted_live(self):
        self.open_live()
        before = int(self.text("repeats").split()[0])
        key = {"Idempotency-Key": '"page-test-1"'}
        for _ in range(3):
            self.assertEqual(self.post("type=7&pageName=Once&device_uuid=REPEATS", key), 200)
        self.until(lambda: self.text("repeats").startswith(f"{before + 2} repeat(s) absorbed"))

    def test_beyond_loopback_the_page_asks_for_the_token_once_and_keeps_it_in_the_tab(self):
        token = "team-token-0123456789"
        token_file = os.path.join(self.work.name, "token")
        with open(token_file, "w") as file:
            file.write(token + "\n")
        team = subprocess.Popen(
            [COLLECTOR, "serve", "--host", "0.0.0.0", "--port", "0", "--token-file", token_file,
             "--db", os.path.join(self.work.name, "team.sqlite")], stdout=subprocess.PIPE, text=True)
        try:
            url = "http://127.0.0.1:" + re.search(r":(\d+)", team.stdout.readline()).group(1)
            self.browser.get(url + "/")
            self.until(lambda: self.text("live") == "live" and self.text("next"))
            ask = self.browser.find_element(By.ID, "tokenAsk")
            self.assertTrue(ask.is_displayed())
            self.browser.find_element(By.ID, "token").send_keys("not-the-token-0123456789")
            self.browser.find_element(By.ID, "analytics").click()
            self.browser.find_element(By.CSS_SELECTOR, "#steer button").click()
            self.until(lambda: "control requests need the collector's token" in self.text("controlError"))
            self.assertTrue(ask.is_displayed())
            self.browser.find_element(By.ID, "token").clear()
            self.browser.find_element(By.ID, "token").send_keys(token)
            self.browser.find_element(By.CSS_SELECTOR, "#steer button").click()
            self.until(lambda: '"analytics_enabled":false' in self.text("next") and not ask.is_displayed())
            # Loaded again in the same tab, the page steers without asking.
            self.browser.get(url + "/")
            self.until(lambda: self.text("live") == "live" and self.text("next"))
            self.assertFalse(self.browser.find_element(By.ID, "tokenAsk").is_displayed())
            self.browser.find_element(By.CSS_SELECTOR, "#refuse button").click()
            self.until(lambda: self.text("pending").startswith("1 refusal(s) pending"))
        finally:
            team.terminate()
            team.wait()
            team.stdout.close()

    def test_steering_in_the_page_changes_the_next_app_open_answer(self):
        self.open_live()
        self.assertTrue(self.browser.find_element(By.ID, "analytics").is_selected())
        self.browser.find_element(By.ID, "analytics").click()
        self.browser.find_element(By.CSS_SELECTOR, "#steer button").click()
        # Runs last (unittest sorts by name), so leaving collection off harms no other test.
        self.until(lambda: '"analytics_enabled":false' in self.text("next"))

    def test_a_hostile_page_name_shows_as_text(self):
        hostile = "<img src=x onerror=\"document.title='owned'\"><script>document.title='owned'</script>"
        urllib.request.urlopen(self.url + "/api/v3/saveEvent", ("type=7&pageName=" + hostile).encode())
        # The filter in the address leaves only this event.
        self.open_live("?q=onerror")
        self.until(lambda: len(self.rows()) == 1)
        self.browser.find_element(By.CSS_SELECTOR, "#rows tr.event").click()
        cells = self.browser.find_elements(By.CSS_SELECTOR, "#rows tr.body td td")
        self.assertIn(hostile, [cell.text for cell in cells])
        self.assertEqual(self.browser.find_elements(By.CSS_SELECTOR, "#rows img, #rows script"), [])
        self.assertEqual(self.browser.title, "norv-collector")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
