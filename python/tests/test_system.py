"""Hashes of bytes-like objects; numbered file names."""
import hashlib

import numpy as np
import pytest

import quib


def test_sha256_of_every_bytes_like_object():
    data = bytes(range(256)) * 1000
    expected = hashlib.sha256(data).hexdigest()
    assert quib.sha256(data) == expected
    assert quib.sha256(bytearray(data)) == expected
    assert quib.sha256(memoryview(data)) == expected
    assert quib.sha256(np.frombuffer(data, np.uint8)) == expected
    assert quib.sha256(np.frombuffer(data, np.uint16)) == expected
    assert quib.sha256(b"") == hashlib.sha256(b"").hexdigest()
    assert quib.sha256("héllo") == hashlib.sha256("héllo".encode()).hexdigest()
    with pytest.raises(ValueError):
        quib.sha256(np.zeros((4, 4), np.uint8)[:, ::2])
    with pytest.raises(ValueError):
        quib.sha256(12)
    pieces = quib.Sha256()
    for i in range(0, len(data), 4096):
        pieces.update(memoryview(data)[i:i + 4096])
    assert pieces.hexdigest() == expected


def test_hash64():
    assert quib.hash64(b"\x01") == "000000009e3779ba"
    assert quib.hash64(b"") == "0000000000000000"
    assert quib.hash64("a") == quib.hash64("a") != quib.hash64("b")


def test_numbered_names():
    name = quib.add_suffix_number("scan_", 12)
    assert name == "scan_12" and quib.get_suffix_number(name) == "12"
    assert quib.sub_suffix_number(name) == "scan"
    sharp = quib.add_sharp_number("frame", 3)
    assert sharp == "frame#3" and quib.get_sharp_number(sharp) == "3"


def test_every_public_name_has_a_stub_and_a_docstring():
    import ast
    import pathlib
    stub = ast.parse((pathlib.Path(quib.__file__).parent / "_quib.pyi").read_text())
    stubbed = {node.name for node in stub.body if isinstance(node, (ast.ClassDef, ast.FunctionDef))}
    stubbed |= {t.id for node in stub.body if isinstance(node, (ast.Assign, ast.AnnAssign))
                for t in (node.targets if isinstance(node, ast.Assign) else [node.target])
                if isinstance(t, ast.Name)}
    public = {name for name in dir(quib._quib) if not name.startswith("_")}
    assert public - stubbed == set()
    undocumented = [name for name in public if isinstance(getattr(quib._quib, name), type)
                    and not (getattr(quib._quib, name).__doc__ or "").strip()]
    assert undocumented == []
