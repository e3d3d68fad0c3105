"""Reads the binary interface of a shared library: what a program that was compiled earlier relies on."""

import re
import subprocess
import sys
import tempfile
from pathlib import Path

try:
    from elftools.elf.elffile import ELFFile
except ImportError:
    sys.exit("the Python package pyelftools is missing (Debian: python3-pyelftools)")

NAMESPACE = "kor::"


def demangle(names):
    """Demangled names, in the order of the mangled ones."""
    result = subprocess.run(["c++filt"], input="\n".join(names), capture_output=True, text=True, check=True)
    return result.stdout.splitlines()


def is_template(name):
    """Instances of templates are made in every program anew; which of them a library holds is an accident."""
    return "<" in name.split("(")[0].replace("operator<=>", "").replace("operator<", "")


class Library:
    """Exported symbols of a shared library and its virtual tables."""

    def __init__(self, path):
        with open(path, "rb") as file:
            self.elf = ELFFile(file)
            self.word = self.elf.elfclass // 8
            self.soname = next(
                (tag.soname for tag in self.elf.get_section_by_name(".dynamic").iter_tags("DT_SONAME")), ""
            )
            table = self.elf.get_section_by_name(".dynsym")
            symbols = [symbol for symbol in table.iter_symbols() if symbol.name]
            names = demangle([symbol.name for symbol in symbols])
            self.names = dict(zip((symbol.name for symbol in symbols), names))
            self.exported = [
                (name, symbol)
                for name, symbol in zip(names, symbols)
                if symbol["st_shndx"] != "SHN_UNDEF" and NAMESPACE in name
            ]
            self.slots = self._read_slots(table)

    def _read_slots(self, table):
        """Address of each relocated word: the function that the loader puts there; None for one of our own."""
        slots = {}
        for section in self.elf.iter_sections():
            if section["sh_type"] not in ("SHT_RELA", "SHT_REL"):
                continue
            for relocation in section.iter_relocations():
                symbol = table.get_symbol(relocation["r_info_sym"]) if relocation["r_info_sym"] else None
                slots[relocation["r_offset"]] = self.names.get(symbol.name) if symbol else None
        return slots

    def lines(self):
        yield f"soname {self.soname}"
        strong = {
            name: symbol
            for name, symbol in self.exported
            if symbol["st_info"]["bind"] == "STB_GLOBAL" and name.startswith(NAMESPACE) and not is_template(name)
        }
        for name, symbol in strong.items():
            if symbol["st_info"]["type"] == "STT_FUNC":
                yield f"function {name}"
            else:
                yield f"object {name}, {symbol['st_size']} bytes"
        # A class with a function of its own in the library has its virtual table there, too.
        for name, symbol in self.exported:
            kind, _, owner = name.partition(" for ")
            if kind != "vtable" or is_template(owner) or not any(s.startswith(owner + "::~") for s in strong):
                continue
            for slot in range(2, symbol["st_size"] // self.word):
                target = self.slots.get(symbol["st_value"] + slot * self.word)
                if not target or "~" in target:
                    # Compilers differ on the destructors of abstract classes, which nobody calls by the table.
                    target = "destructor or inline function"
                yield f"vtable {owner}, slot {slot - 2}: {target}"


class Layout:
    """Sizes and members of the classes that the public headers define, as the compiler lays them out."""

    def __init__(self, compiler, include, header):
        with tempfile.TemporaryDirectory() as folder:
            source = Path(folder) / "probe.cpp"
            source.write_text(f"#include <{header}>\n")
            # Types that the probe does not use are left out of the debug information unless asked for.
            options = ["-std=c++20", "-g", "-gdwarf-4", "-fno-eliminate-unused-debug-types"]
            version = subprocess.run([compiler, "--version"], capture_output=True, text=True, check=True).stdout
            options.append("-fstandalone-debug" if "clang" in version else "-femit-class-debug-always")
            probe = Path(folder) / "probe.o"
            subprocess.run([compiler, *options, f"-I{include}", "-c", str(source), "-o", str(probe)], check=True)
            with open(probe, "rb") as file:
                self.unit = next(ELFFile(file).get_dwarf_info().iter_CUs())
                self.found = []
                for entry in self.unit.get_top_DIE().iter_children():
                    if entry.tag == "DW_TAG_namespace" and self._name(entry) == NAMESPACE.rstrip(":"):
                        self._walk(entry, NAMESPACE)

    @staticmethod
    def _name(entry):
        attribute = entry.attributes.get("DW_AT_name")
        return attribute.value.decode() if attribute else ""

    @staticmethod
    def _number(entry, attribute):
        return entry.attributes[attribute].value if attribute in entry.attributes else None

    def _walk(self, scope, prefix):
        for entry in scope.iter_children():
            name = self._name(entry)
            if entry.tag == "DW_TAG_namespace":
                self._walk(entry, f"{prefix}{name}::")
            elif entry.tag == "DW_TAG_enumeration_type" and name:
                for value in entry.iter_children():
                    number = self._number(value, "DW_AT_const_value")
                    self.found.append(f"enum {prefix}{name}, {self._name(value)} = {number}")
            elif entry.tag in ("DW_TAG_class_type", "DW_TAG_structure_type"):
                if name and "<" not in name and "DW_AT_declaration" not in entry.attributes:
                    self._add_class(entry, prefix + name)

    def _add_class(self, entry, name):
        self.found.append(f"class {name}, {self._number(entry, 'DW_AT_byte_size')} bytes")
        for member in entry.iter_children():
            offset = self._number(member, "DW_AT_data_member_location")
            if offset is None or self._name(member).startswith("_vptr"):
                continue
            if member.tag == "DW_TAG_inheritance":
                base = re.sub(r"<.*", "<...>", self._name(member.get_DIE_from_attribute("DW_AT_type")))
                self.found.append(f"class {name}, +{offset:04} base {base}")
            elif member.tag == "DW_TAG_member":
                self.found.append(f"class {name}, +{offset:04} {self._name(member)}")
        self._walk(entry, name + "::")

    def lines(self):
        return self.found


def interface(library, compiler, include, header):
    """The whole interface as sorted lines."""
    return sorted({*Library(library).lines(), *Layout(compiler, include, header).lines()})
