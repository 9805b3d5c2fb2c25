"""The weather app as a person sees it: under Xvfb against the local weather service, in
American English and in German, then with the service stopped. Each step takes a screenshot
(kept in --artefacts) and reads it back with OCR: the temperature in the locale's unit, the
German texts, the offline banner, and the cached forecast still on screen. While the first app
runs, the focus leaves its window and comes back, and a mock of the system's low-memory monitor
(on a private system bus) warns: the app must post will-resign-active, did-become-active and
the memory warning.

Exits 77 (skipped) when Xvfb, xwd or tesseract is missing."""
import argparse
import ctypes
import os
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import xwd_to_png  # noqa: E402

FAILURES = []


def check(condition, what):
    print(("ok   " if condition else "FAIL ") + what, flush=True)
    if not condition:
        FAILURES.append(what)


def start_xvfb():
    read_end, write_end = os.pipe()
    # GDK_SCALE=2 draws at twice the size, which OCR reads far more reliably.
    xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(write_end), "-screen", "0", "1600x1300x24", "-wr", "-nolisten", "tcp"],
                            pass_fds=[write_end], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    os.close(write_end)
    # Xvfb writes the number and the newline apart, and ends when the newline finds no reader.
    text = b""
    deadline = time.monotonic() + 20
    while not text.endswith(b"\n") and time.monotonic() < deadline:
        ready, _, _ = select.select([read_end], [], [], 1)
        chunk = os.read(read_end, 16) if ready else b""
        if ready and not chunk:
            break
        text += chunk
    os.close(read_end)
    display = text.decode().strip()
    if not display:
        xvfb.kill()
        raise SystemExit("Xvfb did not start")
    return xvfb, ":" + display


def start_service(kpcore, prefix=()):
    service = subprocess.Popen(list(prefix) + [kpcore, "serve", "--port", "0", "--quiet"], stdout=subprocess.PIPE,
                               text=True)
    ready, _, _ = select.select([service.stdout], [], [], 20)
    base = service.stdout.readline().strip() if ready else ""
    if not base.startswith("http://"):
        service.kill()
        raise SystemExit("kpcore serve did not start")
    return service, base


