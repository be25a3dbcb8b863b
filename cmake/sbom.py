#!/usr/bin/env -S python3 -B
"""Writes the SBOM of a linked binary, as SPDX 3.0.1 and as CycloneDX 1.6.

It lists what the binary is made of besides this project's own sources:

  dynamic    the shared libraries that it needs
  static     the archives and objects from elsewhere that the linker took
  compiled   the headers from elsewhere that its objects were compiled with
  embedded   the third-party files among the texts that it contains

The facts come from the binary, from the linker's map and from the dependencies that the compiler
wrote for each object. Files are listed by the Debian package that owns them, and files that no
package owns one by one. Equal builds give equal bytes: there is no time but EPOCH, and the
identifiers are derived from the contents.
"""

import argparse
import collections
import dataclasses
import hashlib
import json
import os
import pathlib
import re
import shlex
import struct
import subprocess
import sys
import time
import urllib.parse
import uuid

# Each with its relationship in SPDX, and the phase that this relationship applies to. The code of
# headers ends up in the binary, so these are contained: tools may ignore what only a build needs.
ROLES = {"dynamic": ("hasDynamicLink", "runtime"), "static": ("hasStaticLink", "build"),
         "compiled": ("contains", None), "embedded": ("contains", None)}
LICENSES = {"The MIT License (MIT)": "MIT"}  # the first line of the text, and its SPDX identifier


@dataclasses.dataclass
class Component:
    name: str
    version: str = ""
    purl: str = ""
    source: str = ""  # Debian's source package
    license: str = ""
    files: list = dataclasses.field(default_factory=list)  # those that no package owns
    roles: dict = dataclasses.field(default_factory=lambda: collections.defaultdict(set))

    def reference(self):
        """Returns an identifier that is unique within the document."""
        return self.purl or f"file:{self.name}:{sha256(self.files[0])}"


def sha256(file):
    return hashlib.sha256(file.read_bytes()).hexdigest()


# ---- What the binary was linked from -------------------------------------------------------------


def output_of(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, check=True, text=True,
                          env={**os.environ, "LC_ALL": "C"}).stdout


def in_folder(folder, path):
    return pathlib.Path(os.path.normpath(folder / path))


def dynamic_entries(arguments, file, tag):
    """Returns the values of a tag, such as NEEDED, in the file's dynamic section."""
    text = output_of(arguments.readelf, "--wide", "--dynamic", file)
    return re.findall(rf"\({tag}\).*\[(.*)\]", text)


def is_shared_library(file):
    """A file with such a name may also be a linker script, which names the real libraries."""
    return ".so" in file.name and file.read_bytes()[:4] == b"\x7fELF"


def read_map(arguments):
    """Returns the shared libraries that the linker read, and the objects that it took: for a member
    of an archive, the pair of the archive and the member's name; otherwise the file and None."""
    text = arguments.map.read_text()
    # The first paragraph is a heading, in the user's language; the second lists the members.
    members = text.split("\n\n", 2)[1]
    loaded = [in_folder(arguments.link_folder, path)
              for path in re.findall(r"^LOAD (.+)$", text, re.M)]
    if not loaded:
        sys.exit(f"sbom.py: {arguments.map} is not a map of GNU ld. Link with GNU ld, or turn "
                 "GATEWAY_SBOM off.")
    objects = {(file, None) for file in loaded if file.suffix == ".o"}
    for archive, member in re.findall(r"^(\S.*?\.a)\((\S+?)\)", members, re.M):
        objects.add((in_folder(arguments.link_folder, archive), member))
    return [file for file in loaded if is_shared_library(file)], objects


def needed_libraries(arguments, loaded):
    """Yields each shared library that the binary needs, as its soname and its file."""
    files = {}
    for file in loaded:
        for soname in dynamic_entries(arguments, file, "SONAME"):
            files[soname] = file
    for soname in dynamic_entries(arguments, arguments.binary, "NEEDED"):
        if soname not in files:
            sys.exit(f"sbom.py: {arguments.binary} needs {soname}, which its link did not read")
        yield soname, files[soname]


# ---- What its objects were compiled from ---------------------------------------------------------


