"""Fits from arrays: results against NumPy's least squares, degenerate data, bad arrays."""
import numpy as np
import pytest

import quib


@pytest.fixture
def rng():
    return np.random.default_rng(7)


def test_plane_matches_numpy_least_squares(rng):
    xy = rng.uniform(-50, 50, (500, 2))
    z = 0.3 * xy[:, 0] - 1.2 * xy[:, 1] + 4.0 + rng.normal(0, 0.01, 500)
    points = np.c_[xy, z]
    plane = quib.fit_plane(points)
    a, b, c = np.linalg.lstsq(np.c_[xy, np.ones(500)], z, rcond=None)[0]
    np.testing.assert_allclose(plane.coefficients, [a, b, c], rtol=1e-9, atol=1e-9)
    n = np.array([-a, -b, 1.0]) / np.sqrt(a * a + b * b + 1)
    np.testing.assert_allclose(plane.normal, n, rtol=1e-9)
    assert plane.distance == pytest.approx(c / np.sqrt(a * a + b * b + 1))
    np.testing.assert_allclose(plane.residuals(points), z - (a * xy[:, 0] + b * xy[:, 1] + c), atol=1e-9)
    # other real dtypes and strided views are converted, never refused
    assert quib.fit_plane(points.astype(np.float32)).ok
    assert quib.fit_plane(np.asfortranarray(points)).coefficients == pytest.approx(plane.coefficients)
    assert quib.fit_plane(points.tolist()).coefficients == pytest.approx(plane.coefficients)


def test_points_read_in_place_or_copied_give_one_result(rng):
    t = rng.uniform(0, 2 * np.pi, 101)
    points = np.c_[3 + 2 * np.cos(t), 1 + 2 * np.sin(t)] + rng.normal(0, 0.01, (101, 2))
    # 8 bytes off NumPy's 16-byte alignment: 2-D points there are copied, not read in place
    raw = np.empty(points.size * 8 + 8, np.uint8)
    shifted = raw[8:].view(np.float64).reshape(-1, 2)
    shifted[:] = points
    assert shifted.ctypes.data % 16 == 8
    for fit in (quib.fit_circle, quib.fit_line, lambda p: quib.fit_polynomial(p, 2)):
        a, b = fit(points), fit(shifted)
        np.testing.assert_array_equal(a.covariance, b.covariance)
        np.testing.assert_array_equal(a.residuals(points), b.residuals(shifted))
    assert quib.fit_circle(points[1:]).radius == quib.fit_circle(points[1:].copy()).radius


def test_circle_sphere_line_polynomial(rng):
    t = rng.uniform(0, 2 * np.pi, 200)
    circle = quib.fit_circle(np.c_[10 + 3 * np.cos(t), -4 + 3 * np.sin(t)])
    np.testing.assert_allclose(circle.center, [10, -4], atol=1e-9)
    assert circle.radius == pytest.approx(3)
    u = rng.normal(size=(300, 3))
    sphere = quib.fit_sphere(u / np.linalg.norm(u, axis=1)[:, None] * 5 + [1, 2, 3])
    np.testing.assert_allclose(sphere.center, [1, 2, 3], atol=1e-9)
    assert sphere.radius == pytest.approx(5)
    x = np.linspace(0, 10, 50)
    line = quib.fit_line(np.c_[x, 2 * x + 1])
    assert (line.slope, line.intercept) == pytest.approx((2, 1))
    np.testing.assert_allclose(line.y(np.array([0.0, 1.0])), [1, 3])
    y = 0.5 * x ** 3 - x + 2
    poly = quib.fit_polynomial(np.c_[x, y], 3)
    np.testing.assert_allclose(poly.coefficients, np.polyfit(x, y, 3), atol=1e-8)
    assert poly.degree == 3 and poly.y(2.0) == pytest.approx(4 - 2 + 2)
    # y = 0.5x³ - x + 2 turns at x = ±sqrt(2/3) and crosses 0 once, below -2
    kinds, at = poly.turning_points(-3, 3, 0.001)
    assert kinds.tolist() == [1, -1]
    np.testing.assert_allclose(at[:, 0], [-np.sqrt(2 / 3), np.sqrt(2 / 3)], atol=2e-3)
    (root,) = poly.roots(-4, 4, 0.001)
    assert poly.y(root) == pytest.approx(0, abs=1e-6)
    parabola = quib.fit_parabola(np.c_[x, 3 * x ** 2 - x + 1])
    cubic = quib.fit_cubic(np.c_[x, y])
    np.testing.assert_allclose(parabola.coefficients, [3, -1, 1], atol=1e-9)
    np.testing.assert_allclose(cubic.coefficients, poly.coefficients, atol=1e-8)
    assert not quib.fit_cubic(np.c_[x[:3], y[:3]]).ok
    steep = quib.fit_line_iterative(np.c_[x, 40 * x + 3], 1e-9, 10)
    assert (steep.slope, steep.intercept) == pytest.approx((40, 3))
    diagonal = quib.fit_polynomial(np.c_[x, x], 1)
    assert diagonal.length(0, 1, 0.25) == pytest.approx(0.75 * np.sqrt(2))  # the last step is left out
    assert diagonal.x_at_length(0, 0.4 * np.sqrt(2), 0.25) == pytest.approx(0.5)  # the first sample past it


