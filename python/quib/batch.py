"""Pure per-file functions for running QUIB over many files with an existing engine.

Each function takes a path and returns a plain dict (str keys; numbers, strings and lists), so
that it pickles, compares with ==, and serialises to JSON. Nothing is kept between calls, so
they run unchanged in a plain loop, a thread pool, multiprocessing, or on a Dask cluster:

    from dask.distributed import Client, LocalCluster
    import quib.batch
    quib.batch.keep_worker_heaps()   # see its note: workers keep their heaps between tasks
    with LocalCluster(n_workers=2, processes=True) as cluster, Client(cluster) as client:
        reports = client.gather(client.map(quib.batch.stl_report, quib.batch.find(root, "*.stl")))

Failures are reported, not raised: a file that cannot be read gives {"path": ..., "error":
"<exception name>: <reason>"}, so one bad file does not end a run over thousands.
"""
import io as _io
import os as _os

import numpy as _np

from . import read_dicom, read_stl, fit_circle, fit_plane, fit_sphere, sha256
from .errors import Error


def find(root, pattern="*"):
    """The files under `root` whose name matches `pattern` (fnmatch), sorted, as str paths."""
    import fnmatch
    out = []
    for folder, _, files in _os.walk(root):
        out.extend(_os.path.join(folder, f) for f in files if fnmatch.fnmatch(f, pattern))
    return sorted(out)


def _failure(path, error):
    return {"path": str(path), "error": f"{type(error).__name__}: {getattr(error, 'reason', '') or error}"}


def stl_report(path):
    """Reads an STL file (merged points) and reports its counts, bounding box and the SHA-256
    of its points and triangles."""
    try:
        mesh = read_stl(path)
    except (Error, OSError) as e:
        return _failure(path, e)
    points, triangles = mesh.points, mesh.triangles
    box = [points.min(axis=0).tolist(), points.max(axis=0).tolist()] if len(points) else []
    return {
        "path": str(path),
        "points": int(points.shape[0]),
        "triangles": int(triangles.shape[0]),
        "bounds": box,
        "sha256": sha256(points.tobytes() + triangles.tobytes()),
    }


_DICOM_FIELDS = ("Modality", "PatientName", "StudyInstanceUID", "SeriesInstanceUID",
                 "InstanceNumber", "Rows", "Columns", "BitsAllocated", "PixelSpacing",
                 "SliceThickness", "ImagePositionPatient", "ImageOrientationPatient")


def dicom_report(path):
    """Reads a DICOM file and reports its geometry fields and the statistics of its first
    frame's real values (rescaled: Hounsfield units for CT), when it has pixels."""
    try:
        ds = read_dicom(path)
    except (Error, OSError) as e:
        return _failure(path, e)
    out = {"path": str(path), "elements": len(ds), "complete": ds.complete}
    for key in _DICOM_FIELDS:
        if key in ds:
            value = ds[key]
            out[key] = value if not isinstance(value, bytes) else value.hex()
    if "PixelData" in ds:
        try:
            info = ds.pixel_info()
            values = ds.values() if info["samples"] == 1 else ds.pixels()
        except Error as e:
            out["pixels"] = {"error": e.reason}
        else:
            out["pixels"] = {"frames": info["frames"], "min": float(values.min()),
                             "max": float(values.max()), "mean": float(values.mean())}
    return out


_FITS = {"plane": (fit_plane, 3), "circle": (fit_circle, 2), "sphere": (fit_sphere, 3)}


def fit_report(path, primitive="plane"):
    """Fits a primitive ("plane", "circle" or "sphere") to the points of a text file (one point
    per line, numbers separated by white space or commas) and reports the result and the RMS of
    its residuals."""
    fit, dims = _FITS[primitive]
    try:
        with open(path, encoding="utf-8") as f:
            text = f.read()
        points = _np.loadtxt(_io.StringIO(text), delimiter="," if "," in text else None, ndmin=2)
    except (OSError, ValueError) as e:
        return _failure(path, e)
    if points.shape[1:] != (dims,):
        return {"path": str(path), "error": f"ArgumentError: expected {dims} numbers per line"}
    result = fit(points)
    out = {"path": str(path), "primitive": primitive, "points": int(points.shape[0]), "ok": bool(result.ok)}
    if primitive == "plane":
        out.update(normal=result.normal.tolist(), distance=float(result.distance))
    else:
        out.update(center=result.center.tolist(), radius=float(result.radius))
    out["rms"] = float(result.rms)
    out["standard_errors"] = result.standard_errors.tolist()
    return out


def keep_worker_heaps():
    """Makes Dask start its worker processes without MALLOC_TRIM_THRESHOLD_=65536.

    Dask's nanny sets that variable in every worker process it starts. It makes glibc hand each
    freed block above 64 KiB back to the system at once and turns off glibc's adaptive mmap
    threshold, so every array of megabytes a task allocates is mapped, faulted in page by page
    and unmapped again: per-file work with QUIB then runs about 1.4x slower in a worker than the
    same calls in a plain loop. Call this before creating a LocalCluster (it changes the Dask
    configuration of this process); for workers started elsewhere, leave the variable out of
    their ``distributed.nanny.pre-spawn-environ`` configuration.
    """
    import dask
    environ = dict(dask.config.get("distributed.nanny.pre-spawn-environ", default={}) or {})
    environ.pop("MALLOC_TRIM_THRESHOLD_", None)
    dask.config.set({"distributed.nanny.pre-spawn-environ": environ})


def run(function, paths, client=None):
    """Runs `function` over `paths`: on a dask.distributed Client when one is given (results
    in the order of `paths`), otherwise in a plain loop."""
    if client is None:
        return [function(p) for p in paths]
    return client.gather(client.map(function, paths, pure=True))
