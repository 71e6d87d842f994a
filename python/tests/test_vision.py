"""Calibration from rendered chessboards, feature registration of a warped picture, contours."""
import numpy as np
import pytest

import quib

CAMERA = np.array([[620.0, 0, 322], [0, 615, 238], [0, 0, 1]])
# Board poses (rotation vector, translation of the board's middle) seen from about 560 units.
POSES = [((0.30, 0.00, 0.02), (-20, 10, 560)), ((-0.30, 0.05, -0.03), (20, -10, 560)),
         ((0.05, 0.35, 0.05), (10, 15, 588)), ((0.00, -0.35, -0.05), (-15, 5, 560)),
         ((0.25, 0.25, 0.10), (-30, -20, 616)), ((-0.25, -0.25, -0.10), (25, 20, 560)),
         ((0.20, -0.30, 0.15), (0, 0, 532)), ((-0.20, 0.30, -0.15), (5, -5, 560))]


def rotation(r):
    r = np.asarray(r, float)
    theta = np.linalg.norm(r)
    k = r / theta
    kx = np.array([[0, -k[2], k[1]], [k[2], 0, -k[0]], [-k[1], k[0], 0]])
    return np.eye(3) + np.sin(theta) * kx + (1 - np.cos(theta)) * kx @ kx


def render_board(pose, columns=10, rows=7, square=24.0, size=(640, 480), supersample=3):
    """A pinhole view of a chessboard (columns x rows inner corners, centred on its middle)
    on white paper over a grey background, each pixel the mean of supersample² samples."""
    r = rotation(pose[0])
    to_board = np.linalg.inv(CAMERA @ np.c_[r[:, :2], pose[1]])
    s = supersample
    u = (np.arange(size[0] * s) + 0.5) / s - 0.5
    v = (np.arange(size[1] * s) + 0.5) / s - 0.5
    uu, vv = np.meshgrid(u, v)
    b = to_board @ np.stack([uu.ravel(), vv.ravel(), np.ones(uu.size)])
    x = (b[0] / b[2] + (columns - 1) * square / 2) / square + 1  # in squares, 0 at the outer one
    y = (b[1] / b[2] + (rows - 1) * square / 2) / square + 1
    i, j = np.floor(x), np.floor(y)
    level = np.full(x.shape, 110.0)
    level[(x >= -1) & (x < columns + 2) & (y >= -1) & (y < rows + 2)] = 245
    level[(i >= 0) & (i <= columns) & (j >= 0) & (j <= rows) & ((i + j) % 2 == 0)] = 20
    return level.reshape(size[1], s, size[0], s).mean(axis=(1, 3)).round().astype(np.uint8)


@pytest.fixture(scope="module")
def views():
    return [render_board(p) for p in POSES]


def test_calibration_recovers_the_rendering_camera(views, tmp_path):
    # alternately grey and BGR, as a user's captures might come
    images = [v if k % 2 else np.repeat(v[:, :, None], 3, axis=2) for k, v in enumerate(views)]
    calib = quib.Calibration(10, 7, 24.0)
    assert [calib.add(image) for image in images] == [True] * len(images)
    assert calib.views == len(images) and calib.size == (640, 480)
    assert calib.corners.shape == (len(images), 70, 2)
    result = calib.solve()
    np.testing.assert_allclose(result.matrix, CAMERA, rtol=0.005, atol=1e-9)
    assert result.error < 0.2 and result.view_errors.shape == (len(images),)
    assert np.all(result.view_errors < 0.3) and np.all(result.matrix_deviation > 0)
    assert np.all(result.matrix_deviation < 2) and result.distortion_deviation.shape == (4,)
    # the poses the views were rendered with, up to the corner order's choice of board axes
    np.testing.assert_allclose(np.abs(result.translations), np.abs([p[1] for p in POSES]), atol=3)
    # the same through quib.calibrate and through the camera file
    again = quib.calibrate(images, 10, 7, 24.0)
    np.testing.assert_array_equal(again.matrix, result.matrix)
    result.save(tmp_path / "camera.yml")
    camera = quib.read_camera(tmp_path / "camera.yml")
    np.testing.assert_array_equal(camera.matrix, result.matrix)
    assert camera.size == (640, 480)
    np.testing.assert_allclose(calib.reprojection_errors(camera), result.view_errors, atol=0.2)
    assert camera.difference(result.camera)["max"] < 1e-9
    picture = np.zeros((480, 640, 3), np.uint8)
    calib.draw_coverage(picture)
    assert picture[..., 2].any() and not picture[..., 0].any()


def test_calibration_refuses_what_it_cannot_use(views):
    calib = quib.Calibration(10, 7, 24.0)
    assert not calib.add(np.full((480, 640), 128, np.uint8))  # no board
    assert not quib.Calibration(9, 7, 24.0).add(views[0])  # another board
    with pytest.raises(ValueError, match="no board views"):
        calib.solve()
    with pytest.raises(ValueError, match="float32"):
        calib.add(views[0].astype(np.float32))
    assert calib.add(views[0])
    with pytest.raises(ValueError, match="size of the first"):
        calib.add(views[1][:240])
    with pytest.raises(ValueError):
        quib.Calibration(10, 7, (24.0, -1))


