"""Two threads at once against one after the other: the calls release the GIL."""
import os
import tempfile
from concurrent.futures import ThreadPoolExecutor

import numpy as np

from common import best_of, report
from conftest import write_binary_stl
import quib


def main():
    rng = np.random.default_rng(8)
    clouds = [rng.normal(size=(3_000_000, 3)) for _ in range(2)]
    with tempfile.TemporaryDirectory() as folder:
        paths = []
        for i in range(2):
            paths.append(os.path.join(folder, f"m{i}.stl"))
            write_binary_stl(paths[-1], rng.uniform(0, 100, (300_000, 3, 3)))
        for name, work in [("fit_plane of 3,000,000 points", lambda i: quib.fit_plane(clouds[i])),
                           ("read_stl of 300,000 triangles", lambda i: quib.read_stl(paths[i]))]:
            serial = best_of(lambda: [work(0), work(1)])
            with ThreadPoolExecutor(2) as pool:
                threaded = best_of(lambda: list(pool.map(work, [0, 1])))
            report(f"two {name}: two threads", threaded, [("one after the other", serial)])


if __name__ == "__main__":
    main()
