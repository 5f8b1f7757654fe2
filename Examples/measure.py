#!/usr/bin/env python3
"""Measures a chart and prints row, column and CIELAB of each patch: measure.py LAYOUT [TABLE]"""

import sys

import vell_device as vell

layout = vell.Layout.read(sys.argv[1])
with vell.Service() as service:
    table = service.table(*sys.argv[2:])  # the only one, or by path, name or serial number
    with table.lock():
        for row in table.scan(layout):
            for patch in row.patches:
                print(f"{patch.row:>3} {patch.column:>3}", *(f"{value:8.3f}" for value in patch.lab), flush=True)
