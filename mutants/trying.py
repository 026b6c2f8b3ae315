"""Tries a mutant: builds it, compares its objects with the original's, and runs tests until one fails.

    bench = Workbench(root, builds, includers, limits)
    result = bench.attempt(mutant)

A workbench is a copy of the sources and a place for what is built of them, below build/. It belongs to one process: a
lock says so, and goes with the process however that ends. What lies there afterwards is overwritten by the next.
"""

import dataclasses
import fcntl
import os
import re
import resource
import shutil
import signal
import subprocess
import time

from building import Refused

FOLDERS = ("src", "bsp", "platform")
CLEAN = "src/main.cpp"  # what is compiled where there is no mutant: any source will do


@dataclasses.dataclass(frozen=True)
class Result:
    verdict: str  # killed, survived, equal, refused
    stage: str = ""
    by: str = ""


@dataclasses.dataclass(frozen=True)
class Stage:
    name: str
    needs: tuple  # the builds that a mutant's test program and images come from
    program: str  # the build of the test program
    tests: str  # a filter


# What kills most is asked first: the tables of the module itself, natively.
OWN = (
    ("src/driver/nand", "*/NandDriver.*/host"),
    ("src/driver/gpio", "*/PinSetup.*/host:*/NandDriver.*/host"),
    ("src/NandFlash", "*/NandDriver.*/host"),
    ("src/SDFlash", "*/DataflashDriver.*/host"),
    ("src/Spi", "*/DataflashDriver.*/host"),
    ("src/I2c", "*/UiLink.*/host"),
    ("src/LCD", "*/Lcd.*/host"),
    ("src/PrjDsc", "*/Descriptor.*/host"),
    ("src/Sums", "*/Sums.*/host:*/Images.*/host"),
    ("src/Validate", "*/Images.*/host"),
    ("src/StoredImage", "*/Images.*/host"),
    ("src/Xml", "Xml.*"),
    ("src/", "*/Records.*/host"),
    ("bsp/at91sam9263_sw_i2c_eeprom", "*/ParameterStore.*/host"),
    ("bsp/at91sam9263_sw_i2c", "*/TwoWireBus.*/host:*/ParameterStore.*/host"),
    ("bsp/ol_at91sam926x_lcd", "*/Lcd.*/host"),
    ("bsp/", "*/DataflashDriver.*/host"),
)
PLATFORM = "PlatformTest.*:LcdMemory.*:*/ParameterStore.BoardStartUp*/arm"
# The long tables of three modules are asked by these alone at first; boots that only a limit ends take seconds.
LONG = "*/DataflashDriver.*/host:*/ParameterStore.*/host:Xml.*:*/Boots.*/host"
SHORT = "*/host-" + LONG
ARM = "*/arm:PlatformTest.*:LcdMemory.*"
# Sweeps, closures, predictions, fuzz corpora and figures of speed: whole boots by the hundred. The other tests are of
# the bench, which a mutant is no part of.
REST = ("Sweep.*:Closure.*:BankCheck.*:AllPlanted.CasesPass*:*FuzzCorpus*:Timeline.*:Speed.*:Board.*:"
        "Doctor.*:Debugger.*:Vcd.*:TraceTest.*:" + LONG)  # fmt: skip


def stages_for(file, depth):
    """What finds most in least time comes first. `depth` says how far to go: fast, whole, sanitized."""
    if file.startswith("platform/"):
        yield Stage("own table", ("arm",), "native", PLATFORM)
        yield Stage("short tables", ("native",), "native", SHORT)
    else:
        own = next(tests for start, tests in OWN if file.startswith(start))
        yield Stage("own table", ("native",), "native", own)
        yield Stage("short tables", ("native",), "native", SHORT)
        yield Stage("own table on the ARM image", ("arm",), "native", own.replace("/host", "/arm"))
    if depth != "fast" or file.startswith("platform/at91sam9263/"):
        yield Stage("all tables on the ARM image", ("arm",), "native", ARM)
    if depth != "fast":
        # Some of these compare the processors: only with the mutant in both do they say what `make test` would.
        yield Stage("sweeps and the rest", ("native", "arm"), "native", REST)
    if depth == "sanitized":
        yield Stage("all tables under sanitizers", ("sanitized",), "sanitized", "*/host:Xml.*-*/Boots.*")


