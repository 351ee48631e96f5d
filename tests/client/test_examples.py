"""Real cycles of the bundled examples through the client (the engine named by $KESTRIX or
found by kestrix.find_kestrix)."""
import math
import os
import random
import sys
import tempfile
import unittest

import kestrix

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
EXAMPLES = os.path.join(ROOT, "examples")
sys.path.insert(0, os.path.join(EXAMPLES, "mhe"))
from run_mhe import plant_step  # noqa: E402  the examples' own simulated plant


class ExampleTest(unittest.TestCase):
    def setUp(self):
        self._tmp = tempfile.TemporaryDirectory(prefix="kx_client_run_")
        self.dir = self._tmp.name

    def tearDown(self):
        self._tmp.cleanup()

    def app(self, name, example):
        app = kestrix.App(name, folder=self.dir)
        app.copy_from(os.path.join(EXAMPLES, example))
        return app


class SteadyStateTest(ExampleTest):
    def test_demo_level_follows_the_measured_inflow(self):
        # outflow = 2.5*valve*sqrt(level) = inflow with valve 0.6: level = (inflow/1.5)^2
        app = self.app("demo", "demo")
        for inflow in (1.5, 3.0, 0.75):
            with self.subTest(inflow=inflow):
                cycle = app.measure({"inflow": inflow}).solve()
                self.assertTrue(cycle.ok)
                level = app.results()["level"][0]
                self.assertAlmostEqual(level, (inflow / 1.5) ** 2, places=5)
                self.assertAlmostEqual(app.get("level", "MODEL"), level, places=9)
                self.assertEqual(app.outcome()["appstatus"], 1)
        self.assertEqual(app.get("zpm", "IMODE"), 1)
        options = app.options_json()
        self.assertEqual(options["ZPM"]["IMODE"], 1)
        self.assertEqual(options["ZPM"]["CYCLECOUNT"], app.get("zpm", "CYCLECOUNT"))


class SimulationTest(ExampleTest):
    def test_tank_matches_an_independent_integration(self):
        app = self.app("tank", "tank")
        app.option("TIME_SHIFT", 0).option("WEB", 0)
        app.solve()
        r = app.results()
        self.assertEqual(r["time"], [0, 0.5, 1, 1.5, 2, 3, 4, 5, 6])
        # The inflow of step k is the data value at its end; integrate the same model.
        level = 1.0
        for k in range(1, len(r["time"])):
            level = plant_step(level, r["inflow"][k], r["time"][k] - r["time"][k - 1],
                               valve=0.5, area=2.0)
            with self.subTest(time=r["time"][k]):
                self.assertAlmostEqual(r["level"][k], level, delta=2e-3 * level)
        self.assertFalse(os.path.exists(app.path("tank_report.html")))  # WEB = 0

    def test_data_written_by_the_client_sets_the_horizon(self):
        app = self.app("tank", "tank")
        os.remove(app.path("tank.csv"))
        app.write_data({"time": [0, 1, 2, 3], "inflow": [2.0, 2.0, 2.0, 2.0]})
        app.option("TIME_SHIFT", 0).solve()
        r = app.results()
        self.assertEqual(r["time"], [0, 1, 2, 3])
        self.assertTrue(all(b > a for a, b in zip(r["level"], r["level"][1:])))
        self.assertTrue(os.path.exists(app.report_page()))


class EstimationAndControlTest(ExampleTest):
    def test_mhe_finds_the_valve(self):
        app = self.app("mhe", "mhe")
        rng = random.Random(3)
        plant = {"level": 4.0}
        true_valve = 0.6

        def measure(k):
            inflow = 1.0 + 0.4 * math.sin(k / 5.0)
            plant["level"] = plant_step(plant["level"], inflow, 0.25, valve=true_valve, area=2.0)
            return {"level": plant["level"] + rng.gauss(0.0, 0.002), "inflow": inflow}

        kestrix.run_cycles(app, 30, measure)
        self.assertAlmostEqual(app.get("valve", "NEWVAL"), true_valve, delta=0.03)
        history = kestrix.read_results_csv(app.path("mhe_history.csv"))
        self.assertEqual(history["cycle"][-1], 30)

    def test_estimator_then_controller_hold_the_level_band(self):
        est = kestrix.App("est", folder=self.dir)
        est.copy_from(os.path.join(EXAMPLES, "mpc"), ["est.dbs"])
        for ext in (".zpm", ".info"):  # the estimator is the controller's model renamed
            with open(os.path.join(EXAMPLES, "mpc", "mpc" + ext)) as f:
                text = f.read()
            with open(est.path("est" + ext), "w") as f:
                f.write(text)
        ctl = self.app("mpc", "mpc")
        plant = {"level": 4.0, "inflow": 1.0}
        levels = []

        def act(k, cycles):
            inflow = ctl.get("inflow", "NEWVAL")
            self.assertTrue(0.0 - 1e-6 <= inflow <= 3.0 + 1e-6)
            plant["inflow"] = inflow
            plant["level"] = plant_step(plant["level"], inflow, 0.5, valve=0.7, area=0.5)
            levels.append(plant["level"])

        done = kestrix.run_cycles([est, ctl], 20,
                                  lambda k: {"level": plant["level"], "inflow": plant["inflow"]},
                                  act)
        self.assertEqual(list(done[0]), ["est", "mpc"])
        self.assertTrue(all(2.88 <= x <= 3.12 for x in levels[-5:]), levels)


if __name__ == "__main__":
    unittest.main()
