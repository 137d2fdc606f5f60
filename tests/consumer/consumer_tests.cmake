# The library as its users meet it: installed, found by find_package and by pkg-config, or added as
# a subproject. The tree is moved after the installation, so that a path left in it shows.
set(consumer_source ${CMAKE_CURRENT_LIST_DIR})
set(consumer_build ${CMAKE_CURRENT_BINARY_DIR}/consumer)
set(prefix ${consumer_build}/moved)

add_test(NAME consumer.Install
    COMMAND sh -ec "rm -rf '${consumer_build}'
        '${CMAKE_COMMAND}' --install '${PROJECT_BINARY_DIR}' --prefix '${consumer_build}/installed'
        mv '${consumer_build}/installed' '${prefix}'")
set_tests_properties(consumer.Install PROPERTIES FIXTURES_SETUP consumer_prefix)

# A project that finds the installed library; further arguments are options of its own.
function(pblinalg_add_consumer name source)
    add_test(NAME consumer.${name}
        COMMAND ${CMAKE_CTEST_COMMAND}
            --build-and-test ${source} ${consumer_build}/${name}
            --build-generator ${CMAKE_GENERATOR}
            --build-options
                -DCMAKE_BUILD_TYPE=${CMAKE_BUILD_TYPE}
                -DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER}
                -DCMAKE_CXX_FLAGS=${CMAKE_CXX_FLAGS}
                -DCMAKE_PREFIX_PATH=${prefix}
                ${ARGN}
            --test-command ${CMAKE_CTEST_COMMAND} --output-on-failure --no-tests=error)
    set_tests_properties(consumer.${name} PROPERTIES FIXTURES_REQUIRED consumer_prefix)
endfunction()

pblinalg_add_consumer(CMakePackage ${consumer_source} -DREADME=${PROJECT_SOURCE_DIR}/README.md)

find_program(PKG_CONFIG pkg-config REQUIRED)
add_test(NAME consumer.PkgConfig
    COMMAND sh -ec "export PKG_CONFIG_PATH='${prefix}/${CMAKE_INSTALL_LIBDIR}/pkgconfig'
        test \"$('${PKG_CONFIG}' --modversion pblinalg)\" = '${PROJECT_VERSION}'
        '${CMAKE_CXX_COMPILER}' ${CMAKE_CXX_FLAGS} -std=c++20 \
            '${consumer_source}/every_member.cpp' \
            $('${PKG_CONFIG}' --cflags --libs pblinalg) -o '${consumer_build}/with_pkg_config'
        LD_LIBRARY_PATH='${prefix}/${CMAKE_INSTALL_LIBDIR}' '${consumer_build}/with_pkg_config'")

set_tests_properties(consumer.PkgConfig PROPERTIES FIXTURES_REQUIRED consumer_prefix)

if(PBLINALG_BUILD_MPI)
    pblinalg_add_consumer(MPIPackage ${consumer_source}/mpi
        -DPROGRAM=${PROJECT_SOURCE_DIR}/examples/there_and_back.cpp
        -DRANKS=${PROJECT_SOURCE_DIR}/scripts/ranks.sh)
    # MPI has leaks of its own.
    set_tests_properties(consumer.MPIPackage PROPERTIES
        ENVIRONMENT "OMP_NUM_THREADS=1;ASAN_OPTIONS=detect_leaks=0")
endif()

add_test(NAME consumer.Subproject
    COMMAND ${CMAKE_COMMAND}
        -S ${consumer_source}/subproject -B ${consumer_build}_subproject
        -G ${CMAKE_GENERATOR}
        -DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER}
        -DPBLINALG_SOURCE=${PROJECT_SOURCE_DIR})
