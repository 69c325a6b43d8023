# Helpers that let each subsystem folder add its units to the one library.
#
# Public headers are copied flat into <build>/include/qor/, so code inside the
# tree includes them exactly as a user of the installed library does:
# #include <qor/qor_stream.h>.

set(QOR_BUILD_INCLUDE_DIR "${PROJECT_BINARY_DIR}/include")
set_property(GLOBAL PROPERTY QOR_PUBLIC_HEADERS "")

function(qor_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(QOR_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(QOR_SANITIZER_FLAGS)
    # The sanitizers' instrumentation makes g++ 12 warn of uninitialised
    # values inside the standard headers that are not there.
    target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized)
  endif()
endfunction()

# qor_sources(file...): private source files of the library.
function(qor_sources)
  foreach(file IN LISTS ARGN)
    target_sources(qor PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}/${file}")
  endforeach()
endfunction()

# qor_public_headers(file...): headers installed under include/qor/.
function(qor_public_headers)
  foreach(file IN LISTS ARGN)
    set(source "${CMAKE_CURRENT_SOURCE_DIR}/${file}")
    get_filename_component(name "${file}" NAME)
    configure_file("${source}" "${QOR_BUILD_INCLUDE_DIR}/qor/${name}" COPYONLY)
    target_sources(qor PRIVATE "${source}")
    set_property(GLOBAL APPEND PROPERTY QOR_PUBLIC_HEADERS "${source}")
  endforeach()
endfunction()
