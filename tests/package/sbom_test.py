#!/usr/bin/env -S python3 -B
"""Checks that each SBOM is valid, and lists what the binary is made of.

The libraries come from the dynamic linker here and the headers from the sources, so the test shares
neither the linker's map nor the compiler's records with cmake/sbom.py.

Usage: sbom_test.py SOURCE_FOLDER BUILD_FOLDER CYCLONEDX_SCHEMA
"""

import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import urllib.parse

import jsonschema

SOURCE, BUILD, CYCLONEDX_SCHEMA = (pathlib.Path(path).resolve() for path in sys.argv[1:])
sys.path.append(str(SOURCE / "tests/docs"))

from checklist import check, check_same, end  # noqa: E402

RELATIONS = {"dynamic": ("hasDynamicLink", "runtime"), "static": ("hasStaticLink", "build"),
             "compiled": ("contains", None), "embedded": ("contains", None)}
UPLOT = SOURCE / "third_party/uplot"
SPDX_SCHEMA = SOURCE / "third_party/spdx/spdx-3.0.1.schema.json"


def output_of(*command, **environment):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                          check=False, env={**os.environ, "LC_ALL": "C", **environment}).stdout


# ---- Forms ------------------------------------------------------------------------------------


def check_form(name, document, validator):
    problems = [f"{error.json_path}: {error.message[:300]}"
                for error in validator.iter_errors(document)]
    check(f"{name} fits its schema: {problems[:3]}", not problems)


def cyclonedx_validator():
    """The schema refers to the licences in a file beside it."""
    licenses = next(CYCLONEDX_SCHEMA.parent.glob("spdx.*.json"))
    schema = json.loads(CYCLONEDX_SCHEMA.read_text().replace(f'"{licenses.name}"',
                                                             '"#/definitions/licenses"'))
    schema["definitions"]["licenses"] = {"enum": json.loads(licenses.read_text())["enum"]}
    return jsonschema.Draft7Validator(schema,
                                      format_checker=jsonschema.Draft7Validator.FORMAT_CHECKER)


def check_cyclonedx(name, document):
    check_form(name, document, cyclonedx_validator())
    references = [each["bom-ref"] for each in document["components"]]
    check(f"{name} has unique references", len(references) == len(set(references)))
    [dependency] = document["dependencies"]
    check_same(f"{name} depends on all components", references, dependency["dependsOn"])


def texts_in(value):
    """Yields each text in a JSON value, except the names of members."""
    if isinstance(value, str):
        yield value
    elif isinstance(value, (dict, list)):
        for each in value.values() if isinstance(value, dict) else value:
            yield from texts_in(each)


def spdx_validator():
    return jsonschema.Draft202012Validator(json.loads(SPDX_SCHEMA.read_text()))


def check_spdx(name, document):
    """Validates, and checks the references, which the schema cannot see."""
    check_form(name, document, spdx_validator())
    creation, *elements = document["@graph"]
    names = [creation["@id"], *(each["spdxId"] for each in elements)]
    check(f"{name} has unique identifiers", len(names) == len(set(names)))
    references = {text for text in texts_in(document) if re.match("urn:|_:", text)}
    check_same(f"{name} refers to what there is", set(names), references)
    # Each element is also referenced as a member of the document.
    [collection] = [each for each in elements if each["type"] == "SpdxDocument"]
    check_same(f"{name} lists all of its elements", set(names[1:]) - {collection["spdxId"]},
               set(collection["element"]))


# ---- What a document lists ----------------------------------------------------------------------


def listed_by_spdx(document):
    """Returns the components, as pairs of a role and a purl, and the hashes of files."""
    elements = {each["spdxId"]: each for each in document["@graph"][1:]}
    [sbom] = [each for each in elements.values() if each["type"] == "software_Sbom"]
    [own] = sbom["rootElement"]
    listed = set()
    for each in elements.values():
        if each.get("from") == own:
            relation = (each["relationshipType"], each.get("scope"))
            check(f"{each['comment']} has its relationship", RELATIONS[each["comment"]] == relation)
            listed |= {(each["comment"], elements[to]["software_packageUrl"]) for to in each["to"]}
    return listed, elements[own]["externalIdentifier"][0]["identifier"], {
        (each["name"], each["verifiedUsing"][0]["hashValue"]) for each in elements.values()
        if each["type"] == "software_File"}


def listed_by_cyclonedx(document):
    listed = {(role, component["purl"]) for component in document["components"]
              for role in (each["name"].partition(":")[2] for each in component["properties"])
              if role in RELATIONS}
    [build_id] = [each["value"] for each in document["metadata"]["component"]["properties"]]
    return listed, build_id, {
        (file["name"], file["hashes"][0]["content"]) for component in document["components"]
        for file in component.get("components", [])}


# ---- What the binary is made of -----------------------------------------------------------------


def spellings(path):
    """Packages may own the file by its name before or after /usr was merged."""
    return path, path.removeprefix("/usr"), f"/usr{path}"


