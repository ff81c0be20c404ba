// The description table and its lookup: every row's bytes in both languages,
// success, line errors and unknown codes.
#include <gtest/gtest.h>
#include <iconv.h>

#include <cstring>
#include <string>

#include "QorVarlok/ZelVarlok.h"
#include "VarlokTypes.h"

namespace {

// The expected texts are written here in UTF-8; the library holds them in GBK.
std::string toGbk(const std::string& utf8) {
  iconv_t cd = iconv_open("GBK", "UTF-8");
  if (cd == reinterpret_cast<iconv_t>(-1)) {
    ADD_FAILURE() << "no GBK converter in this C library";
    return std::string();
  }
  std::string out(utf8.size() * 2 + 1, '\0');
  char* in = const_cast<char*>(utf8.data());
  size_t inLeft = utf8.size();
  char* outPtr = &out[0];
  size_t outLeft = out.size();
  const size_t r = iconv(cd, &in, &inLeft, &outPtr, &outLeft);
  iconv_close(cd);
  EXPECT_NE(r, static_cast<size_t>(-1)) << "not convertible to GBK: " << utf8;
  out.resize(out.size() - outLeft);
  return out;
}

// Every test leaves the language as the library starts: Chinese.
class ErrorTable : public ::testing::Test {
 protected:
  void TearDown() override { qorvarlok::SetVarlokLanguage(0); }
  static std::string chinese(unsigned int code) {
    qorvarlok::SetVarlokLanguage(0);
    const char* t = ReadErrorDescription(code);
    return t == nullptr ? "<null>" : t;
  }
  static std::string english(unsigned int code) {
    qorvarlok::SetVarlokLanguage(1);
    const char* t = ReadErrorDescription(code);
    return t == nullptr ? "<null>" : t;
  }
};

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

TEST_F(ErrorTable, EveryRowGivesItsBytesInBothLanguages) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(::testing::Message() << std::hex << "code 0x" << row.code);
    if (row.code == ERR_XML_LINE_ERROR) continue;  // a format, checked below
    EXPECT_EQ(chinese(row.code), toGbk(row.chinese));
    EXPECT_EQ(english(row.code), row.english);
  }
}

TEST_F(ErrorTable, UnformattedTextsAreConstantStorage) {
  // Callers may keep these pointers; only formatted texts share the buffer.
  const char* first = ReadErrorDescription(ERR_INVALID_TAG_HANDLE);
  ReadErrorDescription(0x12000003u);
  ReadErrorDescription(ERR_UNDEFINED);
  EXPECT_EQ(ReadErrorDescription(ERR_INVALID_TAG_HANDLE), first);
  EXPECT_EQ(std::string(first), toGbk("无效的标签句柄"));
}

TEST_F(ErrorTable, FormattedTextsShareOneBuffer) {
  const char* a = ReadErrorDescription(0x12000003u);
  const char* b = ReadErrorDescription(0x10000108u);
  EXPECT_EQ(a, b);
  EXPECT_EQ(std::string(a), toGbk("未定义错误码(ID:10000108)"));
}

struct Lookup {
  const char* what;
  unsigned int code;
  const char* chinese;
  const char* english;
};

TEST_F(ErrorTable, SuccessLineErrorsAndUnknownCodes) {
  const Lookup cases[] = {
      {"success", ERR_NOERROR, "无错误", "not an error"},
      {"line error flag alone matches its own record", 0x12000000u, "符号配置文件行错误(%d 行)",
       "The symbol configuration file has a line error(Line %d)"},
      {"line 7", 0x12000000u | 7u, "符号配置文件行错误(7 行)", "The symbol configuration file has a line error(Line 7)"},
      {"only the two flag bits are cleared", 0x13000005u, "符号配置文件行错误(16777221 行)",
       "The symbol configuration file has a line error(Line 16777221)"},
      {"a mask test, not an equality", 0xFFFFFFFFu, "符号配置文件行错误(-301989889 行)",
       "The symbol configuration file has a line error(Line -301989889)"},
      {"ERR_UNDEFINED is not in the table", ERR_UNDEFINED, "未定义错误码(ID:1)", "Undefined error(ID:1)"},
      {"lower-case hex", ERR_INVALID_COMTYPE, "未定义错误码(ID:1000010a)", "Undefined error(ID:1000010a)"},
      {"ERR_RTOS_UNAVAILABLE", ERR_RTOS_UNAVAILABLE, "未定义错误码(ID:1000010b)", "Undefined error(ID:1000010b)"},
      {"ERR_CONNECT_REFUSED_3", ERR_CONNECT_REFUSED_3, "未定义错误码(ID:10000110)", "Undefined error(ID:10000110)"},
      {"ERR_INPUT_PARAMETERS carries both flag bits", ERR_INPUT_PARAMETERS, "符号配置文件行错误(-301989890 行)",
       "The symbol configuration file has a line error(Line -301989890)"},
      {"one bit of the mask only", 0x02000000u, "未定义错误码(ID:2000000)", "Undefined error(ID:2000000)"},
      {"next to a real code", 0x10000524u, "未定义错误码(ID:10000524)", "Undefined error(ID:10000524)"},
  };
  for (const Lookup& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(chinese(c.code), toGbk(c.chinese));
    EXPECT_EQ(english(c.code), c.english);
  }
}

TEST_F(ErrorTable, ChineseIsTheDefaultLanguage) {
  // No test before this one may leave the selector set; the fixture resets it.
  EXPECT_EQ(std::string(ReadErrorDescription(ERR_UNDEFINED)), toGbk("未定义错误码(ID:1)"));
  EXPECT_EQ(std::string(ReadErrorDescription(0)), "\xCE\xDE\xB4\xED\xCE\xF3");
}

TEST_F(ErrorTable, AnyNonZeroSelectorMeansEnglish) {
  for (int language : {1, -1, 936, 0x7FFFFFFF}) {
    qorvarlok::SetVarlokLanguage(language);
    EXPECT_STREQ(ReadErrorDescription(ERR_TOO_MANY_TAGS), "There is too many tags") << language;
  }
}

TEST_F(ErrorTable, FormattedTextsFitTheBuffer) {
  // The longest formatted texts must come out whole, not cut by the 104-byte buffer.
  EXPECT_EQ(english(0x1FFFFFFFu), "The symbol configuration file has a line error(Line 234881023)");
  EXPECT_EQ(english(0xEFFFFFFFu), "Undefined error(ID:efffffff)");
}

}  // namespace
