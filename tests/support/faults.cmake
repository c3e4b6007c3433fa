# For test programs that use support/faults.h:
#   tarn_add_test(NAME x SOURCES x_test.cpp ${TARN_FAULT_SOURCES} LINK tarn_internal
#                 LINK_OPTIONS ${TARN_FAULT_LINK_OPTIONS})
set(TARN_FAULT_SOURCES "${CMAKE_CURRENT_LIST_DIR}/faults.cpp")
set(TARN_FAULT_LINK_OPTIONS socketpair read write sigaction uloop_init uloop_fd_add)
list(TRANSFORM TARN_FAULT_LINK_OPTIONS PREPEND "-Wl,-wrap=")
