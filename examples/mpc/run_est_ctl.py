#!/usr/bin/env python3
"""Estimation then control in one folder, each period: the estimator fits the valve
coefficient and the level to the measurements and leaves them in "est.xfer"; the controller
starts from them, so its model follows the plant and the bias stays small.

Usage: python3 run_est_ctl.py [--kestrix PATH] [--cycles N] [--work DIR]
"""
import argparse
import os
import shutil
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "mhe"))
from run_mhe import find_kestrix, plant_step  # noqa: E402
from run_mpc import AREA, BAND, LIMITS, PERIOD, PLANT_VALVE, run_cycle  # noqa: E402


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--kestrix")
    parser.add_argument("--cycles", type=int, default=30)
    parser.add_argument("--work", default="est-ctl-run")
    args = parser.parse_args()
    kestrix = find_kestrix(args.kestrix)

    shutil.rmtree(args.work, ignore_errors=True)
    os.makedirs(args.work)
    for name in ("mpc.zpm", "mpc.info", "mpc.dbs"):
        shutil.copy(os.path.join(HERE, name), args.work)
    # The estimator is the same model under another application name.
    shutil.copy(os.path.join(HERE, "mpc.zpm"), os.path.join(args.work, "est.zpm"))
    shutil.copy(os.path.join(HERE, "mpc.info"), os.path.join(args.work, "est.info"))
    shutil.copy(os.path.join(HERE, "est.dbs"), args.work)

    level, inflow, settled = 4.0, 1.0, 0
    print(f"{'cycle':>5} {'time':>5} {'level':>7} {'valve':>7} {'inflow':>7} {'bias':>8}")
    for cycle in range(1, args.cycles + 1):
        with open(os.path.join(args.work, "measurements.dbs"), "w") as f:
            f.write(f"level.MEAS = {level:.6f}\ninflow.MEAS = {inflow:.6f}\n")
        valve = run_cycle(kestrix, args.work, "est")["valve.newval"]
        dbs = run_cycle(kestrix, args.work, "mpc")
        inflow = dbs["inflow.newval"]
        print(f"{cycle:5d} {cycle * PERIOD:5.1f} {level:7.4f} {valve:7.4f} {inflow:7.4f} "
              f"{dbs['level.bias']:8.4f}")
        if not LIMITS[0] - 1e-6 <= inflow <= LIMITS[1] + 1e-6:
            sys.exit(f"cycle {cycle}: inflow {inflow} outside its limits")
        level = plant_step(level, inflow, PERIOD, valve=PLANT_VALVE, area=AREA)
        settled = settled + 1 if BAND[0] - 0.01 <= level <= BAND[1] + 0.01 else 0

    print(f"level {level:.4f}: in its band for the last {settled} periods")
    sys.exit(0 if settled >= 5 else 1)


if __name__ == "__main__":
    main()
