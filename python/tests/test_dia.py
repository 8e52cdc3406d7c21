import numpy as np
import pytest

from vemoproc import dia

DELAYS = [0, 1, 3]


def delayed(audio, delays, pad, bos):
    """Channel c shifted delays[c] frames later: BOS before it starts."""
    b, t, c = audio.shape
    out = np.empty_like(audio, dtype=np.float32)
    for ch, d in enumerate(delays):
        src = np.arange(t) - d
        out[:, :, ch] = np.where(src < 0, bos, audio[:, np.clip(src, 0, t - 1), ch])
    return out


@pytest.fixture
def dp():
    return dia.DiaPreprocessor()


def test_text_tokens(dp):
    tokens = dp.prepareTextInput("[S1] hé[S2]", 9, 10)
    assert tokens.dtype == np.uint8 and tokens.shape == (1, 10)
    expected = [1] + list(" hé".encode()) + [2] + [9] * 4
    assert tokens[0].tolist() == expected
    assert dp.prepareTextInput(b"abcdef", 0, 3).tolist() == [[97, 98, 99]]
    with pytest.raises(ValueError):
        dp.prepareTextInput("x", 0, -1)


def test_delay_apply_and_revert_match_numpy_and_the_tool(dp, cli, tmp_path):
    rng = np.random.default_rng(0)
    audio = rng.integers(0, 1000, (2, 6, 3)).astype(np.float32)
    idx = dp.buildDelayIndices(2, 6, 3, DELAYS)
    assert idx[0].dtype == np.int32 and idx[0].shape == (2, 6, 3)
    assert idx[0][0, :, 2].tolist() == [-3, -2, -1, 0, 1, 2]
    shifted = dp.applyAudioDelay(audio, -1, 1026, idx)
    assert np.array_equal(shifted, delayed(audio, DELAYS, -1, 1026))
    np.save(tmp_path / "codes.npy", audio)
    _, tool = cli("dia-delay", tmp_path / "codes.npy", "--delays", "0,1,3", "--bos", "1026",
                  "--pad", "-1")
    assert np.array_equal(shifted, tool)
    back = dp.revertAudioDelay(shifted, -1, dp.buildRevertIndices(2, 6, 3, DELAYS), 6)
    assert np.array_equal(back[:, :3], audio[:, :3])  # frames every channel still holds
    # Integer codes are accepted and the same indices serve every block.
    assert np.array_equal(dp.applyAudioDelay(audio.astype(np.int64), -1, 1026, idx), shifted)


def test_audio_prompt_and_masks(dp):
    prompt = np.arange(6, dtype=np.int32).reshape(2, 3)
    codes, prefill = dp.prepareAudioPrompt(prompt, 1026, 1025, 3, DELAYS)
    assert prefill == 3 and codes.dtype == np.int32 and codes.shape == (6, 3)
    block = np.concatenate([np.full((1, 3), 1026), prompt, np.full((3, 3), -1)])
    assert np.array_equal(codes, delayed(block[None], DELAYS, 1025, 1026)[0])
    empty, prefill = dp.prepareAudioPrompt(None, 1026, 1025, 3, DELAYS)
    assert prefill == 1 and empty.shape == (4, 3)

    q = np.array([[1, 1, 0], [1, 0, 0]], bool)
    k = np.array([[1, 0, 0, 1], [1, 1, 1, 0]], bool)
    mask = dp.createAttnMask(q, k, False)
    assert mask.dtype == np.bool_ and np.array_equal(mask, (q[:, :, None] == k[:, None, :])[:, None])
    causal = dp.createAttnMask(q, q, True)
    expected = (q[:, :, None] == q[:, None, :]) & np.tril(np.ones((3, 3), bool))
    assert np.array_equal(causal, expected[:, None])


