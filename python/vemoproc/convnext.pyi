"""ConvNeXt classifier input: shortest-edge resize, centre crop, normalise."""
import numpy as np
import numpy.typing as npt

from . import ImageInput, Pipeline, Resample

class ConvNextPreprocessor:
    size: int
    crop_pct: float
    mean: list[float]
    std: list[float]
    resample: Resample
    def __init__(self, size: int = 224, crop_pct: float = 0.875) -> None: ...
    def process(
        self, x: ImageInput, *, pipeline: Pipeline = Pipeline.Native
    ) -> npt.NDArray[np.float32]:
        """Classifier input of one image: float32 [3, size, size]."""