class Workbench:
    def __init__(self, root, builds, includers):
        self.root, self.builds, self.includers = root, builds, includers
        self.place = self.claimed()
        self.tree = os.path.join(self.place, "tree")
        shutil.rmtree(self.tree, ignore_errors=True)
        for folder in FOLDERS:
            shutil.copytree(os.path.join(root, folder), os.path.join(self.tree, folder))
        self.originals = {}  # by build and object: its bytes
        self.mutant = None
        self.built = {}  # by build: whether the mutant's objects differ from the original's
        for name, made in (("run", None), ("tmp", None), ("fixture", "mutants/fixture")):
            self.renew(name, made and os.path.join(root, "build", made))
        self.lay_out_images()

    def claimed(self):
        number = 1
        while True:
            # Directly below build/: a test program finds the tree by its own place.
            place = os.path.join(self.root, "build", f"mutants-{number}")
            os.makedirs(place, exist_ok=True)
            self.lock = open(os.path.join(place, "lock"), "w", encoding="utf-8")
            try:
                fcntl.flock(self.lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                return place
            except BlockingIOError:
                self.lock.close()
                number += 1

    def close(self):
        self.lock.close()

    def renew(self, name, target=None):
        path = os.path.join(self.place, name)
        if os.path.islink(path) or os.path.isfile(path):
            os.remove(path)
        shutil.rmtree(path, ignore_errors=True)
        if target:
            os.symlink(target, path)
        else:
            os.makedirs(path)
        return path

    def lay_out_images(self):
        """A directory of firmware as tests know it, but with this place's builds for tests."""
        images = self.renew("images")
        arm = os.path.join(self.root, "build/arm")
        for name in os.listdir(arm):
            if name != "fixed":
                os.symlink(os.path.join(arm, name), os.path.join(images, name))
        os.symlink(os.path.join(self.place, "arm-fixed"), os.path.join(images, "fixed"))

    # --- building

    def write(self, file, text):
        with open(os.path.join(self.tree, file), "w", encoding="utf-8") as out:
            out.write(text)

    def put(self, mutant):
        """From now on this is what is built and tried. None: the sources as they are."""
        if self.mutant:
            shutil.copyfile(os.path.join(self.root, self.mutant.file), os.path.join(self.tree, self.mutant.file))
        self.mutant, self.built = mutant, {}
        if mutant:
            with open(os.path.join(self.root, mutant.file), encoding="utf-8") as file:
                self.write(mutant.file, mutant.applied(file.read()))

    def originals_of(self, build, source):
        """Compiled in the same place under the same name, before the mutant: all else would make other bytes."""
        if (build.name, source) not in self.originals:
            mutant = self.mutant
            self.put(None)
            names = build.compile(source, self.tree, self.place)
            self.originals[build.name, source] = [build.stripped(self.place, name) for name in names]
            self.put(mutant)
        return self.originals[build.name, source]

    def differs(self, name):
        """Builds the mutant if that is not done. False: this build is the same with it and without."""
        if name not in self.built:
            build, built = self.builds[name], self.built
            sources = self.includers[self.mutant.file] if self.mutant else [CLEAN]
            originals = sum((self.originals_of(build, source) for source in sources), [])
            objects = sum((build.compile(source, self.tree, self.place) for source in sources), [])
            same = originals == [build.stripped(self.place, made) for made in objects]
            # Sanitizers tell lines and columns, so their objects differ where nothing else does.
            differs = not same or name == "sanitized" or not self.mutant
            if differs:
                self.link(build, objects)
            self.built = built | {name: differs}
        return self.built[name]

    def link(self, build, objects):
        try:
            build.link(self.place, objects)
        except Refused:
            try:
                build.link(self.place, [])
            except Refused as refused:
                raise RuntimeError(f"build/{build.name} is not up to date: {refused}") from refused
            raise

    # --- trying

    def attempt(self, mutant, limits, depth="whole"):
        self.put(mutant)
        try:
            for stage in stages_for(mutant.file, depth):
                if stage.program == "sanitized" and not self.built.get("native"):
                    continue
                limit = limits.of(stage)
                if any([self.differs(name) for name in stage.needs]):
                    killer = self.killer(stage, limit)
                    if killer:
                        return Result("killed", stage.name, killer)
        except Refused as refused:
            return Result("refused", "", str(refused))
        return Result("survived" if any(self.built.values()) else "equal")

    def program(self, stage):
        build = self.builds[stage.program]
        mutated = stage.program in stage.needs and self.built.get(stage.program)
        return build.placed(self.place, "fixture-tests") if mutated else os.path.join(build.directory, "fixture-tests")

    def killer(self, stage, limit):
        """The test that fails, with how it ends if it does not end by itself; None: none does. `limit` in seconds."""
        environment = dict(os.environ, TMPDIR=self.renew("tmp"), ASAN_OPTIONS="hard_rss_limit_mb=4096")
        if "arm" in stage.needs and self.built.get("arm"):
            environment["FIXTURE_DATA"] = os.path.join(self.place, "images")
        command = [self.program(stage), "--gtest_filter=" + stage.tests, "--gtest_fail_fast", "--gtest_color=no"]
        with open(os.path.join(self.place, "log"), "w+b") as log:
            process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log, env=environment,
                                       cwd=self.renew("run"), start_new_session=True,
                                       preexec_fn=lambda: bound(limit, stage.program != "sanitized"))  # fmt: skip
            try:
                # Processor time is what counts; the clock is for tests that wait for what never comes.
                status = process.wait(4 * limit + 20)
            except subprocess.TimeoutExpired:
                status = -signal.SIGXCPU
            finally:
                end(process)
            log.seek(0)
            return None if status == 0 else told(log.read(1 << 26).decode(errors="replace"), status)


