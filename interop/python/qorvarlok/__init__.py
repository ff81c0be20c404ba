"""QorVarlok for Python: read and write the named variables ("tags") of a
controller, over shared memory on this machine or over TCP, and browse the
symbol file that names them.

    import qorvarlok

    for tag in qorvarlok.browse("Demo.xml"):
        print(tag.full_name, tag.type, tag.size, tag.access, tag.comment)

    with qorvarlok.Controller("Demo.xml") as plc:           # address "Local"
        print(plc.read(["App.GVL.counter", "App.GVL.message"]))
        plc.write({"App.GVL.message": "hello"})
        with plc.tag_list(["App.GVL.counter", "App.GVL.sine"]) as tags:
            counter, sine = tags.read()

Every non-zero code of the library raises a VarlokError, by family a
VarlokConnectionError, TagDefinitionError, TagValueError or SymbolFileError.

Underneath is the module generated from the library's interface, the same
that the C# binding comes from: ZelVarlok, TagDesc, TagVarValue,
StringVector, VectorTagVarValue, the symbol file functions and the codes
ERR_..., all in the shape of the C++ interface and also reachable here.
"""

from . import QorVarlok as _raw
from .QorVarlok import (COM_TYPE_LOCAL, COM_TYPE_TCP, CreateSymbolConfigHandle, GetSymbolConfigParseResult,
                        GetSymbolConfigSubTagsDesc, GetSymbolConfigToppestTagsDesc, GetVarlokVersionInfo,
                        MAX_NAME_LEN, MAX_VALUE_LEN, ReadErrorDescription, ReleaseSymbolConfigHandle, StringVector,
                        TagDesc, TagVarValue, VectorTagVarValue, ZelVarlok)
from .browse import Tag, browse
from .controller import LOCAL, Controller, TagList
from .errors import (SymbolFileError, TagDefinitionError, TagValueError, VarlokConnectionError, VarlokError,
                     describe, error_class)

# The codes, as the interface names them.
_CODES = {name: getattr(_raw, name) for name in dir(_raw) if name.startswith("ERR_")}
globals().update(_CODES)

__all__ = [
    "Controller", "TagList", "LOCAL", "browse", "Tag", "describe", "error_class",
    "VarlokError", "VarlokConnectionError", "TagDefinitionError", "TagValueError", "SymbolFileError",
    "ZelVarlok", "TagDesc", "TagVarValue", "StringVector", "VectorTagVarValue", "COM_TYPE_LOCAL", "COM_TYPE_TCP",
    "CreateSymbolConfigHandle", "GetSymbolConfigParseResult", "GetSymbolConfigToppestTagsDesc",
    "GetSymbolConfigSubTagsDesc", "ReleaseSymbolConfigHandle", "ReadErrorDescription", "GetVarlokVersionInfo",
    "MAX_NAME_LEN", "MAX_VALUE_LEN",
] + sorted(_CODES)

__version__ = GetVarlokVersionInfo()
