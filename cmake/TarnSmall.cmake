# tarn_make_small(LIBRARY OBJECTS ARCHIVE): how the shared library is kept small where it is built to
# be used (Release, MinSizeRel), and what it exports. OBJECTS are its objects, ARCHIVE what else is
# made of them.
include(CheckCXXSourceCompiles)
include(CheckIPOSupported)

option(TARN_LTO "Optimise the shared library as a whole when it is linked (Release, MinSizeRel)" ON)

function(tarn_make_small library objects archive)
    # Whoever links the static library can leave out what is not used.
    target_compile_options(${objects} PRIVATE -ffunction-sections -fdata-sections)
    # What -O3 adds is code. A set of flags that somebody has chosen stays as it is.
    if(CMAKE_CXX_FLAGS_RELEASE STREQUAL "-O3 -DNDEBUG")
        target_compile_options(${objects} PRIVATE "$<$<CONFIG:Release>:-O2>")
    endif()
    get_target_property(kind ${library} TYPE)
    if(NOT kind STREQUAL "SHARED_LIBRARY" OR TARN_SANITIZE)
        return() # sanitizers need symbols of their own
    endif()

    tarn_export_own_names(${library})
    # What the library calls of itself is its own, whatever else the program defines: such calls need
    # no table and can be inlined.
    target_compile_options(${objects} PRIVATE -fno-semantic-interposition)
    target_link_options(${library} PRIVATE -Wl,--gc-sections -Wl,-Bsymbolic-functions)
    # Code and constants share pages, as they do by default for other processors than x86.
    target_link_options(${library} PRIVATE "$<$<CONFIG:MinSizeRel>:-Wl,-z,noseparate-code>")
    tarn_pack_relocations(${library})

    if(NOT TARN_LTO OR DEFINED CMAKE_INTERPROCEDURAL_OPTIMIZATION OR
       NOT (CMAKE_CONFIGURATION_TYPES OR CMAKE_BUILD_TYPE MATCHES "^(Release|MinSizeRel)$"))
        return()
    endif()
    check_ipo_supported(RESULT supported OUTPUT reason LANGUAGES CXX)
    if(NOT supported)
        message(STATUS "tarn: no optimisation at link time")
        return()
    endif()
    set_target_properties(${library} ${objects} ${archive} PROPERTIES
        INTERPROCEDURAL_OPTIMIZATION_RELEASE ON
        INTERPROCEDURAL_OPTIMIZATION_MINSIZEREL ON)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # Every test would optimise the whole library again: it links the plain machine code.
        target_compile_options(${objects} PRIVATE
            "$<$<AND:$<BOOL:${TARN_TESTS}>,$<CONFIG:Release,MinSizeRel>>:-ffat-lto-objects>")
    else()
        target_link_options(${archive} INTERFACE
            "$<$<CONFIG:Release,MinSizeRel>:${CMAKE_CXX_COMPILE_OPTIONS_IPO}>")
    endif()
endfunction()

# libc++ compares type information by its address, so that of the values in an attr has to be one for
# the library and its users there. libstdc++ compares names.
function(tarn_export_own_names library)
    check_cxx_source_compiles("#include <version>\n#ifndef _LIBCPP_VERSION\n#error\n#endif\nint main() {}"
                              TARN_HAS_LIBCXX)
    if(TARN_HAS_LIBCXX)
        return()
    endif()
    set(script "${PROJECT_SOURCE_DIR}/src/tarn.map")
    target_link_options(${library} PRIVATE "-Wl,--version-script=${script}")
    set_property(TARGET ${library} APPEND PROPERTY LINK_DEPENDS "${script}")
endfunction()

# The addresses that the loader has to adjust take 24 bytes each, packed a few bits. glibc knows the
# packed form from 2.36 on, and says so when an older one finds it.
function(tarn_pack_relocations library)
    check_cxx_source_compiles("#include <cstdlib>\n#if !defined(__GLIBC__) || !__GLIBC_PREREQ(2, 36)\n#error\n#endif\nint main() {}"
                              TARN_LOADER_UNPACKS)
    if(TARN_LOADER_UNPACKS)
        # A linker that cannot do it for the processor says so, and goes on.
        set(CMAKE_REQUIRED_LINK_OPTIONS -Wl,-z,pack-relative-relocs)
        check_cxx_source_compiles("int main() {}" TARN_LINKER_PACKS FAIL_REGEX "pack-relative-relocs")
        if(TARN_LINKER_PACKS)
            target_link_options(${library} PRIVATE -Wl,-z,pack-relative-relocs)
        endif()
    endif()
endfunction()
