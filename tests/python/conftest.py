"""The controllers the Python tests run against: varlok-sim in processes of
their own, each on a partition unique to this test process, stopped by the
pid they were started with. ctest passes the programs and the demo project
through the environment."""

import os
import select
import subprocess
import tempfile
import time

import pytest

SIM = os.environ.get("VARLOK_SIM")
CLI = os.environ.get("VARLOK_CLI")
DEMO = os.environ.get("QORVARLOK_DEMO_XML")


def _sim_help():
    if not SIM:
        return ""
    return subprocess.run([SIM, "--help"], capture_output=True, text=True, check=False).stdout


SIM_HAS_TCP = "--tcp" in _sim_help()


class Sim:
    """One varlok-sim; tcp is its "ADDR:PORT" when it serves TCP."""

    def __init__(self, partition, demo=False, tcp=False):
        self.partition = partition
        self.tcp = None
        self.log = tempfile.TemporaryFile()
        args = [SIM, "--symbols", DEMO, "--partition", partition, "--log-level", "warn"]
        args += ["--demo"] if demo else []
        args += ["--tcp", "0"] if tcp else []
        self.process = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=self.log)
        try:
            self._wait_ready(20.0)
        except BaseException:
            self.stop()
            raise

    def _wait_ready(self, seconds):
        # Read the raw pipe: a buffered readline would take "ready" along with
        # the line before it, and select would then wait for nothing.
        deadline = time.monotonic() + seconds
        fd = self.process.stdout.fileno()
        pending = b""
        while time.monotonic() < deadline:
            ready, _, _ = select.select([fd], [], [], deadline - time.monotonic())
            chunk = os.read(fd, 4096) if ready else b""
            pending += chunk
            while b"\n" in pending:
                line, pending = pending.split(b"\n", 1)
                if line.startswith(b"tcp "):
                    self.tcp = line.split()[1].decode()
                elif line.startswith(b"ready"):
                    return
            if not chunk and self.process.poll() is not None:
                break
        self.log.seek(0)
        raise RuntimeError("varlok-sim did not become ready: " + self.log.read().decode(errors="replace"))

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()  # SIGTERM to the pid we started
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.process.stdout.close()
        self.log.close()
        # The clients' named mutexes outlive every process that used them.
        for name in ("Global_MUTEX_CONNECT", "Global_MUTEX_NOTIFY", "Global_MUTEX_DATASWAP"):
            try:
                os.unlink("/dev/shm/%s.%s" % (self.partition, name))
            except FileNotFoundError:
                pass


def pytest_configure(config):
    config.addinivalue_line("markers", "tcp: needs a varlok-sim that serves TCP")


def pytest_collection_modifyitems(config, items):
    if not SIM_HAS_TCP:
        skip = pytest.mark.skip(reason="this varlok-sim serves no TCP")
        for item in items:
            if "tcp" in item.keywords:
                item.add_marker(skip)


@pytest.fixture(scope="session")
def demo():
    if not (SIM and CLI and DEMO):
        pytest.skip("VARLOK_SIM, VARLOK_CLI and QORVARLOK_DEMO_XML name the programs and the project")
    return DEMO


@pytest.fixture(scope="session")
def sim(demo):
    """The controller of most tests: shared memory on this process's
    partition (which the process stays bound to), with the demo task, and TCP
    where the simulator has it."""
    s = Sim("qv-python-%d" % os.getpid(), demo=True, tcp=SIM_HAS_TCP)
    yield s
    s.stop()


@pytest.fixture(params=["Local", "TCP"])
def plc(sim, request):
    """A controller on the session's varlok-sim, through shared memory and
    through TCP."""
    import qorvarlok

    if request.param == "TCP":
        if not sim.tcp:
            pytest.skip("this varlok-sim serves no TCP")
        controller = qorvarlok.Controller(DEMO, sim.tcp)
    else:
        controller = qorvarlok.Controller(DEMO, partition=sim.partition)
    with controller:
        yield controller


def cli_read(sim, *names):
    """What the C++ command-line tool reads, line by line: an independent reader."""
    result = subprocess.run([CLI, "read", "--symbols", DEMO, "--partition", sim.partition, *names],
                            capture_output=True, check=False)
    assert result.returncode == 0, result.stderr.decode(errors="replace")
    return result.stdout.decode("utf-8").splitlines()
