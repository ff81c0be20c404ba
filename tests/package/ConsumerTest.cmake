# Installs the library's component of the build into a fresh prefix, checks
# that the prefix holds exactly the public header, the library with the vendor
# stand-ins it needs, the C# assembly (where Mono built one), the Python
# package (where it was built) and the package files, then configures, builds
# and runs a small program that finds the package by find_package; the whole
# installation runs both tools, and (given PYTHON) the installed Python package
# is imported and browses a symbol file.
cmake_minimum_required(VERSION 3.25)

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err
                  WORKING_DIRECTORY ${WORK_DIR})
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  set(RUN_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

set(PREFIX ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

run("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX} --component QorVarlok)

file(GLOB_RECURSE installed RELATIVE ${PREFIX} LIST_DIRECTORIES false ${PREFIX}/*)
list(SORT installed)
set(unexpected "")
foreach(f ${installed})
  if(NOT f MATCHES "^include/QorVarlok/[A-Za-z]+\\.h$"
     AND NOT f MATCHES "^${LIBDIR}/lib(QorVarlok|RtosLib64|ZelTagAccess)\\.so(\\.[0-9]+)*$"
     AND NOT f MATCHES "^${LIBDIR}/ZelVarlokCSharp\\.dll$"
     AND NOT (PYTHON_DIR AND f MATCHES "^${PYTHON_DIR}/qorvarlok/([a-z_]+\\.py|QorVarlok\\.py|_QorVarlok\\.[a-z0-9_-]+\\.so)$")
     AND NOT f MATCHES "^${LIBDIR}/cmake/QorVarlok/QorVarlok(Config|ConfigVersion|Targets|Targets-[a-z]+)\\.cmake$")
    list(APPEND unexpected ${f})
  endif()
endforeach()
if(unexpected)
  message(FATAL_ERROR "installed beyond the interface: ${unexpected}")
endif()
foreach(required include/QorVarlok/ZelVarlok.h ${LIBDIR}/libQorVarlok.so
        ${LIBDIR}/cmake/QorVarlok/QorVarlokConfig.cmake ${LIBDIR}/cmake/QorVarlok/QorVarlokConfigVersion.cmake)
  if(NOT EXISTS ${PREFIX}/${required})
    message(FATAL_ERROR "not installed: ${required} (installed: ${installed})")
  endif()
endforeach()

# The whole installation also brings the two tools, which run from there.
run("full install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/full)
foreach(tool varlok varlok-sim)
  run("${tool} --help" ${WORK_DIR}/full/bin/${tool} --help)
  if(NOT RUN_OUTPUT MATCHES "^usage: ${tool} ")
    message(FATAL_ERROR "${tool} --help said: ${RUN_OUTPUT}")
  endif()
endforeach()

run("consumer configure" ${CMAKE_COMMAND} -S ${CONSUMER_SOURCE} -B ${WORK_DIR}/build
    -DCMAKE_PREFIX_PATH=${PREFIX} -DEXPECTED_VERSION=${EXPECTED_VERSION}
    "-DCMAKE_CXX_FLAGS=${CONSUMER_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${CONSUMER_FLAGS}")
run("consumer build" ${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run("consumer run" ${WORK_DIR}/build/consumer)
if(NOT RUN_OUTPUT MATCHES "consumer: all checks passed")
  message(FATAL_ERROR "consumer said: ${RUN_OUTPUT}")
endif()
message(STATUS "${RUN_OUTPUT}")

# The installed Python package, from the prefix alone: the extension finds
# libQorVarlok.so beside it through its run path. (No semicolons in the
# code: run() takes its command as a list.)
if(PYTHON)
  run("python import" ${CMAKE_COMMAND} -E env PYTHONPATH=${PREFIX}/${PYTHON_DIR} PYTHONDONTWRITEBYTECODE=1
      ${PYTHON} -c "
import qorvarlok, sys
assert qorvarlok.__file__.startswith(sys.argv[1]), qorvarlok.__file__
print('python:', sum(1 for t in qorvarlok.browse(sys.argv[2]) if t.type == 'DInt'), 'DInt tags')"
      ${PREFIX} ${SYMBOLS})
  if(NOT RUN_OUTPUT MATCHES "python: [1-9][0-9]* DInt tags")
    message(FATAL_ERROR "installed Python package said: ${RUN_OUTPUT}")
  endif()
  message(STATUS "${RUN_OUTPUT}")
endif()
