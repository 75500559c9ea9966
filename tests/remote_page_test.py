#!/usr/bin/env python3
"""The remote page in a current browser (headless Chromium): a click on Next reaches the
slideshow's datagram port as action 1, and a file dropped on the page lands in the
drag-and-drop folder and in the page's list.

Usage: remote_page_test.py PATH-TO-vorsane-remote
Exits 77 (skipped) when Chromium, its driver or Selenium is missing."""

import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import WebDriverWait
except ImportError:
    print("python3-selenium is missing")
    sys.exit(77)

KEY = "page-key"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def find(*names):
    for name in names:
        path = shutil.which(name) or (name if os.path.exists(name) else None)
        if path:
            return path
    return None


def main():
    server_bin = sys.argv[1]
    chromium = find("chromium", "chromium-browser")
    driver_bin = find("chromedriver", "/usr/bin/chromedriver")
    if not chromium or not driver_bin:
        print("chromium or chromium-driver is missing")
        return 77

    home = tempfile.mkdtemp(prefix="remote-page-")
    conf = os.path.join(home, "conf")
    os.makedirs(conf)
    with open(os.path.join(conf, "preferences"), "w") as prefs:
        prefs.write("[main]\nversion=QFGLs6IVf1\n[remote]\nkey=%s\n" % KEY)
    with open(os.path.join(conf, "playlist"), "w") as playlist:
        playlist.write("#Vorsane playlist\nhttp://a.example/ 10\n")

    slideshow = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    slideshow.bind(("127.0.0.1", 54545))
    slideshow.settimeout(10)

    port = free_port()
    env = dict(os.environ, HOME=home)
    server = subprocess.Popen([server_bin, "--port", str(port), "--basepath", conf], env=env)
    browser = None
    try:
        deadline = time.time() + 10
        while time.time() < deadline:
            try:
                socket.create_connection(("127.0.0.1", port), timeout=1).close()
                break
            except OSError:
                time.sleep(0.1)

        options = webdriver.ChromeOptions()
        options.binary_location = chromium
        for flag in ("--headless", "--no-sandbox", "--disable-gpu",
                     "--disable-background-networking", "--no-first-run",
                     "--user-data-dir=" + os.path.join(home, "chromium")):
            options.add_argument(flag)
        browser = webdriver.Chrome(service=Service(driver_bin), options=options)
        browser.get("http://127.0.0.1:%d/?k=%s" % (port, KEY))
        wait = WebDriverWait(browser, 15)
        # The loop list is filled from the API: the cookie works and the scripts ran.
        wait.until(lambda b: len(b.find_elements(By.CSS_SELECTOR, "#loop option")) == 1)

        # Drain the screenshot requests the page sends on its own.
        browser.find_element(By.ID, "next").click()
        actions = []
        while 1 not in actions:
            actions.append(json.loads(slideshow.recv(4096).decode("latin-1"))["action"])
        assert set(actions) <= {1, 3}, actions

        browser.execute_script("""
            var transfer = new DataTransfer();
            transfer.items.add(new File(['dropped bytes'], 'dropped.png', {type: 'image/png'}));
            var drop = new DragEvent('drop', {dataTransfer: transfer, bubbles: true,
                                              cancelable: true});
            document.getElementById('drop').dispatchEvent(drop);
        """)
        wait.until(lambda b: "dropped.png" in b.find_element(By.ID, "files").text)
        with open(os.path.join(home, ".vorsane-kiosk", "dragndrop", "dropped.png"), "rb") as f:
            assert f.read() == b"dropped bytes"
        # No screenshot exists here, so the picture's 404 is expected; nothing else may fail.
        errors = [entry for entry in browser.get_log("browser")
                  if entry["level"] == "SEVERE" and "screen.png" not in entry["message"]]
        assert not errors, errors
        print("PASS")
        return 0
    finally:
        if browser:
            browser.quit()
        server.terminate()
        server.wait(10)
        slideshow.close()
        shutil.rmtree(home, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
