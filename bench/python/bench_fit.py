"""Fits from NumPy against the same C++ calls (python_side_bench, run in the same session).

Usage: bench_fit.py PATH/TO/python_side_bench
"""
import json
import subprocess
import sys

import numpy as np

from common import best_of, report
import quib


def cxx_times(binary):
    """The best of 5 repetitions of each C++ benchmark, the statistic best_of takes here."""
    out = subprocess.run([binary, "--benchmark_format=json", "--benchmark_repetitions=5"],
                         check=True, capture_output=True, text=True).stdout
    times = {}
    for b in json.loads(out)["benchmarks"]:
        if b.get("run_type") == "iteration":
            scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[b["time_unit"]]
            name = b["run_name"]
            times[name] = min(times.get(name, float("inf")), b["real_time"] * scale)
    return times


def main():
    rng = np.random.default_rng(3)
    small = np.c_[rng.uniform(-10, 10, (10, 2)), np.zeros(10)]
    small[:, 2] = 0.2 * small[:, 0] - 0.1 * small[:, 1] + 5
    xy = rng.uniform(-10, 10, (10_000_000, 2))
    large = np.c_[xy, 0.2 * xy[:, 0] - 0.1 * xy[:, 1] + 5 + rng.normal(0, 0.01, len(xy))]
    cxx = cxx_times(sys.argv[1]) if len(sys.argv) > 1 else {}

    per_call = best_of(lambda: quib.fit_plane(small), repeat=5, number=20000)
    report("fit_plane, 10 points, per call", per_call)
    if "BM_FitPlane/10" in cxx:
        c = cxx["BM_FitPlane/10"]
        print(f"  C++ LeastSquaresPlane, 10 points: {c * 1e9:.0f} ns; Python call: "
              f"{per_call * 1e9:.0f} ns; overhead {(per_call - c) * 1e9:.0f} ns ({per_call / c:.1f}x)")
    lstsq = best_of(lambda: np.linalg.lstsq(np.c_[small[:, :2], np.ones(10)], small[:, 2], rcond=None),
                    repeat=5, number=20000)
    report("numpy.linalg.lstsq, 10 points, per call", lstsq)

    fit = best_of(lambda: quib.fit_plane(large), repeat=5)
    report("fit_plane, 10,000,000 points from NumPy", fit)
    if "BM_FitPlane/10000000" in cxx:
        c = cxx["BM_FitPlane/10000000"]
        print(f"  C++ LeastSquaresPlane, 10,000,000 points: {c * 1e3:.1f} ms; Python / C++ = {fit / c:.3f}")
    a = np.c_[large[:, :2], np.ones(len(large))]
    report("numpy.linalg.lstsq, 10,000,000 points", best_of(lambda: np.linalg.lstsq(a, large[:, 2], rcond=None), repeat=2))


if __name__ == "__main__":
    main()
