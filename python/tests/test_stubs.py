"""The stubs of the extension module say what is there, and the package says that it is typed."""

import ast
import pathlib

import zks
from zks import _bridge

PACKAGE = pathlib.Path(zks.__file__).parent


def stubbed(body):
    """Names of functions and classes, and of what is inside the classes."""
    names = {}
    for node in body:
        if isinstance(node, ast.FunctionDef):
            names[node.name] = None
        elif isinstance(node, ast.ClassDef):
            names[node.name] = set(stubbed(node.body))
    return names


def actual():
    names = {}
    for name, value in vars(_bridge).items():
        if name.startswith("_"):
            continue
        names[name] = None
        if isinstance(value, type):
            kept = ("__init__", "__len__")
            names[name] = {each for each in vars(value) if not each.startswith("_") or each in kept}
    return names


def test_stubs_name_exactly_what_the_module_has():
    tree = ast.parse((PACKAGE / "_bridge.pyi").read_text())
    found = stubbed(tree.body)
    present = actual()
    # pybind11 gives every class an __init__, which raises where there is no constructor.
    for name, members in present.items():
        if members is not None and "__init__" not in (found.get(name) or ()):
            members.discard("__init__")
    assert found == present


def arguments(docstring):
    """The names that a pybind11 docstring's first line gives to the arguments."""
    head = docstring.splitlines()[0]
    inside = head[head.index("(") + 1 : head.rindex(")")]
    return [part.split(":")[0].strip() for part in inside.split(",") if ":" in part and "[" not in part.split(":")[0]]


def test_stubs_name_the_arguments():
    tree = ast.parse((PACKAGE / "_bridge.pyi").read_text())
    for node in tree.body:
        if not isinstance(node, ast.FunctionDef):
            continue
        documented = getattr(_bridge, node.name).__doc__
        named = [argument.arg for argument in node.args.posonlyargs + node.args.args]
        assert all(f"{name}:" in documented for name in named), (node.name, documented)
        assert named == [name for name in arguments(documented) if not name.startswith("*")], (node.name, documented)


def test_the_package_is_typed_and_exports_what_it_lists():
    assert (PACKAGE / "py.typed").exists()
    for name in zks.__all__:
        assert hasattr(zks, name)
