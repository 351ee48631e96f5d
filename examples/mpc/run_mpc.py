#!/usr/bin/env python3
"""Outer program of a model predictive controller: a simulated tank plays the plant.

The plant's valve passes 20% more than the model says. Each period the script measures the
level, writes it (level.MEAS) and the inflow it implemented (inflow.MEAS) to
measurements.dbs, runs one control cycle and implements inflow.NEWVAL for the next period.

Usage: python3 run_mpc.py [--kestrix PATH] [--cycles N] [--work DIR]
"""
import argparse
import os
import shutil
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "mhe"))
from run_mhe import find_kestrix, plant_step, read_dbs  # noqa: E402

PLANT_VALVE = 0.6   # the model says 0.5
AREA = 0.5          # m^2
PERIOD = 0.5        # h
BAND = (2.9, 3.1)   # set-point band of the level
LIMITS = (0.0, 3.0)  # inflow limits


def run_cycle(kestrix, work, app):
    run = subprocess.run([kestrix, app], cwd=work, capture_output=True, text=True)
    if run.returncode != 1:
        print(run.stdout[-2000:])
        sys.exit(f"the {app} cycle failed")
    return read_dbs(os.path.join(work, app + ".dbs"))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--kestrix")
    parser.add_argument("--cycles", type=int, default=30)
    parser.add_argument("--work", default="mpc-run")
    args = parser.parse_args()
    kestrix = find_kestrix(args.kestrix)

    shutil.rmtree(args.work, ignore_errors=True)
    os.makedirs(args.work)
    for name in ("mpc.zpm", "mpc.info", "mpc.dbs"):
        shutil.copy(os.path.join(HERE, name), args.work)

    level, inflow = 4.0, 1.0
    settled = 0
    print(f"{'cycle':>5} {'time':>5} {'level':>7} {'inflow':>7} {'bias':>8}")
    for cycle in range(1, args.cycles + 1):
        with open(os.path.join(args.work, "measurements.dbs"), "w") as f:
            f.write(f"level.MEAS = {level:.6f}\ninflow.MEAS = {inflow:.6f}\n")
        dbs = run_cycle(kestrix, args.work, "mpc")
        inflow = dbs["inflow.newval"]
        print(f"{cycle:5d} {cycle * PERIOD:5.1f} {level:7.4f} {inflow:7.4f} "
              f"{dbs['level.bias']:8.4f}")
        if not LIMITS[0] - 1e-6 <= inflow <= LIMITS[1] + 1e-6:
            sys.exit(f"cycle {cycle}: inflow {inflow} outside its limits")
        level = plant_step(level, inflow, PERIOD, valve=PLANT_VALVE, area=AREA)
        settled = settled + 1 if BAND[0] - 0.01 <= level <= BAND[1] + 0.01 else 0

    print(f"level {level:.4f}: in its band for the last {settled} periods")
    sys.exit(0 if settled >= 5 else 1)


if __name__ == "__main__":
    main()
