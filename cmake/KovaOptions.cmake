# Compiler and linker settings that every target of the project shares.
#
# kova_warnings   warnings, all of them errors
# kova_runtimeless  C++ without its runtime: no exceptions, no RTTI, no libstdc++ (agent, stand-ins that programs load)
set(KOVA_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them")

add_library(kova_warnings INTERFACE)
target_compile_options(kova_warnings INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
if(KOVA_SANITIZE)
    # Instrumentation hides from the compiler what is initialised, in the C++ library's headers too.
    target_compile_options(kova_warnings INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
    # ThreadSanitizer does not know fences. Asio has some beside the locks that order its handlers anyway.
    target_compile_options(kova_warnings INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>)
endif()

add_library(kova_runtimeless INTERFACE)
target_compile_options(kova_runtimeless INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>
    # One thread-local word is read in signal handlers: it must not be allocated on first use.
    -ftls-model=initial-exec
    # The out-of-line atomics of libgcc would bring a static constructor into every library.
    $<$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},aarch64>:-mno-outline-atomics>)

if(KOVA_SANITIZE)
    add_compile_options(-fsanitize=${KOVA_SANITIZE} -fno-sanitize-recover=undefined)
    # Tests that link the agent's objects are built without RTTI like these, GoogleTest is not: its look at a test's
    # type would find none.
    add_compile_options(-fno-sanitize=vptr)
    add_link_options(-fsanitize=${KOVA_SANITIZE})
endif()
if(KOVA_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link)  # everything is instrumented, the fuzzers alone bring a main
endif()

# CMake would add the C++ runtime to every link of C++ objects, and the check that kova_loadable makes were void.
set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")

# A library that programs load: bound at load time, read-only after relocation, never unloaded, nothing undefined.
# Linked by the C driver, so that a slip into the C++ runtime is a link error.
function(kova_loadable target)
    set_target_properties(${target} PROPERTIES
        LINKER_LANGUAGE C
        C_VISIBILITY_PRESET hidden
        CXX_VISIBILITY_PRESET hidden
        POSITION_INDEPENDENT_CODE ON
        LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib
        # CMake's own build-tree path would end in ":", which the loader takes for the current directory.
        BUILD_WITH_INSTALL_RPATH ON
        INSTALL_RPATH "$ORIGIN")
    target_link_options(${target} PRIVATE -Wl,-z,now,-z,relro,-z,nodelete -Wl,--no-undefined)
    install(TARGETS ${target} LIBRARY DESTINATION lib)
endfunction()

function(kova_program target)
    set_target_properties(${target} PROPERTIES
        RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin
        BUILD_WITH_INSTALL_RPATH ON
        INSTALL_RPATH "$ORIGIN/../lib")
    install(TARGETS ${target} RUNTIME DESTINATION bin)
endfunction()
