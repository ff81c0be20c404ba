// QorVarlok: read and write the named variables ("tags") of a controller.
//
// This is the one public header. It declares the error codes, the records
// through which a caller sees tags, the exported class ZelVarlok and the plain
// exported functions.
//
// Ownership: records and value bytes that a read hands out belong to the tag
// list and stay valid until the next read of that list or its deletion. Arrays
// of tag descriptions handed out by the symbol configuration functions belong
// to the open configuration. A caller never frees what the library gives it,
// except a ZelVarlok object it made itself.
//
// Threads: any thread may call. All ZelVarlok objects of a process run one
// operation at a time. ReadErrorDescription returns formatted texts in a
// buffer shared by the process: copy the text at once.
//
// Results are 32-bit codes, 0 for success; nothing throws across this header.
#pragma once

#include <cstring>
#include <string>
#include <typeinfo>
#include <vector>

#if defined(_WIN32)
#define QORVARLOK_API __declspec(dllexport)
#else
#define QORVARLOK_API __attribute__((visibility("default")))
#endif

// ---------------------------------------------------------------- error codes
#define ERR_NOERROR 0x00000000u
#define ERR_UNDEFINED 0x00000001u
#define ERR_LOADLIBRARY_FAILED 0xFFFFFFFFu
#define ERR_INPUT_PARAMETERS 0xFFFFFFFEu

#define ERR_MAINCLIENT_INIT_FAILED 0x10000100u
#define ERR_COMMUNICATION_NOT_INITIALIZED 0x10000101u
#define ERR_TOO_MANY_GW_CLIENTS 0x10000102u
#define ERR_CONNECT_FAILED 0x10000103u
#define ERR_NOT_CONNECTED 0x10000104u
#define ERR_INVALID_GW_CONNECTION 0x10000105u
#define ERR_CURRENTCOM_EXIST 0x10000106u
#define ERR_SHM_NOT_INITIALIZED 0x10000108u
#define ERR_SHM_CLIENT_FAILED 0x10000109u
#define ERR_INVALID_COMTYPE 0x1000010Au
#define ERR_RTOS_UNAVAILABLE 0x1000010Bu
#define ERR_CONNECT_REFUSED_2 0x1000010Du
#define ERR_CONNECT_REFUSED_4 0x1000010Eu
#define ERR_CONNECT_REFUSED_3 0x10000110u

#define ERR_WAIT_TIMEOUT 0x10000200u
#define ERR_MISMATCH_COMTYPE 0x10000201u
#define ERR_INSUFFICIENT_SHMAREA_SIZE 0x10000202u
#define ERR_SHMAREA_INIT_FAILED 0x10000203u

#define ERR_VENDER_NOT_MATCHED 0x10000302u
#define ERR_USER_NAME_OR_PASSWORD 0x10000304u
#define ERR_RTOS_SEND_EVENT_FAILED 0x10000305u
#define ERR_RTOS_RECV_EVENT_FAILED 0x10000306u
#define ERR_PLC_CONNECT_FAILED 0x10000307u
#define ERR_PLC_DEFINE_FAILED 0x10000308u
#define ERR_PLC_READ_WRITE_FAILED 0x10000309u
#define ERR_PLC_INVALID_SEQUENCE 0x1000030Au
#define ERR_PLC_INVALID_HANDLE 0x1000030Bu
#define ERR_PLC_INVALID_HANDLE_ID 0x1000030Cu

#define ERR_XML_ILLEGL_XML_FORMAT 0x10000400u
#define ERR_XML_NO_SYMB_MARK 0x10000401u
#define ERR_XML_NO_HEADER 0x10000402u
#define ERR_INVALID_TAG_HANDLE 0x10000403u
#define ERR_XML_NOT_EXIST 0x10000404u
#define ERR_XML_TYPE_DEF_ERROR 0x10000410u
// A line error of the symbol file: this bit pattern OR the 1-based line number.
#define ERR_XML_LINE_ERROR 0x12000000u

