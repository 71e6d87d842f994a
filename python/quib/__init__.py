"""QUIB, an imaging and measurement library, from Python.

Images are NumPy arrays over the library's pixels (and ``quib.Image`` wraps an array without a
copy); fits take (N, 2) / (N, 3) arrays; STL meshes give (P, 3) float32 points and (T, 3) int32
triangles; DICOM files read as mappings by keyword and by tag; hashes take any bytes-like
object. Every call that reads files or loops over points releases the GIL, so threads run in
parallel. Failures raise quib.Error subclasses that also are FileNotFoundError / ValueError /
OSError (see quib.errors). ``quib.batch`` holds pure per-file functions for Dask and friends.
"""
from collections.abc import Mapping as _Mapping
import struct as _struct

from . import errors
from .errors import (ArgumentError, Error, FormatError, IsADirectoryError, NotFoundError,
                     WriteError)
from ._quib import (Bitmap, Camera, Circle, Image, Line, Mesh, Plane, Polynomial, Sphere,
                    add_sharp_number, add_suffix_number, fit_circle, fit_line, fit_plane,
                    fit_polynomial, fit_sphere, get_sharp_number, get_suffix_number, hash64,
                    ransac_plane, read_bmp, read_camera, read_stl, sha256, sub_sharp_number,
                    sub_suffix_number, write_bmp, write_stl)
from . import _quib
from ._keywords import KEYWORDS as _KEYWORDS

__version__ = "0.1.0"

_TEXT_VRS = {"AE", "AS", "CS", "DA", "DT", "LO", "LT", "PN", "SH", "ST", "TM", "UC", "UI",
             "UR", "UT"}
_SINGLE_TEXT_VRS = {"LT", "ST", "UT", "UR"}
_NUMBER_VRS = {"US": "H", "SS": "h", "UL": "I", "SL": "i", "FL": "f", "FD": "d", "UV": "Q",
               "SV": "q"}
_BIG_ENDIAN_SYNTAX = "1.2.840.10008.1.2.2"


def _tag(key):
    if isinstance(key, str):
        try:
            return _KEYWORDS[key]
        except KeyError:
            raise KeyError(key) from None
    if isinstance(key, tuple) and len(key) == 2:
        return (int(key[0]) << 16) | int(key[1])
    return int(key)


class DicomFile(_Mapping):
    """A DICOM file read into its element table: a read-only mapping by keyword ("PatientName")
    or by tag (0x00100010, or (0x0010, 0x0010)) to typed values.

    Numbers (US, SS, UL, SL, FL, FD, UV, SV) come in the file's byte order as int / float, or a
    list when there are several; DS and IS as float / int; text VRs as str, trimmed, split at
    backslashes into a list when multi-valued; anything else as bytes. The VR is the data
    dictionary's. ``raw(key)`` gives the stored bytes, ``vr(key)`` and ``name(key)`` the
    dictionary's VR and name. Iteration yields tags in ascending order. Attribute access works
    too: ``ds.PatientName``.
    """

    def __init__(self, table, path):
        self._table = table
        self._tags = table.tags()
        self.filename = path
        syntax = table.raw(0x00020010)
        self._little = syntax is None or syntax.rstrip(b"\0 ").decode("ascii", "replace") != _BIG_ENDIAN_SYNTAX

    def __getitem__(self, key):
        tag = _tag(key)
        raw = self._table.raw(tag)
        if raw is None:
            raise KeyError(key)
        return self._decode(tag, raw)

    def __iter__(self):
        return iter(self._tags)

    def __len__(self):
        return len(self._tags)

    def __contains__(self, key):
        try:
            return self._table.raw(_tag(key)) is not None
        except (KeyError, TypeError, ValueError):
            return False

    def __getattr__(self, name):
        if name.startswith("_") or name not in _KEYWORDS:
            raise AttributeError(name)
        try:
            return self[name]
        except KeyError:
            raise AttributeError(name) from None

    def raw(self, key):
        """The value's bytes exactly as stored."""
        raw = self._table.raw(_tag(key))
        if raw is None:
            raise KeyError(key)
        return raw

    def vr(self, key):
        return _quib._DicomTable.vr(_tag(key))

    def name(self, key):
        return _quib._DicomTable.name(_tag(key))

    def __repr__(self):
        return f"<quib.DicomFile {self.filename!r}, {len(self)} elements>"

    def _decode(self, tag, raw):
        vr = _quib._DicomTable.vr(tag)
        little = self._little or (tag >> 16) == 0x0002
        if vr in _NUMBER_VRS:
            code = _NUMBER_VRS[vr]
            size = _struct.calcsize(code)
            n = len(raw) // size
            values = list(_struct.unpack(("<" if little else ">") + code * n, raw[: n * size]))
            return values[0] if n == 1 else values
        if vr in _TEXT_VRS or vr in ("DS", "IS"):
            text = raw.decode("latin-1").rstrip("\0 ")
            parts = [text] if vr in _SINGLE_TEXT_VRS else [p.strip() for p in text.split("\\")]
            if vr in ("DS", "IS"):
                convert = float if vr == "DS" else int
                try:
                    parts = [convert(p) for p in parts if p]
                except ValueError:
                    pass
            if not parts:
                return ""
            return parts[0] if len(parts) == 1 else parts
        return raw


def read_dicom(path):
    """Reads a DICOM file into a DicomFile mapping. Raises FileNotFoundError, IsADirectoryError
    or quib.FormatError (not a DICOM file). Releases the GIL while reading.

        >>> ds = quib.read_dicom("ct.dcm")
        >>> ds["PatientName"], ds[0x00280010]
    """
    return DicomFile(_quib._read_dicom_table(path), str(path))


__all__ = [
    "ArgumentError", "Bitmap", "Camera", "Circle", "DicomFile", "Error", "FormatError",
    "Image", "IsADirectoryError", "Line", "Mesh", "NotFoundError", "Plane", "Polynomial",
    "Sphere", "WriteError", "add_sharp_number", "add_suffix_number", "errors", "fit_circle",
    "fit_line", "fit_plane", "fit_polynomial", "fit_sphere", "get_sharp_number",
    "get_suffix_number", "hash64", "ransac_plane", "read_bmp", "read_camera", "read_dicom",
    "read_stl", "sha256", "sub_sharp_number", "sub_suffix_number", "write_bmp", "write_stl",
]
