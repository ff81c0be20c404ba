// The shared records and the description lookup: every row's bytes in both
// languages, line errors, unknown codes, the conversions and a default record.
#include <gtest/gtest.h>

#include <string>

#include "QorVarlok/ZelVarlok.h"
#include "TestSystem.h"
#include "VarlokTypes.h"

namespace {

// The expected texts are written here in UTF-8; the library holds them in GBK.
std::string toGbk(const std::string& utf8) { return testsys::Utf8ToGbk(utf8); }

std::string describe(int language, unsigned int code) {
  qorvarlok::SetVarlokLanguage(language);
  const char* t = ReadErrorDescription(code);
  qorvarlok::SetVarlokLanguage(0);  // the library starts in Chinese; leave it so
  return t == nullptr ? "<null>" : t;
}

struct Row {
  unsigned int code;
  const char* chinese;
  const char* english;
};

// The whole table in its order, slips and the trailing blank included.
const Row kRows[] = {
    {ERR_MAINCLIENT_INIT_FAILED, "初始化客户端通信失败", "Initialize client communication failed"},
    {ERR_COMMUNICATION_NOT_INITIALIZED, "对象没有初始化化，需要调用InitializeCom", "The communication has not been initialized"},
    {ERR_TOO_MANY_GW_CLIENTS, "连接个数超限", "There is too many connections"},
    {ERR_CONNECT_FAILED, "通信连接失败,1.PLC未启动或异常关闭 2.TCP网络不通", "Connect failed,Maybe the network is not working"},
    {ERR_NOT_CONNECTED, "通信连接断开,需重新建立连接", "Communication has been closed,please connect again"},
    {ERR_INVALID_GW_CONNECTION, "网关未连接或者已经断开,需要重新连接", "Gateway has not been connected or been closed,please connect again"},
    {ERR_CURRENTCOM_EXIST, "当前对象已初始化，无需再次初始化", "Initialize Failed,current object had been initialized"},
    {ERR_MISMATCH_COMTYPE, "连接方式与不匹配", "Comtype is not match with para."},
    {ERR_INSUFFICIENT_SHMAREA_SIZE, "分配的共享内存空间不足", "Share memory is not enought."},
    {ERR_SHMAREA_INIT_FAILED, "共享内存映射失败，请检查共享内存配置是否正确", "Share memory mapped failed,please check whether the share memory configuration correct."},
    {ERR_WAIT_TIMEOUT, "等待超时，可能连接已经断开", "Wait timeout, maybe connection has been closed"},
    {ERR_VENDER_NOT_MATCHED, "连接PLC厂商不匹配", "The vendor of PLC to connect is unmatched"},
    {ERR_USER_NAME_OR_PASSWORD, "用户名或者密码错误", "Wrong user name or password"},
    {ERR_RTOS_SEND_EVENT_FAILED, "RTOS发送共享内存事件失败", "Send rtos event to PLC failed"},
    {ERR_RTOS_RECV_EVENT_FAILED, "RTOS接收共享内存事件失败", "Receive rtos event from PLC failed"},
    {ERR_PLC_CONNECT_FAILED, "连接PLC失败", "Connect to PLC failed"},
    {ERR_PLC_DEFINE_FAILED, "创建或删除标签失败", "Define or Delete TagList in PLC is failed"},
    {ERR_PLC_READ_WRITE_FAILED, "读写数据失败", "Read or Write data in PLC is failed"},
    {ERR_PLC_INVALID_SEQUENCE, "使用无效的序列号读写数据", "Read or Write data with invalid sequence id"},
    {ERR_PLC_INVALID_HANDLE, "读写数据所用的标签句柄是无效的", "Read or Write data with invalid tag handle"},
    {ERR_PLC_INVALID_HANDLE_ID, "使用无效的标签句柄ID读写数据", "Read or Write data with invalid tag handle id"},
    {ERR_XML_ILLEGL_XML_FORMAT, "符号配置文件不是XML文件格式", "The symbol configuration file is not valid xml"},
    {ERR_XML_NO_SYMB_MARK, "符号配置文件没有符号信息开始标识", "The symbol configuration file dose not has a symbol beginning mark"},
    {ERR_XML_NO_HEADER, "符号配置文件没有头部信息", "The symbol configuration file dose not has a header"},
    {ERR_INVALID_TAG_HANDLE, "无效的标签句柄", "Invalid tag handle"},
    {ERR_XML_NOT_EXIST, "符号配置文件不存在", "The symbol configuration is not exist"},
    {ERR_XML_TYPE_DEF_ERROR, "符号配置标签类型不正确", "The symbol configuration has an error type definition"},
    {ERR_XML_LINE_ERROR, "符号配置文件行错误(%d 行)", "The symbol configuration file has a line error(Line %d)"},
    {ERR_EXIST_INVAILD_VAR, "注册变量和PLC中符号不匹配", "The variables definition is unmatched to the PLC"},
    {ERR_INVALID_DEVICE_CLIENT, "通讯未建立，需要建立连接", "Invalid client, please connect again"},
    {ERR_INVALID_VAR_DEFS, "无效句柄，请注册句柄(CreateTagsHandle )", "Invalid variables definition, please define again"},
    {ERR_REF_TYPE_NO_WRITING, "不能写入引用类型变量", "No writing to reference type variables"},
    {ERR_TAG_NO_ACCESS_RIGHTS, "存在变量无访问权限", "Exsit variables with no access rights"},
    {ERR_TOO_MANY_TAGS, "注册句柄返回变量数量超过上限", "There is too many tags"},
    {ERR_VACACCESS_TAGS_CHANGED, "符号变量定义发生变化,需要重新定义", "The variables definition is changed"},
    {ERR_TOO_MUCH_DATA_WRITTEN, "写入的变量值数据太多", "Too much data written"},
    {ERR_OVERSTEP_ACCESS, "PLC与上位数组长度不匹配，请检查数组是否会越界", "Array Access overstep,may bey the length of the arrays is too short."},
    {ERR_UNALIGNED_STRUCT, "PLC与上位结构体长度不匹配，需要参考案例", "The boundary alignment between the structure and the PLC structure is inconsistent. Select the compatibility layout when exporting the symbol configuration"},
    {ERR_UNMATCH_TYPE_PARA, "接口与定义的参数存在不匹配的类型", "Description The defined parameter contained a type that did not match the interface. "},
    {ERR_UNMATCH_WITH_DEFINE, "上位定义变量的数据类型与PLC中变量的类型不匹配", "The defined parameter does not match the input"},
    {ERR_READ_FAILED, "读数读取失败", "Reading failed"},
    {ERR_WRITE_FAILED, "写入失败，可能存在异常的输入值", "Write failed. An abnormal input value may exist"},
    {ERR_READ_WRITE_DENIED, "读写数据权限不正确", "Read Write data right is incorrect"},
    {ERR_INVALID_PARAMS, "输入参数是无效的", "Input parameters are invalid"},
};

TEST(ErrorTable, EveryRowGivesItsBytesInBothLanguages) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(::testing::Message() << std::hex << "code 0x" << row.code);
    if (row.code == ERR_XML_LINE_ERROR) continue;  // a format, checked below
    EXPECT_EQ(describe(0, row.code), toGbk(row.chinese));
    EXPECT_EQ(describe(1, row.code), row.english);
  }
}

