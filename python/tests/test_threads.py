import faulthandler
import os
import threading

import numpy as np
import pytest

import vemoproc
from conftest import png_bytes, scene


def test_the_gil_is_released_while_the_library_works(tmp_path):
    # The library call blocks opening a FIFO until this thread opens its
    # writing end; holding the GIL there would deadlock, which the watchdog
    # (a C thread that needs no GIL) turns into a failed run instead of a hang.
    fifo = tmp_path / "image.png"
    os.mkfifo(fifo)
    data = png_bytes(scene(40, 60))
    pre = vemoproc.zentil.ZentilPreprocessor(16)
    results = []
    worker = threading.Thread(target=lambda: results.append(pre.process(str(fifo))))
    faulthandler.dump_traceback_later(120, exit=True)
    try:
        worker.start()
        with open(fifo, "wb") as writer:  # returns once the library opened the FIFO
            writer.write(data)
        worker.join()
    finally:
        faulthandler.cancel_dump_traceback_later()
    assert np.array_equal(results[0], pre.process(scene(40, 60)))


def test_thread_setting_gives_identical_results():
    image = scene(300, 400)
    one = vemoproc.convnext.ConvNextPreprocessor(256, 0.875).process(image)
    assert vemoproc.num_threads() == 1
    try:
        vemoproc.set_num_threads(4)
        assert vemoproc.num_threads() == 4
        assert np.array_equal(vemoproc.convnext.ConvNextPreprocessor(256, 0.875).process(image), one)
        with pytest.raises(RuntimeError, match="n must be between 1 and 256"):
            vemoproc.set_num_threads(vemoproc.MAX_THREADS + 1)
    finally:
        vemoproc.set_num_threads(1)
