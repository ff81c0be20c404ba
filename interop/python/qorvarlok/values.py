"""Tag values between Python and the controller's binary form.

The controller keeps every value little-endian, at its tag's size, with no
padding between the tags of a list. A tag's type code decides its Python
form: bool for Bool; int for the integer types, Enum, Subrange and the time
types (in the controller's own unit); float for Real and LReal; str for
String and WString; a list for an array of an elementary type; bytes for
structures and everything else (unions, function blocks, pointers, arrays
of structures), in the controller's layout.
"""

import struct

from . import QorVarlok as _raw
from .errors import TagValueError

(BOOL, BYTE, WORD, DWORD, LWORD, SINT, INT, DINT, LINT, SUBRANGE, REAL, LREAL, ENUM, UNION, ARRAY, STRUCTURE,
 FUNCTION_BLOCK, STRING, WSTRING, TIME, DATE, TIME_OF_DAY, DATE_AND_TIME, POINTER, REFERENCE, BIT) = range(26)
NOT_SET = 32767

TYPE_NAMES = ("Bool", "Byte", "Word", "DWord", "LWord", "SInt", "Int", "DInt", "LInt", "Subrange", "Real",
              "LReal", "Enum", "Union", "Array", "Structure", "FunctionBlock", "String", "WString", "Time",
              "Date", "TimeOfDay", "DateAndTime", "Pointer", "Reference", "Bit")
ACCESS_NAMES = ("Read", "Write", "ReadWrite")


def type_name(code):
    """The name of a tag type code; None for the code of no type."""
    return TYPE_NAMES[code] if 0 <= code < len(TYPE_NAMES) else None


def access_name(code):
    return ACCESS_NAMES[code] if 0 <= code < len(ACCESS_NAMES) else None


def is_readable(access):
    return access in (0, 2)


def is_writable(access):
    return access in (1, 2)


# The struct code of each elementary type.
_FORMATS = {BOOL: "?", BYTE: "B", WORD: "H", DWORD: "I", LWORD: "Q", SINT: "b", INT: "h", DINT: "i", LINT: "q",
            REAL: "f", LREAL: "d", TIME: "I", DATE: "I", TIME_OF_DAY: "I", DATE_AND_TIME: "I"}
_SIGNED = {1: "b", 2: "h", 4: "i", 8: "q"}
# Bytes of one array element, as the library counts them: a String element
# takes 81 bytes and a WString element 162, whatever the declared length.
ELEMENT_WIDTHS = {BOOL: 1, BYTE: 1, SINT: 1, WORD: 2, INT: 2, DWORD: 4, DINT: 4, REAL: 4, TIME: 4, DATE: 4,
                  TIME_OF_DAY: 4, DATE_AND_TIME: 4, LWORD: 8, LINT: 8, LREAL: 8, STRING: 81, WSTRING: 162}

_CONVERSION_ERRORS = (struct.error, OverflowError, TypeError, ValueError)


def _too_long(name, got, room):
    return TagValueError(_raw.ERR_OVERSTEP_ACCESS, "write", "%s: %d bytes for a tag of %d" % (name, got, room))


def _has_nul(name):
    return TagValueError(_raw.ERR_WRITE_FAILED, "write", "%s: a NUL character would end the text" % name)


def _mismatch(name, what):
    return TagValueError(_raw.ERR_UNMATCH_WITH_DEFINE, "write", "%s: %s" % (name, what))


