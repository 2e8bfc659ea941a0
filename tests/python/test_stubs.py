"""The extension module's stubs name exactly what the module has."""

import ast
from pathlib import Path

import tessaline
from tessaline import _core


def stub_names(tree):
    names = {}
    for node in tree.body:
        if isinstance(node, (ast.FunctionDef, ast.ClassDef)):
            body = node.body if isinstance(node, ast.ClassDef) else []
            names[node.name] = {n.name for n in body if isinstance(n, ast.FunctionDef)}
    return names


def test_stubs_match_the_module():
    stubs = stub_names(ast.parse((Path(tessaline.__file__).parent / "_core.pyi").read_text()))
    public = {name for name in dir(_core) if not name.startswith("_")}
    assert set(stubs) == public
    for name, members in stubs.items():
        own = {m for m in dir(getattr(_core, name)) if not m.startswith("_")}
        assert members == own or not members, name
    assert (Path(tessaline.__file__).parent / "py.typed").exists()
