"""Lists the tables that are there, one a line."""

import argparse
import sys
from typing import Optional, Sequence

from . import Error, Record, Service

CALIBRATION = {-1: "calibrating", 0: "not calibrated", 1: "calibrated"}


def line_of(record: Record) -> str:
    instrument = f"{record.serial_number}  {record.mode}" if record.serial_number else "no spectrophotometer"
    lock = f", locked by {record.lock_holder}" if record.lock_holder else ""
    state = CALIBRATION.get(record.calibration_status, str(record.calibration_status))
    return f"{record.path}  {record.display_name}  {instrument}  {state}{lock}"


def main(arguments: Optional[Sequence[str]] = None) -> int:
    parser = argparse.ArgumentParser(prog="python -m vell_device", description="Lists the tables that are there.")
    parser.add_argument("--runtime-dir", metavar="DIR", help="where their plug-ins listen")
    options = parser.parse_args(arguments)
    try:
        with Service(options.runtime_dir) as service:
            tables = service.tables()
            for table in tables:
                print(line_of(table.record))
            if not tables:
                print(f"no device in {service.runtime_dir}", file=sys.stderr)
    except Error as problem:
        print(f"vell_device: {problem}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
