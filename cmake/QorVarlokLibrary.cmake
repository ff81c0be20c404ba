# The library is assembled from the subsystems' object libraries, so that
# tests and tools can link the very same objects, internals included, without
# going through the .so. A part is an OBJECT library named qv_<part>; parts
# link each other only for usage requirements. Consumers link qv_internal,
# which brings every part's objects exactly once.
set(QORVARLOK_PARTS qv_interop qv_facade qv_shm qv_backend qv_tags qv_symbols qv_records qv_logsetup qv_platform qv_tagaccessapi)

add_library(qv_internal INTERFACE)
foreach(part ${QORVARLOK_PARTS})
  if(TARGET ${part})
    target_link_libraries(qv_internal INTERFACE ${part})
    target_sources(qv_internal INTERFACE $<TARGET_OBJECTS:${part}>)
  endif()
endforeach()

add_library(QorVarlok SHARED ${CMAKE_SOURCE_DIR}/cmake/empty.cpp)
add_library(QorVarlok::QorVarlok ALIAS QorVarlok)
target_link_libraries(QorVarlok PRIVATE qv_internal)
target_link_libraries(QorVarlok PUBLIC qv_api)
if(WIN32)
  # QorVarlok.dll with its import library QorVarlok.lib. What it exports is
  # what the sources mark __declspec(dllexport): the interface alone.
  set_target_properties(QorVarlok PROPERTIES PREFIX "" IMPORT_PREFIX "" IMPORT_SUFFIX ".lib")
else()
  # Export exactly the interface; everything else stays local.
  target_link_options(QorVarlok PRIVATE
    -Wl,--version-script=${CMAKE_SOURCE_DIR}/QorVarlok/exports.map ${QORVARLOK_NO_UNDEFINED})
  set_target_properties(QorVarlok PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    LINK_DEPENDS ${CMAKE_SOURCE_DIR}/QorVarlok/exports.map)
endif()
