#!/usr/bin/env python3
"""The page of vtbackup report in a browser.

    check_report.py FOLDER RUNNER... VTBACKUP VTFLTSIM

Works in FOLDER, which it empties: makes a repository on a simulated machine by running vtbackup, has its page made, and
looks at it in headless Chromium, in light and dark, narrow, on paper, without scripts, by mouse and by keys. Leaves the
pictures that it took.
"""
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import unittest

from browser import Browser

FOLDER = os.path.abspath(sys.argv[1])
RUNNER = [os.path.abspath(part) if os.path.exists(part) else part for part in sys.argv[2:-2]]
VTBACKUP, VTFLTSIM = (os.path.abspath(program) for program in sys.argv[-2:])
CHROMIUM = shutil.which("chromium")

DAMAGED = 6


def start(program, *arguments, expected=0):
    run = subprocess.run(RUNNER + [program, *arguments], cwd=FOLDER, capture_output=True, timeout=300, check=False)
    if run.returncode != expected:
        raise RuntimeError(f"{arguments}: exit code {run.returncode}: {run.stderr.decode(errors='replace')}")
    return run.stdout.decode()


def backup(*arguments):
    return json.loads(start(VTBACKUP, "backup", "--simulate", "machine", "--repo", "repository", "--json", *arguments))


def make_repository():
    """Two applications, two volumes, all kinds of backup, and one that is damaged."""
    start(VTFLTSIM, "create", "machine")
    volumes = {}
    for mount, length in (("E:\\", "64M"), ("F:\\", "20M")):
        volumes[mount] = start(VTFLTSIM, "add-volume", "machine", length, "--mount", mount, "--block-size", "64K").strip()
        start(VTFLTSIM, "write", "machine", mount, "--count", "200", "--seed", "1")
    for application in ("Nightly", "Hourly"):
        start(VTBACKUP, "init", "--simulate", "machine", "--repo", "repository", "--app", application)
    backup("--app", "Nightly", "--volume", "E:\\")
    backup("--app", "Nightly", "--volume", "F:\\")
    for round_ in range(2, 8):
        start(VTFLTSIM, "write", "machine", "E:\\", "--offset", f"{round_ * 5}M", "--length", f"{round_ * 200}K", "--fill",
              str(round_))
        backup("--app", "Hourly", "--volume", "E:\\")
        extra = {4: ["--verify"], 6: ["--full"]}.get(round_, [])
        backup("--app", "Nightly", "--volume", "E:\\", *extra)
    manifest = next(pathlib.Path(FOLDER, "repository", "chains").glob("Hourly*/*/00000003/manifest.json"))
    manifest.write_bytes(manifest.read_bytes()[:-20])


