"""Screening on a Dask cluster: ``hermite overlay`` with its database split into parts.

:func:`overlay` runs ``hermite overlay`` (the same command-line arguments, outputs, messages and
exit status) on a :class:`dask.distributed.Client`. The database is split into parts of about
``part_size`` molecules (runs of records of molecule files, runs of molecules of prepared
libraries; a part may span files). Each part is one Dask task: it runs the native screening
engine on its worker, with ``--threads`` threads of that machine (0, the default, for all its
cores), and returns the rows of its molecules and its own best hits, posed, as a few hundred bytes
per molecule. The client merges the parts in input order into exactly the ranking, hits file and
score table that one ``hermite overlay`` run gives on the same inputs.

Requirements: every file (queries and databases) is read under the same path on the client and
on every worker (shared storage); relative paths are taken from the client's working directory,
which must then exist on the workers too. The outputs are written by the client only. Workers need the
``hermite`` package and the same RDKit.

Faults: a part lost with its worker is run again by Dask on another worker, and every part is
merged once. Bad records are reported with file and record, as in one run, and the run goes on;
a part that fails as a whole (a file that vanished from a worker) stops the run with exit status
3 and the worker's message.

The shell entry point, for users who never write Python::

    python3 -m hermite.distributed overlay --scheduler tcp://HOST:PORT [--part-size N] \\
        --query q.sdf --db library.h5 --out hits.sdf --scores scores.tsv --best 1000

``--scheduler local:N`` starts a local cluster of N worker processes for the run.
"""

from __future__ import annotations

import os
import uuid
import zlib
from typing import Callable, Iterator, Optional, Sequence

from .. import _hermite

__all__ = ["DEFAULT_PART_SIZE", "overlay", "screen_part"]

#: Molecules per part by default: large enough that the scheduler's cost per task (a few
#: milliseconds) is small against the task, small enough that a cluster gets many parts per
#: worker and a lost worker costs little (see docs/distributed.md).
DEFAULT_PART_SIZE = 2000

#: The name messages start with.
PROGRAM = "hermite.distributed"

Slice = tuple  # (path, first molecule, molecule count or None)


def screen_part(arguments: Sequence[str], slices: Sequence[Slice], directory: str = "") -> bytes:
    """Screens one part of the database of ``hermite overlay <arguments>`` on this machine.

    The task function of :func:`overlay`: ``slices`` are (path, first molecule, molecule count
    or None for the rest of the file) tuples; molecules are counted from 0 as source molecules
    (SD records of one title, MOL2 records, SMILES lines, molecules of a prepared library).
    Relative paths are taken from ``directory`` (the client's working directory) when it exists
    on this machine. Returns the part, encoded and compressed (zlib), for the merge. Raises
    ``RuntimeError`` (or ``ValueError`` for a bad command line) when the part cannot run at all.
    """
    encoded = _hermite._screen_part(list(arguments), [tuple(s) for s in slices], str(directory))
    # Level 1: the posed hits' molfiles and the rows' file names shrink several times over for
    # about a millisecond per megabyte.
    return zlib.compress(encoded, 1)


def overlay(
    arguments: Sequence[str],
    client,
    *,
    part_size: int = DEFAULT_PART_SIZE,
    progress: Optional[Callable[[int, int], None]] = None,
) -> int:
    """Runs ``hermite overlay <arguments>`` with its database screened on ``client``'s cluster.

    Args:
        arguments: the command line of ``hermite overlay`` after the word ``overlay``
            (``["--query", "q.sdf", "--db", "lib.h5", "--out", "hits.sdf"]``).
        client: a connected :class:`dask.distributed.Client`.
        part_size: molecules per part (task), at least 1.
        progress: None, or ``progress(parts_done, parts)`` called on the calling thread as
            parts arrive.

    Returns:
        The exit status of ``hermite overlay``: 0 when everything was read and processed, 1
        when a record or file was skipped, 2 for a mistake on the command line, 3 when the
        query cannot be read, an output cannot be written or the cluster failed, 130 when
        interrupted (KeyboardInterrupt; no output written). Messages, the ranked table and the
        progress go to standard error and standard output as the tool writes them.
    """
    if isinstance(part_size, bool) or not isinstance(part_size, int) or part_size < 1:
        raise ValueError(f"part_size must be an integer of at least 1, got {part_size!r}")
    if isinstance(arguments, (str, bytes)):
        raise TypeError("arguments must be a sequence of strings, not one string")
    arguments = [str(argument) for argument in arguments]
    directory = os.getcwd()
    run = uuid.uuid4().hex

    def distribute(parts: list) -> Iterator[tuple[int, bytes]]:
        from distributed import as_completed

        futures = [
            client.submit(screen_part, arguments, slices, directory, key=f"hermite-part-{run}-{index}",
                          pure=False)
            for index, slices in enumerate(parts)
        ]
        index_of = {future.key: index for index, future in enumerate(futures)}
        done = 0
        try:
            for future in as_completed(futures):
                encoded = zlib.decompress(future.result())
                future.release()
                done += 1
                if progress is not None:
                    progress(done, len(parts))
                yield index_of[future.key], encoded
        finally:
            client.cancel(futures)

    return _hermite._run_overlay(arguments, distribute, part_size, PROGRAM)
