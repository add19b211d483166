"""Screening on a Dask cluster: ``hermite overlay`` with its database split into parts.

:func:`overlay` runs ``hermite overlay`` (the same command-line arguments, outputs, messages and
exit status) on a :class:`dask.distributed.Client`. The database is split into parts of about
``part_size`` molecules (runs of records of molecule files, runs of molecules of prepared
libraries; a part may span files). Each part is one Dask task: it runs the native screening
engine on its worker, with ``--threads`` threads of that machine (0, the default, for all its
cores), and returns the rows of its molecules and its own best hits, posed, as a few hundred bytes
per molecule. The client merges the parts in input order into exactly the ranking, hits file and
score table that one ``hermite overlay`` run gives on the same inputs.

The screening itself is the ``hermite`` command-line tool's: the client runs it as the
coordinator of the run (it plans the parts, merges them and writes the outputs), and each worker
process keeps one tool process that screens its parts. The Python module never loads the
chemistry toolkit the tool reads files with, so it shares a process with any RDKit. The tool is
found as ``$HERMITE_CLI``, next to the package (``pip install``), or on ``PATH``.

Requirements: every file (queries and databases) is read under the same path on the client and
on every worker (shared storage); relative paths are taken from the client's working directory,
which must then exist on the workers too. The outputs are written by the client only. Workers need the
``hermite`` package and the same ``hermite`` tool.

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
import signal
import struct
import subprocess
import sys
import threading
import uuid
import zlib
from typing import BinaryIO, Callable, List, Optional, Sequence, Tuple, cast

from ..tool import tool_path

__all__ = ["DEFAULT_PART_SIZE", "overlay", "screen_part"]

#: Molecules per part by default: large enough that the scheduler's cost per task (a few
#: milliseconds) is small against the task, small enough that a cluster gets many parts per
#: worker and a lost worker costs little (see docs/distributed.md).
DEFAULT_PART_SIZE = 2000

#: The name messages start with.
PROGRAM = "hermite.distributed"

# The tool's hidden commands (see cli/cluster_commands.h for the protocol).
_COORDINATOR = "_overlay-coordinator"
_WORKER = "_overlay-worker"
_FRAME_HEADER = struct.Struct("<Q")


def _write_frame(stream: BinaryIO, data: bytes) -> None:
    for chunk in (_FRAME_HEADER.pack(len(data)), data):
        view = memoryview(chunk)
        while view:  # an unbuffered stream may take part of a chunk at a time
            written = stream.write(view)
            view = view[written if written is not None else len(view):]


def _read_exactly(stream: BinaryIO, size: int) -> Optional[bytes]:
    chunks = []
    while size > 0:
        chunk = stream.read(size)
        if not chunk:
            return None
        chunks.append(chunk)
        size -= len(chunk)
    return b"".join(chunks)


def _read_frame(stream: BinaryIO) -> Optional[bytes]:
    """The next frame, or None at the end of the stream."""
    header = _read_exactly(stream, _FRAME_HEADER.size)
    if header is None:
        return None
    (size,) = _FRAME_HEADER.unpack(header)
    data = _read_exactly(stream, size)
    if data is None:
        raise RuntimeError("the hermite tool's output ended inside a frame")
    return data


class _Worker:
    """The tool process that screens the parts of this Python process, one at a time (parts use
    every thread they ask for anyway); started on first use, again if it died."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._process: Optional[subprocess.Popen] = None

    def screen(self, arguments: List[str], slices: bytes, directory: str) -> Tuple[str, bytes]:
        with self._lock:
            for attempt in range(2):
                process = self._running()
                requests = cast(BinaryIO, process.stdin)
                replies = cast(BinaryIO, process.stdout)
                try:
                    _write_frame(requests, directory.encode())
                    _write_frame(requests, slices)
                    _write_frame(requests, "\0".join(arguments).encode())
                    requests.flush()
                    status = _read_frame(replies)
                    payload = _read_frame(replies) if status is not None else None
                except (BrokenPipeError, OSError):
                    status = payload = None
                if status is not None and payload is not None:
                    return status.decode(), payload
                self._stop()
            raise RuntimeError("the hermite tool screening this part ended unexpectedly")

    def _running(self) -> subprocess.Popen:
        if self._process is None or self._process.poll() is not None:
            self._process = subprocess.Popen([tool_path(), _WORKER], stdin=subprocess.PIPE,
                                             stdout=subprocess.PIPE)
        return self._process

    def _stop(self) -> None:
        if self._process is not None:
            self._process.kill()
            self._process.wait()
            self._process = None


