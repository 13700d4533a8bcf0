"""The page of serve in a real browser: what it shows, and how a hand is moved from it.

With KORVANE_PICTURES, a folder, the pictures of docs/serve.md are made there.
"""

import os
import pathlib
import shutil

import pytest
from conftest import LIMIT
from simulator import MODELS
from test_serve import Site, updated  # noqa: F401  a fixture

webdriver = pytest.importorskip("selenium.webdriver", reason="the page is tried where python3-selenium is installed")
if not shutil.which("chromium") or not shutil.which("chromedriver"):
    pytest.skip("the page is tried where chromium and chromium-driver are installed", allow_module_level=True)

from selenium.webdriver.chrome.service import Service  # noqa: E402  where it is there at all
from selenium.webdriver.common.action_chains import ActionChains  # noqa: E402
from selenium.webdriver.support.wait import WebDriverWait  # noqa: E402

SPACE = "\ue00d"
PICTURES = os.environ.get("KORVANE_PICTURES")


class Browser:
    def __init__(self):
        options = webdriver.ChromeOptions()
        options.binary_location = shutil.which("chromium")
        for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        service = Service(shutil.which("chromedriver"))
        self.driver = webdriver.Chrome(service=service, options=options)

    def look_at(self, url, width=1280, height=900, scheme="light"):
        screen = {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 500}
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", screen)
        media = [{"name": "prefers-color-scheme", "value": scheme}]
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": media})
        self.driver.get("about:blank")  # the page before may still complain of its server, which has gone
        self.driver.get_log("browser")
        self.driver.get(url)
        self.wait("return document.querySelectorAll('.link dd').length > 0")

    def run(self, script):
        return self.driver.execute_script(script)

    def wait(self, script):
        waiting = WebDriverWait(self.driver, LIMIT, 0.05)
        return waiting.until(lambda driver: driver.execute_script(script), script)

    def wait_with_held_key(self, script):
        """The page lets go of the switch when a busy server refuses a request: pressed once more then."""
        def look(driver):
            if driver.execute_script(f"return {PRESSED}") == "true":
                return driver.execute_script(script)
            self.keys().key_up(SPACE).key_down(SPACE).perform()

        WebDriverWait(self.driver, LIMIT, 0.05).until(look, script)

    def text(self, selector):
        return self.run(f"return document.querySelector({selector!r}).textContent")

    def wait_for_text(self, selector, text):
        self.wait(f"return document.querySelector({selector!r}).textContent.includes({text!r})")

    def complaints(self):
        return [line["message"] for line in self.driver.get_log("browser")]

    def keys(self):
        return ActionChains(self.driver)

    def find(self, selector):
        return self.driver.find_element("css selector", selector)


@pytest.fixture(scope="module")
def browser():
    made = Browser()
    yield made
    made.driver.quit()


@pytest.fixture
def serve():
    sites = []

    def start(sim, *options, **more):
        sites.append(Site(sim, *options, **more))
        return sites[-1]

    yield start
    for site in sites:
        site.end()


ANGLE = ("parseFloat([...document.querySelectorAll('.joints tr')]"
         ".find(r => r.textContent.includes('index flexion')).lastChild.textContent)")
TOUCH = "[...document.querySelectorAll('figcaption span')].reduce((sum, s) => sum + Number(s.textContent), 0)"
PRESSED = "document.querySelector('.hold').getAttribute('aria-pressed')"


def test_the_page_shows_every_model_and_only_shows(sim, serve, browser):
    site = serve(sim, *[word for model in MODELS for word in ("-H", sim.address("zlg", model))])
    browser.look_at(site.url)
    browser.wait("return [...document.querySelectorAll('.state')].filter(s => s.textContent === 'live').length === 5")
    assert browser.text("#connection") == "Connected"
    rows = "return [...document.querySelectorAll('.hand')].map(h => h.querySelectorAll('.motors tbody tr').length)"
    assert browser.run(rows) == [10, 12, 10, 4, 20]
    assert browser.run("""return [...document.querySelectorAll('.figure')].every(
        c => c.getContext('2d').getImageData(0, 0, c.width, c.height).data.some(Boolean))""")
    assert browser.run("return [...document.querySelectorAll('.control')].every(c => c.hidden)")
    unnamed = """return [...document.querySelectorAll('canvas, input, button, select')].filter(
        e => !e.getAttribute('aria-label') && !e.textContent && !e.closest('label')).length"""
    assert browser.run(unnamed) == 0
    assert browser.complaints() == []


