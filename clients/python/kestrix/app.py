"""One Kestrix application in its working folder, and the loop of an outer program."""
import os
import shutil
import subprocess
import time

from . import files

MODES = {"ss": 1, "mpu": 2, "rto": 3, "sim": 4, "est": 5, "ctl": 6, "sqs": 7, "sqe": 8,
         "sqc": 9}


class CycleFailed(RuntimeError):
    """A cycle ended without a good solution (exit status 0)."""

    def __init__(self, cycle):
        self.cycle = cycle
        tail = "\n".join(cycle.stdout.splitlines()[-15:])
        super().__init__(f"kestrix {cycle.app}: the cycle failed\n{tail}")


class Cycle:
    """What one run of `kestrix APP` left: exit status, console text and time taken."""

    def __init__(self, app, returncode, stdout, seconds):
        self.app = app
        self.returncode = returncode  # 1 = good cycle, 0 = failed or stopped
        self.stdout = stdout
        self.seconds = seconds

    @property
    def ok(self):
        return self.returncode == 1

    def __repr__(self):
        return f"Cycle(app={self.app!r}, ok={self.ok}, seconds={self.seconds:.3f})"


def find_kestrix(given=None):
    """The engine: `given`, else $KESTRIX, else `kestrix` on the PATH, else build/kestrix of
    the checkout this client sits in."""
    here = os.path.dirname(os.path.abspath(__file__))
    candidates = [given, os.environ.get("KESTRIX"), shutil.which("kestrix"),
                  os.path.join(here, "..", "..", "..", "build", "kestrix")]
    for path in candidates:
        if path and os.path.isfile(path) and os.access(path, os.X_OK):
            return os.path.abspath(path)
    raise FileNotFoundError("kestrix not found: build it with 'make', put it on the PATH, set "
                            "KESTRIX or pass kestrix=PATH")


class App:
    """Application `name` in folder `folder` (created when missing).

    Settings made with option(), prop() and measure() are held until the next solve(), which
    writes them to "measurements.dbs" (read after the application's own DBS file, so they win)
    and runs the cycle; the engine then keeps them in "APP.dbs" for later cycles. The file is
    rewritten before every cycle, so a measurement is used once.
    """

    def __init__(self, name, folder=".", kestrix=None):
        self.name = name.lower()
        self.folder = os.path.abspath(folder)
        self.kestrix = find_kestrix(kestrix)
        self._pending = {}
        os.makedirs(self.folder, exist_ok=True)

    # ----- files of the application -----

    def path(self, filename):
        return os.path.join(self.folder, filename)

    def write_model(self, text):
        """Writes APP.zpm."""
        files._write_text(self.path(self.name + ".zpm"), text)

    def write_classes(self, classes):
        """Writes APP.info from {"FV": [...], "MV": [...], "SV": [...], "CV": [...]}."""
        files.write_info(self.path(self.name + ".info"), classes)

    def write_data(self, columns):
        """Writes APP.csv from {"time": [...], "name": [...]}."""
        files.write_data(self.path(self.name + ".csv"), columns)

    def copy_from(self, folder, names=None):
        """Copies the application's files from `folder` (by default APP.zpm, .info, .dbs,
        .csv, whichever exist)."""
        for filename in names or [self.name + ext for ext in (".zpm", ".info", ".dbs", ".csv")]:
            source = os.path.join(folder, filename)
            if os.path.exists(source):
                shutil.copy(source, self.folder)

    # ----- settings for the next cycle -----

    def option(self, key, value):
        """A global option, e.g. option("IMODE", 6) or option("imode", "ctl")."""
        if key.upper() == "IMODE" and isinstance(value, str):
            value = MODES[value.lower()]
        self._pending[f"ZPM.{key.upper()}"] = value
        return self

    def options(self, **values):
        for key, value in values.items():
            self.option(key, value)
        return self

    def prop(self, variable, key, value):
        """A property of a classified variable, e.g. prop("inflow", "STATUS", 1)."""
        self._pending[f"{variable.lower()}.{key.upper()}"] = value
        return self

    def measure(self, values):
        """Measurements {"name": value}: each becomes name.MEAS for the next cycle."""
        for name, value in values.items():
            self.prop(name, "MEAS", value)
        return self

    def pending(self):
        return dict(self._pending)

    # ----- one cycle -----

    def solve(self, *switches, check=True, timeout=None):
        """Runs one cycle: `kestrix APP [switches]` in the folder. Raises CycleFailed after a
        failed cycle when `check` (the default); returns the Cycle either way."""
        files.write_dbs(self.path("measurements.dbs"), self._pending,
                        header="written by the kestrix client for one cycle")
        self._pending = {}
        start = time.monotonic()
        run = subprocess.run([self.kestrix, self.name, *switches], cwd=self.folder,
                             capture_output=True, text=True, timeout=timeout)
        cycle = Cycle(self.name, run.returncode, run.stdout + run.stderr,
                      time.monotonic() - start)
        if check and not cycle.ok:
            raise CycleFailed(cycle)
        return cycle

    # ----- what the cycle wrote -----

    def results(self):
        """results.json: {"time": [...], "name": [...]} over the horizon (one row in steady
        state)."""
        return files.read_results(self.path("results.json"))

    def dbs(self):
        """The application's DBS file as {"zpm.imode": 6.0, "inflow.newval": 1.2, ...}."""
        return files.read_dbs(self.path(self.name + ".dbs"))

    def get(self, variable, key):
        """One value of the DBS file, e.g. get("inflow", "NEWVAL") or get("zpm", "IMODE");
        None when the file has no such record or the value is not set."""
        value = self.dbs().get(f"{variable.lower()}.{key.lower()}")
        return value if files.is_set(value) else None

    def outcome(self):
        """The cycle outcome keys: appstatus, objfcnval, iterations, solvestatus, solvetime."""
        d = self.dbs()
        return {k[4:]: v for k, v in d.items() if k.startswith("nlc.")}

    def options_json(self):
        """options.json as written by the last cycle."""
        return files.read_options(self.path("options.json"))

    def report_page(self):
        """Path of the report page (written when WEB > 0)."""
        return self.path(self.name + "_report.html")


def run_cycles(apps, cycles, measure=None, on_cycle=None, check=True):
    """The outer program of estimation and control.

    For each cycle k = 1..cycles: `measure(k)` gives the measurements {name: value} (or
    None); every application of `apps`, in order, is given them as MEAS and runs one cycle
    (an estimator before the controller that uses it); then `on_cycle(k, cycles_by_app)` gets
    the Cycle of each application by name and may act on the plant. Returns the list of
    those dicts. A failed cycle raises CycleFailed when `check`.
    """
    if isinstance(apps, App):
        apps = [apps]
    history = []
    for k in range(1, cycles + 1):
        values = measure(k) if measure else None
        done = {}
        for app in apps:
            if values:
                app.measure(values)
            done[app.name] = app.solve(check=check)
        if on_cycle:
            on_cycle(k, done)
        history.append(done)
    return history
