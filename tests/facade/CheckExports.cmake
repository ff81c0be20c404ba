# Run as: cmake -DLIBRARY=<libQorVarlok.so> -P CheckExports.cmake
# or:     cmake -DLIBRARY=<QorVarlok.dll> -DOBJDUMP=<objdump> -DCXXFILT=<c++filt> -P CheckExports.cmake
# The library exports exactly its interface, name for name: the class, the
# plain exports and the managed ones; nothing internal, no C++ runtime or
# logging symbols, and nothing of the interface missing.
cmake_policy(SET CMP0007 NEW)
if(LIBRARY MATCHES "\\.dll$")
  # A DLL's export table, demangled: -DOBJDUMP=<objdump> -DCXXFILT=<c++filt> of the cross tools.
  execute_process(COMMAND ${OBJDUMP} -p ${LIBRARY} OUTPUT_VARIABLE _table RESULT_VARIABLE _rc)
  if(NOT _rc EQUAL 0)
    message(FATAL_ERROR "objdump ${_rc}")
  endif()
  string(REGEX MATCH "\\[Ordinal/Name Pointer\\] Table[^\n]*\n(.*)" _ignored "${_table}")
  string(REGEX MATCHALL "\t\\[ *[0-9]+\\] [^\n]+" _rows "${CMAKE_MATCH_1}")
  list(TRANSFORM _rows REPLACE "^\t\\[ *[0-9]+\\] " "")
  string(REPLACE ";" "\n" _mangled "${_rows}")
  get_filename_component(_list ${LIBRARY}.exports ABSOLUTE)
  file(WRITE ${_list} "${_mangled}\n")
  execute_process(COMMAND ${CXXFILT} INPUT_FILE ${_list} OUTPUT_VARIABLE _names RESULT_VARIABLE _rc)
  if(NOT _rc EQUAL 0)
    message(FATAL_ERROR "c++filt ${_rc}")
  endif()
else()
  execute_process(COMMAND nm -D --defined-only -C ${LIBRARY} OUTPUT_VARIABLE _out RESULT_VARIABLE _rc)
  if(NOT _rc EQUAL 0)
    message(FATAL_ERROR "nm ${_rc}")
  endif()
  string(REGEX REPLACE "(^|\n)[0-9a-fA-F]* *[A-Za-z] " "\n" _names "${_out}")
endif()
string(REPLACE "\n" ";" _exported "${_names}")
list(FILTER _exported EXCLUDE REGEX "^$")
list(REMOVE_DUPLICATES _exported)  # constructors and destructors come twice

# The class and the plain exports.
set(_string "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >")
set(_strings "std::vector<${_string}, std::allocator<${_string} > >")
set(_expected
  "ZelVarlok::ZelVarlok()" "ZelVarlok::~ZelVarlok()" "ZelVarlok::operator=(ZelVarlok const&)"
  "ZelVarlok::InitializeCom(ComType const&, void*)" "ZelVarlok::InitializeCom(ComType const&, char const*)"
  "ZelVarlok::InitializeCom(ComType const&, std::__cxx11::basic_string<wchar_t, std::char_traits<wchar_t>, std::allocator<wchar_t> >)"
  "ZelVarlok::ConnectToPlcDevice(char const*, unsigned int&)"
  "ZelVarlok::ConnectToPlcDevice(${_string}, unsigned int&)"
  "ZelVarlok::DisconnectFromDevice(void*)" "ZelVarlok::ExitVarlokCommunication()"
  "ZelVarlok::DeleteTagsHandle(void*)"
  "ZelVarlok::ReadTagList(void*, std::vector<tagTagVarValue, std::allocator<tagTagVarValue> >&, unsigned int&)"
  "ZelVarlok::ReadTagList(void*, tagTagVarValue**, unsigned int&)"
  "ZelVarlok::WriteTagList(void*, ${_strings}&)" "ZelVarlok::WriteTagList(void*, unsigned char*, unsigned int)"
  "ZelVarlok::ReadArray(void*, int, void*, unsigned int, unsigned int)"
  "ZelVarlok::WriteArray(void*, int, void*, unsigned int, unsigned int)"
  "ZelVarlok::ReadStructField(void*, void*, int)" "ZelVarlok::WriteStructField(void*, void const*, int)"
  "ZelVarlok::ReadTagInner(unsigned int, void*)" "ZelVarlok::WriteTagInner(unsigned int, void*)"
  "ZelVarlok::ReadTagDataFromBuff(unsigned int, void*)" "ZelVarlok::WirteTagDataFromBuff(unsigned int, void*)"
  "ZelVarlok::SaveTemplateData(unsigned int, void*, std::type_info const&, int const&)" "ZelVarlok::sessionId()"
  "ZelVarlok::GetTagDescByDefinedHandle(void*, tagTagDesc**)" "ZelVarlok::GetTagDescByName(${_string})"
  "ZelVarlok::GetTagsListLength(void*)"
  ReadErrorDescription GetVarlokVersionInfo CreateSymbolConfigHandle CreateSymbolConfigHandleW
  GetSymbolConfigParseResult GetSymbolConfigToppestTagsDesc GetSymbolConfigSubTagsDesc ReleaseSymbolConfigHandle
  CSharp_ReadErrorDescription CSharp_GetTagsListLength CSharp_ReadTagsListDesc CSharp_ReadTagsDescByTagName)
