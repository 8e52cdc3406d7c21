"""Model-specific pre- and post-processing for on-device inference."""
import enum
import os
import sys
from typing import Optional, Protocol, Sequence, Union

import numpy as np
import numpy.typing as npt

from . import convnext as convnext
from . import dia as dia
from . import qwen2vl as qwen2vl
from . import yolo as yolo
from . import zentil as zentil

BytesLike = Union[bytes, bytearray, memoryview]
# A path, encoded image bytes, or uint8 pixels HxWx3 (RGB), HxWx4 (RGBA), HxW (grey).
ImageInput = Union[str, os.PathLike, BytesLike, npt.NDArray[np.uint8]]

class YuvLayout(enum.Enum):
    NV12 = ...
    NV21 = ...
    I420 = ...

class YuvRange(enum.Enum):
    Video = ...
    Full = ...

class Pipeline(enum.Enum):
    """The library's own pipeline, or the Python pipeline's tensors bit for bit."""

    Native = ...
    MatchPython = ...

class Rotation(enum.Enum):
    None_ = ...
    Clockwise90 = ...
    Rotate180 = ...
    Clockwise270 = ...

class Decoder(enum.Enum):
    Stb = ...
    Reference = ...

class Resample(enum.Enum):
    OpenCVLinear = ...
    PillowBicubic = ...
    PillowBilinear = ...

def decode_image(
    data: BytesLike, apply_exif_orientation: bool = False, decoder: Decoder = Decoder.Stb
) -> npt.NDArray[np.uint8]:
    """Decode encoded image bytes into an HxWx3 uint8 RGB array (Decoder.Reference:
    cv2.imread's and Pillow's pixels for JPEG, EXIF orientation applied)."""

def decode_image_file(
    path: Union[str, os.PathLike], decoder: Decoder = Decoder.Stb
) -> npt.NDArray[np.uint8]:
    """Read and decode an image file into an HxWx3 uint8 RGB array."""

def resize(
    image: npt.NDArray[np.uint8], width: int, height: int, method: Resample
) -> npt.NDArray[np.uint8]:
    """Resize uint8 HxW / HxWx3 / HxWx4 pixels bit-identically to cv2.resize(INTER_LINEAR)
    or PIL Image.resize(BICUBIC / BILINEAR, reducing_gap=None); same layout out."""

def yuv_to_rgb(
    y: npt.NDArray[np.uint8],
    u: Optional[npt.NDArray[np.uint8]] = None,
    v: Optional[npt.NDArray[np.uint8]] = None,
    layout: YuvLayout = YuvLayout.NV12,
    range: YuvRange = YuvRange.Video,
    rotation: Rotation = Rotation.None_,
) -> npt.NDArray[np.uint8]:
    """Convert a 4:2:0 frame (planes, or one (h*3/2, w) buffer) to HxWx3 RGB."""

def set_max_image_pixels(n: int) -> None:
    """Set the process-wide decoding budget in pixels."""

def max_image_pixels() -> int:
    """The process-wide decoding budget in pixels."""

MAX_THREADS: int

def set_num_threads(n: int) -> None:
    """Let library calls use up to n threads (1, the default, creates none)."""

def num_threads() -> int:
    """The current thread setting."""

class _Tokenizer(Protocol):
    def decode(self, ids: list[int]) -> str: ...

class _TextStream(Protocol):
    def write(self, text: str) -> object: ...
    def flush(self) -> object: ...

class TextStreamer:
    """Writes generated text to a stream as it becomes final."""

    def __init__(
        self,
        tokenizer: _Tokenizer,
        stream: Optional[_TextStream] = None,
        skip_prompt: bool = True,
        strip_leading_space: bool = True,
    ) -> None: ...
    def put(self, ids: Union[int, Sequence[int], npt.NDArray[np.integer]]) -> None:
        """Hand over one generation step's new token ids."""
    def end(self) -> None:
        """Write the rest of the text and a line feed."""

class StreamTimeout(TimeoutError):
    """Nothing arrived from a QueueStreamer within the timeout."""

class Cancelled(RuntimeError):
    """put on a QueueStreamer after cancel()."""

class QueueStreamer:
    """Hands generated text to a consumer on another thread; iterable."""

    def __init__(
        self, tokenizer: _Tokenizer, skip_prompt: bool = True, strip_leading_space: bool = True
    ) -> None: ...
    def put(self, ids: Union[int, Sequence[int], npt.NDArray[np.integer]]) -> None: ...
    def end(self) -> None: ...
    def fail(self, error: BaseException) -> None: ...
    def cancel(self) -> None: ...
    def next(self, timeout: Optional[float] = None) -> Optional[str]:
        """The next piece, or None at an end(); raises StreamTimeout after timeout seconds."""
    def __iter__(self) -> "QueueStreamer": ...
    def __next__(self) -> str: ...
