"""The page of a report as its reader uses it, in a browser without a screen."""
import csv
import json
import math
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

import numpy as np
from PIL import Image

import velostrix

os.environ.pop("LD_PRELOAD", None)  # a sanitizer's, which was for this interpreter
PROGRAM = pathlib.Path(sys.argv.pop()).resolve()
SIZE = (96, 72)  # of the pictures, which a page of this size shows whole

try:
    from selenium import webdriver
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.ui import Select
    BROWSER, DRIVER = shutil.which("chromium"), shutil.which("chromedriver")
except ImportError:
    BROWSER = DRIVER = None

# Of the text's own colour on the nearest background behind it, as WCAG 2.1 defines it.
CONTRASTS = """
  const channel = (c) => (c /= 255) <= 0.03928 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4;
  const parse = (text) => text.match(/[\\d.]+/g).map(Number);
  const luminance = ([r, g, b]) => 0.2126 * channel(r) + 0.7152 * channel(g) + 0.0722 * channel(b);
  const behind = (node) => {
    for (; node; node = node.parentElement) {
      const colour = parse(getComputedStyle(node).backgroundColor);
      if (colour.length === 3 || colour[3] === 1) return colour;
    }
  };
  return [...document.querySelectorAll('main *, header *, footer *')]
      .filter((node) => !node.disabled && node.checkVisibility() &&
              [...node.childNodes].some((child) => child.nodeType === 3 && child.data.trim()))
      .map((node) => {
        const style = getComputedStyle(node);
        const ink = node.namespaceURI.endsWith('svg') ? style.fill : style.color;
        const [a, b] = [luminance(parse(ink)), luminance(behind(node))].sort((x, y) => y - x);
        return [(a + 0.05) / (b + 0.05), node.outerHTML.slice(0, 80)];
      });
"""
AXE = os.environ.get("VELOSTRIX_AXE")  # axe.min.js of the npm package axe-core
REACHABLE = "a[href], button:enabled, input:enabled, select:enabled, summary, [tabindex='0']"


def call(folder, *arguments):
    return subprocess.run([PROGRAM, *arguments], cwd=folder, text=True, capture_output=True,
                          timeout=120)