class Codec:
    """How one tag's value crosses: fmt is its struct code within a list,
    decode turns the unpacked item into the Python value (None: as it is),
    encode turns a Python value into the item to pack (None: as it is)."""

    def __init__(self, name, type_code, size, base_type, encoding):
        self.name = name
        self.type_code = type_code
        self.size = size
        self.base_type = base_type
        self.encoding = encoding
        self.decode = None
        self.encode = None
        fmt = _FORMATS.get(type_code)
        if type_code in (ENUM, SUBRANGE):
            # The underlying integer; its own type says whether it is signed.
            fmt = _FORMATS.get(base_type, _SIGNED.get(size))
            if fmt is not None and fmt != "?" and struct.calcsize("<" + fmt) != size:
                fmt = _SIGNED.get(size)
        if fmt is not None and struct.calcsize("<" + fmt) == size:
            self.fmt = fmt
            if fmt == "?":
                self.encode = self._encode_bool
        else:
            self.fmt = "%ds" % max(size, 0)
            if type_code == STRING:
                self.decode, self.encode = self._decode_string, self._encode_string
            elif type_code == WSTRING:
                self.decode, self.encode = self._decode_wstring, self._encode_wstring
            else:
                self.encode = self._encode_bytes

    def _encode_bool(self, value):
        if value is True or value is False or value in (0, 1):
            return bool(value)
        raise TagValueError(_raw.ERR_WRITE_FAILED, "write", "%s: %r is not a Bool" % (self.name, value))

    def _decode_string(self, raw):
        text = raw.split(b"\0", 1)[0]
        return text.decode(self.encoding, errors="replace") if self.encoding else text

    def _encode_string(self, value):
        data = value.encode(self.encoding) if isinstance(value, str) and self.encoding else value
        if not isinstance(data, (bytes, bytearray)):
            raise TagValueError(_raw.ERR_WRITE_FAILED, "write", "%s: %r is not a String" % (self.name, value))
        if b"\0" in data:
            raise _has_nul(self.name)
        # A terminator stays within the tag.
        if len(data) > self.size - 1:
            raise _too_long(self.name, len(data), self.size - 1)
        return bytes(data)

    def _decode_wstring(self, raw):
        text = raw.decode("utf-16-le", errors="replace")
        return text.split("\0", 1)[0]

    def _encode_wstring(self, value):
        if not isinstance(value, str):
            raise TagValueError(_raw.ERR_WRITE_FAILED, "write", "%s: %r is not a WString" % (self.name, value))
        if "\0" in value:
            raise _has_nul(self.name)
        data = value.encode("utf-16-le", errors="surrogatepass")
        if len(data) > self.size - 2:
            raise _too_long(self.name, len(data), self.size - 2)
        return data

    def _encode_bytes(self, value):
        if not isinstance(value, (bytes, bytearray, memoryview)) or len(value) != self.size:
            length = len(value) if isinstance(value, (bytes, bytearray, memoryview)) else type(value).__name__
            # The library's own code for a structure of the wrong length.
            code = _raw.ERR_UNALIGNED_STRUCT if self.type_code == STRUCTURE else _raw.ERR_UNMATCH_WITH_DEFINE
            raise TagValueError(code, "write", "%s: %s bytes for a tag of %d" % (self.name, length, self.size))
        return bytes(value)

    def pack_one(self, value):
        """The binary form of one value; TagValueError when it does not fit."""
        try:
            item = self.encode(value) if self.encode else value
            return struct.pack("<" + self.fmt, item)
        except TagValueError:
            raise
        except _CONVERSION_ERRORS as e:
            raise TagValueError(_raw.ERR_WRITE_FAILED, "write", "%s: %r: %s" % (self.name, value, e)) from None


class ListCodec:
    """The values of a list of tags as one run of bytes, packed and unpacked
    in one step; only strings and Bool need a step of their own."""

    def __init__(self, codecs):
        self.codecs = codecs
        self.struct = struct.Struct("<" + "".join(c.fmt for c in codecs))
        self.decoders = [(i, c.decode) for i, c in enumerate(codecs) if c.decode]
        self.encoders = [(i, c.encode) for i, c in enumerate(codecs) if c.encode]

    def unpack(self, data):
        items = list(self.struct.unpack(data))
        for i, decode in self.decoders:
            items[i] = decode(items[i])
        return items

    def pack(self, values):
        if self.encoders:
            values = list(values)
            for i, encode in self.encoders:
                values[i] = encode(values[i])
        try:
            return self.struct.pack(*values)
        except _CONVERSION_ERRORS:
            # Find the value that does not fit, for the message.
            for codec, value in zip(self.codecs, values):
                codec.pack_one(value)
            raise


class ArrayCodec:
    """A whole array: a list of its elements where they are of an elementary
    type, else its bytes."""

    def __init__(self, name, size, element_type, encoding):
        self.name = name
        self.size = size
        # The element length that the library checks: 0 where it knows none.
        self.element_length = ELEMENT_WIDTHS.get(element_type, 0)
        width = self.element_length
        self.count = size // width if width > 0 and size % width == 0 else None
        self.element = Codec(name, element_type, width, NOT_SET, encoding) if self.count is not None else None
        self.struct = struct.Struct("<" + self.element.fmt * self.count) if self.element else None

    def unpack(self, data):
        if self.element is None:
            return bytes(data)
        items = list(self.struct.unpack(data))
        if self.element.decode:
            items = [self.element.decode(item) for item in items]
        return items

    def pack(self, value):
        if isinstance(value, (bytes, bytearray, memoryview)) or self.element is None:
            return Codec(self.name, ARRAY, self.size, NOT_SET, None).encode(value)
        items = list(value)
        if len(items) != self.count:
            raise _mismatch(self.name, "%d elements for an array of %d" % (len(items), self.count))
        if self.element.encode:
            items = [self.element.encode(item) for item in items]
        try:
            return self.struct.pack(*items)
        except _CONVERSION_ERRORS:
            for item in items:
                self.element.pack_one(item)
            raise