def ninja_dependencies(log):
    """Returns the inputs of each output, as Ninja's own log has them. A record is a path, or the
    numbers of an output and its inputs. While Ninja runs, the last record may be incomplete."""
    data = log.read_bytes()
    if data[:12] != b"# ninjadeps\n" or struct.unpack_from("=I", data, 12) != (4,):
        sys.exit(f"sbom.py: {log} has an unknown format. Turn GATEWAY_SBOM off.")
    paths, found, at = [], {}, 16
    while at + 4 <= len(data):
        [head] = struct.unpack_from("=I", data, at)
        size, at = head & 0x7FFFFFFF, at + 4
        if at + size > len(data):
            break
        if head >> 31:
            output, _, _, *inputs = struct.unpack_from(f"={size // 4}i", data, at)
            found[paths[output]] = [paths[number] for number in inputs]
        else:
            paths.append(data[at:at + size - 4].rstrip(b"\0").decode())
        at += size
    return found


def make_dependencies(build):
    """Returns the same from the files that the compiler has written for Make."""
    found = {}
    for path in build.rglob("*.o.d"):
        target, _, inputs = path.read_text().replace("\\\n", " ").partition(":")
        found[target.strip()] = shlex.split(inputs)
    return found


def dependencies(build):
    log = build / ".ninja_deps"
    found = ninja_dependencies(log) if log.exists() else make_dependencies(build)
    return {in_folder(build, output): [in_folder(build, path) for path in inputs]
            for output, inputs in found.items()}


def objects_of_member(archive, member, compiled):
    """CMake compiles the objects of FOLDER/libNAME.a in FOLDER/CMakeFiles/NAME.dir, except those
    that it takes from an object library."""
    name = archive.name.removeprefix("lib").removesuffix(".a")
    folder = archive.parent / "CMakeFiles" / f"{name}.dir"
    named = [each for each in compiled if each.name == member]
    return [each for each in named if folder in each.parents] or named


def split_objects(objects, compiled, build):
    """Returns the inputs of the objects that this build has compiled, and the other files."""
    inputs, others = set(), set()
    for file, member in objects:
        own = objects_of_member(file, member, compiled) if member else [file]
        own = [each for each in own if each in compiled and build in file.parents]
        inputs.update(*(compiled[each] for each in own))
        if not own:
            others.add(file)
    return inputs, others


# ---- Who owns the files --------------------------------------------------------------------------


def spellings(file):
    """Before /usr was merged, packages owned /lib/FILE, which is /usr/lib/FILE by now."""
    real = os.path.realpath(file)
    return [real, real.removeprefix("/usr"), os.path.normpath(file)]


def owners_of(files):
    """Returns the Debian package, with its architecture, of each file that has one."""
    wanted = sorted({spelling for file in files for spelling in spellings(file)})
    # The exit status is 1 if a file has no owner.
    text = subprocess.run(["dpkg-query", "--search", *wanted], stdout=subprocess.PIPE, text=True,
                          stderr=subprocess.DEVNULL, env={**os.environ, "LC_ALL": "C"},
                          check=False).stdout
    by_path = {}
    for packages, path in re.findall(r"^(?!diversion )(\S.*?): (/.*)$", text, re.M):
        by_path[path] = packages.split(", ")[0]
    found = {}
    for file in files:
        for spelling in spellings(file):
            if spelling in by_path:
                found.setdefault(file, by_path[spelling])
    return found


def distribution():
    release = dict(re.findall(r'^(\w+)="?(.*?)"?$', pathlib.Path("/etc/os-release").read_text(),
                              re.M))
    return release["ID"], "-".join(filter(None, [release["ID"], release.get("VERSION_ID")]))


def debian_components(packages):
    """Returns a component for each name of a package."""
    vendor, release = distribution()
    made = {}
    fields = ("Package", "Version", "Architecture", "source:Package", "source:Version")
    for name in sorted(packages):
        text = output_of("dpkg-query", "--show", "--showformat",
                         "\t".join(f"${{{field}}}" for field in fields), name)
        package, version, architecture, source, source_version = text.split("\t")
        quoted = [urllib.parse.quote(part, safe="") for part in (package, version)]
        made[name] = Component(
            package, version, source=f"{source} {source_version}",
            purl=f"pkg:deb/{vendor}/{'@'.join(quoted)}?arch={architecture}&distro={release}")
    return made


