# Programs of another processor, run on this machine: with TARN_EMULATOR set, each one that is linked
# becomes a script of its name that runs it under the emulator, beside the program itself, NAME.elf.
# Whoever starts a program, a test or a shell script, then needs to know nothing of it.
# (CMAKE_CROSSCOMPILING_EMULATOR serves only what CTest starts itself.)
set(TARN_EMULATOR "" CACHE STRING "Emulator, with options, that runs what is built")

if(TARN_EMULATOR)
    foreach(language C CXX)
        set(CMAKE_${language}_LINK_EXECUTABLE
            "${CMAKE_${language}_LINK_EXECUTABLE}"
            "${CMAKE_CURRENT_LIST_DIR}/emulated.sh <TARGET> ${TARN_EMULATOR}")
    endforeach()
endif()
