"""Object detection: letterbox preprocessing, head decoding with NMS, drawing."""
import os
from typing import Literal, Sequence, Tuple, Union, overload

import numpy as np
import numpy.typing as npt

class Detection:
    """One detection in original-image pixels."""

    x1: float
    y1: float
    x2: float
    y2: float
    score: float
    class_id: int
    def __init__(
        self, x1: float, y1: float, x2: float, y2: float, score: float, class_id: int
    ) -> None: ...

def preprocess(
    paths: Sequence[Union[str, os.PathLike]], size: Tuple[int, int] = (640, 640)
) -> npt.NDArray[np.float32]:
    """Letterbox image files into float32 [N, 3, height, width]; size is (width, height)."""

def letterbox(
    image: npt.NDArray[np.uint8], new_shape: Tuple[int, int] = (640, 640), pad_value: int = 114
) -> npt.NDArray[np.uint8]:
    """Fit an image into new_shape = (width, height), padded with pad_value."""

@overload
def postprocess(
    predictions: npt.ArrayLike,
    input_shape: Tuple[int, int],
    original_shape: Tuple[int, int],
    conf_threshold: float = 0.25,
    iou_threshold: float = 0.45,
    max_det: int = 300,
    *,
    as_array: Literal[False] = False,
) -> list[Detection]: ...
@overload
def postprocess(
    predictions: npt.ArrayLike,
    input_shape: Tuple[int, int],
    original_shape: Tuple[int, int],
    conf_threshold: float = 0.25,
    iou_threshold: float = 0.45,
    max_det: int = 300,
    *,
    as_array: Literal[True],
) -> npt.NDArray[np.float32]: ...
def draw_detections(
    image: npt.NDArray[np.uint8],
    detections: Union[Sequence[Detection], npt.NDArray[np.float32]],
    class_names: Sequence[str] = (),
    show_score: bool = True,
    thickness: int = 2,
) -> None:
    """Paint detections into an HxWx3 uint8 RGB array in place."""