class App:
    """One run of the app, reading its report lines: `drawn` and `phases` hold, by name, the
    milliseconds from the spawn and the process's CPU milliseconds; `notifications` the
    application notifications it received, in order."""

    def __init__(self, program, base, env, prefix=(), notifications=False):
        self.started = time.monotonic_ns()
        self.process = subprocess.Popen(
            list(prefix) + [program, "--base", base, "--latitude", "52.37", "--longitude", "4.90", "--place", "Amsterdam",
             "--report-timing"] + (["--report-notifications"] if notifications else []),
            env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.drawn = {}
        self.phases = {}
        self.notifications = []
        self.pending = b""

    def read_until(self, done, timeout):
        """Reads report lines until done() holds, the output ends or `timeout` seconds pass."""
        deadline = time.monotonic() + timeout
        descriptor = self.process.stdout.fileno()
        while not done() and time.monotonic() < deadline:
            ready, _, _ = select.select([descriptor], [], [], 0.2)
            if not ready:
                continue
            chunk = os.read(descriptor, 4096)
            if not chunk:
                break
            self.pending += chunk
            while b"\n" in self.pending:
                line, self.pending = self.pending.split(b"\n", 1)
                parts = line.decode(errors="replace").split()
                if len(parts) == 4 and parts[0] in ("drawn", "phase"):
                    times = ((int(parts[2]) - self.started) / 1e6, int(parts[3]) / 1e6)
                    (self.drawn if parts[0] == "drawn" else self.phases).setdefault(parts[1], times)
                elif len(parts) == 2 and parts[0] == "notification":
                    self.notifications.append(parts[1])
        return done()

    def wait_drawn(self, source, timeout=30):
        self.read_until(lambda: source in self.drawn, timeout)
        return self.drawn[source][0] if source in self.drawn else None

    def wait_notification(self, name, after=0, timeout=10):
        """Whether `name` arrives among the notifications from index `after` on."""
        return self.read_until(lambda: name in self.notifications[after:], timeout)

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        try:
            _, errors = self.process.communicate(timeout=20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            _, errors = self.process.communicate()
        return self.process.returncode, errors.decode(errors="replace")


class Namespace:
    """A network namespace of its own (held by a sleeping process) whose only route out is a
    veth link's default route, which the test takes away and gives back; None where the
    system does not allow one."""

    def __init__(self):
        self.holder = subprocess.Popen(["unshare", "-n", "sleep", "600"], stderr=subprocess.DEVNULL)
        time.sleep(0.2)
        ok = self.holder.poll() is None and self.run(
            "ip link set lo up && ip link add v0 type veth peer name v1 && ip link set v1 up && ip link set v0 up && "
            "ip addr add 10.99.0.2/24 dev v0 && ip route add default via 10.99.0.1")
        if not ok:
            self.close()
            raise OSError("no network namespace")

    def prefix(self):
        return ["nsenter", "-t", str(self.holder.pid), "-n"]

    def run(self, script):
        return subprocess.run(self.prefix() + ["sh", "-c", script], stderr=subprocess.DEVNULL).returncode == 0

    def close(self):
        if self.holder.poll() is None:
            self.holder.kill()
        self.holder.wait()


class Focus:
    """Gives the keyboard focus of an X display to the top-level window of a title, or to no
    window, as a window manager does when the user switches windows (through libX11, which
    GTK has installed)."""

    def __init__(self, display):
        x11 = ctypes.CDLL("libX11.so.6")
        x11.XOpenDisplay.restype = ctypes.c_void_p
        x11.XOpenDisplay.argtypes = [ctypes.c_char_p]
        x11.XDefaultRootWindow.restype = ctypes.c_ulong
        x11.XDefaultRootWindow.argtypes = [ctypes.c_void_p]
        x11.XQueryTree.argtypes = [ctypes.c_void_p, ctypes.c_ulong] + [ctypes.c_void_p] * 4
        x11.XFetchName.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_void_p]
        x11.XFree.argtypes = [ctypes.c_void_p]
        x11.XSetInputFocus.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_int, ctypes.c_ulong]
        x11.XSync.argtypes = [ctypes.c_void_p, ctypes.c_int]
        x11.XCloseDisplay.argtypes = [ctypes.c_void_p]
        self.x11 = x11
        self.display = x11.XOpenDisplay(display.encode())
        if not self.display:
            raise OSError("cannot open the display " + display)

    def window(self, title):
        root, parent, children, count = ctypes.c_ulong(), ctypes.c_ulong(), ctypes.POINTER(ctypes.c_ulong)(), \
            ctypes.c_uint()
        x11 = self.x11
        if not x11.XQueryTree(self.display, x11.XDefaultRootWindow(self.display), ctypes.byref(root),
                              ctypes.byref(parent), ctypes.byref(children), ctypes.byref(count)):
            return None
        found = None
        for index in range(count.value):
            name = ctypes.c_char_p()
            if x11.XFetchName(self.display, children[index], ctypes.byref(name)) and name.value:
                if name.value.decode(errors="replace") == title:
                    found = children[index]
                x11.XFree(name)
        if children:
            x11.XFree(children)
        return found

    def give(self, window):
        """To `window`, or with None to no window."""
        revert_to_parent = 2
        self.x11.XSetInputFocus(self.display, window or 0, revert_to_parent, 0)
        self.x11.XSync(self.display, 0)

    def close(self):
        self.x11.XCloseDisplay(self.display)


