#!/usr/bin/python3
"""The collector's page in a real headless Chromium, with the SDK's example host sending.

usage: page_test.py NORV_COLLECTOR NORV_EXAMPLE_HOST
"""
import os
import re
import subprocess
import sys
import tempfile
import unittest
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
        self.assertIn("Page Open (7)", rows[0])
        self.assertIn("App Open (2)", rows[1])
        # Loaded afresh, the page shows the same rows, newest first, each once.
        self.open_live()
        self.until(lambda: self.rows() == rows)

    def test_steering_in_the_page_changes_the_next_app_open_answer(self):
        self.open_live()
        self.assertTrue(self.browser.find_element(By.ID, "analytics").is_selected())
        self.browser.find_element(By.ID, "analytics").click()
        self.browser.find_element(By.CSS_SELECTOR, "#steer button").click()
        self.until(lambda: '"analytics_enabled":false' in self.text("next"))
        # Runs last (unittest sorts by name), so leaving collection off harms no other test.
        self.assertIn("collection is off", self.run_host())

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
