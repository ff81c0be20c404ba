"""The tags of a symbol file, without a controller."""

import os
from typing import NamedTuple, Optional

from . import QorVarlok as _raw
from .errors import SymbolFileError, error_for
from .values import NOT_SET, access_name, type_name


class Tag(NamedTuple):
    """One tag of a symbol file. type and element_type are type names such
    as "DInt" (element_type: of an array's elements, an enumeration's or a
    subrange's integer; None where there is none); access is "Read",
    "Write" or "ReadWrite"; size in bytes; comment None when the file has none."""

    full_name: str
    type: Optional[str]
    size: int
    access: Optional[str]
    comment: Optional[str]
    element_type: Optional[str]
    type_code: int
    name: str


def browse(path):
    """Yields every tag of the symbol file at path, in the library's flat
    order (each tag before its members). The groups of the tree, which have
    no type, are left out. Raises SymbolFileError when the file cannot be read."""
    path = os.fsdecode(os.fspath(path))
    handle, code = _raw.CreateSymbolConfigHandle(path)
    if handle is None or code:
        raise error_for(code or _raw.ERR_XML_NOT_EXIST, "CreateSymbolConfigHandle", path)
    try:
        code, descs = _raw.GetSymbolConfigParseResult(handle)
    finally:
        _raw.ReleaseSymbolConfigHandle(handle)
    if code:
        raise error_for(code, "GetSymbolConfigParseResult", path)
    for d in descs:
        if d.Type == NOT_SET:
            continue
        yield Tag(d.FullName, type_name(d.Type), d.Size, access_name(d.AccessType), d.Comment or None,
                  type_name(d.BaseType) if d.BaseType != NOT_SET else None, d.Type, d.Name)


__all__ = ["Tag", "browse", "SymbolFileError"]
