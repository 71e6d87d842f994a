"""Shared pieces of the Python benchmarks: timing, the module's import, the test writers."""
import os
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
# The STL and DICOM writers the tests use (independent of the library).
sys.path.insert(0, os.path.join(ROOT, "python", "tests"))


def best_of(function, repeat=3, number=1):
    """The best wall time of `repeat` runs of `number` calls, per call, in seconds."""
    best = float("inf")
    for _ in range(repeat):
        start = time.perf_counter()
        for _ in range(number):
            function()
        best = min(best, (time.perf_counter() - start) / number)
    return best


def report(name, seconds, against=None):
    text = f"{name:<48} {seconds * 1e3:10.3f} ms"
    if against:
        text += "   " + "   ".join(f"{label}: {other / seconds:5.2f}x" for label, other in against)
    print(text, flush=True)
