"""Installs the packages of a folder into a scratch root and uses them: python3 check_packages.py FOLDER

With --build FOLDER, makes them of that build folder first.

The root knows of nothing but the C and C++ libraries of this machine, so a dependency that the packages lack or have too
much of is found by dpkg. No network, and no privileges beyond fakeroot's.
"""

import argparse
import os
import shutil
import subprocess
import sys
import tarfile
import tempfile
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "tools"))

from korprocess import PATIENCE, ProcessError, Processes, Reports

BASE = ("libc6", "libgcc-s1", "libstdc++6")
PACKAGES = ("libkor1", "libkor-dev", "kor-tools", "kor-doc")
# The packages are not meant for Debian's archive, whose first upload closes a bug; and a build folder that is not
# configured for /usr has no library folder per architecture.
SUPPRESSED = "initial-upload-closes-no-bugs,pkg-config-unavailable-for-cross-compilation"


class Failure(Exception):
    pass


def check(condition, text):
    if not condition:
        raise Failure(text)


def run(*command, fails=False, **options):
    """Output of a command that must succeed (or, with `fails`, must not)."""
    result = subprocess.run(
        [str(part) for part in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options
    )
    if (result.returncode != 0) != fails:
        raise Failure(f"{' '.join(map(str, command))}: exit status {result.returncode}\n{result.stdout}")
    return result.stdout


def check_lintian(packages):
    if not shutil.which("lintian"):
        print("lintian is not installed: not asked")
        return
    command = ["lintian", "--fail-on", "error", "--suppress-tags", SUPPRESSED]
    if os.geteuid() == 0:
        command.append("--allow-root")
    print(run(*command, *packages.values()).strip() or "lintian: nothing found")


class Root:
    """A scratch root with a package database of its own."""

    def __init__(self, folder):
        self.folder = folder
        database = folder / "var/lib/dpkg"
        for name in ("info", "updates", "triggers"):
            (database / name).mkdir(parents=True)
        form = (
            "Package: ${Package}\nStatus: install ok installed\nPriority: optional\nSection: libs\n"
            "Maintainer: nobody\nArchitecture: ${Architecture}\nMulti-Arch: same\nVersion: ${Version}\n"
            "Description: of this machine\n\n"
        )
        (database / "status").write_text(run("dpkg-query", "-W", f"-f={form}", *BASE))
        architecture = run("dpkg", "--print-architecture").strip()
        for package in BASE:
            for kind in ("list", "md5sums"):
                (database / "info" / f"{package}:{architecture}.{kind}").touch()

    def dpkg(self, *arguments, fails=False):
        command = [] if os.geteuid() == 0 else ["fakeroot"]
        environment = {**os.environ, "PATH": os.environ["PATH"] + ":/usr/sbin:/sbin", "LC_ALL": "C"}
        return run(
            *command, "dpkg", f"--root={self.folder}", "--force-not-root", *arguments, fails=fails, env=environment
        )

    def find(self, pattern):
        found = sorted((self.folder / "usr").rglob(pattern))
        check(found, f"no package holds {pattern}")
        return found[0]


def check_install(root, packages):
    refusal = root.dpkg("-i", packages["libkor-dev"], fails=True)
    check("libkor1 (= " in refusal, f"libkor-dev without libkor1 is not refused for the version:\n{refusal}")
    root.dpkg("--purge", "libkor-dev")
    root.dpkg("-i", *packages.values())
    broken = root.dpkg("--audit").strip()
    check(not broken, broken)
    for name in ("libkor.so.1", "kor.h", "kor.pc", "korConfig.cmake", "guide.md", "index.html", "classkor_1_1KorClient.html"):
        root.find(name)
    print(f"installed: {', '.join(packages)}")


def check_removal(root):
    root.dpkg("--purge", *reversed(PACKAGES))
    left = [path for path in root.folder.rglob("*") if not path.is_dir() and "var" not in path.parts]
    check(not left, f"left behind: {left}")
    print("removed without a trace")


def check_cmake(root, scratch, compiler):
    build = scratch / "consumer"
    run("cmake", "-S", SOURCE / "tests/consumer", "-B", build, f"-DCMAKE_PREFIX_PATH={root.folder}/usr",
        f"-DCMAKE_CXX_COMPILER={compiler}", "-DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF",
        "-DCMAKE_FIND_USE_CMAKE_SYSTEM_PATH=OFF")  # fmt: skip
    run("cmake", "--build", build)
    found = run("ldd", build / "consumer")
    check(str(root.folder) in found, f"the consumer is not linked with the library of the packages:\n{found}")
    print("with CMake:", run(build / "consumer", timeout=PATIENCE).strip())


def check_pkg_config(root, scratch, compiler):
    environment = {**os.environ, "PKG_CONFIG_LIBDIR": str(root.find("kor.pc").parent)}
    flags = run("pkg-config", "--cflags", "--libs", "kor-trace", env=environment).split()
    examples = root.folder / "usr/share/doc/kor-doc/examples/minimal"
    for source in (SOURCE / "tests/consumer/main.cpp", examples / "master.cpp", examples / "slave.cpp"):
        run(compiler, "-std=c++20", source, *flags, "-o", scratch / source.stem)
    environment = {**os.environ, "LD_LIBRARY_PATH": str(root.find("libkor.so.1").parent)}
    print("with pkg-config:", run(scratch / "main", env=environment, timeout=PATIENCE).strip())


def check_tools(root):
    programs = sorted((root.folder / "usr/bin").iterdir())
    environment = {**os.environ, "LD_LIBRARY_PATH": str(root.find("libkor.so.1").parent)}
    for program in programs:
        run(program, "--help", env=environment, timeout=PATIENCE)
        root.find(f"{program.name}.1.gz")
    with Processes() as processes:
        announce, bind, data = processes.claim_ports(3)
        ports = ["--announce-ports", announce, "--bind-ports", bind, "--data-ports", data]
        slave = Reports()
        for name, arguments, reports in (
            ("kor-master", ports, Reports()),
            ("kor-slave", ["--announce-port", announce], slave),
        ):
            command = [root.folder / "usr/bin" / name, *arguments, "--quiet", "--report", "/dev/fd/{pipe}"]
            processes.start(name, command, pipe=reports, environment=environment)
        processes.wait_until(lambda: slave.status.get("lerp"), "the lock of the installed programs")
    print(f"run: {', '.join(program.name for program in programs)}; the slave locked to the master")


def check_source(archive, scratch, compiler):
    with tarfile.open(archive) as tar:
        names = {member.name for member in tar if not member.isdir()}
        tar.extractall(scratch)
    (top,) = {name.split("/")[0] for name in names}
    if (SOURCE / ".git").exists():
        tracked = run("git", "-C", SOURCE, "-c", "core.quotePath=off", "ls-files").splitlines()
        tracked = {f"{top}/{name}" for name in tracked if (SOURCE / name).exists()}
        check(names == tracked, f"the archive differs from the tracked files in {sorted(names ^ tracked)}")
    run("cmake", "-S", scratch / top, "-B", scratch / "from-archive", f"-DCMAKE_CXX_COMPILER={compiler}")
    print(f"{archive.name}: {len(names)} files, and can be configured")


def make(build, scratch):
    """Folder with the packages of a build folder."""
    for config in ("CPackConfig.cmake", "CPackSourceConfig.cmake"):
        try:
            run("cpack", "--config", build / config, "-B", scratch / "out", cwd=build)
        except (Failure, ProcessError) as failure:
            logs = sorted((scratch / "out").rglob("InstallOutput.log"))
            raise Failure("\n".join([str(failure), *(log.read_text() for log in logs)])) from None
    return scratch / "out"


def check_all(folder, scratch, compiler):
    packages = {}
    for name in PACKAGES:
        found = sorted(folder.glob(f"{name}_*.deb"))
        check(len(found) == 1, f"{folder} has {len(found)} packages {name}")
        packages[name] = found[0].resolve()
    archives = sorted(folder.glob("kor-*.tar.gz"))
    check(len(archives) == 1, f"{folder} has {len(archives)} source archives")
    check_lintian(packages)
    root = Root(scratch / "root")
    check_install(root, packages)
    check_cmake(root, scratch, compiler)
    check_pkg_config(root, scratch, compiler)
    check_tools(root)
    check_removal(root)
    check_source(archives[0], scratch, compiler)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folder", type=Path, nargs="?")
    parser.add_argument("--build", type=Path)
    parser.add_argument("--compiler", default="c++")
    arguments = parser.parse_args()
    if (arguments.folder is None) == (arguments.build is None):
        parser.error("give either a folder of packages or --build")
    try:
        with tempfile.TemporaryDirectory(prefix="kor-packages-") as folder:
            scratch = Path(folder)
            packages = arguments.folder or make(arguments.build.resolve(), scratch)
            check_all(packages, scratch, arguments.compiler)
    except (Failure, ProcessError) as failure:
        print(f"check_packages: {failure}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
