// The managed surface of libQorVarlok.so: what SWIG turns into the exported
// wrapper functions and the proxy classes. Only what is declared here is
// reachable from a managed caller; the declarations mirror the public header,
// and the generated calls are compiled against that header, so a signature
// that drifts from it fails the build.
//
// Everything language-specific (marshalling, the texts of the argument
// checks, the managed helper code) lives in a file per language, included
// below; this file holds the names and the forms.
%module QorVarlok

%{
#include "QorVarlok/ZelVarlok.h"
%}

%include <std_string.i>
%include <std_vector.i>

#if defined(SWIGCSHARP)
%include "csharp/CSharpTypemaps.i"
#elif defined(SWIGPYTHON)
%include "python/PythonTypemaps.i"
#else
%include <std_wstring.i>
#endif

// Points where a language's file scopes what only some declarations need;
// empty unless that file defines them.
#if !defined(QV_HOOKS_DEFINED)
%define QV_CONSTANTS_BEGIN %enddef
%define QV_CONSTANTS_END %enddef
%define QV_DELETE_HANDLE_BEGIN %enddef
%define QV_DELETE_HANDLE_END %enddef
%define QV_ARRAY_BUFFER_BEGIN %enddef
%define QV_ARRAY_BUFFER_END %enddef
%define QV_STRUCT_BUFFER_BEGIN %enddef
%define QV_STRUCT_BUFFER_END %enddef
#endif

// ------------------------------------------------------------------ constants
// One getter each for the codes a managed caller compares results with.
QV_CONSTANTS_BEGIN
%define QV_CODE(NAME)
%constant unsigned int NAME = NAME;
%enddef
QV_CODE(ERR_NOERROR)
QV_CODE(ERR_UNDEFINED)
QV_CODE(ERR_LOADLIBRARY_FAILED)
QV_CODE(ERR_INPUT_PARAMETERS)
QV_CODE(ERR_MAINCLIENT_INIT_FAILED)
QV_CODE(ERR_COMMUNICATION_NOT_INITIALIZED)
QV_CODE(ERR_TOO_MANY_GW_CLIENTS)
QV_CODE(ERR_CONNECT_FAILED)
QV_CODE(ERR_NOT_CONNECTED)
QV_CODE(ERR_INVALID_GW_CONNECTION)
QV_CODE(ERR_CURRENTCOM_EXIST)
QV_CODE(ERR_WAIT_TIMEOUT)
QV_CODE(ERR_MISMATCH_COMTYPE)
QV_CODE(ERR_INSUFFICIENT_SHMAREA_SIZE)
QV_CODE(ERR_SHMAREA_INIT_FAILED)
QV_CODE(ERR_VENDER_NOT_MATCHED)
QV_CODE(ERR_USER_NAME_OR_PASSWORD)
QV_CODE(ERR_XML_ILLEGL_XML_FORMAT)
QV_CODE(ERR_XML_NO_SYMB_MARK)
QV_CODE(ERR_XML_NO_HEADER)
QV_CODE(ERR_INVALID_TAG_HANDLE)
QV_CODE(ERR_XML_TYPE_DEF_ERROR)
QV_CODE(ERR_XML_LINE_ERROR)
QV_CODE(ERR_EXIST_INVAILD_VAR)
QV_CODE(ERR_INVALID_DEVICE_CLIENT)
QV_CODE(ERR_INVALID_VAR_DEFS)
QV_CODE(ERR_REF_TYPE_NO_WRITING)
QV_CODE(ERR_TAG_NO_ACCESS_RIGHTS)
QV_CODE(ERR_TOO_MANY_TAGS)
QV_CODE(ERR_VACACCESS_TAGS_CHANGED)
QV_CODE(ERR_TOO_MUCH_DATA_WRITTEN)
QV_CODE(ERR_OVERSTEP_ACCESS)
QV_CODE(ERR_UNALIGNED_STRUCT)
QV_CODE(ERR_UNMATCH_TYPE_PARA)
QV_CODE(ERR_UNMATCH_WITH_DEFINE)
QV_CODE(ERR_READ_FAILED)
QV_CODE(ERR_WRITE_FAILED)
QV_CODE(ERR_READ_WRITE_DENIED)
QV_CODE(ERR_INVALID_PARAMS)
%constant int MAX_NAME_LEN = MAX_NAME_LEN;
%constant int MAX_VALUE_LEN = MAX_VALUE_LEN;
QV_CONSTANTS_END

