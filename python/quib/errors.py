"""The exceptions of quib: every failure of a library call is a quib.Error.

Each also derives from the built-in exception a Python user would catch for it, so
``except FileNotFoundError`` and ``except ValueError`` work as with any other library.
Every one carries ``filename`` (None when no file is involved) and ``reason``.
"""
import errno as _errno


class Error(Exception):
    """Base of every failure raised by quib."""

    filename = None
    reason = ""


class NotFoundError(Error, FileNotFoundError):
    """The file does not exist (or vanished between calls)."""


class IsADirectoryError(Error, IsADirectoryError):  # noqa: A001 - the built-in is a base
    """A folder was given where a file was expected."""


class FormatError(Error, ValueError):
    """The file exists but is not a file of the expected format (or is damaged)."""


class WriteError(Error, OSError):
    """A file could not be written."""


class ArgumentError(Error, ValueError):
    """An argument has the wrong shape, dtype, strides or value."""


def make(name, filename, reason):
    """Builds the exception `name` for the module (called from C++)."""
    cls = globals()[name]
    if issubclass(cls, OSError):
        code = {"NotFoundError": _errno.ENOENT, "IsADirectoryError": _errno.EISDIR}.get(name, _errno.EIO)
        error = cls(code, reason, filename)
    elif filename:
        error = cls(f"{filename}: {reason}")
    else:
        error = cls(reason)
    error.filename = filename or None
    error.reason = reason
    return error