#define ERR_EXIST_INVAILD_VAR 0x10000501u
#define ERR_INVALID_DEVICE_CLIENT 0x10000502u
#define ERR_INVALID_VAR_DEFS 0x10000503u
#define ERR_REF_TYPE_NO_WRITING 0x10000504u
#define ERR_TAG_NO_ACCESS_RIGHTS 0x10000505u
#define ERR_TOO_MANY_TAGS 0x10000506u
#define ERR_VACACCESS_TAGS_CHANGED 0x10000507u
#define ERR_TOO_MUCH_DATA_WRITTEN 0x10000508u
#define ERR_OVERSTEP_ACCESS 0x10000509u
#define ERR_UNALIGNED_STRUCT 0x10000510u
#define ERR_UNMATCH_TYPE_PARA 0x10000511u
#define ERR_UNMATCH_WITH_DEFINE 0x10000512u
#define ERR_READ_FAILED 0x10000520u
#define ERR_WRITE_FAILED 0x10000521u
#define ERR_READ_WRITE_DENIED 0x10000522u
#define ERR_INVALID_PARAMS 0x10000523u

// ------------------------------------------------------------------ constants
#define MAX_NAME_LEN 255
#define MAX_VALUE_LEN 1024

// Not set or not recognised, in every enumerated field of the records.
#define VARLOK_NOT_SET 32767

// Tag type codes carried in tagTagDesc::Type, ::BaseType and tagTagVarValue::Type.
enum VarlokTagType : int {
  TAG_TYPE_BOOL = 0,
  TAG_TYPE_BYTE = 1,
  TAG_TYPE_WORD = 2,
  TAG_TYPE_DWORD = 3,
  TAG_TYPE_LWORD = 4,
  TAG_TYPE_SINT = 5,
  TAG_TYPE_INT = 6,
  TAG_TYPE_DINT = 7,
  TAG_TYPE_LINT = 8,
  TAG_TYPE_SUBRANGE = 9,
  TAG_TYPE_REAL = 10,
  TAG_TYPE_LREAL = 11,
  TAG_TYPE_ENUM = 12,
  TAG_TYPE_UNION = 13,
  TAG_TYPE_ARRAY = 14,
  TAG_TYPE_STRUCTURE = 15,
  TAG_TYPE_FUNCTION_BLOCK = 16,
  TAG_TYPE_STRING = 17,
  TAG_TYPE_WSTRING = 18,
  TAG_TYPE_TIME = 19,
  TAG_TYPE_DATE = 20,
  TAG_TYPE_TIME_OF_DAY = 21,
  TAG_TYPE_DATE_AND_TIME = 22,
  TAG_TYPE_POINTER = 23,
  TAG_TYPE_REFERENCE = 24,
  TAG_TYPE_BIT = 25,
  TAG_TYPE_UNKNOWN = VARLOK_NOT_SET
};

// Variable kinds carried in tagTagDesc::VarType.
enum VarlokVarKind : int { VAR_KIND_VAR = 0, VAR_KIND_INPUT = 1, VAR_KIND_OUTPUT = 2, VAR_KIND_IN_OUT = 3 };

// Access types carried in tagTagDesc::AccessType.
enum VarlokAccess : int { ACCESS_READ = 0, ACCESS_WRITE = 1, ACCESS_READWRITE = 2 };

// How the library reaches the controller; given to InitializeCom.
enum ComType : int {
  COM_TYPE_TCP = 1,   // over the network; the address is a host
  COM_TYPE_LOCAL = 2  // through shared memory on this machine; the address is exactly "Local"
};

// Opaque handle of one defined tag list. Null is never valid.
typedef void* HTAGLIST;

// ------------------------------------------------------------------- records

// One tag as the symbol configuration describes it. The record owns its three
// strings; copies are deep.
struct tagTagDesc {
  const char* Name = nullptr;      // last component of the path
  const char* FullName = nullptr;  // whole path, such as "App.GVL.speed"
  int Type = VARLOK_NOT_SET;       // tag type code
  int Size = 0;                    // bytes of the value
  int AccessType = VARLOK_NOT_SET;
  const char* Comment = nullptr;   // null when the file has none
  int VarType = VARLOK_NOT_SET;
  int BaseType = VARLOK_NOT_SET;   // element or underlying type code
  int MinValue = 0;                // subrange bounds
  int MaxValue = 0;
  int EnumValue = 0;
  void* TagsHandle = nullptr;      // opaque: give it back to list the children

