# The fuzz targets of the persisted stream records (included by this folder's CMakeLists.txt).
zpdf_add_fuzzer(fuzz_object_record
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/fuzz_object_record.cpp
    LIBS zpdfcore)
zpdf_add_fuzzer(fuzz_element_record
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/fuzz_element_record.cpp
    LIBS zpdf_element)
