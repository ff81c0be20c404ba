"""The Python module against a real varlok-sim in another process: the
pythonic layer, the codes it raises, and the generated layer underneath.
Values written here are read back by the C++ command-line tool, and the
other way round, so that both ends agree on the bytes."""

import math
import os
import struct
import subprocess
import sys

import pytest

import qorvarlok
from qorvarlok import TagDefinitionError, TagValueError, VarlokConnectionError, VarlokError
from conftest import CLI, DEMO, Sim, cli_read


# ------------------------------------------------------------------ browsing

def test_browse_gives_type_size_access_and_comment(demo):
    tags = {t.full_name: t for t in qorvarlok.browse(demo)}
    expected = [
        ("App.GVL.counter", "DInt", 4, "ReadWrite", "incremented by the demo task every cycle", None),
        ("App.GVL.température", "Real", 4, "Read", "temperature in °C", None),
        ("App.GVL.setpoint", "LReal", 8, "Write", "speed setpoint, written by the HMI only", None),
        ("App.GVL.counters", "Array", 40, "ReadWrite", "ten counters", "DInt"),
        ("App.GVL.motor", "Structure", 48, "ReadWrite", "main drive", None),
        ("App.GVL.mode", "Enum", 2, "ReadWrite", "operating mode", "Int"),
        ("App.Types.ws40", "WString", 82, "ReadWrite", None, None),
    ]
    for name, type_name, size, access, comment, element in expected:
        tag = tags[name]
        assert (tag.type, tag.size, tag.access, tag.comment, tag.element_type) == \
               (type_name, size, access, comment, element), name
    assert tags["App.GVL.motor"].name == "motor"
    # Members of structures are listed; the groups of the tree are not.
    assert any(name.startswith("App.GVL.motor.") for name in tags)
    assert "App" not in tags and "App.GVL" not in tags


def test_browse_of_a_broken_file_raises_the_line_error(tmp_path):
    broken = tmp_path / "broken.xml"
    broken.write_text('<?xml version="1.0"?>\n<Symbolconfiguration>\n<Header/>\n<TypeList>\n'
                      '<TypeSimple name="T" iecname="DINT" typeclass="DInt"/>\n</TypeList>\n<NodeList/>\n'
                      '</Symbolconfiguration>\n')
    with pytest.raises(qorvarlok.SymbolFileError) as failure:
        list(qorvarlok.browse(broken))
    assert failure.value.code == 0x12000005
    assert failure.value.text == "符号配置文件行错误(5 行)"
    with pytest.raises(qorvarlok.SymbolFileError) as failure:
        list(qorvarlok.browse(tmp_path / "missing.xml"))
    assert failure.value.code == qorvarlok.ERR_XML_ILLEGL_XML_FORMAT


# ------------------------------------------------------------- the lifecycle

def test_context_manager_cleans_up_after_an_exception(sim):
    with pytest.raises(KeyError):
        with qorvarlok.Controller(DEMO, partition=sim.partition) as plc:
            varlok = plc.varlok
            tags = plc.tag_list(["App.GVL.counter"])
            handle = tags._shared
            assert varlok.GetTagsListLength(handle) == 1
            raise KeyError("the caller's own failure")
    assert not plc.connected and not tags.defined
    # Disconnected and exited: the list is gone, and connecting again needs
    # a new InitializeCom.
    assert varlok.GetTagsListLength(handle) == 0
    device, code = varlok.ConnectToPlcDevice("Local")
    assert (device, code) == (None, qorvarlok.ERR_COMMUNICATION_NOT_INITIALIZED)


def test_a_failed_open_leaves_nothing_open(sim, tmp_path):
    controller = qorvarlok.Controller(tmp_path / "missing.xml", partition=sim.partition)
    with pytest.raises(qorvarlok.SymbolFileError) as failure:
        controller.open()
    assert failure.value.operation == "InitializeCom"
    assert not controller.connected and controller.varlok is None


# ------------------------------------------------------------------ values

