"""QUIB, an imaging and measurement library, from Python.

Images are NumPy arrays over the library's pixels (and ``quib.Image`` wraps an array without a
copy); fits take (N, 2) / (N, 3) arrays; STL meshes give (P, 3) float32 points and (T, 3) int32
triangles; DICOM files read as mappings by keyword and by tag; hashes take any bytes-like
object. Every call that reads files or loops over points releases the GIL, so threads run in
parallel. Failures raise quib.Error subclasses that also are FileNotFoundError / ValueError /
OSError (see quib.errors). ``quib.batch`` holds pure per-file functions for Dask and friends.
"""
from collections.abc import Mapping as _Mapping

from . import errors
from .errors import (ArgumentError, Error, FormatError, IsADirectoryError, NotFoundError,
                     WriteError)
# Every public name of the compiled module: images, fits, statistics, meshes, DICOM, cameras,
# calibration, features, contours, hashing, clocks.
from ._quib import *  # noqa: F401,F403
from . import _quib

__version__ = "0.1.0"



class DicomFile(_Mapping):
    """A DICOM file read with the standard reading (as DICOM toolkits read files): a read-only
    mapping by keyword ("PatientName"), by tag (0x00100010, or (0x0010, 0x0010)) or by tag text
    ("0010,0010") to typed values.

    Values as their VR says: US SS UL SL UV SV IS as int, FL FD DS as float (a list when there
    are several; None when empty); text as str decoded under the file's Specific Character Set
    (a list when several); a sequence as a list of DicomFile items; anything else as bytes.
    ``raw(key)`` gives the stored bytes, ``vr(key)`` the VR the element was read with,
    ``keyword(key)`` and ``name(key)`` the dictionary's. Iteration yields tags in ascending
    order. ``ds.PatientName`` works too. ``complete`` says whether reading reached the end of
    the file (``stop_offset`` is where it stopped). ``pixels(frame=0)`` decodes one frame into
    an array (rows, columns[, samples]) of the stored samples; ``values`` rescales it to
    float32 real values, ``display`` windows it to uint8. Pixel failures raise quib.FormatError.
    """

    def __init__(self, table):
        self._table = table
        self._tags = table.tags()

    @property
    def filename(self):
        return self._table.path

    def __getitem__(self, key):
        return self._table.value(key)

    def __iter__(self):
        return iter(self._tags)

    def __len__(self):
        return len(self._tags)

    def __contains__(self, key):
        return self._table.has(key)

    def __getattr__(self, name):
        if name.startswith("_") or not name[:1].isupper():
            raise AttributeError(name)
        try:
            return self._table.value(name)
        except KeyError:
            raise AttributeError(name) from None

    def raw(self, key):
        """The value's bytes exactly as stored."""
        return self._table.raw(key)

    def vr(self, key):
        return self._table.vr(key)

    def keyword(self, key):
        return self._table.keyword(key)

    def name(self, key):
        return self._table.name(key)

    @property
    def complete(self):
        return self._table.complete

    @property
    def stop_offset(self):
        return self._table.stop_offset

    @property
    def transfer_syntax(self):
        return self._table.transfer_syntax

    def pixels(self, frame=0):
        """Frame `frame` (0-based) as an array of the decoded samples, not rescaled."""
        return self._table.pixels(frame)

    def pixel_info(self):
        """rows, columns, samples, bits, photometric (as decoded), frames and rescale."""
        return self._table.pixel_info()

    def values(self, frame=0):
        """Frame `frame` rescaled to real values (Hounsfield units for CT), float32."""
        return self._table.values(frame)

    def display(self, frame=0, window=0):
        """Frame `frame` for display: windowed to uint8 (RGB for colour)."""
        return self._table.display(frame, window)

    def __repr__(self):
        return f"<quib.DicomFile {self.filename!r}, {len(self)} elements>"


def read_dicom(path, classic=False):
    """Reads a DICOM file into a DicomFile mapping (``classic=True``: the library's classic walk).
    Raises FileNotFoundError, IsADirectoryError or quib.FormatError (not a DICOM file).
    Releases the GIL while reading.

        >>> ds = quib.read_dicom("ct.dcm")
        >>> ds["PatientName"], ds[0x00280010], ds.pixels().shape
    """
    return DicomFile(_quib._read_dicom(path, classic))


def calibrate(images, columns=10, rows=7, square=24.0):
    """Calibrates a camera from a list of image arrays of a chessboard with ``columns`` x
    ``rows`` inner corners and squares of ``square`` (or (width, height)) length units.
    Images in which the whole board is not found are skipped (use Calibration.add to see which).
    Returns a CameraCalibration; raises quib.ArgumentError when no view can be solved.

        >>> result = quib.calibrate(views, 10, 7, 24.0)
        >>> result.matrix, result.distortion, result.matrix_deviation, result.view_errors
        >>> result.save("camera.yml")
    """
    calibration = Calibration(columns, rows, square)  # noqa: F405
    for image in images:
        calibration.add(image)
    return calibration.solve()


__all__ = sorted([name for name in dir(_quib) if not name.startswith("_")] + [
    "ArgumentError", "DicomFile", "Error", "FormatError", "IsADirectoryError", "NotFoundError",
    "WriteError", "errors", "calibrate", "read_dicom"])
