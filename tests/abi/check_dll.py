"""What the plug-in's DLL asks of the system and offers to hosts: check_dll.py OBJDUMP DLL LIST

LIST has the exported names of the ELF library, demangled. The DLL exports the same, and the functions
of the compatibility layer that are the system's own elsewhere; it needs nothing that is not part of
Windows."""

import re
import subprocess
import sys

# Of every Windows installation. API sets are names that the loader resolves to parts of the system.
SYSTEM = {"kernel32.dll", "msvcrt.dll", "ntdll.dll"}
API_SET = re.compile(r"api-ms-win-[a-z0-9-]+\.dll")
LAYER = {"mmap", "munmap", "madvise", "dlopen", "dlsym", "dlclose", "dlerror"}


def demangled(names):
    done = subprocess.run(["c++filt"], input="\n".join(names), capture_output=True, text=True,
                          check=True)
    # `long` has 32 bits on Windows, so the 64-bit types have other names there.
    return {line.replace("unsigned long long", "unsigned long")
            for line in done.stdout.splitlines()}


def main():
    objdump, dll, listed = sys.argv[1:]
    dump = subprocess.run([objdump, "-p", dll], capture_output=True, text=True, check=True).stdout
    failures = []

    imports = re.findall(r"DLL Name: (\S+)", dump)
    foreign = [name for name in imports
               if name.lower() not in SYSTEM and not API_SET.fullmatch(name.lower())]
    if not imports or foreign:
        failures.append(f"imports {foreign or 'nothing, it seems'}")

    table = dump.split("[Ordinal/Name Pointer] Table", 1)[1].split("\n\n", 1)[0]
    exported = demangled(re.findall(r"\[ *\d+\] (?:\+base\[ *\d+\] +\S+ )?(\S+)", table))
    with open(listed, encoding="utf-8") as file:
        expected = set(file.read().splitlines()) | LAYER
    failures += [f"is missing: {name}" for name in sorted(expected - exported)]
    failures += [f"is not on the list: {name}" for name in sorted(exported - expected)]

    for failure in failures:
        print(f"{dll}: {failure}", file=sys.stderr)
    print(f"{len(exported)} exports, imports {', '.join(sorted(imports))}")
    return 1 if failures else 0


sys.exit(main())
