"""One connection to one controller, and lists of its tags.

    with Controller("Demo.xml") as plc:                 # shared memory, "Local"
        plc.read(["App.GVL.counter", "App.GVL.message"])  # {name: value}
        plc.write({"App.GVL.counters": list(range(10))})
        with plc.tag_list(["App.GVL.counter", "App.GVL.sine"]) as tags:
            while True:
                counter, sine = tags.read()

Every failure raises a VarlokError (see errors.py) carrying the library's
code. Values are decoded by their tag's type (see values.py).
"""

import os
import threading
from collections.abc import Mapping

from . import QorVarlok as _raw
from .errors import TagValueError, VarlokConnectionError, check, error_for
from .values import ARRAY, STRUCTURE, ArrayCodec, Codec, ListCodec, is_writable

LOCAL = "Local"
_DEFAULT_PARTITION = "varlok"

# Shared memory reaches one partition per process: the library keeps one
# client for the whole process, bound to the areas of the partition that its
# first connection found. Another partition is refused here, before it would
# silently reach the first one's controller.
_partition_lock = threading.Lock()
_bound_partition = None


def _partition_for(partition):
    wanted = partition or os.environ.get("VARLOK_PARTITION") or _DEFAULT_PARTITION
    with _partition_lock:
        if _bound_partition is not None and wanted != _bound_partition:
            raise VarlokConnectionError(
                _raw.ERR_CONNECT_FAILED, "ConnectToPlcDevice",
                "shared memory of this process reaches partition '%s' only, not '%s'; use TCP for another"
                % (_bound_partition, wanted))
        if partition and _bound_partition is None:
            # The partition library reads it at its first use.
            os.environ["VARLOK_PARTITION"] = partition
    return wanted


def _bind_partition(partition):
    global _bound_partition
    with _partition_lock:
        if _bound_partition is None:
            _bound_partition = partition


class Controller:
    """A connection: initialises with the symbol file, connects, and as a
    context manager deletes its lists, disconnects and exits on leaving,
    whatever happened.

    address is "Local" for shared memory on this machine (partition: the one
    of the environment's VARLOK_PARTITION, else "varlok", unless given), or
    "host" or "host:port" for TCP. encoding is that of the controller's
    String tags; None gives them as bytes. WString tags are UTF-16.
    """

    def __init__(self, symbols, address=LOCAL, *, partition=None, encoding="utf-8"):
        if partition is not None and address != LOCAL:
            raise ValueError("a partition is chosen for shared memory (address 'Local') only")
        self.symbols = os.fsdecode(os.fspath(symbols))
        self.address = address
        self.partition = partition
        self.encoding = encoding
        self._varlok = None
        self._device = None
        self._lists = []

    def __repr__(self):
        state = "connected" if self._device is not None else "closed"
        return "<qorvarlok.Controller %r at %r, %s>" % (self.symbols, self.address, state)

    def __enter__(self):
        self.open()
        return self

    def __exit__(self, exc_type, exc, traceback):
        # An exception in flight is the one the caller sees; a failure of the
        # clean-up is raised only when there is none.
        self.close(raise_errors=exc_type is None)
        return False

    @property
    def connected(self):
        return self._device is not None

    @property
    def varlok(self):
        """The ZelVarlok object underneath, for what this layer does not cover."""
        return self._varlok

    def open(self):
        """InitializeCom and ConnectToPlcDevice; after a failure nothing stays open."""
        if self._varlok is not None:
            return
        local = self.address == LOCAL
        partition = _partition_for(self.partition) if local else None
        varlok = _raw.ZelVarlok()
        code = varlok.InitializeCom(_raw.COM_TYPE_LOCAL if local else _raw.COM_TYPE_TCP, self.symbols)
        if code:
            varlok.ExitVarlokCommunication()
            raise error_for(code, "InitializeCom", self.symbols)
        device, code = varlok.ConnectToPlcDevice(self.address)
        if device is None or code:
            varlok.ExitVarlokCommunication()
            raise error_for(code or _raw.ERR_CONNECT_FAILED, "ConnectToPlcDevice", self.address)
        if local:
            _bind_partition(partition)
        self._varlok, self._device = varlok, device

    def close(self, raise_errors=True):
        """Deletes the lists still defined, disconnects and exits. Every step
        runs; the first failure is raised afterwards (if raise_errors)."""
        if self._varlok is None:
            return
        errors = []
        for tag_list in list(self._lists):
            try:
                tag_list.close()
            except Exception as e:  # noqa: BLE001 - each step runs, the first failure is kept
                errors.append(e)
        varlok, device = self._varlok, self._device
        self._varlok = self._device = None
        code = varlok.DisconnectFromDevice(device)
        if code:
            errors.append(error_for(code, "DisconnectFromDevice"))
        code = varlok.ExitVarlokCommunication()
        if code:
            errors.append(error_for(code, "ExitVarlokCommunication"))
        if errors and raise_errors:
            raise errors[0]

    def _require_open(self):
        if self._varlok is None:
            raise VarlokConnectionError(_raw.ERR_COMMUNICATION_NOT_INITIALIZED, None, "the controller is not open")
        return self._varlok

    def tag_list(self, names):
        """A defined list of tags that keeps its handles: read() and write()
        move all its values, for the loop that runs again and again."""
        return TagList(self, names)

    def read(self, names):
        """The values of the named tags: a dict by name, or the one value for
        one name given as a str."""
        if isinstance(names, str):
            return self.read([names])[names]
        names = list(names)
        with self.tag_list(names) as tags:
            return dict(zip(names, tags.read()))

    def write(self, values):
        """Writes {name: value, ...}."""
        names = list(values)
        with self.tag_list(names) as tags:
            tags.write([values[name] for name in names])

    def describe(self, name):
        """The library's record of a tag (qorvarlok.TagDesc), None if there is none."""
        return self._require_open().GetTagDescByName(name)