ELEMENTARY = [
    ("App.Types.vBool", True, "TRUE"),
    ("App.Types.vByte", 200, "200"),
    ("App.Types.vUSInt", 255, "255"),
    ("App.Types.vSInt", -100, "-100"),
    ("App.Types.vWord", 60000, "60000"),
    ("App.Types.vUInt", 65535, "65535"),
    ("App.Types.vInt", -30000, "-30000"),
    ("App.Types.vDWord", 4000000000, "4000000000"),
    ("App.Types.vUDInt", 4294967295, "4294967295"),
    ("App.Types.vDInt", -2000000000, "-2000000000"),
    ("App.Types.vReal", 1.5, "1.5"),
    ("App.Types.vTime", 123456, "123456"),
    ("App.Types.vDate", 19000, "19000"),
    ("App.Types.vTimeOfDay", 43200000, "43200000"),
    ("App.Types.vDateAndTime", 1700000000, "1700000000"),
    ("App.Types.vTod", 1, "1"),
    ("App.Types.vDt", 2, "2"),
    ("App.Types.vLWord", 2 ** 64 - 1, str(2 ** 64 - 1)),
    ("App.Types.vULInt", 2 ** 63, str(2 ** 63)),
    ("App.Types.vLInt", -2 ** 63, str(-2 ** 63)),
    ("App.Types.vLReal", math.pi, repr(math.pi)),
    ("App.Types.vPointer", bytes(range(8)), "00 01 02 03 04 05 06 07"),
    ("App.GVL.mode", 99, "99"),
    ("App.GVL.percent", 100, "100"),
]


def test_every_elementary_type_written_and_read_back(sim, plc):
    plc.write({name: value for name, value, _ in ELEMENTARY})
    values = plc.read([name for name, _, _ in ELEMENTARY])
    assert values == {name: value for name, value, _ in ELEMENTARY}
    assert type(values["App.Types.vBool"]) is bool and type(values["App.Types.vReal"]) is float
    # The C++ tool reads the same values.
    lines = cli_read(sim, *[name for name, _, _ in ELEMENTARY if not name.startswith("App.GVL")])
    assert lines == ["%s = %s" % (name, text) for name, _, text in ELEMENTARY if not name.startswith("App.GVL")]


def test_values_written_by_the_cpp_tool_read_in_python(sim, plc):
    subprocess.run([CLI, "write", "--symbols", DEMO, "--partition", sim.partition, "App.Types.vInt=-1234",
                    "App.Types.s40=abc", "App.Types.vLReal=-0.25"], check=True)
    assert plc.read(["App.Types.vInt", "App.Types.s40", "App.Types.vLReal"]) == \
        {"App.Types.vInt": -1234, "App.Types.s40": "abc", "App.Types.vLReal": -0.25}


def test_strings_with_text_beyond_ascii(sim, plc):
    plc.write({"App.Types.s40": "Grüße, 温度 °C", "App.Types.ws10": "温度 °C ✓", "App.Types.s10": "0123456789"})
    assert plc.read(["App.Types.s40", "App.Types.ws10", "App.Types.s10"]) == \
        {"App.Types.s40": "Grüße, 温度 °C", "App.Types.ws10": "温度 °C ✓", "App.Types.s10": "0123456789"}
    assert cli_read(sim, "App.Types.s40", "App.Types.ws10") == \
        ["App.Types.s40 = 'Grüße, 温度 °C'", "App.Types.ws10 = '温度 °C ✓'"]
    # Another encoding of String tags, and their bytes as they are.
    with qorvarlok.Controller(DEMO, partition=sim.partition, encoding="gbk") as gbk:
        gbk.write({"App.Types.s40": "温度"})
    with qorvarlok.Controller(DEMO, partition=sim.partition, encoding=None) as raw:
        assert raw.read("App.Types.s40") == "温度".encode("gbk")


