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
    assert ds["Modality"] == "CT" and ds.vr("Modality") == "CS" and ds.keyword(0x00080060) == "Modality"
    assert ds.name(0x00100010) == "Patient's Name" and ds["0010,0010"] == "Doe^Jane"
    assert "PixelData" in ds and "PatientID" not in ds and 0x7FE00010 in ds and "Nonsense" not in ds
    assert list(ds) == sorted(ds) and 0x00020010 in list(ds)
    assert ds.complete and ds.transfer_syntax == "1.2.840.10008.1.2.1"
    expected = np.arange(12).reshape(4, 3) * 7
    np.testing.assert_array_equal(np.frombuffer(ds.raw("PixelData"), "<u2").reshape(4, 3), expected)
    pixels = ds.pixels()
    assert pixels.dtype == np.uint16 and pixels.shape == (4, 3)
    np.testing.assert_array_equal(pixels, expected)
    np.testing.assert_allclose(ds.values(), expected * 2.0 - 1024)
    assert ds.display().dtype == np.uint8
    assert ds.pixel_info()["frames"] == 1
    with pytest.raises(IndexError):
        ds.pixels(1)
    with pytest.raises(KeyError):
        ds["PatientID"]
    with pytest.raises(KeyError):
        ds["NoSuchKeyword"]
    assert dict(ds.items())[0x00080060] == "CT"


def test_dicom_from_dcmtk(dcmtk_file):
    ds = quib.read_dicom(dcmtk_file)
    assert ds["PatientName"] == "Roe^Richard" and ds["SliceThickness"] == 1.25
    assert ds["Rows"] == 2 and ds["Modality"] == "MR"


def test_dicom_volume_of_a_series(tmp_path):
    rng = np.random.default_rng(2)
    slices = [rng.integers(0, 4000, (4, 3)).astype("<u2") for _ in range(5)]
    order = [3, 0, 4, 1, 2]  # files named out of slice order
    for k, i in enumerate(order):
        write_dicom(tmp_path / f"f{k}.dcm", pixels=slices[i], z=2.5 * i, instance=i + 1)
    write_dicom(tmp_path / "other.dcm", series="9.9")
    volume = quib.read_volume(tmp_path)
    array = volume.array
    assert np.shares_memory(array, volume.array)  # both views of the volume's one buffer
    serial = quib.read_volume(tmp_path, threads=1)
    assert serial.threads == 1
    np.testing.assert_array_equal(serial.array, array)
    assert array.shape == (5, 4, 3) and array.dtype == np.uint16
    np.testing.assert_array_equal(array, np.stack(slices))
    np.testing.assert_allclose(volume.spacing, [0.5, 0.5, 2.5])
    np.testing.assert_allclose(volume.origin, [-10.5, 20, 0])
    np.testing.assert_allclose(volume.direction, np.eye(3))
    del volume
    gc.collect()
    assert array.sum() == sum(int(s.sum()) for s in slices)
    rescaled = quib.read_volume(sorted(tmp_path.glob("f*.dcm")), rescaled=True).array
    np.testing.assert_allclose(rescaled, np.stack(slices) * 2.0 - 1024)
    with pytest.raises(FileNotFoundError):
        quib.read_volume(tmp_path / "none")
    with pytest.raises(quib.FormatError):
        quib.read_volume([str(tmp_path / "f0.dcm"), str(tmp_path / "f0.dcm")])


def test_mesh_measures_of_a_cube(cube_stl):
    m = quib.mesh_measures(quib.read_stl(cube_stl))
    assert m["closed"] and m["solid"] and m["parts"] == 1 and m["boundary_edges"] == 0
    assert m["area"] == pytest.approx(24) and abs(m["volume"]) == pytest.approx(8)
    np.testing.assert_allclose(m["centroid"], [2, 3, 4])
    np.testing.assert_allclose(m["box_min"], [1, 2, 3])


def test_dicom_failures(tmp_path):
    with pytest.raises(FileNotFoundError):
        quib.read_dicom(tmp_path / "none.dcm")
    other = tmp_path / "other.dcm"
    other.write_bytes(b"\1" * 200)
    with pytest.raises(quib.FormatError, match="DICM"):
        quib.read_dicom(other)
