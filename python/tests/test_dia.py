# The dia binding: argument and result types, strides, in-place writes and
# error mapping. The arithmetic itself is checked in C++ (tests/dia_test.cpp).
import numpy as np
import pytest

from vemoproc import dia

DELAYS = [0, 1, 3]


@pytest.fixture
def dp():
    return dia.DiaPreprocessor()


def test_types_and_strides_cross_the_binding(dp):
    tokens = dp.prepareTextInput("[S1] hé", 9, 7)  # str goes in as UTF-8
    assert tokens.dtype == np.uint8 and tokens.tolist() == [[1, 32, 104, 195, 169, 9, 9]]
    assert dp.prepareTextInput(b"abcdef", 0, 3).tolist() == [[97, 98, 99]]
    idx = dp.buildDelayIndices(2, 6, 3, DELAYS)
    assert [i.dtype for i in idx] == [np.int32, np.int32] and idx[0].shape == (2, 6, 3)
    strided = np.arange(72).reshape(2, 6, 6)[:, :, ::2]  # int64, every other channel
    shifted = dp.applyAudioDelay(strided, -1, 99, idx)
    assert shifted.dtype == np.float32 and shifted[1, :, 2].tolist() == [99, 99, 99, 40, 46, 52]
    codes, prefill = dp.prepareAudioPrompt(np.ones((2, 3), np.int64), 7, 8, 3, DELAYS)
    assert (codes.dtype, codes.shape, prefill) == (np.int32, (6, 3), 3)
    assert dp.prepareAudioPrompt(None, 7, 8, 3, DELAYS)[0][:, 0].tolist() == [7, -1, -1, -1]
    mask = dp.createAttnMask(np.array([[1, 0]], bool), np.array([[1, 0]], bool), True)
    assert mask.dtype == np.bool_ and mask.tolist() == [[[[True, False], [False, True]]]]


def test_sampling_overloads_guidance_and_the_in_place_mask(dp):
    logits = np.array([[0, 5, 1], [2, 0, 1]], np.float32)
    assert dp.sampleNextToken(logits.T.copy().T, 0.0, 1.0, 0).tolist() == [1, 0]
    four = np.tile(np.array([1, 2, 0.5, 3], np.float32), (8, 1))
    picked = dp.sampleNextToken(four, 1.0, 1.0, 0, seed=2026)
    assert picked.dtype == np.int32 and picked.tolist() == [3, 3, 3, 3, 0, 1, 0, 1]
    params = dia.SamplingParams(1.0, min_p=0.2)
    assert dp.sampleNextToken(four, params, 2026).tolist() == [3, 3, 3, 3, 1, 3, 1, 3]
    flipped = logits[::-1]
    assert np.array_equal(dp.applyCfg(logits, flipped, 3.0), logits + 3 * (logits - flipped))
    masked = np.zeros((2, 6), np.float32)[:, ::2]  # the caller's strided view is written
    dp.maskAudioLogits(masked, 1)
    assert masked.tolist() == [[0, 0, -np.inf], [0, -np.inf, -np.inf]]


def test_errors_map_to_python_exceptions(dp):
    z = np.zeros((2, 4), np.float32)
    idx = dp.buildDelayIndices(1, 4, 3, DELAYS)
    wide = (idx[0], idx[1].astype(np.uint64) + np.uint64(2**63))
    cases = [
        (ValueError, "", lambda: dp.prepareTextInput("x", 0, -1)),
        (RuntimeError, "logits", lambda: dp.sampleNextToken(np.zeros((2, 2, 2), np.float32), 1, 1, 0)),
        (RuntimeError, "do not match the audio shape",
         lambda: dp.applyAudioDelay(np.zeros((1, 5, 3), np.float32), 0, 0, idx)),
        (ValueError, "precomputed", lambda: dp.applyAudioDelay(z.reshape(1, 4, 2), 0, 0, idx[:1])),
        (ValueError, r"precomputed\[1\]", lambda: dp.applyAudioDelay(z.reshape(1, 4, 2), 0, 0, wide)),
        (TypeError, "query_mask", lambda: dp.createAttnMask(z, z > 0, False)),
        (TypeError, "audio_prompt", lambda: dp.prepareAudioPrompt(z, 1, 2, 4, [0] * 4)),
        (ValueError, "audio_prompt: values outside the 32-bit int range",
         lambda: dp.prepareAudioPrompt(np.array([[2**40]]), 1, 2, 1, [0])),
        (TypeError, "logits", lambda: dp.maskAudioLogits(z.astype(np.float64), 1)),
        (ValueError, "read-only", lambda: dp.maskAudioLogits(np.broadcast_to(z, (2, 4)), 1)),
    ]
    for error, match, call in cases:
        with pytest.raises(error, match=match):
            call()
