#!/usr/bin/env python3
"""velphone.exe's window under Wine, on an X display of its own (Xvfb), driven
from Linux with xdotool and read back with screenshots, OCR and the clipboard.

One run, in order: the phone starts with a seeded peer-to-peer account and
WAV sound; each page is shown by its tab, photographed and recognised; the
options page's encryption and NAT settings are opened and ICE stored; keypad
clicks put digits in the number field; Close hides the window to the tray,
with a balloon, while the phone keeps running; a second start with a sip: URL
shows the window again and calls a native velphone-cli, which answers; both
hear the other's sentence; the HangUp button ends the call, which Recent then
lists; the Call button with an empty number redials and Esc hangs up;
"velphone.exe --exit" ends the phone, which writes what it heard.

Every program it starts (Xvfb, wineserver, the phones) it also stops.
"""
import argparse
import contextlib
import os
import shutil
import socket
import subprocess
import sys
import time

WINE = "/usr/lib/wine/wine64"
WINESERVER = "/usr/lib/wine/wineserver"
TITLE = "Velmora Phone"
CLIENT = (320, 560)
TABS = {"phone": 0, "recent": 1, "contacts": 2, "options": 3}
# Words OCR must find on each page (any one, case-blind): none is on the others.
PAGE_WORDS = {
    "phone": ["redials", "wxyz"],
    "recent": ["no calls", "clear"],
    "contacts": ["add contact", "no contacts"],
    "options": ["provider", "start"],
}
KEYS = "123456789*0#"
LINE_1 = (10, 92, 156, 128)
STATUS = (0, 532, 320, 560)
TOOL_CALL, TOOL_HANGUP = 0, 1


class Failure(Exception):
    pass


def log(text):
    print(f"window_test: {text}", flush=True)


def wait_until(what, check, seconds, interval=0.15):
    """Polls check() until it returns something true; fails after `seconds`."""
    deadline = time.monotonic() + seconds
    while True:
        value = check()
        if value:
            return value
        if time.monotonic() > deadline:
            raise Failure(f"timed out after {seconds} s waiting for {what}")
        time.sleep(interval)


def windows_path(path):
    """Wine's drive Z: is the Linux root."""
    return "Z:" + os.path.abspath(path).replace("/", "\\")


def free_port():
    """A port free for both UDP and TCP on loopback (SIP listens on both)."""
    for _ in range(50):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
            udp.bind(("127.0.0.1", 0))
            port = udp.getsockname()[1]
            with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as tcp:
                try:
                    tcp.bind(("127.0.0.1", port))
                except OSError:
                    continue
                return port
    raise Failure("no free port on 127.0.0.1")


def speech(path, sentence):
    raw = path + ".raw.wav"
    subprocess.run(["espeak-ng", "-w", raw, sentence], check=True)
    subprocess.run(["sox", raw, "-r", "8000", "-c", "1", "-b", "16", path], check=True)
    os.remove(raw)


