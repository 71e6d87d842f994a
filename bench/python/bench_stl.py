"""A 1,000,000-triangle binary STL to arrays: quib against numpy-stl (python3-stl).

trimesh is not packaged in Debian 12, so it is not measured. numpy-stl gives the corners of
every triangle (T, 3, 3), unshared; quib's merge=True gives shared points and indices, which
numpy-stl users get with numpy.unique(..., return_inverse=True): both forms are measured.
"""
import os
import tempfile

import numpy as np

from common import best_of, report
from conftest import write_binary_stl
import quib


def main():
    try:
        from stl import mesh as numpy_stl
    except ImportError:
        numpy_stl = None
    rng = np.random.default_rng(4)
    # a grid surface: 1,000,000 triangles whose corners are shared as in real scans
    n = 708
    xs, ys = np.meshgrid(np.arange(n, dtype=np.float32), np.arange(n, dtype=np.float32))
    grid = np.stack([xs, ys, rng.uniform(0, 1, xs.shape).astype(np.float32)], axis=-1)
    a, b, c, d = grid[:-1, :-1], grid[:-1, 1:], grid[1:, :-1], grid[1:, 1:]
    corners = np.concatenate([np.stack([a, b, c], -2).reshape(-1, 3, 3),
                              np.stack([b, d, c], -2).reshape(-1, 3, 3)])[:1_000_000]
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "plate.stl")
        write_binary_stl(path, corners)
        print(f"{len(corners)} triangles, {os.path.getsize(path) / 1e6:.0f} MB")

        def ours_merged():
            m = quib.read_stl(path, merge=True)
            return m.points, m.triangles

        def ours_flat():
            m = quib.read_stl(path, merge=False)
            return m.points, m.triangles

        merged = best_of(ours_merged)
        flat = best_of(ours_flat)
        plain = best_of(lambda: np.fromfile(path, np.uint8))
        if numpy_stl is None:
            report("quib merged (points + triangles)", merged)
            report("quib unmerged", flat)
            print("numpy-stl (python3-stl) is not installed")
            return
        peer_flat = best_of(lambda: numpy_stl.Mesh.from_file(path).vectors)

        def peer_indexed():
            v = numpy_stl.Mesh.from_file(path).vectors.reshape(-1, 3)
            points, inverse = np.unique(v, axis=0, return_inverse=True)
            return points, inverse.reshape(-1, 3).astype(np.int32)

        indexed = best_of(peer_indexed, repeat=1)
        report("quib.read_stl merge=True -> points, triangles", merged,
               [("numpy-stl + numpy.unique", indexed), ("plain read", plain)])
        report("quib.read_stl merge=False -> points, triangles", flat,
               [("numpy-stl vectors", peer_flat), ("plain read", plain)])
        report("numpy-stl Mesh.from_file -> vectors", peer_flat)
        report("numpy-stl + numpy.unique -> points, indices", indexed)
        report("plain read of the file (numpy.fromfile)", plain)


if __name__ == "__main__":
    main()