enum ComType { COM_TYPE_TCP = 1, COM_TYPE_LOCAL = 2 };

typedef void* HTAGLIST;

// -------------------------------------------------------------------- records
// Plain fields only: the records' own helpers stay in C++. Setting a string
// field stores a fresh copy and does not free the old one.
%warnfilter(SWIGWARN_TYPEMAP_CHARLEAK_MSG) tagTagDesc;
%warnfilter(SWIGWARN_TYPEMAP_CHARLEAK_MSG) tagTagVarValue;

%rename(TagDesc) tagTagDesc;
struct tagTagDesc {
  const char* Name;
  const char* FullName;
  int Type;
  int Size;
  int AccessType;
  const char* Comment;
  int VarType;
  int BaseType;
  int MinValue;
  int MaxValue;
  int EnumValue;
  void* TagsHandle;
};

%rename(TagVarValue) tagTagVarValue;
struct tagTagVarValue {
  const char* FullName;
  int Type;
  int ValueLength;
  void* Value;
};

%template(StringVector) std::vector<std::string>;
%template(VectorTagVarValue) std::vector<tagTagVarValue>;

// ------------------------------------------------------------------ the class
// The forms reachable from a managed caller, one per name where the managed
// languages cannot tell two overloads apart.
%rename(ReadTagList_INTERFACE_1) ZelVarlok::ReadTagList(HTAGLIST, tagTagVarValue**, unsigned int&);
%rename(WriteTagList2) ZelVarlok::WriteTagList(HTAGLIST, unsigned char*, unsigned int);
// ReadArray and WriteArray keep the name of an overload set: the second
// declaration of each differs only in a type that a managed caller sees as the
// same, so it produces no wrapper of its own and leaves the first its suffix.
%warnfilter(SWIGWARN_LANG_OVERLOAD_IGNORED) ZelVarlok::ReadArray(HTAGLIST, long, void*, unsigned int, unsigned int);
%warnfilter(SWIGWARN_LANG_OVERLOAD_IGNORED) ZelVarlok::WriteArray(HTAGLIST, long, void*, unsigned int, unsigned int);

class ZelVarlok {
 public:
  ZelVarlok();
  ~ZelVarlok();

  unsigned int InitializeCom(const ComType& comType, std::wstring path);
  void* ConnectToPlcDevice(std::string netIp, unsigned int& error);
  unsigned int DisconnectFromDevice(void* device);
  unsigned int ExitVarlokCommunication();

  HTAGLIST CreateTagsHandle(std::string name, unsigned int& error);
  HTAGLIST CreateTagsHandle(std::vector<std::string> names, unsigned int& error);
QV_DELETE_HANDLE_BEGIN
  unsigned int DeleteTagsHandle(HTAGLIST handle);
QV_DELETE_HANDLE_END

  unsigned int ReadTagList(HTAGLIST handle, std::vector<tagTagVarValue>& values, unsigned int& count);
  unsigned int ReadTagList(HTAGLIST handle, tagTagVarValue** values, unsigned int& count);
  unsigned int WriteTagList(HTAGLIST handle, std::vector<std::string>& values);
  unsigned int WriteTagList(HTAGLIST handle, unsigned char* data, unsigned int count);

QV_ARRAY_BUFFER_BEGIN
  unsigned int ReadArray(HTAGLIST handle, int length, void* data, unsigned int start, unsigned int count);
  unsigned int ReadArray(HTAGLIST handle, long length, void* data, unsigned int start, unsigned int count);
  unsigned int WriteArray(HTAGLIST handle, int length, void* data, unsigned int start, unsigned int count);
  unsigned int WriteArray(HTAGLIST handle, long length, void* data, unsigned int start, unsigned int count);
QV_ARRAY_BUFFER_END
QV_STRUCT_BUFFER_BEGIN
  unsigned int ReadStructField(HTAGLIST handle, void* data, int length);
  unsigned int WriteStructField(HTAGLIST handle, const void* data, int length);
QV_STRUCT_BUFFER_END
};

// ------------------------------------------------ symbol files without a controller
void* CreateSymbolConfigHandle(std::wstring path, unsigned int* errorCode);
unsigned int GetSymbolConfigParseResult(void* handle, tagTagDesc** descs, unsigned int* count);
unsigned int GetSymbolConfigToppestTagsDesc(void* handle, tagTagDesc** descs, unsigned int* count);
void ReleaseSymbolConfigHandle(void* handle);