class Report(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = pathlib.Path(scratch.name)
        self.run_well("render", "--out", "inputs", "--images", "4", "--quiet",
                      "--size", "{}x{}".format(*SIZE))

    def run_well(self, *arguments):
        done = call(self.folder, *arguments)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stderr

    def reconstruct(self, out, *arguments):
        self.run_well("reconstruct", "inputs", "--out", out, "--quiet", *arguments)
        return self.folder / out


class Files(Report):
    def test_the_report_is_a_result_that_later_runs_replace_or_remove(self):
        out = self.reconstruct("out", "--report")
        self.assertIn("report.html", json.loads((out / "run.json").read_text())["outputs"])
        self.reconstruct("out")
        self.assertFalse((out / "report.html").exists())
        record = json.loads((out / "run.json").read_text())
        for _ in range(2):  # the second replaces the first
            self.assertIn("wrote out/report.html", self.run_well("report", "out"))
        record["outputs"].append("report.html")
        self.assertEqual(json.loads((out / "run.json").read_text()), record)
        self.run_well("reconstruct", "inputs", "--out", "out", "--quiet", "--report")

    def test_a_later_report_shows_the_inputs_as_the_run_took_them(self):
        shots = [np.asarray(Image.open(self.folder / f"inputs/image{k}.png")) for k in range(4)]
        (self.folder / "raw").mkdir()
        for k, shot in enumerate(shots):
            raw = shot.astype(np.uint16) * 12
            raw[::2, 1::2] //= 2
            Image.fromarray(raw).save(self.folder / f"raw/{k}.png")
        Image.fromarray(np.dstack(shots[:3])).save(self.folder / "colour.png")
        for arguments in ["raw --bayer grbg --flat raw --mask auto --roi 8,6,80,60",
                          "colour.png --split-channels --bits 8"]:
            self.run_well("reconstruct", *arguments.split(), "--out", "out", "--report", "--quiet")
            page = self.folder / "out/report.html"
            shown = re.findall(r'"jpeg":"([^"]+)"', page.read_text())
            self.assertIn(len(shown), [3, 4])
            self.run_well("report", "out")
            self.assertEqual(re.findall(r'"jpeg":"([^"]+)"', page.read_text()), shown)

    def test_refusals_name_the_file_and_leave_everything(self):
        out = self.reconstruct("out")
        (self.folder / "empty").mkdir()
        (self.folder / "odd").mkdir()
        (self.folder / "odd/run.json").write_text('{"recipe": {"recipe_version": 1}, "outputs": 7}')
        (self.folder / "filter").mkdir()
        (self.folder / "filter/run.json").write_text(
            '{"recipe": {"recipe_version": 1}, "options": {"split_channels": 0, "bayer": "x"}}')
        shutil.copytree(out, self.folder / "lost")
        (self.folder / "lost/height.png").unlink()
        shutil.copytree(out, self.folder / "other")
        Image.new("L", (5, 5)).save(self.folder / "other/factor.png")
        for arguments, expected in [
                (["empty"], "empty/run.json: no such file"),
                (["odd"], "odd/run.json: is not the record of a run"),
                (["filter"], "filter/run.json: options: bayer: 'x' is unknown"),
                (["lost"], "lost/height.png: no such file"),
                (["other"], "is not the picture that the run made"),
                (["out", "--out", "out/factor.png"], "would be replaced"),
                (["out", "--out", "inputs/image0.png"], "would be replaced")]:
            with self.subTest(arguments):
                before = sorted((path, path.stat().st_mtime_ns) for path in self.folder.rglob("*"))
                done = call(self.folder, "report", *arguments)
                self.assertEqual(done.returncode, 1)
                self.assertEqual(done.stderr.count("\n"), 1, done.stderr)
                self.assertIn(expected, done.stderr)
                self.assertEqual(before, sorted((path, path.stat().st_mtime_ns)
                                                for path in self.folder.rglob("*")))

    def test_pictures_that_cannot_be_compressed_are_reduced_until_the_page_is_small(self):
        random = np.random.default_rng(5)
        for k in range(4):
            pixels = random.integers(0, 256, (900, 1200), np.uint8)
            Image.fromarray(pixels).save(self.folder / f"inputs/image{k}.png")
        page = self.reconstruct("out", "--report") / "report.html"
        self.assertLess(page.stat().st_size, 8_000_000)
        self.assertGreater(page.stat().st_size, 3_000_000)
        self.assertRegex(page.read_text(), r'"reduction":[2-4],')


@unittest.skipUnless(BROWSER and DRIVER, "no browser: install-packages check")
class Page(Report):
    @classmethod
    def setUpClass(cls):
        options = webdriver.ChromeOptions()
        options.binary_location = BROWSER
        for argument in ["--headless=new", "--no-sandbox", "--disable-dev-shm-usage",
                         "--window-size=1280,1400",
                         "--enable-unsafe-swiftshader"]:
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        cls.browser = webdriver.Chrome(
            service=webdriver.chrome.service.Service(DRIVER), options=options)
        cls.addClassCleanup(cls.browser.quit)

    def open(self, page):
        self.browser.get_log("browser")  # what an earlier test left
        self.browser.get(page.as_uri())
        self.wait("return document.documentElement.dataset.ready")

    def script(self, text, *arguments):
        return self.browser.execute_script(text, *arguments)

    def wait(self, condition):
        for _ in range(600):
            value = self.script(condition)
            if value:
                return value
            time.sleep(0.05)
        self.fail(f"{condition}: never; {self.browser.get_log('browser')}")

    def find(self, name):
        return self.browser.find_element(By.ID, name)

    def set(self, name, value):
        self.script("const input = document.getElementById(arguments[0]); input.value = arguments[1];"
                    "input.dispatchEvent(new Event('input'))", name, value)
        self.script("return new Promise((done) => requestAnimationFrame(() => "
                    "requestAnimationFrame(done)))")

    def pixel(self, canvas, x, y, width=1):
        return self.script("return [...document.getElementById(arguments[0]).getContext('2d')"
                           ".getImageData(...arguments[1]).data]", canvas, [x, y, width, 1])

    def assert_quiet(self):
        said = [entry["message"] for entry in self.browser.get_log("browser")
                if "GL Driver Message" not in entry["message"]]
        self.assertEqual(said, [])

    def test_everything_is_drawn_from_the_page_alone(self):
        self.open(self.reconstruct("out", "--run", "cali", "--report") / "report.html")
        self.script("document.getElementById('surface-stage').scrollIntoView()")
        self.wait("return document.querySelector('#surface-stage canvas')")
        blank = """
          const copy = document.createElement('canvas');
          return [...document.querySelectorAll('canvas')].filter((canvas) => {
            const context = copy.getContext('2d', {willReadFrequently: true});
            [copy.width, copy.height] = [canvas.width, canvas.height];
            context.drawImage(canvas, 0, 0);
            const data = context.getImageData(0, 0, copy.width, copy.height).data;
            return new Set(data.filter((_, k) => k % 4 !== 3)).size < 8;
          }).map((canvas) => canvas.outerHTML)"""
        self.wait(f"return (() => {{ {blank} }})().length === 0")
        self.assertGreaterEqual(self.script("return document.querySelectorAll('canvas').length"), 17)
        self.assertGreater(self.script("return document.querySelectorAll('svg.plot path').length"), 11)
        outside = "return performance.getEntriesByType('resource').map((entry) => entry.name)"
        self.assertEqual([name for name in self.script(outside)
                          if not name.startswith(("data:", "blob:"))], [])
        before = self.find("surface-stage").screenshot_as_png
        for keys in [Keys.ARROW_LEFT * 4, "+++"]:
            self.find("surface-stage").send_keys(keys)
            after = self.find("surface-stage").screenshot_as_png
            self.assertNotEqual(before, after)
            before = after
        self.assert_quiet()

    def test_the_lamp_changes_a_pixel_as_its_slopes_say(self):
        for run in ["cali", "uncali"]:
            out = self.reconstruct(run, "--run", run, "--report")
            record = json.loads((out / "run.json").read_text())
            x, y = np.unravel_index(  # the steepest
                np.argmax(np.abs(np.asarray(Image.open(out / "channel0.png")).T.astype(int) - 128)), SIZE)
            values = [(np.asarray(Image.open(out / f"channel{k}.png"))[y, x] - 128.0)
                      / record["recipe"]["gains"][f"channel{k}"] for k in range(2)]
            if run == "uncali":
                singular = record["singular_values"]
                unit = math.sqrt(2 * singular[1] * singular[2]) / singular[0]
                p, q = [value * unit for value in values]
                normal = np.array([p, q, 1]) / math.sqrt(p * p + q * q + 1)
            else:
                normal = np.array([*values, math.sqrt(1 - values[0] ** 2 - values[1] ** 2)])
            print_level = np.asarray(Image.open(out / "factor.png"))[y, x]
            self.open(out / "report.html")
            for azimuth, slant in [(0, 40), (90, 40), (200, 20)]:
                a, s = math.radians(azimuth), math.radians(slant)
                # x to the left, y down, z to the camera
                lamp = [-math.cos(a) * math.sin(s), -math.sin(a) * math.sin(s), math.cos(s)]
                light = max(float(normal @ lamp), 0)
                self.set("relight-azimuth", azimuth)
                self.set("relight-slant", slant)
                for is_print, level in [(False, 255 * light), (True, print_level * light)]:
                    if self.find("relight-print").is_selected() != is_print:
                        self.find("relight-print").click()
                    self.set("relight-slant", slant)
                    shown = self.pixel("relight-canvas", int(x), int(y))
                    self.assertEqual(shown[3], 255)
                    self.assertLessEqual(abs(shown[0] - level), 1, (run, azimuth, slant, is_print))

    def test_the_lamp_follows_pointer_keys_and_photographs(self):
        self.open(self.reconstruct("out", "--run", "cali", "--report") / "report.html")
        stage = self.find("relight-stage")
        lamp = lambda: [float(self.find(f"relight-{name}").get_attribute("value"))
                        for name in ["azimuth", "slant"]]
        width = stage.size["width"]
        webdriver.ActionChains(self.browser).move_to_element_with_offset(
            stage, width // 4, 0).click().perform()
        self.assertLessEqual(abs(lamp()[0]), 1)
        self.assertLessEqual(abs(lamp()[1] - 30), 1)  # asin(1 / 2)
        stage.send_keys(Keys.ARROW_UP * 3)
        self.assertGreater(lamp()[0], 10)
        self.find("relight-follow").click()
        self.assertEqual(lamp(), [180, 58])
        self.find("photograph-after").click()
        self.assertEqual(lamp(), [63, 58])
        self.assertIn("2 of 4: inputs/image1.png", self.find("photograph-text").text)
        self.assert_quiet()

    def test_the_profile_of_a_ramp_is_a_line(self):
        out = self.reconstruct("out")
        ramp = np.add.outer(np.arange(SIZE[1]) * 100, np.arange(SIZE[0]) * 300).astype(np.uint16)
        Image.fromarray(ramp).save(out / "height.png")
        self.run_well("report", "out")
        self.open(out / "report.html")
        for name, value in [("x1", 10), ("y1", 60), ("x2", 90), ("y2", 20)]:
            self.set(f"measure-{name}", value)
        path = self.script("return document.querySelector('path[data-name=height]').getAttribute('d')")
        points = np.array([point.split(",") for point in path[1:].split("L")], float)
        line = np.polyfit(points[:, 0], points[:, 1], 1)
        self.assertLess(np.abs(np.polyval(line, points[:, 0]) - points[:, 1]).max(), 1e-6)
        self.browser.execute_cdp_cmd("Browser.setDownloadBehavior", {
            "behavior": "allow", "downloadPath": str(self.folder)})
        self.find("measure-save").click()
        saved = self.folder / "profile.csv"
        for _ in range(200):
            if saved.exists():
                break
            time.sleep(0.05)
        rows = list(csv.DictReader(saved.read_text().splitlines()))
        self.assertEqual(len(rows), round(math.hypot(80, 40)) + 1)
        for row in rows:
            self.assertAlmostEqual(float(row["height"]), 300 * float(row["x"]) + 100 * float(row["y"]),
                                   delta=0.3)  # three digits after the point
        self.assertEqual(float(rows[-1]["channel0"]),
                         np.asarray(Image.open(out / "channel0.png"))[20, 90])

    def test_keyboard_alone_reaches_everything_that_has_a_name_and_a_contrast(self):
        self.open(self.reconstruct("out", "--run", "cali", "--report") / "report.html")
        body = self.browser.find_element(By.TAG_NAME, "body")
        total = self.script("return [...document.querySelectorAll(arguments[0])].filter((node) => "
                            "node.checkVisibility()).length", REACHABLE)
        self.assertGreater(total, 30)
        reached = set()
        for _ in range(total + 2):
            webdriver.ActionChains(self.browser).send_keys(Keys.TAB).perform()
            element = self.browser.switch_to.active_element
            if element == body:
                continue
            self.assertNotEqual(element.value_of_css_property("outline-style"), "none")
            reached.add(element.id)
        self.assertEqual(len(reached), total)

        nodes = self.browser.execute_cdp_cmd("Accessibility.getFullAXTree", {})["nodes"]
        for node in nodes:
            focusable = any(p["name"] == "focusable" and p["value"]["value"]
                            for p in node.get("properties", []))
            role = node.get("role", {}).get("value")
            if node["ignored"] or role == "RootWebArea" or not (focusable or role in ("img", "image")):
                continue
            if role in ("main", "scrollable"):
                continue
            self.assertTrue(node.get("name", {}).get("value"), node)
        for scheme in ["light", "dark"]:
            self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
                "features": [{"name": "prefers-color-scheme", "value": scheme}]})
            contrasts = self.script(CONTRASTS)
            self.assertGreater(len(contrasts), 60)
            self.assertGreaterEqual(min(contrasts)[0], 4.5, (scheme, min(contrasts)))
        for width in [1280, 400]:
            self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
                "width": width, "height": 900, "deviceScaleFactor": 1, "mobile": False})
            self.assertLessEqual(self.script("return document.documentElement.scrollWidth"), width)
        self.browser.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})
        self.assert_quiet()

    @unittest.skipUnless(AXE, "no axe-core: VELOSTRIX_AXE names no axe.min.js")
    def test_axe_finds_no_barrier(self):  # by all of its rules, the experimental ones too
        shots = [np.asarray(Image.open(self.folder / f"inputs/image{k}.png")) for k in range(4)]
        notebook = self.folder / "notebook.html"
        notebook.write_text(velostrix.reconstruct(shots)._repr_html_())
        for page in [self.reconstruct("all", "--run", "cali", "--report") / "report.html",
                     self.reconstruct("few", "--outputs", "factor", "--report") / "report.html", notebook]:
            for scheme in ["light", "dark"]:
                self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
                    "features": [{"name": "prefers-color-scheme", "value": scheme}]})
                self.browser.get(page.as_uri())
                if page == notebook:
                    self.browser.switch_to.frame(0)
                self.wait("return document.documentElement.dataset.ready")
                self.script(pathlib.Path(AXE).read_text())
                found = self.browser.execute_async_script("""
                  const rules = axe.getRules().map((rule) => [rule.ruleId, {enabled: true}]);
                  axe.run({rules: Object.fromEntries(rules)}).then(({violations}) => arguments[0](
                      violations.map(({id, nodes}) => [id, nodes.map((node) => node.html)])))""")
                self.assertEqual(found, [], (page, scheme))

    def test_photographs_that_are_gone_or_changed_are_said_and_names_are_only_text(self):
        evil = "</script><img src=x onerror=document.title=1>"
        self.folder.joinpath("inputs").rename(self.folder / "old")
        shutil.copytree(self.folder / "old", self.folder / "inputs")
        name = f"inputs/image0{evil.replace('/', '&')}.png"
        (self.folder / "inputs/image0.png").rename(self.folder / name)
        out = self.reconstruct("out")
        (self.folder / "inputs/image1.png").unlink()
        shutil.copy(self.folder / "inputs/image3.png", self.folder / "inputs/image2.png")
        record = json.loads((out / "run.json").read_text())
        record["warnings"] = [evil]
        (out / "run.json").write_text(json.dumps(record))
        said = self.run_well("report", "out")
        self.assertIn("image1.png: no such file", said)
        self.assertIn("image2.png: has changed since the run", said)
        self.open(out / "report.html")
        self.assertIn(evil, self.find("warnings").text)
        texts = []
        for _ in range(4):
            texts.append(self.find("photograph-text").text)
            self.find("photograph-after").click()
        self.assertIn("no such file", texts[1])
        self.assertIn("has changed", texts[2])
        self.assertEqual([option.text for option in Select(self.find("compare-left")).options][-2:],
                         ["photograph 1", "photograph 4"])
        self.assertEqual(self.script("return document.title"), "out - Velostrix")
        self.assert_quiet()

    def test_the_record_is_said_in_words_and_older_records_open(self):
        out = self.reconstruct("out", "--mask", "auto", "--lamp", "2=right", "--flat", "inputs",
                               "--height-view", "--export", "normals.png")
        record = json.loads((out / "run.json").read_text())
        changes = {
            "singular_values": [2, 0.5, 0.25, 0.125], "shifts_pixels": [0.01, None, 3.14, 0],
            "noise_share": 0.0312, "mask": {"file": "m.png", "kept_share": 0.75},
            "orientation": {**record["orientation"], "is_mirrored": True, "is_inverted": True,
                            "is_turned": False, "is_sign_open": False, "turn_degrees": -7.1},
            "batch": {"curvature_level": 12},
            "measures": {"curvature_share": 0.015, "height_range": None}}
        (out / "run.json").write_text(json.dumps({**record, **changes}))
        self.run_well("report", "out")
        self.open(out / "report.html")
        text = self.find("main").text
        for words in ["25 % and 12.5 %; what is left, noise and shadows, has 6.25 %", "second direction is 2.0 times",
                      "photograph 3 moved farthest, by 3.1 pixels. The shift of photograph 2",
                      "3.12 % of the curvature is noise", "were mirrored and inverted, which was corrected",
                      "turned by 7 degrees, clockwise", "Determined by the lamp of photograph 3",
                      "0 in m.png are left out, 25 % of all", "1.5 % of the pixels have a curvature more than 12",
                      "from 0 degrees", "divided by the flat field of its lamp", "divided by its flat field",
                      "height_view.png\nheight for display", "normals.png\nconvention: opengl", "lowest and 65535"]:
            self.assertIn(words, text)
        self.assertNotIn("[object", text)
        self.assertNotIn("undefined", text)
        recipe = {name: record["recipe"][name] for name in ["recipe_version", "run", "gains", "offsets"]}
        old = {"version": "0.0.9", "recipe": recipe, "inputs": [],
               "outputs": [*record["outputs"], "report.html"]}
        (out / "run.json").write_text(json.dumps(old))
        self.run_well("report", "out")
        self.open(out / "report.html")
        self.assertIn("not diagnosed", self.find("diagnosis").text)
        self.assert_quiet()

    def test_python_shows_the_same_in_notebooks_and_writes_the_same_report(self):
        shots = [np.asarray(Image.open(self.folder / f"inputs/image{k}.png")) for k in range(4)]
        wide = [shot.astype(np.uint16) * 16 for shot in shots]
        parameters = velostrix.Parameters(run="cali", bits=12, region=(8, 6, 80, 60))
        result = velostrix.reconstruct(wide, parameters)
        page = self.folder / "-part 1.html"
        result.report(page, wide, program=PROGRAM)
        self.open(page)
        said = self.find("summary").text + self.find("diagnosis").text
        for words in ["cali, 80 x 60 pixels, 4 images", "Lamps of the ring leave", "No warnings"]:
            self.assertIn(words, said)
        self.assertEqual(self.find("photograph-text").text, "Photograph 1 of 4: image1.png")
        relit = self.pixel("relight-canvas", 0, 30, 80)
        self.assertGreater(len(set(relit)), 4)
        self.assert_quiet()

        page.write_text(f"<!doctype html><title>A notebook</title>{result._repr_html_()}")
        self.browser.get(page.as_uri())
        self.browser.switch_to.frame(0)
        self.wait("return document.documentElement.dataset.ready")
        self.assertEqual(self.pixel("relight-canvas", 0, 30, 80), relit)
        self.find("relight-stage").send_keys(Keys.ARROW_LEFT)
        self.wait("return document.getElementById('relight-text').textContent.includes('137')")
        self.browser.switch_to.default_content()
        self.assert_quiet()

    def test_results_that_were_not_made_are_said(self):
        for outputs, shown, missing in [("normal", "relight-canvas", "#surface"),
                                        ("height,factor", "measure-canvas", "#relighting"),
                                        ("factor", "measure-canvas", "#relighting")]:
            self.open(self.reconstruct("out", "--outputs", outputs, "--report") / "report.html")
            self.assertTrue(self.find(shown).is_displayed())
            self.script("document.querySelector(arguments[0]).scrollIntoView()", missing)
            self.wait(f"return document.querySelector('{missing}').textContent.includes('--outputs all')")
            self.assert_quiet()


if __name__ == "__main__":
    unittest.main(verbosity=2)
