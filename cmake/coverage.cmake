# Read by scripts/coverage.py through CMAKE_PROJECT_pblinalg_INCLUDE: puts counters into the
# library's ordinary objects and its baseline kernels.
function(pblinalg_count_branches)
    get_property(kernels GLOBAL PROPERTY PBLINALG_KERNELS)
    list(FILTER kernels INCLUDE REGEX "_baseline$")
    if(TARGET pblinalg_mpi_objects)
        list(APPEND kernels pblinalg_mpi_objects)
    endif()
    foreach(target pblinalg_core ${kernels})
        # Counters of several threads must add up.
        target_compile_options(${target} PRIVATE
            -fprofile-instr-generate -fcoverage-mapping -fprofile-update=atomic)
    endforeach()
endfunction()
cmake_language(DEFER CALL pblinalg_count_branches)
