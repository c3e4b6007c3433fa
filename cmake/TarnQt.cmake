# tarn_find_qt(RELEASE COMPONENT...): Qt 5 or 6 for the tests and the examples, which use both.
macro(tarn_find_qt release)
    # Targets without a number would be of one release here, of the other there.
    set(QT_NO_CREATE_VERSIONLESS_TARGETS ON)
    set(QT_NO_CREATE_VERSIONLESS_FUNCTIONS ON)
    find_package(Qt${release} QUIET COMPONENTS ${ARGN})
endmacro()
