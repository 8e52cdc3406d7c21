import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import vemoproc
from conftest import scene


def test_the_gil_is_released_while_the_library_works():
    # A pure-Python loop keeps running while another thread is inside a long
    # library call; with the GIL held the loop would stall for the whole call.
    image = scene(1200, 1600)
    pre = vemoproc.zentil.ZentilPreprocessor(2048)
    start = time.perf_counter()
    pre.process(image)
    call = time.perf_counter() - start
    worker = threading.Thread(target=pre.process, args=(image,))
    interval = sys.getswitchinterval()
    sys.setswitchinterval(1e-4)
    try:
        last, longest = time.perf_counter(), 0.0
        worker.start()  # with the GIL held, start() itself would wait out the call
        while worker.is_alive():
            now = time.perf_counter()
            longest, last = max(longest, now - last), now
        worker.join()
    finally:
        sys.setswitchinterval(interval)
    assert longest < call / 2, (longest, call)


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


def test_a_forked_child_calls_the_library_and_exits_cleanly():
    # After a batch on four threads, a child forked from this process runs a
    # batch of its own and leaves through the normal interpreter exit.
    script = """
import os, numpy as np, vemoproc
vemoproc.set_num_threads(4)
batch = lambda: vemoproc.yolo.preprocess_images([np.zeros((40, 60, 3), np.uint8)] * 4, (64, 64))
batch()
pid = os.fork()
if pid == 0:
    batch()
else:
    raise SystemExit(os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) or 0)
"""
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, timeout=60)
    assert (done.returncode, done.stderr) == (0, b"")
