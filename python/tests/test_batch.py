"""quib.batch's per-file functions on a Dask LocalCluster of worker processes."""
import numpy as np
import pytest

import quib.batch
from conftest import SANITIZED, cube_corners, write_binary_stl, write_dicom


@pytest.fixture
def tree(tmp_path):
    rng = np.random.default_rng(5)
    for i in range(3):
        folder = tmp_path / f"part{i}"
        folder.mkdir()
        write_binary_stl(folder / f"m{i}.stl", cube_corners(1 + i, (i, 0, 0)))
        write_dicom(folder / f"s{i}.dcm", name=f"P^{i}")
        xy = rng.uniform(-5, 5, (100, 2))
        np.savetxt(folder / f"c{i}.txt", np.c_[xy, 0.5 * xy[:, 0] + i], delimiter=",")
    (tmp_path / "broken.stl").write_bytes(b"nothing")
    return tmp_path


def test_reports_of_a_plain_loop(tree):
    stl = quib.batch.run(quib.batch.stl_report, quib.batch.find(tree, "*.stl"))
    assert [r.get("triangles") for r in stl] == [None, 12, 12, 12]
    assert stl[0]["error"].startswith("FormatError")
    dicom = quib.batch.run(quib.batch.dicom_report, quib.batch.find(tree, "*.dcm"))
    assert [d["PatientName"] for d in dicom] == ["P^0", "P^1", "P^2"]
    assert dicom[0]["pixels"] == {"frames": 1, "min": -1024.0, "max": 77 * 2 - 1024.0, "mean": 38.5 * 2 - 1024}
    fits = quib.batch.run(quib.batch.fit_report, quib.batch.find(tree, "c*.txt"))
    assert [(f["ok"], f["points"]) for f in fits] == [(True, 100)] * 3, fits
    assert max(f["rms"] for f in fits) < 1e-6, fits


@pytest.mark.skipif(SANITIZED, reason="worker processes under the sanitizer runtime are slow")
def test_dask_local_cluster_gives_the_plain_loop_results(tree):
    distributed = pytest.importorskip("dask.distributed")
    files = quib.batch.find(tree)
    work = [(quib.batch.stl_report, [f for f in files if f.endswith(".stl")]),
            (quib.batch.dicom_report, [f for f in files if f.endswith(".dcm")]),
            (quib.batch.fit_report, [f for f in files if f.endswith(".txt")])]
    quib.batch.keep_worker_heaps()
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=None, silence_logs=40) as cluster, \
            distributed.Client(cluster, timeout=60) as client:
        for function, paths in work:
            assert quib.batch.run(function, paths, client) == quib.batch.run(function, paths)
        environ = client.run(lambda: __import__("os").environ.get("MALLOC_TRIM_THRESHOLD_"))
        assert set(environ.values()) == {None}
