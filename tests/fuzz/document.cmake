# The fuzz target of whole documents (included by this folder's CMakeLists.txt): the typical
# job of the corpus run on any bytes. The job and the sample writer are compiled in, as the
# host and the corpus folder are not part of a fuzz build. The seeds in corpus/document are
# small documents written by cli/sample_pdf.cpp.
zpdf_add_fuzzer(fuzz_document
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/fuzz_document.cpp
            ${PROJECT_SOURCE_DIR}/tests/corpus/typical_job.cpp
            ${PROJECT_SOURCE_DIR}/cli/sample_pdf.cpp
    LIBS zpdfcore)