class Desktop:
    """Xvfb on a free display and a wineserver for one prefix; both stopped on exit."""

    def __init__(self, prefix, logs):
        self.prefix, self.logs = prefix, logs
        self.xvfb = None
        self.env = None
        self.processes = []

    def __enter__(self):
        try:
            return self.start_up()
        except BaseException:
            self.__exit__()
            raise

    def start_up(self):
        read_end, write_end = os.pipe()
        self.xvfb = subprocess.Popen(
            ["Xvfb", "-displayfd", str(write_end), "-screen", "0", "800x700x24", "-nolisten", "tcp"],
            pass_fds=[write_end], stdout=subprocess.DEVNULL, stderr=open(os.path.join(self.logs, "xvfb.log"), "w"))
        os.close(write_end)
        with os.fdopen(read_end) as numbers:
            display = numbers.readline().strip()
        if not display:
            raise Failure("Xvfb did not start (see xvfb.log)")
        self.env = dict(os.environ, DISPLAY=":" + display, WINEPREFIX=self.prefix, WINEDEBUG="-all",
                        WINEDLLOVERRIDES="mscoree,mshtml,winemenubuilder.exe=")
        log(f"X display :{display}, Wine prefix {self.prefix}")
        os.makedirs(self.prefix, exist_ok=True)
        subprocess.run([WINESERVER, "-p"], env=self.env, check=True)
        if not os.path.exists(os.path.join(self.prefix, "system.reg")):
            log("creating the Wine prefix (once)")
            subprocess.run([WINE, "wineboot", "-i"], env=self.env, timeout=300, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL, check=True)
        return self

    def __exit__(self, *_):
        for process in self.processes:
            if process.poll() is None:
                process.kill()
        if self.env:
            subprocess.run([WINESERVER, "-k"], env=self.env, stderr=subprocess.DEVNULL)
            with contextlib.suppress(subprocess.TimeoutExpired):
                subprocess.run([WINESERVER, "-w"], env=self.env, timeout=30)
        for process in self.processes:
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(timeout=10)
        if self.xvfb:
            self.xvfb.terminate()
            self.xvfb.wait(timeout=10)

    def start(self, args, log_name, env=None):
        process = subprocess.Popen(args, env=env or self.env, stdin=subprocess.DEVNULL,
                                   stdout=open(os.path.join(self.logs, log_name), "w"), stderr=subprocess.STDOUT)
        self.processes.append(process)
        return process

    def shoot(self, path, left, top, width, height):
        self.x("import", "-silent", "-window", "root", "-crop", f"{width}x{height}+{left}+{top}", "+repage", path)
        return path

    def balloon(self, path):
        """A screenshot of the tray's balloon, if one shows: Wine's own tray (no
        tray on a bare X display) is a named explorer.exe window, its balloon an
        unnamed one."""
        for window in self.x("xdotool", "search", "--onlyvisible", "--class", "explorer.exe", check=False).split():
            if self.x("xdotool", "getwindowname", window, check=False).strip():
                continue
            try:  # it may go between the search and here
                geometry = dict(line.split("=", 1) for line in
                                self.x("xdotool", "getwindowgeometry", "--shell", window).split())
                return window, self.shoot(path, *(int(geometry[k]) for k in ("X", "Y", "WIDTH", "HEIGHT")))
            except Failure:
                continue
        return None

    def x(self, *args, check=True):
        """An X tool's output, run on this display."""
        result = subprocess.run(args, env=self.env, capture_output=True, text=True, timeout=30)
        if check and result.returncode != 0:
            raise Failure(f"{' '.join(args)} failed: {result.stderr.strip()}")
        return result.stdout


class Window:
    """The phone's top-level X window; points are in client-area pixels."""

    def __init__(self, desktop):
        self.desktop = desktop
        self.id = None

    def visible(self):
        found = self.desktop.x("xdotool", "search", "--onlyvisible", "--name", f"^{TITLE}$", check=False).split()
        if found:
            self.id = found[0]
        return bool(found)

    def client_origin(self):
        geometry = dict(line.split("=", 1) for line in
                        self.desktop.x("xdotool", "getwindowgeometry", "--shell", self.id).split())
        x, y, width, height = (int(geometry[k]) for k in ("X", "Y", "WIDTH", "HEIGHT"))
        if width < CLIENT[0] or height < CLIENT[1]:
            raise Failure(f"the window is {width}x{height}, smaller than its {CLIENT[0]}x{CLIENT[1]} client area")
        # Without a window manager the X window is the whole window: any frame
        # Wine draws itself is an even border with the caption on top.
        border = (width - CLIENT[0]) // 2
        return x + border, y + height - CLIENT[1] - border

    def click(self, x, y):
        left, top = self.client_origin()
        self.desktop.x("xdotool", "mousemove", str(left + x), str(top + y), "click", "1")

    def keys(self, *keys):
        self.desktop.x("xdotool", "key", "--clearmodifiers", *keys)

    def screenshot(self, path):
        left, top = self.client_origin()
        return self.desktop.shoot(path, left, top, *CLIENT)


