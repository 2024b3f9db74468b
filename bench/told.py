# SPDX-License-Identifier: Apache-2.0
"""Says how far the measurement is. Always between two measurements, never during one."""

import time

_BEGIN = time.monotonic()


def tell(text):
    print(f"[{time.monotonic() - _BEGIN:5.0f} s] {text}", flush=True)
