"""How mutants are built: the commands of a build directory, run again on other sources and with other results.

    build = Build(root, "mutants", libraries, products, makes)
    objects = build.compile("src/Boot.cpp", tree, place)    from the sources below `tree`
    build.link(place, objects)                              with these objects in the place of the build's own

The build directory has to be up to date and stays as it is: everything new is written below `place`.
"""

import functools
import os
import re
import shlex
import subprocess


class Refused(Exception):
    """The compiler or the linker did not take it."""


def output_of(command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


class Build:
    def __init__(self, root, name, libraries, products, makes):
        self.root = root
        self.name = name
        self.directory = os.path.join(root, "build", name)
        self.products = products  # in the order in which they are made
        self.makes = makes  # what is written anew: files, or beginnings of their names
        self.objects = {}  # by source
        for line in output_of(["ninja", "-C", self.directory, "-t", "targets", "all"]).splitlines():
            found = re.match(r"(CMakeFiles/([^/]+)\.dir/(.*)\.(?:o|obj)): ", line)
            if found and found[2] in libraries:
                self.objects.setdefault(found[3], []).append(found[1])

    @functools.cache
    def command(self, target):
        """The one command that makes it, with names from the build directory, where it has to run."""
        text = output_of(["ninja", "-C", self.directory, "-t", "commands", "-s", target]).strip()
        text = text.replace(self.directory + "/", "").replace("/./", "/")
        # What the build system does beside it, for itself.
        return " && ".join(piece for piece in text.split(" && ") if not re.match(r"cd |\S*cmake ", piece))

    def stale(self):
        """What is newer than the product that is made of it; None: nothing. Mutants linked with it would be another
        program's."""
        for product in self.products:
            made = os.path.getmtime(os.path.join(self.directory, product))
            for word in shlex.split(self.command(product)):
                part = os.path.join(self.directory, word)
                if word.endswith((".o", ".obj", ".a")) and word != product and os.path.getmtime(part) > made:
                    return part
        return None

    def parser_arguments(self, source):
        """What another compiler has to know to read the source as this one does."""
        command = shlex.split(self.command(self.objects[source][0]))
        compiler = next(word for word in command if word.endswith("++"))
        arguments = [word for word in command if word.startswith(("-I", "-D", "-std="))]
        if "arm-none-eabi" in compiler:
            listed = subprocess.run([compiler, "-E", "-x", "c++", "-v", "/dev/null"], capture_output=True, check=True,
                                    text=True).stderr  # fmt: skip
            arguments += ["--target=arm-none-eabi", "-mcpu=arm926ej-s"]
            arguments += ["-isystem" + line.strip() for line in listed.splitlines() if line.startswith(" /usr/lib/gcc")]
        return [word if not word.startswith("-I") else "-I" + os.path.join(self.directory, word[2:])
                for word in arguments]  # fmt: skip

    def redirected(self, command, place, objects):
        for name in (*self.makes, *objects):
            command = re.sub(rf"(?<![\w./-]){re.escape(name)}", self.placed(place, name), command)
        return command

    def placed(self, place, name):
        # The programs lie directly in `place`: they find the tree by where they are.
        return os.path.join(place, f"{self.name}-{name}")

    def run(self, command):
        done = subprocess.run(command, shell=True, cwd=self.directory, capture_output=True, text=True)
        if done.returncode != 0:
            raise Refused(done.stderr.strip().split("\n")[0])

    def compile(self, source, tree, place):
        names = self.objects.get(source, [])
        for name in names:
            command = self.redirected(self.command(name), place, [name])
            # A launcher in front of the compiler is left out: no mutant is compiled twice.
            command = re.sub(r"^.*?(?=\S*\+\+ )", "", command, count=1)
            command = command.replace(f"prefix-map={self.root}=", f"prefix-map={tree}=")
            command = re.sub(rf"{re.escape(self.root)}/(?=src|bsp|platform)", tree + "/", command)
            os.makedirs(os.path.dirname(self.placed(place, name)), exist_ok=True)
            self.run(command + " -w")
        return names

    def link(self, place, objects):
        for product in self.products:
            made = self.placed(place, product)
            os.makedirs(os.path.dirname(made), exist_ok=True)
            if os.path.exists(made):
                os.remove(made)
            self.run(self.redirected(self.command(product), place, objects))

    def stripped(self, place, name):
        """An object's bytes without its debug data."""
        copy = self.placed(place, name) + ".stripped"
        strip = "arm-none-eabi-strip" if name.endswith(".obj") else "strip"
        output_of([strip, "--strip-debug", "-o", copy, self.placed(place, name)])
        with open(copy, "rb") as file:
            return file.read()


def builds_of(root):
    own = ("native-common", "native-modules-fixed-own")
    native = (["native-modules-fixed.o", "fixture-tests"],) * 2
    archives = ["libfixed-bootloader-modules.a", "libfixed-bootloader-1.9.1-modules.a"]
    builds = {
        "native": Build(root, "mutants", own, *native),
        "arm": Build(root, "arm", ("common-modules", "platform", "fixed-bootloader-own", "fixed-bootloader-1.9.1-own"),
                     archives + ["fixed/bootloader.elf", "fixed/bootloader-1.9.1.elf"], archives + ["fixed/"]),
    }  # fmt: skip
    if os.path.exists(os.path.join(root, "build/asan/fixture-tests")):
        builds["sanitized"] = Build(root, "asan", own, *native)
    return builds
