# Compile options for our own targets (never for third-party code):
# kv_project_options is linked privately by every target we build.
add_library(kv_project_options INTERFACE)
target_compile_options(kv_project_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow
                                                    -Wnon-virtual-dtor -Wold-style-cast)
target_compile_definitions(kv_project_options INTERFACE _GLIBCXX_ASSERTIONS)
if(KV_WERROR)
    target_compile_options(kv_project_options INTERFACE -Werror)
endif()

# Sanitizers apply to the whole build so that every object and the link agree.
if(KV_SANITIZE STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(KV_SANITIZE STREQUAL "thread")
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
elseif(NOT KV_SANITIZE STREQUAL "")
    message(FATAL_ERROR "KV_SANITIZE must be empty, 'address' or 'thread'")
endif()

if(KV_FUZZ AND NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "KV_FUZZ needs clang (libFuzzer)")
endif()
