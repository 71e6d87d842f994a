"""STL meshes and DICOM files from Python."""
import gc
import os

import numpy as np
import pytest

import quib
from conftest import cube_corners, write_binary_stl, write_dicom


def test_stl_arrays_merged_and_unmerged(cube_stl):
    mesh = quib.read_stl(cube_stl, merge=True)
    assert mesh.points.shape == (8, 3) and mesh.points.dtype == np.float32
    assert mesh.triangles.shape == (12, 3) and mesh.triangles.dtype == np.int32
    corners = cube_corners(2.0, (1, 2, 3))
    np.testing.assert_array_equal(mesh.points[mesh.triangles], corners)
    flat = quib.read_stl(str(cube_stl), merge=False)
    assert flat.points.shape == (36, 3)
    np.testing.assert_array_equal(flat.points.reshape(12, 3, 3), corners)
    assert len(mesh) == 12 and b"made".startswith(mesh.name)


def test_stl_points_view_the_mesh_and_keep_it_alive(cube_stl):
    mesh = quib.read_stl(cube_stl)
    points = mesh.points
    assert np.shares_memory(points, mesh.points)
    del mesh
    gc.collect()
    assert points.min() == 1 and points.max() == 5
    triangles = quib.read_stl(cube_stl).triangles
    gc.collect()
    assert not triangles.flags.writeable and triangles.max() == 7


@pytest.mark.parametrize("ascii", [False, True])
def test_stl_round_trip_from_arrays(tmp_path, ascii):
    rng = np.random.default_rng(3)
    points = rng.uniform(-100, 100, (50, 3)).astype(np.float32)
    triangles = rng.integers(0, 50, (80, 3)).astype(np.int32)
    path = tmp_path / "out.stl"
    quib.write_stl(path, points, triangles, ascii=ascii, precision=9)
    back = quib.read_stl(path, merge=False)
    np.testing.assert_allclose(back.points.reshape(80, 3, 3), points[triangles], rtol=1e-6)
    mesh = quib.Mesh(points, triangles, name="part")
    mesh.save(tmp_path / "again.stl")
    assert quib.read_stl(tmp_path / "again.stl", merge=False).points.shape == (240, 3)


def test_stl_failures(tmp_path, cube_stl):
    with pytest.raises(FileNotFoundError) as e:
        quib.read_stl(tmp_path / "none.stl")
    assert isinstance(e.value, quib.Error) and e.value.filename.endswith("none.stl")
    junk = tmp_path / "junk.stl"
    junk.write_bytes(b"not a mesh at all")
    with pytest.raises(quib.FormatError, match="junk.stl"):
        quib.read_stl(junk)
    with pytest.raises(IsADirectoryError):
        quib.read_stl(tmp_path)
    quib.read_stl(cube_stl)
    os.remove(cube_stl)  # deleted between calls
    with pytest.raises(FileNotFoundError):
        quib.read_stl(cube_stl)
    with pytest.raises(ValueError, match="refers to point 9"):
        quib.Mesh(np.zeros((3, 3)), [[0, 1, 9]])
    with pytest.raises(ValueError, match=r"\(T, 3\)"):
        quib.write_stl(tmp_path / "x.stl", np.zeros((3, 3)), np.zeros((2, 4), int))
    with pytest.raises(quib.WriteError):
        quib.write_stl(tmp_path / "no" / "such" / "x.stl", np.zeros((3, 3)), [[0, 1, 2]])


def test_dicom_mapping_by_keyword_and_tag(dicom_file):
    ds = quib.read_dicom(dicom_file)
    assert ds["PatientName"] == "Doe^Jane" == ds[0x00100010] == ds[(0x0010, 0x0010)]
    assert ds.PatientName == "Doe^Jane"
    assert ds["Rows"] == 4 and ds["Columns"] == 3 and ds["InstanceNumber"] == 12
    assert ds["ImagePositionPatient"] == [-10.5, 20.0, 30.25]
    assert ds["Modality"] == "CT" and ds.vr("Modality") == "CS"
    assert ds.name(0x00100010) == "Patient's Name"
    assert "PixelData" in ds and "PatientID" not in ds and 0x7FE00010 in ds
    assert list(ds) == sorted(ds) and 0x00020010 in list(ds)
    pixels = np.frombuffer(ds.raw("PixelData"), "<u2").reshape(4, 3)
    np.testing.assert_array_equal(pixels, np.arange(12).reshape(4, 3) * 7)
    with pytest.raises(KeyError):
        ds["PatientID"]
    with pytest.raises(KeyError):
        ds["NoSuchKeyword"]
    assert dict(ds.items())[0x00080060] == "CT"


def test_dicom_from_dcmtk(dcmtk_file):
    ds = quib.read_dicom(dcmtk_file)
    assert ds["PatientName"] == "Roe^Richard" and ds["SliceThickness"] == 1.25
    assert ds["Rows"] == 2 and ds["Modality"] == "MR"


def test_dicom_failures(tmp_path):
    with pytest.raises(FileNotFoundError):
        quib.read_dicom(tmp_path / "none.dcm")
    other = tmp_path / "other.dcm"
    other.write_bytes(b"\1" * 200)
    with pytest.raises(quib.FormatError, match="DICM"):
        quib.read_dicom(other)