  tagTagDesc() = default;
  tagTagDesc(const tagTagDesc& other) { copyFrom(other); }
  tagTagDesc& operator=(const tagTagDesc& other) {
    if (this != &other) {
      releaseStrings();
      copyFrom(other);
    }
    return *this;
  }
  ~tagTagDesc() { releaseStrings(); }

  // Releases FullName, then Name, then Comment, and nulls each.
  void releaseStrings() {
    freeString(FullName);
    freeString(Name);
    freeString(Comment);
  }
  static char* dupString(const char* text) {
    if (text == nullptr) return nullptr;
    const size_t n = std::strlen(text);
    char* copy = new char[n + 1];
    std::memcpy(copy, text, n + 1);
    return copy;
  }

 private:
  static void freeString(const char*& text) {
    delete[] text;
    text = nullptr;
  }
  void copyFrom(const tagTagDesc& other) {
    Name = dupString(other.Name);
    FullName = dupString(other.FullName);
    Type = other.Type;
    Size = other.Size;
    AccessType = other.AccessType;
    Comment = dupString(other.Comment);
    VarType = other.VarType;
    BaseType = other.BaseType;
    MinValue = other.MinValue;
    MaxValue = other.MaxValue;
    EnumValue = other.EnumValue;
    TagsHandle = other.TagsHandle;
  }
};

// One value of a read. Nothing in it is owned: FullName and Value point into
// the tag list, valid until the next read of that list or its deletion.
struct tagTagVarValue {
  const char* FullName = nullptr;
  int Type = VARLOK_NOT_SET;
  int ValueLength = 0;
  void* Value = nullptr;  // the value in controller binary form, little-endian
};

// ------------------------------------------------------------- plain exports
extern "C" {
// Text of an error code: GBK (code page 936) Chinese by default. Formatted
// texts (unknown codes, line errors) live in one buffer shared by the process.
QORVARLOK_API const char* ReadErrorDescription(unsigned int code);
// The library's version text.
QORVARLOK_API const char* GetVarlokVersionInfo();
}

// Symbol configuration without a controller: open, browse, close.
// errorCode is written only on failure: clear it before the call.
extern "C" {
QORVARLOK_API void* CreateSymbolConfigHandle(std::wstring path, unsigned int* errorCode);
QORVARLOK_API void* CreateSymbolConfigHandleW(const wchar_t* path, unsigned int* errorCode);
// Every tag of the file as one flat array; the array belongs to the handle.
QORVARLOK_API unsigned int GetSymbolConfigParseResult(void* handle, tagTagDesc** descs, unsigned int* count);
// The top level of the tag tree.
QORVARLOK_API unsigned int GetSymbolConfigToppestTagsDesc(void* handle, tagTagDesc** descs, unsigned int* count);
// The children of a tag, by the TagsHandle of its record. A leaf is an error.
QORVARLOK_API unsigned int GetSymbolConfigSubTagsDesc(void* tagsHandle, tagTagDesc** descs, unsigned int* count);
QORVARLOK_API void ReleaseSymbolConfigHandle(void* handle);
}

// ------------------------------------------------------------ the class
class ZelVarlok_p;

// One connection to one controller. Drive it in this order: InitializeCom,
// ConnectToPlcDevice, CreateTagsHandle, reads and writes, DeleteTagsHandle,
// DisconnectFromDevice, ExitVarlokCommunication. A step left out answers with
// its guard's code. Handles of tag lists belong to the object that made them.
// Every operation of every object in the process runs one at a time.
// Do not copy or assign objects: the copy shares the private state and both
// copies would delete it.
class QORVARLOK_API ZelVarlok {
 public:
  ZelVarlok();
  ~ZelVarlok();
  // Copies the pointer to the private state and nothing else (see above).
  ZelVarlok& operator=(const ZelVarlok& other);

  // The configuration is a handle of CreateSymbolConfigHandle(W); release it
  // there after ExitVarlokCommunication.
  unsigned int InitializeCom(const ComType& comType, void* symbolConfig);
  // Path of the symbol file in the process's narrow encoding.
  unsigned int InitializeCom(const ComType& comType, const char* path);
  unsigned int InitializeCom(const ComType& comType, std::wstring path);