def system_components(files_of_roles):
    """Returns the components that own the files. `files_of_roles` has pairs for each role: a file,
    and what it is to the binary."""
    files = {file for pairs in files_of_roles.values() for file, _ in pairs}
    owners = owners_of(files)
    packages = debian_components(set(owners.values()))
    others = {}
    for role, pairs in files_of_roles.items():
        for file, what in pairs:
            if file in owners:
                component = packages[owners[file]]
            else:
                component = others.setdefault(file, Component(file.name, files=[file]))
            component.roles[role].add(what)
    return [*packages.values(), *others.values()]


# ---- What is embedded ----------------------------------------------------------------------------


def embedded_components(arguments, inputs):
    """Third-party files lie in third_party/NAME. The first line of one says the version."""
    found = {}
    for header, name in arguments.embedded:
        file = pathlib.Path(name)
        if pathlib.Path(header) in inputs and arguments.third_party in file.parents:
            found.setdefault(file.parent, []).append(file)
    for folder, files in sorted(found.items()):
        banners = [file.read_text().partition("\n")[0] for file in files]
        [version] = set(re.findall(r"\(v([\d.]+)\)", "\n".join(banners)))
        terms = (folder / "LICENSE").read_text().partition("\n")[0]
        component = Component(folder.name, version, f"pkg:npm/{folder.name}@{version}",
                              license=LICENSES[terms], files=sorted(files))
        component.roles["embedded"].update(file.name for file in files)
        yield component


def components(arguments):
    loaded, objects = read_map(arguments)
    compiled = dependencies(arguments.build)
    inputs, static = split_objects(objects, compiled, arguments.build)
    own = (arguments.source, arguments.build)
    headers = {file for file in inputs if not any(folder in file.parents for folder in own)}
    libraries = needed_libraries(arguments, loaded)
    found = system_components({
        "dynamic": [(file, soname) for soname, file in libraries],
        "static": [(file, file.name) for file in static],
        "compiled": [(file, "headers") for file in headers],
    })
    found += embedded_components(arguments, inputs)
    return sorted(found, key=Component.reference)


# ---- The documents -------------------------------------------------------------------------------


def build_id(arguments):
    """Stripping a binary keeps this identifier, so it also names the packaged one."""
    notes = output_of(arguments.readelf, "--wide", "--notes", arguments.binary)
    return "".join(re.findall(r"Build ID: (\w+)", notes))


def identifier(document):
    """Equal documents get equal identifiers, and different ones get different identifiers."""
    return uuid.uuid5(uuid.NAMESPACE_URL, json.dumps(document)).urn


class Graph:
    """The elements of an SPDX document, by identifiers derived from their contents."""

    def __init__(self, arguments):
        self.creation = {
            "type": "CreationInfo", "@id": "_:creation", "specVersion": "3.0.1",
            # The format demands a time.
            "created": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(arguments.epoch))}
        self.elements = {}
        # The format demands an agent, too, which a tool is not.
        agent = self.add("SoftwareAgent", name="build of grpc-gateway")
        tool = self.add("Tool", name=f"grpc-gateway-sbom-{arguments.version}")
        self.creation |= {"createdBy": [agent], "createdUsing": [tool]}

    def add(self, kind, **members):
        """Adds an element with those members that are not empty, and returns its identifier."""
        members = {name: value for name, value in members.items() if value}
        name = identifier([self.creation, kind, members])
        self.elements[name] = {"type": kind, "spdxId": name, "creationInfo": "_:creation",
                               **members}
        return name

    def relate(self, origin, kind, targets, scope=None, **members):
        if targets:
            self.add("LifecycleScopedRelationship" if scope else "Relationship", scope=scope,
                     relationshipType=kind, to=targets, **members, **{"from": origin})

    def add_license(self, expression):
        return self.add("simplelicensing_LicenseExpression",
                        simplelicensing_licenseExpression=expression)

    def add_component(self, component):
        package = self.add(
            "software_Package", name=component.name, software_packageVersion=component.version,
            software_packageUrl=component.purl,
            software_sourceInfo=component.source and
            f"built from the source package {component.source}",
            comment="; ".join(f"{role}: {', '.join(sorted(whats))}"
                              for role, whats in sorted(component.roles.items())))
        self.relate(package, "contains", [self.add("software_File", name=file.name, verifiedUsing=[
            {"type": "Hash", "algorithm": "sha256", "hashValue": sha256(file)}])
            for file in component.files])
        if component.license:
            self.relate(package, "hasDeclaredLicense", [self.add_license(component.license)])
        return package

    def add_document(self, name, described):
        """Adds the document, which consists of all other elements."""
        sbom = self.add("software_Sbom", software_sbomType=["build"], rootElement=[described],
                        element=[*self.elements])
        self.add("SpdxDocument", name=name, dataLicense=self.add_license("CC0-1.0"),
                 profileConformance=["core", "software", "simpleLicensing"], rootElement=[sbom],
                 element=[*self.elements])