def start_memory_monitor():
    """A private system bus with a mock of the low-memory monitor on it, which GLib's memory
    monitor reads; None where python3-dbusmock or dbus-daemon is missing."""
    try:
        import dbus
        import dbusmock
    except ImportError:
        return None
    if not shutil.which("dbus-daemon"):
        return None
    previous = os.environ.get("DBUS_SYSTEM_BUS_ADDRESS")
    bus_pid, address = dbusmock.DBusTestCase.start_dbus(conf=None)
    os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = address
    try:
        mock, proxy = dbusmock.DBusTestCase.spawn_server_template("low_memory_monitor", {},
                                                                 stdout=subprocess.DEVNULL, system_bus=True)
    finally:
        if previous is None:
            os.environ.pop("DBUS_SYSTEM_BUS_ADDRESS")
        else:
            os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = previous

    def warn():
        proxy.EmitWarning(dbus.Byte(255), dbus_interface=dbusmock.MOCK_IFACE)

    def stop():
        mock.terminate()
        mock.wait()
        os.kill(bus_pid, signal.SIGTERM)

    return address, warn, stop


def screenshot(display, path):
    dump = subprocess.run(["xwd", "-root", "-silent", "-display", display], capture_output=True, check=True).stdout
    with open(path, "wb") as target:
        target.write(xwd_to_png.convert(dump, margin=40))


def ocr(path, language):
    return subprocess.run(["tesseract", path, "-", "-l", language], capture_output=True, text=True).stdout


