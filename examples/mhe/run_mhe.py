#!/usr/bin/env python3
"""Outer program of a moving-horizon estimator: a simulated tank plays the plant.

Each period the plant moves on 0.25 h, its level is measured with noise, and the script
writes only the new measurements (level.MEAS and inflow.MEAS) to measurements.dbs, runs one
estimation cycle of the engine and reads the estimated valve coefficient back from mhe.dbs.

Usage: python3 run_mhe.py [--kestrix PATH] [--cycles N] [--work DIR]
"""
import argparse
import math
import os
import random
import shutil
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
TRUE_VALVE = 0.6   # what the estimator should find
AREA = 2.0
PERIOD = 0.25      # h
NOISE = 0.005      # m, standard deviation of the level measurement


def find_kestrix(given):
    for path in (given, shutil.which("kestrix"),
                 os.path.join(HERE, "..", "..", "build", "kestrix")):
        if path and os.path.isfile(path) and os.access(path, os.X_OK):
            return os.path.abspath(path)
    sys.exit("kestrix not found: build it with 'make' or pass --kestrix PATH")


def plant_step(level, inflow, hours, valve=TRUE_VALVE, area=AREA, substeps=20):
    """Integrates area*dlevel/dt = inflow - valve*sqrt(level) with RK4."""
    h = hours / substeps
    f = lambda x: (inflow - valve * math.sqrt(max(x, 0.0))) / area
    for _ in range(substeps):
        k1 = f(level)
        k2 = f(level + h / 2 * k1)
        k3 = f(level + h / 2 * k2)
        k4 = f(level + h * k3)
        level += h / 6 * (k1 + 2 * k2 + 2 * k3 + k4)
    return level


def read_dbs(path):
    """The 'NAME VALUE' records of a DBS file the engine wrote, as a dict."""
    values = {}
    with open(path) as f:
        for line in f:
            parts = line.replace("=", " ").replace(",", " ").split()
            if len(parts) >= 2:
                try:
                    values[parts[0].lower()] = float(parts[1])
                except ValueError:
                    pass
    return values


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--kestrix")
    parser.add_argument("--cycles", type=int, default=60)
    parser.add_argument("--work", default="mhe-run")
    args = parser.parse_args()
    kestrix = find_kestrix(args.kestrix)

    shutil.rmtree(args.work, ignore_errors=True)
    os.makedirs(args.work)
    for name in ("mhe.zpm", "mhe.info", "mhe.dbs"):
        shutil.copy(os.path.join(HERE, name), args.work)

    rng = random.Random(7)
    level, estimate = 4.0, None
    print(f"{'cycle':>5} {'time':>6} {'inflow':>7} {'level':>8} {'valve':>8}")
    for cycle in range(1, args.cycles + 1):
        inflow = 1.0 + 0.4 * math.sin(cycle / 5.0)  # the inflow wanders
        level = plant_step(level, inflow, PERIOD)
        measured = level + rng.gauss(0.0, NOISE)
        with open(os.path.join(args.work, "measurements.dbs"), "w") as f:
            f.write(f"level.MEAS = {measured:.6f}\ninflow.MEAS = {inflow:.6f}\n")
        run = subprocess.run([kestrix, "mhe"], cwd=args.work, capture_output=True, text=True)
        if run.returncode != 1:
            print(run.stdout[-2000:])
            sys.exit(f"cycle {cycle}: the estimation cycle failed")
        estimate = read_dbs(os.path.join(args.work, "mhe.dbs"))["valve.newval"]
        print(f"{cycle:5d} {cycle * PERIOD:6.2f} {inflow:7.3f} {measured:8.4f} {estimate:8.4f}")

    error = abs(estimate - TRUE_VALVE) / TRUE_VALVE
    print(f"final estimate {estimate:.4f}, true {TRUE_VALVE}, error {100 * error:.2f}%")
    sys.exit(0 if error <= 0.02 else 1)


if __name__ == "__main__":
    main()
