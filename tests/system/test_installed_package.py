"""The libraries as somebody finds them who has the installed package and nothing else of this tree."""
import concurrent.futures
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess

import pytest

from bus_services import Asker, Services
from programs import BIN, CHECKOUT, DEADLINE, wait_until

BUILD = BIN.parent
EXPORTED = {"vocabulary", "threads", "utilities", "crcSoft", "crcFast", "zlibCompression", "chacha20",
            "interface_socket", "interface_framing", "interface_multicast", "interface_tcp", "proto", "proto_bus",
            "bus", "database", "sqlite_server", "logger", "logger_bus", "app"}
INCLUDE = re.compile(r'^\s*#\s*include (".*"|<.*>)', re.MULTILINE)
# Of the sanitizers' programs, and of no others.
KEPT_SETTINGS = "CMAKE_CXX_COMPILER", "CMAKE_CXX_FLAGS", "CMAKE_BUILD_TYPE"
# A sandbox has the same paths each time, so what was compiled in an earlier run is not compiled again.
LAUNCHER = ["ccache"] if shutil.which("ccache") else []


def run(*command, check=True, **options):
    done = subprocess.run([str(part) for part in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          **options)
    assert not check or done.returncode == 0, f"{command}\n{done.stdout}"
    return done.stdout


@pytest.fixture(scope="module")
def prefix(tmp_path_factory):
    """Installed at one place and moved to another, as an archive of it would be."""
    folder = tmp_path_factory.mktemp("package")
    run("cmake", "--install", BUILD, "--component", "development", "--prefix", folder / "installed")
    (folder / "installed").rename(folder / "moved")
    return folder / "moved"


@pytest.fixture(scope="module")
def settings():
    """What a program must be built with to fit the libraries."""
    cache = (BUILD / "CMakeCache.txt").read_text()
    found = dict(re.findall(rf"^({'|'.join(KEPT_SETTINGS)}):\w+=(.*)$", cache, re.MULTILINE))
    return [f"-D{name}={value}" for name, value in found.items()] + [
        f"-DCMAKE_CXX_COMPILER_LAUNCHER={name}" for name in LAUNCHER]


def configure(source, prefix, *options, **run_options):
    return run("cmake", "-G", "Ninja", "-S", source, "-B", source / "build", f"-DCMAKE_PREFIX_PATH={prefix}",
               "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON", *options, **run_options)


def write_project(folder, *lines):
    folder.mkdir()
    (folder / "CMakeLists.txt").write_text("\n".join(
        ["cmake_minimum_required(VERSION 3.25)", "project(user VERSION 1.2.3 LANGUAGES CXX)", *lines, ""]))
    (folder / "main.cpp").write_text("int main() {}\n")
    return folder


def headers(prefix):
    root = prefix / "include/tessaron"
    return root, sorted(path.relative_to(root).as_posix() for path in root.rglob("*.hpp"))


def test_nothing_but_the_package_is_installed(prefix):
    assert sorted(path.name for path in prefix.iterdir()) == ["include", "lib"]
    assert sorted(path.name for path in (prefix / "lib").iterdir()) == ["cmake", "tessaron"]
    libraries = {path.name.removeprefix("lib").removeprefix("tessaron_") for path in (prefix / "lib/tessaron").iterdir()}
    assert libraries == {f"{name}.a" for name in EXPORTED}
    _, names = headers(prefix)
    assert {"app/AppContext.hpp", "bus/LocalClient.hpp", "database/sqlite/DbServer.hpp", "logger/Logger.hpp",
            "generated/app/bus_fields.hpp"} <= set(names)
    daemon_only = "MirelClientApp/", "package/", "mirelserver/", "libraries/tunnel/", "libraries/assets/", "tools/"
    assert not [name for name in names if name.startswith(daemon_only)]


def test_no_installed_cmake_file_knows_where_it_was_built_or_installed(prefix):
    files = [path for path in (prefix / "lib/cmake/tessaron").iterdir()]
    assert len(files) == 6
    for path in files:
        text = path.read_text()
        for place in (CHECKOUT, BUILD, prefix.parent, pathlib.Path.home()):
            assert str(place) not in text, path


def test_every_header_that_an_installed_one_includes_is_installed(prefix):
    root, names = headers(prefix)
    for name in names:
        for included in INCLUDE.findall((root / name).read_text()):
            assert included[0] == "<" or (root / included[1:-1]).is_file(), (name, included)


def is_first_in_its_source(name):
    """Then the build of this tree has compiled it alone."""
    source = CHECKOUT / pathlib.Path(name).with_suffix(".cpp")
    return source.is_file() and INCLUDE.search(source.read_text())[1] == f'"{name}"'


def test_every_header_compiles_alone_with_both_compilers(prefix, tmp_path):
    root, names = headers(prefix)
    alone = [name for name in names if not is_first_in_its_source(name)]
    assert 20 < len(alone) < len(names)

    def complaints(compiler, name):
        source = tmp_path / compiler / pathlib.Path(name).with_suffix(".cpp")
        source.parent.mkdir(parents=True, exist_ok=True)
        source.write_text(f'#include "{name}"\n')
        return run(*LAUNCHER, compiler, "-std=c++20", "-Wall", "-Wextra", f"-I{root}", "-c", source, "-o",
                   source.with_suffix(".o"), check=False, cwd=tmp_path)
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        jobs = {(compiler, name): pool.submit(complaints, compiler, name)
                for compiler in ("g++", "clang++") for name in alone}
    found = {job: done.result() for job, done in jobs.items() if done.result()}
    assert not found


def test_every_library_can_be_linked_alone(prefix, settings, tmp_path):
    user = write_project(
        tmp_path / "user", "find_package(tessaron REQUIRED)",
        "get_property(targets DIRECTORY PROPERTY IMPORTED_TARGETS)", "list(FILTER targets INCLUDE REGEX ^tessaron::)",
        "message(STATUS \"exported ${targets}\")", "foreach(target IN LISTS targets)",
        "  string(REPLACE :: _ program ${target})", "  add_executable(${program} main.cpp)",
        "  target_link_libraries(${program} PRIVATE ${target})", "endforeach()")
    told = configure(user, prefix, *settings)
    exported = re.search("exported (.*)", told)[1].split(";")
    assert set(exported) == {f"tessaron::{name}" for name in EXPORTED}
    run("cmake", "--build", user / "build")
    flags = "".join(entry["command"] for entry in json.loads((user / "build/compile_commands.json").read_text()))
    assert " -W" not in flags and str(CHECKOUT) not in flags


def without(*packages):
    return [f"-DCMAKE_DISABLE_FIND_PACKAGE_{name}=ON" for name in packages]


def test_a_component_asks_for_what_it_stands_on_alone(prefix, settings, tmp_path):
    user = write_project(tmp_path / "logs", "find_package(tessaron REQUIRED COMPONENTS logger)",
                         "add_executable(user main.cpp)", "target_link_libraries(user PRIVATE tessaron::logger)")
    configure(user, prefix, *settings, *without("SQLite3", "CLI11", "nlohmann_json", "ZLIB", "PkgConfig"))
    run("cmake", "--build", user / "build")
    for component, package in (("sqlite_server", "SQLite3"), ("app", "CLI11"), ("bus", "ZLIB"), ("crcFast", "PkgConfig")):
        user = write_project(tmp_path / component, f"find_package(tessaron REQUIRED COMPONENTS {component})")
        assert package in configure(user, prefix, *settings, *without(package), check=False)


def test_a_component_that_is_not_there_is_refused(prefix, settings, tmp_path):
    user = write_project(tmp_path / "user", "find_package(tessaron REQUIRED COMPONENTS app cooking)")
    assert "cooking" in configure(user, prefix, *settings, check=False)
    assert not (user / "build/build.ninja").exists()


def test_the_example_is_built_of_the_package_alone(prefix, settings, tmp_path):
    user = tmp_path / "portwatch"
    shutil.copytree(CHECKOUT / "examples/portwatch", user)
    configure(user, prefix, *settings)
    run("cmake", "--build", user / "build", "-j2")
    read = run("ninja", "-C", user / "build", "-t", "deps") + run("ninja", "-C", user / "build", "-t", "commands")
    assert f"{prefix}/include/tessaron/app/AppContext.hpp" in read and f"{prefix}/lib/tessaron/libtessaron_app.a" in read
    for path in (user / "build").glob("*.*"):
        read += path.read_text(errors="replace") if path.is_file() and path.suffix in (".json", ".ninja", ".txt") else ""
    assert str(CHECKOUT) not in read
    (pathlib.Path("/usr/local/daemon/portwatch/portwatch")).mkdir(parents=True)
    version = run(user / "build/portwatch", "--version").splitlines()[-1]
    assert re.match(r"1\.0\.0-\d{8}\.\d{6}-", version)
    assert re.search(r"^ +Commit: unknown$", run(user / "build/portwatch", "--help"), re.MULTILINE)


def files_shown_in(page):
    """By name: what stands in blocks that have one behind their language."""
    return dict(re.findall(r"^```\w+ (\S+)\n(.*?)^```$", page.read_text(), re.MULTILINE | re.DOTALL))


def test_what_the_guide_shows_is_built_runs_and_is_published(prefix, settings, tmp_path):
    files = files_shown_in(CHECKOUT / "docs/writing-an-application.md")
    assert len(files) == 6
    user = tmp_path / "meter"
    for name, text in files.items():
        path = user / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
    configure(user, prefix, *settings)
    assert "warning" not in run("cmake", "--build", user / "build")
    run("sh", "-e", "publish", cwd=user, env={**os.environ, "PATH": f"{BIN}:{os.environ['PATH']}"})
    assert list((user / "registry/packages/meter/main").glob("1.0.0*"))
    run("sh", "package/install.sh", cwd=user)
    program = subprocess.Popen([user / "package/start.sh"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        with Asker(40000) as asker:
            node = wait_until(lambda: Services(asker, "meter").addresses.get("loads"), "it is on the bus")
            wait_until(lambda: int(asker.ask(node, "meter.count")[0]["count"]) > 0, "it has measured")
    finally:
        program.terminate()
        assert program.wait(DEADLINE) == 128 + signal.SIGTERM
