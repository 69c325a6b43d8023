# Sanitizer builds. The flags go on every target of the build (library, tests,
# benchmarks), so that the instrumented code and its runtime always meet.
if(QOR_SANITIZE_ADDRESS AND QOR_SANITIZE_THREAD)
  message(FATAL_ERROR "QOR_SANITIZE_ADDRESS and QOR_SANITIZE_THREAD exclude each other")
endif()

set(QOR_SANITIZER_FLAGS "")
if(QOR_SANITIZE_ADDRESS)
  set(QOR_SANITIZER_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(QOR_SANITIZE_THREAD)
  set(QOR_SANITIZER_FLAGS -fsanitize=thread -fno-omit-frame-pointer)
endif()

if(QOR_SANITIZER_FLAGS)
  add_compile_options(${QOR_SANITIZER_FLAGS})
  add_link_options(${QOR_SANITIZER_FLAGS})
endif()