def test_arrays_and_a_structure(sim, plc):
    motor = bytes(range(48))
    plc.write({
        "App.GVL.counters": list(range(-5, 5)),
        "App.Types.flags": [i % 3 == 0 for i in range(16)],
        "App.GVL.cube": list(range(100, 124)),
        "App.GVL.motor": motor,
    })
    values = plc.read(["App.GVL.counters", "App.Types.flags", "App.GVL.cube", "App.GVL.motor", "App.GVL.counter"])
    assert values["App.GVL.counters"] == list(range(-5, 5))
    assert values["App.Types.flags"] == [i % 3 == 0 for i in range(16)]
    assert values["App.GVL.cube"] == list(range(100, 124))
    assert values["App.GVL.motor"] == motor and isinstance(values["App.GVL.counter"], int)
    assert cli_read(sim, "App.GVL.counters", "App.GVL.motor") == [
        "App.GVL.counters = [-5, -4, -3, -2, -1, 0, 1, 2, 3, 4]",
        "App.GVL.motor = " + " ".join("%02x" % b for b in motor)]
    # Strings of a declared length other than the library's element width
    # cannot be told apart: such an array moves as its bytes.
    names = b"".join(n.ljust(21, b"\0") for n in (b"a", b"b", b"c", b"d", b"e"))
    plc.write({"App.Types.names": names})
    assert plc.read("App.Types.names") == names


def test_the_list_object_keeps_its_handles(sim, plc):
    names = ["App.Types.vDInt", "App.GVL.counters", "App.Types.s10", "App.GVL.motor"]
    with plc.tag_list(names) as tags:
        tags.write([7, list(range(10)), "x", bytes(48)])
        assert tags.read() == [7, list(range(10)), "x", bytes(48)]
        tags.write({"App.Types.vDInt": 8, "App.GVL.counters": [1] * 10, "App.Types.s10": "y",
                    "App.GVL.motor": b"\1" * 48})
        assert tags.read() == [8, [1] * 10, "y", b"\1" * 48]
        ticks = plc.tag_list(["App.GVL.counter"])
        first, = ticks.read()
        assert ticks.read()[0] >= first
    assert not tags.defined
    with pytest.raises(TagDefinitionError) as failure:
        tags.read()
    assert failure.value.code == qorvarlok.ERR_INVALID_TAG_HANDLE


# -------------------------------------------------------------- the failures

# Over TCP the controller checks access itself and answers with its own code.
TCP_DENIED = {"TCP": qorvarlok.ERR_TAG_NO_ACCESS_RIGHTS}

FAILURES = [
    # what is done, the class raised, the code (by transport where they differ)
    (lambda p: p.read(["App.GVL.counter", "App.GVL.nothing"]), TagDefinitionError, qorvarlok.ERR_EXIST_INVAILD_VAR),
    (lambda p: p.read(["App.GVL.counter", "App.GVL.setpoint"]), TagValueError,
     dict(TCP_DENIED, Local=qorvarlok.ERR_READ_WRITE_DENIED)),
    (lambda p: p.write({"App.GVL.sine": 1.0}), TagValueError, qorvarlok.ERR_READ_WRITE_DENIED),
    (lambda p: p.write({"App.Types.vDInt": 1, "App.GVL.sine": 1.0}), TagValueError, qorvarlok.ERR_READ_WRITE_DENIED),
    (lambda p: p.write({"App.GVL.grid": bytes(48)}), TagValueError,
     dict(TCP_DENIED, Local=qorvarlok.ERR_READ_WRITE_DENIED)),
    (lambda p: p.write({"App.Types.vSInt": 200}), TagValueError, qorvarlok.ERR_WRITE_FAILED),
    (lambda p: p.write({"App.Types.vDInt": "12"}), TagValueError, qorvarlok.ERR_WRITE_FAILED),
    (lambda p: p.write({"App.Types.vBool": 2}), TagValueError, qorvarlok.ERR_WRITE_FAILED),
    (lambda p: p.write({"App.Types.s10": "01234567890"}), TagValueError, qorvarlok.ERR_OVERSTEP_ACCESS),
    (lambda p: p.write({"App.Types.ws10": "温" * 11}), TagValueError, qorvarlok.ERR_OVERSTEP_ACCESS),
    (lambda p: p.write({"App.GVL.motor": bytes(47)}), TagValueError, qorvarlok.ERR_UNALIGNED_STRUCT),
    (lambda p: p.write({"App.GVL.counters": [1, 2]}), TagValueError, qorvarlok.ERR_UNMATCH_WITH_DEFINE),
    (lambda p: p.tag_list(["App.Types.vInt", "App.Types.vDInt"]).write([1]), TagValueError,
     qorvarlok.ERR_UNMATCH_WITH_DEFINE),
]


