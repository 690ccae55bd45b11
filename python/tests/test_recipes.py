"""The recipes of the documentation, run as they stand."""

import re
import shutil

import fsspec
import pytest

import kel

from conftest import ROOT

TEXT = (ROOT / "docs/python.md").read_text()
RECIPES = re.findall(r"^### (.*?)\n.*?^```python\n(.*?)^```", TEXT, re.M | re.S)


def test_ten_recipes(photo, large, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    shutil.copy(ROOT / "examples/images/coffee.png", "photo.png")
    (tmp_path / "photos").mkdir()
    shutil.copy("photo.png", "photos")
    kel.write("photo.kel", photo)
    shutil.copy(large[0], "map.kel")
    with fsspec.open("memory://maps/map.kel", "wb") as file:
        file.write(large[0].read_bytes())
    names = {"__name__": "__main__"}
    for title, program in RECIPES:
        try:
            exec(compile(program, title, "exec"), names)
        except Exception as error:
            pytest.fail(f"recipe {title}: {error!r}")
    assert len(RECIPES) == 10
    assert (names["part"] == large[1][200:300, 400:560]).all()
    assert (names["last"] == kel.decode("photo.kel")).all()
    assert (names["frames"][0, :, ::-1] == names["frames"][1]).all()
    assert (tmp_path / "coded/photo.kel").exists()
