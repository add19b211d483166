"""The ``hermite`` command-line tool from Python: where it is, and the ``hermite`` command that
``pip install`` puts on ``PATH``.

The tool reads molecule files with the chemistry toolkit it was built with; the Python module
never loads that toolkit, so that it shares its process with any RDKit the user imports. Code
that needs the tool's file readers (distributed screening, reports of command-line runs) runs it
as a separate process.
"""

from __future__ import annotations

import os
import shutil
import sys
from pathlib import Path
from typing import List, Optional

__all__ = ["main", "tool_path"]


def tool_path() -> str:
    """The ``hermite`` command-line tool: ``$HERMITE_CLI``, the one installed inside the package
    (``pip install``), or the first on ``PATH`` other than the launcher of this module.

    Raises:
        RuntimeError: when there is none.
    """
    bundled = Path(__file__).resolve().parent / "bin" / "hermite"
    candidates = [os.environ.get("HERMITE_CLI", ""), str(bundled), shutil.which("hermite") or ""]
    for candidate in candidates:
        if candidate and os.path.isfile(candidate) and os.access(candidate, os.X_OK) and \
                not _is_launcher(candidate):
            return candidate
    raise RuntimeError("the hermite command-line tool was not found: install the package with "
                       "pip, put the tool on PATH or set HERMITE_CLI to its path")


def _is_launcher(path: str) -> bool:
    """True for the Python script pip writes for :func:`main` (it starts with ``#!``)."""
    with open(path, "rb") as file:
        return file.read(2) == b"#!"


def main(argv: Optional[List[str]] = None) -> None:
    """The ``hermite`` command: replaces this process with the tool, which makes its reports
    (``--report``) with this interpreter unless ``$HERMITE_PYTHON`` names another."""
    arguments = sys.argv[1:] if argv is None else argv
    try:
        path = tool_path()
    except RuntimeError as error:
        sys.stderr.write(f"hermite: {error}\n")
        raise SystemExit(3) from None
    os.environ.setdefault("HERMITE_PYTHON", sys.executable)
    os.execv(path, [path, *arguments])


if __name__ == "__main__":
    main()
