#!/usr/bin/env python3
"""Outer program of a model predictive controller: a simulated tank plays the plant.

The plant's valve passes 20% more than the model says. Each period the script measures the
level, hands it (level.MEAS) and the inflow it implemented (inflow.MEAS) to the engine, runs
one control cycle and implements inflow.NEWVAL for the next period, all through the Python
client (clients/python).

Usage: python3 run_mpc.py [--kestrix PATH] [--cycles N] [--work DIR] [--sequential]
"""
import argparse
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "mhe"))
from run_mhe import fresh_app, kestrix, plant_step  # noqa: E402

PLANT_VALVE = 0.6   # the model says 0.5
AREA = 0.5          # m^2
PERIOD = 0.5        # h
BAND = (2.9, 3.1)   # set-point band of the level
LIMITS = (0.0, 3.0)  # inflow limits


def control_loop(apps, ctl, cycles, show_valve=None):
    """Runs `apps` (the controller `ctl` last) against the simulated plant; returns the
    number of periods at the end with the level in its band."""
    plant = {"level": 4.0, "inflow": 1.0, "settled": 0}

    def act(cycle, done):
        inflow = ctl.get("inflow", "NEWVAL")
        valve = f"{show_valve.get('valve', 'NEWVAL'):7.4f} " if show_valve else ""
        print(f"{cycle:5d} {cycle * PERIOD:5.1f} {plant['level']:7.4f} {valve}{inflow:7.4f} "
              f"{ctl.get('level', 'BIAS'):8.4f}")
        if not LIMITS[0] - 1e-6 <= inflow <= LIMITS[1] + 1e-6:
            sys.exit(f"cycle {cycle}: inflow {inflow} outside its limits")
        plant["inflow"] = inflow
        plant["level"] = plant_step(plant["level"], inflow, PERIOD, valve=PLANT_VALVE, area=AREA)
        inside = BAND[0] - 0.01 <= plant["level"] <= BAND[1] + 0.01
        plant["settled"] = plant["settled"] + 1 if inside else 0

    try:
        kestrix.run_cycles(apps, cycles,
                           lambda k: {"level": plant["level"], "inflow": plant["inflow"]}, act)
    except kestrix.CycleFailed as failed:
        sys.exit(str(failed))
    print(f"level {plant['level']:.4f}: in its band for the last {plant['settled']} periods")
    return plant["settled"]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--kestrix")
    parser.add_argument("--cycles", type=int, default=30)
    parser.add_argument("--work", default="mpc-run")
    parser.add_argument("--sequential", action="store_true",
                        help="control by single shooting (IMODE 9) instead of IMODE 6")
    args = parser.parse_args()
    ctl = fresh_app("mpc", args.work, args.kestrix, ["mpc.zpm", "mpc.info", "mpc.dbs"],
                    source=HERE)
    if args.sequential:
        ctl.option("IMODE", 9)
    print(f"{'cycle':>5} {'time':>5} {'level':>7} {'inflow':>7} {'bias':>8}")
    sys.exit(0 if control_loop(ctl, ctl, args.cycles) >= 5 else 1)


if __name__ == "__main__":
    main()
