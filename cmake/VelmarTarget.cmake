# Settings shared by every target of ours: warnings as errors, platform defines, sanitizers.
function(velmar_configure_target target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
    if(WIN32)
        target_compile_definitions(${target} PRIVATE UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX
                                                     _WIN32_WINNT=0x0601)
    endif()
    if(VELMAR_FUZZ)
        # Coverage for libFuzzer in every library, so the fuzzer sees inside the code it drives.
        target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link,address,undefined
                                                 -fno-sanitize-recover=all)
        target_link_options(${target} PRIVATE -fsanitize=address,undefined)
    endif()
    if(VELMAR_TSAN)
        target_compile_options(${target} PRIVATE -fsanitize=thread -fno-omit-frame-pointer)
        target_link_options(${target} PRIVATE -fsanitize=thread)
    endif()
    if(VELMAR_SANITIZE)
        target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-omit-frame-pointer
                                                 -fno-sanitize-recover=all)
        target_link_options(${target} PRIVATE -fsanitize=address,undefined)
    endif()
endfunction()

function(velmar_library target)
    add_library(${target} STATIC ${ARGN})
    target_include_directories(${target} PUBLIC ${CMAKE_SOURCE_DIR})
    velmar_configure_target(${target})
endfunction()

# Sources that exist once per platform are named *Posix.cpp and *Win32.cpp; this picks the right one.
function(velmar_platform_sources out)
    set(result)
    foreach(stem IN LISTS ARGN)
        if(WIN32)
            list(APPEND result ${stem}Win32.cpp)
        else()
            list(APPEND result ${stem}Posix.cpp)
        endif()
    endforeach()
    set(${out} ${result} PARENT_SCOPE)
endfunction()

# velmar_layer_check(library...): each library linked alone, whole, with only what it declares below it,
# so that a reference the wrong way (or to a library it does not declare) is an undefined symbol and fails
# the build. Plain POSIX builds only: sanitizer runtimes live in the programs.
function(velmar_layer_check)
    if(WIN32 OR VELMAR_FUZZ OR VELMAR_SANITIZE OR VELMAR_TSAN)
        return()
    endif()
    set(empty ${CMAKE_BINARY_DIR}/layer_alone.cpp)
    if(NOT EXISTS ${empty})
        file(WRITE ${empty} "")
    endif()
    foreach(layer IN LISTS ARGN)
        add_library(${layer}_alone SHARED ${empty})
        target_link_libraries(${layer}_alone PRIVATE "$<LINK_LIBRARY:WHOLE_ARCHIVE,${layer}>")
        target_link_options(${layer}_alone PRIVATE -Wl,--no-undefined)
    endforeach()
endfunction()
