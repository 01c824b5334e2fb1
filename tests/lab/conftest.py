"""Makes the package `lab` importable from wherever the tests are started."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))
