"""Measures colour charts with X/Y scanning tables, from Python: a client of the tables' plug-ins.

    import vell_device as vell
    with vell.Service() as service:
        table = service.table()
        with table.lock():
            for row in table.scan(vell.Layout.read("chart.txt"), progress=True):
                print(row.index, row.patches[0].lab)

`vell_device.aio` is the same for asyncio, `python -m vell_device` lists the tables that are there. The docstrings give
shapes and units: spectra are 36 reflectances, 380 to 730 nm in steps of 10, 1 being the perfect diffuser; positions are
table coordinates; times are seconds."""

from . import colorimetry
from .charts import Layout, LayoutPatch, Measurement, Patch, Point, Reading, Row
from .colorimetry import Lab
from .errors import (Busy, Cancelled, DeviceError, DeviceGone, Error, FileError, Locked, NoDevice, ProtocolError,
                     Timeout)
from .progress import Progress
from .service import Exchange, Lock, Service, Table
from .simulation import Simulation, VirtualTable, virtual_table
from .wire import Color, Measured, Record, Response

__version__ = "1.0.0"

__all__ = ["Busy", "Cancelled", "Color", "DeviceError", "DeviceGone", "Error", "Exchange", "FileError", "Lab", "Layout",
           "LayoutPatch", "Lock", "Locked", "Measured", "Measurement", "NoDevice", "Patch", "Point", "Progress",
           "ProtocolError", "Reading", "Record", "Response", "Row", "Service", "Simulation", "Table", "Timeout",
           "VirtualTable", "colorimetry", "virtual_table"]
