"""Speech-synthesis helpers: text tokens, audio-code delays, sampling, masks."""
from typing import Optional, Sequence, Tuple, Union, overload

import numpy as np
import numpy.typing as npt

IndexPair = Tuple[npt.NDArray[np.int32], npt.NDArray[np.int32]]

class SamplingParams:
    temperature: float
    top_p: float
    top_k: int
    min_p: float
    def __init__(
        self, temperature: float, top_p: float = 1.0, top_k: int = 0, min_p: float = 0.0
    ) -> None: ...

class DiaPreprocessor:
    def __init__(self) -> None: ...
    def prepareTextInput(
        self, text: Union[str, bytes], pad_value: int = 0, max_len: int = 1024
    ) -> npt.NDArray[np.uint8]:
        """uint8 [1, max_len] byte tokens, [S1]/[S2] folded into 1/2."""
    def buildDelayIndices(
        self, B: int, T: int, C: int, delay_pattern: Sequence[int]
    ) -> IndexPair: ...
    def applyAudioDelay(
        self, audio: npt.ArrayLike, pad_value: float, bos_value: float, precomputed: IndexPair
    ) -> npt.NDArray[np.float32]: ...
    def buildRevertIndices(
        self, B: int, T: int, C: int, delay_pattern: Sequence[int]
    ) -> IndexPair: ...
    def revertAudioDelay(
        self, audio: npt.ArrayLike, pad_value: float, precomputed: IndexPair, T: int
    ) -> npt.NDArray[np.float32]: ...
    def prepareAudioPrompt(
        self,
        audio_prompt: Optional[npt.ArrayLike],
        bos_value: int,
        pad_value: int,
        num_channels: int,
        delay_pattern: Sequence[int],
    ) -> Tuple[npt.NDArray[np.int32], int]: ...
    @overload
    def sampleNextToken(
        self,
        logits: npt.ArrayLike,
        temperature: float = 1.0,
        top_p: float = 1.0,
        top_k: int = 0,
        *,
        seed: Optional[int] = None,
    ) -> npt.NDArray[np.int32]: ...
    @overload
    def sampleNextToken(
        self, logits: npt.ArrayLike, params: SamplingParams, seed: int
    ) -> npt.NDArray[np.int32]: ...
    def applyCfg(
        self, cond: npt.ArrayLike, uncond: npt.ArrayLike, cfg_scale: float
    ) -> npt.NDArray[np.float32]: ...
    def maskAudioLogits(self, logits: npt.NDArray[np.float32], eos_value: int) -> None: ...
    def createAttnMask(
        self, query_mask: npt.ArrayLike, key_mask: npt.ArrayLike, causal: bool = False
    ) -> npt.NDArray[np.bool_]: ...