TEST(ErrorTable, SuccessLineErrorsAndUnknownCodes) {
  const Row cases[] = {
      {ERR_NOERROR, "无错误", "not an error"},
      {0x12000000u | 7u, "符号配置文件行错误(7 行)", "The symbol configuration file has a line error(Line 7)"},
      // Only the two flag bits are cleared.
      {0x13000005u, "符号配置文件行错误(16777221 行)", "The symbol configuration file has a line error(Line 16777221)"},
      {ERR_UNDEFINED, "未定义错误码(ID:1)", "Undefined error(ID:1)"},
      {ERR_INVALID_COMTYPE, "未定义错误码(ID:1000010a)", "Undefined error(ID:1000010a)"},
      {0x02000000u, "未定义错误码(ID:2000000)", "Undefined error(ID:2000000)"},
  };
  for (const Row& c : cases) {
    SCOPED_TRACE(::testing::Message() << std::hex << "code 0x" << c.code);
    EXPECT_EQ(describe(0, c.code), toGbk(c.chinese));
    EXPECT_EQ(describe(1, c.code), c.english);
  }
  EXPECT_EQ(std::string(ReadErrorDescription(0)), "\xCE\xDE\xB4\xED\xCE\xF3");  // Chinese by default
}

struct Conversion {
  const char* what;
  int got;
  int expected;
};

