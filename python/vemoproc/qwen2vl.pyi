"""Qwen2-VL image input: patch-aligned resize, merge-ordered patch rows."""
import os
from typing import Sequence, Tuple, Union

import numpy as np
import numpy.typing as npt

from . import BytesLike, Pipeline

DEFAULT_IMAGE_MEAN: Tuple[float, float, float]
DEFAULT_IMAGE_STD: Tuple[float, float, float]

def smart_resize(
    height: int,
    width: int,
    factor: int = 28,
    min_pixels: int = 3136,
    max_pixels: int = 1003520,
) -> Tuple[int, int]:
    """Target (height, width): multiples of factor within the pixel budget."""

def smart_resize_match_python(
    height: int,
    width: int,
    factor: int = 28,
    min_pixels: int = 3136,
    max_pixels: int = 1003520,
) -> Tuple[int, int]:
    """The Hugging Face processor's size rule (double precision, halves to even)."""

def resize_image(
    image: npt.NDArray[np.uint8], new_height: int, new_width: int
) -> npt.NDArray[np.uint8]:
    """Resample an HxWx3 RGB image with Catmull-Rom."""

_Image = Union[npt.NDArray[np.uint8], BytesLike]

def sample_frame_indices(
    total_frames: int,
    video_fps: float,
    target_fps: float,
    min_frames: int,
    max_frames: int,
    temporal_patch_size: int = 2,
) -> list[int]:
    """Evenly spaced frame indices, whole temporal groups."""

class Qwen2VLImageProcessor:
    do_resize: bool
    min_pixels: int
    max_pixels: int
    do_rescale: bool
    rescale_factor: float
    do_normalize: bool
    image_mean: list[float]
    image_std: list[float]
    patch_size: int
    temporal_patch_size: int
    merge_size: int
    def __init__(
        self,
        do_resize: bool = True,
        min_pixels: int = 3136,
        max_pixels: int = 1003520,
        do_rescale: bool = True,
        rescale_factor: float = 1 / 255,
        do_normalize: bool = True,
        image_mean: Sequence[float] = DEFAULT_IMAGE_MEAN,
        image_std: Sequence[float] = DEFAULT_IMAGE_STD,
        patch_size: int = 14,
        temporal_patch_size: int = 2,
        merge_size: int = 2,
    ) -> None: ...
    def preprocess(
        self,
        x: Union[str, os.PathLike, _Image, Sequence[_Image]],
        *,
        pipeline: Pipeline = Pipeline.Native,
    ) -> Tuple[npt.NDArray[np.float32], npt.NDArray[Union[np.uint64, np.int64]]]:
        """(patches float32 [P, 3*T*p*p], grid_thw [images, 3]: uint64, int64 with MatchPython)."""
    def preprocess_video(
        self, frames: Sequence[_Image], *, pipeline: Pipeline = Pipeline.Native
    ) -> Tuple[npt.NDArray[np.float32], npt.NDArray[Union[np.uint64, np.int64]]]:
        """(patches float32 [groups*h*w, 3*T*p*p], grid_thw [[groups, h, w]])."""
