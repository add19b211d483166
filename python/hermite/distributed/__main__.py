"""``python3 -m hermite.distributed overlay --scheduler ADDRESS [options of hermite overlay]``."""

from __future__ import annotations

import signal
import subprocess
import sys
from typing import List, Optional, Tuple

from . import DEFAULT_PART_SIZE, PROGRAM, overlay, stop_coordinators
from ..tool import tool_path

USAGE = f"""Usage: python3 -m {PROGRAM} overlay --scheduler ADDRESS [--part-size N] [options]

Runs 'hermite overlay' with its database screened on a Dask cluster: every option of 'hermite
overlay' (below) means what it means there, and the outputs are the files a single-machine run
writes. Files are read under the same paths on this machine and on every worker.

Options of the cluster:
  --scheduler ADDRESS     The Dask scheduler: tcp://HOST:PORT (or any address a
                          dask.distributed.Client takes), or local:N to start a cluster of N
                          worker processes of one thread on this machine for the run. Required.
  --part-size N           Molecules per task, at least 1; default {DEFAULT_PART_SIZE}.

Each task runs with --threads threads of its worker's machine (0, the default: all its cores);
run one Dask worker thread per machine (dask worker --nthreads 1) and let --threads use the
cores, or N single-threaded workers with --threads 1.

"""


class UsageError(Exception):
    pass


def take_option(arguments: List[str], name: str) -> Tuple[Optional[str], List[str]]:
    """The value of ``name`` ("--name VALUE" or "--name=VALUE") and the other arguments."""
    value = None
    rest: List[str] = []
    i = 0
    while i < len(arguments):
        argument = arguments[i]
        if argument == name:
            if i + 1 >= len(arguments) or arguments[i + 1].startswith("--"):
                raise UsageError(f"{name} needs a value")
            if value is not None:
                raise UsageError(f"{name} given twice")
            value = arguments[i + 1]
            i += 2
            continue
        if argument.startswith(name + "="):
            if value is not None:
                raise UsageError(f"{name} given twice")
            value = argument[len(name) + 1 :]
        else:
            rest.append(argument)
        i += 1
    return value, rest


def part_size_from(text: Optional[str]) -> int:
    if text is None:
        return DEFAULT_PART_SIZE
    try:
        value = int(text)
    except ValueError:
        value = 0
    if value < 1:
        raise UsageError(f"--part-size must be an integer of at least 1, got {text}")
    return value


def connect(address: str):
    """A client of the scheduler at ``address``, and the local cluster started for it (or None)."""
    from distributed import Client, LocalCluster

    if address.startswith("local:"):
        try:
            workers = int(address[len("local:") :])
        except ValueError:
            workers = 0
        if workers < 1:
            raise UsageError(f"--scheduler local:N needs a number of workers N >= 1, got {address}")
        cluster = LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                               host="127.0.0.1", dashboard_address=None)
        return Client(cluster), cluster
    return Client(address, timeout="30s"), None


def stop_on_signals() -> None:
    """SIGTERM and SIGHUP stop the run as Ctrl-C does (no output is written)."""

    def interrupt(signum, frame):
        stop_coordinators()
        raise KeyboardInterrupt

    for name in ("SIGTERM", "SIGHUP"):
        if hasattr(signal, name):
            signal.signal(getattr(signal, name), interrupt)


def main(argv: Optional[List[str]] = None) -> int:
    arguments = list(sys.argv[1:] if argv is None else argv)
    prefix = f"{PROGRAM} overlay: "
    if not arguments or arguments[0] in ("-h", "--help"):
        (sys.stdout if arguments else sys.stderr).write(USAGE)
        return 0 if arguments else 2
    if arguments[0] != "overlay":
        sys.stderr.write(f"{PROGRAM}: unknown command {arguments[0]} (the command is overlay)\n")
        return 2
    rest = arguments[1:]
    if "--help" in rest or "-h" in rest:
        try:
            help_text = subprocess.run([tool_path(), "overlay", "--help"], capture_output=True,
                                       text=True, check=True).stdout
        except (RuntimeError, OSError, subprocess.CalledProcessError) as error:
            sys.stderr.write(f"{prefix}{error}\n")
            return 3
        sys.stdout.write(USAGE + "Options of hermite overlay:\n\n" + help_text)
        return 0
    try:
        address, rest = take_option(rest, "--scheduler")
        part_text, rest = take_option(rest, "--part-size")
        part_size = part_size_from(part_text)
        if address is None:
            raise UsageError("--scheduler is required (tcp://HOST:PORT or local:N)")
    except UsageError as error:
        sys.stderr.write(f"{prefix}{error}\n")
        return 2
    stop_on_signals()
    cluster = None
    client = None
    try:
        try:
            client, cluster = connect(address)
        except OSError as error:
            sys.stderr.write(f"{prefix}cannot reach the scheduler {address}: {error}\n")
            return 3
        return overlay(rest, client, part_size=part_size)
    except UsageError as error:
        sys.stderr.write(f"{prefix}{error}\n")
        return 2
    except KeyboardInterrupt:
        sys.stderr.write(f"{prefix}interrupted; no output written\n")
        return 130
    except (RuntimeError, OSError) as error:
        sys.stderr.write(f"{prefix}{error}\n")
        return 3
    finally:
        if client is not None:
            client.close()
        if cluster is not None:
            cluster.close()


if __name__ == "__main__":
    sys.exit(main())
