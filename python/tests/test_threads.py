"""Threads: the calls release the GIL, and their results equal the serial ones."""
from concurrent.futures import ThreadPoolExecutor

import numpy as np

import quib
from conftest import cube_corners, write_binary_stl


def test_threaded_results_equal_serial(tmp_path):
    rng = np.random.default_rng(11)
    clouds = [rng.normal(size=(20000, 3)) * [5, 5, 0.1] + [0, 0, i] for i in range(8)]
    paths = []
    for i in range(6):
        path = tmp_path / f"m{i}.stl"
        write_binary_stl(path, np.concatenate([cube_corners(1 + i, (j, 0, 0)) for j in range(50)]))
        paths.append(path)
    data = [rng.bytes(100000) for _ in range(6)]

    def work(i):
        plane = quib.fit_plane(clouds[i % len(clouds)])
        mesh = quib.read_stl(paths[i % len(paths)])
        return (tuple(plane.coefficients), mesh.points.tobytes(), mesh.triangles.tobytes(),
                quib.sha256(data[i % len(data)]))

    serial = [work(i) for i in range(24)]
    with ThreadPoolExecutor(4) as pool:
        threaded = list(pool.map(work, range(24)))
    assert threaded == serial
