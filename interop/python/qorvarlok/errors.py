"""Every non-zero code of the library as an exception.

A code's text is the library's own, decoded from GBK (code page 936), the
encoding in which the library keeps it. The class says the family of the
code, so that a caller can catch what it can handle: a lost connection, a
list that cannot be defined, a value that does not fit its tag, a symbol
file that cannot be read.
"""

from . import QorVarlok as _raw

# A line error of the symbol file: this bit pattern OR the line number.
_LINE_ERROR = 0x12000000

_DEFINITION_CODES = frozenset((
    _raw.ERR_INVALID_TAG_HANDLE,
    _raw.ERR_EXIST_INVAILD_VAR,
    _raw.ERR_INVALID_VAR_DEFS,
    _raw.ERR_TOO_MANY_TAGS,
    _raw.ERR_VACACCESS_TAGS_CHANGED,
    0x10000308,  # the controller refused to define or delete a list
))
_CONNECTION_CODES = frozenset((
    _raw.ERR_UNDEFINED,
    _raw.ERR_LOADLIBRARY_FAILED,
    _raw.ERR_INVALID_DEVICE_CLIENT,
))


def describe(code):
    """The library's text of a code, as str."""
    text = _raw.ReadErrorDescription(code & 0xFFFFFFFF)
    return text.decode("gbk", errors="replace") if text is not None else ""


class VarlokError(Exception):
    """A non-zero code of the library.

    code is the 32-bit code, text its description, operation the call that
    answered it (such as "ReadTagList"), detail what this layer adds.
    """

    def __init__(self, code, operation=None, detail=None):
        self.code = code
        self.text = describe(code)
        self.operation = operation
        self.detail = detail
        super().__init__(code, self.text)

    def __str__(self):
        where = "%s: " % self.operation if self.operation else ""
        more = " (%s)" % self.detail if self.detail else ""
        return "%s0x%08X %s%s" % (where, self.code, self.text, more)


class VarlokConnectionError(VarlokError):
    """Initialising, connecting, or reaching the controller failed."""


class TagDefinitionError(VarlokError):
    """A list of tags could not be defined or is no longer valid."""


class TagValueError(VarlokError, ValueError):
    """A value does not fit its tag, or the tag refuses the direction."""


class SymbolFileError(VarlokError):
    """The symbol file could not be read."""


def error_class(code):
    """The exception class for a code's family."""
    if code in _DEFINITION_CODES:
        return TagDefinitionError
    if code in _CONNECTION_CODES:
        return VarlokConnectionError
    if code == _raw.ERR_INPUT_PARAMETERS or (code & _LINE_ERROR) == _LINE_ERROR:
        return SymbolFileError
    family = code & 0xFFFFFF00
    if family in (0x10000100, 0x10000200, 0x10000300):
        return VarlokConnectionError
    if family == 0x10000400:
        return SymbolFileError
    if family == 0x10000500:
        return TagValueError
    return VarlokError


def error_for(code, operation=None, detail=None):
    """The exception for a non-zero code."""
    return error_class(code)(code, operation, detail)


def check(code, operation):
    """Raises the exception for a non-zero code."""
    if code:
        raise error_for(code, operation)
