#!/usr/bin/python3
"""Checks the list's page in a real browser: names that contain markup, long names, 300 servers, and no
server; in the widths of a phone, a tablet and desktops, with light and dark colours. Follows the links
of the filters, and waits for the page's refresh. Leaves screenshots in build/list-page.

Usage: script/checks/list-page [--write-docs]

--write-docs also draws docs/listing.svg."""

import contextlib
import html
import http.server
import shutil
import subprocess
import sys
import tempfile
import threading
import urllib.parse

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

from lib import BUILD, ROOT, build, fail

PATIENCE_S = 30
PICTURES = BUILD / "list-page"
# Includes both sides of 800 pixels, the width below which the table becomes blocks.
WIDTHS = {"phone": 360, "phone-wide": 641, "tablet": 800, "tablet-wide": 801, "wide": 1280,
          "desktop": 1920}  # fmt: skip
PICTURED = ("phone", "tablet", "desktop")
MARKUP = ["<script>window.hit=1</script>", '"><img src=x onerror=hit=1>', "</table></body>&amp;", "'"]
LONG = ["W" * 31, "W" * 15 + " " + "m" * 15, "Thirty characters in this name", "車" * 10, "i"]
SAMPLE = [("Friday Garage", 7, 16, 1), ("Harn Tor Nights", 3, 32, 0), ("Rookies welcome", 0, 8, 0)]
FULL_ADDRESS = "255.255.255.255"

# Returns the texts that take more than one line, except the names of servers, which may.
BROKEN = """
return [...document.querySelectorAll('td:not(:first-child), th, nav a, nav b')].filter(cell => {
  const range = document.createRange();
  range.selectNodeContents(cell);
  return new Set([...range.getClientRects()].map(box => Math.round(box.bottom / 8))).size > 1;
}).map(cell => cell.textContent)
"""
# Returns the visible labels of the cells: the table's header, or the labels in the cells.
LABELS = """
const head = document.querySelector('thead');
if (head.getBoundingClientRect().height > 0) return [...head.querySelectorAll('th')].map(
  cell => cell.textContent).slice(1);
return [...document.querySelectorAll('tbody tr:first-child td:not(:first-child)')].map(cell => {
  const style = getComputedStyle(cell, '::before');
  return style.display === 'none' ? '' : style.content.replaceAll('"', '');
})
"""


def zollist(folder, path, query="", address="192.0.2.1"):
    environment = {
        "REQUEST_METHOD": "GET", "SCRIPT_NAME": path, "QUERY_STRING": query, "REMOTE_ADDR": address,
        "ZOLLIST_DATABASE": f"{folder}/list.sqlite", "ZOLLIST_ASK": "no",
        "HTTP_USER_AGENT": "ZOL/0.1 (master.example)",
    }  # fmt: skip
    done = subprocess.run([BUILD / "zollist"], env=environment, stdout=subprocess.PIPE, check=True)
    return done.stdout.split(b"\r\n\r\n", 1)[1].decode()


def fill(folder, servers, first=(FULL_ADDRESS, 65485)):
    """Announces servers: (name, players, max_players, game type). The first 50 have this address."""
    for i, (name, players, most, game_type) in enumerate(servers):
        name = urllib.parse.quote_plus(name.encode()[:31])
        port = first[1] + i % 50
        query = f"name={name}&p={players}&mp={most}&gt={game_type}&port={port}&v=40&os=lin"
        address = f"192.0.2.{i // 50}" if i >= 50 else first[0]
        if "1" not in zollist(folder, "/cgi-bin/zol.pl", query, address):
            fail(f"zollist refused the announce {query}")


@contextlib.contextmanager
def served(servers, refresh_s=None, first=(FULL_ADDRESS, 65485)):
    """Serves a list of these servers on the loopback interface. Yields its URL and the requested
    paths."""
    asked = []

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            asked.append(self.path)
            path, _, query = self.path.partition("?")
            page = zollist(folder, path, query) if path == "/" else ""
            if refresh_s:
                page = page.replace('"refresh" content="30"', f'"refresh" content="{refresh_s}"')
            self.send_response(200 if page else 404)
            self.send_header("Content-Type", "text/html; charset=utf-8")
            self.end_headers()
            self.wfile.write(page.encode())

        def log_message(self, *_):
            pass

    with tempfile.TemporaryDirectory() as folder:
        fill(folder, servers, first)
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        yield f"http://127.0.0.1:{server.server_port}/", asked
        server.shutdown()


