# The streamer binding: Python tokenizers and streams, token-id types, error
# mapping and the QueueStreamer iterator. The hold-back rules are checked in
# C++ (tests/streamer_test.cpp).
import io
import os
import subprocess
import sys
import threading
from types import SimpleNamespace as Tokenizer

import numpy as np
import pytest

import vemoproc

WORDS = {0: "Hello", 1: ",", 2: " world", 3: ".", 4: "\n", 5: " again"}
words = Tokenizer(decode=lambda ids: "".join(WORDS[i] for i in ids))


class Marking(io.StringIO):  # a '|' for every flush
    def flush(self):
        self.write("|")


def test_python_streams_and_token_id_types(capsys):
    out = Marking()
    s = vemoproc.TextStreamer(words, out)
    for ids in ([0, 2], [0], np.array([1], np.int64), [2, 3], 4, [5]):  # the first: the prompt
        s.put(ids)
    s.end()
    assert out.getvalue() == "Hello|||, world.\n| again|\n|"
    s = vemoproc.TextStreamer(words, skip_prompt=False, strip_leading_space=False)
    s.put([2])
    s.end()
    assert capsys.readouterr().out == " world\n"


def test_errors_keep_their_python_type():
    with pytest.raises(KeyError, match="no such token"):
        broken = Tokenizer(decode=lambda ids: {}["no such token"])
        vemoproc.TextStreamer(broken, io.StringIO(), skip_prompt=False).put([1])
    shrinking = Tokenizer(decode=lambda ids: "abcd" if len(ids) == 1 else "ab")
    s = vemoproc.TextStreamer(shrinking, io.StringIO(), skip_prompt=False)
    s.put([1])
    with pytest.raises(IndexError):
        s.put([2])
    closed = Tokenizer(write=lambda text: {}["stream closed"], flush=lambda: None)
    s = vemoproc.TextStreamer(words, closed, skip_prompt=False)
    for ids in ([0], [2]):  # the stream's state is reset: every write fails the same way
        with pytest.raises(KeyError, match="stream closed"):
            s.put(ids)
    for args, name in (((object(),), "tokenizer"), ((words, object()), "stream")):
        with pytest.raises(TypeError, match=name):
            vemoproc.TextStreamer(*args)


def test_queue_streamer_iterates_across_threads():
    q = vemoproc.QueueStreamer(words, skip_prompt=False)

    def generate():
        for step in ([0], [1], [2, 3], [4], [5]):
            q.put(step)
        q.end()

    producer = threading.Thread(target=generate)
    producer.start()
    assert list(q) == ["Hello", ", world.\n", " again", "\n"]  # stops at the end()
    producer.join()
    assert issubclass(vemoproc.StreamTimeout, TimeoutError)
    with pytest.raises(vemoproc.StreamTimeout):
        q.next(timeout=0.01)  # nothing can arrive
    q.fail(ValueError("model crashed"))
    with pytest.raises(ValueError, match="model crashed"):
        q.next(timeout=1)
    q.cancel()
    with pytest.raises(vemoproc.Cancelled):
        q.put([0])
    with pytest.raises(TypeError, match="error"):
        q.fail("not an exception")


def test_huge_timeouts_wait_and_a_daemon_consumer_does_not_abort_the_exit():
    q = vemoproc.QueueStreamer(words, skip_prompt=False)
    producer = threading.Timer(0.2, lambda: (q.put([0]), q.end()))
    producer.start()
    for timeout in (float("inf"), 1e300, 1e10):
        assert q.next(timeout=timeout) in ("Hello", "\n", None)
    producer.join()
    # At exit the interpreter ends a daemon thread waiting in next() when it
    # takes the GIL back (its wait wakes every 0.1 s; freeing three million
    # lists keeps the teardown going past that): status 0, nothing printed.
    script = """
import threading, vemoproc
class Tok:
    def decode(self, ids): return ""
q = vemoproc.QueueStreamer(Tok())
threading.Thread(target=q.next, daemon=True).start()
teardown_work = [[i] for i in range(3_000_000)]
"""
    if "libasan" in os.environ.get("LD_PRELOAD", ""):
        pytest.skip("UBSan flags pybind11's own catch of the unwinding that ends the thread")
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, timeout=60)
    assert (done.returncode, done.stderr) == (0, b"")
