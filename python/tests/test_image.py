"""quib.Image over NumPy arrays, and bitmap files."""
import gc

import numpy as np
import pytest

import quib
from conftest import write_bitmap


@pytest.mark.parametrize("dtype", [np.uint8, np.uint16, np.float32])
@pytest.mark.parametrize("shape", [(5, 7), (5, 7, 3), (5, 7, 4), (1, 1)])
def test_image_wraps_array_without_copy(dtype, shape):
    a = np.arange(np.prod(shape)).astype(dtype).reshape(shape)
    image = quib.Image(a)
    b = np.asarray(image)
    assert np.shares_memory(a, b)
    assert b.shape == a.shape and b.dtype == a.dtype
    assert image.shape == a.shape and image.width == shape[1] and image.height == shape[0]
    assert image.borrowed
    a[0, 0] = 9
    assert b[0, 0].flat[0] == 9
    np.testing.assert_array_equal(a, b)


def test_image_keeps_array_and_array_keeps_image_alive():
    a = np.full((64, 32, 3), 17, np.uint8)
    image = quib.Image(a)
    del a
    gc.collect()
    view = np.asarray(image)
    del image
    gc.collect()
    assert view.sum() == 64 * 32 * 3 * 17
    owned = quib.Image(8, 6, 4, np.uint16)
    arr = np.asarray(owned)
    assert not owned.borrowed and arr.shape == (8, 6, 4) and arr.dtype == np.uint16
    del owned
    gc.collect()
    arr[:] = 65535
    assert int(arr.sum()) == 65535 * 8 * 6 * 4


def test_image_of_a_crop_keeps_row_padding():
    a = np.arange(100 * 80, dtype=np.uint16).reshape(100, 80)
    crop = a[10:20, 5:50]
    image = quib.Image(crop)
    assert image.line_bytes == 160
    b = np.asarray(image)
    assert np.shares_memory(a, b)
    np.testing.assert_array_equal(b, crop)


@pytest.mark.parametrize("bad, reason", [
    (np.zeros((4, 4), np.int32), "dtype"),
    (np.zeros((4, 4), np.float64), "dtype"),
    (np.zeros(16, np.uint8), "shape"),
    (np.zeros((2, 2, 2, 2), np.uint8), "shape"),
    (np.zeros((4, 4, 2), np.uint8), "channels"),
    (np.zeros((4, 8), np.uint8)[:, ::2], "contiguous"),
    (np.zeros((8, 4), np.uint8).T, "contiguous"),
    (np.zeros((4, 4, 3), np.uint8)[:, :, ::-1], "contiguous"),
])
def test_image_refuses_arrays_it_cannot_wrap(bad, reason):
    with pytest.raises(ValueError, match=reason):
        quib.Image(bad)
    with pytest.raises(quib.Error):
        quib.Image(bad)


def test_read_only_array_gives_read_only_view():
    a = np.zeros((3, 3), np.uint8)
    a.flags.writeable = False
    b = np.asarray(quib.Image(a))
    assert not b.flags.writeable


@pytest.mark.parametrize("shape", [(7, 5), (7, 5, 3), (7, 6, 4), (300, 3, 3)])
def test_bitmap_round_trip_and_bands(tmp_path, shape):
    rng = np.random.default_rng(1)
    a = rng.integers(0, 256, shape, dtype=np.uint8)
    path = tmp_path / "x.bmp"
    quib.write_bmp(path, a)
    back = quib.read_bmp(path)
    np.testing.assert_array_equal(back, a)
    bitmap = quib.Bitmap(path)
    assert (bitmap.width, bitmap.height, bitmap.channels) == (shape[1], shape[0], (shape + (1,))[2])
    seen = np.zeros_like(a)
    arrays = set()
    for top, band in bitmap.bands(rows=4):
        seen[top:top + len(band)] = band
        arrays.add(id(band.base) if band.base is not None else id(band))
    np.testing.assert_array_equal(seen, a)
    # the lifetime of the pixels outlives every Python object but the array
    del bitmap
    gc.collect()
    assert back.sum() == a.sum()


def test_bitmap_failures_name_the_file(tmp_path):
    with pytest.raises(FileNotFoundError) as e:
        quib.read_bmp(tmp_path / "missing.bmp")
    assert e.value.filename.endswith("missing.bmp")
    bad = tmp_path / "bad.bmp"
    bad.write_bytes(b"BM" + b"\0" * 10)
    with pytest.raises(quib.FormatError, match="bad.bmp"):
        quib.read_bmp(bad)
    with pytest.raises(IsADirectoryError):
        quib.Bitmap(tmp_path)


@pytest.mark.parametrize("top_down", [False, True])
def test_read_bmp_of_every_depth(tmp_path, top_down):
    rng = np.random.default_rng(4)
    shape = (5, 13)  # odd widths leave partial bytes and padded rows
    colours = rng.integers(0, 256, (256, 4), dtype=np.uint8)
    colours[:, 3] = 0
    greys = np.repeat(np.arange(256, dtype=np.uint8)[:, None], 4, axis=1)
    greys[:, 3] = 0
    path = tmp_path / "x.bmp"
    for bits in (1, 2, 4, 8):
        indices = rng.integers(0, 1 << bits, shape)
        table = colours[:1 << bits]
        write_bitmap(path, indices, bits, table, top_down)
        np.testing.assert_array_equal(quib.read_bmp(path, palette="index"), indices)
        np.testing.assert_array_equal(quib.read_bmp(path), table[indices, :3])
        write_bitmap(path, indices, bits, greys[:1 << bits] * (255 // ((1 << bits) - 1)), top_down)
        grey = quib.read_bmp(path)  # a grey table gives grey levels, as OpenCV reads it
        assert grey.shape == shape
        np.testing.assert_array_equal(grey, indices * (255 // ((1 << bits) - 1)))
        assert quib.read_bmp(path, palette="bgr").shape == shape + (3,)
    words = rng.integers(0, 1 << 15, shape)
    write_bitmap(path, words, 16, top_down=top_down)
    widen = lambda v: (v << 3) | (v >> 2)  # noqa: E731
    expected = np.stack([widen(words & 31), widen((words >> 5) & 31), widen((words >> 10) & 31)], -1)
    np.testing.assert_array_equal(quib.read_bmp(path), expected)
    for channels in (3, 4):
        pixels = rng.integers(0, 256, shape + (channels,), dtype=np.uint8)
        write_bitmap(path, pixels, 8 * channels, top_down=top_down)
        back = quib.read_bmp(path)
        np.testing.assert_array_equal(back, pixels)
    with pytest.raises(ValueError, match="palette"):
        quib.read_bmp(path, palette="rgb")
    path.write_bytes(path.read_bytes()[:-40])  # rows missing
    with pytest.raises(quib.FormatError):
        quib.read_bmp(path)


def test_to_bgr_of_grey_colour_and_deep_images():
    rng = np.random.default_rng(6)
    grey = rng.integers(0, 256, (6, 5), dtype=np.uint8)
    np.testing.assert_array_equal(quib.to_bgr(grey), np.repeat(grey[:, :, None], 3, axis=2))
    bgra = rng.integers(0, 256, (6, 5, 4), dtype=np.uint8)
    np.testing.assert_array_equal(quib.to_bgr(bgra), bgra[:, :, :3])
    deep = quib.to_bgr(np.array([[0, 65535]], np.uint16))
    assert deep[0, 0].tolist() == [0, 0, 0] and deep[0, 1].tolist() == [255, 255, 255]
    with pytest.raises(ValueError):
        quib.to_bgr(np.zeros((4, 4), np.float32))