def browser():
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in ("headless=new", "no-sandbox", "disable-gpu", "disable-dev-shm-usage"):
        options.add_argument(f"--{argument}")
    return webdriver.Chrome(options=options, service=Service("/usr/bin/chromedriver"))


def command(driver, name, **parameters):
    driver.execute_cdp_cmd(f"Emulation.{name}", parameters)


def names_on(driver):
    return [cell.text for cell in driver.find_elements(By.CSS_SELECTOR, "td:first-child")]


def faults_of(driver, width):
    """Returns what is wrong with the page at this width."""
    faults = []
    across = driver.execute_script("return document.documentElement.scrollWidth")
    if across > width:
        faults.append(f"the page is {across} pixels wide")
    if broken := driver.execute_script(BROKEN):
        faults.append(f"these texts take several lines: {broken[:3]}")
    if driver.find_elements(By.TAG_NAME, "table"):
        labels = driver.execute_script(LABELS)
        if labels != ["Address", "Players", "Game", "Seen"]:
            faults.append(f"the cells have the labels {labels}")
    return faults


def set_width(driver, width):
    command(driver, "setDeviceMetricsOverride", width=width, height=800, deviceScaleFactor=1,
            mobile=width < 700)  # fmt: skip


def look(driver, case, servers):
    with served(servers) as (address, _):
        driver.get(address)
        if driver.execute_script("return window.hit !== undefined"):
            fail(f"{case}: a name ran as a script")
        names = driver.execute_script(
            "return [...document.querySelectorAll('td:first-child')].map(cell => cell.textContent)"
        )
        wanted = [name.encode()[:31].decode(errors="ignore") for name, *_ in servers]
        if sorted(names) != sorted(wanted):
            fail(f"{case}: the page shows the names {names}")
        for name, width in WIDTHS.items():
            set_width(driver, width)
            if faults := faults_of(driver, width):
                fail(f"{case}, {width} pixels wide: {'; '.join(faults)}")
            for shade in ("light", "dark"):
                if name not in PICTURED:
                    continue
                media = [{"name": "prefers-color-scheme", "value": shade}]
                command(driver, "setEmulatedMedia", features=media)
                ground = driver.execute_script("return matchMedia('(prefers-color-scheme: dark)').matches")
                if ground != (shade == "dark"):
                    fail(f"the browser does not use the colour scheme {shade}")
                driver.save_screenshot(str(PICTURES / f"{case}-{name}-{shade}.png"))


def check_faults_of(driver):
    """Checks that faults_of() detects broken lines, a page that is too wide, and missing labels."""
    with served([(name, 1, 16, 1) for name in LONG]) as (address, _):
        driver.get(address)
        for style, width, fault in (
            ("table { width: 9rem } td { white-space: normal }", 1280, "several lines"),
            ("table { width: 2000px }", 1280, "pixels"),
            ("td::before { display: none }", 360, "labels"),
            ("thead { display: none }", 1280, "labels"),
        ):
            set_width(driver, width)
            if faults_of(driver, width):
                fail(f"the page has faults without the added style: {faults_of(driver, width)}")
            driver.execute_script(
                "const style = document.createElement('style'); style.id = 'fault';"
                "style.textContent = arguments[0]; document.head.append(style)", style)  # fmt: skip
            if not any(fault in found for found in faults_of(driver, width)):
                fail(f"faults_of() does not detect {style}")
            driver.execute_script("document.getElementById('fault').remove()")


