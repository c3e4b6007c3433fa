# Lets find_package(tarn) of the tutorial find the targets of the tree that it is built in.
set(tarn_FOUND TRUE)
