"""What a model expects on its input."""
from __future__ import annotations

import dataclasses
import struct

from . import _mlnn


@dataclasses.dataclass(frozen=True)
class FeatureDescription:
    """What a model expects on its input. `dataclasses.replace` makes a changed one."""

    num_bands: int = 0        # mel bands of a frame; 0: not stated
    win_size_left: int = 0    # frames of context before the current one
    win_size_right: int = 0   # frames of context after it
    use_deltas: bool = False  # deltas and delta-deltas follow the bands
    use_line_kernels: bool = False
    line_kernel_width: int = 0
    feat_type: int = 0
    reserved: int = 0

    _LAYOUT = struct.Struct("=iiiBB??i")

    @classmethod
    def _unpack(cls, data: bytes) -> FeatureDescription:
        left, right, width, kind, reserved, deltas, kernels, bands = cls._LAYOUT.unpack(data)
        return cls(bands, left, right, deltas, kernels, width, kind, reserved)

    @property
    def frame_len(self) -> int:
        """The values of one frame; 0: not stated."""
        return _mlnn.describe(self._pack())[1]

    @property
    def feat_len(self) -> int:
        """The values of an input vector: a frame with its context. 0: not stated."""
        return _mlnn.describe(self._pack())[2]

    def __str__(self) -> str:
        """The text form, as model files have it."""
        return _mlnn.describe(self._pack())[0]

    def _pack(self) -> bytes:
        try:
            return self._LAYOUT.pack(self.win_size_left, self.win_size_right,
                                     self.line_kernel_width, self.feat_type, self.reserved,
                                     self.use_deltas, self.use_line_kernels, self.num_bands)
        except struct.error as error:
            raise ValueError(f"feature description: {error}") from None
