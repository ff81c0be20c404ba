// The library is assembled from static parts; see QorVarlokLibrary.cmake.