def test_the_hand_moves_on_the_page_while_the_switch_is_held(sim, serve, browser):
    address = sim.address("zlg")
    assert sim.korvane("move", "-H", address, "--gesture", "0").status == 0
    site = serve(sim, "-H", address, "--allow-control")
    browser.look_at(site.url)
    browser.wait(f"return {ANGLE} < 0.1 && document.querySelectorAll('figcaption').length === 7")
    browser.run("""window.jumps = [];
        new PerformanceObserver(list => jumps.push(...list.getEntries().map(entry => entry.value)))
            .observe({type: 'layout-shift'})""")
    before = browser.run(f"return [document.querySelector('.figure').toDataURL(), {TOUCH}]")
    browser.find(".take").click()
    browser.wait_for_text(".owner", "You control this hand")
    browser.run("document.querySelector('.mode').value = '5'; document.querySelector('.hold').focus()")
    browser.keys().key_down(SPACE).perform()
    browser.wait_with_held_key(f"return {ANGLE} > 0.3")
    has_moved = f"document.querySelector('.figure').toDataURL() !== {before[0]!r}"
    browser.wait_with_held_key(f"return {TOUCH} > {before[1]} && {has_moved}")
    # Another window comes to the front.
    browser.run("window.dispatchEvent(new Event('blur'))")
    assert browser.run(f"return {PRESSED}") == "false"
    stopped = site.event(lambda e: e["control"]["target"] is None)["angles"][6]
    assert site.event()["angles"][6] == pytest.approx(stopped, abs=0.1)
    browser.keys().key_up(SPACE).perform()
    # A slider goes by its own limits; the hand follows while the switch is held, by the mouse too.
    browser.run("""const label = [...document.querySelectorAll('.sliders label')]
            .find(l => l.textContent.includes('index flexion'));
        const slider = label.querySelector('input');
        slider.value = 99;
        slider.dispatchEvent(new Event('input'))""")
    browser.keys().click_and_hold(browser.find(".hold")).perform()
    browser.wait(f"return {ANGLE} > 1.45")
    browser.keys().release().perform()
    site.event(lambda e: e["control"]["target"] is None)
    # Numbers that get longer count a little.
    assert sum(browser.run("return window.jumps")) < 0.01 and browser.complaints() == []
    browser.find(".take").click()
    site.event(lambda e: e["control"]["owner"] is None)
    # Somebody else has it now.
    owner = site.post("1/control", {"action": "take"})[1]["owner"]
    browser.wait_for_text(".owner", f"Browser {owner} controls this hand")
    assert not browser.find(".take").is_enabled() and not browser.find(".hold").is_enabled()


#: Notes when requests that move or stop begin and end. The first one ends when `fail` is called, and fails.
SLOW_SERVER = """
  window.notes = [];
  const fetchNow = window.fetch;
  window.fetch = async (path, options) => {
    const what = path.split('/').pop();
    if (what !== 'move' && what !== 'stop') return fetchNow(path, options);
    notes.push(what + ' begins');
    try {
      if (!window.fail) await new Promise((_, fail) => { window.fail = () => fail(new TypeError('lost')); });
      return await fetchNow(path, options);
    } finally {
      notes.push(what + ' ends');
    }
  };
"""


