#!/usr/bin/env python3
"""Renders the report page of every bundled example in headless Chromium.

For each example the script runs real cycles through the Python client, opens the page the
engine wrote (from disk, no network), and checks that the page script finished
(body[data-ready]), saw no script error (body[data-errors] = 0, and no uncaught error or
console error in Chromium's log) and drew plots that all have data (data-plots =
data-plots-with-data > 0). It also takes a screenshot of each page into --shots, and checks on one page that, served over
http, the page redraws itself when a newer cycle has rewritten it (WEB_PLOT_FREQ).

Usage: check_pages.py --chromium PATH [--kestrix PATH] [--shots DIR]
"""
import argparse
import http.server
import math
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
sys.path.insert(0, os.path.join(ROOT, "clients", "python"))
sys.path.insert(0, os.path.join(ROOT, "examples", "mhe"))
import kestrix  # noqa: E402
from run_mhe import plant_step  # noqa: E402

EXAMPLES = os.path.join(ROOT, "examples")
FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--enable-logging=stderr", "--v=0", "--virtual-time-budget=5000"]


def copy_app(folder, name, example, model=None):
    app = kestrix.App(name, folder=folder)
    app.copy_from(os.path.join(EXAMPLES, example), [f for f in os.listdir(
        os.path.join(EXAMPLES, example)) if f.startswith(name + ".")])
    if model:  # the same model under another application name
        for ext in (".zpm", ".info"):
            shutil.copy(os.path.join(EXAMPLES, example, model + ext), app.path(name + ext))
    return app


def run_demo(folder):
    app = copy_app(folder, "demo", "demo")
    for inflow in (1.5, 2.0, 2.5):
        app.option("WEB", 1).measure({"inflow": inflow}).solve()
    return [app.report_page()]


def run_tank(folder):
    app = copy_app(folder, "tank", "tank")
    app.solve()
    app.solve()
    return [app.report_page()]


def run_mhe(folder):
    app = copy_app(folder, "mhe", "mhe")
    plant = {"level": 4.0}

    def measure(k):
        inflow = 1.0 + 0.4 * math.sin(k / 5.0)
        plant["level"] = plant_step(plant["level"], inflow, 0.25)
        return {"level": plant["level"], "inflow": inflow}

    kestrix.run_cycles(app, 8, measure)
    return [app.report_page()]


def run_mpc(folder):
    est = copy_app(folder, "est", "mpc", model="mpc")
    ctl = copy_app(folder, "mpc", "mpc")
    plant = {"level": 4.0, "inflow": 1.0}

    def act(k, cycles):
        plant["inflow"] = ctl.get("inflow", "NEWVAL")
        plant["level"] = plant_step(plant["level"], plant["inflow"], 0.5, valve=0.6, area=0.5)

    kestrix.run_cycles([est, ctl], 6, lambda k: dict(plant), act)
    return [est.report_page(), ctl.report_page()]


def chromium(binary, args, profile):
    return subprocess.run([binary, *FLAGS, f"--user-data-dir={profile}", *args],
                          capture_output=True, text=True, timeout=120)


def check_page(binary, page, shot):
    """Problems found on one page (empty when it is fine)."""
    profile = tempfile.mkdtemp(prefix="kx_chromium_")
    try:
        url = "file://" + page
        dom = chromium(binary, ["--dump-dom", url], profile)
        shot_run = chromium(binary, ["--window-size=1400,2600", f"--screenshot={shot}", url],
                            profile)
    finally:
        shutil.rmtree(profile, ignore_errors=True)
    body = re.search(r"<body([^>]*)>", dom.stdout)
    attrs = dict(re.findall(r'(data-[a-z-]+)="([^"]*)"', body.group(1))) if body else {}
    problems = []
    if attrs.get("data-ready") != "1":
        problems.append(f"page script did not finish (body attributes {attrs})")
    if attrs.get("data-errors", "0") != "0":
        problems.append(f"{attrs['data-errors']} script error(s)")
    plots, with_data = int(attrs.get("data-plots", 0)), int(attrs.get("data-plots-with-data", 0))
    if plots == 0 or plots != with_data:
        problems.append(f"{plots} plots, {with_data} with data")
    log = dom.stderr + shot_run.stderr
    for line in log.splitlines():
        if "Uncaught" in line or ("CONSOLE" in line and "ERROR" in line) or \
                re.search(r":ERROR:CONSOLE", line):
            problems.append("console: " + line.strip())
    if not os.path.exists(shot) or os.path.getsize(shot) < 10000:
        problems.append("no screenshot")
    return problems, plots


def check_follow(binary, page):
    """Serves `page` once, then a copy whose cycle number is 777, and checks that the page
    fetched the copy and redrew (the outcome table shows cycle 777)."""
    with open(page, "rb") as f:
        first = f.read()
    second, count = re.subn(rb'"cycle":\d+\}', b'"cycle":777}', first, count=1)
    if count != 1:
        return ["no cycle number in the page data"]
    served = []

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            body = first if not served else second
            served.append(self.path)
            self.send_response(200)
            self.send_header("Content-Type", "text/html")
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body)

        def log_message(self, *args):
            pass

    server = http.server.HTTPServer(("127.0.0.1", 0), Handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    profile = tempfile.mkdtemp(prefix="kx_chromium_")
    try:
        url = f"http://127.0.0.1:{server.server_port}/{os.path.basename(page)}"
        dom = chromium(binary, ["--dump-dom", url], profile).stdout
    finally:
        server.shutdown()
        shutil.rmtree(profile, ignore_errors=True)
    if "Cycle</th><td>777</td>" not in dom:
        return [f"served over http the page did not redraw ({len(served)} requests)"]
    return []


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--chromium", required=True)
    parser.add_argument("--kestrix")
    parser.add_argument("--shots", default="report-screens")
    args = parser.parse_args()
    if args.kestrix:
        os.environ["KESTRIX"] = args.kestrix
    os.makedirs(args.shots, exist_ok=True)
    failures = 0
    with tempfile.TemporaryDirectory(prefix="kx_pages_") as work:
        for name, run in (("demo", run_demo), ("tank", run_tank), ("mhe", run_mhe),
                          ("mpc", run_mpc)):
            folder = os.path.join(work, name)
            for page in run(folder):
                shot = os.path.join(os.path.abspath(args.shots),
                                    os.path.basename(page).replace(".html", ".png"))
                problems, plots = check_page(args.chromium, page, shot)
                status = "ok" if not problems else "FAILED"
                print(f"{os.path.basename(page)}: {plots} plots, {status}; screenshot {shot}")
                for p in problems:
                    print("   " + p)
                failures += bool(problems)
            if name == "tank":
                problems = check_follow(args.chromium, page)
                print("plot updates over http: " + ("ok" if not problems else "FAILED"))
                for p in problems:
                    print("   " + p)
                failures += bool(problems)
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
