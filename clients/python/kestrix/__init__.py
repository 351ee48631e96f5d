"""Client for the Kestrix engine, standard library only.

    import kestrix
    app = kestrix.App("tank", folder="run")
    app.copy_from("examples/tank")
    app.option("IMODE", "sim").solve()
    print(app.results()["level"])
"""
from .app import App, Cycle, CycleFailed, MODES, find_kestrix, run_cycles
from .files import (NO_VALUE, UNSET_LOWER, UNSET_UPPER, is_set, read_dbs, read_options,
                    read_results, read_results_csv, write_data, write_dbs, write_info)

__all__ = ["App", "Cycle", "CycleFailed", "MODES", "find_kestrix", "run_cycles", "NO_VALUE",
           "UNSET_LOWER", "UNSET_UPPER", "is_set", "read_dbs", "read_options", "read_results",
           "read_results_csv", "write_data", "write_dbs", "write_info"]
__version__ = "0.8.2"