class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        shutil.rmtree(FOLDER, ignore_errors=True)
        os.makedirs(FOLDER)
        make_repository()
        start(VTBACKUP, "report", "--repo", "repository", "--html", "report.html", expected=DAMAGED)
        cls.url = pathlib.Path(FOLDER, "report.html").as_uri()
        cls.html = pathlib.Path(FOLDER, "report.html").read_text(encoding="utf-8")
        cls.browser = Browser(CHROMIUM)

    @classmethod
    def tearDownClass(cls):
        cls.browser.close()

    def setUp(self):
        self.browser.call("Emulation.setScriptExecutionDisabled", value=False)
        self.browser.media()
        self.browser.size(1280, 900)
        self.browser.open(self.url)

    def value(self, expression):
        return self.browser.value(expression)

    def file(self, name):
        return os.path.join(FOLDER, name)

    def test_the_script_ran_and_nothing_was_complained_of(self):
        self.assertEqual("yes", self.value("document.documentElement.dataset.ready"))
        cells = self.html.count('<rect class="heat ')
        # As a key of the colours each step stands once more for each chain.
        drawn = cells - 6 * self.html.count("<figcaption>")
        self.assertGreater(drawn, 10)
        self.assertEqual(str(drawn), self.value("document.documentElement.dataset.cells"))
        self.assertEqual([], self.browser.complaints())
        self.assertEqual(3, self.value("document.querySelectorAll('section.chain').length"))
        self.assertEqual(14, self.value("Number(document.documentElement.dataset.backups)"))

    def test_no_request_leaves_the_page(self):
        self.value("window.scrollTo(0, document.body.scrollHeight)")
        self.browser.frames()
        self.assertEqual([self.url], self.browser.requests())
        self.assertEqual([], [asked for asked in self.browser.proxy.asked if "elsewhere" in asked])
        # Its policy holds, even if a text got through unescaped.
        hole = self.html.replace("</main>", '<img src="http://elsewhere.test/a.png"><script>document.title = "run"</script>'
                                            '<p style="color: red" onclick="document.title = 1">x</p></main>')
        with open(self.file("hole.html"), "w", encoding="utf-8") as file:
            file.write(hole)
        self.browser.open(pathlib.Path(self.file("hole.html")).as_uri())
        self.assertNotEqual("run", self.value("document.title"))
        self.assertEqual("yes", self.value("document.documentElement.dataset.ready"))
        self.assertEqual([], [asked for asked in self.browser.proxy.asked if "elsewhere" in asked])
        self.assertNotEqual([], self.browser.complaints())
        # And without the policy it would have been seen: this test can fail.
        with open(self.file("open.html"), "w", encoding="utf-8") as file:
            file.write(re.sub(r'<meta http-equiv="Content-Security-Policy"[^>]*>', "", hole))
        self.browser.open(pathlib.Path(self.file("open.html")).as_uri())
        self.assertEqual("run", self.value("document.title"))
        self.assertIn("http://elsewhere.test/a.png", self.browser.requests())
        self.assertIn("http://elsewhere.test/a.png", self.browser.proxy.asked)

    def brightness(self, selector="body", property_="backgroundColor"):
        colour = self.value(f"getComputedStyle(document.querySelector('{selector}')).{property_}")
        return sum(int(part) for part in re.findall(r"\d+", colour)[:3]) / 765

    def test_it_is_light_and_dark_as_the_system_or_the_reader_wants(self):
        for scheme in ("light", "dark"):
            self.browser.media(scheme=scheme)
            self.browser.screenshot(self.file(f"{scheme}.png"))
            other = "dark" if scheme == "light" else "light"
            for choice, shown in (("system", scheme), (other, other), (scheme, scheme)):
                self.value(f"document.getElementById('theme-{choice}').click()")
                paper, ink = self.brightness(), self.brightness(property_="color")
                (self.assertGreater if shown == "light" else self.assertLess)(paper, 0.5, f"{scheme} {choice}")
                self.assertGreater(abs(paper - ink), 0.7, f"{scheme} {choice}")
            self.value("document.getElementById('theme-system').click()")
        # The colours of the heat map differ from the ground and from each other.
        for scheme in ("light", "dark"):
            self.browser.media(scheme=scheme)
            shades = self.value("""[...document.querySelectorAll('figcaption')[0].querySelectorAll('rect')]
                .map(rect => getComputedStyle(rect).fill)""")
            self.assertEqual(len(shades), len(set(shades)), shades)

    def test_what_is_pointed_at_is_explained(self):
        text = self.value("""(() => {
            const cell = document.querySelector('.column .heat');
            cell.scrollIntoView({block: 'center'});
            return cell.dataset.tip;
        })()""")
        self.assertRegex(text, r"^backup \d+, .* to .*\n\d+ of \d+ blocks changed \(.* %\)$")
        self.browser.frames()
        place = self.value("""(() => {
            const box = document.querySelector('.column .heat').getBoundingClientRect();
            return [box.x + box.width / 2, box.y + box.height / 2];
        })()""")
        self.browser.point(*place)
        self.assertEqual([False, text], self.value("(t => [t.hidden, t.textContent])(document.querySelector('.tip'))"))
        box = self.value("(b => [b.left, b.top, b.right, b.bottom])(document.querySelector('.tip').getBoundingClientRect())")
        self.assertTrue(0 <= box[0] and 0 <= box[1] and box[2] <= 1280 and box[3] <= 900, box)
        self.browser.screenshot(self.file("hover.png"), whole=False)
        self.browser.point(2, 2)
        self.assertTrue(self.value("document.querySelector('.tip').hidden"))

    def test_the_pictures_are_reached_by_keys(self):
        tip = "document.querySelector('.tip')"
        # First come the lines of time, then the pictures.
        for _ in range(60):
            self.browser.key("Tab")
            if self.value("document.activeElement.matches('svg.marks')"):
                self.browser.key("Home")
                self.assertTrue(self.value(f"{tip}.textContent").startswith("backup 1, "))
                self.browser.key("End")
                last = self.value("""Math.max(...[...document.activeElement.querySelectorAll('.mark')]
                    .map(mark => Number(mark.dataset.to.split('-').pop())))""")
                self.assertTrue(self.value(f"{tip}.textContent").startswith(f"backup {last}, "))
            if self.value("document.activeElement.matches('svg.columns')"):
                break
        self.assertTrue(self.value("document.activeElement.matches('svg.columns')"))
        self.browser.key("Home")
        self.assertTrue(self.value(f"{tip}.textContent").startswith("backup 1, "))
        self.browser.key("ArrowRight")
        self.assertTrue(self.value(f"{tip}.textContent").startswith("backup 2, "))
        self.browser.key("ArrowDown")
        self.assertRegex(self.value(f"{tip}.textContent"), r"^backup 2, .*\n.* blocks changed")
        self.assertFalse(self.value(f"{tip}.hidden"))
        self.assertEqual(1, self.value("document.querySelectorAll('.at').length"))
        self.browser.key("Escape")
        self.assertTrue(self.value(f"{tip}.hidden"))

    def test_everything_is_there_without_scripts(self):
        self.browser.call("Emulation.setScriptExecutionDisabled", value=True)
        self.browser.open(self.url)
        self.browser.screenshot(self.file("without_scripts.png"))
        tree = self.browser.call("DOM.getDocument", depth=-1)
        self.assertNotIn("data-ready", json.dumps(tree))
        outer = self.browser.call("DOM.getOuterHTML", nodeId=tree["root"]["nodeId"])["outerHTML"]
        self.assertEqual(self.html.count("<title>"), outer.count("<title>"))

    def test_it_fits_a_narrow_window(self):
        for width in (1280, 800, 360):
            self.browser.size(width, 800)
            self.browser.frames()
            self.browser.screenshot(self.file(f"width_{width}.png"))
            self.assertLessEqual(self.value("document.documentElement.scrollWidth"), width)

    def test_it_can_be_printed(self):
        self.browser.media(scheme="dark")
        self.browser.pdf(self.file("report.pdf"))
        with open(self.file("report.pdf"), "rb") as file:
            self.assertEqual(b"%PDF", file.read(4))
        # Paper is white whatever the screen is, and shows every row.
        self.value("document.getElementById('theme-dark').click()")
        self.browser.media(media="print", scheme="dark")
        self.assertGreater(self.brightness(), 0.9)
        self.assertLess(self.brightness(property_="color"), 0.3)
        self.assertEqual([], self.value("""[...document.querySelectorAll('section .scroll, .wide')].map(box => getComputedStyle(box))
            .map(style => style.overflow + ' ' + style.maxHeight).filter(text => text !== 'visible none')"""))
        self.assertEqual("none", self.value("getComputedStyle(document.querySelector('.theme')).display"))

    def test_the_damage_is_linked_to_its_row(self):
        target = self.value("document.querySelector('#problems a').getAttribute('href')")
        self.assertTrue(self.value(f"document.querySelector('{target}').classList.contains('is-damaged')"))
        # No link leads nowhere, and no name is given twice.
        self.assertEqual([], self.value("""[...document.querySelectorAll('a[href], use[href]')]
            .map(link => link.getAttribute('href'))
            .concat([...document.querySelectorAll('[data-to]')].map(element => '#' + element.dataset.to))
            .filter(name => !document.querySelector(name))"""))
        self.assertEqual([], self.value("""(ids => ids.filter((id, i) => ids.indexOf(id) !== i))(
            [...document.querySelectorAll('[id]')].map(element => element.id))"""))


if __name__ == "__main__":
    if CHROMIUM is None:
        sys.exit("chromium is missing: run ./dev setup")
    unittest.main(argv=[sys.argv[0], "-v"])
