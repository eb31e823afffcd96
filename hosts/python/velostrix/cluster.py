"""Many parts on a Dask cluster, by the command line on its workers."""
import csv
import io
import itertools
import os
import pathlib
import shutil
import subprocess
from typing import TYPE_CHECKING, Dict, List, Optional, Sequence, Union

from .parameters import Parameters, integer

if TYPE_CHECKING:
    from distributed import Client

Path = Union[str, "os.PathLike[str]"]


def _call(arguments: Sequence[str]) -> "subprocess.CompletedProcess[str]":
    # When a worker is killed, its process must end as well: another worker has its parts by then.
    setpriv = shutil.which("setpriv")
    prefix = [setpriv, "--pdeathsig", "KILL"] if setpriv else []
    return subprocess.run([*prefix, *arguments], capture_output=True, text=True, errors="replace")


def _run_shard(arguments: Sequence[str], table: str) -> str:
    """The text of the shard's table."""
    pathlib.Path(table).unlink(missing_ok=True)
    process = _call(arguments)
    if process.returncode not in (0, 1) or not os.path.exists(table):
        raise RuntimeError(process.stderr.strip() or f"velostrix ended with {process.returncode}")
    return pathlib.Path(table).read_text()


def batch(
    manifest: Path,
    recipe: Union[Path, Parameters],
    out: Path,
    client: Optional["Client"] = None,
    *,
    parts_per_task: int = 16,
    retries: int = 2,
    options: Sequence[str] = (),
    program: str = "velostrix",
) -> List[Dict[str, str]]:
    """Runs the parts of a manifest on a Dask cluster; returns the table, a row for each part.

    manifest, recipe, out: as for ``velostrix batch``; the workers use these paths on a shared file
        system. The recipe, a file or parameters, must have all gains.
    client: a ``distributed.Client``; without one, a cluster of this machine's cores is used.
    parts_per_task: a task is a shard of the manifest. When a worker is lost, another one repeats its
        task and skips finished parts.
    retries: how often the cluster repeats a task that fails.
    options: other options of ``velostrix batch``, such as ``["--mask", "/data/mask.png"]``, with paths
        on the workers.
    program: the command line, on the workers and here.

    Writes the same files as ``velostrix batch``, including results.csv. A part that cannot be run has
    the status "failed" in the table. Raises ValueError with all problems of the manifest before the
    first part is run, RuntimeError when a task fails more often than it is repeated.
    """
    import distributed

    out = os.path.abspath(out)
    if isinstance(recipe, Parameters):
        os.makedirs(out, exist_ok=True)
        file = os.path.join(out, "recipe.json")
        recipe.save(file)
        recipe = file
    command = [program, "batch", os.path.abspath(manifest), "--recipe", os.path.abspath(recipe),
               "--out", out, "--quiet", *options]
    check = _call([*command, "--check"])
    if check.returncode != 0:
        raise ValueError(check.stderr.strip())
    parts = check.stdout.count("\n")
    count = -(-parts // integer("parts_per_task", parts_per_task))

    if client is None:
        with distributed.Client(threads_per_worker=1, dashboard_address=None) as local:
            return _run(local, command, out, count, retries)
    return _run(client, command, out, count, retries)


def _run(
    client: "Client", command: Sequence[str], out: str, count: int, retries: int
) -> List[Dict[str, str]]:
    tables = [os.path.join(out, f"results-{k}-of-{count}.csv" if count > 1 else "results.csv")
              for k in range(1, count + 1)]
    futures = [
        client.submit(_run_shard, [*command, "--workers", "1", "--shard", f"{k}/{count}"], table,
                      retries=retries, pure=False)
        for k, table in enumerate(tables, 1)]
    shards = [list(csv.reader(io.StringIO(text))) for text in client.gather(futures)]
    header = shards[0][0]
    # Shard k has every count-th part, from the k-th on.
    turns = itertools.zip_longest(*(shard[1:] for shard in shards))
    rows = [row for turn in turns for row in turn if row is not None]

    whole = os.path.join(out, "results.csv")
    with open(f"{whole}.part", "w", newline="") as file:
        csv.writer(file, lineterminator="\n").writerows([header, *rows])
    os.replace(f"{whole}.part", whole)
    for table in tables:
        if table != whole:
            os.remove(table)
    return [dict(zip(header, row)) for row in rows]
