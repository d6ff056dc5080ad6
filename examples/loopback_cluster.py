"""A Dask scheduler and its workers as on many machines, each a process of its own, on 127.0.0.1."""

from __future__ import annotations

import os
import shutil
import signal
import subprocess
import tempfile
from types import TracebackType
from typing import Any

from distributed import Client

LONGEST = 900  # seconds that any process lives
QUIET = {"DASK_LOGGING__DISTRIBUTED": "error", "PYTHONWARNINGS": "ignore::FutureWarning"}


class LoopbackCluster:
    """A scheduler with `workers` workers of one thread each, and `client`, which is connected to it. The processes end
    with the `with` statement, with this process however it ends, and after LONGEST seconds at the latest."""

    client: Any

    def __init__(self, workers: int) -> None:
        self._home = tempfile.mkdtemp(prefix="orva-cluster-")
        self._where = os.path.join(self._home, "scheduler.json")
        self._processes: list[subprocess.Popen[bytes]] = []
        try:
            self._start("dask-scheduler", "--port", "0", "--dashboard-address", "127.0.0.1:0")
            self.client = Client(scheduler_file=self._where, timeout=60)
            self.add_workers(workers)
        except BaseException:
            self.close()
            raise

    def _start(self, program: str, *options: str) -> None:
        # setpriv ends the process with this one, timeout after LONGEST seconds in any case.
        bounded = ["setpriv", "--pdeathsig", "TERM", "timeout", "-k", "10", str(LONGEST)]
        command = [*bounded, program, "--host", "127.0.0.1", "--scheduler-file", self._where, *options]
        self._processes.append(subprocess.Popen(command, cwd=self._home, env=os.environ | QUIET))

    def add_workers(self, count: int) -> None:
        wanted = len(self.workers()) + count
        for _ in range(count):
            # Without a nanny, which would restart a killed worker.
            self._start(
                "dask-worker", "--nthreads", "1", "--no-nanny", "--no-dashboard", "--death-timeout", "60",
                "--local-directory", self._home,
            )  # fmt: skip
        self.client.wait_for_workers(wanted, timeout=60)

    def workers(self) -> dict[str, int]:
        """The addresses of the workers, and their process ids."""
        return self.client.run(os.getpid)

    def kill_worker(self) -> None:
        """Kills a worker without warning, as a failing machine would."""
        os.kill(list(self.workers().values())[0], signal.SIGKILL)

    def close(self) -> None:
        if hasattr(self, "client"):
            self.client.close()
        for process in reversed(self._processes):
            process.terminate()  # timeout forwards the signal, and kills ten seconds later
            process.wait()
        shutil.rmtree(self._home, ignore_errors=True)

    def __enter__(self) -> LoopbackCluster:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, value: BaseException | None, traceback: TracebackType | None
    ) -> None:
        self.close()
