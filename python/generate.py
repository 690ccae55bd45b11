"""Writes the options of coding and the type stubs of the package while it is built.

The options are those of `kel encode`, from the table that the command writes of itself, without
those about files. Arguments: the table, the template of the stubs, the package's folder, version.
"""

import json
import pathlib
import sys

# By the value that the command's table names: the type in stubs, and that in words.
TYPES = {
    "": ("bool", "bool"),
    "N": ("int | None", "int"),
    "DB": ("float | None", "float, decibels"),
    "BYTES": ("int | str | None", "int, or str such as '500K'"),
    "WxH": ("tuple[int, int] | str | None", "(width, height), or str such as '512x512'"),
    "MASK": ("ArrayLike | None", "array of (rows, columns), nonzero inside"),
    "TEXT": ("str | None", "str"),
    "DPI": ("float | tuple[float, float] | None", "float or (x, y), samples per inch"),
}

# Options of `kel encode` that are about files and the console, and so not the package's; and those
# about what image files hold, which the package takes as keywords of its own.
ABOUT_FILES = {
    "help", "output", "output-dir", "files-from", "recursive", "overwrite", "no-overwrite",
    "skip-existing", "report", "jobs", "progress", "quiet", "verbose", "max-memory", "max-pixels",
    "timeout", "measure", "page", "raw", "keep-values", "auto-orient", "strip", "strict", "exif", "icc", "xmp",
}


def keyword_of(name):
    """The keyword of an option, and whether it says the opposite: --no-x is x=True by default."""
    negative = name.startswith("no-")
    return (name[3:] if negative else name).replace("-", "_"), negative


def coding_options(table):
    options = {}
    for entry in table["encode"]["options"]:
        name = next(n for n in entry["names"] if n.startswith("--"))[2:]
        if name in ABOUT_FILES:
            continue
        keyword, negative = keyword_of(name)
        choices = entry.get("choices")
        kind, words = TYPES.get(entry["value"], ("object", entry["value"]))
        if choices:
            kind = f"Literal[{', '.join(map(repr, choices))}]"
            words = " or ".join(map(repr, choices))
        default = None
        if entry["value"] == "":
            default = negative
        elif "default" in entry:
            default = entry["default"] if choices else int(entry["default"])
        text = " ".join(entry["description"].split())
        if negative:
            text = "False: " + text
        options[keyword] = {"type": kind, "words": words, "default": default, "help": text,
                            "spelling": "--" + name}
    return options


def main(table, template, folder, version):
    options = coding_options(json.loads(pathlib.Path(table).read_text()))
    folder = pathlib.Path(folder)
    (folder / "_options.py").write_text(
        '"""Options of coding. Made from the table of the kel command."""\n\n'
        f"VERSION = {version!r}\n\nENCODE = {options!r}\n")
    parameters = "".join(f"    {keyword}: {option['type']} = ...,\n"
                         for keyword, option in options.items())
    (folder / "__init__.pyi").write_text(
        pathlib.Path(template).read_text().replace("    # options of coding\n", parameters))


if __name__ == "__main__":
    main(*sys.argv[1:])