def bound(seconds, memory):
    resource.setrlimit(resource.RLIMIT_CPU, (seconds, seconds + 2))
    resource.setrlimit(resource.RLIMIT_FSIZE, (4 << 30, 4 << 30))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    if memory:
        resource.setrlimit(resource.RLIMIT_AS, (8 << 30, 8 << 30))


def end(process):
    """With all that it started."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def told(log, status):
    failed = re.findall(r"^\[  FAILED  \] ([^\s,]+)", log, re.MULTILINE)
    running = re.findall(r"^\[ RUN      \] (\S+)", log, re.MULTILINE)
    if failed:
        return failed[0]
    ending = {signal.SIGXCPU: "time", signal.SIGKILL: "time"}.get(-status, "crash")
    return f"{running[-1] if running else 'start'} ({ending})"


class Limits:
    """How long a stage may take. Each is run once without a mutant, from a workbench of its own; it has to pass."""

    def __init__(self, make_bench, lock):
        self.make_bench, self.lock = make_bench, lock
        self.bench = None
        self.seconds = {}

    def of(self, stage):
        with self.lock:
            if stage not in self.seconds:
                self.bench = self.bench or self.make_bench()
                try:
                    for name in stage.needs:
                        self.bench.differs(name)
                except Refused as refused:
                    raise RuntimeError(f"{stage.name}: without a mutant: {refused}") from refused
                started = time.monotonic()
                killer = self.bench.killer(stage, 1000)
                if killer:
                    raise RuntimeError(f"{stage.name}: {killer} fails without a mutant")
                self.seconds[stage] = int(3 * (time.monotonic() - started)) + 3
            return self.seconds[stage]

    def close(self):
        if self.bench:
            self.bench.close()
