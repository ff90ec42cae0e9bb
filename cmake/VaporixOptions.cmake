# Shared compile settings: warnings, numeric determinism and sanitizers.

add_library(vaporix_warnings INTERFACE)
target_compile_options(vaporix_warnings INTERFACE -Wall -Wextra -Wshadow -Wnon-virtual-dtor)

# Numeric code must not change its results with fused multiply-add.
add_library(vaporix_numeric INTERFACE)
target_compile_options(vaporix_numeric INTERFACE -ffp-contract=off)
target_link_libraries(vaporix_numeric INTERFACE vaporix_warnings)

if(VAPORIX_SANITIZE STREQUAL "address-undefined")
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
elseif(VAPORIX_SANITIZE STREQUAL "thread")
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
elseif(NOT VAPORIX_SANITIZE STREQUAL "")
    message(FATAL_ERROR "VAPORIX_SANITIZE must be empty, address-undefined or thread")
endif()

if(VAPORIX_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "VAPORIX_FUZZ needs clang")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
endif()

# vaporix_library(NAME SOURCES ... [PUBLIC libs] [PRIVATE libs]): one static library per
# subsystem, rooted includes at src/.
function(vaporix_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} PUBLIC ${ARG_PUBLIC} PRIVATE vaporix_numeric ${ARG_PRIVATE})
endfunction()