def own_purpose(arguments):
    return "library" if arguments.binary.suffix == ".so" else "application"


def spdx(arguments, found):
    graph, name = Graph(arguments), arguments.binary.name
    own = graph.add(
        "software_Package", name=name, software_packageVersion=arguments.version,
        software_primaryPurpose=own_purpose(arguments),
        externalIdentifier=[{"type": "ExternalIdentifier", "externalIdentifierType": "other",
                             "identifier": build_id(arguments), "comment": "build ID"}])
    packages = [graph.add_component(component) for component in found]
    for role, (relation, scope) in ROLES.items():
        targets = [package for package, component in zip(packages, found)
                   if role in component.roles]
        graph.relate(own, relation, targets, scope, comment=role)
    graph.add_document(f"{name}-{arguments.version}", own)
    return {"@context": "https://spdx.org/rdf/3.0.1/spdx-context.jsonld",
            "@graph": [graph.creation, *graph.elements.values()]}


def cyclonedx_component(component):
    made = {"type": "library" if component.purl else "file", "name": component.name,
            "bom-ref": component.reference()}
    if component.version:
        made["version"] = component.version
    if component.purl:
        made["purl"] = component.purl
    if component.license:
        made["licenses"] = [{"license": {"id": component.license}}]
    whats = [(role, what) for role, all_of in component.roles.items() for what in all_of]
    made["properties"] = [{"name": f"grpc-gateway:{role}", "value": what}
                          for role, what in sorted(whats)]
    if component.source:
        made["properties"].append({"name": "grpc-gateway:source-package",
                                   "value": component.source})
    if component.files:
        made["components"] = [{"type": "file", "name": file.name,
                               "hashes": [{"alg": "SHA-256", "content": sha256(file)}]}
                              for file in component.files]
    return made


def cyclonedx(arguments, found):
    name = arguments.binary.name
    own = {"type": own_purpose(arguments), "name": name,
           "bom-ref": name, "version": arguments.version,
           "properties": [{"name": "grpc-gateway:build-id", "value": build_id(arguments)}]}
    references = [component.reference() for component in found]
    document = {
        "bomFormat": "CycloneDX",
        "specVersion": "1.6",
        "version": 1,
        "metadata": {"component": own},
        "components": [cyclonedx_component(component) for component in found],
        "dependencies": [{"ref": name, "dependsOn": references}],
    }
    return {**document, "serialNumber": identifier(document)}


def parse():
    parser = argparse.ArgumentParser(description=__doc__, fromfile_prefix_chars="@")
    paths = ("binary", "map", "link-folder", "build", "source", "third-party")
    for name in paths:
        parser.add_argument(f"--{name}", type=pathlib.Path, required=True)
    parser.add_argument("--version", required=True)
    parser.add_argument("--epoch", type=int, required=True)
    parser.add_argument("--readelf", required=True)
    parser.add_argument("--embedded", nargs=2, action="append", default=[])
    parser.add_argument("--spdx", type=pathlib.Path, required=True)
    parser.add_argument("--cyclonedx", type=pathlib.Path, required=True)
    return parser.parse_args()


def main():
    arguments = parse()
    found = components(arguments)
    for path, make in ((arguments.spdx, spdx), (arguments.cyclonedx, cyclonedx)):
        path.write_text(json.dumps(make(arguments, found), indent=2) + "\n")


main()
