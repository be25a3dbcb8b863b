#!/usr/bin/env -S python3 -B
"""Checks that `cmake --install` installs exactly the expected files, and that they work there.

Usage: install_test.py CMAKE SOURCE_FOLDER BUILD_FOLDER CXX_COMPILER LIBDIR
"""

import os
import pathlib
import subprocess
import sys
import tempfile

CMAKE, SOURCE, BUILD, CXX, LIBDIR = sys.argv[1:]
SOURCE = pathlib.Path(SOURCE).resolve()
sys.path.append(str(SOURCE / "tests/docs"))

import contents  # noqa: E402
import markdown  # noqa: E402
from checklist import check, check_same, end  # noqa: E402

# Generous: on a busy machine, a stop may wait for a stream that waits for its next attempt.
LONGEST_RUN = 120
EVERYTHING = contents.of_module(LIBDIR) | contents.TOOLS | contents.DEV


def run(*command, **environment):
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                          stderr=subprocess.STDOUT, env={**os.environ, **environment},
                          check=False, timeout=LONGEST_RUN)
    check(f"{' '.join(map(str, command))} ends with 0: {done.stdout}", done.returncode == 0)
    return done.stdout


def install(root, prefix, *component):
    component = ("--component", *component) if component else ()
    run(CMAKE, "--install", BUILD, "--prefix", prefix, *component, DESTDIR=str(root))


def files_in(folder):
    return {str(path.relative_to(folder)) for path in folder.rglob("*") if not path.is_dir()}


def check_components(root):
    for component, expected in {"module": contents.of_module(LIBDIR), "tools": contents.TOOLS,
                                "dev": contents.DEV}.items():
        install(root / component, "/opt/gateway", component)
        check_same(f"component {component}", expected,
                   files_in(root / component / "opt/gateway"))


def check_system(root):
    """Under /usr, the sample goes where the engine looks, and no configuration is touched."""
    configuration = root / "etc/sonalith/grpc-gateway.conf"
    configuration.parent.mkdir(parents=True)
    configuration.write_text("; not to be lost\n")
    install(root, "/usr")
    system = {name if name == contents.SAMPLE else f"usr/{name}" for name in EVERYTHING}
    check_same("files under /usr", system | {"etc/sonalith/grpc-gateway.conf"}, files_in(root))
    check("the configuration is unchanged", configuration.read_text() == "; not to be lost\n")


def check_tools(prefix):
    """The tools work from wherever the files are, even outside the prefix."""
    gatewayctl = prefix / "bin/gatewayctl"
    hosted = run(gatewayctl, "host", prefix / contents.SAMPLE, "--cycles", "1")
    check(f"gatewayctl finds the installed module: {hosted}", "cycles            1" in hosted)
    shown = run(gatewayctl, "demo", "--for", "2", "--no-page", "--set", "out_gain=-6.5")
    check(f"values move: {shown}", "fast out_level -" in shown)
    check(f"a change arrives: {shown}", "SetParams 1 out.gain float -6.5" in shown)
    run(gatewayctl, "check", prefix / contents.SAMPLE)
    for shell, script in (("bash", "bash-completion/completions/gatewayctl"),
                          ("fish", "fish/vendor_completions.d/gatewayctl.fish"),
                          ("zsh", "zsh/vendor-completions/_gatewayctl")):
        check(f"the completion of {shell} is installed",
              (prefix / "share" / script).read_text() == run(gatewayctl, "completion", shell))


def check_consumer(prefix, folder):
    """A module builds against the installed files, with CMake and with pkg-config, and runs."""
    version = run(prefix / "bin/gatewayctl", "--version").split()[1]
    source, built = SOURCE / "tests/package/consumer", folder / "cmake"
    run(CMAKE, "-S", source, "-B", built, f"-DCMAKE_PREFIX_PATH={prefix}",
        f"-DWANTED_VERSION={version}", f"-DCMAKE_CXX_COMPILER={CXX}")
    run(CMAKE, "--build", built)
    flags = run("pkg-config", "--cflags", f"sonalith-host = {version}",
                PKG_CONFIG_PATH=str(prefix / "share/pkgconfig")).split()
    run(CXX, "-shared", "-fPIC", "-o", folder / "by-pkg-config.so", source / "consumer.cpp",
        *flags)
    for module in (built / "consumer.so", folder / "by-pkg-config.so"):
        output = run(prefix / "bin/gatewayctl", "host", prefix / contents.SAMPLE, "--module",
                     module, "--cycles", "1")
        check(f"{module.name} runs: {output}", "consumer stopped" in output)


def check_links(folder):
    for document in markdown.documents(folder):
        for link in markdown.links(document.read_text()):
            path = link.partition("#")[0]
            check(f"{document.name}: {link} is installed", (document.parent / path).exists())


with tempfile.TemporaryDirectory() as temporary:
    temporary = pathlib.Path(temporary).resolve()
    check_components(temporary / "components")
    check_system(temporary / "system")
    install(temporary / "moved", "/opt/gateway")
    moved = temporary / "moved/opt/gateway"
    check_same("files under a prefix", EVERYTHING, files_in(moved))
    check_tools(moved)
    check_consumer(moved, temporary)
    check_links(moved / contents.SHARED)
end()