def test_a_press_of_the_switch_ends_before_the_next_one_begins(sim, serve, browser):
    browser.look_at(serve(sim, "-H", sim.address("zlg"), "--allow-control").url)
    browser.wait("return !document.querySelector('.take').disabled")
    browser.find(".take").click()
    browser.wait_for_text(".owner", "You control this hand")
    # Nothing to go to is told, and stays told.
    browser.run("document.querySelector('.hold').focus()")
    browser.keys().key_down(SPACE).key_up(SPACE).perform()
    browser.wait_for_text(".trouble", "Move a slider first")
    browser.run(SLOW_SERVER)
    browser.run("document.querySelector('.mode').value = '5'")
    browser.keys().key_down(SPACE).perform()
    browser.wait("return window.notes.length > 0")
    browser.keys().key_up(SPACE).key_down(SPACE).perform()
    browser.run("window.fail()")
    browser.wait("return window.notes.length > 5")
    browser.keys().key_up(SPACE).perform()
    browser.wait("return window.notes[window.notes.length - 1] === 'stop ends'")
    notes = browser.run("return window.notes")
    assert notes[:5] == ["move begins", "move ends", "stop begins", "stop ends", "move begins"]
    assert [note.replace("begins", "ends") for note in notes[::2]] == notes[1::2]
    assert browser.run(f"return {PRESSED}") == "false"


def test_an_update_by_another_program_is_shown(updated, serve, browser):  # noqa: F811
    sim, update = updated
    browser.look_at(serve(sim, "-H", sim.address("zlg")).url)
    process = update()
    browser.wait("return document.querySelector('progress').value > 10")
    assert browser.text(".state") == "updating" and "of 40 packets" in browser.text(".update")
    process.communicate(timeout=LIMIT)
    browser.wait_for_text(".identity", "1.1.0")
    assert not browser.find(".update").is_displayed() and browser.complaints() == []


def test_a_hand_that_goes_and_a_server_that_ends_are_told(make_sim, serve, browser):
    sim = make_sim("--serial-unplug-after=700", "--serial-replug-ms=3000")
    site = serve(sim, "-H", sim.address("serial"))
    browser.look_at(site.url)
    browser.wait_for_text(".state", "gone")
    browser.wait_for_text(".trouble", "No answer")
    browser.wait_for_text("#news", "is gone")
    browser.run("window.fetch = () => Promise.reject(new TypeError('no server any more'))")
    browser.wait_for_text(".state", "live")
    browser.wait_for_text("#news", "is back")
    assert browser.text(".trouble") == "" and browser.complaints() == []
    assert site.end()[0] == 0
    browser.wait_for_text("#connection", "is lost")


def test_a_page_is_loaded_anew_when_the_server_has_other_hands(sim, serve, browser):
    site = serve(sim, "-H", sim.address("zlg", "lumen", 4))
    browser.look_at(site.url)
    browser.wait_for_text(".hand", "KorvaneLumen")
    site.end()
    serve(sim, "-H", sim.address("zlg"), port=site.port)
    browser.wait("return document.querySelector('.hand')?.textContent.includes('KorvaneBrisa')")
    browser.wait_for_text("#connection", "Connected")


def test_a_browser_is_let_in_by_the_token_and_forgets_it(sim, serve, browser):
    site = serve(sim, "-H", sim.address("zlg"), "--bind", "127.0.0.1")
    browser.look_at(site.url)
    assert browser.driver.current_url == f"http://{site.netloc}/" and browser.complaints() == []
    browser.look_at(f"http://{site.netloc}/")
    assert browser.run("return document.cookie") == ""


@pytest.mark.parametrize("width, height", [(360, 1900), (1920, 800)])
@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_nothing_is_wider_than_the_screen(sim, serve, browser, width, height, scheme):
    address = sim.address("zlg")
    assert sim.korvane("move", "-H", address, "--gesture", "3").status == 0
    site = serve(sim, "-H", address, "--allow-control")
    browser.look_at(site.url, width, height, scheme)
    browser.wait("return document.querySelectorAll('figcaption').length === 7")
    too_wide = """return [...document.querySelectorAll('main *')]
        .filter(e => e.getBoundingClientRect().right > innerWidth).map(e => e.className)"""
    assert browser.run(too_wide) == []
    if PICTURES:
        browser.wait("return Number(document.querySelectorAll('.link dd')[1].textContent.split(' ')[2]) > 900")
        browser.driver.save_screenshot(str(pathlib.Path(PICTURES) / f"serve-{width}-{scheme}.png"))
