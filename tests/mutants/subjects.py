"""Which files are mutated, which test programs concern each of them, and what those are made of."""

import re
import subprocess

import operators
from measuring import ROOT

MODULE = "src/module/grpc-gateway"
MODULE_TESTS = "tests/module/grpc-gateway"
WHOLE = ["src", "proto", "tools", "tests/support", MODULE_TESTS]
PROOF = ["tests/proof/CMakeLists.txt", "tests/proof/Proof"]
CONFIGURATION = ["src/host", "src/shquote", "src/ini", "src/standin", f"{MODULE}/ConfigManager",
                 f"{MODULE}/ValueType", f"{MODULE}/HostAccess", f"{MODULE_TESTS}/config",
                 f"{MODULE_TESTS}/ModuleLog", "tests/support"]

ASSERTION = "static_assert"  # instead of a filter of tests: the compiler must refuse the mutant

# Test programs: what they are made of, and in how many processes each runs at a time. Several
# processes help those that speak over the network, since they mostly wait.
PROGRAMS = {
    "shquote_test": (["src/shquote", "tests/shquote"], 1),
    "shquote_allocation_test": (["src/shquote", "tests/shquote"], 1),
    "ini_test": (["src/ini", "tests/ini"], 1),
    "config_test": (CONFIGURATION, 1),
    "config_allocation_test": (CONFIGURATION, 1),
    "slots_test": ([*CONFIGURATION, f"{MODULE}/GatewaySlots", f"{MODULE_TESTS}/slots"], 1),
    "proto_test": (["proto", "tests/proto"], 1),
    "meter_list_copy_test": ([f"{MODULE}/MeterListCopy", f"{MODULE}/EngineListCopy",
                              f"{MODULE}/KeyTags", f"{MODULE}/TextBlock",
                              f"{MODULE}/ConfigManager.h",
                              f"{MODULE}/ValueType",
                              f"{MODULE_TESTS}/client/meter_list_copy_test",
                              f"{MODULE_TESTS}/client/text_block_test"], 1),
    "client_test": (WHOLE, 4),
    "entries_test": (WHOLE, 2),
    "entries_allocation_test": (WHOLE, 1),
    "flows_test": (WHOLE, 6),
    "memory_proof": ([*WHOLE, *PROOF, "tests/proof/memory"], 4),
    "stop_proof": ([*WHOLE, *PROOF, "tests/proof/stop"], 1),
    "start_event_proof": ([*WHOLE, *PROOF, "tests/proof/stop"], 1),
    "host_test": (["src/host", "tests/host"], 1),
    "grpc-gateway": (["src", "proto"], 1),  # the module, with assertions only
    "hosts_proof": ([*WHOLE, *PROOF, "tests/proof/hosts"], 1),
}

# Of a program that takes long, only the tests that detect what no other program does.
FILTERS = {"stop_proof": "FailingStop.*"}

# The programs that concern each file, in the order in which they run.
SHQUOTE = ["shquote_test", "shquote_allocation_test"]
CONFIG = ["config_test", "config_allocation_test", "slots_test", "entries_test"]
SLOTS = ["slots_test", "client_test", "entries_test", "flows_test"]
COPIES = ["meter_list_copy_test", "flows_test"]
ENTRIES = ["entries_test", "flows_test", "entries_allocation_test", "memory_proof"]
CLIENT = ["client_test", "flows_test", "entries_test", "entries_allocation_test", "memory_proof"]
SUBJECTS = {
    "src/shquote/shquote.cpp": SHQUOTE,
    "src/shquote/shquote.h": SHQUOTE,
    "src/ini/ini.cpp": ["ini_test", "config_test", "config_allocation_test"],
    f"{MODULE}/ConfigManager.cpp": CONFIG,
    f"{MODULE}/ConfigManager.h": [*CONFIG, "client_test", "flows_test"],
    f"{MODULE}/ValueType.h": [*CONFIG, "client_test", "flows_test"],
    f"{MODULE}/HostAccess.h": ["config_test", *CLIENT],
    f"{MODULE}/GatewaySlots.cpp": SLOTS,
    f"{MODULE}/GatewaySlots.h": SLOTS,
    f"{MODULE}/MeterListCopy.cpp": COPIES,
    f"{MODULE}/MeterListCopy.h": COPIES,
    f"{MODULE}/EngineListCopy.h": COPIES,
    f"{MODULE}/TextBlock.h": COPIES,
    f"{MODULE}/KeyTags.cpp": COPIES,
    f"{MODULE}/KeyTags.h": COPIES,
    "proto/PlainMeter.cpp": ["proto_test"],
    f"{MODULE}/AsyncEventPayload.h": CLIENT,
    f"{MODULE}/AsyncMetersPayload.cpp": CLIENT,
    f"{MODULE}/AsyncMetersPayload.h": CLIENT,
    f"{MODULE}/AsyncSetParamsPayload.cpp": CLIENT,
    f"{MODULE}/ParamConversion.cpp": ENTRIES,
    f"{MODULE}/gRPCGatewayClient.cpp": [*CLIENT, "stop_proof"],
    f"{MODULE}/gRPCGatewayClient.h": CLIENT,
    f"{MODULE}/grpc-gateway-module.cpp": ENTRIES,
}


def files_of_the_tree():
    command = ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"]
    names = subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=True).stdout
    return sorted({name for name in names.split("\0") if name and (ROOT / name).is_file()})


def checks_of(mutant):
    """The programs that may detect a mutant, each with a filter of its tests, in the order in which
    they run."""
    return [(program, FILTERS.get(program, "*")) for program in SUBJECTS[mutant.file]]


def folders_of(checks):
    """The folders and files that the programs of these checks are made of."""
    made_of = (folder for program, _ in checks for folder in PROGRAMS[program][0])
    return ("CMakeLists.txt", "cmake/", "tests/CMakeLists.txt", *made_of)


def pinned_by(files):
    """Returns a function that says whether a test contains the words of a message. A message may
    have other text where the format has conversions."""
    texts = "\n".join((ROOT / file).read_text(errors="replace")
                      for file in files
                      if file.startswith("tests/") and file.endswith((".cpp", ".h")))

    def is_pinned(message):
        words = re.split(r"%\w+", message.strip('"'))
        return all(each.strip() in texts for each in words)

    return is_pinned


def possible_mutants(files):
    is_pinned = pinned_by(files)
    return {file: operators.mutants_of(file, (ROOT / file).read_text(), is_pinned)
            for file in SUBJECTS}
