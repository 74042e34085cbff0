"""KWQImage for Python: camera capture and image-quality measures over NumPy arrays.

Images are NumPy ``uint8`` arrays: ``(H, W)`` gray, ``(H, W, 3)`` RGB, ``(H, W, 4)`` BGRA
(premultiplied, the layout of camera frames) or RGBA with ``layout="rgba"``. Arrays whose
pixels are packed are used in place, without a copy; other views are copied first. Results
come back as arrays that own their memory.

The measures return exactly what the C++ library returns for the same bytes.
"""

from ._kwqimage import *  # noqa: F401,F403
from ._kwqimage import (  # noqa: F401
    CARD_ASPECT_RATIO,
    Code,
    Engine,
    FaceFeatures,
    Frame,
    ImageDictionary,
    Rectangle,
    recorder,
    version_number,
)

__all__ = [name for name in dir() if not name.startswith("_")]
