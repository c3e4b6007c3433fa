# tarn::ext: headers only, in include/tarn/ext. Nothing to build; its users link libtarn.
add_library(tarn_ext INTERFACE)
add_library(tarn::ext ALIAS tarn_ext)
target_compile_features(tarn_ext INTERFACE cxx_std_17)
target_link_libraries(tarn_ext INTERFACE tarn)
set_target_properties(tarn_ext PROPERTIES EXPORT_NAME ext)
