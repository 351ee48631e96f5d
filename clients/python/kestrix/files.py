"""Readers and writers of the files a Kestrix cycle reads and writes.

Every reader takes a path and returns plain Python values (dicts, lists, floats); every
writer takes plain values. Names are folded to lower case, as the engine stores them.
"""
import json
import math
import os

# Values the engine writes for "not set" (MEAS never measured, bounds left open).
NO_VALUE = 1.23456789e-40
UNSET_LOWER = -1.23456789e+20
UNSET_UPPER = 1.23456789e+20


def is_set(value):
    """False for the engine's "not set" sentinels and for NaN/None."""
    if value is None or (isinstance(value, float) and math.isnan(value)):
        return False
    return value not in (NO_VALUE, UNSET_LOWER, UNSET_UPPER)


def _number(text):
    try:
        return float(text)
    except ValueError:
        return None


def read_dbs(path):
    """The records of a DBS file as {"name.key": value}, names lower case.

    Accepts every form the engine reads and writes: "NAME = VALUE, STATUS, UNITS",
    "NAME = VALUE" and "NAME VALUE"; comment lines ("!" or "#") and lines whose value is not
    a number are skipped. A missing file gives an empty dict. Global options appear as
    "zpm.key" and the cycle outcome as "nlc.key"; a variable's property as "name.key", array
    elements as "name.pred[3]".
    """
    values = {}
    if not os.path.exists(path):
        return values
    with open(path) as f:
        for line in f:
            text = line.strip()
            if not text or text[0] in "!#":
                continue
            if "=" in text:
                name, _, rest = text.partition("=")
                value = rest.split(",")[0]
            else:
                parts = text.split(None, 1)
                if len(parts) < 2:
                    continue
                name, value = parts[0], parts[1].split(",")[0]
            number = _number(value.strip())
            if number is not None:
                values[name.strip().lower()] = number
    return values


def format_value(value):
    """A number as the engine reads it back exactly."""
    if isinstance(value, bool):
        return "1" if value else "0"
    if isinstance(value, int):
        return str(value)
    return repr(float(value))


def write_dbs(path, records, header=None):
    """Writes {"name.key": value} records as "NAME = VALUE" lines (replacing the file)."""
    lines = ["! " + header] if header else []
    lines += [f"{name} = {format_value(value)}" for name, value in records.items()]
    _write_text(path, "\n".join(lines) + "\n")


def read_results(path):
    """results.json as {"time": [...], "name": [...], ...}; null values become None."""
    with open(path) as f:
        return json.load(f)


def read_results_csv(path):
    """results.csv as {"time": [...], "name": [...], ...} of floats."""
    with open(path) as f:
        header = [h.strip().lower() for h in f.readline().split(",")]
        columns = {h: [] for h in header}
        for line in f:
            if not line.strip():
                continue
            for h, cell in zip(header, line.split(",")):
                columns[h].append(_number(cell.strip()))
    return columns


def read_options(path):
    """options.json as a dict (what the engine wrote, unchanged)."""
    with open(path) as f:
        return json.load(f)


def write_info(path, classes):
    """APP.info from {"FV": [names], "MV": [...], "SV": [...], "CV": [...]}.

    The engine keeps the order of the file; classes are written FV, MV, SV, CV and names in
    the order given.
    """
    lines = []
    for cls in ("FV", "MV", "SV", "CV"):
        for name in classes.get(cls, classes.get(cls.lower(), [])):
            lines.append(f"{cls}, {name}")
    unknown = set(classes) - {"FV", "MV", "SV", "CV", "fv", "mv", "sv", "cv"}
    if unknown:
        raise ValueError(f"unknown variable class: {sorted(unknown)}")
    _write_text(path, "\n".join(lines) + "\n")


def write_data(path, columns):
    """APP.csv from {"time": [...], "name": [...]}: every column the same length; None
    becomes an empty cell (no value for that row)."""
    names = list(columns)
    lengths = {len(columns[n]) for n in names}
    if len(lengths) > 1:
        raise ValueError("data columns differ in length: " +
                         ", ".join(f"{n}={len(columns[n])}" for n in names))
    rows = [",".join(names)]
    for i in range(lengths.pop() if lengths else 0):
        rows.append(",".join("" if columns[n][i] is None else format_value(columns[n][i])
                             for n in names))
    _write_text(path, "\n".join(rows) + "\n")


def _write_text(path, text):
    """Writes through a temporary file renamed over the target, so that an engine started at
    the same moment never reads half a file."""
    tmp = f"{path}.tmp{os.getpid()}"
    with open(tmp, "w") as f:
        f.write(text)
    os.replace(tmp, path)
