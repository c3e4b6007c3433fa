# For test programs that use support/allocations.h:
#   tarn_add_test(NAME x SOURCES x_test.cpp ${TARN_ALLOCATION_SOURCES} LINK tarn_internal
#                 LINK_OPTIONS ${TARN_ALLOCATION_LINK_OPTIONS})
set(TARN_ALLOCATION_SOURCES "${CMAKE_CURRENT_LIST_DIR}/allocations.cpp")
set(TARN_ALLOCATION_LINK_OPTIONS malloc calloc realloc)
list(TRANSFORM TARN_ALLOCATION_LINK_OPTIONS PREPEND "-Wl,-wrap=")
