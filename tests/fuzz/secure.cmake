# The fuzz target of the recipients' certificate list (included by this folder's CMakeLists.txt).
zpdf_add_fuzzer(fuzz_certificates
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/fuzz_certificates.cpp
    LIBS zpdfcore)
