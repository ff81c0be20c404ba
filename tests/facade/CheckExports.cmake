# Run as: cmake -DLIBRARY=<libQorVarlok.so> -P CheckExports.cmake
# The library exports exactly its interface: the class, the plain exports and
# the managed ones; nothing internal, no C++ runtime or logging symbols.
execute_process(COMMAND nm -D --defined-only -C ${LIBRARY} OUTPUT_VARIABLE _out RESULT_VARIABLE _rc)
if(NOT _rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REPLACE "\n" ";" _lines "${_out}")
set(_allowed "^(ZelVarlok::|CSharp_|SWIGRegister|ReadErrorDescription$|GetVarlokVersionInfo$|CreateSymbolConfigHandleW?$|GetSymbolConfig(ParseResult|ToppestTagsDesc|SubTagsDesc)$|ReleaseSymbolConfigHandle$)")
foreach(_line ${_lines})
  string(REGEX REPLACE "^[0-9a-fA-F]* *[A-Za-z] " "" _symbol "${_line}")
  if(NOT _symbol STREQUAL "" AND NOT _symbol MATCHES "^Qor|^VERS|^QORVARLOK" AND NOT _symbol MATCHES "${_allowed}")
    message(SEND_ERROR "exported but not interface: ${_symbol}")
  endif()
endforeach()
foreach(_required "ZelVarlok::ZelVarlok()" "ZelVarlok::~ZelVarlok()" "ZelVarlok::operator=(ZelVarlok const&)"
        "ZelVarlok::sessionId()" "ZelVarlok::SaveTemplateData(" "ZelVarlok::ReadTagInner(" "ZelVarlok::WirteTagDataFromBuff("
        "CSharp_ReadErrorDescription" "CSharp_GetTagsListLength" "CSharp_ReadTagsListDesc"
        "CSharp_ReadTagsDescByTagName" "GetVarlokVersionInfo" "ReadErrorDescription")
  string(FIND "${_out}" "${_required}" _at)
  if(_at EQUAL -1)
    message(SEND_ERROR "not exported: ${_required}")
  endif()
endforeach()
