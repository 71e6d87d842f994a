"""Registering a shifted picture by its features, tracing the regions of a mask, and robust
weights of residuals, all on NumPy arrays (run by CI)."""
import numpy as np

import quib

rng = np.random.default_rng(1)

# A textured picture and the same picture moved 9 columns right and 4 rows down.
coarse = rng.uniform(0, 255, (30, 40))
picture = np.kron(coarse, np.ones((8, 8))).astype(np.uint8)
moved = np.zeros_like(picture)
moved[4:, 9:] = picture[:-4, :-9]

registration = quib.Feature().find(picture, moved)
print(registration)
if registration.ok and registration.inliers >= quib.Feature.MINIMUM_INLIERS:
    print("shift", registration.homography[:2, 2].round(2))  # about (9, 4)

# The regions of a thresholded picture, each boundary a (K, 2) array of (x, y).
mask = (picture > 200).astype(np.uint8)
contours = quib.find_contours(mask)
print(len(contours), "regions; the largest boundary has", max(len(c) for c in contours), "pixels")

# Tukey weights of residuals with one outlier, the threshold set from the MAD.
residuals = np.r_[rng.normal(0, 1, 50), 40.0]
m = quib.median_abs(residuals)
weights = quib.tukey_weights(residuals, quib.madn(quib.mad(residuals, m)) * 4.685 + m)
print("outlier weight", weights[-1], "mean weight of the rest", weights[:-1].mean().round(3))
