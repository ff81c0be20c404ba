// The description table of the error codes and its lookup. The Chinese texts
// are stored as GBK (code page 936) bytes, the English ones as ASCII; callers
// get the bytes unconverted and may compare them, slips included.
#include <cstdio>
#include <exception>

#include "QorVarlok/ZelVarlok.h"
#include "VarlokLog.h"
#include "VarlokTypes.h"

namespace {

struct ErrorRecord {
  unsigned int code;
  const char* chinese;
  const char* english;
};

constexpr int kWalkedRecords = 100;
constexpr unsigned int kLineErrorMask = 0x12000000u;

// Record 0: the formats for an unknown code. Records 1 to 44: the table.
// Records 45 to 99: empty. Record 100: success.
const ErrorRecord g_errorTable[101] = {
    // 未定义错误码(ID:%x)
    {0x00000000u, "\xCE\xB4\xB6\xA8\xD2\xE5\xB4\xED\xCE\xF3\xC2\xEB(ID:%x)", "Undefined error(ID:%x)"},
    // 初始化客户端通信失败
    {ERR_MAINCLIENT_INIT_FAILED, "\xB3\xF5\xCA\xBC\xBB\xAF\xBF\xCD\xBB\xA7\xB6\xCB\xCD\xA8\xD0\xC5\xCA\xA7\xB0\xDC",
     "Initialize client communication failed"},
    // 对象没有初始化化，需要调用InitializeCom
    {ERR_COMMUNICATION_NOT_INITIALIZED, "\xB6\xD4\xCF\xF3\xC3\xBB\xD3\xD0\xB3\xF5\xCA\xBC\xBB\xAF\xBB\xAF\xA3\xAC\xD0\xE8\xD2\xAA\xB5\xF7\xD3\xC3InitializeCom",
     "The communication has not been initialized"},
    // 连接个数超限
    {ERR_TOO_MANY_GW_CLIENTS, "\xC1\xAC\xBD\xD3\xB8\xF6\xCA\xFD\xB3\xAC\xCF\xDE",
     "There is too many connections"},
    // 通信连接失败,1.PLC未启动或异常关闭 2.TCP网络不通
    {ERR_CONNECT_FAILED, "\xCD\xA8\xD0\xC5\xC1\xAC\xBD\xD3\xCA\xA7\xB0\xDC,1.PLC\xCE\xB4\xC6\xF4\xB6\xAF\xBB\xF2\xD2\xEC\xB3\xA3\xB9\xD8\xB1\xD5 2.TCP\xCD\xF8\xC2\xE7\xB2\xBB\xCD\xA8",
     "Connect failed,Maybe the network is not working"},
    // 通信连接断开,需重新建立连接
    {ERR_NOT_CONNECTED, "\xCD\xA8\xD0\xC5\xC1\xAC\xBD\xD3\xB6\xCF\xBF\xAA,\xD0\xE8\xD6\xD8\xD0\xC2\xBD\xA8\xC1\xA2\xC1\xAC\xBD\xD3",
     "Communication has been closed,please connect again"},
    // 网关未连接或者已经断开,需要重新连接
    {ERR_INVALID_GW_CONNECTION, "\xCD\xF8\xB9\xD8\xCE\xB4\xC1\xAC\xBD\xD3\xBB\xF2\xD5\xDF\xD2\xD1\xBE\xAD\xB6\xCF\xBF\xAA,\xD0\xE8\xD2\xAA\xD6\xD8\xD0\xC2\xC1\xAC\xBD\xD3",
     "Gateway has not been connected or been closed,please connect again"},
    // 当前对象已初始化，无需再次初始化
    {ERR_CURRENTCOM_EXIST, "\xB5\xB1\xC7\xB0\xB6\xD4\xCF\xF3\xD2\xD1\xB3\xF5\xCA\xBC\xBB\xAF\xA3\xAC\xCE\xDE\xD0\xE8\xD4\xD9\xB4\xCE\xB3\xF5\xCA\xBC\xBB\xAF",
     "Initialize Failed,current object had been initialized"},
    // 连接方式与不匹配
    {ERR_MISMATCH_COMTYPE, "\xC1\xAC\xBD\xD3\xB7\xBD\xCA\xBD\xD3\xEB\xB2\xBB\xC6\xA5\xC5\xE4",
     "Comtype is not match with para."},
    // 分配的共享内存空间不足
    {ERR_INSUFFICIENT_SHMAREA_SIZE, "\xB7\xD6\xC5\xE4\xB5\xC4\xB9\xB2\xCF\xED\xC4\xDA\xB4\xE6\xBF\xD5\xBC\xE4\xB2\xBB\xD7\xE3",
     "Share memory is not enought."},
    // 共享内存映射失败，请检查共享内存配置是否正确
    {ERR_SHMAREA_INIT_FAILED, "\xB9\xB2\xCF\xED\xC4\xDA\xB4\xE6\xD3\xB3\xC9\xE4\xCA\xA7\xB0\xDC\xA3\xAC\xC7\xEB\xBC\xEC\xB2\xE9\xB9\xB2\xCF\xED\xC4\xDA\xB4\xE6\xC5\xE4\xD6\xC3\xCA\xC7\xB7\xF1\xD5\xFD\xC8\xB7",
     "Share memory mapped failed,please check whether the share memory configuration correct."},
    // 等待超时，可能连接已经断开
    {ERR_WAIT_TIMEOUT, "\xB5\xC8\xB4\xFD\xB3\xAC\xCA\xB1\xA3\xAC\xBF\xC9\xC4\xDC\xC1\xAC\xBD\xD3\xD2\xD1\xBE\xAD\xB6\xCF\xBF\xAA",
     "Wait timeout, maybe connection has been closed"},
    // 连接PLC厂商不匹配
    {ERR_VENDER_NOT_MATCHED, "\xC1\xAC\xBD\xD3PLC\xB3\xA7\xC9\xCC\xB2\xBB\xC6\xA5\xC5\xE4",
     "The vendor of PLC to connect is unmatched"},
    // 用户名或者密码错误
    {ERR_USER_NAME_OR_PASSWORD, "\xD3\xC3\xBB\xA7\xC3\xFB\xBB\xF2\xD5\xDF\xC3\xDC\xC2\xEB\xB4\xED\xCE\xF3",
     "Wrong user name or password"},
    // RTOS发送共享内存事件失败
    {ERR_RTOS_SEND_EVENT_FAILED, "RTOS\xB7\xA2\xCB\xCD\xB9\xB2\xCF\xED\xC4\xDA\xB4\xE6\xCA\xC2\xBC\xFE\xCA\xA7\xB0\xDC",
     "Send rtos event to PLC failed"},
    // RTOS接收共享内存事件失败
    {ERR_RTOS_RECV_EVENT_FAILED, "RTOS\xBD\xD3\xCA\xD5\xB9\xB2\xCF\xED\xC4\xDA\xB4\xE6\xCA\xC2\xBC\xFE\xCA\xA7\xB0\xDC",
     "Receive rtos event from PLC failed"},
    // 连接PLC失败
    {ERR_PLC_CONNECT_FAILED, "\xC1\xAC\xBD\xD3PLC\xCA\xA7\xB0\xDC",
     "Connect to PLC failed"},
    // 创建或删除标签失败
    {ERR_PLC_DEFINE_FAILED, "\xB4\xB4\xBD\xA8\xBB\xF2\xC9\xBE\xB3\xFD\xB1\xEA\xC7\xA9\xCA\xA7\xB0\xDC",
     "Define or Delete TagList in PLC is failed"},
    // 读写数据失败
    {ERR_PLC_READ_WRITE_FAILED, "\xB6\xC1\xD0\xB4\xCA\xFD\xBE\xDD\xCA\xA7\xB0\xDC",
     "Read or Write data in PLC is failed"},
    // 使用无效的序列号读写数据
    {ERR_PLC_INVALID_SEQUENCE, "\xCA\xB9\xD3\xC3\xCE\xDE\xD0\xA7\xB5\xC4\xD0\xF2\xC1\xD0\xBA\xC5\xB6\xC1\xD0\xB4\xCA\xFD\xBE\xDD",
     "Read or Write data with invalid sequence id"},
    // 读写数据所用的标签句柄是无效的
    {ERR_PLC_INVALID_HANDLE, "\xB6\xC1\xD0\xB4\xCA\xFD\xBE\xDD\xCB\xF9\xD3\xC3\xB5\xC4\xB1\xEA\xC7\xA9\xBE\xE4\xB1\xFA\xCA\xC7\xCE\xDE\xD0\xA7\xB5\xC4",
     "Read or Write data with invalid tag handle"},
    // 使用无效的标签句柄ID读写数据
    {ERR_PLC_INVALID_HANDLE_ID, "\xCA\xB9\xD3\xC3\xCE\xDE\xD0\xA7\xB5\xC4\xB1\xEA\xC7\xA9\xBE\xE4\xB1\xFAID\xB6\xC1\xD0\xB4\xCA\xFD\xBE\xDD",
     "Read or Write data with invalid tag handle id"},
    // 符号配置文件不是XML文件格式
    {ERR_XML_ILLEGL_XML_FORMAT, "\xB7\xFB\xBA\xC5\xC5\xE4\xD6\xC3\xCE\xC4\xBC\xFE\xB2\xBB\xCA\xC7XML\xCE\xC4\xBC\xFE\xB8\xF1\xCA\xBD",
     "The symbol configuration file is not valid xml"},
    // 符号配置文件没有符号信息开始标识
    {ERR_XML_NO_SYMB_MARK, "\xB7\xFB\xBA\xC5\xC5\xE4\xD6\xC3\xCE\xC4\xBC\xFE\xC3\xBB\xD3\xD0\xB7\xFB\xBA\xC5\xD0\xC5\xCF\xA2\xBF\xAA\xCA\xBC\xB1\xEA\xCA\xB6",
     "The symbol configuration file dose not has a symbol beginning mark"},
    // 符号配置文件没有头部信息
    {ERR_XML_NO_HEADER, "\xB7\xFB\xBA\xC5\xC5\xE4\xD6\xC3\xCE\xC4\xBC\xFE\xC3\xBB\xD3\xD0\xCD\xB7\xB2\xBF\xD0\xC5\xCF\xA2",
     "The symbol configuration file dose not has a header"},
    // 无效的标签句柄
    {ERR_INVALID_TAG_HANDLE, "\xCE\xDE\xD0\xA7\xB5\xC4\xB1\xEA\xC7\xA9\xBE\xE4\xB1\xFA",
     "Invalid tag handle"},
    // 符号配置文件不存在
    {ERR_XML_NOT_EXIST, "\xB7\xFB\xBA\xC5\xC5\xE4\xD6\xC3\xCE\xC4\xBC\xFE\xB2\xBB\xB4\xE6\xD4\xDA",
     "The symbol configuration is not exist"},
    // 符号配置标签类型不正确
    {ERR_XML_TYPE_DEF_ERROR, "\xB7\xFB\xBA\xC5\xC5\xE4\xD6\xC3\xB1\xEA\xC7\xA9\xC0\xE0\xD0\xCD\xB2\xBB\xD5\xFD\xC8\xB7",
     "The symbol configuration has an error type definition"},
    // 符号配置文件行错误(%d 行)
    {ERR_XML_LINE_ERROR, "\xB7\xFB\xBA\xC5\xC5\xE4\xD6\xC3\xCE\xC4\xBC\xFE\xD0\xD0\xB4\xED\xCE\xF3(%d \xD0\xD0)",
     "The symbol configuration file has a line error(Line %d)"},
    // 注册变量和PLC中符号不匹配
    {ERR_EXIST_INVAILD_VAR, "\xD7\xA2\xB2\xE1\xB1\xE4\xC1\xBF\xBA\xCDPLC\xD6\xD0\xB7\xFB\xBA\xC5\xB2\xBB\xC6\xA5\xC5\xE4",
     "The variables definition is unmatched to the PLC"},
    // 通讯未建立，需要建立连接
    {ERR_INVALID_DEVICE_CLIENT, "\xCD\xA8\xD1\xB6\xCE\xB4\xBD\xA8\xC1\xA2\xA3\xAC\xD0\xE8\xD2\xAA\xBD\xA8\xC1\xA2\xC1\xAC\xBD\xD3",
     "Invalid client, please connect again"},
    // 无效句柄，请注册句柄(CreateTagsHandle )
    {ERR_INVALID_VAR_DEFS, "\xCE\xDE\xD0\xA7\xBE\xE4\xB1\xFA\xA3\xAC\xC7\xEB\xD7\xA2\xB2\xE1\xBE\xE4\xB1\xFA(CreateTagsHandle )",
     "Invalid variables definition, please define again"},
    // 不能写入引用类型变量
    {ERR_REF_TYPE_NO_WRITING, "\xB2\xBB\xC4\xDC\xD0\xB4\xC8\xEB\xD2\xFD\xD3\xC3\xC0\xE0\xD0\xCD\xB1\xE4\xC1\xBF",
     "No writing to reference type variables"},
    // 存在变量无访问权限
    {ERR_TAG_NO_ACCESS_RIGHTS, "\xB4\xE6\xD4\xDA\xB1\xE4\xC1\xBF\xCE\xDE\xB7\xC3\xCE\xCA\xC8\xA8\xCF\xDE",
     "Exsit variables with no access rights"},
    // 注册句柄返回变量数量超过上限
    {ERR_TOO_MANY_TAGS, "\xD7\xA2\xB2\xE1\xBE\xE4\xB1\xFA\xB7\xB5\xBB\xD8\xB1\xE4\xC1\xBF\xCA\xFD\xC1\xBF\xB3\xAC\xB9\xFD\xC9\xCF\xCF\xDE",
     "There is too many tags"},
    // 符号变量定义发生变化,需要重新定义
    {ERR_VACACCESS_TAGS_CHANGED, "\xB7\xFB\xBA\xC5\xB1\xE4\xC1\xBF\xB6\xA8\xD2\xE5\xB7\xA2\xC9\xFA\xB1\xE4\xBB\xAF,\xD0\xE8\xD2\xAA\xD6\xD8\xD0\xC2\xB6\xA8\xD2\xE5",
     "The variables definition is changed"},
    // 写入的变量值数据太多
    {ERR_TOO_MUCH_DATA_WRITTEN, "\xD0\xB4\xC8\xEB\xB5\xC4\xB1\xE4\xC1\xBF\xD6\xB5\xCA\xFD\xBE\xDD\xCC\xAB\xB6\xE0",
     "Too much data written"},
    // PLC与上位数组长度不匹配，请检查数组是否会越界
    {ERR_OVERSTEP_ACCESS, "PLC\xD3\xEB\xC9\xCF\xCE\xBB\xCA\xFD\xD7\xE9\xB3\xA4\xB6\xC8\xB2\xBB\xC6\xA5\xC5\xE4\xA3\xAC\xC7\xEB\xBC\xEC\xB2\xE9\xCA\xFD\xD7\xE9\xCA\xC7\xB7\xF1\xBB\xE1\xD4\xBD\xBD\xE7",
     "Array Access overstep,may bey the length of the arrays is too short."},
    // PLC与上位结构体长度不匹配，需要参考案例
    {ERR_UNALIGNED_STRUCT, "PLC\xD3\xEB\xC9\xCF\xCE\xBB\xBD\xE1\xB9\xB9\xCC\xE5\xB3\xA4\xB6\xC8\xB2\xBB\xC6\xA5\xC5\xE4\xA3\xAC\xD0\xE8\xD2\xAA\xB2\xCE\xBF\xBC\xB0\xB8\xC0\xFD",
     "The boundary alignment between the structure and the PLC structure is inconsistent. Select the compatibility layout when exporting the symbol configuration"},
    // 接口与定义的参数存在不匹配的类型
    {ERR_UNMATCH_TYPE_PARA, "\xBD\xD3\xBF\xDA\xD3\xEB\xB6\xA8\xD2\xE5\xB5\xC4\xB2\xCE\xCA\xFD\xB4\xE6\xD4\xDA\xB2\xBB\xC6\xA5\xC5\xE4\xB5\xC4\xC0\xE0\xD0\xCD",
     "Description The defined parameter contained a type that did not match the interface. "},
    // 上位定义变量的数据类型与PLC中变量的类型不匹配
    {ERR_UNMATCH_WITH_DEFINE, "\xC9\xCF\xCE\xBB\xB6\xA8\xD2\xE5\xB1\xE4\xC1\xBF\xB5\xC4\xCA\xFD\xBE\xDD\xC0\xE0\xD0\xCD\xD3\xEBPLC\xD6\xD0\xB1\xE4\xC1\xBF\xB5\xC4\xC0\xE0\xD0\xCD\xB2\xBB\xC6\xA5\xC5\xE4",
     "The defined parameter does not match the input"},
    // 读数读取失败
    {ERR_READ_FAILED, "\xB6\xC1\xCA\xFD\xB6\xC1\xC8\xA1\xCA\xA7\xB0\xDC",
     "Reading failed"},
    // 写入失败，可能存在异常的输入值
    {ERR_WRITE_FAILED, "\xD0\xB4\xC8\xEB\xCA\xA7\xB0\xDC\xA3\xAC\xBF\xC9\xC4\xDC\xB4\xE6\xD4\xDA\xD2\xEC\xB3\xA3\xB5\xC4\xCA\xE4\xC8\xEB\xD6\xB5",
     "Write failed. An abnormal input value may exist"},
    // 读写数据权限不正确
    {ERR_READ_WRITE_DENIED, "\xB6\xC1\xD0\xB4\xCA\xFD\xBE\xDD\xC8\xA8\xCF\xDE\xB2\xBB\xD5\xFD\xC8\xB7",
     "Read Write data right is incorrect"},
    // 输入参数是无效的
    {ERR_INVALID_PARAMS, "\xCA\xE4\xC8\xEB\xB2\xCE\xCA\xFD\xCA\xC7\xCE\xDE\xD0\xA7\xB5\xC4",
     "Input parameters are invalid"},
    // 45 to 99 are empty and value-initialised below.
};

const ErrorRecord g_successRecord = {0, "\xCE\xDE\xB4\xED\xCE\xF3" /* 无错误 */, "not an error"};

// Zero selects the Chinese texts, anything else the English ones.
int g_language = 0;

// One buffer for every formatted text of the process.
char g_descriptionBuffer[104];

const char* textOf(const ErrorRecord& record) { return g_language == 0 ? record.chinese : record.english; }

const char* formatInto(const char* format, unsigned int value) {
  std::snprintf(g_descriptionBuffer, sizeof(g_descriptionBuffer), format, value);
  return g_descriptionBuffer;
}

const char* lookup(unsigned int code) {
  if (code == 0) return textOf(g_successRecord);
  for (int i = 0; i < kWalkedRecords; ++i) {
    const ErrorRecord& record = g_errorTable[i];
    if (record.code == code) return textOf(record);
    // A mask test, not an equality: every code with these two bits set is a
    // line error, and only these two bits are removed to get the line.
    if ((code & kLineErrorMask) == kLineErrorMask && (record.code & kLineErrorMask) == kLineErrorMask) {
      return formatInto(textOf(record), code & 0xEDFFFFFFu);
    }
  }
  return formatInto(textOf(g_errorTable[0]), code);
}

}  // namespace

namespace qorvarlok {

void SetVarlokLanguage(int language) { g_language = language; }

}  // namespace qorvarlok

extern "C" QORVARLOK_API const char* ReadErrorDescription(unsigned int code) {
  try {
    return lookup(code);
  } catch (const std::exception& e) {
    VLOG(info, "ReadErrorDescription", "exception={}", e.what());
  } catch (...) {
    VLOG(info, "ReadErrorDescription", "unknown exception");
  }
  return nullptr;
}