@pytest.mark.parametrize("action, kind, code", FAILURES)
def test_each_failure_raises_its_code(plc, action, kind, code):
    if isinstance(code, dict):
        code = code["Local" if plc.address == qorvarlok.LOCAL else "TCP"]
    with pytest.raises(kind) as failure:
        action(plc)
    assert failure.value.code == code
    assert str(failure.value).find("0x%08X %s" % (code, failure.value.text)) >= 0
    assert plc.read("App.Types.vInt") is not None  # the connection stays usable


def test_error_texts_come_from_the_library_in_gbk():
    error = qorvarlok.error_class(qorvarlok.ERR_READ_WRITE_DENIED)(qorvarlok.ERR_READ_WRITE_DENIED, "ReadTagList")
    assert str(error) == "ReadTagList: 0x10000522 读写数据权限不正确"
    assert qorvarlok.ReadErrorDescription(qorvarlok.ERR_READ_WRITE_DENIED) == "读写数据权限不正确".encode("gbk")
    families = {0x10000103: VarlokConnectionError, 0x1000010B: VarlokConnectionError, 0x10000200: VarlokConnectionError,
                0x10000308: TagDefinitionError, 0x10000403: TagDefinitionError, 0x10000501: TagDefinitionError,
                0x10000400: qorvarlok.SymbolFileError, 0x12000007: qorvarlok.SymbolFileError,
                0x10000512: TagValueError, 0xFFFFFFFF: VarlokConnectionError, 0x20000000: VarlokError}
    assert {code: qorvarlok.error_class(code) for code in families} == families
    assert issubclass(TagValueError, ValueError)


# ------------------------------------------------------ partitions and TCP

def test_a_second_partition_over_shared_memory_is_refused(sim):
    with qorvarlok.Controller(DEMO, partition=sim.partition), pytest.raises(VarlokConnectionError) as failure:
        qorvarlok.Controller(DEMO, partition=sim.partition + "-other").open()
    assert failure.value.code == qorvarlok.ERR_CONNECT_FAILED and "TCP" in failure.value.detail


@pytest.mark.tcp
def test_two_controllers_on_two_partitions_over_tcp(sim):
    other = Sim("qv-python-%d-b" % os.getpid(), tcp=True)
    try:
        with qorvarlok.Controller(DEMO, sim.tcp) as a, qorvarlok.Controller(DEMO, other.tcp) as b, \
                qorvarlok.Controller(DEMO, partition=sim.partition) as plc:
            a.write({"App.Types.vDInt": 1111})
            b.write({"App.Types.vDInt": 2222})
            assert (a.read("App.Types.vDInt"), b.read("App.Types.vDInt")) == (1111, 2222)
            # The first is the one this process reaches through shared memory.
            assert plc.read("App.Types.vDInt") == 1111
    finally:
        other.stop()
    with pytest.raises(VarlokConnectionError) as failure:
        qorvarlok.Controller(DEMO, other.tcp).open()
    assert failure.value.code == qorvarlok.ERR_CONNECT_FAILED


# ------------------------------------------------------- the generated layer

