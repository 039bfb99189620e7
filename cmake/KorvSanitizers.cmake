# Applied to the whole tree so that libraries and tests agree on instrumentation.
if(KORV_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(KORV_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT KORV_SANITIZE STREQUAL "")
  message(FATAL_ERROR "KORV_SANITIZE must be empty, 'address' or 'thread'")
endif()

if(KORV_BUILD_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
