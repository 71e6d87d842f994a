"""Discriminants, robust weights, centroids, turning points, the generator, clocks."""
import time

import numpy as np
import pytest

import quib


def test_discriminants_against_their_formulas():
    rng = np.random.default_rng(3)
    for cls, dims in ((quib.Discrim2, 2), (quib.Discrim3, 3)):
        samples = rng.normal(size=(40, dims)) * np.arange(1, dims + 1) + 5
        d = cls(samples)
        mean = samples.mean(axis=0)
        scatter = (samples - mean).T @ (samples - mean)
        np.testing.assert_allclose(d.centroid, mean)
        np.testing.assert_allclose(d.covariance, scatter)
        queries = rng.normal(size=(7, dims)) + 5
        diff = queries - mean
        d2 = np.einsum("ij,jk,ik->i", diff, np.linalg.inv(scatter), diff)
        np.testing.assert_allclose(d.mahalanobis(queries), d2)
        assert d.mahalanobis(queries[0]) == pytest.approx(d2[0])
        np.testing.assert_allclose(d.bayes(queries, 0.25, 1.0), np.log(0.25) + 1 - d2 / 2)
        density = np.exp(-d2 / 2) / ((2 * np.pi) ** np.sqrt(40) * np.sqrt(np.linalg.det(scatter)))
        np.testing.assert_allclose(d.gaussian(queries), density)
        nearest = ((queries[:, None] - samples[None]) ** 2).sum(-1).min(axis=1)
        np.testing.assert_allclose(d.nearest_neighbor(queries), nearest)
        assert d.ok and d.count == 40
    one = quib.Discrim1([1.0, 2.0, 3.0, 6.0])
    assert one.centroid == 3 and one.covariance == pytest.approx(3.5)
    x = np.array([2.5, 4.0])
    np.testing.assert_allclose(one.gaussian(x), np.exp(-0.5 * (x - 3) ** 2 * 3.5) / np.sqrt(2 * np.pi * np.sqrt(3.5)))
    assert not quib.Discrim2(np.zeros((0, 2))).ok
    with pytest.raises(ValueError):
        quib.Discrim3(np.zeros((4, 2)))


def test_robust_weights_and_scales():
    d = np.array([0.5, -1.0, 2.0, -8.0, np.nan, 3.0])
    c = 4.0
    expected = np.where(np.abs(d) < c, (1 - (d / c) ** 2) ** 2, 0)
    np.testing.assert_allclose(quib.tukey_weights(d, c), np.nan_to_num(expected))
    np.testing.assert_array_equal(quib.tukey_weights(d, 0.0), np.ones(6))
    finite = d[np.isfinite(d)]
    m = quib.median_abs(d)
    assert m == np.median(np.abs(finite))
    assert quib.mad(d, m) == np.median(np.abs(finite - m))
    assert quib.madn(0.6745) == pytest.approx(1)
    assert quib.median_abs([]) == 0


def test_centroid_and_scatter():
    rng = np.random.default_rng(8)
    for dims in (2, 3):
        p = rng.normal(size=(100, dims)) + 1e6  # far from the origin: compensated sums
        np.testing.assert_allclose(quib.centroid(p), p.mean(axis=0), rtol=1e-15)
        q = p - p.mean(axis=0)
        np.testing.assert_allclose(quib.scatter_matrix(p), q.T @ q, rtol=1e-6)
    assert np.isnan(quib.centroid(np.zeros((0, 3)))).all()


def test_mersenne_twister_is_mt19937():
    mt = quib.MersenneTwister(5489)
    assert mt.uint32() == 3499211612
    reference = np.random.RandomState(77).randint(0, 2 ** 32, size=1000, dtype=np.uint64)
    words = quib.MersenneTwister(77).uint32(1000)
    assert words.dtype == np.uint32
    np.testing.assert_array_equal(words, reference)  # past the 624-word regeneration
    pairs = quib.MersenneTwister(77).uint64(500)
    np.testing.assert_array_equal(pairs, reference[0::2] | (reference[1::2] << np.uint64(32)))
    u = quib.MersenneTwister(1).float64(100000)
    assert u.min() >= -1 and u.max() < 1 and abs(u.mean()) < 0.01
    import copy
    a = quib.MersenneTwister(9)
    a.uint32(10)
    b = copy.copy(a)
    assert a.int64(5).tolist() == b.int64(5).tolist()


def test_slope_turns():
    s = quib.Slope(1)
    assert [s.local(v) for v in (3.0, 2.0, 1.0, 2.0)] == [None, None, None, 0]
    s = quib.Slope(1)
    assert [s.extreme(v) for v in (3.0, 1.0, -0.5)] == [None, None, 1]
    assert quib.Slope(-1).extreme(0.5) == -1


def test_clock_pacing_and_fields():
    clock = quib.Clock()
    time.sleep(0.03)
    assert 25 <= clock.elapsed_ms < 1000
    assert quib.Clock.frequency() > 0 and quib.Clock.ms() <= quib.Clock.ms()
    pacer = quib.Fps(50)
    start = time.perf_counter()
    for _ in range(5):
        pacer.wait()
    assert 0.06 <= time.perf_counter() - start < 1
    assert pacer.fps > 0
    assert quib.split_fields('solid \t"my part" x') == ["solid", "", "my part", "x"]
