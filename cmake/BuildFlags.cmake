# The flags that every target of this project is built with.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 99)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

# Boost's inline code must stay private to each binary: with default visibility an application's own
# copy, built with other flags, would replace the library's at load time.
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE Release)
endif()
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g -DNDEBUG")
set(CMAKE_C_FLAGS_RELEASE "-O2 -g -DNDEBUG")

option(ORVANE_WERROR "Treat warnings as errors" OFF)
set(ORVANE_SANITIZE "" CACHE STRING "Sanitizers to build with, such as address,undefined")

# A constructor's parameter may have the name of the member that it initializes. Clang's -Wshadow
# allows that; g++ needs "local", which Clang does not know.
add_compile_options(-Wall -Wextra -Wpedantic -Wconversion
                    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor> $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
                    -Wcast-align -Wformat=2 $<IF:$<CXX_COMPILER_ID:GNU>,-Wshadow=local,-Wshadow>)
if(ORVANE_WERROR)
  add_compile_options(-Werror)
endif()
if(ORVANE_SANITIZE)
  add_compile_options(-fsanitize=${ORVANE_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${ORVANE_SANITIZE})
endif()

# Debian's hardening flags.
add_compile_options(-fstack-protector-strong -fstack-clash-protection -fcf-protection
                    -Werror=format-security)
if(NOT ORVANE_SANITIZE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
add_link_options(-Wl,-z,relro -Wl,-z,now -Wl,--as-needed)
include(CheckPIESupported)
check_pie_supported(LANGUAGES C CXX)
