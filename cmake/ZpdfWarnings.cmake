# zpdf_warnings(<target>): the project's warning set, as errors, for its C++ sources (the C
# sources of a target are generated code).
function(zpdf_warnings target)
    if(MSVC)
        target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:/W4 /WX /permissive->)
    else()
        target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -Wshadow
            -Wnon-virtual-dtor -Wold-style-cast -Wcast-align -Woverloaded-virtual -Werror>)
    endif()
endfunction()
