# The tests of the state vector over MPI, each with several numbers of ranks on this machine.
add_executable(mpi_test mpi/mpi_test.cpp)
target_include_directories(mpi_test PRIVATE ${PROJECT_SOURCE_DIR}/tests)
target_link_libraries(mpi_test PRIVATE pblinalg::mpi pblinalg_internals GTest::gtest)

# MPI unloads its modules before leaks are looked for, and has many of its own.
set(mpi_environment OMP_NUM_THREADS=1 ASAN_OPTIONS=detect_leaks=0)
foreach(ranks 1 2 4 8 16)
    # Every rank computes the whole state, too: on many of them, what depends on their number.
    set(filter *)
    if(ranks EQUAL 8)
        set(filter *Runs*:*Files*:*Faults*:*Amplitudes*:*Expectation*:*Loads*:*Estimates*)
    elseif(ranks EQUAL 16)
        set(filter *RunsOfRandomLists*)
    endif()
    add_test(NAME mpi.on_${ranks}_ranks
        COMMAND ${PROJECT_SOURCE_DIR}/scripts/ranks.sh ${ranks} $<TARGET_FILE:mpi_test>
                --gtest_filter=${filter})
    set_tests_properties(mpi.on_${ranks}_ranks PROPERTIES
        ENVIRONMENT "${mpi_environment}" TIMEOUT 120 RUN_SERIAL ON)
endforeach()

add_executable(interrupted_run mpi/interrupted_run.cpp)
target_link_libraries(interrupted_run PRIVATE pblinalg::mpi)
add_test(NAME mpi.interruption
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/mpi/check_interruption.sh
            ${PROJECT_SOURCE_DIR}/scripts/ranks.sh $<TARGET_FILE:interrupted_run>)
set_tests_properties(mpi.interruption PROPERTIES
    ENVIRONMENT "${mpi_environment}" TIMEOUT 120 RUN_SERIAL ON)
