"""The sandbox's operator console in a real browser (headless Chromium through Selenium), with
kqvisitor-chat as the visitor: sign in, see the visitor's chat appear, answer it over XMPP and
over HTTP, see the visitor's lines live and an upload inline, end the chat; a wrong password;
markup from a visitor shown as text; the script answering again once the page is closed.

Run by CTest with KQ_SANDBOX and KQ_CHAT_TOOL naming the programs. With KQ_CONSOLE_SCREENSHOT
set, the XMPP chat leaves a screenshot of the console mid-chat at that path.
"""

import json
import os
import queue
import shutil
import struct
import ssl
import subprocess
import tempfile
import threading
import time
import unittest
import urllib.error
import urllib.request
import zlib

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import WebDriverWait

SANDBOX = os.environ["KQ_SANDBOX"]
CHAT_TOOL = os.environ["KQ_CHAT_TOOL"]
PATIENCE = 30  # seconds; every wait below ends as soon as its condition holds
MARKUP = "<img src=x onerror=alert(1)>"
IMAGE_WIDTH = 160


def picture():
    """A PNG of IMAGE_WIDTH x 90 pixels: a blue to green gradient."""
    def chunk(kind, data):
        return (struct.pack(">I", len(data)) + kind + data +
                struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF))
    rows = b"".join(b"\x00" + bytes(v for x in range(IMAGE_WIDTH)
                                     for v in (40, 90 + x // 2, 200 - y))
                    for y in range(90))
    header = struct.pack(">IIBBBBB", IMAGE_WIDTH, 90, 8, 2, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows)) +
            chunk(b"IEND", b""))


class Child:
    """A program whose output lines are read as they come."""

    def __init__(self, arguments, environment=None):
        self.process = subprocess.Popen(
            arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            text=True, env={**os.environ, **(environment or {})})
        self.lines = []
        self.arrived = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            self.arrived.put(line.rstrip("\n"))
        self.arrived.put(None)

    def wait_for(self, predicate, what):
        """The first line (old or new) for which `predicate` holds."""
        deadline = time.monotonic() + PATIENCE
        while True:
            for line in self.lines:
                if predicate(line):
                    return line
            try:
                line = self.arrived.get(timeout=max(0.0, deadline - time.monotonic()))
            except queue.Empty:
                line = None
            if line is None:
                raise AssertionError("no line with " + what + " in:\n" + "\n".join(self.lines))
            self.lines.append(line)

    def send(self, text):
        self.process.stdin.write(text + "\n")
        self.process.stdin.flush()

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
        self.process.wait(timeout=PATIENCE)
        self.process.stdin.close()
        self.process.stdout.close()


class ConsoleTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="kqconsole-")
        self.sandbox = Child([SANDBOX, "--data", self.folder, "--poll-interval", "0.05",
                              "--console-keepalive", "0.5"])
        address = self.sandbox.wait_for(lambda line: "operator console on " in line, "the console")
        self.console = address.split("operator console on ")[1].split(" ")[0]
        self.sandbox.wait_for(lambda line: line.endswith(" ready"), "ready")
        self.sandbox.wait_for(lambda line: "Omar (42) is online" in line, "Omar online")
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage",
                         "--window-size=1280,800", "--lang=en-US"):
            options.add_argument(argument)
        options.accept_insecure_certs = True  # the sandbox's own authority
        self.browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.visitors = []

    def tearDown(self):
        self.browser.quit()
        for visitor in self.visitors:
            visitor.stop()
        self.sandbox.stop()
        shutil.rmtree(self.folder, ignore_errors=True)

    # --- The page ------------------------------------------------------------------------

    def until(self, condition, what):
        return WebDriverWait(self.browser, PATIENCE).until(lambda _: condition(), message=what)

    def sign_in(self, operator_id, password):
        self.browser.get(self.console)
        self.until(lambda: self.browser.find_element(By.ID, "signin-id").is_displayed(),
                   "the sign-in form")
        self.browser.find_element(By.ID, "signin-id").send_keys(operator_id)
        self.browser.find_element(By.ID, "signin-password").send_keys(password + Keys.ENTER)

    def transcript(self):
        """(sender, text) of each line shown, read at once: the list is redrawn on changes."""
        return [tuple(line) for line in self.browser.execute_script(
            "return [...document.querySelectorAll('#transcript li[data-sender]')]"
            ".map(line => [line.dataset.sender, line.querySelector('.text').textContent]);")]

    def answer(self, text):
        box = self.browser.find_element(By.ID, "answer")
        box.send_keys(text + Keys.ENTER)

    # --- The visitor ---------------------------------------------------------------------

    def visitor(self, *arguments):
        settings = {"KQVISITOR_CONFIG": os.path.join(self.folder, "config.json")}
        visitor = Child([CHAT_TOOL, "chat", "--domain", "shop.example", "--json", "--linger", "30",
                         "--name", "Ann", *arguments], settings)
        self.visitors.append(visitor)
        visitor.wait_for(lambda line: '"event":"started"' in line, "the chat's start")
        return visitor

    def upload(self):
        path = os.path.join(self.folder, "parcel.png")
        with open(path, "wb") as image:
            image.write(picture())
        settings = {**os.environ, "KQVISITOR_CONFIG": os.path.join(self.folder, "config.json")}
        result = subprocess.run([CHAT_TOOL, "upload", path], capture_output=True, text=True,
                                env=settings, timeout=PATIENCE, check=True)
        return json.loads(result.stdout.splitlines()[-1])["link"]

    def said(self, visitor, sender, text):
        return visitor.wait_for(lambda line: line.startswith('{"event":"message"') and
                                json.loads(line)["sender"] == sender and
                                json.loads(line)["text"] == text, sender + ": " + text)

    # --- Tests ---------------------------------------------------------------------------

    def chat_through_the_console(self, transport_arguments, screenshot=None):
        self.sign_in("42", "secret")
        self.until(lambda: self.browser.find_element(By.ID, "desk").is_displayed(), "the desk")
        visitor = self.visitor(*transport_arguments)
        visitor.send("Where is my order?")
        visitor.send(MARKUP)
        # The chat appears live, with its unread lines.
        self.until(lambda: self.browser.find_elements(By.CSS_SELECTOR, "#chats li"), "a chat")
        self.until(lambda: self.browser.execute_script(
            "return document.querySelector('#chats li .unread')?.textContent") == "2",
                   "two unread")
        self.browser.find_element(By.CSS_SELECTOR, "#chats li").click()
        self.until(lambda: len(self.transcript()) == 2, "the visitor's two lines")
        self.assertEqual(self.transcript(), [("visitor", "Where is my order?"),
                                             ("visitor", MARKUP)])
        self.assertEqual(self.browser.find_elements(By.CSS_SELECTOR, "#transcript img"), [],
                         "the visitor's markup is text, not an image")
        self.assertIn("Hello, I am Omar",
                      self.browser.find_element(By.CSS_SELECTOR, "#transcript .greeting").text)

        self.answer("It ships today.")
        self.said(visitor, "Omar", "It ships today.")
        # A file the visitor uploads and sends shows inline.
        link = self.upload()
        visitor.send(link)
        self.until(lambda: self.browser.find_elements(By.CSS_SELECTOR, "#transcript img"),
                   "the uploaded image")
        image = self.browser.find_element(By.CSS_SELECTOR, "#transcript img")
        self.until(lambda: self.browser.execute_script(
            "return arguments[0].complete && arguments[0].naturalWidth", image) == IMAGE_WIDTH,
                   "the image loaded")
        visitor.send("Thanks!")
        self.until(lambda: self.transcript()[-1] == ("visitor", "Thanks!"), "a line live")
        if screenshot:
            self.browser.save_screenshot(screenshot)

        self.browser.find_element(By.ID, "end").click()
        visitor.wait_for(lambda line: line == '{"event":"room","status":1}', "the chat's end")
        self.assertEqual(visitor.process.wait(timeout=PATIENCE), 0, "\n".join(visitor.lines))
        self.until(lambda: "ended" in self.browser.find_element(By.ID, "chat-title").text,
                   "the chat shown as ended")
        self.assertFalse(self.browser.find_element(By.ID, "answer-form").is_displayed())

    def test_an_operator_chats_with_a_visitor_over_xmpp(self):
        self.chat_through_the_console([], os.environ.get("KQ_CONSOLE_SCREENSHOT"))

    def test_an_operator_chats_with_a_visitor_over_http(self):
        self.chat_through_the_console(["--http"])

    def test_a_wrong_password_is_refused_and_the_calls_need_a_session(self):
        self.sign_in("42", "not-the-password")
        error = self.browser.find_element(By.ID, "signin-error")
        self.until(lambda: error.text, "the refusal")
        self.assertEqual(error.text, "Wrong operator id or password.")
        self.assertFalse(self.browser.find_element(By.ID, "desk").is_displayed())
        self.assertIsNone(self.browser.get_cookie("kqconsole"), "no session")
        unverified = ssl.create_default_context()
        unverified.check_hostname = False
        unverified.verify_mode = ssl.CERT_NONE
        for path in ("chats", "chats/1", "events", "me"):
            with self.assertRaises(urllib.error.HTTPError) as refused:
                urllib.request.urlopen(self.console + "api/" + path, context=unverified,
                                       timeout=PATIENCE)
            self.assertEqual(refused.exception.code, 401, path)

    def test_going_offline_sends_visitors_to_the_offline_message(self):
        self.sign_in("42", "secret")
        online = self.until(lambda: self.browser.find_element(By.ID, "online"), "the switch")
        self.until(lambda: online.is_displayed() and online.is_selected(), "online")
        online.click()
        self.sandbox.wait_for(lambda line: "(42) is offline for new chats" in line, "offline")
        settings = {**os.environ, "KQVISITOR_CONFIG": os.path.join(self.folder, "config.json")}
        result = subprocess.run([CHAT_TOOL, "chat", "--domain", "shop.example", "--json"],
                                input="", capture_output=True, text=True, env=settings,
                                timeout=PATIENCE)
        self.assertEqual(result.returncode, 1, result.stdout)
        self.assertIn("No operator is online", result.stderr)

    def test_the_script_answers_again_once_the_operators_page_is_closed(self):
        self.sign_in("42", "secret")
        self.until(lambda: self.browser.find_element(By.ID, "desk").is_displayed(), "the desk")
        # The console's tab closed without signing out (another tab keeps the browser open).
        console = self.browser.current_window_handle
        self.browser.switch_to.new_window("tab")
        other = self.browser.current_window_handle
        self.browser.switch_to.window(console)
        self.browser.close()
        self.browser.switch_to.window(other)
        self.sandbox.wait_for(lambda line: "no page of operator 42 is open" in line,
                              "the closed page noticed")
        visitor = self.visitor("--http")
        visitor.send("Anyone there?")
        visitor.wait_for(lambda line: line.startswith('{"event":"message"') and
                         json.loads(line)["sender"] == "Omar", "the script's answer")


if __name__ == "__main__":
    unittest.main()
