# LusModule.cmake -- building datapath modules for the host: the project's
# own (lus, the sample clients) and a team's own client, in this tree or
# against an installed package (find_package(Lus)).
#
# A module is built for the kernel: no exceptions, no RTTI, no unwind
# tables, no C++ runtime, no C library and no start files; every symbol it
# leaves undefined must be a host operation.  The symbol check runs on every
# module as it is built.
#
# Set by whoever includes this file:
#   LUS_MODULE_INCLUDE_DIRS   the hyk headers, the client-facing lus headers, hyksim/ledger.h
#   LUS_CHECK_MODULE_SYMBOLS  check_module_symbols.sh
#   LUS_MODULE_SANITIZED      1 when the modules are built with sanitizers (their runtimes' calls are allowed)
#   LUS_MODULE_CHECK          OFF to skip the check (a coverage-instrumented build, whose
#                             counters are not host calls); ON by default

# A module is linked by the C driver (no C++ runtime): a project that
# enabled only CXX gets C as well.
get_property(_lus_languages GLOBAL PROPERTY ENABLED_LANGUAGES)
if(NOT "C" IN_LIST _lus_languages)
  enable_language(C)
endif()

# Compile and link options of every datapath module object.
function(lus_module_kernel_options target)
  target_compile_options(${target} PRIVATE
    -fno-exceptions -fno-rtti -fno-asynchronous-unwind-tables -fno-unwind-tables
    -fno-threadsafe-statics -fno-stack-protector -fno-common -Werror)
  # Link with the C driver and nothing by default: no libstdc++, no libc, no
  # crt files (the module has no constructors to run).  mem* calls the
  # compiler emits resolve against the host process at load.  The C library
  # is named only so that those references carry its current symbol
  # versions: an unversioned memcpy binds to the oldest one, a compatibility
  # memmove whose variant copied a 4 KiB state buffer at 60% of the speed of
  # the memcpy everything else in the process calls.
  set_target_properties(${target} PROPERTIES LINKER_LANGUAGE C)
  target_link_options(${target} PRIVATE -nostdlib)
  target_link_libraries(${target} PRIVATE -l:libc.so.6)
endfunction()

# lus_add_module(<target> NAME <module-name> BUILD <build> SOURCES <file>...
#                [OUTPUT_DIRECTORY <dir>] [LEDGER] [DEFINITIONS <def>...]
#                [INCLUDE_DIRECTORIES <dir>...])
#
# Builds the client module <module-name>-<build>.so (the host names a module
# after its file) into OUTPUT_DIRECTORY (default:
# ${CMAKE_CURRENT_BINARY_DIR}/modules/clients), with LUS_MODULE_BUILD=<build>
# defined.  LEDGER: the module may call the simulator's ledger
# (hyksim/ledger.h), and LUS_SIMULATOR_LEDGER is defined so that the calls
# can be compiled out of a build for a real host, where the symbol check
# refuses them.
function(lus_add_module target)
  cmake_parse_arguments(ARG "LEDGER" "NAME;BUILD;OUTPUT_DIRECTORY" "SOURCES;DEFINITIONS;INCLUDE_DIRECTORIES" ${ARGN})
  foreach(required NAME BUILD SOURCES)
    if(NOT ARG_${required})
      message(FATAL_ERROR "lus_add_module(${target}): ${required} is required")
    endif()
  endforeach()
  if(NOT ARG_BUILD MATCHES "^[0-9]+$")
    message(FATAL_ERROR "lus_add_module(${target}): BUILD must be a number, not '${ARG_BUILD}'")
  endif()
  if(ARG_NAME MATCHES "[/ ]" OR ARG_NAME STREQUAL "lus")
    message(FATAL_ERROR "lus_add_module(${target}): '${ARG_NAME}' is not a client module name")
  endif()
  if(NOT ARG_OUTPUT_DIRECTORY)
    set(ARG_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/modules/clients)
  endif()
  add_library(${target} MODULE ${ARG_SOURCES})
  target_include_directories(${target} PRIVATE ${LUS_MODULE_INCLUDE_DIRS} ${ARG_INCLUDE_DIRECTORIES})
  target_compile_definitions(${target} PRIVATE LUS_MODULE_BUILD=${ARG_BUILD} ${ARG_DEFINITIONS})
  set(kind module)
  if(ARG_LEDGER)
    target_compile_definitions(${target} PRIVATE LUS_SIMULATOR_LEDGER=1)
    set(kind client)
  endif()
  set_target_properties(${target} PROPERTIES
    PREFIX ""
    OUTPUT_NAME ${ARG_NAME}-${ARG_BUILD}
    LIBRARY_OUTPUT_DIRECTORY ${ARG_OUTPUT_DIRECTORY})
  lus_module_kernel_options(${target})
  if(NOT DEFINED LUS_MODULE_SANITIZED)
    set(LUS_MODULE_SANITIZED 0)
  endif()
  if(DEFINED LUS_MODULE_CHECK AND NOT LUS_MODULE_CHECK)
    return()
  endif()
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND sh ${LUS_CHECK_MODULE_SYMBOLS} $<TARGET_FILE:${target}> ${LUS_MODULE_SANITIZED} ${kind}
    COMMENT "Checking that ${ARG_NAME}-${ARG_BUILD}.so calls only the host"
    VERBATIM)
endfunction()
