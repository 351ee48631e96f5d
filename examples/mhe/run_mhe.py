#!/usr/bin/env python3
"""Outer program of a moving-horizon estimator: a simulated tank plays the plant.

Each period the plant moves on 0.25 h, its level is measured with noise, and the script
hands only the new measurements (level.MEAS and inflow.MEAS) to the engine, runs one
estimation cycle and reads the estimated valve coefficient back from mhe.dbs, all through the
Python client (clients/python).

Usage: python3 run_mhe.py [--kestrix PATH] [--cycles N] [--work DIR] [--sequential]
"""
import argparse
import math
import os
import random
import shutil
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "clients", "python"))
import kestrix  # noqa: E402

TRUE_VALVE = 0.6   # what the estimator should find
AREA = 2.0
PERIOD = 0.25      # h
NOISE = 0.005      # m, standard deviation of the level measurement


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


def fresh_app(name, work, kestrix_path, files, source=HERE):
    """Application `name` in an emptied folder `work`, with `files` copied from `source`."""
    shutil.rmtree(work, ignore_errors=True)
    app = kestrix.App(name, folder=work, kestrix=kestrix_path)
    app.copy_from(source, files)
    return app


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--kestrix")
    parser.add_argument("--cycles", type=int, default=60)
    parser.add_argument("--work", default="mhe-run")
    parser.add_argument("--sequential", action="store_true",
                        help="estimate by single shooting (IMODE 8) instead of IMODE 5")
    args = parser.parse_args()
    app = fresh_app("mhe", args.work, args.kestrix, ["mhe.zpm", "mhe.info", "mhe.dbs"])
    if args.sequential:
        app.option("IMODE", 8)

    rng = random.Random(7)
    plant = {"level": 4.0}

    def measure(cycle):
        inflow = 1.0 + 0.4 * math.sin(cycle / 5.0)  # the inflow wanders
        plant["level"] = plant_step(plant["level"], inflow, PERIOD)
        plant["measured"] = plant["level"] + rng.gauss(0.0, NOISE)
        plant["inflow"] = inflow
        return {"level": plant["measured"], "inflow": inflow}

    def show(cycle, cycles):
        print(f"{cycle:5d} {cycle * PERIOD:6.2f} {plant['inflow']:7.3f} {plant['measured']:8.4f} "
              f"{app.get('valve', 'NEWVAL'):8.4f}")

    print(f"{'cycle':>5} {'time':>6} {'inflow':>7} {'level':>8} {'valve':>8}")
    try:
        kestrix.run_cycles(app, args.cycles, measure, show)
    except kestrix.CycleFailed as failed:
        sys.exit(str(failed))
    estimate = app.get("valve", "NEWVAL")
    error = abs(estimate - TRUE_VALVE) / TRUE_VALVE
    print(f"final estimate {estimate:.4f}, true {TRUE_VALVE}, error {100 * error:.2f}%")
    sys.exit(0 if error <= 0.02 else 1)


if __name__ == "__main__":
    main()
