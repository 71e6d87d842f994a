from collections.abc import Mapping
from os import PathLike
from typing import Any, Iterator, Tuple, Union

from . import batch as batch, errors as errors
from ._quib import (Bitmap as Bitmap, Camera as Camera, Circle as Circle, Image as Image,
                    Line as Line, Mesh as Mesh, Plane as Plane, Polynomial as Polynomial,
                    Sphere as Sphere, add_sharp_number as add_sharp_number,
                    add_suffix_number as add_suffix_number, fit_circle as fit_circle,
                    fit_line as fit_line, fit_plane as fit_plane, fit_polynomial as fit_polynomial,
                    fit_sphere as fit_sphere, get_sharp_number as get_sharp_number,
                    get_suffix_number as get_suffix_number, hash64 as hash64,
                    ransac_plane as ransac_plane, read_bmp as read_bmp, read_camera as read_camera,
                    read_stl as read_stl, sha256 as sha256, sub_sharp_number as sub_sharp_number,
                    sub_suffix_number as sub_suffix_number, write_bmp as write_bmp,
                    write_stl as write_stl)
from .errors import (ArgumentError as ArgumentError, Error as Error, FormatError as FormatError,
                     IsADirectoryError as IsADirectoryError, NotFoundError as NotFoundError,
                     WriteError as WriteError)

__version__: str
_Key = Union[int, str, Tuple[int, int]]

class DicomFile(Mapping[int, Any]):
    filename: str
    def __getitem__(self, key: _Key) -> Any: ...
    def __iter__(self) -> Iterator[int]: ...
    def __len__(self) -> int: ...
    def __getattr__(self, name: str) -> Any: ...
    def raw(self, key: _Key) -> bytes: ...
    def vr(self, key: _Key) -> str: ...
    def name(self, key: _Key) -> str: ...

def read_dicom(path: Union[str, bytes, PathLike]) -> DicomFile: ...
