"""The client's file readers and writers against the forms the engine reads and writes."""
import math
import os
import tempfile
import unittest

import kestrix
from kestrix import files


class ScratchTest(unittest.TestCase):
    def setUp(self):
        self._tmp = tempfile.TemporaryDirectory(prefix="kx_client_")
        self.dir = self._tmp.name

    def tearDown(self):
        self._tmp.cleanup()

    def write(self, name, text):
        path = os.path.join(self.dir, name)
        with open(path, "w") as f:
            f.write(text)
        return path

    def read(self, name):
        with open(os.path.join(self.dir, name)) as f:
            return f.read()


class ReadDbsTest(ScratchTest):
    def test_every_record_form(self):
        path = self.write("a.dbs", "\n".join([
            "! comment", "# comment too", "",
            "ZPM.IMODE = 6, 1, ",                  # form 2 with status and units
            "NLC.OBJFCNVAL 12.5",                  # form 1
            "Tank.Level.PRED[3] = 1.25e-1",        # object member, array element
            "inflow.NEWVAL=2",                     # no blanks
            "valve.UNITS = m",                     # not a number: skipped
            "lonely",                              # no value: skipped
        ]))
        self.assertEqual(kestrix.read_dbs(path), {
            "zpm.imode": 6.0, "nlc.objfcnval": 12.5, "tank.level.pred[3]": 0.125,
            "inflow.newval": 2.0})

    def test_missing_file_is_empty(self):
        self.assertEqual(kestrix.read_dbs(os.path.join(self.dir, "none.dbs")), {})

    def test_written_records_read_back_exactly(self):
        values = {"ZPM.IMODE": 5, "level.MEAS": 0.1 + 0.2, "ZPM.WEB": False}
        path = os.path.join(self.dir, "m.dbs")
        kestrix.write_dbs(path, values, header="test")
        self.assertTrue(self.read("m.dbs").startswith("! test\nZPM.IMODE = 5\n"))
        self.assertEqual(kestrix.read_dbs(path),
                         {"zpm.imode": 5.0, "level.meas": 0.1 + 0.2, "zpm.web": 0.0})


class WritersTest(ScratchTest):
    def test_info_in_class_order(self):
        kestrix.write_info(os.path.join(self.dir, "a.info"),
                           {"CV": ["level"], "MV": ["inflow", "valve"], "sv": ["outflow"]})
        self.assertEqual(self.read("a.info"), "MV, inflow\nMV, valve\nSV, outflow\nCV, level\n")

    def test_info_rejects_unknown_class(self):
        with self.assertRaises(ValueError):
            kestrix.write_info(os.path.join(self.dir, "a.info"), {"XV": ["x"]})

    def test_data_with_gaps(self):
        kestrix.write_data(os.path.join(self.dir, "a.csv"),
                           {"time": [0, 0.5, 1.0], "level": [1.5, None, 2]})
        self.assertEqual(self.read("a.csv"), "time,level\n0,1.5\n0.5,\n1.0,2\n")
        back = kestrix.read_results_csv(os.path.join(self.dir, "a.csv"))
        self.assertEqual(back, {"time": [0.0, 0.5, 1.0], "level": [1.5, None, 2.0]})

    def test_data_columns_must_match(self):
        with self.assertRaises(ValueError):
            kestrix.write_data(os.path.join(self.dir, "a.csv"), {"time": [0, 1], "x": [1]})

    def test_sentinels_are_not_values(self):
        cases = [(kestrix.NO_VALUE, False), (kestrix.UNSET_LOWER, False),
                 (kestrix.UNSET_UPPER, False), (None, False), (math.nan, False),
                 (0.0, True), (-1e20, True)]
        for value, expected in cases:
            with self.subTest(value=value):
                self.assertEqual(kestrix.is_set(value), expected)


class AppSettingsTest(ScratchTest):
    def test_settings_go_to_measurements_for_one_cycle(self):
        # A stand-in engine that only shows what it was given.
        engine = self.write("fake.sh", "#!/bin/sh\ncat measurements.dbs\nexit 1\n")
        os.chmod(engine, 0o755)
        app = kestrix.App("Tank", folder=self.dir, kestrix=engine)
        app.option("imode", "ctl").prop("Inflow", "status", 1).measure({"level": 2.5})
        cycle = app.solve("-skipwrite")
        self.assertTrue(cycle.ok)
        self.assertIn("ZPM.IMODE = 6\ninflow.STATUS = 1\nlevel.MEAS = 2.5\n", cycle.stdout)
        self.assertEqual(app.pending(), {})
        second = app.solve()
        self.assertNotIn("MEAS", second.stdout)

    def test_failed_cycle_raises_with_the_console_tail(self):
        engine = self.write("fake.sh", "#!/bin/sh\necho 'Model file does not exist'\nexit 0\n")
        os.chmod(engine, 0o755)
        app = kestrix.App("x", folder=self.dir, kestrix=engine)
        with self.assertRaises(kestrix.CycleFailed) as raised:
            app.solve()
        self.assertIn("Model file does not exist", str(raised.exception))
        self.assertFalse(app.solve(check=False).ok)


if __name__ == "__main__":
    unittest.main()


class PackageBuildTest(ScratchTest):
    """The in-tree build backend: the wheel pip installs."""

    def test_wheel_holds_the_package_and_a_matching_record(self):
        import base64
        import hashlib
        import sys
        import zipfile
        sys.path.insert(0, os.path.join(os.path.dirname(kestrix.__file__), "..", "backend"))
        import kestrix_build
        name = kestrix_build.build_wheel(self.dir)
        self.assertEqual(name, "kestrix-0.8.2-py3-none-any.whl")
        with zipfile.ZipFile(os.path.join(self.dir, name)) as wheel:
            names = wheel.namelist()
            for module in ("__init__", "app", "files"):
                self.assertIn(f"kestrix/{module}.py", names)
            record = wheel.read("kestrix-0.8.2.dist-info/RECORD").decode().splitlines()
            for line in record:
                path, digest, size = line.split(",")
                if not digest:
                    continue
                data = wheel.read(path)
                expected = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=")
                self.assertEqual(digest, "sha256=" + expected.decode(), path)
                self.assertEqual(int(size), len(data), path)
            self.assertIn("Name: kestrix", wheel.read("kestrix-0.8.2.dist-info/METADATA").decode())
