"""Fits from NumPy arrays, an STL mesh as arrays, and its measures (run by CI)."""
import os
import tempfile

import numpy as np

import quib

rng = np.random.default_rng(0)

# A plane through a noisy cloud: (N, 3) float64, no Python object per point.
xy = rng.uniform(-10, 10, (10000, 2))
cloud = np.c_[xy, 0.2 * xy[:, 0] - 0.1 * xy[:, 1] + 5 + rng.normal(0, 0.01, len(xy))]
plane = quib.fit_plane(cloud)
print("plane normal", plane.normal.round(4), "distance", round(plane.distance, 4))

# A circle, and what a fit of too few points gives (no exception: ok is False).
t = rng.uniform(0, 2 * np.pi, 50)
circle = quib.fit_circle(np.c_[3 + 2 * np.cos(t), -1 + 2 * np.sin(t)])
print("circle", circle.center.round(6), round(circle.radius, 6))
print("two points:", quib.fit_circle([[0, 0], [1, 1]]).ok)

# A mesh written from arrays, read back merged, measured.
points = np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0], [0, 0, 1]], np.float32)
triangles = np.array([[0, 2, 1], [0, 1, 3], [0, 3, 2], [1, 2, 3]], np.int32)
with tempfile.TemporaryDirectory() as folder:
    path = os.path.join(folder, "tetra.stl")
    quib.write_stl(path, points, triangles)
    mesh = quib.read_stl(path, merge=True)
    print(mesh, mesh.points.dtype, mesh.triangles.dtype)
    measures = quib.mesh_measures(mesh)
    print("solid", measures["solid"], "volume", round(measures["volume"], 6))
    assert measures["solid"] and abs(measures["volume"] - 1 / 6) < 1e-6
