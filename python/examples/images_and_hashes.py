"""quib.Image over a NumPy array without a copy, bitmap files band by band, hashes (run by CI)."""
import hashlib
import os
import tempfile

import numpy as np

import quib

picture = np.zeros((480, 640, 3), np.uint8)
picture[100:200, 50:300] = (255, 128, 0)  # BGR, as cv2 has it
image = quib.Image(picture)                # wraps, no copy
assert np.shares_memory(np.asarray(image), picture)
print(image)

with tempfile.TemporaryDirectory() as folder:
    path = os.path.join(folder, "picture.bmp")
    quib.write_bmp(path, picture)
    total = 0
    for top, band in quib.Bitmap(path).bands(rows=64):   # one reused array
        total += int(band.sum())
    assert total == int(picture.sum())
    assert (quib.read_bmp(path) == picture).all()
    print("bands summed to", total)

data = picture.tobytes()
assert quib.sha256(picture) == hashlib.sha256(data).hexdigest()   # any bytes-like object
print("sha256", quib.sha256(picture)[:16], "hash64", quib.hash64(data))
