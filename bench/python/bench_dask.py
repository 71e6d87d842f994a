"""quib.batch over many files: a plain loop against a Dask LocalCluster of 2 worker processes."""
import os
import tempfile
import time

import numpy as np

from common import report
import quib
import quib.batch


def main():
    from dask.distributed import Client, LocalCluster
    rng = np.random.default_rng(9)
    with tempfile.TemporaryDirectory() as folder:
        for i in range(16):
            corners = rng.uniform(0, 100, (200_000, 3, 3)).astype(np.float32)
            quib.write_stl(os.path.join(folder, f"m{i:02}.stl"), corners.reshape(-1, 3),
                           np.arange(600_000).reshape(-1, 3))
        files = quib.batch.find(folder, "*.stl")
        quib.batch.stl_report(files[0])
        start = time.perf_counter()
        plain = quib.batch.run(quib.batch.stl_report, files)
        loop = time.perf_counter() - start
        quib.batch.keep_worker_heaps()
        with LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                          dashboard_address=None) as cluster, Client(cluster) as client:
            # Each worker imports the package and reads one file before timing, as the plain loop's
            # process has (the files were written and their memory touched there).
            client.run(quib.batch.stl_report, files[0])
            start = time.perf_counter()
            distributed = quib.batch.run(quib.batch.stl_report, files, client)
            dask_time = time.perf_counter() - start
        assert distributed == plain
        report(f"stl_report of {len(files)} files, Dask 2 worker processes", dask_time,
               [("plain loop", loop)])
        report("plain loop", loop)
        print(f"load average {os.getloadavg()[0]:.2f} on {os.cpu_count()} cores", flush=True)


if __name__ == "__main__":
    main()