def check_filters(driver):
    """Clicks the links of the filters, and waits for the page's refresh."""
    servers = [("Pink", 3, 16, 1), ("Solo", 1, 16, 0), ("Calm", 0, 16, 1), ("Quiet", 0, 16, 0)]
    with served(servers, refresh_s=2) as (address, asked):
        driver.get(address)
        for link, names, count in (
            (None, "Pink Solo Calm Quiet", "4 players on 4 servers"),
            ("with players", "Pink Solo", "4 players on 2 of 4 servers"),
            ("CatchPinkPanther", "Pink", "3 players on 1 of 4 servers"),
            ("all", "Pink Calm", "3 players on 2 of 4 servers"),
            ("Deathmatch", "Solo Quiet", "1 player on 2 of 4 servers"),
            ("any", "Pink Solo Calm Quiet", "4 players on 4 servers"),
            ("with players", "Pink Solo", "4 players on 2 of 4 servers"),
        ):
            if link:
                driver.find_element(By.LINK_TEXT, link).click()
            WebDriverWait(driver, PATIENCE_S).until(
                lambda _: names_on(driver) == names.split(),
                f"the link \"{link}\" does not show {names}",
            )
            if count not in driver.find_element(By.TAG_NAME, "body").text:
                fail(f'the page of the link "{link}" does not contain "{count}"')
        before = len(asked)
        WebDriverWait(driver, PATIENCE_S).until(lambda _: len(asked) > before,
                                                "the page does not refresh itself")  # fmt: skip
        if asked[-1] != "/?empty=no" or names_on(driver) != ["Pink", "Solo"]:
            fail(f"the refresh requests {asked[-1]} and shows {names_on(driver)}")


# Returns each piece of text with its position and style, the lines below the rows, and the height.
PIECES = """
const pieces = [];
const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
while (walker.nextNode()) {
  const range = document.createRange();
  range.selectNodeContents(walker.currentNode);
  const box = range.getClientRects()[0];
  const text = walker.currentNode.textContent.trim();
  if (!text || !box) continue;
  const style = getComputedStyle(walker.currentNode.parentElement);
  const row = walker.currentNode.parentElement.closest('tr');
  pieces.push([text, box.left, box.bottom - box.height * 0.25, style.fontSize, style.fontWeight,
               style.fontFamily, style.textDecorationLine, row ? getComputedStyle(row).opacity : 1]);
}
const lines = [...document.querySelectorAll('tr')].map(row => row.getBoundingClientRect())
  .map(box => [box.left, box.right, box.bottom]);
return [pieces, lines, document.querySelector('table').getBoundingClientRect().bottom];
"""


def draw_document(driver):
    """Draws the page as SVG without HTML, so that programs other than browsers can show it."""
    set_width(driver, 860)
    with served(SAMPLE, first=("192.0.2.7", 16309)) as (url, _):
        driver.get(url)
        pieces, lines, bottom = driver.execute_script(PIECES)
    height = round(bottom) + 20
    drawn = ['<svg xmlns="http://www.w3.org/2000/svg" width="860" height="%d">' % height,
             '<rect width="860" height="%d" rx="6" fill="#fff" stroke="#888"/>' % height]
    for left, right, y in lines:
        drawn.append('<path d="M%.0f %.0fH%.0f" stroke="#bbb"/>' % (left, y, right))
    for text, left, y, size, weight, family, decoration, opacity in pieces:
        kind = "monospace" if "mono" in family else "sans-serif"
        drawn.append(f'<text x="{left:.0f}" y="{y:.0f}" font-family="{kind}" font-size="{size}" '
                     f'font-weight="{weight}" text-decoration="{decoration}" fill="#111" '
                     f'opacity="{opacity}">{html.escape(text)}</text>')
    (ROOT / "docs/listing.svg").write_text("\n".join([*drawn, "</svg>", ""]))


def main():
    build("zollist")
    shutil.rmtree(PICTURES, ignore_errors=True)
    PICTURES.mkdir()
    driver = browser()
    try:
        check_faults_of(driver)
        look(driver, "markup", [(name, 0, 16, 0) for name in MARKUP])
        look(driver, "long", [(name, 32 - 32 * (i % 2), 32, i % 2) for i, name in enumerate(LONG)])
        look(driver, "many", [(f"Server {i}", i % 17, 16, i % 2) for i in range(300)])
        look(driver, "none", [])
        check_filters(driver)
        if sys.argv[1:] == ["--write-docs"]:
            draw_document(driver)
    finally:
        driver.quit()
    print(f"list-page: passed; the screenshots are in {PICTURES.relative_to(ROOT)}")


main()
