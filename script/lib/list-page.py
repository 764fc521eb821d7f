#!/usr/bin/python3
"""Looks at the list's page in a real browser: with names that are markup, with 300 servers, and
with none; on a wide screen, on a phone, in the light and in the dark. Leaves pictures in
build/list-page.

    script/checks/list-page [--write-docs]      also draws docs/listing.svg anew"""

import re
import shutil
import subprocess
import sys
import tempfile

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

from lib import BUILD, ROOT, build, fail

PICTURES = BUILD / "list-page"
WIDTHS = {"wide": 1000, "phone": 360}
MARKUP = ["<script>window.hit=1</script>", '"><img src=x onerror=hit=1>', "</table></body>&amp;", "'"]
SAMPLE = [("Friday Garage", 7, 16, 1), ("Harn Tor Nights", 3, 32, 0), ("Rookies welcome", 0, 8, 0)]


def zollist(folder, path, query="", address="192.0.2.1"):
    environment = {
        "REQUEST_METHOD": "GET", "SCRIPT_NAME": path, "QUERY_STRING": query, "REMOTE_ADDR": address,
        "ZOLLIST_DATABASE": f"{folder}/list.sqlite", "ZOLLIST_ASK": "no",
        "HTTP_USER_AGENT": "ZOL/0.1 (master.example)",
    }  # fmt: skip
    done = subprocess.run([BUILD / "zollist"], env=environment, stdout=subprocess.PIPE, check=True)
    return done.stdout.split(b"\r\n\r\n", 1)[1].decode()


def page_of(servers):
    """The page of a list of (name, players, most, game type), as the program writes it."""
    with tempfile.TemporaryDirectory() as folder:
        for i, (name, players, most, game_type) in enumerate(servers):
            name = "".join(f"%{byte:02x}" for byte in name.encode("latin-1"))
            port = 16309 + i % 50
            query = f"name={name}&p={players}&mp={most}&gt={game_type}&port={port}&v=40&os=lin"
            if "1" not in zollist(folder, "/cgi-bin/zol.pl", query, f"192.0.2.{1 + i // 50}"):
                fail(f"not listed: {query}")
        return zollist(folder, "/")


def browser():
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in ("headless=new", "no-sandbox", "disable-gpu", "disable-dev-shm-usage"):
        options.add_argument(f"--{argument}")
    return webdriver.Chrome(options=options, service=Service("/usr/bin/chromedriver"))


def command(driver, name, **parameters):
    driver.execute_cdp_cmd(f"Emulation.{name}", parameters)


def look(driver, case, servers, shade):
    file = PICTURES / f"{case}.html"
    if not file.exists():
        file.write_text(page_of(servers))
    driver.get(file.as_uri())
    command(driver, "setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": shade}])
    for name, width in WIDTHS.items():
        command(driver, "setDeviceMetricsOverride", width=width, height=800, deviceScaleFactor=1,
                mobile=name == "phone")  # fmt: skip
        across = driver.execute_script("return document.documentElement.scrollWidth")
        if across > width:
            fail(f"{case} takes {across} pixels of {width} ({name})")
        driver.save_screenshot(str(PICTURES / f"{case}-{name}-{shade}.png"))
    if driver.execute_script("return window.hit !== undefined"):
        fail(f"a name has run as a script in {case}")
    cells = "[...document.querySelectorAll('td:first-child')]"
    names = driver.execute_script(f"return {cells}.map(cell => cell.textContent)")
    wanted = [name[:31] for name, *_ in servers]
    if sorted(names) != sorted(wanted):
        fail(f"{case} shows {names}")


def draw_document():
    """The page itself inside an SVG, in the light."""
    page = page_of(SAMPLE)
    style = re.search(r"<style>.*?</style>", page, re.S)[0].replace("light dark", "light")
    body = re.search(r"<body>(.*)</body>", page, re.S)[1]
    (ROOT / "docs/listing.svg").write_text(
        '<svg xmlns="http://www.w3.org/2000/svg" width="860" height="260">\n'
        '<rect width="860" height="260" rx="6" fill="#fff" stroke="#8886"/>\n'
        '<foreignObject width="860" height="260"><div xmlns="http://www.w3.org/1999/xhtml" '
        f'style="padding:0 1rem;color:#111;font:16px/1.5 sans-serif">\n{style}\n{body}</div>'
        "</foreignObject>\n</svg>\n"
    )


def main():
    build("zollist")
    shutil.rmtree(PICTURES, ignore_errors=True)
    PICTURES.mkdir()
    driver = browser()
    try:
        for shade in ("light", "dark"):
            look(driver, "markup", [(name, 0, 16, 0) for name in MARKUP], shade)
            look(driver, "many", [(f"Server {i}", i % 17, 16, i % 2) for i in range(300)], shade)
            look(driver, "none", [], shade)
    finally:
        driver.quit()
    if sys.argv[1:] == ["--write-docs"]:
        draw_document()
    print(f"list-page: well; the pictures are in {PICTURES.relative_to(ROOT)}")


main()