def textured(rng, shape=(240, 320)):
    """Smoothed noise with structure at several scales: plenty of key points."""
    out = np.zeros(shape)
    for cell in (4, 8, 16):
        coarse = rng.uniform(0, 1, (shape[0] // cell + 2, shape[1] // cell + 2))
        out += np.kron(coarse, np.ones((cell, cell)))[:shape[0], :shape[1]]
    return (out / 3 * 255).astype(np.uint8)


def warp(image, h, shape):
    """Bilinear inverse mapping of `image` through homography h (image -> result)."""
    ys, xs = np.mgrid[:shape[0], :shape[1]]
    p = np.linalg.inv(h) @ np.stack([xs.ravel(), ys.ravel(), np.ones(xs.size)])
    x, y = p[0] / p[2], p[1] / p[2]
    x0, y0 = np.clip(np.floor(x).astype(int), 0, image.shape[1] - 2), np.clip(np.floor(y).astype(int), 0, image.shape[0] - 2)
    fx, fy = np.clip(x - x0, 0, 1), np.clip(y - y0, 0, 1)
    im = image.astype(float)
    out = (im[y0, x0] * (1 - fx) * (1 - fy) + im[y0, x0 + 1] * fx * (1 - fy) +
           im[y0 + 1, x0] * (1 - fx) * fy + im[y0 + 1, x0 + 1] * fx * fy)
    return out.reshape(shape).round().astype(np.uint8)


def test_feature_registration_finds_the_warp():
    rng = np.random.default_rng(12)
    image = textured(rng)
    angle = np.radians(4)
    truth = np.array([[np.cos(angle), -np.sin(angle), 12], [np.sin(angle), np.cos(angle), -7], [0, 0, 1]])
    moved = warp(image, truth, image.shape)
    feature = quib.Feature()
    result = feature.find(image, moved)
    assert result.ok and result.inliers >= quib.Feature.MINIMUM_INLIERS
    corners = np.array([[60, 60, 1], [260, 60, 1], [60, 180, 1], [260, 180, 1]], float).T
    found = result.homography @ corners
    expected = truth @ corners
    np.testing.assert_allclose(found[:2] / found[2], expected[:2] / expected[2], atol=1.0)

    # the steps one by one give the same kind of answer
    k1, d1 = feature.detect_and_compute(image)
    assert k1.dtype == quib.KEYPOINT_DTYPE and d1.shape == (len(k1), 61) and d1.dtype == np.uint8
    k, d = feature.compute(image, feature.detect(image))
    assert len(k) == len(d) > 100
    k2, d2 = feature.detect_and_compute(moved)
    matches = feature.match(d1, d2)
    assert matches.dtype == quib.MATCH_DTYPE and len(matches) == len(k1)
    assert np.array_equal(feature.match(d1, d1)["trainIdx"], np.arange(len(k1)))
    backward = feature.match(d2, d1)
    both = feature.cross_check(matches, backward)
    assert 0 < len(both) <= len(matches)
    h, inliers, rms = feature.find_homography(k1, k2, both)
    assert inliers >= quib.Feature.MINIMUM_INLIERS and rms < 1.5
    assert len(feature.match(d1, d2, ratio=0.8)) < len(matches)


def test_feature_failures_are_values_or_argument_errors():
    feature = quib.Feature()
    blank = np.zeros((64, 64), np.uint8)
    k, d = feature.detect_and_compute(blank)
    assert len(k) == 0 and d.size == 0
    result = feature.find(blank, blank)
    assert not result.ok and np.isnan(result.homography).all()
    with pytest.raises(ValueError, match="keypoints"):
        feature.compute(blank, np.zeros((3, 2), np.float32))
    with pytest.raises(ValueError, match="matcher"):
        feature.match(np.zeros((2, 61), np.uint8), np.zeros((2, 61), np.uint8), matcher="Nearest")
    with pytest.raises(ValueError, match="dtype"):
        feature.detect(np.zeros((8, 8), np.int64))


def test_contours_of_regions():
    mask = np.zeros((40, 50), np.uint8)
    mask[5:15, 5:25] = 1            # a 20 x 10 rectangle
    mask[20:35, 10:40] = 7          # a ring: its hole starts no trace of its own
    mask[24:31, 15:35] = 0
    mask[30, 45] = 1                # a single pixel
    contours = quib.find_contours(mask)
    assert [len(c) for c in contours] == [2 * (20 + 10) - 4, 2 * (30 + 15) - 4, 1]
    assert all(c.dtype == np.int32 and c.shape[1] == 2 for c in contours)
    rect = contours[0]
    assert rect.min(axis=0).tolist() == [5, 5] and rect.max(axis=0).tolist() == [24, 14]
    assert contours[2].tolist() == [[45, 30]]
    tracer = quib.ContourTracer(mask)
    assert [len(c) for c in tracer] == [len(c) for c in contours]
    marked = tracer.mask
    assert (marked[5:15, 5:25] == 255).all() and (marked[25:30, 16:34] == 255).all()
    assert not marked[0].any()
    # a given mask is used in place: its 255s are never entered
    given = np.zeros_like(mask)
    given[5:15, 5:25] = 255
    assert len(list(quib.ContourTracer(mask, given))) == 2
    assert (given[20:35, 10:40] == 255).all()
    filled = np.zeros_like(mask)
    assert quib.fill_contour(filled, rect, 9)
    np.testing.assert_array_equal(filled == 9, (mask == 1) & (np.arange(50) < 30))
    with pytest.raises(ValueError, match="uint8"):
        quib.find_contours(mask.astype(np.uint16))
    with pytest.raises(ValueError, match="shape"):
        quib.ContourTracer(mask, np.zeros((4, 4), np.uint8))