def test_weights_and_robust_refit(rng):
    x = np.linspace(0, 10, 100)
    points = np.c_[x, 3 * x - 2]
    points[::10, 1] += 50  # outliers
    weights = np.ones(100)
    weights[::10] = 0
    weighted = quib.fit_line(points, weights=weights)
    assert (weighted.slope, weighted.intercept) == pytest.approx((3, -2))
    robust = quib.fit_line(points, k=2.0)
    assert robust.slope == pytest.approx(3, abs=1e-6)
    with pytest.raises(ValueError, match="weights"):
        quib.fit_line(points, weights=np.ones(99))
    with pytest.raises(ValueError, match="not both"):
        quib.fit_line(points, weights=weights, k=2.0)


def test_too_few_or_degenerate_points_give_no_fit():
    nan = float("nan")
    circle = quib.fit_circle(np.array([[0.0, 0.0], [1.0, 1.0]]))
    assert not circle.ok and np.isnan(circle.radius) and np.isnan(circle.center).all()
    assert not quib.fit_plane(np.zeros((0, 3))).ok
    assert not quib.fit_plane([[0, 0, 0], [1, 1, 1], [2, 2, 2]]).ok  # collinear
    # non-finite points are skipped, as the library does
    pts = np.array([[0, 0, 1], [1, 0, 1], [0, 1, 1], [nan, 0, 0], [np.inf, 1, 1]], float)
    plane = quib.fit_plane(pts)
    assert plane.ok and plane.normal == pytest.approx([0, 0, 1])
    assert np.isnan(quib.fit_line([[1.0, 2.0]]).residuals([[1.0, 2.0]])).all()


@pytest.mark.parametrize("bad", [np.zeros((5, 2)), np.zeros(6), np.zeros((2, 3, 3)), "text", [[1, 2, 3], [4]]])
def test_bad_point_arrays_raise_value_error(bad):
    with pytest.raises(ValueError):
        quib.fit_plane(bad)


def test_ransac_plane_finds_inliers(rng):
    xy = rng.uniform(-1, 1, (400, 2))
    points = np.c_[xy, np.full(400, 2.0)]
    # outliers on both sides of the plane, as the search's balance score wants them
    points[:40, 2] += rng.uniform(0.5, 2, 40) * np.where(np.arange(40) % 2, 1, -1)
    normal, distance, inliers = quib.ransac_plane(points, 0.01, 0.99, 500)
    assert abs(normal[2]) > 0.99 and abs(distance) == pytest.approx(2 * abs(normal[2]), abs=0.02)
    assert len(inliers) >= 360 and list(inliers) == sorted(inliers)
    seeded = [quib.ransac_plane(points, 0.01, 0.99, 50, seed=4) for _ in range(2)]
    np.testing.assert_array_equal(seeded[0][2], seeded[1][2])
    with pytest.raises(ValueError):
        quib.ransac_plane(points, -1.0)


def test_uncertainty_of_fits(rng):
    xy = rng.uniform(-50, 50, (2000, 2))
    noise = rng.normal(0, 0.1, 2000)
    points = np.c_[xy, 0.3 * xy[:, 0] - 1.2 * xy[:, 1] + 4.0 + noise]
    plane = quib.fit_plane(points)
    assert plane.count == 2000 and plane.covariance.shape == (3, 3)
    np.testing.assert_allclose(plane.covariance, plane.covariance.T)
    assert plane.rms == pytest.approx(np.sqrt(np.mean(plane.residuals(points) ** 2)))
    assert plane.rms == pytest.approx(0.1, rel=0.1)
    np.testing.assert_allclose(plane.standard_errors, np.sqrt(np.diag(plane.covariance)))
    # the intercept's standard error as ordinary least squares gives it
    a = np.c_[xy, np.ones(2000)]
    expected = plane.sigma ** 2 * np.linalg.inv(a.T @ a)
    np.testing.assert_allclose(plane.covariance, expected, rtol=1e-6)
    failed = quib.fit_plane(np.zeros((2, 3)))
    assert not failed.ok and failed.covariance.shape == (0, 0) and np.isnan(failed.rms)


def test_geometric_circle_on_a_short_arc(rng):
    t = rng.uniform(0, np.pi / 6, 400)  # a 30 degree arc
    points = np.c_[50 * np.cos(t), 50 * np.sin(t)] + rng.normal(0, 0.5, (400, 2))
    geometric = quib.fit_circle(points, geometric=True)
    algebraic = quib.fit_circle(points)
    assert geometric.ok and type(geometric).__name__ == "GeometricCircle"
    assert abs(geometric.radius - 50) < 3 * geometric.standard_errors[2]
    assert geometric.covariance.shape == (3, 3) and algebraic.covariance.shape == (3, 3)
    sphere = quib.fit_sphere(_sphere(rng), geometric=True)
    assert sphere.radius == pytest.approx(7, abs=1e-6)


def _sphere(rng):
    u = rng.normal(size=(500, 3))
    return u / np.linalg.norm(u, axis=1)[:, None] * 7 + [1, -2, 3]
