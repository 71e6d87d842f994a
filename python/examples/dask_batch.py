"""quib.batch on a Dask LocalCluster of worker processes, equal to a plain loop (run by CI).

The same code runs on a cluster of many machines: give Client the scheduler's address instead
of a LocalCluster (see docs/scale-out.md).
"""
import os
import sys
import tempfile

import numpy as np

import quib
import quib.batch


def make_files(folder, count=6):
    rng = np.random.default_rng(1)
    for i in range(count):
        xy = rng.uniform(-5, 5, (2000, 2))
        np.savetxt(os.path.join(folder, f"cloud{i}.txt"), np.c_[xy, 0.1 * i * xy[:, 0] + i])
        corners = rng.uniform(0, 10, (500, 3, 3)).astype(np.float32)
        quib.write_stl(os.path.join(folder, f"mesh{i}.stl"), corners.reshape(-1, 3),
                       np.arange(1500).reshape(500, 3))


def main():
    try:
        from dask.distributed import Client, LocalCluster
    except ImportError:
        print("dask.distributed is not installed; nothing to show")
        return 0
    with tempfile.TemporaryDirectory() as folder:
        make_files(folder)
        clouds = quib.batch.find(folder, "*.txt")
        meshes = quib.batch.find(folder, "*.stl")
        quib.batch.keep_worker_heaps()  # workers keep their heaps between tasks, as a loop does
        with LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                          dashboard_address=None) as cluster, Client(cluster) as client:
            fits = quib.batch.run(quib.batch.fit_report, clouds, client)
            reports = quib.batch.run(quib.batch.stl_report, meshes, client)
        assert fits == quib.batch.run(quib.batch.fit_report, clouds)
        assert reports == quib.batch.run(quib.batch.stl_report, meshes)
        for fit in fits:
            print(os.path.basename(fit["path"]), [round(v, 4) for v in fit["normal"]])
    return 0


if __name__ == "__main__":
    sys.exit(main())
