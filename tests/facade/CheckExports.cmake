# Run as: cmake -DLIBRARY=<libQorVarlok.so> -P CheckExports.cmake
# The library exports exactly its interface: the class, the plain exports and
# the managed ones; nothing internal, no C++ runtime or logging symbols.
cmake_policy(SET CMP0007 NEW)
execute_process(COMMAND nm -D --defined-only -C ${LIBRARY} OUTPUT_VARIABLE _out RESULT_VARIABLE _rc)
string(REGEX REPLACE "(^|\n)[0-9a-fA-F]* *[A-Za-z] " "\n" _names "${_out}")
string(REPLACE "\n" ";" _extra "${_names}")
list(FILTER _extra EXCLUDE REGEX "^(ZelVarlok::|CSharp_|SWIGRegister|ReadErrorDescription$|GetVarlokVersionInfo$|CreateSymbolConfigHandleW?$|GetSymbolConfig(ParseResult|ToppestTagsDesc|SubTagsDesc)$|ReleaseSymbolConfigHandle$|Qor|VERS|QORVARLOK|$)")
if(NOT _rc EQUAL 0 OR _extra)
  message(SEND_ERROR "nm ${_rc}; exported but not interface: ${_extra}")
endif()
foreach(_required "ZelVarlok::ZelVarlok()" "ZelVarlok::~ZelVarlok()" "ZelVarlok::operator=(ZelVarlok const&)"
        "ZelVarlok::sessionId()" "ZelVarlok::SaveTemplateData(" "ZelVarlok::ReadTagInner(" "ZelVarlok::WirteTagDataFromBuff("
        "CSharp_ReadErrorDescription" "CSharp_GetTagsListLength" "CSharp_ReadTagsListDesc" "CSharp_ReadTagsDescByTagName"
        "GetVarlokVersionInfo" "ReadErrorDescription")
  string(FIND "${_names}" "\n${_required}" _at)
  if(_at EQUAL -1)
    message(SEND_ERROR "not exported: ${_required}")
  endif()
endforeach()