def test_the_generated_layer_as_the_cpp_interface(sim, plc):
    varlok = plc.varlok
    handle, code = varlok.CreateTagsHandle(qorvarlok.StringVector(["App.Types.vInt", "App.Types.s10"]))
    assert code == 0
    plc.write({"App.Types.vInt": -2, "App.Types.s10": "ab"})
    values = qorvarlok.VectorTagVarValue()
    assert varlok.ReadTagList(handle, values) == (0, 2)
    assert [(v.FullName, v.Type, v.ValueLength) for v in values] == [("App.Types.vInt", 6, 2), ("App.Types.s10", 17, 11)]
    assert values[0].GetValueBytes() == struct.pack("<h", -2)
    assert varlok.ReadTagList_INTERFACE_1(handle) == (0, struct.pack("<h", -2) + b"ab".ljust(11, b"\0"))
    assert varlok.WriteTagList(handle, qorvarlok.StringVector(["5", "cd"])) == 0
    assert plc.read(["App.Types.vInt", "App.Types.s10"]) == {"App.Types.vInt": 5, "App.Types.s10": "cd"}
    assert varlok.DeleteTagsHandle(handle) == 0
    assert varlok.DeleteTagsHandle(handle) == qorvarlok.ERR_INVALID_TAG_HANDLE


def test_raw_buffers_are_checked_before_the_library_copies(plc):
    varlok = plc.varlok
    array, _ = varlok.CreateTagsHandle("App.GVL.counters")
    motor, _ = varlok.CreateTagsHandle("App.GVL.motor")
    try:
        buffer = bytearray(40)
        assert varlok.ReadArray(array, 4, buffer, 0, 0) == 0
        assert varlok.ReadArray(array, 4, bytearray(8), 8, 2) == 0
        with pytest.raises(ValueError):
            varlok.ReadArray(array, 4, bytearray(39), 0, 0)
        with pytest.raises(ValueError):
            varlok.ReadArray(array, 4, bytearray(7), 8, 2)
        with pytest.raises(BufferError):
            varlok.ReadArray(array, 4, bytes(40), 0, 0)  # a read needs a writable buffer
        with pytest.raises(ValueError):
            varlok.WriteArray(array, 4, bytes(39), 0, 0)
        with pytest.raises(ValueError):
            varlok.ReadStructField(motor, bytearray(47), 48)
        with pytest.raises(ValueError):
            varlok.WriteStructField(motor, bytes(47), 47)
        assert varlok.ReadStructField(motor, bytearray(48), 48) == 0
        # A range of elements: over TCP the library writes the whole array
        # from the buffer, which must then hold all of it.
        plc.write({"App.GVL.counters": list(range(10))})
        if plc.address == qorvarlok.LOCAL:
            assert varlok.WriteArray(array, 4, struct.pack("<i", 77), 3, 1) == 0
            assert plc.read("App.GVL.counters") == [0, 1, 2, 77, 4, 5, 6, 7, 8, 9]
        else:
            with pytest.raises(ValueError):
                varlok.WriteArray(array, 4, struct.pack("<i", 77), 3, 1)
            assert varlok.WriteArray(array, 4, struct.pack("<10i", *range(10, 20)), 3, 1) == 0
            assert plc.read("App.GVL.counters") == list(range(10, 20))
        # A range beyond the array and a null buffer are the library's to
        # answer: the null one as a caught fault, 0, and the process lives on.
        assert varlok.ReadArray(array, 4, bytearray(40), 9, 2) == qorvarlok.ERR_OVERSTEP_ACCESS
        assert varlok.ReadStructField(motor, None, 48) == 0
    finally:
        varlok.DeleteTagsHandle(array)
        varlok.DeleteTagsHandle(motor)


def test_the_logger_example_writes_csv(sim, tmp_path):
    example = os.path.join(os.environ["QORVARLOK_EXAMPLES"], "logger.py")
    out = tmp_path / "log.csv"
    env = dict(os.environ, VARLOK_PARTITION=sim.partition)
    subprocess.run([sys.executable, example, DEMO, str(out), "5", "App.GVL.counter", "App.GVL.message"],
                   env=env, check=True, timeout=60)
    rows = [line.split(",") for line in out.read_text().splitlines()]
    assert rows[0] == ["time", "App.GVL.counter", "App.GVL.message"] and len(rows) == 6
    counters = [int(row[1]) for row in rows[1:]]
    assert counters == sorted(counters) and counters[-1] > counters[0]
