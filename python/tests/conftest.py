"""Test files made here: binary STL by NumPy, DICOM by a small writer and by dcmtk's dump2dcm."""
import os
import shutil
import struct
import subprocess

import numpy as np
import pytest

# Under the sanitizer build, slow multi-process runs are kept small.
SANITIZED = os.environ.get("QUIB_SANITIZED") == "1"


def write_binary_stl(path, corners, header=b"made by numpy"):
    """corners: (T, 3, 3) float32 triangle corners. Written independently of the library."""
    corners = np.asarray(corners, np.float32)
    record = np.dtype([("normal", "<f4", 3), ("corners", "<f4", (3, 3)), ("attr", "<u2")])
    data = np.zeros(len(corners), record)
    data["corners"] = corners
    with open(path, "wb") as f:
        f.write(header.ljust(80, b"\0"))
        f.write(struct.pack("<I", len(corners)))
        f.write(data.tobytes())


def cube_corners(size=1.0, origin=(0.0, 0.0, 0.0)):
    """The 12 triangles of an axis-aligned cube, as (12, 3, 3) corners."""
    o = np.asarray(origin, np.float32)
    v = np.array([[x, y, z] for x in (0, 1) for y in (0, 1) for z in (0, 1)], np.float32) * size + o
    faces = [(0, 1, 3), (0, 3, 2), (4, 6, 7), (4, 7, 5), (0, 4, 5), (0, 5, 1),
             (2, 3, 7), (2, 7, 6), (0, 2, 6), (0, 6, 4), (1, 5, 7), (1, 7, 3)]
    return v[np.array(faces)]


def _element(group, number, vr, value):
    if isinstance(value, str):
        value = value.encode("latin-1")
        if len(value) % 2:
            value += b"\0" if vr == "UI" else b" "
    head = struct.pack("<HH", group, number) + vr.encode()
    if vr in ("OB", "OW", "SQ", "UN", "UT", "UC", "UR", "OF", "OD", "OL", "OV"):
        return head + b"\0\0" + struct.pack("<I", len(value)) + value
    return head + struct.pack("<H", len(value)) + value


def write_dicom(path, rows=4, columns=3, name="Doe^Jane", pixels=None, syntax="1.2.840.10008.1.2.1",
                z=30.25, series="1.2.3.4", instance=12):
    """An explicit-VR little-endian CT slice with a meta group and 16-bit pixels."""
    if pixels is None:
        pixels = np.arange(rows * columns, dtype="<u2").reshape(rows, columns) * 7
    us = lambda v: struct.pack("<H", v)  # noqa: E731
    meta = _element(0x0002, 0x0010, "UI", syntax)
    body = b"".join([
        _element(0x0008, 0x0060, "CS", "CT"),
        _element(0x0010, 0x0010, "PN", name),
        _element(0x0020, 0x000E, "UI", series),
        _element(0x0020, 0x0013, "IS", str(instance)),
        _element(0x0020, 0x0032, "DS", f"-10.5\\20\\{z}"),
        _element(0x0020, 0x0037, "DS", "1\\0\\0\\0\\1\\0"),
        _element(0x0028, 0x0002, "US", us(1)),
        _element(0x0028, 0x0004, "CS", "MONOCHROME2"),
        _element(0x0028, 0x0010, "US", us(rows)),
        _element(0x0028, 0x0011, "US", us(columns)),
        _element(0x0028, 0x0030, "DS", "0.5\\0.5"),
        _element(0x0028, 0x0100, "US", us(16)),
        _element(0x0028, 0x0101, "US", us(16)),
        _element(0x0028, 0x0102, "US", us(15)),
        _element(0x0028, 0x0103, "US", us(0)),
        _element(0x0028, 0x1052, "DS", "-1024"),
        _element(0x0028, 0x1053, "DS", "2"),
        _element(0x7FE0, 0x0010, "OW", np.asarray(pixels, "<u2").tobytes()),
    ])
    group_length = _element(0x0002, 0x0000, "UL", struct.pack("<I", len(meta)))
    with open(path, "wb") as f:
        f.write(b"\0" * 128 + b"DICM" + group_length + meta + body)


@pytest.fixture
def cube_stl(tmp_path):
    path = tmp_path / "cube.stl"
    write_binary_stl(path, cube_corners(2.0, (1, 2, 3)))
    return path


@pytest.fixture
def dicom_file(tmp_path):
    path = tmp_path / "image.dcm"
    write_dicom(path)
    return path


@pytest.fixture
def dcmtk_file(tmp_path):
    """A file written by dcmtk from a text dump (skipped when dcmtk is missing)."""
    if not shutil.which("dump2dcm"):
        pytest.skip("dcmtk's dump2dcm is not installed")
    dump = tmp_path / "dump.txt"
    dump.write_text("(0008,0060) CS [MR]\n(0010,0010) PN [Roe^Richard]\n"
                    "(0018,0050) DS [1.25]\n(0028,0010) US 2\n(0028,0011) US 2\n")
    out = tmp_path / "dcmtk.dcm"
    subprocess.run(["dump2dcm", "--write-xfer-little", str(dump), str(out)], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return out


def write_bitmap(path, indices, bits, palette=None, top_down=False):
    """An uncompressed bitmap file written independently of the library. `indices` is
    (rows, columns) of palette indices (1 to 8 bits) or 16-bit words, or (rows, columns, 3 or 4)
    bytes; rows are given top-down and stored as `top_down` says."""
    indices = np.asarray(indices)
    height, width = indices.shape[:2]
    if bits < 8:
        per = 8 // bits
        padded = np.zeros((height, -(-width // per) * per), np.uint8)
        padded[:, :width] = indices
        groups = padded.reshape(height, -1, per).astype(np.uint8)
        shifts = np.arange(per - 1, -1, -1, dtype=np.uint8) * bits
        rows = (groups << shifts).sum(axis=2).astype(np.uint8)
    elif bits == 16:
        rows = indices.astype("<u2").view(np.uint8).reshape(height, -1)
    else:
        rows = indices.astype(np.uint8).reshape(height, -1)
    line = -(-rows.shape[1] // 4) * 4
    data = np.zeros((height, line), np.uint8)
    data[:, :rows.shape[1]] = rows
    if not top_down:
        data = data[::-1]
    table = b"" if palette is None else np.asarray(palette, np.uint8).reshape(-1, 4).tobytes()
    offset = 14 + 40 + len(table)
    info = struct.pack("<IiiHHIIiiII", 40, width, -height if top_down else height, 1, bits, 0,
                       data.size, 2835, 2835, len(table) // 4, 0)
    with open(path, "wb") as f:
        f.write(b"BM" + struct.pack("<IHHI", offset + data.size, 0, 0, offset) + info + table)
        f.write(data.tobytes())
