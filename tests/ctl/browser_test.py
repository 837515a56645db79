#!/usr/bin/env python3
"""The page in a browser without a window: what it shows, that it connects to nothing, that hostile texts stay
texts, that it can be used by keyboard and by a screen reader. "make test-page" runs it.

Usage: browser_test.py KEYVIEWCTL EXAMPLE SCHEMAS BUILD [PICTURES]

The rules of accessibility come from the registry of npm, in a fixed version, into BUILD. With PICTURES, a
folder, pictures of the page are written there.
"""
import base64, hashlib, io, json, os, re, subprocess, sys, tarfile, unittest, urllib.request

from selenium import webdriver
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.support.ui import Select, WebDriverWait

import hostile
from page_test import TOOL, Administrator, escaped

BUILD, PICTURES = sys.argv[4], (sys.argv[5:] or [None])[0]
AXE = "https://registry.npmjs.org/axe-core/-/axe-core-4.14.1.tgz"
AXE_SHA512 = "FHfa+lmNjQZfJz1q8wKqIDwC6DExcHt/pkjNQb09a3NPjCKg2rhu5qb2S4r76ASyFNNtuFooJpZe37OgudVGtQ=="


def rules_of_accessibility():
    file = os.path.join(BUILD, "axe-core-4.14.1.tgz")
    if not os.path.exists(file):
        with urllib.request.urlopen(AXE, timeout=60) as answer, open(file + ".new", "wb") as out:
            out.write(answer.read())
        os.rename(file + ".new", file)
    with open(file, "rb") as archive:
        packed = archive.read()
    if base64.b64encode(hashlib.sha512(packed).digest()).decode() != AXE_SHA512:
        os.remove(file)
        raise ValueError(AXE + " is not what it was")
    with tarfile.open(fileobj=io.BytesIO(packed)) as archive:
        return archive.extractfile("package/axe.min.js").read().decode()


def large_document():
    databases = []
    for number in range(1000):
        name = "db%04d" % number
        instances = [{"name": name + str(n), "node": "node%d" % ((number + n) % 40), "enabled": True} for n in range(4)]
        services = [{"name": "service%d.%s" % (n, name), "enabled": number % 7 > 0, "preferred": [{"name": name + "0", "enabled": True}],
                     "available": [{"name": name + "1", "enabled": False}]} for n in range(3)]
        databases.append({"name": name, "enabled": number % 10 > 0, "instances": instances, "services": services})
    return {"format": "keyview-cluster", "version": 1, "databases": databases}


