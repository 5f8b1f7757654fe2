"""The CGATS.17 grammar, apart from what keywords and fields mean: a header of keywords, the names of the fields, one
line for each data set. "#" begins a comment, a quoted text may hold spaces, and a doubled quote stands for one."""

from __future__ import annotations

import contextlib
import math
import os
import re
import struct
from typing import Dict, Iterable, Iterator, List, NoReturn, Optional, Sequence, Tuple

from .colorimetry import BANDS, WAVELENGTHS
from .errors import FileError

LARGEST_FILE = 64 << 20  # bytes

_TOKEN = re.compile(r'[ \t\r]*(?:(#.*)|"((?:[^"]|"")*)"(?=[ \t\r]|$)|([^" \t\r#][^ \t\r]*))')
_WAVELENGTH = re.compile(r"(?:SPECT?R?A?L?|R)?_?(?:NM)?_?(\d{3,4})(?:NM)?")
_MEASURED = re.compile(r"(?:LAB|LCH|LUV|XYZ|XYY|D|STDEV|SPECTRAL)_.*|MEAN_DE|CHI_SQD_PAR")

SPECTRAL_FIELDS = [f"SPECTRAL_NM{wavelength}" for wavelength in WAVELENGTHS]


class Quoted(str):
    """A text that stands in quotes in its file, and will again."""


def written(text: str) -> str:
    """A text as a file has it: in quotes where it stood in some, or where a bare word would not read back."""
    if isinstance(text, Quoted) or not re.fullmatch(r'[^"#\s][^\s]*', text):
        text = re.sub(r"[\r\n]", " ", text).replace('"', '""')
        return f'"{text}"'
    return text


def single(values: Iterable[float]) -> Tuple[float, ...]:
    """The values as 32-bit floats. OverflowError for one that is too large."""
    values = tuple(values)
    form = f"{len(values)}f"
    return struct.unpack(form, struct.pack(form, *values))


def shortest(value: float) -> str:
    """The shortest text that reads back to the same 32-bit float."""
    (exact,) = single((value,))
    texts = (f"{exact:.{digits}g}" for digits in (6, 7, 8, 9))
    return next(text for text in texts if single((float(text),)) == (exact,))


def read_text(path: str) -> str:
    """The text of a file. OSError when it cannot be read, FileError when it is too large."""
    with open(path, encoding="utf-8-sig", errors="surrogateescape", newline="\n") as file:
        text = file.read(LARGEST_FILE + 1)
    if len(text) > LARGEST_FILE:
        raise FileError(path, 0, "is too large")
    return text


def replace_file(path: str, text: str) -> None:
    """Makes the file hold the text, whole or not at all. What is no regular file (a pipe) is written to."""
    if os.path.exists(path) and not os.path.isfile(path):
        with open(path, "w", encoding="utf-8", errors="surrogateescape") as file:
            file.write(text)
        return
    path = os.path.realpath(path)  # a link stays one
    unfinished = f"{path}.{os.getpid()}.new"
    try:
        with open(unfinished, "w", encoding="utf-8", errors="surrogateescape", newline="\n") as file:
            with contextlib.suppress(OSError):
                os.fchmod(file.fileno(), os.stat(path).st_mode & 0o777)
            file.write(text)
        os.replace(unfinished, path)
    except BaseException:
        with contextlib.suppress(OSError):
            os.remove(unfinished)
        raise


