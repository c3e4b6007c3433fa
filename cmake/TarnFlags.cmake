# Language level, warnings, sanitizers and checks, gathered in one interface target that every target of
# the project links privately: tarn_flags.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(TARN_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()

find_package(Threads REQUIRED)

add_library(tarn_flags INTERFACE)
target_compile_options(tarn_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(TARN_WERROR)
    target_compile_options(tarn_flags INTERFACE -Werror)
endif()
if(TARN_SANITIZE)
    # Global, so that no object escapes it: mixing sanitized and plain objects hides findings.
    add_compile_options(-fsanitize=${TARN_SANITIZE} -fno-omit-frame-pointer
                        -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${TARN_SANITIZE})
endif()
if(TARN_CHECKED_CONTAINERS)
    # Global as well: containers have another layout then, so what they pass through (the public
    # interface, GoogleTest) has to be built alike.
    add_compile_definitions(_GLIBCXX_DEBUG _GLIBCXX_ASSERTIONS)
endif()