def text_of(path, region=None):
    """OCR of a screenshot or a region (left, top, right, bottom) of it, upscaled 3x
    (small UI text reads far better), lower case."""
    big = path + ".ocr.png"
    crop = []
    if region:
        left, top, right, bottom = region
        crop = ["-crop", f"{right - left}x{bottom - top}+{left}+{top}", "+repage"]
    subprocess.run(["convert", path, *crop, "-resize", "300%", "-colorspace", "Gray", big],
                   check=True)
    result = subprocess.run(["tesseract", big, "stdout", "--psm", "6" if region else "11"],
                            capture_output=True, text=True)
    os.remove(big)
    return " ".join(result.stdout.lower().split())


def colours(path):
    return int(subprocess.run(["convert", path, "-format", "%k", "info:"], capture_output=True, text=True,
                              check=True).stdout)


def shows(window, path, words, region=None, seconds=20):
    """Photographs the window until OCR (of a region of it) finds one of the words."""
    seen = {}

    def check():
        window.screenshot(path)
        seen["text"] = text_of(path, region)
        # Spaces are where OCR errs most: compare without them.
        return any(word.replace(" ", "") in seen["text"].replace(" ", "") for word in words)

    try:
        wait_until(f"one of {words} on screen", check, seconds, interval=0.3)
    except Failure as failure:
        raise Failure(f"{failure}; OCR read: {seen.get('text')!r} ({path})") from None


def seed(folder, user):
    """A peer-to-peer account (no domain: nothing to register) and a phone that starts on."""
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "account.txt"), "w") as account:
        account.write(f"user={user}\n")
    with open(os.path.join(folder, "settings.txt"), "w") as settings:
        settings.write("phoneOn=1\ncloseToTray=1\n")


def speech_match(native, heard, spoken):
    result = subprocess.run([os.path.join(native, "tools", "speech_match"), heard, spoken],
                            capture_output=True, text=True)
    return result.returncode == 0, (result.stdout + result.stderr).strip()


