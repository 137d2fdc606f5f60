# Read by scripts/coverage.sh through CMAKE_PROJECT_pblinalg_INCLUDE: counters go into the library's
# ordinary objects and its baseline kernels, which are the same source as the others.
function(pblinalg_count_branches)
    get_property(blocks GLOBAL PROPERTY PBLINALG_BLOCKS)
    list(FILTER blocks INCLUDE REGEX "_baseline$")
    foreach(target pblinalg_core ${blocks})
        # Inlining would hide lines; counters of several threads must add up.
        target_compile_options(
            ${target} PRIVATE --coverage -fprofile-update=atomic -O1 -fno-inline)
    endforeach()
endfunction()
cmake_language(DEFER CALL pblinalg_count_branches)
