"""Zentil vision-encoder input: stretch to a square, normalise to [-1, 1]."""
import numpy as np
import numpy.typing as npt

from . import ImageInput, Pipeline

class ZentilPreprocessor:
    size: int
    mean: list[float]
    std: list[float]
    def __init__(self, size: int = 224) -> None: ...
    def process(
        self, x: ImageInput, *, pipeline: Pipeline = Pipeline.Native
    ) -> npt.NDArray[np.float32]:
        """Encoder input of one image: float32 [1, 3, size, size]."""
