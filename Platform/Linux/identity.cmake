# Who sent a packet: the socket, its process, and what that is called.
pkg_check_modules(LIBBPF REQUIRED IMPORTED_TARGET GLOBAL libbpf)
pkg_check_modules(LIBMNL REQUIRED IMPORTED_TARGET libmnl)
find_program(BPF_CLANG clang REQUIRED)

set(TRACER_SOURCE ${CMAKE_CURRENT_LIST_DIR}/bpf/ConnectTracer.bpf.c)
set(TRACER_FOLDER ${CMAKE_CURRENT_BINARY_DIR}/generated)
set(EMBED_SCRIPT ${CMAKE_CURRENT_LIST_DIR}/bpf/EmbedProgram.cmake)
file(MAKE_DIRECTORY ${TRACER_FOLDER})

# Compiles the program, with the options that follow the name, and makes a header NAME.h of it.
function(add_tracer_program NAME)
  set(OBJECT ${CMAKE_CURRENT_BINARY_DIR}/${NAME}.bpf.o)
  # The debug information holds the description of the map, which the loader needs.
  add_custom_command(OUTPUT ${TRACER_FOLDER}/${NAME}.h
    COMMAND ${BPF_CLANG} -O2 -g -Wall -Wextra -Werror -target bpf ${ARGN} -c ${TRACER_SOURCE}
            -o ${OBJECT}
    COMMAND ${CMAKE_COMMAND} -DINPUT=${OBJECT} -DOUTPUT=${TRACER_FOLDER}/${NAME}.h
            -DNAME=k${NAME} -P ${EMBED_SCRIPT}
    DEPENDS ${TRACER_SOURCE} ${EMBED_SCRIPT}
    BYPRODUCTS ${OBJECT}
    VERBATIM)
endfunction()
add_tracer_program(ConnectTracerProgram -DTRACE_PROGRAMS)
add_tracer_program(ConnectTracerPlainProgram)

add_library(LinuxIdentity STATIC
  ${CMAKE_CURRENT_LIST_DIR}/ApplicationIdentifierSource.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ApplicationRegistrations.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ConnectTracer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/FileLookup.cpp
  ${CMAKE_CURRENT_LIST_DIR}/KnownProcesses.cpp
  ${CMAKE_CURRENT_LIST_DIR}/MountTable.cpp
  ${CMAKE_CURRENT_LIST_DIR}/PrintableIdentifier.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ProcessTable.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ProxyAnswer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ProxyProcess.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ProxyTrial.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ProxyTrialThread.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ProxyTrust.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SearchAllowance.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SearchBudget.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SocketDiagnostics.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SocketHolderSearch.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SystemUsers.cpp
  ${CMAKE_CURRENT_LIST_DIR}/UserName.cpp
  ${TRACER_FOLDER}/ConnectTracerPlainProgram.h
  ${TRACER_FOLDER}/ConnectTracerProgram.h)
target_include_directories(LinuxIdentity PRIVATE ${TRACER_FOLDER})
target_link_libraries(LinuxIdentity
  PUBLIC LinuxNetwork
  PRIVATE LinuxBase PkgConfig::JANSSON PkgConfig::LIBBPF PkgConfig::LIBMNL)
