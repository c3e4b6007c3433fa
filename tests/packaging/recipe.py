#!/usr/bin/env python3
"""recipe.py SOURCE RECIPE INSTALLED: reads the recipe without bitbake, checks its licence, version and test
programs against SOURCE and its packages against the tree in INSTALLED, and prints one line of CMake options
for each set of features that it can be built with."""
import fnmatch
import hashlib
import os
import re
import sys


def fail(what):
    sys.exit(f"recipe: {what}")


def read(path):
    """The variables of a recipe, unexpanded. Of the syntax: =, ??=, +=, continued lines, flags, comments;
    functions are passed over."""
    text = re.sub(r"\\\n", " ", open(path, encoding="utf-8").read())
    text = re.sub(r"^[\w:${}-]+\(\) \{\n.*?^\}$", "", text, flags=re.M | re.S)
    found = {}
    for line in text.splitlines():
        if not line.strip() or line.startswith("#"):
            continue
        if line.startswith("inherit "):
            found["inherit"] = line.split()[1:]
            continue
        match = re.fullmatch(r'([\w:${}-]+(?:\[\w+\])?) *(\?\?=|\+=|=) *"(.*)" *', line)
        if not match:
            fail(f"not understood: {line}")
        name, operator, value = match.groups()
        found[name] = found.get(name, "") + " " + value if operator == "+=" else value
    return found


source, recipe, installed = sys.argv[1:]
variables = read(recipe)
known = {"PN": "libtarn", "libdir": "/usr/lib", "bindir": "/usr/bin", "datadir": "/usr/share",
         "includedir": "/usr/include", "mandir": "/usr/share/man",
         "PV": re.search(r"_(.*)\.bb$", recipe).group(1)}


def expand(value):
    return re.sub(r"\$\{(\w+)\}", lambda name: known.get(name.group(1), name.group(0)), value)


# --- licence, version, files beside the recipe, classes ---
licence, digest = re.fullmatch(r"file://(\S+);md5=(\w+)", variables["LIC_FILES_CHKSUM"]).groups()
with open(os.path.join(source, licence), "rb") as text:
    if hashlib.md5(text.read()).hexdigest() != digest:
        fail(f"{licence} has another checksum")
if variables["LICENSE"] != "MIT":
    fail("the licence is MIT")
with open(os.path.join(source, "CMakeLists.txt"), encoding="utf-8") as project:
    version = re.search(r"^project\(.* VERSION ([\d.]+)", project.read(), re.M).group(1)
if known["PV"] != version:
    fail(f"the recipe is of {known['PV']}, the project of {version}")
for entry in expand(variables["SRC_URI"]).split():
    name = entry[len("file://"):]
    if name != f"libtarn-{version}.tar.gz" and \
            not os.path.exists(os.path.join(os.path.dirname(recipe), name)):
        fail(f"{name} is not beside the recipe")
if set(variables["inherit"]) != {"cmake", "pkgconfig", "ptest"}:
    fail(f"classes: {variables['inherit']}")
if set(variables["DEPENDS"].split()) != {"libubox", "ubus"}:
    fail(f"depends on {variables['DEPENDS']}")

# --- test programs ---
for program in variables["PTEST_PROGRAMS"].split():
    folder, name = program.split("/")
    subject = name[len("test_" + folder + "_"):]
    with open(os.path.join(source, "tests", folder, "CMakeLists.txt"), encoding="utf-8") as tests:
        if not re.search(rf"tarn_add_test\(NAME {folder}\.{subject}\b", tests.read()):
            fail(f"there is no test program {program}")

# --- packages: bitbake's own lists come first, in this order, then those of the recipe ---
packages = [("staticdev", ["/usr/lib/*.a"]),
            ("dev", ["/usr/include", "/usr/lib/lib*.so", "/usr/lib/pkgconfig"]),
            ("doc", ["/usr/share/man"])]
packages[1][1].extend(expand(variables["FILES:${PN}-dev"]).split())
for name in expand(variables["PACKAGE_BEFORE_PN"]).split() + ["libtarn"]:
    packages.append((name, expand(variables["FILES:" + name.replace("libtarn", "${PN}", 1)]).split()))
contents = {name: [] for name, _ in packages}
for folder, _, names in os.walk(installed):
    for name in names:
        path = "/" + os.path.relpath(os.path.join(folder, name), installed)
        if path == "/usr/bin/tarn-busd":
            continue  # of the bundled bus
        for package, patterns in packages:
            if any(fnmatch.fnmatchcase(path, pattern) and "/" not in path[len(pattern.rpartition("/")[0]) + 1:]
                   or path.startswith(pattern + "/") for pattern in patterns):
                contents[package].append(path)
                break
        else:
            fail(f"{path} is installed and in no package")
expected = {"libtarn": ["/usr/lib/libtarn.so." + version.rpartition(".")[0], "/usr/lib/libtarn.so." + version],
            "libtarn-tools": ["/usr/bin/tarn", "/usr/share/bash-completion/completions/tarn"]}
for package, files in expected.items():
    if sorted(contents[package]) != files:
        fail(f"{package} holds {sorted(contents[package])}")
for package in contents:
    print(f"{package}: {len(contents[package])} files", file=sys.stderr)

# --- options ---
features = {name: variables[f"PACKAGECONFIG[{name}]"].split(",") for name in ("tools", "tests")}
for tools, tests in ((0, 0), (0, 1), (1, 1)): # 1 is without, as in the list
    print(variables["EXTRA_OECMAKE"], features["tools"][tools], features["tests"][tests])