class Browser(Administrator):
    @classmethod
    def setUpClass(cls):
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for word in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--window-size=1200,900"):
            options.add_argument(word)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
        cls.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        cls.axe = rules_of_accessibility()

    @classmethod
    def tearDownClass(cls):
        cls.driver.quit()

    def setUp(self):
        super().setUp()
        self.colours("light")

    # What a test left behind: a message of the page, or a request for anything but its file.
    def tearDown(self):
        self.assertEqual(self.driver.get_log("browser"), [])
        requests = {json.loads(one["message"])["message"]["params"].get("request", {}).get("url", "") for one in
                 self.driver.get_log("performance") if "Network.requestWillBeSent\"" in one["message"]}
        self.assertTrue(any(url.startswith(("file://", "http://")) for url in requests), "what the page requests is recorded")
        self.assertEqual({url for url in requests if not self.expected(url)}, set())

    served = "http://none/"

    def expected(self, url):
        return url.startswith(self.served) or url.split("#")[0] in ("", "data:,", "file://" + self.path("page.html"), "file://" + self.path("sales.svg"))

    def colours(self, scheme, media=""):
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia",
                                    {"media": media, "features": [{"name": "prefers-color-scheme", "value": scheme}]})

    def open(self, view=""):
        self.good("report", self.path("page.html"))
        self.driver.get("about:blank")
        self.driver.get("file://%s#%s" % (self.path("page.html"), view))

    def go(self, view):
        self.driver.execute_script("location.hash = arguments[0]", view)
        WebDriverWait(self.driver, 10).until(lambda driver: driver.execute_script("return document.activeElement.id") == "content")

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def one(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def texts(self, selector):
        return self.driver.execute_script(
            "return [...document.querySelectorAll(arguments[0])].map((one) => one.textContent)", selector)

    def picture(self, name):
        if PICTURES:
            self.driver.execute_script("const made = document.getElementById('made');"
                                       "made.textContent = made.textContent.replace(/lmdb:[^,]*/, 'lmdb:/var/lib/keyview')")
            self.driver.save_screenshot(os.path.join(PICTURES, name))

    def assert_accessible(self):
        self.driver.execute_script(self.axe)
        found = self.driver.execute_async_script("axe.run().then(arguments[0])")
        self.assertGreater(len(found["passes"]), 10)
        self.assertEqual([(one["id"], [node["html"][:200] for node in one["nodes"]]) for one in found["violations"]
                          if one["impact"] in ("serious", "critical")], [])


class ReportInABrowser(Browser):
    def test_it_sorts_and_filters_by_mouse_and_keyboard(self):
        self.open()
        names = "tbody th"
        self.assertEqual(self.texts(names), ["ledger", "Sales", "SalesStandby", "sandbox"])
        self.assertEqual(self.driver.title, "Databases of the cluster")
        self.one("#sort-database").click()
        self.assertEqual(self.texts(names), ["sandbox", "SalesStandby", "Sales", "ledger"])
        self.assertEqual(self.one("#sort-database").find_element(By.XPATH, "..").get_attribute("aria-sort"), "descending")
        self.one("#sort-state").send_keys(Keys.ENTER)
        self.assertEqual(self.texts(names)[0], "sandbox")
        self.assertEqual(self.driver.switch_to.active_element.get_attribute("id"), "sort-state")
        self.one("#filter").send_keys("node5")
        self.assertEqual(self.texts(names), ["ledger", "SalesStandby"])
        self.assertEqual(self.texts("main [role=status]"), ["2 databases"])
        self.one("#filter").send_keys(" primary")
        self.assertEqual(self.texts(names), ["ledger"])
        self.one("#filter").clear()
        self.one("#filter").send_keys(Keys.SPACE)
        Select(self.one("#shown")).select_by_visible_text("Disabled")
        self.assertEqual(self.texts(names), ["sandbox"])

    def test_the_map_shows_what_runs_where(self):
        self.open("map")
        self.assertEqual(self.texts("thead th"), ["Database or service"] + ["node%d" % n for n in range(1, 9)])
        services = [each for one in json.loads(self.good("export"))["databases"] for each in one["services"]]
        for kind in ("preferred", "available"):
            for enabled in (True, False):
                marks = self.all("td svg[aria-label='%s, %s']" % (kind, "enabled" if enabled else "disabled"))
                self.assertEqual(len(marks), sum(place["enabled"] == enabled for each in services for place in each[kind]))
        self.picture("report.png")
        self.colours("dark")
        self.picture("report-dark.png")

    def test_a_database_and_the_findings_have_pages(self):
        self.store("DATABASE.DATABASES.sales.ROLE", b"MASTER\0")
        self.open()
        self.driver.find_element(By.LINK_TEXT, "Sales").click()
        self.assertEqual(self.texts("h2"), ["Database Sales"])
        self.assertIn("1 finding", self.texts("h3"))
        self.assertEqual(self.driver.switch_to.active_element.get_attribute("id"), "content")
        self.driver.back()
        self.assertEqual(self.texts("h2"), ["Databases"])
        self.go("findings")
        self.assertEqual(self.texts("tbody th"), ["DATABASE.DATABASES.sales.ROLE"])
        self.assertEqual(self.texts("nav [aria-current]"), ["Findings"])

    def test_hostile_texts_stay_texts(self):
        self.good("apply", "-", stdin=json.dumps(hostile.document()).encode())
        names = [escaped(one["name"]) for one in hostile.document()["databases"]]
        self.open()
        self.assertLessEqual(set(names), set(self.texts("tbody th")))
        links = self.driver.execute_script("return [...document.querySelectorAll('tbody a')].map((one) => one.hash)")
        for address in ["#map", "#findings", *links]:
            self.go(address)
            self.assertEqual(self.all("main img, main script, main style, main iframe, main [onload], main [onerror]"), [])
            self.assertIsNone(self.driver.execute_script("return window.taken"))
            if address.startswith("#database"):
                self.assertIn(self.texts("h2")[0][len("Database "):], names + ["ledger", "Sales", "SalesStandby", "sandbox"])
        self.go("map")
        self.assert_accessible()

    def test_a_thousand_databases_open_at_once_and_print_whole(self):
        self.good("apply", "-", "--yes", stdin=json.dumps(large_document()).encode())
        self.open()
        took = self.driver.execute_script("const one = performance.getEntriesByType('navigation')[0];"
                                          "return one.domContentLoadedEventEnd - one.responseEnd")
        print("a thousand databases: shown after %d ms" % took, file=sys.stderr)
        self.assertLess(took, 2000)
        self.assertEqual(self.texts("main [role=status]"), ["1,004 databases; 1 to 50 are shown"])
        self.all(".pager button")[1].click()
        self.assertEqual(len(self.all("tbody tr")), 50)
        for view in ("databases", "map"):
            self.go(view)
            self.driver.execute_script("dispatchEvent(new Event('beforeprint'))")
            self.assertGreater(len(self.all("tbody tr")), 1003)
            self.driver.execute_script("dispatchEvent(new Event('afterprint'))")
        self.go("databases")
        printed = base64.b64decode(self.driver.execute_cdp_cmd("Page.printToPDF", {})["data"])
        self.assertGreater(printed.count(b"/Type /Page\n") + printed.count(b"/Type /Page/"), 10)
        self.one("#filter").send_keys("node7 db0123")
        self.assertEqual(self.texts("tbody th"), [])

    def test_it_is_accessible_in_light_and_dark(self):
        self.store("DATABASE.DATABASES.sales.ROLE", b"MASTER\0")
        self.store("DATABASE.DATABASES.broken", b"")
        self.good("report", self.path("page.html"), code=8)
        for scheme in ("light", "dark"):
            self.colours(scheme)
            self.driver.get("about:blank")
            self.driver.get("file://" + self.path("page.html"))
            for view in ("map", "findings", "database/DATABASE.DATABASES.sales", "databases"):
                with self.subTest(view, scheme=scheme):
                    self.go(view)
                    self.assert_accessible()

    def test_a_served_page_is_live(self):
        server = subprocess.Popen([TOOL, "serve", "--listen", "127.0.0.1:0"], env=self.env, stderr=subprocess.PIPE, text=True)
        try:
            self.served = re.search(r"http://\S+/", server.stderr.readline())[0]
            self.driver.get(self.served)
            state = "return document.getElementById('state').textContent"
            WebDriverWait(self.driver, 10).until(lambda driver: driver.execute_script(state) == "live")
            self.one("#filter").send_keys("ledger")
            self.assertEqual(self.texts("tbody td:nth-child(2)"), ["enabled"])
            self.good("disable", "ledger")
            WebDriverWait(self.driver, 10).until(lambda _: self.texts("tbody td:nth-child(2)") == ["disabled"])
            self.assertEqual(self.one("#filter").get_attribute("value"), "ledger")
            self.assert_accessible()
            self.driver.get("about:blank")
        finally:
            server.terminate()
            self.assertEqual(server.wait(20), 0)
            server.stderr.close()

    def test_a_picture_follows_light_and_dark(self):
        self.written("sales.svg", self.good("graph", "sales"))
        self.driver.get("file://" + self.path("sales.svg"))
        back = "return getComputedStyle(document.querySelector('rect')).fill"
        seen = [self.driver.execute_script(back)]
        self.colours("dark")
        seen.append(self.driver.execute_script(back))
        self.assertEqual(seen, ["rgb(255, 255, 255)", "rgb(18, 22, 27)"])
        self.assertEqual(len(self.all("g.off")), 2, "one of the example, one of the legend")


del Browser, Administrator
if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
