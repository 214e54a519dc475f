#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Checks a built site: links and pictures, man pages, and every page in a browser, light and dark.

Usage: check.py SITE MAN_FOLDER

In the browser (chromium, without a window) each page is shown as wide as a phone. Nothing may stick out, every text
must stand out from its ground, and the search must find what it is asked for.
"""

import contextlib
import html
import http.server
import json
import os
import pathlib
import queue
import re
import subprocess
import sys
import tempfile
import threading
import urllib.parse

HERE = pathlib.Path(__file__).resolve().parent
SEARCHES = [
    ["setPeerPublicKey", "include/Ipsec.h.html#IpsecDH::setPeerPublicKey"],
    ["writeSecrets", "include/Ipsec.h.html#writeSecrets"],
    ["OpenSSL's own reason", "docs/messages.html#openssls-own-reason"],
    ["bnSplit failed", "docs/messages.html#key-exchange"],
]
BROWSER = """chromium --headless --disable-gpu --disable-quic --no-first-run --disable-background-networking
  --disable-component-update --disable-sync --disable-dev-shm-usage --window-size=1000,800""".split()
LONGEST_LOOK = 300  # seconds, on a slow machine
MOST_SHOWN = 50


# --- Links ------------------------------------------------------------------------------------------------------------


def check_links(site):
    """Yields each link, script, sheet and picture that is not there, and each id that is there twice."""
    pages = {path: path.read_text() for path in site.rglob("*.html")}
    ids = {path: re.findall(r'\bid="([^"]+)"', text) for path, text in pages.items()}
    for path, text in pages.items():
        place = path.relative_to(site)
        yield from (f"{place}: the id {each} is there twice" for each in set(ids[path]) if ids[path].count(each) > 1)
        for target in re.findall(r'\b(?:href|src)="([^"]*)"', text):
            target = urllib.parse.unquote(html.unescape(target))
            if re.match(r"(https?|data|mailto):", target):
                continue
            file, _, fragment = target.partition("#")
            led = pathlib.Path(os.path.normpath(path.parent / file)) if file else path
            if not led.is_file():
                yield f"{place}: a link leads nowhere: {target}"
            elif fragment and fragment not in map(html.unescape, ids.get(led, [])):
                yield f"{place}: nothing has the id of the link {target}"


# --- Man pages --------------------------------------------------------------------------------------------------------


def check_man_pages(folder):
    done = subprocess.run(
        ["mandoc", "-T", "lint", "-W", "warning", *sorted(folder.glob("*.3"))], capture_output=True, text=True
    )
    # A page has no date: two builds of one tree would differ by it.
    return [line for line in (done.stdout + done.stderr).splitlines() if "missing date" not in line]


# --- The browser ------------------------------------------------------------------------------------------------------


class Handler(http.server.SimpleHTTPRequestHandler):
    def do_GET(self):
        if self.path != "/check":
            super().do_GET()
            return
        body = self.server.check_page.encode()
        self.send_response(200)
        self.send_header("Content-Type", "text/html")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def do_POST(self):
        self.server.results.put(json.loads(self.rfile.read(int(self.headers["Content-Length"]))))
        self.send_response(204)
        self.end_headers()

    def log_message(self, *_):
        pass


@contextlib.contextmanager
def served(site, dark):
    pages = sorted(str(path.relative_to(site)) for path in site.rglob("*.html"))
    server = http.server.ThreadingHTTPServer(
        ("127.0.0.1", 0), lambda *arguments: Handler(*arguments, directory=str(site))
    )
    values = f"const pages = {json.dumps(['/' + page for page in pages])}, searches = {json.dumps(SEARCHES)};"
    script = f"{values}\nconst wantsDark = {json.dumps(dark)};\n{(HERE / 'browser.js').read_text()}"
    server.check_page = f"<!DOCTYPE html><meta charset=utf-8><link rel=icon href=data:,><body><script>{script}</script>"
    server.results = queue.Queue()
    thread = threading.Thread(target=server.serve_forever)
    thread.start()
    try:
        yield server
    finally:
        server.shutdown()
        thread.join()
        server.server_close()


def look(site, dark):
    """Returns what the browser reports."""
    with tempfile.TemporaryDirectory() as profile, served(site, dark) as server:
        command = [*BROWSER, f"--user-data-dir={profile}", f"--blink-settings=preferredColorScheme={0 if dark else 1}"]
        if os.geteuid() == 0:
            command.append("--no-sandbox")
        url = f"http://127.0.0.1:{server.server_address[1]}/check"
        # It goes on until it is told to end, and its own log is about the machine that it runs on.
        browser = subprocess.Popen([*command, "--remote-debugging-port=0", url], stderr=subprocess.DEVNULL)
        try:
            return server.results.get(timeout=LONGEST_LOOK)
        except queue.Empty:
            return {"breaches": ["the browser did not report"], "looked": 0}
        finally:
            browser.terminate()
            browser.wait()


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    site, manual = (pathlib.Path(name).resolve() for name in sys.argv[1:])
    breaches = [*check_links(site), *check_man_pages(manual)]
    texts = []
    for dark in (False, True):
        report = look(site, dark)
        breaches += [f"{'dark' if dark else 'light'}: {each}" for each in report["breaches"]]
        texts.append(report["looked"])
    for breach in breaches[:MOST_SHOWN]:
        print(breach)
    if breaches or not all(texts):
        print(f"{len(breaches)} breaches")
        return 1
    pages, manuals = len(list(site.rglob("*.html"))), len(list(manual.glob("*.3")))
    print(
        f"{pages} pages, {manuals} man pages, no dead link; {texts[0]} texts seen in the light, {texts[1]} in the dark"
    )
    return 0


if __name__ == "__main__":
    sys.exit(main())