def shot_until(display, path, language, pattern, timeout=15):
    """Screenshots until OCR finds `pattern` (the window may still be filling in)."""
    deadline = time.monotonic() + timeout
    while True:
        screenshot(display, path)
        text = ocr(path, language)
        if re.search(pattern, text) or time.monotonic() > deadline:
            return text
        time.sleep(0.3)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--app", required=True)
    parser.add_argument("--kpcore", required=True)
    parser.add_argument("--artefacts", required=True)
    args = parser.parse_args()
    for tool in ("Xvfb", "xwd", "tesseract"):
        if not shutil.which(tool):
            print("skipped: %s is not installed" % tool)
            return 77
    os.makedirs(args.artefacts, exist_ok=True)

    home = tempfile.mkdtemp(prefix="weather-app-test-")
    xvfb, display = start_xvfb()
    service, base = start_service(args.kpcore)
    memory_monitor = start_memory_monitor()
    env = dict(os.environ, DISPLAY=display, GDK_BACKEND="x11", GDK_SCALE="2", GSK_RENDERER="cairo", TZ="UTC",
               XDG_CACHE_HOME=home + "/cache", XDG_CONFIG_HOME=home + "/config", XDG_DATA_HOME=home + "/data",
               NO_AT_BRIDGE="1", GTK_A11Y="none")
    env.pop("WAYLAND_DISPLAY", None)
    if memory_monitor:
        env["DBUS_SYSTEM_BUS_ADDRESS"] = memory_monitor[0]
    # GTK and fontconfig keep allocations until exit by design; the library's leaks are the
    # unit tests' to find.
    env["ASAN_OPTIONS"] = env.get("ASAN_OPTIONS", "") + ":detect_leaks=0"
    temperature_f = r"\d+ ?°F"
    temperature_c = r"\d+ ?°C"
    try:
        # Online, American English: Fahrenheit.
        app = App(args.app, base, dict(env, LANG="en_US.UTF-8", LC_ALL=""), notifications=True)
        if app.wait_drawn("network") is None:
            print(app.stop()[1][-2000:])
            raise SystemExit("en_US: no forecast from the service was drawn")
        path = os.path.join(args.artefacts, "en_US-online.png")
        text = shot_until(display, path, "eng", temperature_f)
        check(re.search(temperature_f, text) is not None, "en_US: temperatures in °F")
        check(re.search(temperature_c, text) is None, "en_US: no °C")
        check("Next 24 hours" in text and "Updated" in text, "en_US: the app's texts")
        # The window losing and regaining the focus, and the system running low on memory,
        # reach the library as the application notifications.
        focus = Focus(display)
        window = focus.window("Weather")
        check(window is not None, "notifications: the window is on the display")
        if window is not None:
            seen = len(app.notifications)
            focus.give(None)
            check(app.wait_notification("UIApplicationWillResignActiveNotification", seen),
                  "notifications: will-resign-active when the window loses the focus")
            seen = len(app.notifications)
            focus.give(window)
            check(app.wait_notification("UIApplicationDidBecomeActiveNotification", seen),
                  "notifications: did-become-active when it gets the focus back")
        focus.close()
        if memory_monitor:
            # The app finds the monitor after its first frame; the warning repeats until it has.
            seen = len(app.notifications)
            deadline = time.monotonic() + 10
            while time.monotonic() < deadline:
                memory_monitor[1]()
                if app.wait_notification("UIApplicationDidReceiveMemoryWarningNotification", seen, 0.3):
                    break
            check("UIApplicationDidReceiveMemoryWarningNotification" in app.notifications[seen:],
                  "notifications: the memory warning when the system runs low")
        else:
            print("skipped the memory warning: python3-dbusmock or dbus-daemon is missing")
        status, errors = app.stop()
        check(status == 0, "en_US: the app ends cleanly on SIGTERM (%s)" % errors.strip()[-300:])

        # Online, German: Celsius and the German catalogue.
        app = App(args.app, base, dict(env, LANG="de_DE.UTF-8", LC_ALL=""))
        check(app.wait_drawn("network") is not None, "de_DE: a forecast from the service is drawn")
        path = os.path.join(args.artefacts, "de_DE-online.png")
        text = shot_until(display, path, "deu", temperature_c)
        check(re.search(temperature_c, text) is not None, "de_DE: temperatures in °C")
        check(re.search(temperature_f, text) is None, "de_DE: no °F")
        check("Stunden" in text and "Aktualisiert" in text, "de_DE: the German texts")
        app.stop()

        # The service stops: the kept forecast is drawn from the cache, with the banner.
        service.terminate()
        service.wait(timeout=20)
        app = App(args.app, base, dict(env, LANG="en_US.UTF-8", LC_ALL=""))
        check(app.wait_drawn("cache") is not None, "offline: the kept forecast is drawn from the cache")
        time.sleep(0.5)  # the service is asked once that frame is drawn; the banner follows
        path = os.path.join(args.artefacts, "en_US-offline.png")
        text = shot_until(display, path, "eng", r"Offline")
        check("Offline" in text, "offline: the banner says so")
        check(re.search(temperature_f, text) is not None, "offline: the cached temperatures stay on screen")
        check("network" not in app.drawn, "offline: nothing claims to come from the network")
        app.stop()

        # The device loses its route out while the app runs, and gets it back: the
        # connectivity monitor shows and hides the banner.
        try:
            namespace = Namespace()
        except OSError:
            print("skipped the connectivity steps: no network namespace here")
            return 1 if FAILURES else 0
        try:
            service, base = start_service(args.kpcore, namespace.prefix())
            app = App(args.app, base, dict(env, LANG="en_US.UTF-8", LC_ALL=""), namespace.prefix())
            check(app.wait_drawn("network") is not None, "connectivity: drawn from the service while online")
            namespace.run("ip route del default")
            path = os.path.join(args.artefacts, "en_US-connectivity-lost.png")
            text = shot_until(display, path, "eng", r"saved forecast")
            check("Offline: showing the saved forecast" in text, "connectivity: the banner when the route goes")
            namespace.run("ip route add default via 10.99.0.1")
            path = os.path.join(args.artefacts, "en_US-connectivity-back.png")
            deadline = time.monotonic() + 15
            while True:
                text = shot_until(display, path, "eng", temperature_f)
                if "Offline" not in text or time.monotonic() > deadline:
                    break
            check("Offline" not in text and re.search(temperature_f, text), "connectivity: no banner once back")
            app.stop()
        finally:
            namespace.close()
    finally:
        for process in (service, xvfb):
            if process.poll() is None:
                process.kill()
                process.wait()
        if memory_monitor:
            memory_monitor[2]()
        shutil.rmtree(home, ignore_errors=True)
    print("screenshots in " + args.artefacts)
    return 1 if FAILURES else 0


if __name__ == "__main__":
    sys.exit(main())
