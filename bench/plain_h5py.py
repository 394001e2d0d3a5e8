"""plain_h5py.py BOARDS FILE: writes frames like those of record_bench with h5py, shuffled and deflated with level 1,
as fast as it can. Prints frames per second and the processor's seconds for a frame."""
import os
import sys
import time

import h5py
import numpy

FRAMES = 40
width = 1024 * int(sys.argv[1])
random = numpy.random.default_rng(1)
patterns = [random.poisson(80, (256, width)).astype(numpy.uint32) for _ in range(8)]
with h5py.File(sys.argv[2], "w") as file:
    data = file.create_dataset("data", (0, 256, width), "<u4", maxshape=(None, 256, width), chunks=(1, 256, width),
                               shuffle=True, compression="gzip", compression_opts=1)
    begin, processor = time.perf_counter(), time.process_time()
    for i in range(FRAMES):
        data.resize(i + 1, 0)
        data[i] = patterns[i % 8]
    file.flush()
    print(FRAMES / (time.perf_counter() - begin), (time.process_time() - processor) / FRAMES)
os.unlink(sys.argv[2])
