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
sys.path.insert(0, HERE)
from run_mpc import control_loop, fresh_app, kestrix  # noqa: E402


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--kestrix")
    parser.add_argument("--cycles", type=int, default=30)
    parser.add_argument("--work", default="est-ctl-run")
    args = parser.parse_args()
    ctl = fresh_app("mpc", args.work, args.kestrix, ["mpc.zpm", "mpc.info", "mpc.dbs"],
                    source=HERE)
    # The estimator is the same model under another application name.
    est = kestrix.App("est", folder=args.work, kestrix=args.kestrix)
    est.copy_from(HERE, ["est.dbs"])
    for ext in (".zpm", ".info"):
        shutil.copy(os.path.join(HERE, "mpc" + ext), est.path("est" + ext))
    print(f"{'cycle':>5} {'time':>5} {'level':>7} {'valve':>7} {'inflow':>7} {'bias':>8}")
    settled = control_loop([est, ctl], ctl, args.cycles, show_valve=est)
    sys.exit(0 if settled >= 5 else 1)


if __name__ == "__main__":
    main()