def _check_defined(handle, code):
    if handle is None or code:
        raise error_for(code or _raw.ERR_INVALID_VAR_DEFS, "CreateTagsHandle")


class _Whole:
    """An array or structure of a list: it moves in a list of its own."""

    def __init__(self, position, name, desc, encoding):
        self.position = position
        self.name = name
        self.size = desc.Size
        self.is_array = desc.Type == ARRAY
        self.codec = ArrayCodec(name, desc.Size, desc.BaseType, encoding) if self.is_array else \
            Codec(name, STRUCTURE, desc.Size, desc.BaseType, encoding)
        self.handle = None


class TagList:
    """Tags defined once, read and written together.

    read() gives the values in the order of names; write() takes them in that
    order, or as a mapping by name. Elementary tags share one list and move in
    one command; each array and structure has a list of its own.
    """

    def __init__(self, controller, names):
        varlok = controller._require_open()
        self.controller = controller
        self.names = tuple(names)
        self._varlok = varlok
        self._shared = None
        self._shared_positions = []
        self._whole = []
        self._denied = None
        # One read or write of the list at a time: the library hands its values
        # out in the list's own buffer, which the next operation overwrites.
        self._lock = threading.Lock()
        try:
            self._define(varlok, controller.encoding)
        except BaseException:
            self._delete_all()
            raise
        controller._lists.append(self)

    def _define(self, varlok, encoding):
        shared_names = []
        for position, name in enumerate(self.names):
            desc = varlok.GetTagDescByName(name) if isinstance(name, str) else None
            if desc is not None and desc.Type in (ARRAY, STRUCTURE):
                whole = _Whole(position, name, desc, encoding)
                self._whole.append(whole)
                whole.handle, code = varlok.CreateTagsHandle(name)
                _check_defined(whole.handle, code)
            else:
                # Unknown names too: the library answers for them.
                shared_names.append(name)
                self._shared_positions.append(position)
        if shared_names or not self._whole:
            self._shared, code = varlok.CreateTagsHandle(shared_names)
            _check_defined(self._shared, code)
            # The list's own records: the types and sizes its values have.
            descs = varlok.GetTagDescByDefinedHandle(self._shared)
            self._codec = ListCodec([Codec(d.FullName, d.Type, d.Size, d.BaseType, encoding) for d in descs])
            self._denied = next((d.FullName for d in descs if not is_writable(d.AccessType)), None)
        self._only_shared = not self._whole

    def __enter__(self):
        return self

    def __exit__(self, exc_type, exc, traceback):
        self.close(raise_errors=exc_type is None)
        return False

    def __len__(self):
        return len(self.names)

    def __repr__(self):
        return "<qorvarlok.TagList of %d tags%s>" % (len(self.names), "" if self.defined else ", deleted")

    @property
    def defined(self):
        return self._shared is not None or any(w.handle is not None for w in self._whole)

    def _delete_all(self):
        codes = []
        handles = [self._shared] + [w.handle for w in self._whole]
        self._shared = None
        for w in self._whole:
            w.handle = None
        for handle in handles:
            if handle is not None:
                codes.append(self._varlok.DeleteTagsHandle(handle))
        return next((c for c in codes if c), 0)

    def close(self, raise_errors=True):
        """Deletes the list's handles; the list can no longer be used."""
        if self in self.controller._lists:
            self.controller._lists.remove(self)
        code = self._delete_all()
        if code and raise_errors:
            raise error_for(code, "DeleteTagsHandle")

    def read(self):
        """The values of all tags, in list order."""
        with self._lock:
            return self._read()

    def _read(self):
        varlok = self._varlok
        if self._shared is not None:
            code, data = varlok.ReadTagList_INTERFACE_1(self._shared)
            if code:
                raise error_for(code, "ReadTagList")
            if len(data) != self._codec.struct.size:
                raise error_for(_raw.ERR_READ_FAILED, "ReadTagList",
                                "%d bytes for a list of %d" % (len(data), self._codec.struct.size))
            shared = self._codec.unpack(data)
            if self._only_shared:
                return shared
        elif not self._whole:
            raise self._deleted()
        values = [None] * len(self.names)
        if self._shared is not None:
            for position, value in zip(self._shared_positions, shared):
                values[position] = value
        for whole in self._whole:
            values[whole.position] = self._read_whole(varlok, whole)
        return values

    def _read_whole(self, varlok, whole):
        if whole.handle is None:
            raise self._deleted()
        data = bytearray(max(whole.size, 0))
        if whole.is_array:
            code = varlok.ReadArray(whole.handle, whole.codec.element_length, data, 0, 0)
            check(code, "ReadArray")
            return whole.codec.unpack(data)
        check(varlok.ReadStructField(whole.handle, data, whole.size), "ReadStructField")
        return bytes(data)

    def write(self, values):
        """Writes all tags: values in list order, or a mapping by name."""
        with self._lock:
            self._write(values)

    def _write(self, values):
        if isinstance(values, Mapping):
            missing = [name for name in self.names if name not in values]
            if missing:
                raise TagValueError(_raw.ERR_UNMATCH_WITH_DEFINE, "WriteTagList", "no value for %s" % missing[0])
            values = [values[name] for name in self.names]
        else:
            values = list(values)
        if len(values) != len(self.names):
            raise TagValueError(_raw.ERR_UNMATCH_WITH_DEFINE, "WriteTagList",
                                "%d values for %d tags" % (len(values), len(self.names)))
        if not self.defined:
            raise self._deleted()
        varlok = self._varlok
        if self._shared is not None:
            if self._denied is not None:
                # The raw write looks at the first tag's access only; the others
                # are checked here as the text write of the library checks them.
                raise TagValueError(_raw.ERR_READ_WRITE_DENIED, "WriteTagList", self._denied)
            data = self._codec.pack([values[p] for p in self._shared_positions])
            check(varlok.WriteTagList2(self._shared, data, len(self._shared_positions)), "WriteTagList")
        for whole in self._whole:
            if whole.handle is None:
                raise self._deleted()
            data = whole.codec.pack(values[whole.position]) if whole.is_array else \
                whole.codec.pack_one(values[whole.position])
            if whole.is_array:
                check(varlok.WriteArray(whole.handle, whole.codec.element_length, data, 0, 0), "WriteArray")
            else:
                check(varlok.WriteStructField(whole.handle, data, whole.size), "WriteStructField")

    def _deleted(self):
        return error_for(_raw.ERR_INVALID_TAG_HANDLE, "TagList", "the list has been deleted")