TEST(Conversions, EdgeCases) {
  using namespace qorvarlok;
  const Conversion cases[] = {
      {"Bool", toTagTypeCode("Bool", nullptr, "BOOL"), 0},
      {"LInt", toTagTypeCode("LInt", nullptr, "LINT"), 8},
      {"Tod alias", toTagTypeCode("Tod", nullptr, "TOD"), 21},
      {"Dt alias", toTagTypeCode("Dt", nullptr, "DT"), 22},
      {"Bit", toTagTypeCode("Bit", nullptr, "BIT"), 25},
      {"Userdef UNION", toTagTypeCode("Userdef", "UNION", "U"), 13},
      {"Userdef STRUCTURE wins over the name", toTagTypeCode("Userdef", "STRUCTURE", "TYPE_REFERENCE"), 15},
      {"Userdef FUNCTION_BLOCK", toTagTypeCode("Userdef", "FUNCTION_BLOCK", "FB"), 16},
      {"Userdef reference by name", toTagTypeCode("Userdef", nullptr, "TYPE_REFERENCE"), 24},
      {"Userdef without class", toTagTypeCode("Userdef", nullptr, "POINT"), VARLOK_NOT_SET},
      {"Userdef lower-case class", toTagTypeCode("Userdef", "structure", "S"), VARLOK_NOT_SET},
      {"plain class ignores POU class", toTagTypeCode("DInt", "STRUCTURE", "TYPE_REFERENCE"), 7},
      {"case-sensitive", toTagTypeCode("DINT", nullptr, "DINT"), VARLOK_NOT_SET},
      {"trailing blank", toTagTypeCode("DInt ", nullptr, "DINT"), VARLOK_NOT_SET},
      {"null class", toTagTypeCode(nullptr, "STRUCTURE", "TYPE_REFERENCE"), VARLOK_NOT_SET},
      {"VAR_IN_OUT", toVarKind("VAR_IN_OUT"), 3},
      {"VAR_OUTPUT", toVarKind("VAR_OUTPUT"), 2},
      {"var", toVarKind("var"), 32767},
      {"VAR_TEMP", toVarKind("VAR_TEMP"), 32767},
      {"null kind", toVarKind(nullptr), 32767},
      {"Write", toAccessType("Write"), 1},
      {"ReadWrite", toAccessType("ReadWrite"), 2},
      {"READWRITE", toAccessType("READWRITE"), 32767},
      {"null access", toAccessType(nullptr), 32767},
      {"width Bool", baseByteLength(0), 1},
      {"width LReal", baseByteLength(11), 8},
      {"width String", baseByteLength(17), 81},
      {"width WString", baseByteLength(18), 162},
      {"width DateAndTime", baseByteLength(22), 4},
      {"width Structure", baseByteLength(15), 0},
      {"width of a code past the end", baseByteLength(26), 0},
      {"width of not-set", baseByteLength(VARLOK_NOT_SET), 0},
      {"width of a negative code", baseByteLength(-1), 0},
  };
  for (const Conversion& c : cases) EXPECT_EQ(c.got, c.expected) << c.what;
}

TEST(Records, DefaultTagDescIsNotSetRatherThanBool) {
  const tagTagDesc d;
  EXPECT_EQ(d.Name, nullptr);
  EXPECT_EQ(d.FullName, nullptr);
  EXPECT_EQ(d.Comment, nullptr);
  EXPECT_EQ(d.TagsHandle, nullptr);
  for (int field : {d.Type, d.AccessType, d.VarType, d.BaseType}) EXPECT_EQ(field, 32767);
  for (int field : {d.Size, d.MinValue, d.MaxValue, d.EnumValue}) EXPECT_EQ(field, 0);
}

}  // namespace
