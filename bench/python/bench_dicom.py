"""A DICOM series to one volume: quib.read_volume against pydicom + NumPy (python3-pydicom)."""
import os
import tempfile

import numpy as np

from common import best_of, report
from conftest import write_dicom
import quib


def main():
    try:
        import pydicom
    except ImportError:
        pydicom = None
    rng = np.random.default_rng(6)
    slices = 200
    with tempfile.TemporaryDirectory() as folder:
        for i in range(slices):
            write_dicom(os.path.join(folder, f"s{i:03}.dcm"), rows=512, columns=512, z=1.25 * i,
                        pixels=rng.integers(0, 4000, (512, 512)).astype("<u2"), instance=i + 1)
        files = sorted(os.path.join(folder, f) for f in os.listdir(folder))
        print(f"{slices} slices of 512 x 512 x 16 bits, {slices * 512 * 512 * 2 / 1e6:.0f} MB of pixels")
        ours = best_of(lambda: quib.read_volume(folder).array)
        ours_serial = best_of(lambda: quib.read_volume(folder, threads=1).array)
        ours_hu = best_of(lambda: quib.read_volume(folder, rescaled=True).array)
        volume = quib.read_volume(folder)
        assert volume.array.base is not None and np.shares_memory(volume.array, volume.array)
        plain = best_of(lambda: [open(f, "rb").read() for f in files])
        if pydicom is None:
            report("quib.read_volume", ours)
            print("pydicom (python3-pydicom) is not installed")
            return

        def peer(rescaled=False):
            ds = [pydicom.dcmread(f) for f in files]
            ds.sort(key=lambda d: float(d.ImagePositionPatient[2]))
            volume = np.stack([d.pixel_array for d in ds])
            if rescaled:
                volume = volume * np.float32(ds[0].RescaleSlope) + np.float32(ds[0].RescaleIntercept)
            return volume

        theirs = best_of(peer)
        theirs_hu = best_of(lambda: peer(True))
        report(f"quib.read_volume (raw, {volume.threads} threads)", ours,
               [("pydicom + numpy", theirs), ("plain read", plain), ("1 thread", ours_serial)])
        report("quib.read_volume (raw, 1 thread)", ours_serial, [("pydicom + numpy", theirs)])
        report("quib.read_volume (rescaled float32)", ours_hu, [("pydicom + numpy", theirs_hu)])
        report("pydicom dcmread + sort + stack", theirs)
        report("plain read of the files", plain)


if __name__ == "__main__":
    main()