class Table:
    """A file that has been read: its keywords, the names of its fields, and its sets with the lines they stand on."""

    def __init__(self, text: str, name: str) -> None:
        self.name = name
        self.keywords: Dict[str, str] = {}  # those that KEYWORD declares are declared again when they are written
        self.lines: Dict[str, int] = {}
        self.fields: List[str] = []
        self.sets: List[Tuple[int, List[str]]] = []
        self._line = 0
        lines = self._split(text)
        self._read_header(lines)
        self._read_sets(lines)

    def fail(self, line: int, reason: str) -> NoReturn:
        raise FileError(self.name, line, reason)

    def _split(self, text: str) -> Iterator[List[str]]:
        for self._line, line in enumerate(text.split("\n"), 1):
            tokens: List[str] = []
            at = 0
            line = line.rstrip(" \t\r")
            while at < len(line):
                found = _TOKEN.match(line, at)
                if not found:
                    self.fail(self._line, "a quoted text is not closed, or text follows it")
                comment, quoted, bare = found.groups()
                if comment is None:
                    tokens.append(bare if quoted is None else Quoted(quoted.replace('""', '"')))
                at = found.end()
            if tokens:
                yield tokens

    def _read_header(self, lines: Iterator[List[str]]) -> None:
        if not next(lines, [""])[0].startswith("CGATS"):
            self.fail(max(self._line, 1), "is no CGATS file: the first line must be CGATS.17")
        for tokens in lines:
            if tokens[0] == "BEGIN_DATA":
                break
            if tokens[0] == "BEGIN_DATA_FORMAT":
                self._read_format(lines)
            elif tokens[0] != "KEYWORD":
                if tokens[0] in self.keywords and tokens[0].startswith(("CHART_", "NUMBER_OF_")):
                    self.fail(self._line, f"{tokens[0]} is given twice")
                if tokens[0] not in self.keywords:
                    self.keywords[tokens[0]] = " ".join(tokens[1:])
                    self.lines[tokens[0]] = self._line
        else:
            self.fail(0, "ends before BEGIN_DATA")
        if not self.fields:
            self.fail(self._line, "BEGIN_DATA comes before any BEGIN_DATA_FORMAT")
        if "NUMBER_OF_FIELDS" in self.keywords and self.integer("NUMBER_OF_FIELDS") != len(self.fields):
            self.fail(self.lines["NUMBER_OF_FIELDS"],
                      f"NUMBER_OF_FIELDS does not match the {len(self.fields)} fields of the format")

    def _read_format(self, lines: Iterator[List[str]]) -> None:
        begin = self._line
        if self.fields:
            self.fail(begin, "a second BEGIN_DATA_FORMAT")
        for tokens in lines:
            if tokens[0] == "END_DATA_FORMAT":
                return
            for field in tokens:
                if field in self.fields:
                    self.fail(self._line, f'the field "{field}" is given twice')
                self.fields.append(field)
        self.fail(begin, "BEGIN_DATA_FORMAT has no END_DATA_FORMAT")

    def _read_sets(self, lines: Iterator[List[str]]) -> None:
        count = self.integer("NUMBER_OF_SETS")
        for tokens in lines:
            if tokens[0] == "END_DATA":
                break
            if len(tokens) != len(self.fields):
                self.fail(self._line, f"the set has {len(tokens)} fields instead of {len(self.fields)}")
            self.sets.append((self._line, tokens))
        else:
            self.fail(0, "ends without END_DATA")
        if len(self.sets) != count:
            self.fail(self._line, f"NUMBER_OF_SETS is {count}, but there are {len(self.sets)} sets")

    def required(self, keyword: str) -> str:
        if keyword not in self.keywords:
            self.fail(0, f"the keyword {keyword} is missing")
        return self.keywords[keyword]

    def integer(self, keyword: str) -> int:
        text = self.required(keyword)
        if not re.fullmatch(r"[+-]?\d{1,9}", text):
            self.fail(self.lines[keyword], f'{keyword} is no whole number: "{text[:40]}"')
        return int(text)

    def numbers(self, line: int, texts: Sequence[str]) -> Tuple[float, ...]:
        for text in texts:
            if not re.fullmatch(r"[+-]?(\d+\.?\d*|\.\d+)([eE][+-]?\d+)?", text) or not math.isfinite(float(text)):
                self.fail(line, f'no finite number: "{text[:40]}"')
        return tuple(map(float, texts))

    def field(self, name: str) -> int:
        """The position of a field in every set; FileError when the file does not have it."""
        if name not in self.fields:
            self.fail(0, f"the field {name} is missing")
        return self.fields.index(name)

    def spectral_fields(self) -> Optional[List[int]]:
        """The positions of the 36 bands; None when one of them is missing."""
        positions = {_wavelength(field): position for position, field in enumerate(self.fields)}
        found = [positions[wavelength] for wavelength in WAVELENGTHS if wavelength in positions]
        return found if len(found) == BANDS else None

    def other_fields(self) -> Dict[str, int]:
        """The fields that are neither measured nor say where a patch lies: device values, names and whatever else."""
        own = ("SAMPLE_ID", "ROW", "COLUMN", "SPOT_INDEX")
        return {field: position for position, field in enumerate(self.fields)
                if field not in own and _wavelength(field) is None and not _MEASURED.fullmatch(field)}


def _wavelength(field: str) -> Optional[int]:
    found = _WAVELENGTH.fullmatch(field.upper())
    return int(found.group(1)) if found else None


def table_text(keywords: Dict[str, str], fields: Sequence[str], sets: Iterable[Iterable[str]],
               declared: Iterable[str] = ()) -> str:
    """A file. `declared` are the keywords and fields that the standard does not know."""
    lines = ["CGATS.17", *(f"KEYWORD {written(Quoted(name))}" for name in declared)]
    lines += [f"{keyword} {written(Quoted(value))}" for keyword, value in keywords.items()]
    data = [" ".join(map(written, values)) for values in sets]
    lines += [f"NUMBER_OF_FIELDS {len(fields)}", "BEGIN_DATA_FORMAT", " ".join(map(written, fields)), "END_DATA_FORMAT",
              f"NUMBER_OF_SETS {len(data)}", "BEGIN_DATA", *data, "END_DATA", ""]
    return "\n".join(lines)
