"""Object detection: letterbox preprocessing, head decoding with NMS, drawing."""
import os
from typing import Any, Literal, Sequence, Tuple, Union, overload

import numpy as np
import numpy.typing as npt

from . import Pipeline

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

class LetterboxInfo:
    """What letterbox applied to one image (pixels)."""

    original_width: int
    original_height: int
    scale: float
    new_width: int
    new_height: int
    left: int
    top: int
    def __init__(
        self,
        original_width: int,
        original_height: int,
        scale: float,
        new_width: int,
        new_height: int,
        left: int,
        top: int,
    ) -> None: ...

def letterbox_info(
    width: int,
    height: int,
    new_shape: Tuple[int, int] = (640, 640),
    *,
    pipeline: Pipeline = Pipeline.Native,
) -> LetterboxInfo: ...
def preprocess_images(
    images: Sequence[Union[npt.NDArray[np.uint8], bytes]],
    size: Tuple[int, int] = (640, 640),
    *,
    pipeline: Pipeline = Pipeline.Native,
    bgr: bool = False,
) -> Tuple[npt.NDArray[np.float32], list[LetterboxInfo]]:
    """Letterbox in-memory images: (float32 [N, 3, height, width], geometry per image)."""

def preprocess(
    paths: Sequence[Union[str, os.PathLike]],
    size: Tuple[int, int] = (640, 640),
    *,
    pipeline: Pipeline = Pipeline.Native,
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
@overload
def postprocess(
    head: npt.ArrayLike,
    letterbox: LetterboxInfo,
    *,
    conf_threshold: float = 0.25,
    iou_threshold: float = 0.45,
    max_det: int = 300,
    agnostic: bool = False,
    channels_first: bool = False,
    objectness: bool = False,
    classes: Sequence[int] = (),
    max_candidates: int = 30000,
    box_mapping: Pipeline = Pipeline.Native,
    as_array: bool = False,
) -> Union[list[Detection], npt.NDArray[np.float32]]: ...
def postprocess_batch(
    heads: npt.ArrayLike,
    letterbox: Sequence[LetterboxInfo],
    *,
    conf_threshold: float = 0.25,
    iou_threshold: float = 0.45,
    max_det: int = 300,
    agnostic: bool = False,
    channels_first: bool = False,
    objectness: bool = False,
    classes: Sequence[int] = (),
    max_candidates: int = 30000,
    box_mapping: Pipeline = Pipeline.Native,
    as_array: bool = False,
) -> list[Union[list[Detection], npt.NDArray[np.float32]]]: ...
def postprocess_end2end(
    rows: npt.ArrayLike, letterbox: LetterboxInfo, conf_threshold: float = 0.25, *,
    box_mapping: Pipeline = Pipeline.Native, as_array: bool = False
) -> Union[list[Detection], npt.NDArray[np.float32]]: ...
def draw_detections(
    image: npt.NDArray[np.uint8],
    detections: Union[Sequence[Detection], npt.NDArray[np.float32]],
    class_names: Sequence[str] = (),
    show_score: bool = True,
    thickness: int = 2,
) -> None:
    """Paint detections into an HxWx3 uint8 RGB array in place."""

# The other heads (yolo_tasks.hpp). Keywords as for postprocess.
def segment(
    head: npt.ArrayLike,
    protos: npt.ArrayLike,
    letterbox: LetterboxInfo,
    *,
    conf_threshold: float = 0.25,
    iou_threshold: float = 0.45,
    max_det: int = 300,
    agnostic: bool = False,
    channels_first: bool = False,
    objectness: bool = False,
    classes: Sequence[int] = (),
    max_candidates: int = 30000,
    outlines: bool = False,
) -> dict[str, Any]:
    """Masks in original pixels: {"boxes", "masks", "origins"[, "outlines"]}."""

def segment_end2end(
    rows: npt.ArrayLike,
    protos: npt.ArrayLike,
    letterbox: LetterboxInfo,
    *,
    conf_threshold: float = 0.25,
    iou_threshold: float = 0.45,
    max_det: int = 300,
    agnostic: bool = False,
    channels_first: bool = False,
    objectness: bool = False,
    classes: Sequence[int] = (),
    max_candidates: int = 30000,
    outlines: bool = False,
) -> dict[str, Any]:
    """segment for NMS-free rows [N, 6 + m]."""

def segment_input_masks(
    head: npt.ArrayLike,
    protos: npt.ArrayLike,
    letterbox: LetterboxInfo,
    *,
    conf_threshold: float = 0.25,
    iou_threshold: float = 0.45,
    max_det: int = 300,
    agnostic: bool = False,
    channels_first: bool = False,
    objectness: bool = False,
    classes: Sequence[int] = (),
    max_candidates: int = 30000,
) -> dict[str, Any]:
    """The masks at network-input resolution: {"masks", "origins"}."""

def pose(
    head: npt.ArrayLike,
    letterbox: LetterboxInfo,
    *,
    conf_threshold: float = 0.25,
    iou_threshold: float = 0.45,
    max_det: int = 300,
    agnostic: bool = False,
    channels_first: bool = False,
    objectness: bool = False,
    classes: Sequence[int] = (),
    max_candidates: int = 30000,
    keypoint_shape: Tuple[int, int] = (17, 3),
    end2end: bool = False,
) -> dict[str, npt.NDArray[np.float32]]:
    """{"boxes": [N, 6], "keypoints": [N, K, 3]}."""

def obb(
    head: npt.ArrayLike,
    letterbox: LetterboxInfo,
    *,
    conf_threshold: float = 0.25,
    iou_threshold: float = 0.45,
    max_det: int = 300,
    agnostic: bool = False,
    channels_first: bool = False,
    objectness: bool = False,
    classes: Sequence[int] = (),
    max_candidates: int = 30000,
    end2end: bool = False,
) -> dict[str, npt.NDArray[np.float32]]:
    """{"boxes": [N, 7] (cx, cy, w, h, angle, score, class), "corners": [N, 4, 2]}."""

def probabilistic_iou(a: Sequence[float], b: Sequence[float]) -> float:
    """The probabilistic IoU of two rotated boxes (cx, cy, w, h, angle)."""

def classify(
    scores: npt.NDArray[np.float32], top_k: int = 5, apply_softmax: bool = False
) -> Union[
    Tuple[npt.NDArray[np.int64], npt.NDArray[np.float32]],
    list[Tuple[npt.NDArray[np.int64], npt.NDArray[np.float32]]],
]:
    """Top-k (ids, scores) of [classes], or a list of them for [B, classes]."""