def test_sampling(dp):
    rng = np.random.default_rng(1)
    logits = rng.normal(size=(4, 50)).astype(np.float32)
    picked = dp.sampleNextToken(logits, 0.0, 1.0, 0)
    assert picked.dtype == np.int32 and picked.tolist() == logits.argmax(1).tolist()
    assert dp.sampleNextToken(logits, 1.0, 1.0, 1).tolist() == logits.argmax(1).tolist()
    drawn = dp.sampleNextToken(logits, 1.0, 0.9, 5)
    top5 = np.argsort(-logits, 1)[:, :5]
    assert all(t in row for t, row in zip(drawn, top5))


def test_dia_errors(dp):
    with pytest.raises(RuntimeError, match="logits"):
        dp.sampleNextToken(np.full((2, 4), np.nan, np.float32), 1.0, 1.0, 0)
    with pytest.raises(RuntimeError, match="logits"):
        dp.sampleNextToken(np.zeros((2, 2, 2), np.float32), 1.0, 1.0, 0)
    idx = dp.buildDelayIndices(1, 4, 3, DELAYS)
    with pytest.raises(RuntimeError, match="do not match the audio shape"):
        dp.applyAudioDelay(np.zeros((1, 5, 3), np.float32), 0, 0, idx)
    with pytest.raises(ValueError, match="precomputed"):
        dp.applyAudioDelay(np.zeros((1, 4, 3), np.float32), 0, 0, idx[:1])
    with pytest.raises(RuntimeError, match="delay_pattern"):
        dp.buildRevertIndices(1, 4, 3, [0, -1, 2])
    with pytest.raises(TypeError, match="query_mask"):
        dp.createAttnMask(np.ones((1, 3), np.float32), np.ones((1, 3), bool), False)
    with pytest.raises(TypeError, match="audio_prompt"):
        dp.prepareAudioPrompt(np.zeros((2, 3), np.float32), 1, 2, 3, DELAYS)


def test_integer_inputs_that_would_wrap_are_refused(dp):
    prompt = np.array([[1, 2, 2**40]], np.int64)
    with pytest.raises(ValueError, match="audio_prompt: values outside the 32-bit int range"):
        dp.prepareAudioPrompt(prompt, 1026, 1025, 3, DELAYS)
    idx = dp.buildDelayIndices(1, 4, 3, DELAYS)
    wide = (idx[0], idx[1].astype(np.uint64) + np.uint64(2**63))
    with pytest.raises(ValueError, match=r"precomputed\[1\]"):
        dp.applyAudioDelay(np.zeros((1, 4, 3), np.float32), 0, 0, wide)


def test_seeded_sampling_guidance_and_masks(dp):
    rng = np.random.default_rng(2)
    logits = rng.normal(size=(3, 40)).astype(np.float32)
    first = dp.sampleNextToken(logits, 1.0, 0.95, 20, seed=7)
    assert np.array_equal(first, dp.sampleNextToken(logits, 1.0, 0.95, 20, seed=7))
    # Row r of a batch is the single row drawn with seed + r.
    assert dp.sampleNextToken(logits[2:], 1.0, 0.95, 20, seed=9).tolist() == [first[2]]
    params = dia.SamplingParams(1.0, top_p=0.95, top_k=20)
    assert np.array_equal(dp.sampleNextToken(logits, params, 7), first)
    with pytest.raises(RuntimeError, match="min_p"):
        dp.sampleNextToken(logits, dia.SamplingParams(1.0, min_p=2.0), 7)

    cond, uncond = logits[:2], logits[1:]
    guided = dp.applyCfg(cond, uncond, 3.0)
    assert np.array_equal(guided, cond + np.float32(3.0) * (cond - uncond))
    with pytest.raises(RuntimeError, match="uncond must have the shape of cond"):
        dp.applyCfg(cond, logits, 3.0)

    masked = logits.copy()
    dp.maskAudioLogits(masked, 30)
    expected = logits.copy()
    expected[:, 31:] = -np.inf
    expected[1:, 30] = -np.inf
    assert np.array_equal(masked, expected)
    with pytest.raises(TypeError, match="logits"):
        dp.maskAudioLogits(logits.astype(np.float64), 30)
    with pytest.raises(RuntimeError, match="eos_value"):
        dp.maskAudioLogits(logits.copy(), 40)