  // netIp is exactly "Local" for COM_TYPE_LOCAL, a host for COM_TYPE_TCP.
  void* ConnectToPlcDevice(const char* netIp, unsigned int& error);
  void* ConnectToPlcDevice(std::string netIp, unsigned int& error);
  unsigned int DisconnectFromDevice(void* device);
  unsigned int ExitVarlokCommunication();

  // Names in UTF-8 or in the process's narrow encoding.
  HTAGLIST CreateTagsHandle(const char** names, unsigned int count, unsigned int& error);
  HTAGLIST CreateTagsHandle(const char* name, unsigned int& error);
  HTAGLIST CreateTagsHandle(std::string name, unsigned int& error);
  HTAGLIST CreateTagsHandle(std::vector<std::string> names, unsigned int& error);
  // Names exactly as the tag table holds them (the process's narrow encoding).
  HTAGLIST CreateTagsHandleAnsi(const char** names, unsigned int count, unsigned int& error);
  HTAGLIST CreateTagsHandleAnsi(const char* name, unsigned int& error);
  HTAGLIST CreateTagsHandleAnsi(std::string name, unsigned int& error);
  HTAGLIST CreateTagsHandleAnsi(std::vector<std::string> names, unsigned int& error);
  unsigned int DeleteTagsHandle(HTAGLIST handle);

  unsigned int ReadTagList(HTAGLIST handle, std::vector<tagTagVarValue>& values, unsigned int& count);
  unsigned int ReadTagList(HTAGLIST handle, tagTagVarValue** values, unsigned int& count);
  unsigned int WriteTagList(HTAGLIST handle, std::vector<std::string>& values);
  unsigned int WriteTagList(HTAGLIST handle, unsigned char* data, unsigned int count);
  // length: bytes of one element; start and count in elements, 0 and 0 for all.
  unsigned int ReadArray(HTAGLIST handle, int length, void* data, unsigned int start, unsigned int count);
  unsigned int WriteArray(HTAGLIST handle, int length, void* data, unsigned int start, unsigned int count);
  unsigned int ReadStructField(HTAGLIST handle, void* data, int length);
  unsigned int WriteStructField(HTAGLIST handle, const void* data, int length);

  // Typed read of a list: one variable per tag, in list order. Strings
  // (std::string, std::wstring) take the tag's whole text; any other variable
  // must have exactly the tag's byte size.
  template <typename... Vars>
  unsigned int ReadTagValues(HTAGLIST handle, Vars&... vars) {
    const unsigned int key = sessionId();
    (SaveTemplateData(key, static_cast<void*>(&vars), typeid(Vars), templateLength(vars)), ...);
    return ReadTagInner(key, handle);
  }
  // Typed write of a list, with the same rules.
  template <typename... Vars>
  unsigned int WriteTagValues(HTAGLIST handle, const Vars&... vars) {
    const unsigned int key = sessionId();
    (SaveTemplateData(key, const_cast<void*>(static_cast<const void*>(&vars)), typeid(Vars),
                      templateLength(vars)),
     ...);
    return WriteTagInner(key, handle);
  }
  unsigned int ReadTagInner(unsigned int key, HTAGLIST handle);
  unsigned int WriteTagInner(unsigned int key, HTAGLIST handle);

  // The records of a defined list; descs needs room for GetTagsListLength entries.
  int GetTagDescByDefinedHandle(HTAGLIST handle, tagTagDesc** descs);
  // A tag of the table by full name, null when there is none; needs InitializeCom.
  tagTagDesc* GetTagDescByName(std::string name);
  int GetTagsListLength(HTAGLIST handle);

 private:
  unsigned int ReadTagDataFromBuff(unsigned int key, HTAGLIST handle);
  unsigned int WirteTagDataFromBuff(unsigned int key, HTAGLIST handle);
  void SaveTemplateData(unsigned int key, void* data, const std::type_info& type, const int& length);
  unsigned int sessionId();

  // Strings are measured in characters, everything else by its size.
  static int templateLength(const std::string& value) { return static_cast<int>(value.size()); }
  static int templateLength(const std::wstring& value) { return static_cast<int>(value.size()); }
  template <typename T>
  static int templateLength(const T&) {
    return static_cast<int>(sizeof(T));
  }

  ZelVarlok_p* m_ZelVarlokPrivate;
};
