"""Model-specific pre- and post-processing for on-device inference.

Families: ``vemoproc.yolo`` (detection), ``vemoproc.convnext``,
``vemoproc.zentil`` and ``vemoproc.qwen2vl`` (vision-model inputs),
``vemoproc.dia`` (speech-synthesis helpers) and ``vemoproc.TextStreamer``
(token streaming). Results are numpy arrays that own the library's buffers;
the library runs with the GIL released.
"""
import sys as _sys

from ._vemoproc import *  # noqa: F401,F403
from . import _vemoproc as _ext

# The families are submodules of the extension; registering them under the
# package name makes "import vemoproc.yolo" and "from vemoproc.dia import ..."
# work like ordinary submodules.
_families = [name for name, value in vars(_ext).items() if type(value) is type(_ext)]
for _name in _families:
    _sys.modules[__name__ + "." + _name] = getattr(_ext, _name)
    globals()[_name] = getattr(_ext, _name)

__all__ = [name for name in vars(_ext) if not name.startswith("_")]