def owners_of(paths):
    """Returns the purls of the Debian packages that own the files."""
    found = output_of("dpkg-query", "--search", *(each for path in paths for each in
                                                  spellings(path)))
    owned = {path: package for package, path in re.findall(r"^(\S+): (/.*)$", found, re.M)}
    packages = {owned[each] for path in paths for each in spellings(path) if each in owned}
    release = dict(re.findall(r'^(\w+)="?([^"\n]*)', pathlib.Path("/etc/os-release").read_text(),
                              re.M))
    purls = set()
    for line in output_of("dpkg-query", "--show", "--showformat",
                          "${Package} ${Version} ${Architecture}\n", *packages).splitlines():
        name, version, architecture = line.split()
        quoted = "@".join(urllib.parse.quote(part, safe="") for part in (name, version))
        purls.add(f"pkg:deb/{release['ID']}/{quoted}?arch={architecture}"
                  f"&distro={release['ID']}-{release['VERSION_ID']}")
    return purls


def libraries_of(binary):
    needed = re.findall(r"^  NEEDED +(\S+)", output_of("objdump", "--private-headers", binary),
                        re.M)
    paths = {name: path or name for name, path in
             re.findall(r"^\t(\S+)(?: => (\S+))? \(0x", output_of("ldd", binary), re.M)}
    paths.update({os.path.basename(name): path for name, path in paths.items()})
    return owners_of([os.path.realpath(paths[name]) for name in needed])


def headers_of(*folders):
    """Returns the headers of the system that the sources in the folders include by their names."""
    text = "".join(file.read_text() for folder in folders for file in (SOURCE / folder).rglob("*")
                   if file.suffix in (".cpp", ".h"))
    names = set(re.findall(r"^#include <(\w[\w.+/-]*/[\w./+-]+)>", text, re.M))
    return {f"/usr/include/{name}" for name in names if os.path.exists(f"/usr/include/{name}")}


def check_uplot(document):
    [uplot] = [each for each in document["components"] if each["name"] == "uplot"]
    version = json.loads((SOURCE / "tests/page/package.json").read_text())["devDependencies"][
        "uplot"]
    check(f"uPlot is listed in its version: {uplot}", uplot["version"] == version)
    check("uPlot has its licence", uplot["licenses"] == [{"license": {"id": "MIT"}}])
    check_same("the files of uPlot are listed",
               {(file.name, hashlib.sha256(file.read_bytes()).hexdigest())
                for file in UPLOT.glob("uPlot*")},
               {(file["name"], file["hashes"][0]["content"]) for file in uplot["components"]})


# ---- All of it ----------------------------------------------------------------------------------


def check_again(name, documents, folder):
    """In another environment, the same bytes come out."""
    made = [folder / "spdx", folder / "cdx"]
    output_of(sys.executable, "-B", SOURCE / "cmake/sbom.py", f"@{BUILD}/sbom/{name}.arguments",
              "--spdx", made[0], "--cyclonedx", made[1], LC_ALL="C.UTF-8", TZ="XYZ-13:45",
              PYTHONHASHSEED="17")
    for document, path in zip(documents, made):
        check(f"{document.name} is the same again", document.read_bytes() == path.read_bytes())


def check_binary(target, binary, folders, folder):
    paths = [BUILD / f"sbom/{target}.{kind}.json" for kind in ("spdx", "cdx")]
    spdx, cyclonedx = (json.loads(path.read_text()) for path in paths)
    check_spdx(paths[0].name, spdx)
    check_cyclonedx(paths[1].name, cyclonedx)
    both = listed_by_spdx(spdx), listed_by_cyclonedx(cyclonedx)
    check(f"both documents of {binary} list the same: {both}", both[0] == both[1])
    listed, build_id, _ = both[0]
    dynamic = {purl for role, purl in listed if role == "dynamic"}
    check_same(f"{binary} needs the listed libraries", libraries_of(BUILD / binary), dynamic)
    contained = {purl for role, purl in listed if role in ("compiled", "embedded")}
    headers = headers_of(*folders)
    check(f"the sources of {binary} include headers: {headers}", headers)
    missing = owners_of(sorted(headers)) - contained
    check(f"{binary} lists the owners of the headers that its sources include: {missing}",
          not missing)
    notes = output_of("readelf", "--notes", BUILD / binary)
    check(f"{binary} has the listed build ID: {notes}", f"Build ID: {build_id}" in notes)
    check_again(target, paths, folder)
    return cyclonedx


with tempfile.TemporaryDirectory() as temporary:
    temporary = pathlib.Path(temporary)
    module = check_binary("grpc-gateway", "grpc-gateway.so", ("src/module", "proto"), temporary)
    tools = check_binary("gatewayctl", "gatewayctl", ("tools", "src/standin"), temporary)
check("the module embeds nothing", "uplot" not in {each["name"] for each in module["components"]})
check_uplot(tools)
end()