_worker = _Worker()

# The coordinators running in this process, so that a signal handler can stop them even when
# the KeyboardInterrupt it raises is lost (Python ignores exceptions raised while it runs a
# garbage-collector callback or a finaliser).
_coordinators: "set[subprocess.Popen]" = set()


def stop_coordinators() -> None:
    """Asks every coordinator of this process to stop (as Ctrl-C does): it stops at the next
    part it receives or at the end of its input, and writes nothing."""
    for coordinator in list(_coordinators):
        coordinator.send_signal(signal.SIGINT)


def screen_part(arguments: Sequence[str], slices: bytes, directory: str = "") -> bytes:
    """Screens one part of the database of ``hermite overlay <arguments>`` on this machine.

    The task function of :func:`overlay`: ``slices`` are the part's runs of molecules as the
    coordinator encoded them. Relative paths are taken from ``directory`` (the client's working
    directory) when it exists on this machine. Returns the part, encoded and compressed (zlib),
    for the merge. Raises ``RuntimeError`` (or ``ValueError`` for a bad command line) when the
    part cannot run at all.
    """
    status, payload = _worker.screen([str(a) for a in arguments], bytes(slices), str(directory))
    if status == "usage":
        raise ValueError(payload.decode(errors="replace"))
    if status != "ok":
        raise RuntimeError(payload.decode(errors="replace"))
    # Level 1: the posed hits' molfiles and the rows' file names shrink several times over for
    # about a millisecond per megabyte.
    return zlib.compress(payload, 1)


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
    parts_in, parts_out = os.pipe()  # coordinator -> client: the parts to screen
    done_in, done_out = os.pipe()  # client -> coordinator: the screened parts
    command = [tool_path(), _COORDINATOR, str(done_in), str(parts_out), str(part_size), PROGRAM,
               *arguments]
    try:
        coordinator = subprocess.Popen(command, pass_fds=(done_in, parts_out))
    finally:
        os.close(done_in)
        os.close(parts_out)
    _coordinators.add(coordinator)
    # Unbuffered: a coordinator that stopped makes the write of a part fail where it is handled,
    # never the closing of the pipe.
    with os.fdopen(parts_in, "rb") as parts, os.fdopen(done_out, "wb", buffering=0) as done:
        try:
            _screen_parts(arguments, client, parts, done, progress)
        except KeyboardInterrupt:
            # The coordinator stops on the signal and sees the end of its input; the parts
            # it may still be writing must not block it.
            coordinator.send_signal(signal.SIGINT)
            done.close()
            parts.close()
            coordinator.wait()
            raise
        except BrokenPipeError:
            pass  # the coordinator stopped; its status tells why
        finally:
            _coordinators.discard(coordinator)
    return coordinator.wait()


def _screen_parts(arguments: List[str], client, parts: BinaryIO, done: BinaryIO,
                  progress: Optional[Callable[[int, int], None]]) -> None:
    """Submits the coordinator's parts to the cluster and hands the screened parts back as they
    arrive. Returns at once when the coordinator sends no parts (help, a usage error)."""
    count = _read_frame(parts)
    if count is None:
        return
    slices = [_read_frame(parts) for _ in range(int(count))]
    if any(part is None for part in slices):
        return
    from distributed import as_completed

    directory = os.getcwd()
    run = uuid.uuid4().hex
    futures = [client.submit(screen_part, arguments, part, directory,
                             key=f"hermite-part-{run}-{index}", pure=False)
               for index, part in enumerate(slices)]
    index_of = {future.key: index for index, future in enumerate(futures)}
    try:
        for finished, future in enumerate(as_completed(futures), start=1):
            encoded = zlib.decompress(future.result())
            future.release()
            _write_frame(done, str(index_of[future.key]).encode())
            _write_frame(done, encoded)
            if progress is not None:
                progress(finished, len(slices))
    except BrokenPipeError:
        raise
    except Exception as error:
        # A part that failed as a whole: the coordinator, whose input ends here, stops the run.
        sys.stderr.write(f"{PROGRAM} overlay: the cluster failed: {error}\n")
    finally:
        client.cancel(futures)