foreach(_form "char const**, unsigned int, unsigned int&" "char const*, unsigned int&" "${_string}, unsigned int&"
        "${_strings}, unsigned int&")
  list(APPEND _expected "ZelVarlok::CreateTagsHandle(${_form})" "ZelVarlok::CreateTagsHandleAnsi(${_form})")
endforeach()

# The managed surface.
list(APPEND _expected SWIGRegisterExceptionCallbacks_QorVarlok SWIGRegisterExceptionArgumentCallbacks_QorVarlok
  SWIGRegisterStringCallback_QorVarlok SWIGRegisterWStringCallback_QorVarlok)
set(_managed
  new_ZelVarlok delete_ZelVarlok ZelVarlok_ConnectToPlcDevice ZelVarlok_CreateTagsHandle__SWIG_0
  ZelVarlok_CreateTagsHandle__SWIG_1 ZelVarlok_DeleteTagsHandle ZelVarlok_DisconnectFromDevice
  ZelVarlok_ExitVarlokCommunication ZelVarlok_InitializeCom ZelVarlok_ReadArray__SWIG_0 ZelVarlok_ReadStructField
  ZelVarlok_ReadTagList ZelVarlok_ReadTagList_INTERFACE_1 ZelVarlok_WriteArray__SWIG_0 ZelVarlok_WriteStructField
  ZelVarlok_WriteTagList ZelVarlok_WriteTagList2
  CreateSymbolConfigHandle GetSymbolConfigParseResult GetSymbolConfigToppestTagsDesc ReleaseSymbolConfigHandle
  new_TagDesc delete_TagDesc new_TagVarValue delete_TagVarValue MAX_NAME_LEN_get MAX_VALUE_LEN_get)
foreach(_code NOERROR UNDEFINED LOADLIBRARY_FAILED INPUT_PARAMETERS MAINCLIENT_INIT_FAILED
        COMMUNICATION_NOT_INITIALIZED TOO_MANY_GW_CLIENTS CONNECT_FAILED NOT_CONNECTED INVALID_GW_CONNECTION
        CURRENTCOM_EXIST WAIT_TIMEOUT MISMATCH_COMTYPE INSUFFICIENT_SHMAREA_SIZE SHMAREA_INIT_FAILED
        VENDER_NOT_MATCHED USER_NAME_OR_PASSWORD XML_ILLEGL_XML_FORMAT XML_NO_SYMB_MARK XML_NO_HEADER
        INVALID_TAG_HANDLE XML_TYPE_DEF_ERROR XML_LINE_ERROR EXIST_INVAILD_VAR INVALID_DEVICE_CLIENT INVALID_VAR_DEFS
        REF_TYPE_NO_WRITING TAG_NO_ACCESS_RIGHTS TOO_MANY_TAGS VACACCESS_TAGS_CHANGED TOO_MUCH_DATA_WRITTEN
        OVERSTEP_ACCESS UNALIGNED_STRUCT UNMATCH_TYPE_PARA UNMATCH_WITH_DEFINE READ_FAILED WRITE_FAILED
        READ_WRITE_DENIED INVALID_PARAMS)
  list(APPEND _managed ERR_${_code}_get)
endforeach()
foreach(_field AccessType BaseType Comment EnumValue FullName MaxValue MinValue Name Size TagsHandle Type VarType)
  list(APPEND _managed TagDesc_${_field}_get TagDesc_${_field}_set)
endforeach()
foreach(_field FullName Type Value ValueLength)
  list(APPEND _managed TagVarValue_${_field}_get TagVarValue_${_field}_set)
endforeach()
set(_vector_ops Add AddRange Clear GetRange Insert InsertRange RemoveAt RemoveRange Repeat Reverse__SWIG_0
    Reverse__SWIG_1 SetRange capacity getitem getitemcopy reserve setitem size)
foreach(_vector StringVector VectorTagVarValue)
  list(APPEND _managed new_${_vector}__SWIG_0 new_${_vector}__SWIG_1 new_${_vector}__SWIG_2 delete_${_vector})
  foreach(_op ${_vector_ops})
    list(APPEND _managed ${_vector}_${_op})
  endforeach()
endforeach()
foreach(_op Contains IndexOf LastIndexOf Remove)  # the records have no comparison
  list(APPEND _managed StringVector_${_op})
endforeach()
list(LENGTH _managed _managed_count)
if(NOT _managed_count EQUAL 146)
  message(SEND_ERROR "the expected managed list has ${_managed_count} names, not 146")
endif()
foreach(_name ${_managed})
  list(APPEND _expected CSharp_ZelVarlokCSharp_${_name})
endforeach()

set(_extra ${_exported})
list(REMOVE_ITEM _extra ${_expected})
set(_missing ${_expected})
list(REMOVE_ITEM _missing ${_exported})
if(_extra)
  message(SEND_ERROR "exported but not interface: ${_extra}")
endif()
if(_missing)
  message(SEND_ERROR "not exported: ${_missing}")
endif()
if(NOT _extra AND NOT _missing)
  list(LENGTH _exported _count)
  message(STATUS "${_count} names exported, each of them interface")
endif()