def run(args):
    native = args.native_build
    cli = os.path.join(native, "app", "velphone-cli")
    for needed in (cli, os.path.join(native, "tools", "speech_match")):
        if not os.access(needed, os.X_OK):
            raise Failure(f"{needed} is missing: build the native default preset first "
                          "(cmake --preset default && cmake --build --preset default), "
                          "or set VELMORA_NATIVE_BUILD_DIR to its build folder")
    for tool in ("Xvfb", "xdotool", "xwininfo", "xclip", "import", "convert", "tesseract", "espeak-ng", "sox"):
        if not shutil.which(tool):
            raise Failure(f"{tool} is not installed (bash scripts/setup installs it)")

    work = args.work
    shutil.rmtree(os.path.join(work, "run"), ignore_errors=True)
    run_dir = os.path.join(work, "run")
    os.makedirs(run_dir)
    os.makedirs(args.screenshots, exist_ok=True)
    log(f"logs in {run_dir}, screenshots in {args.screenshots}")
    alice_wav, bob_wav = os.path.join(run_dir, "alice.wav"), os.path.join(run_dir, "bob.wav")
    speech(alice_wav, "Hello Bob, this is Alice calling from the window phone on Windows.")
    speech(bob_wav, "Hi Alice, Bob speaking from the terminal phone. I hear you well.")
    window_heard, bob_heard = os.path.join(run_dir, "window-heard.wav"), os.path.join(run_dir, "bob-heard.wav")
    seed(os.path.join(run_dir, "alice"), "alice")
    port, bob_port = free_port(), free_port()
    while bob_port == port:
        bob_port = free_port()

    with Desktop(os.path.join(work, "wineprefix"), run_dir) as desktop:
        phone = desktop.start([WINE, args.exe, "--data", windows_path(os.path.join(run_dir, "alice")),
                               "--play", windows_path(alice_wav), "--record-heard", windows_path(window_heard),
                               "--bind", "127.0.0.1", "--port", str(port)], "velphone.log")
        window = Window(desktop)
        started = time.monotonic()
        wait_until("the phone's window", window.visible, 120)
        log(f"window {window.id} up after {time.monotonic() - started:.1f} s")
        shot = lambda name: os.path.join(args.screenshots, name + ".png")

        # The phone starts on at once, on the phone page; then each page by its tab.
        shows(window, shot("phone"), [f"ready (peer to peer): sip:alice@127.0.0.1:{port}"], STATUS, seconds=30)
        for page in ("phone", "recent", "contacts", "options"):
            window.click(TABS[page] * 80 + 40, 16)
            shows(window, shot(page), PAGE_WORDS[page])
            if colours(shot(page)) < 8:
                raise Failure(f"the {page} page is nearly blank ({shot(page)})")
            log(f"{page} page: {shot(page)}")
        # On the options page the encryption and NAT settings swap in under
        # the account; ticking ICE and pressing Done stores it.
        window.click(160, 32 + 454)
        shows(window, shot("options-privacy"), ["turn relay", "media path"])
        window.click(20, 32 + 360)
        window.click(160, 32 + 454)
        settings_file = os.path.join(run_dir, "alice", "settings.txt")
        wait_until("ice=1 in the stored settings", lambda: "ice=1" in open(settings_file).read().split(), 10)
        log(f"encryption and NAT settings stored from the options page: {shot('options-privacy')}")
        window.click(TABS["phone"] * 80 + 40, 16)

        # Keypad clicks type into the number field; Ctrl+A, Ctrl+C copy it out.
        digits = "2580*#"
        for key in digits:
            index = KEYS.index(key)
            window.click(10 + 100 * (index % 3) + 50, 136 + 72 * (index // 3) + 36)
        window.click(160, 62)
        window.keys("ctrl+a", "ctrl+c")
        clipboard = lambda: desktop.x("xclip", "-o", "-selection", "clipboard", check=False).strip()
        try:
            wait_until(f"{digits} on the clipboard", lambda: clipboard() == digits, 10)
        except Failure as failure:
            raise Failure(f"{failure}: the number field copied {clipboard()!r}") from None
        window.keys("BackSpace")
        log("keypad clicks reach the number field")

        # Close hides the window to the tray; the phone keeps running.
        window.keys("alt+F4")
        wait_until("the window to hide on Close", lambda: not window.visible(), 15)
        # Hidden, not destroyed: a window that closed would leave no X window behind.
        state = desktop.x("xwininfo", "-id", window.id, check=False)
        if "IsUnMapped" not in state or phone.poll() is not None:
            raise Failure("Close ended the phone instead of hiding it to the tray")
        balloon_shot = os.path.join(run_dir, "balloon.png")
        balloon = wait_until("the tray's balloon", lambda: desktop.balloon(balloon_shot), 10)
        if "keeps running" not in text_of(balloon_shot):
            raise Failure(f"the tray's balloon does not say the phone keeps running: {text_of(balloon_shot)!r}")
        desktop.x("xdotool", "mousemove", "--window", balloon[0], "20", "20", "click", "1")
        wait_until("the balloon to go when clicked", lambda: not desktop.balloon(balloon_shot), 10)
        log("Close hid the window to the tray with a balloon; the phone still runs")

        # A second start with a URL shows the window and dials the terminal phone.
        bob_log = os.path.join(run_dir, "bob.log")
        bob_script = os.path.join(run_dir, "bob.txt")
        with open(bob_script, "w") as script:
            # Two calls; "recent" moves the point wait-for looks after past the first.
            script.write("wait-for line 1: Talking within 120\nwait-for line 1: Call ended within 120\nrecent\n"
                         "wait-for line 1: Talking within 60\nwait-for line 1: Call ended within 60\nquit\n")
        bob = desktop.start([cli, "--data", os.path.join(run_dir, "bob"), "--user", "bob", "--bind", "127.0.0.1",
                             "--port", str(bob_port), "--auto-answer", "--play", bob_wav, "--record-heard",
                             bob_heard, "--script", bob_script], "bob.log", env=dict(os.environ))
        bob_says = lambda text, times=1: open(bob_log).read().count(text) >= times
        wait_until("velphone-cli to start", lambda: bob_says("Ready (peer to peer)"), 20)
        second = desktop.start([WINE, args.exe, f"sip:bob@127.0.0.1:{bob_port}"], "velphone-second.log")
        wait_until("the second start to hand over and quit", lambda: second.poll() is not None, 60)
        wait_until("the window to come back for the second start", window.visible, 15)
        wait_until("velphone-cli to answer the window's call", lambda: bob_says("line 1: Talking"), 30)
        talking = time.monotonic()
        # Both sentences are about 4 s long: let each phone hear the other's twice.
        wait_until("the call's talking time", lambda: time.monotonic() - talking > 9, 15)
        shows(window, shot("call"), ["talking"], LINE_1)
        log(f"in a call with velphone-cli: {shot('call')}")
        window.click(10 + 300 * (TOOL_HANGUP + 0.5) / 9, 452)
        wait_until("velphone-cli to see the call end", lambda: bob_says("line 1: Call ended"), 15)
        window.click(TABS["recent"] * 80 + 40, 16)
        shows(window, os.path.join(run_dir, "recent-after.png"), ["bob", "sip:b"])
        log("the call is in the Recent list")

        # With the number field empty the Call button redials; Esc hangs up.
        window.click(TABS["phone"] * 80 + 40, 16)
        window.click(10 + 300 * (TOOL_CALL + 0.5) / 9, 452)
        wait_until("the Call button to redial velphone-cli", lambda: bob_says("line 1: Talking", 2), 30)
        window.keys("Escape")
        wait_until("Esc to end the redialed call", lambda: bob_says("line 1: Call ended", 2), 15)
        wait_until("velphone-cli to quit", lambda: bob.poll() is not None, 15)
        log("the Call button redials, Esc hangs up")

        # --exit from another start ends the phone, which writes what it heard.
        desktop.start([WINE, args.exe, "--exit"], "velphone-exit.log")
        wait_until("the phone to quit for --exit", lambda: phone.poll() is not None, 30)
        log(f"--exit ended the phone (exit code {phone.returncode})")

    problems = []
    if bob.returncode != 0:
        problems.append(f"velphone-cli exited with {bob.returncode} (see {bob_log})")
    for heard, spoken, who in ((bob_heard, alice_wav, "velphone-cli heard the window"),
                               (window_heard, bob_wav, "the window heard velphone-cli")):
        if not os.path.exists(heard):
            problems.append(f"{who}: no recording at {heard}")
            continue
        ok, score = speech_match(native, heard, spoken)
        log(f"{who}: match {score}")
        if not ok:
            problems.append(f"{who}: the match {score} is below 0.8")
    if problems:
        raise Failure("; ".join(problems))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--exe", required=True, help="velphone.exe")
    parser.add_argument("--native-build", required=True, help="the native build with velphone-cli and speech_match")
    parser.add_argument("--work", required=True, help="folder for the Wine prefix, logs and recordings")
    parser.add_argument("--screenshots", required=True, help="folder the screenshots are saved in")
    args = parser.parse_args()
    for name in ("exe", "native_build", "work", "screenshots"):
        setattr(args, name, os.path.abspath(getattr(args, name)))
    try:
        run(args)
    except (Failure, subprocess.CalledProcessError, subprocess.TimeoutExpired) as failure:
        log(f"FAILED: {failure}")
        run_dir = os.path.join(args.work, "run")
        for name in ("velphone.log", "bob.log"):
            path = os.path.join(run_dir, name)
            if os.path.exists(path) and os.path.getsize(path):
                log(f"--- {path}:\n" + open(path, errors="replace").read()[-3000:])
        return 1
    log("passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
