# What `cmake --install` lays down: headers, the shared library, a CMake package and a pkg-config
# file. Both package files find the rest from their own place, so the tree can be moved.
include(CMakePackageConfigHelpers)

install(TARGETS pblinalg EXPORT pblinalg
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/pblinalg ${PROJECT_BINARY_DIR}/include/pblinalg
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN "*.hpp" PATTERN "mpi" EXCLUDE)

# Before 1.0 a new minor version may change the interface, so only the same one is compatible.
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/pblinalg)
install(EXPORT pblinalg
    NAMESPACE pblinalg:: FILE pblinalgConfig.cmake DESTINATION ${package_dir})
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/pblinalgConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/pblinalgConfigVersion.cmake DESTINATION ${package_dir})

# A package of its own, so that users of the core need no MPI.
if(PBLINALG_BUILD_MPI)
    install(TARGETS pblinalg_mpi EXPORT pblinalg_mpi LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/pblinalg/mpi
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pblinalg)
    install(EXPORT pblinalg_mpi
        NAMESPACE pblinalg:: FILE pblinalg_mpiConfig.cmake DESTINATION ${package_dir}_mpi)
endif()

# Relative to the pkg-config file where the destinations are relative, as given where they are not.
function(pblinalg_pc_path result destination)
    if(IS_ABSOLUTE ${destination})
        set(${result} ${destination} PARENT_SCOPE)
    else()
        set(${result} "\${prefix}/${destination}" PARENT_SCOPE)
    endif()
endfunction()
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
    set(PBLINALG_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
else()
    file(RELATIVE_PATH up /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
    string(REGEX REPLACE "/$" "" up ${up})
    set(PBLINALG_PC_PREFIX "\${pcfiledir}/${up}")
endif()
pblinalg_pc_path(PBLINALG_PC_LIBDIR ${CMAKE_INSTALL_LIBDIR})
pblinalg_pc_path(PBLINALG_PC_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR})
configure_file(${CMAKE_CURRENT_LIST_DIR}/pblinalg.pc.in ${PROJECT_BINARY_DIR}/pblinalg.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/pblinalg.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
